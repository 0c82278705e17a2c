// Values as text and back, for all 14 types, and their order: what CSV fields, constants in conditions and
// printed rows have in common. Whatever value_append_text writes, value_parse reads back as the same value.
//
// The text forms; what is written stands first, what is read as well after it:
//
//   bool               true, false            t f, yes no, y n, on off, 1 0, in any case
//   int16 to int128    decimal digits         a plus sign; 0x and hexadecimal digits, which of int128 are the
//                                             bits themselves (0x and 32 f are -1)
//   float, double      the fewest digits      a plus sign, an exponent, 0x and hexadecimal digits with a
//                      that give the value    binary exponent, Infinity, in any case; what is too small for
//                      back, inf, -inf, NaN   the type becomes the nearest value, what is too large is refused
//   dec64, dec128      decNumber's            all of decNumber's; more than 16 or 34 digits are refused
//                      scientific form
//   date               YYYY-MM-DD             days since 1970-01-01 as a whole number [1]
//   time_millis        HH:MM:SS[.mmm]         HH:MM; milliseconds as a whole number [1]; a number that is no
//                      or a number and "ms"   time of day is written with its unit
//   timestamp_millis   YYYY-MM-DDTHH:MM:      a blank or t for the T; no seconds; no time: midnight; a zone
//                      SS[.mmm]Z              Z, z, +hh, +hhmm or +hh:mm (UTC where there is none);
//                                             milliseconds since 1970-01-01T00:00:00Z as a whole number [1]
//   bytea              \x and pairs of        any other text: its bytes
//                      hexadecimal digits
//   cstr               the text itself
//
// Days are those of the proleptic Gregorian calendar; years outside 0000 to 9999 have a sign.
//
// [1] A bare number that could as well be meant as a year, a day or a time of day without its separators is
// refused: 2021, 20210704, 20210704123000, of time_millis 1230 and 123000. With a sign (+2021) or as 0x7e5 it
// is a number.
//
// Failures are phrases that continue "the text ..."; each caller says which text, and where it stood.
#ifndef KELPD_ROWS_VALUE_H
#define KELPD_ROWS_VALUE_H

#include <stdint.h>
#include <string.h>

#include <memory>
#include <string>
#include <string_view>

#include "colvane/colvane.h"

