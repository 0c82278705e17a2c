/* dec: decimal and 128-bit integer values as text, and their order.
 *
 * Decimals are IEEE 754-2008 decimal64 and decimal128 in the densely packed encoding that IBM's decNumber
 * library keeps in memory (decDouble, decQuad). The arithmetic is that library's; nothing here allocates or
 * prints.
 */
#ifndef COLVANE_DEC_H
#define COLVANE_DEC_H

#include <stdbool.h>
#include <stdint.h>

/* The two types under decNumber's own names and with its layout. A program that uses decNumber as well
 * includes decNumber's headers first: theirs are then the types. */
#ifndef DECDOUBLE
typedef union {
    uint8_t bytes[8];
    uint16_t shorts[4];
    uint32_t words[2];
    uint64_t longs[1];
} decDouble;
#endif
#ifndef DECQUAD
typedef union {
    uint8_t bytes[16];
    uint16_t shorts[8];
    uint32_t words[4];
    uint64_t longs[2];
} decQuad;
#endif

/* The compiler's signed 128-bit integer, named so that strict C accepts it. */
__extension__ typedef __int128 cvn_int128_t;
__extension__ typedef unsigned __int128 cvn_uint128_t;

/* A decimal taken apart. A finite one is coeff * 10^exponent, negated when `minus` is set; its written form
 * is kept, so 1.0 and 1.00 differ in both numbers, and a zero has its sign and exponent. */
typedef struct cvn_dec_parts_t {
    cvn_uint128_t coeff; /* below 10^16 or 10^34; 0 unless finite */
    int32_t exponent;    /* -398 to 369, or -6176 to 6111; 0 unless finite */
    bool finite;         /* neither an infinity nor a NaN */
    bool nan;            /* a NaN of either kind */
    bool minus;          /* the sign bit, which infinities and NaNs have too */
} cvn_dec_parts_t;

/* Room that the text forms need, the NUL included. */
#define CVN_DEC64_STRSZ 25
#define CVN_DEC128_STRSZ 43
#define CVN_INT128_STRSZ 35

#ifdef __cplusplus
extern "C" {
#endif

/* Write the scientific string of `*d`, NUL-terminated, into `buf` of at least CVN_DEC64_STRSZ or
 * CVN_DEC128_STRSZ bytes. Return 0. */
int cvn_dec64_to_string(char* buf, const decDouble* d);
int cvn_dec128_to_string(char* buf, const decQuad* d);

/* Convert text exactly. Return 0, or -1 when the conversion raised any status: bad syntax, or a value that
 * had to be rounded (more than 16 or 34 significant digits that are not trailing zeros), overflowed or
 * underflowed. `*d` is written in either case. */
int cvn_dec64_from_string(decDouble* d, const char* buf);
int cvn_dec128_from_string(decQuad* d, const char* buf);

/* Return -1, 0 or 1 as `*a` is below, equal to or above `*b`. Equal values of different scale are equal, and
 * a NaN is equal to everything. */
int cvn_dec64_cmp(const decDouble* a, const decDouble* b);
int cvn_dec128_cmp(const decQuad* a, const decQuad* b);

/* Take `*d` apart, whatever its bits are: every image is some decimal. */
void cvn_dec64_unpack(cvn_dec_parts_t* ret, const decDouble* d);
void cvn_dec128_unpack(cvn_dec_parts_t* ret, const decQuad* d);

/* Whether `*d` is a NaN, quiet or signalling. */
bool cvn_dec64_isnan(const decDouble* d);
bool cvn_dec128_isnan(const decQuad* d);

/* Writes "0x" and 32 lower-case hexadecimal digits, high half first, into `buf` of at least CVN_INT128_STRSZ
 * bytes; negative values in two's complement. Returns 0. */
int cvn_int128_to_string(char* buf, cvn_int128_t v);

/* Reads what cvn_int128_to_string writes ("0X" is accepted, and anything after the 34th character ignored).
 * Returns 0 or -1. On a failure in the low half the high half has already been stored. */
int cvn_int128_from_string(cvn_int128_t* p, const char* buf);

#ifdef __cplusplus
}

/* The same for C++ callers that hold values rather than pointers. They are overloads, so they have C++
 * linkage even where this header is included inside a block of C linkage. */
extern "C++" {
inline int cvn_dec64_to_string(char* buf, const decDouble& d) { return cvn_dec64_to_string(buf, &d); }
inline int cvn_dec128_to_string(char* buf, const decQuad& d) { return cvn_dec128_to_string(buf, &d); }
inline int cvn_dec64_cmp(const decDouble& a, const decDouble& b) { return cvn_dec64_cmp(&a, &b); }
inline int cvn_dec128_cmp(const decQuad& a, const decQuad& b) { return cvn_dec128_cmp(&a, &b); }
}
#endif
#endif
