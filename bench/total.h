// Totals: what one column adds up to, by its type, and how that is written.
#ifndef BENCH_TOTAL_H
#define BENCH_TOTAL_H

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>

#include "bench/kernels.h"
#include "colvane/colvane.h"

// An exact sum of decimals: per exponent two whole numbers, so that 34 digits per value cannot overflow them.
struct decimal_total_t {
    struct part_t {
        __int128 high = 0;  // times 10^17
        __int128 low = 0;
    };
    std::map<int, part_t> parts;  // by exponent
    bool special = false;         // an infinity or a NaN was among them
};

struct total_t {
    cvn_typ_t typ = 0;
    __int128 whole = 0;  // sum of integers, of lengths; largest date or time
    bool any = false;    // dates and times: there was a value
    double real = 0;
    decimal_total_t decimal;
};

// Adds `n` values of a fixed width, packed, none of them NULL.
void total_add(total_t* total, const kernels_t* kernels, const char* p, int n);

// Adds the lengths of texts or byte strings.
void total_add_length(total_t* total, int64_t length);

// Writes the total: whole numbers and decimals exactly, floating point with 17 digits, dates as YYYY-MM-DD,
// "null" for the largest of no values.
std::string total_text(const total_t& total);

#endif
