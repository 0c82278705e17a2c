// Rows as text: CSV that 'cvn create' reads back as the same values, JSON lines, and a table for people.
#ifndef KELPD_TOOLS_FORMAT_H
#define KELPD_TOOLS_FORMAT_H

#include <string>
#include <vector>

#include "colvane/colvane.h"
#include "tools/tool.h"

enum format_kind_t { FORMAT_CSV, FORMAT_JSONL, FORMAT_TABLE };

struct format_t {
    format_kind_t kind = FORMAT_CSV;
    tool_out_t* out = nullptr;  // borrowed
    bool terminal = false;      // it goes to one: cells are as wide as they are shown there
    std::vector<std::string> name;
    std::vector<cvn_typ_t> typ;
    std::vector<std::string> key;                // jsonl: the names as JSON, with their punctuation
    std::vector<std::vector<std::string>> held;  // table: rows that wait until the widths are known
    std::vector<size_t> width;                   // table: of each column, in characters
    bool wide_known = false;                     // table: the head is out
};

// Starts the output: the header row of a CSV.
void format_begin(format_t* format, format_kind_t kind, tool_out_t* out, std::vector<std::string> name,
                  std::vector<cvn_typ_t> typ);

// Writes one row: as many values as there are names.
void format_row(format_t* format, const cvn_datum_t* datum, const bool* isnull);

// Writes what waits, and flushes.
void format_end(format_t* format);

// Appends a CSV field: quoted where it holds a comma, a quote, a line end, or would be read as something
// else.
void format_csv_text(std::string* out, std::string_view text);

// Appends a JSON string; bytes that are no UTF-8 become U+FFFD.
void format_json_text(std::string* out, std::string_view text);

// Returns `text` for one line: ASCII's control characters escaped, at most `max` characters. What else a
// terminal must not get is escaped where it is one (tool_shown).
std::string format_cell(std::string_view text, size_t max);

// Returns the characters of `text`, as UTF-8.
size_t format_width(std::string_view text);

#endif
