#include "tools/where.h"

#include <fmt/format.h>

#include "tools/tool.h"

rows::cond_t where_parse(const std::vector<std::string>& text) {
    rows::cond_t cond;
    rows::cond_fault_t fault;
    for (const std::string& t : text)
        if (!rows::cond_parse(&cond, t, &fault))
            throw tool_usage(fmt::format("condition {}: {}; {}", tool_quote(t, 200), fault.what, fault.hint));
    return cond;
}

std::vector<std::string> where_names(const std::vector<std::string>& text) {
    std::vector<std::string> names;
    rows::cond_fault_t fault;
    for (const std::string& t : text)
        if (!rows::names_parse(&names, t, &fault))
            throw tool_usage(fmt::format("columns {}: {}; {}", tool_quote(t, 200), fault.what, fault.hint));
    return names;
}