namespace rows {

// One day.
constexpr int64_t DAY_MILLIS = 86400000;

// Reads `text` (`len` bytes, a NUL after them, and at least 16 more readable bytes) as a value of `typ`.
// Returns null, or why the text is no such value. cstr and bytea borrow `text`; bytea is decoded in place. A
// cstr is not searched for NUL bytes.
[[nodiscard]] const char* value_parse(cvn_datum_t* ret, char* text, uint32_t len, cvn_typ_t typ);

// A value with the bytes that it points at. Copies share them.
struct value_t {
    cvn_datum_t datum;
    std::shared_ptr<char[]> bytes;
};

// value_parse for any text, which is copied. Refuses a cstr with a NUL byte.
[[nodiscard]] const char* value_from_text(value_t* ret, std::string_view text, cvn_typ_t typ);

// What texts of the type look like, for a hint after a failure: "write ...". Null for cstr.
const char* value_hint(cvn_typ_t typ);

// Appends the text of a value.
void value_append_text(std::string* out, const cvn_datum_t& datum, cvn_typ_t typ);

// Returns -1, 0 or 1 as `a` is below, equal to or above `b`, or 2 when one is NaN: such a pair has no order.
// Texts and byte strings compare by unsigned bytes.
int value_cmp(const cvn_datum_t& a, const cvn_datum_t& b, cvn_typ_t typ);

// Tells whether a float, double or decimal is NaN.
bool value_is_nan(const cvn_datum_t& datum, cvn_typ_t typ);

// Tells whether the type has NaNs: values that are unequal to themselves, and around which bounds go wrong.
bool value_has_nan(cvn_typ_t typ);

// Tells whether the type is a number, for aligning and for JSON.
bool value_is_number(cvn_typ_t typ);

// Returns the days from 1970-01-01 to a day of the proleptic Gregorian calendar.
constexpr int64_t value_days(int64_t year, unsigned month, unsigned day) {
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const auto yoe = static_cast<unsigned>(year - era * 400);
    const unsigned doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + int64_t{doe} - 719468;
}

// The other way round.
void value_civil(int64_t days, int64_t* year, unsigned* month, unsigned* day);

// Fast forms, for the fields of a CSV row. Each reads the common spellings and returns false for any other,
// good or bad, which value_parse then decides. The text needs 16 readable bytes from its start and after its
// end.

// The number of `len` (1 to 8) digits.
[[gnu::always_inline]] inline bool value_fast_digits(const char* p, uint32_t len, uint64_t* ret) {
    uint64_t v;
    memcpy(&v, p, 8);
    // The digits move to the high bytes; zero bytes come before them, as leading zeros would.
    v = (v ^ UINT64_C(0x3030303030303030)) << (64 - 8 * len);
    if ((((v + UINT64_C(0x7676767676767676)) | v) & UINT64_C(0x8080808080808080)) != 0) return false;
    v = v * 10 + (v >> 8);
    *ret = (((v & UINT64_C(0x000000FF000000FF)) * UINT64_C(0x000F424000000064)) +
            (((v >> 16) & UINT64_C(0x000000FF000000FF)) * UINT64_C(0x0000271000000001))) >>
           32;
    return true;
}

// An integer of up to 16 digits.
[[gnu::always_inline]] inline bool value_fast_int(const char* p, uint32_t len, int64_t* ret) {
    const bool minus = *p == '-';
    p += minus;
    len -= minus;
    uint64_t v;
    if (len - 1 < 8) [[likely]] {
        if (!value_fast_digits(p, len, &v)) return false;
    } else {
        uint64_t low;
        if (len - 9 >= 8 || !value_fast_digits(p, len - 8, &v) || !value_fast_digits(p + len - 8, 8, &low))
            return false;
        v = v * 100000000 + low;
    }
    *ret = minus ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
    return true;
}

// YYYY-MM-DD.
[[gnu::always_inline]] inline bool value_fast_date(const char* p, uint32_t len, int32_t* ret) {
    if (len != 10) return false;
    uint64_t v;
    memcpy(&v, p, 8);
    v ^= UINT64_C(0x2D30302D30303030);
    const uint32_t d1 = static_cast<uint8_t>(p[8] ^ 0x30), d0 = static_cast<uint8_t>(p[9] ^ 0x30);
    const uint64_t wrong = (((v + UINT64_C(0x7676767676767676)) | v) & UINT64_C(0x8080808080808080)) |
                           (v & UINT64_C(0xFF0000FF00000000));
    if (wrong != 0 || d1 > 9 || d0 > 9) return false;
    v = v * 10 + (v >> 8);
    const uint32_t year = static_cast<uint32_t>(v & 0xFF) * 100 + static_cast<uint32_t>((v >> 16) & 0xFF);
    const uint32_t month = static_cast<uint32_t>((v >> 40) & 0xFF), day = d1 * 10 + d0;
    if (month - 1 >= 12 || day - 1 >= 28) {
        constexpr uint8_t last[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
        if (month - 1 >= 12 || day - 1 >= uint32_t{last[month]} + (month == 2 && leap)) return false;
    }
    // Years counted from March: the leap day is then the last of its year.
    const uint32_t y = year + 400 - (month <= 2), m = month <= 2 ? month + 9 : month - 3;
    *ret = static_cast<int32_t>(y * 365 + y / 4 - y / 100 + y / 400 + (153 * m + 2) / 5 + day - 1) -
           (719468 + 146097);
    return true;
}

// Digits with or without a point, 16 characters at most and no more than 15 digits: exact, because the digits
// are an integer below 2^53, the power of ten is exact as well, and one division of exact numbers rounds
// once.
[[gnu::always_inline]] inline bool value_fast_double(const char* p, uint32_t len, double* ret) {
    const bool minus = *p == '-';
    p += minus;
    len -= minus;
    if (len - 1 >= 16) return false;
    uint64_t all, frac;
    uint32_t point = len;
    if (len <= 8) {
        uint64_t v;
        memcpy(&v, p, 8);
        const uint64_t x = v ^ UINT64_C(0x2E2E2E2E2E2E2E2E);
        uint64_t hit = (x - UINT64_C(0x0101010101010101)) & ~x & UINT64_C(0x8080808080808080);
        if (len < 8) hit &= (UINT64_C(1) << (8 * len)) - 1;
        if (hit != 0) point = static_cast<uint32_t>(__builtin_ctzll(hit)) >> 3;
    } else {
        const void* const dot = memchr(p, '.', len);
        if (dot) point = static_cast<uint32_t>(static_cast<const char*>(dot) - p);
    }
    const uint32_t nfrac = point < len ? len - point - 1 : 0;
    // At least one digit before a point and one after it; neither part above eight.
    if (point - 1 >= 8 || nfrac > 8 || (point < len && nfrac == 0) || point + nfrac > 15) return false;
    if (!value_fast_digits(p, point, &all)) return false;
    if (nfrac > 0) {
        constexpr uint32_t pow10[9] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};
        if (!value_fast_digits(p + point + 1, nfrac, &frac)) return false;
        const double v = static_cast<double>(static_cast<int64_t>(all * pow10[nfrac] + frac)) /
                         static_cast<double>(static_cast<int32_t>(pow10[nfrac]));
        *ret = minus ? -v : v;
    } else {
        const double v = static_cast<double>(static_cast<int64_t>(all));
        *ret = minus ? -v : v;
    }
    return true;
}

}  // namespace rows

#endif
