// The conditions and column lists of command lines. rows/cond.h has the language; here its faults get their
// words.
#ifndef KELPD_TOOLS_WHERE_H
#define KELPD_TOOLS_WHERE_H

#include <string>
#include <vector>

#include "rows/cond.h"

// Parses conditions, all of which must hold. Throws tool_usage with the place of a mistake.
rows::cond_t where_parse(const std::vector<std::string>& text);

// Parses lists of column names. Throws tool_usage.
std::vector<std::string> where_names(const std::vector<std::string>& text);

#endif
