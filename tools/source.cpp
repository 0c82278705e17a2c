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
    errno = 0;
    const int code = cvn_scan_open(&scan, path.c_str());
    if (code != 0) {
        scan = nullptr;
        throw tool_error(tool_code_text(code, errno, path));
    }
}

source_scan_t::~source_scan_t() {
    if (scan) (void)cvn_scan_close(scan);  // it only reads, and always returns 0
}
