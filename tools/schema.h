// Column definitions: from the text that --schema takes, back to that text, and guessed from rows of a CSV
// file.
#ifndef KELPD_TOOLS_SCHEMA_H
#define KELPD_TOOLS_SCHEMA_H

#include <string>
#include <string_view>
#include <vector>

#include "colvane/colvane.h"

// What a definition consists of, for help texts and messages.
extern const char* const SCHEMA_SYNTAX;

// Parses a column-definition string. Beyond cvn_coldef_parse it refuses an empty list, a definition without a
// name or a type, and two columns of the same name. Throws tool_usage.
std::vector<cvn_coldef_t> schema_parse(const std::string& text);

// Returns the text that schema_parse reads as `coldef`. A name that no such text can hold (one with a double
// quote at its beginning, for example) is written in quotes all the same, and `*ret_exact` set to false.
std::string schema_text(const std::vector<cvn_coldef_t>& coldef, bool* ret_exact);

// Tells what makes a text unfit for a column's name, null when nothing does: it is empty, longer than 127
// bytes, or holds a NUL.
const char* schema_name_fault(std::string_view name);

// Returns a definition. Throws tool_error for an unfit name.
cvn_coldef_t schema_column(std::string_view name, cvn_typ_t typ, bool zflag = false);

// Returns a column's name, also of a damaged file where it lacks its NUL.
std::string schema_name(const cvn_coldef_t& coldef);

// What one column's values looked like so far. The types that still fit all of them are kept as bits.
struct schema_guess_t {
    unsigned fit = ~0u;
    bool any = false;   // a value that is not NULL was seen
    bool real = false;  // a number other than NaN and the infinities was seen
};

// Takes one value into account.
void schema_guess_add(schema_guess_t* guess, std::string_view text);

// Returns the narrowest type that gives every value back as it was: bool (true and false only), int64,
// int128, double, dec128, date, time_millis, timestamp_millis, bytea, else cstr. Numbers with leading zeros
// or a plus sign are texts, since as numbers they would come back as others. A column without values is cstr.
cvn_typ_t schema_guess_type(const schema_guess_t& guess);

#endif
