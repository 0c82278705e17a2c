// dec: decimals and 128-bit integers as text, and their order.
//
// decNumber does the arithmetic. The common cases go around it, since a writer compares every value of a
// decimal column twice and parses every field of one: plain digits are encoded straight into declets, and
// finite values whose exponents are near each other are compared as integers. Both give bit for bit what
// decNumber gives; what they do not cover is left to it.
//
// decimal64 as an integer:  1 sign | 5 combination | 8 exponent  | 5 declets of 10 bits (3 digits each)
// decimal128:               1 sign | 5 combination | 12 exponent | 11 declets
// The combination field holds the top two exponent bits and the leading digit: ab cde for digits 0 to 7
// (exponent ab, digit cde), 11 ab c for 8 and 9 (exponent ab, digit 8 + c), 11110 infinity, 11111 NaN. IEEE
// 754-2008, 3.5.2.

// decNumber's own headers first: theirs are then the types that dec.h names.
extern "C" {
#include <decDouble.h>
#include <decQuad.h>
}

#include "colvane/dec.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>

#include "colvane/colvane_int.h"

using namespace colvane;

namespace {

using uint128_t = cvn_uint128_t;

constexpr int DEC64_BIAS = 398;
constexpr int DEC64_DIGITS = 16;
constexpr int DEC128_BIAS = 6176;
constexpr unsigned COMB_NAN = 31;  // the combination field of a NaN
// Exponent differences that 10^16 digits can be scaled by inside 127 bits.
constexpr int DEC64_MAX_SHIFT = 18;
constexpr int DEC128_MAX_SHIFT = 37;
// More fraction digits than this can meet the exponent limit; decNumber decides then.
constexpr int DEC64_MAX_FRACTION = 300;

}  // namespace

// The three digits of a declet as a number 0 to 999.
static constexpr uint16_t declet_value(unsigned d) {
    const auto bit = [d](int i) { return (d >> i) & 1; };
    const unsigned pqr = d >> 7, stu = (d >> 4) & 7, y = bit(0);
    const unsigned r = bit(7), u = bit(4), pq = d >> 8, st = (d >> 5) & 3;
    unsigned d2 = pqr, d1 = stu, d0 = d & 7;
    if (bit(3)) {
        switch ((d >> 1) & 3) {
            case 0: d0 = 8 + y; break;
            case 1: d1 = 8 + u, d0 = st * 2 + y; break;
            case 2: d2 = 8 + r, d0 = pq * 2 + y; break;
            default:
                switch (st) {
                    case 0: d2 = 8 + r, d1 = 8 + u, d0 = pq * 2 + y; break;
                    case 1: d2 = 8 + r, d1 = pq * 2 + u, d0 = 8 + y; break;
                    case 2: d1 = 8 + u, d0 = 8 + y; break;
                    default: d2 = 8 + r, d1 = 8 + u, d0 = 8 + y; break;
                }
        }
    }
    return static_cast<uint16_t>(d2 * 100 + d1 * 10 + d0);
}

namespace {

constexpr auto DECLET_TO_BIN = [] {
    std::array<uint16_t, 1024> t{};
    for (unsigned d = 0; d < 1024; d++) t[d] = declet_value(d);
    return t;
}();

// The canonical declet of a number is the smallest of those that mean it, hence the downward loop.
constexpr auto BIN_TO_DECLET = [] {
    std::array<uint16_t, 1000> t{};
    for (unsigned d = 1024; d-- > 0;) t[declet_value(d)] = static_cast<uint16_t>(d);
    return t;
}();

constexpr auto POW10 = [] {
    std::array<uint128_t, 39> t{};
    t[0] = 1;
    for (size_t i = 1; i < t.size(); i++) t[i] = t[i - 1] * 10;
    return t;
}();

}  // namespace

// Splits the combination field. False for infinities and NaNs.
static inline bool split_combination(unsigned comb, unsigned* exp_top, unsigned* digit) {
    if (comb >= 30) return false;
    const bool large = comb >= 24;
    *exp_top = large ? (comb >> 1) & 3 : comb >> 3;
    *digit = large ? 8 + (comb & 1) : comb & 7;
    return true;
}

bool colvane::dec64_unpack(dec64_parts_t* ret, uint64_t bits) {
    unsigned exp_top, digit;
    if (!split_combination(static_cast<unsigned>(bits >> 58) & 31, &exp_top, &digit)) return false;
    // Most values fill one or two declets; the upper ones are then all zero.
    int64_t coeff = DECLET_TO_BIN[bits & 1023] + 1000 * DECLET_TO_BIN[(bits >> 10) & 1023];
    const uint64_t upper = (bits >> 20) & 0x3fffffff;
    if (upper || digit)
        coeff +=
            1000000 * (DECLET_TO_BIN[upper & 1023] + 1000 * int64_t{DECLET_TO_BIN[(upper >> 10) & 1023]} +
                       1000000 * int64_t{DECLET_TO_BIN[upper >> 20]} + 1000000000 * int64_t{digit});
    ret->coeff = bits >> 63 ? -coeff : coeff;
    ret->exponent = static_cast<int>(exp_top << 8 | ((bits >> 50) & 255)) - DEC64_BIAS;
    return true;
}

