// What the micro benchmarks share: the rows of an order-line table made from a seed, data files of them in a
// temporary folder, and the ends of a measurement.
#ifndef BENCH_MICRO_MICRO_H
#define BENCH_MICRO_MICRO_H

#include <benchmark/benchmark.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "colvane/colvane.h"

// Ends the program with a message when `rc` is not `want`.
void must(int rc, const char* what, int want = 0);

// Processor seconds of this thread, for benchmarks that time only a part of each round.
double now();

// A path in a folder that is removed when the program ends.
std::string temp_path(const char* name);

constexpr int TABLE_NCOL = 15;
extern const char TABLE_COLDEF[];

// Rows ready to be appended: the texts lie in `texts`.
struct rows_t {
    int ncol = 0;
    std::vector<cvn_datum_t> datum;  // ncol per row
    std::vector<char> isnull;        // the same, as bool
    std::vector<char> texts;
    int64_t nrow = 0;
    int64_t nbyte = 0;  // as encoded, without null bitmaps
};

// `nrow` rows of the 15-column table, from row `first` of `total` on (0: of as many): keys and dates that
// ascend, small integers, decimals, prices, flags, words.
rows_t table_rows(int64_t nrow, int64_t first = 0, int64_t total = 0);

// `nrow` values of one type, one row in eight NULL when `nulls`.
rows_t typed_rows(cvn_typ_t typ, int64_t nrow, bool nulls);

// Declares the columns of a definition string on a new writer.
void declare(cvn_t* writer, const char* coldef);

// Appends all rows.
void append(cvn_t* writer, const rows_t& rows);

// Writes a data file of the 15-column table; the same path and contents for the same row count.
std::string table_file(int64_t nrow);

#endif
