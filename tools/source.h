// What FILE|DIR on the command line stands for: one data file, one split directory, or a directory of data
// files. rows/file.h finds and reads them; here its faults get their words.
#ifndef KELPD_TOOLS_SOURCE_H
#define KELPD_TOOLS_SOURCE_H

#include <string>

#include "rows/file.h"

// rows::file_find. Throws tool_error when there is nothing of that name, no data file in the directory, or
// what is neither a regular file nor a directory.
rows::file_list_t source_find(const std::string& path);

// rows::file_open, with memory of its own, and room for the descriptors of a split. Throws tool_error.
void source_open(rows::file_t* ret, const std::string& path);

// Throws what a function of rows/file.h found wrong as a tool_error.
[[noreturn]] void source_fail(const rows::file_fault_t& fault);

#endif