int colvane::dec64_compare_parts(const dec64_parts_t* a, const dec64_parts_t* b) {
    __int128 x = a->coeff, y = b->coeff;
    const int shift = a->exponent - b->exponent;
    if (shift > DEC64_MAX_SHIFT || shift < -DEC64_MAX_SHIFT) return DEC_CANNOT_COMPARE;
    if (shift > 0)
        x *= static_cast<__int128>(POW10[static_cast<size_t>(shift)]);
    else
        y *= static_cast<__int128>(POW10[static_cast<size_t>(-shift)]);
    return (x > y) - (x < y);
}

// The order that decNumber's comparison of two values expresses: its result is -1, 0, 1 or a NaN.
static int sign_of(const decDouble* d) {
    if (decDoubleIsNaN(d) || decDoubleIsZero(d)) return 0;
    return decDoubleIsSigned(d) ? -1 : 1;
}

static int sign_of(const decQuad* d) {
    if (decQuadIsNaN(d) || decQuadIsZero(d)) return 0;
    return decQuadIsSigned(d) ? -1 : 1;
}

int cvn_dec64_cmp(const decDouble* a, const decDouble* b) {
    uint64_t x, y;
    memcpy(&x, a, sizeof(x));
    memcpy(&y, b, sizeof(y));
    dec64_parts_t p, q;
    if (dec64_unpack(&p, x) && dec64_unpack(&q, y)) {
        const int order = dec64_compare_parts(&p, &q);
        if (order != DEC_CANNOT_COMPARE) return order;
    }
    decContext context;
    decDouble result;
    decContextDefault(&context, DEC_INIT_DECDOUBLE);
    decDoubleCompare(&result, a, b, &context);
    return sign_of(&result);
}

// Takes a finite decimal128 apart. False, with the sign and the kind alone, for infinities and NaNs.
static bool dec128_unpack(cvn_dec_parts_t* ret, const decQuad* d) {
    uint128_t bits;
    memcpy(&bits, d, sizeof(bits));
    unsigned exp_top, digit;
    const auto high = static_cast<uint64_t>(bits >> 64);
    const unsigned comb = static_cast<unsigned>(high >> 58) & 31;
    *ret = cvn_dec_parts_t{.nan = comb == COMB_NAN, .minus = (high >> 63) != 0};
    if (!split_combination(comb, &exp_top, &digit)) return false;
    uint128_t coeff = digit;
    for (int shift = 100; shift >= 0; shift -= 10)
        coeff = coeff * 1000 + DECLET_TO_BIN[static_cast<size_t>(bits >> shift) & 1023];
    ret->finite = true;
    ret->coeff = coeff;
    ret->exponent = static_cast<int>(exp_top << 12 | ((high >> 46) & 4095)) - DEC128_BIAS;
    return true;
}

void cvn_dec64_unpack(cvn_dec_parts_t* ret, const decDouble* d) {
    uint64_t bits;
    memcpy(&bits, d, sizeof(bits));
    dec64_parts_t parts{};
    const bool finite = dec64_unpack(&parts, bits);
    *ret = cvn_dec_parts_t{.coeff = static_cast<uint64_t>(parts.coeff < 0 ? -parts.coeff : parts.coeff),
                           .exponent = parts.exponent,
                           .finite = finite,
                           .nan = (bits >> 58 & 31) == COMB_NAN,
                           .minus = bits >> 63 != 0};
}

void cvn_dec128_unpack(cvn_dec_parts_t* ret, const decQuad* d) { (void)dec128_unpack(ret, d); }

bool cvn_dec64_isnan(const decDouble* d) {
    uint64_t bits;
    memcpy(&bits, d, sizeof(bits));
    return (bits >> 58 & 31) == COMB_NAN;
}

bool cvn_dec128_isnan(const decQuad* d) {
    uint64_t half[2];
    memcpy(half, d, sizeof(half));
    return (half[1] >> 58 & 31) == COMB_NAN;
}

// Multiplies by 10^shift. False when the product leaves 127 bits.
static bool scale(uint128_t* coeff, int shift) {
    uint128_t product;
    if (shift > DEC128_MAX_SHIFT ||
        __builtin_mul_overflow(*coeff, POW10[static_cast<size_t>(shift)], &product) || product >> 127)
        return false;
    *coeff = product;
    return true;
}

