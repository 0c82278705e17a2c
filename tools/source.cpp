// Files, split directories and directories of files.
#include "tools/source.h"

#include <fmt/format.h>

#include "tools/tool.h"

void source_fail(const rows::file_fault_t& fault) {
    const std::string& path = fault.path;
    switch (fault.kind) {
        case rows::FILE_CODE: throw tool_error(tool_code_text(fault.code, fault.err, path));
        case rows::FILE_OTHER: throw tool_error(path + ": is not a regular file");
        case rows::FILE_NO_DATA: throw tool_error(path + ": no file here has a name ending in .cvn");
        case rows::FILE_UNFINISHED:
            throw tool_error(path + ": an unfinished split (meta.cvnx is missing); run 'cvn split' again");
        case rows::FILE_SAME_NAME:
            throw tool_error(fmt::format("{}: column {} cannot be read: another column has its name", path,
                                         tool_quote(fault.name)));
        case rows::FILE_PAGE: break;
    }
    throw tool_error(
        fmt::format("{}: row group {}: a page of column {} is damaged: {}; 'cvn verify' tells more", path,
                    fault.rg, tool_quote(fault.name), fault.what));
}

rows::file_list_t source_find(const std::string& path) {
    rows::file_list_t list;
    rows::file_fault_t fault;
    if (!rows::file_find(&list, path, &fault)) source_fail(fault);
    return list;
}

void source_open(rows::file_t* ret, const std::string& path) {
    rows::file_fault_t fault;
    if (!rows::file_open(ret, path, std::make_shared<rows::bufpool_t>(), &fault)) source_fail(fault);
    if (ret->scan->split_mode) tool_allow_files(ret->scan->schema->ncol);
}
