// Files, split directories and directories of files.
#include "tools/source.h"

#include <dirent.h>
#include <errno.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "tools/tool.h"

source_t source_find(const std::string& path) {
    source_t source;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw tool_error(path + ": " + tool_strerror(errno));
    tool_check_source(path);
    if (!S_ISDIR(st.st_mode) || stat((path + "/meta.cvnx").c_str(), &st) == 0) {
        source.path.push_back(path);
        return source;
    }
    source.many = true;
    DIR* const dir = opendir(path.c_str());
    if (!dir) throw tool_error(path + ": " + tool_strerror(errno));
    bool split = false;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.ends_with(".cvn")) source.path.push_back(path + "/" + name);
        split |= name.ends_with(".cvnx");
    }
    closedir(dir);
    if (source.path.empty() && split)
        throw tool_error(path + ": an unfinished split (meta.cvnx is missing); run 'cvn split' again");
    if (source.path.empty()) throw tool_error(path + ": no file here has a name ending in .cvn");
    std::sort(source.path.begin(), source.path.end());
    return source;
}

source_scan_t::source_scan_t(const std::string& path) {
    // The library would wait for the other end of a pipe.
    tool_check_source(path);
    tool_check_source(path + "/meta.cvnx");
    errno = 0;
    const int code = cvn_scan_open(&scan, path.c_str());
    if (code != 0) {
        scan = nullptr;
        throw tool_error(tool_code_text(code, errno, path));
    }
    try {
        if (scan->split_mode) tool_allow_files(scan->schema->ncol);
        for (int c = 0; scan->split_mode && c < scan->schema->ncol; ++c)
            tool_check_source(fmt::format("{}/{}.cvnx", path, c));
    } catch (const tool_error&) {
        (void)cvn_scan_close(scan);  // always 0
        throw;
    }
}

source_scan_t::~source_scan_t() {
    if (scan) (void)cvn_scan_close(scan);  // always 0
}