int cvn_dec128_cmp(const decQuad* a, const decQuad* b) {
    cvn_dec_parts_t p, q;
    if (dec128_unpack(&p, a) && dec128_unpack(&q, b)) {
        const int shift = p.exponent - q.exponent;
        if (shift >= 0 ? scale(&p.coeff, shift) : scale(&q.coeff, -shift)) {
            const auto x = p.minus ? -static_cast<__int128>(p.coeff) : static_cast<__int128>(p.coeff);
            const auto y = q.minus ? -static_cast<__int128>(q.coeff) : static_cast<__int128>(q.coeff);
            return (x > y) - (x < y);
        }
    }
    decContext context;
    decQuad result;
    decContextDefault(&context, DEC_INIT_DECQUAD);
    decQuadCompare(&result, a, b, &context);
    return sign_of(&result);
}

int cvn_dec64_to_string(char* buf, const decDouble* d) {
    decDoubleToString(d, buf);
    return 0;
}

int cvn_dec128_to_string(char* buf, const decQuad* d) {
    decQuadToString(d, buf);
    return 0;
}

// Encodes [sign] digits [. digits] of at most 16 significant digits. False when the text is anything else.
static bool dec64_from_digits(decDouble* d, const char* s) {
    const bool negative = *s == '-';
    if (*s == '-' || *s == '+') s++;
    uint64_t coeff = 0;
    int ndigit = 0;      // digits after the leading zeros
    int nfraction = -1;  // digits after the point; -1 before it
    bool any = false;
    for (;; s++) {
        const unsigned digit = static_cast<unsigned>(*s) - '0';
        if (digit <= 9) {
            any = true;
            coeff = coeff * 10 + digit;
            if (coeff != 0 && ++ndigit > DEC64_DIGITS) return false;
            if (nfraction >= 0 && ++nfraction > DEC64_MAX_FRACTION) return false;
        } else if (*s == '.' && nfraction < 0) {
            nfraction = 0;
        } else {
            break;
        }
    }
    if (*s != '\0' || !any) return false;
    const auto exponent = static_cast<uint64_t>(DEC64_BIAS - (nfraction > 0 ? nfraction : 0));
    const auto top = static_cast<unsigned>(coeff / 1000000000000000);
    const uint64_t exp_top = exponent >> 8;
    const uint64_t comb = top < 8 ? exp_top << 3 | top : 24 | exp_top << 1 | (top & 1);
    uint64_t bits = uint64_t{negative} << 63 | comb << 58 | (exponent & 255) << 50;
    uint64_t rest = coeff - top * uint64_t{1000000000000000};
    for (int shift = 0; rest != 0; shift += 10) {
        bits |= uint64_t{BIN_TO_DECLET[rest % 1000]} << shift;
        rest /= 1000;
    }
    memcpy(d, &bits, sizeof(bits));
    return true;
}

// What a conversion refuses is what its status flags say, any of them: syntax, rounding, overflow, underflow.
// A number below the normal range that needs no rounding, 1E-398 say, raises none, and so is taken.
int cvn_dec64_from_string(decDouble* d, const char* buf) {
    if (dec64_from_digits(d, buf)) return 0;
    decContext context;
    decContextDefault(&context, DEC_INIT_DECDOUBLE);
    decDoubleFromString(d, buf, &context);
    return context.status & 0xffff ? -1 : 0;
}

int cvn_dec128_from_string(decQuad* d, const char* buf) {
    decContext context;
    decContextDefault(&context, DEC_INIT_DECQUAD);
    decQuadFromString(d, buf, &context);
    return context.status & 0xffff ? -1 : 0;
}

void colvane::cvn_dec64_zero(void* image) {
    decDouble zero;
    decDoubleZero(&zero);
    memcpy(image, &zero, sizeof(zero));
}

void colvane::cvn_dec128_zero(void* image) {
    decQuad zero;
    decQuadZero(&zero);
    memcpy(image, &zero, sizeof(zero));
}

int cvn_int128_to_string(char* buf, cvn_int128_t v) {
    const auto bits = static_cast<uint128_t>(v);
    (void)snprintf(buf, CVN_INT128_STRSZ, "0x%016lx%016lx", static_cast<uint64_t>(bits >> 64),
                   static_cast<uint64_t>(bits));  // always 34 characters
    return 0;
}

// Reads one half. Kept: strtoull takes a sign or leading white space, so "+" and 15 digits make 16 characters
// too.
static bool parse_half(uint64_t* ret, const char* s) {
    char half[17];
    memset(half, 0, sizeof(half));
    for (int i = 0; i < 16 && s[i]; i++) half[i] = s[i];
    char* end;
    const uint64_t v = strtoull(half, &end, 16);
    if (end != half + 16) return false;
    *ret = v;
    return true;
}

int cvn_int128_from_string(cvn_int128_t* p, const char* buf) {
    uint64_t high, low;
    if (buf[0] != '0' || (buf[1] != 'x' && buf[1] != 'X')) return -1;
    if (!parse_half(&high, buf + 2)) return -1;
    uint64_t image[2];
    memcpy(image, p, sizeof(image));
    image[1] = high;
    memcpy(p, image, sizeof(image));
    if (!parse_half(&low, buf + 18)) return -1;
    image[0] = low;
    memcpy(p, image, sizeof(image));
    return 0;
}
