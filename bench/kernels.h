// Kernels: the inner loops of `cvn-bench sum`. Each takes packed values without NULLs, of any alignment.
//
// The one source is compiled once per instruction set and the best set that the processor has is chosen at
// run time, so that a build for every machine loses nothing on a newer one. Nothing here allocates or prints.
#ifndef BENCH_KERNELS_H
#define BENCH_KERNELS_H

#include <stddef.h>
#include <stdint.h>

// How many values dec64_block takes at once.
constexpr int DEC64_BLOCK = 2048;

struct kernels_t {
    const char* name;
    // Sums of `n` values, exact but for the floating-point ones, which have several partial sums.
    int64_t (*sum_u8)(const char* p, int n);
    int64_t (*sum_i16)(const char* p, int n);
    int64_t (*sum_i32)(const char* p, int n);
    __int128 (*sum_i64)(const char* p, int n);
    double (*sum_f32)(const char* p, int n);
    double (*sum_f64)(const char* p, int n);
    // The largest of `n` values, at least one.
    int32_t (*max_i32)(const char* p, int n);
    int64_t (*max_i64)(const char* p, int n);

    // Adds up the coefficients of `n` decDoubles, 1 to DEC64_BLOCK, when all agree in their 14 high bits
    // (sign, exponent, first digit) and are finite: stores these bits and the sum of the coefficients without
    // the first digits. Returns false, with nothing stored, when they do not agree.
    bool (*dec64_block)(unsigned* ret_high, unsigned __int128* ret_sum, const char* p, int n);

    // Finds every NUL-terminated text in the `sz` bytes at `p` and adds up the lengths. Stores the number of
    // texts.
    int64_t (*sum_texts)(int64_t* ret_ntext, const char* p, size_t sz);
    // Stores where each of the first `max` texts ends (the offset of its NUL); returns how many there are in
    // `sz` bytes, at most `max`.
    int (*find_texts)(uint32_t* ret_end, int max, const char* p, size_t sz);

    // Stores the indexes of the values in lo..hi, ascending, and returns how many there are; `ret_index` has
    // room for 64 more than `n`.
    int (*select_i32)(int32_t* ret_index, const char* p, int n, int32_t lo, int32_t hi);
};

// The set for this processor. `name` asks for one ("base", "avx2", "avx512"); null chooses. Returns null when
// the processor or the build lacks the one asked for.
const kernels_t* kernels_get(const char* name);

#endif
