#include "bench/total.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "bench/dpd.h"

namespace {

constexpr int64_t TEN17 = INT64_C(100000000000000000);

// The combination field: bits 62 to 58 of a decDouble, 126 to 122 of a decQuad.
struct combination_t {
    bool finite;
    unsigned exponent_high;  // the two high bits of the exponent
    unsigned first_digit;
};

}  // namespace

static combination_t combination(unsigned five) {
    if (five >= 30) return {false, 0, 0};
    if (five >= 24) return {true, five >> 1 & 3, 8 + (five & 1)};
    return {true, five >> 3, five & 7};
}

template <class T>
static T load(const char* p) {
    T v;
    memcpy(&v, p, sizeof(v));
    return v;
}

// One decDouble whose first digit and exponent stand in its 14 high bits, with a coefficient that is already
// known.
static void add_dec64(decimal_total_t* total, unsigned high14, unsigned __int128 coefficients, int64_t n) {
    const combination_t comb = combination(high14 >> 8 & 31);
    if (!comb.finite) {
        total->special = true;
        return;
    }
    const int exponent = static_cast<int>(comb.exponent_high << 8 | (high14 & 0xff)) - 398;
    const __int128 sum = static_cast<__int128>(coefficients) +
                         static_cast<__int128>(comb.first_digit) * INT64_C(1000000000000000) * n;
    total->parts[exponent].low += high14 >> 13 ? -sum : sum;
}

static void add_dec64_values(decimal_total_t* total, const kernels_t* kernels, const char* p, int n) {
    while (n > 0) {
        const int k = std::min(n, DEC64_BLOCK);
        unsigned high;
        unsigned __int128 sum;
        if (kernels->dec64_block(&high, &sum, p, k)) {
            add_dec64(total, high, sum, k);
        } else {
            for (int i = 0; i < k; i++) {
                const uint64_t v = load<uint64_t>(p + i * 8);
                uint64_t coefficient = 0;
                for (int shift = 40; shift >= 0; shift -= 10)
                    coefficient = coefficient * 1000 + DPD_VALUE[v >> shift & 1023];
                add_dec64(total, static_cast<unsigned>(v >> 50), coefficient, 1);
            }
        }
        p += static_cast<size_t>(k) * 8;
        n -= k;
    }
}

static void add_dec128_values(decimal_total_t* total, const char* p, int n) {
    for (int i = 0; i < n; i++, p += 16) {
        const auto v = load<unsigned __int128>(p);
        const combination_t comb = combination(static_cast<unsigned>(v >> 122) & 31);
        if (!comb.finite) {
            total->special = true;
            continue;
        }
        // 34 digits: the first one and eleven declets of three.
        unsigned __int128 coefficient = comb.first_digit;
        for (int shift = 100; shift >= 0; shift -= 10)
            coefficient = coefficient * 1000 + DPD_VALUE[static_cast<unsigned>(v >> shift) & 1023];
        const int exponent =
            static_cast<int>(comb.exponent_high << 12 | (static_cast<unsigned>(v >> 110) & 0xfff)) - 6176;
        decimal_total_t::part_t& part = total->parts[exponent];
        const __int128 high = coefficient / TEN17, low = coefficient % TEN17;
        const bool negative = v >> 127;
        part.high += negative ? -high : high;
        part.low += negative ? -low : low;
    }
}

static std::string whole_text(__int128 v) {
    unsigned __int128 rest = v < 0 ? -static_cast<unsigned __int128>(v) : v;
    std::string text;
    do text.insert(text.begin(), static_cast<char>('0' + static_cast<int>(rest % 10)));
    while (rest /= 10);
    return v < 0 ? "-" + text : text;
}

// Adds `v` to the decimal digits from place `at` upwards; digits may leave 0..9 until they are settled.
static void add_digits(std::vector<int>* digits, size_t at, __int128 v) {
    for (; v != 0; v /= 10, at++) {
        if (digits->size() <= at) digits->resize(at + 1);
        (*digits)[at] += static_cast<int>(v % 10);
    }
}

