// Conditions on rows: what one may say, which columns it means, when statistics may skip for it, and the exact
// decision.
//
//     condition := term { "and" term }
//     term      := NAME operator CONSTANT
//                | NAME "is" ["not"] "null"          also isnull, isnotnull
//                | NAME "in" "(" [CONSTANT {"," CONSTANT}] ")"
//     operator  := one of = == != <> > >= < <=
//
// A NAME is a bare word or stands in double quotes (a quote inside as two). A CONSTANT stands in single quotes
// (likewise), or is one or several bare words: ts >= 2024-01-31 12:00. Constants are read as their column's
// type (rows/value.h). One in double quotes is read like one in single quotes unless it is also the name of a
// column, which is refused: it could be meant as that. A bare constant ends at a comma, a parenthesis, the
// condition's end or a word of the language, which are "and", "or", "not", "in", "is", "like", "between" and
// "null" in any case; it does not begin with one of = ! < >.
//
// A comparison with NULL is unknown, and rows for which a condition is unknown are not selected. NaN is unequal
// to everything, itself included, and neither above nor below anything.
//
// A condition is a tree, so that more kinds of nodes can join it. All of them are decided by whether they are
// true: a node for "or" joins what its kids keep, and "not" moves down to the comparisons (not (a and b) is
// not a or not b), where it means "neither unknown nor true".
//
// Failures fill a fault, whose phrases the callers word.
#ifndef KELPD_ROWS_COND_H
#define KELPD_ROWS_COND_H

#include <stdint.h>

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "rows/page.h"
#include "rows/value.h"

namespace rows {

enum cond_fault_code_t : int {
    COND_SYNTAX = 1,  // `what` is wrong with the text, or with a comparison
    COND_COLUMN,      // there is no column `name`
    COND_TYPE,        // column `name` is of a type that this build does not know
    COND_VALUE,       // `text` is no value of column `name` of type `typ`: `what` continues "the text ..."
};

struct cond_fault_t {
    cond_fault_code_t code = COND_SYNTAX;
    std::string what;  // a phrase
    std::string hint;  // what to write; may be empty
    std::string name;  // the column, where there is one
    std::string text;  // the constant, where there is one
    cvn_typ_t typ = 0;
};

enum cond_kind_t : int { COND_AND, COND_COMPARE };

// A constant as it was written.
struct cond_const_t {
    std::string text;
    bool is_name = false;  // it stood in double quotes
};

struct cond_t {
    cond_kind_t kind = COND_AND;
    std::vector<cond_t> kid;  // COND_AND: what must hold; nothing holds for every row

    // COND_COMPARE, as parsed:
    std::string column;
    int op = 0;  // CVN_OP_...
    std::vector<cond_const_t> constant;
    // and as bound:
    int col = -1;  // the column's number, by cond_bind or cond_renumber
    cvn_typ_t typ = 0;
    std::vector<value_t> value;
};

// Parses `text` and adds it to `ret`, an "and" node: everything in it must hold.
[[nodiscard]] bool cond_parse(cond_t* ret, std::string_view text, cond_fault_t* fault);

// Makes a comparison and adds it to `ret`, an "and" node. The constants are texts as between single quotes.
[[nodiscard]] bool cond_add(cond_t* ret, std::string_view column, int op, std::span<const std::string> text,
                            cond_fault_t* fault);

// Adds the names of the columns that a condition means, as it was parsed.
void cond_names(std::vector<std::string>* ret, const cond_t& cond);

// Parses a list of column names, which are added to `ret`: parted by commas, each as it is or in double quotes,
// with a quote inside as two.
[[nodiscard]] bool names_parse(std::vector<std::string>* ret, std::string_view text, cond_fault_t* fault);

// A column that a condition may mean. `typ` 0 is a type that is not known.
struct cond_column_t {
    std::string_view name;
    cvn_typ_t typ;
};

// Finds the columns (`col` becomes the number among those given, the first of that name) and reads the
// constants as their types.
[[nodiscard]] bool cond_bind(cond_t* cond, std::span<const cond_column_t> column, cond_fault_t* fault);

// Adds the columns of a bound condition that `ret` does not hold yet, in the order of their appearance.
void cond_columns(std::vector<int>* ret, const cond_t& cond);

// Gives each comparison place[col] for its `col`: where its column will be when rows are decided.
void cond_renumber(cond_t* cond, std::span<const int> place);

// Whether a bound condition holds for no row whatever its columns hold (an empty list).
bool cond_is_never(const cond_t& cond);

// Decides the rows of one row group: clears keep[r] for every row r for which the condition is not true.
// `column` is indexed by `col`; all have the same rows.
void cond_decide(uint8_t* keep, const cond_t& cond, std::span<const column_t> column);

// Decides, and removes the other rows from the first `nresult` columns; the rest is only for the condition.
// Returns the rows that are left.
int64_t cond_filter(std::span<column_t> column, size_t nresult, const cond_t& cond);

// Skipping by statistics.
//
// A file's bounds are right for values that have an order. Around NaN they are not: a NaN that comes first in a
// row group becomes both of its bounds, no later value displaces it, and the file's bounds pass over such a row
// group. So for types that have NaNs a comparison is used for skipping only as far as the bounds are trusted:
enum cond_trust_t : int {
    COND_NEVER,     // there may be NaNs, and nothing is known of the bounds: nothing is skipped
    COND_PROMISED,  // the caller promises that the column holds no NaN: all comparisons skip
    COND_PROVED,    // no bound of the file is NaN, so they enclose all values but NaNs: all skip but "not
                    // equal", which NaNs between the bounds meet as well
};

// What the statistics of an open file allow for a column of a type that has NaNs: COND_PROVED or COND_NEVER.
cond_trust_t cond_prove(cvn_scan_t* scan, int cno, cvn_typ_t typ);

// A predicate on statistics: an operator of the library, never CVN_OP_IN, and its value. It rules out no row
// for which the condition is true. The datum borrows from the condition.
struct cond_push_t {
    int col;
    int op;
    bool has_value;  // false: CVN_OP_ISNULL, CVN_OP_ISNOTNULL
    cvn_datum_t value;
};

// Adds the predicates that a bound condition allows, possibly none; all of them may be used together.
// `trust(col)` is asked for columns whose type has NaNs.
void cond_push(std::vector<cond_push_t>* ret, const cond_t& cond,
               const std::function<cond_trust_t(int col)>& trust);

}  // namespace rows

#endif
