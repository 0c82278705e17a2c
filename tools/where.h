// Conditions on rows: their text, their binding to columns, and the exact decision for one row.
//
//     condition := term { "and" term }
//     term      := NAME operator CONSTANT
//                | NAME "is" ["not"] "null"
//                | NAME "in" "(" [CONSTANT {"," CONSTANT}] ")"
//     operator  := one of = == != <> > >= < <=
//
// A NAME is a bare word or stands in double quotes (a quote inside as two); a CONSTANT is a bare word,
// written as a CSV field of the column's type would be, or stands in single quotes (likewise). Words of the
// language are read in any case. A comparison with NULL is unknown, and rows for which a condition is unknown
// are not selected. NaN is unequal to everything and neither above nor below anything.
#ifndef KELPD_TOOLS_WHERE_H
#define KELPD_TOOLS_WHERE_H

#include <string>
#include <vector>

#include "tools/value.h"

// One term as it was written.
struct where_term_t {
    std::string name;
    int op = 0;                     // CVN_OP_...
    std::vector<std::string> text;  // the constants
};

// One term bound to a column.
struct where_cond_t {
    int cno = 0;  // column number in the file
    cvn_typ_t typ = 0;
    int op = 0;
    std::vector<value_t> value;
};

// Parses a condition; its terms are added to `ret`. Throws tool_usage with the place of the mistake.
void where_parse(std::vector<where_term_t>* ret, const std::string& text);

// Parses a list of column names, which are added to `ret`: parted by commas, each as it is or in double
// quotes, with a quote inside as two. Throws tool_usage.
void where_parse_names(std::vector<std::string>* ret, const std::string& text);

// Finds the columns and reads the constants as their types. Throws tool_error.
std::vector<where_cond_t> where_bind(const std::vector<where_term_t>& term, const cvn_coldef_t* coldef,
                                     int ncol);

// Tells whether a value satisfies one condition; unknown counts as no.
bool where_match(const where_cond_t& cond, const cvn_datum_t& datum, bool isnull);

// Hands the scan those conditions with which its statistics can rule out row groups and never lose a row that
// where_match selects. The columns are required columns of the scan already.
void where_push_down(cvn_scan_t* scan, const std::vector<where_cond_t>& cond);

#endif
