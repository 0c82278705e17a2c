// What FILE|DIR on the command line stands for: one data file, one split directory, or a directory of data
// files.
#ifndef KELPD_TOOLS_SOURCE_H
#define KELPD_TOOLS_SOURCE_H

#include <string>
#include <vector>

#include "colvane/colvane.h"

struct source_t {
    bool many = false;              // a directory of data files
    std::vector<std::string> path;  // the files (or the one split directory), in the order of their names
};

// Finds out. Throws tool_error when there is nothing of that name, no data file in the directory, or what is
// neither a regular file nor a directory.
source_t source_find(const std::string& path);

// An open scan that closes itself.
struct source_scan_t {
    cvn_scan_t* scan = nullptr;
    source_scan_t() = default;
    explicit source_scan_t(const std::string& path);  // throws tool_error; regular files only
    source_scan_t(const source_scan_t&) = delete;
    source_scan_t& operator=(const source_scan_t&) = delete;
    ~source_scan_t();
};

#endif