// Brings digits (lowest first) of one sign into 0..9; returns the sign.
static int settle(std::vector<int>* digits) {
    int sign = 0;
    for (int pass = 0; pass < 2; pass++) {
        int carry = 0;
        for (size_t i = 0; i < digits->size() || (carry != 0 && carry != -1); i++) {
            if (i == digits->size()) digits->push_back(0);
            const int v = (*digits)[i] + carry;
            carry = v >= 0 ? v / 10 : -((9 - v) / 10);
            (*digits)[i] = v - carry * 10;
        }
        if (carry == 0) return sign < 0 ? -1 : 1;
        // A borrow is left over: the number is negative. Turn it round and settle again.
        sign = -1;
        digits->push_back(carry);
        for (int& d : *digits) d = -d;
    }
    return sign;
}

static std::string decimal_text(const decimal_total_t& total) {
    if (total.special) return "NaN";
    if (total.parts.empty()) return "0";
    const int exponent = total.parts.begin()->first;
    std::vector<int> digits;
    for (const auto& [e, part] : total.parts) {
        add_digits(&digits, static_cast<size_t>(e - exponent), part.low);
        add_digits(&digits, static_cast<size_t>(e - exponent) + 17, part.high);
    }
    const bool negative = settle(&digits) < 0;
    const size_t places = exponent < 0 ? static_cast<size_t>(-exponent) : 0;
    while (!digits.empty() && digits.back() == 0) digits.pop_back();
    if (digits.size() <= places) digits.resize(places + 1);
    std::string text = negative ? "-" : "";
    for (size_t i = digits.size(); i-- > 0;) {
        text += static_cast<char>('0' + digits[i]);
        if (i == places && places > 0) text += '.';
    }
    if (exponent > 0) text += "E+" + std::to_string(exponent);
    return text;
}

static std::string date_text(int64_t days) {
    // Counted from 0000-03-01, so that the leap day ends a year.
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t month = mp < 10 ? mp + 3 : mp - 9;
    char text[64];
    snprintf(text, sizeof(text), "%04lld-%02lld-%02lld",
             static_cast<long long>(yoe + era * 400 + (month <= 2 ? 1 : 0)), static_cast<long long>(month),
             static_cast<long long>(doy - (153 * mp + 2) / 5 + 1));
    return text;
}

static bool largest(cvn_typ_t typ) {
    return typ == CVN_TYP_DATE || typ == CVN_TYP_TIME_MILLIS || typ == CVN_TYP_TIMESTAMP_MILLIS;
}

void total_add(total_t* total, const kernels_t* kernels, const char* p, int n) {
    if (n < 1) return;
    if (largest(total->typ)) {
        const int64_t max = cvn_typlen(total->typ) == 4 ? kernels->max_i32(p, n) : kernels->max_i64(p, n);
        if (!total->any || max > total->whole) total->whole = max;
        total->any = true;
        return;
    }
    switch (cvn_storage(total->typ)) {
        case CVN_TYP_BOOL: total->whole += kernels->sum_u8(p, n); break;
        case CVN_TYP_INT16: total->whole += kernels->sum_i16(p, n); break;
        case CVN_TYP_INT32: total->whole += kernels->sum_i32(p, n); break;
        case CVN_TYP_INT64: total->whole += kernels->sum_i64(p, n); break;
        case CVN_TYP_INT128: {
            auto sum = static_cast<unsigned __int128>(total->whole);  // wraps
            for (int i = 0; i < n; i++) sum += load<unsigned __int128>(p + static_cast<size_t>(i) * 16);
            total->whole = static_cast<__int128>(sum);
            break;
        }
        case CVN_TYP_FLOAT: total->real += kernels->sum_f32(p, n); break;
        case CVN_TYP_DOUBLE: total->real += kernels->sum_f64(p, n); break;
        case CVN_TYP_DEC64: add_dec64_values(&total->decimal, kernels, p, n); break;
        case CVN_TYP_DEC128: add_dec128_values(&total->decimal, p, n); break;
        default: break;
    }
}

void total_add_length(total_t* total, int64_t length) { total->whole += length; }

std::string total_text(const total_t& total) {
    if (largest(total.typ)) {
        if (!total.any) return "null";
        return total.typ == CVN_TYP_DATE ? date_text(static_cast<int64_t>(total.whole))
                                         : whole_text(total.whole);
    }
    switch (cvn_storage(total.typ)) {
        case CVN_TYP_FLOAT:
        case CVN_TYP_DOUBLE: {
            char text[32];
            snprintf(text, sizeof(text), "%.17g", total.real);
            return text;
        }
        case CVN_TYP_DEC64:
        case CVN_TYP_DEC128: return decimal_text(total.decimal);
        default: return whole_text(total.whole);
    }
}
