// Text to value and back, type by type. The fast forms in the header decide nothing: what they refuse comes
// here. Nothing depends on the locale of the program.
#include "rows/value.h"

#include <limits.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>

#include <charconv>
#include <cmath>

namespace rows {

constexpr char NO_DATE[] = "is not a date YYYY-MM-DD";
constexpr char NO_TIME[] = "is not a time HH:MM:SS.mmm";
constexpr char NO_TIMESTAMP[] = "is not a timestamp YYYY-MM-DDTHH:MM:SS.mmmZ";
constexpr char NO_INT[] = "is not a whole number";

static bool is_digit(char ch) { return ch >= '0' && ch <= '9'; }

static int hex_digit(char ch) {
    if (is_digit(ch)) return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
}

static bool same_word(std::string_view text, std::string_view word) {
    if (text.size() != word.size()) return false;
    for (size_t i = 0; i < text.size(); i++)
        if ((text[i] >= 'A' && text[i] <= 'Z' ? static_cast<char>(text[i] + 32) : text[i]) != word[i])
            return false;
    return true;
}

static const char* parse_bool(bool* ret, std::string_view text) {
    for (const char* word : {"true", "t", "1", "yes", "y", "on"})
        if (same_word(text, word)) return *ret = true, nullptr;
    for (const char* word : {"false", "f", "0", "no", "n", "off"})
        if (same_word(text, word)) return *ret = false, nullptr;
    return "is not a truth value (true or false)";
}

// Reads a whole number: decimal digits with or without a sign, or 0x and hexadecimal digits, which without a
// sign are the bits themselves. Null, NO_INT, or `range` for what 128 bits do not hold.
static const char* parse_int128(cvn_int128_t* ret, std::string_view text, const char* range) {
    const bool minus = text.starts_with('-');
    if (minus || text.starts_with('+')) text.remove_prefix(1);
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (hex) text.remove_prefix(2);
    if (text.empty()) return NO_INT;
    const unsigned base = hex ? 16 : 10;
    constexpr unsigned __int128 TOP = ~static_cast<unsigned __int128>(0), SIGN = (TOP >> 1) + 1;
    unsigned __int128 v = 0;
    bool fits = true;
    for (const char ch : text) {
        const int digit = hex_digit(ch);
        if (digit < 0 || (!hex && digit > 9)) return NO_INT;
        fits = fits && v <= (TOP - static_cast<unsigned>(digit)) / base;
        v = v * base + static_cast<unsigned>(digit);
    }
    if (!fits || (minus ? v > SIGN : !hex && v >= SIGN)) return range;
    *ret = static_cast<cvn_int128_t>(minus ? -v : v);
    return nullptr;
}

// The same within [min, max].
static const char* parse_int(int64_t* ret, std::string_view text, int64_t min, int64_t max,
                             const char* range) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *ret);
    if (ec != std::errc() || end != text.data() + text.size()) {
        cvn_int128_t wide;
        if (const char* why = parse_int128(&wide, text, range)) return why;
        // Bits themselves, which alone can be negative without a sign, they are of int128 only.
        if (wide < min || wide > max || (wide < 0 && text[0] != '-')) return range;
        *ret = static_cast<int64_t>(wide);
    }
    // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): from_chars has set it
    return *ret < min || *ret > max ? range : nullptr;
}

// Converts without regard to the program's locale, also what std::from_chars calls out of range for being too
// small: the nearest number is then 0 or a denormal.
template <typename T>
static T nearest_real(std::string_view text) {
    static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
    const std::string copy(text);
    return sizeof(T) == sizeof(float) ? static_cast<T>(strtof_l(copy.c_str(), nullptr, c_locale))
                                      : static_cast<T>(strtod_l(copy.c_str(), nullptr, c_locale));
}

// The nearest binary number.
template <typename T>
static const char* parse_real(T* ret, std::string_view text) {
    std::string_view number = text;
    const bool minus = number.starts_with('-');
    if (minus || number.starts_with('+')) number.remove_prefix(1);
    const bool hex = number.size() > 2 && number[0] == '0' && (number[1] == 'x' || number[1] == 'X');
    if (hex) number.remove_prefix(2);
    const char first = number.empty() ? '\0' : number[0];
    // A second sign, and the words after 0x, which std::from_chars takes for numbers.
    if (first == '-' || (hex && first != '.' && hex_digit(first) < 0)) return "is not a number";
    const auto form = hex ? std::chars_format::hex : std::chars_format::general;
    T v = 0;
    const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), v, form);
    if (ec == std::errc::invalid_argument || end != number.data() + number.size()) return "is not a number";
    if (ec != std::errc()) v = std::fabs(nearest_real<T>(text));
    const bool is_word = !hex && !is_digit(first) && first != '.';
    if (std::isinf(v) && !is_word) return "is too large for the type (write inf for infinity)";
    *ret = minus ? -v : v;
    return nullptr;
}

// Takes `n` digits off the front.
static bool take_digits(std::string_view* text, size_t n, unsigned* ret) {
    if (text->size() < n) return false;
    *ret = 0;
    for (size_t i = 0; i < n; i++) {
        if (!is_digit((*text)[i])) return false;
        *ret = *ret * 10 + static_cast<unsigned>((*text)[i] - '0');
    }
    text->remove_prefix(n);
    return true;
}

static bool take_char(std::string_view* text, char ch) {
    if (text->empty() || text->front() != ch) return false;
    text->remove_prefix(1);
    return true;
}

// Takes a date off the front: YYYY-MM-DD, the year with more digits when it has a sign.
static const char* take_date(std::string_view* text, int64_t* ret_days) {
    const bool minus = !text->empty() && text->front() == '-';
    size_t nyear = 4;
    if (minus || (!text->empty() && text->front() == '+')) {
        text->remove_prefix(1);
        nyear = 0;
        while (nyear < text->size() && is_digit((*text)[nyear])) ++nyear;
        if (nyear < 4 || nyear > 9) return NO_DATE;
    }
    unsigned year, month, day;
    if (!take_digits(text, nyear, &year) || !take_char(text, '-') || !take_digits(text, 2, &month) ||
        !take_char(text, '-') || !take_digits(text, 2, &day))
        return NO_DATE;
    constexpr unsigned last[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    if (month < 1 || month > 12) return "has no such month";
    if (day < 1 || day > last[month] + (month == 2 && leap)) return "has no such day in that month";
    *ret_days = value_days(minus ? -static_cast<int64_t>(year) : static_cast<int64_t>(year), month, day);
    return nullptr;
}

// Takes a time of day off the front: HH:MM[:SS[.m...]].
static const char* take_time(std::string_view* text, int64_t* ret_millis) {
    unsigned hour, minute, second = 0, milli = 0;
    if (!take_digits(text, 2, &hour) || !take_char(text, ':') || !take_digits(text, 2, &minute))
        return NO_TIME;
    if (take_char(text, ':')) {
        if (!take_digits(text, 2, &second)) return NO_TIME;
        if (take_char(text, '.')) {
            if (text->empty() || !is_digit(text->front())) return NO_TIME;
            unsigned unit = 100;
            for (; !text->empty() && is_digit(text->front()); text->remove_prefix(1)) {
                const auto digit = static_cast<unsigned>(text->front() - '0');
                if (unit == 0 && digit != 0) return "is finer than a millisecond, which the type cannot hold";
                milli += digit * unit;
                unit /= 10;
            }
        }
    }
    if (hour > 23 || minute > 59 || second > 59) return "has no such time of day";
    *ret_millis = ((static_cast<int64_t>(hour) * 60 + minute) * 60 + second) * 1000 + milli;
    return nullptr;
}

// Takes a zone off the front: Z, +hh, +hhmm, +hh:mm.
static const char* take_zone(std::string_view* text, int64_t* ret_millis) {
    *ret_millis = 0;
    if (take_char(text, 'Z') || take_char(text, 'z')) return nullptr;
    const bool minus = text->starts_with('-');
    if (!minus && !text->starts_with('+')) return NO_TIMESTAMP;
    text->remove_prefix(1);
    unsigned hour, minute = 0;
    if (!take_digits(text, 2, &hour)) return NO_TIMESTAMP;
    if (!text->empty()) {
        (void)take_char(text, ':');  // +hhmm is as good
        if (!take_digits(text, 2, &minute)) return NO_TIMESTAMP;
    }
    if (hour > 23 || minute > 59) return "has no such time zone";
    *ret_millis = (int64_t{hour} * 60 + minute) * 60000 * (minus ? -1 : 1);
    return nullptr;
}

// Whether digits alone could be meant as a year, a day, or a day and a time without their separators.
static bool reads_as_day(std::string_view text) {
    unsigned year, month, day, hour, minute, second;
    if (!take_digits(&text, 4, &year) || year < 1000) return false;
    if (text.empty()) return true;
    if (!take_digits(&text, 2, &month) || !take_digits(&text, 2, &day)) return false;
    if (month < 1 || month > 12 || day < 1 || day > 31) return false;
    if (text.empty()) return true;
    return take_digits(&text, 2, &hour) && take_digits(&text, 2, &minute) && take_digits(&text, 2, &second) &&
           text.empty() && hour < 24 && minute < 60 && second < 60;
}

// Likewise as a time of day.
static bool reads_as_time(std::string_view text) {
    unsigned hour, minute, second = 0;
    if (!take_digits(&text, 2, &hour) || !take_digits(&text, 2, &minute)) return false;
    if (!text.empty() && !take_digits(&text, 2, &second)) return false;
    return text.empty() && hour < 24 && minute < 60 && second < 60;
}

// Reads the count of days or milliseconds that a calendar type is. Digits after which a separator stands, or
// which mean something else to a reader, are left to the caller's words.
static const char* parse_count(int64_t* ret, std::string_view text, int64_t min, int64_t max,
                               const char* range, const char* no_form) {
    const char* const why = parse_int(ret, text, min, max, range);
    return why == NO_INT ? no_form : why;
}

static const char* parse_date(int32_t* ret, std::string_view text) {
    const char* const range = "is out of the range of date";
    std::string_view rest = text;
    int64_t days;
    const char* why = take_date(&rest, &days);
    if (!why && !rest.empty()) return NO_DATE;
    if (why == NO_DATE) {
        if (reads_as_day(text))
            return "may be a date or a number of days: write 2021-07-04, or the days with a sign";
        why = parse_count(&days, text, INT32_MIN, INT32_MAX, range, NO_DATE);
    }
    if (why) return why;
    if (days < INT32_MIN || days > INT32_MAX) return range;
    *ret = static_cast<int32_t>(days);
    return nullptr;
}

// A number of milliseconds that is no time of day is written with its unit.
static const char* parse_time(int32_t* ret, std::string_view text) {
    const char* const range = "is out of the range of time_millis";
    int64_t millis;
    const char* why;
    if (text.size() > 2 && text.ends_with("ms")) {
        text.remove_suffix(2);
        why = parse_int(&millis, text, INT32_MIN, INT32_MAX, range);
    } else {
        std::string_view rest = text;
        why = take_time(&rest, &millis);
        if (!why && !rest.empty()) return NO_TIME;
        if (why == NO_TIME) {
            if (reads_as_time(text))
                return "may be a time or a number of milliseconds: write 12:30, or 1230ms";
            why = parse_count(&millis, text, INT32_MIN, INT32_MAX, range, NO_TIME);
        }
    }
    if (why) return why;
    *ret = static_cast<int32_t>(millis);
    return nullptr;
}

static const char* parse_timestamp(int64_t* ret, std::string_view text) {
    const char* const range = "is out of the range of timestamp_millis";
    std::string_view rest = text;
    int64_t days, millis = 0, offset = 0;
    const char* why = take_date(&rest, &days);
    if (why == NO_DATE) {
        if (reads_as_day(text))
            return "may be a date or a number of milliseconds: write 2021-07-04, or the milliseconds with a "
                   "sign";
        return parse_count(ret, text, INT64_MIN, INT64_MAX, range, NO_TIMESTAMP);
    }
    if (why) return why;
    if (!rest.empty()) {
        if (!take_char(&rest, 'T') && !take_char(&rest, ' ') && !take_char(&rest, 't')) return NO_TIMESTAMP;
        if ((why = take_time(&rest, &millis))) return why == NO_TIME ? NO_TIMESTAMP : why;
        if (!rest.empty() && (why = take_zone(&rest, &offset))) return why;
        if (!rest.empty()) return NO_TIMESTAMP;
    }
    const cvn_int128_t sum = cvn_int128_t{days} * DAY_MILLIS + millis - offset;
    if (sum < INT64_MIN || sum > INT64_MAX) return range;
    *ret = static_cast<int64_t>(sum);
    return nullptr;
}

// Digits after \x are decoded where they stand.
static const char* parse_bytea(cvn_datum_t* ret, char* text, uint32_t len) {
    ret->a.ptr = text;
    ret->a.len = static_cast<int32_t>(len);
    if (len < 2 || text[0] != '\\' || (text[1] != 'x' && text[1] != 'X')) return nullptr;
    const char* const bad = "is not a byte string (\\x and pairs of hexadecimal digits)";
    if (len % 2 != 0) return bad;
    for (uint32_t i = 2; i < len; i += 2)
        if (hex_digit(text[i]) < 0 || hex_digit(text[i + 1]) < 0) return bad;
    for (uint32_t i = 2; i < len; i += 2)
        text[i / 2 - 1] = static_cast<char>(hex_digit(text[i]) << 4 | hex_digit(text[i + 1]));
    ret->a.len = static_cast<int32_t>(len / 2 - 1);
    return nullptr;
}

// Tells a decimal that is wrong from one that is only too long.
static const char* decimal_reason(const char* text, bool wide) {
    decQuad probe;
    if (!wide && cvn_dec128_from_string(&probe, text) == 0)
        return "does not fit dec64 exactly (16 significant digits); use dec128";
    double number;
    const std::string_view view(text);
    const auto [end, ec] = std::from_chars(view.data(), view.data() + view.size(), number);
    if (ec != std::errc::invalid_argument && end == view.data() + view.size())
        return wide ? "does not fit dec128 exactly (34 significant digits)"
                    : "does not fit dec64 exactly (16 significant digits)";
    return "is not a decimal number";
}

// Writes the last `n` digits of a number, for which a format string takes several times as long.
static inline void put_digits(char* p, int n, uint64_t v) {
    for (; n > 0; v /= 10) p[--n] = static_cast<char>('0' + v % 10);
}

// Leading zeros as a calendar wants them; a sign only for years outside 0000 to 9999.
static void append_date(std::string* out, int64_t days) {
    int64_t year;
    unsigned month, day;
    value_civil(days, &year, &month, &day);
    if (year < 0 || year > 9999) {
        char wide[32];
        const int n = snprintf(wide, sizeof(wide), "%c%04lld-%02u-%02u", year < 0 ? '-' : '+',
                               static_cast<long long>(year < 0 ? -year : year), month, day);
        out->append(wide, static_cast<size_t>(n));  // the farthest year has nine digits
        return;
    }
    char text[] = "yyyy-mm-dd";
    put_digits(text, 4, static_cast<uint64_t>(year));
    put_digits(text + 5, 2, month);
    put_digits(text + 8, 2, day);
    out->append(text, sizeof(text) - 1);
}

// `millis` is within a day.
static void append_time(std::string* out, int64_t millis) {
    char text[] = "hh:mm:ss.mmm";
    put_digits(text, 2, static_cast<uint64_t>(millis / 3600000));
    put_digits(text + 3, 2, static_cast<uint64_t>(millis / 60000 % 60));
    put_digits(text + 6, 2, static_cast<uint64_t>(millis / 1000 % 60));
    put_digits(text + 9, 3, static_cast<uint64_t>(millis % 1000));
    out->append(text, millis % 1000 != 0 ? 12 : 8);
}

// The fewest digits that give the value back, without an exponent where that is readable.
template <typename T>
static void append_real(std::string* out, T v) {
    if (std::isnan(v)) {
        *out += "NaN";
        return;
    }
    char buf[64];
    const T size = std::fabs(v);
    const bool plain = v == 0 || (size >= static_cast<T>(1e-5) && size < static_cast<T>(1e16));
    const auto res = plain ? std::to_chars(buf, buf + sizeof(buf), v, std::chars_format::fixed)
                           : std::to_chars(buf, buf + sizeof(buf), v);
    out->append(buf, static_cast<size_t>(res.ptr - buf));
}

static void append_int128(std::string* out, cvn_int128_t v) {
    char buf[48];
    char* p = buf + sizeof(buf);
    auto u = static_cast<unsigned __int128>(v);
    if (v < 0) u = -u;
    do *--p = static_cast<char>('0' + static_cast<int>(u % 10));
    while ((u /= 10) != 0);
    if (v < 0) *--p = '-';
    out->append(p, static_cast<size_t>(buf + sizeof(buf) - p));
}

template <typename T>
static int order(T a, T b) {
    return a < b ? -1 : a > b ? 1 : 0;
}

void value_civil(int64_t days, int64_t* year, unsigned* month, unsigned* day) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const auto doe = static_cast<unsigned>(days - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *day = doy - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
    *year = static_cast<int64_t>(yoe) + era * 400 + (*month <= 2);
}

const char* value_parse(cvn_datum_t* ret, char* text, uint32_t len, cvn_typ_t typ) {
    const std::string_view view(text, len);
    const bool cstr = (cvn_storage(typ)) == CVN_TYP_CSTR;
    if (len == 0 && !cstr && (cvn_storage(typ)) != CVN_TYP_BYTEA) return "is empty";
    if (typ == CVN_TYP_DATE) return value_fast_date(text, len, &ret->i) ? nullptr : parse_date(&ret->i, view);
    if (typ == CVN_TYP_TIME_MILLIS) return parse_time(&ret->i, view);
    if (typ == CVN_TYP_TIMESTAMP_MILLIS) return parse_timestamp(&ret->I, view);
    const char* why = nullptr;
    int64_t v;
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: return parse_bool(&ret->b, view);
        case CVN_TYP_INT16:
            why = parse_int(&v, view, INT16_MIN, INT16_MAX, "is out of the range of int16 (-32768 to 32767)");
            if (!why) ret->s = static_cast<int16_t>(v);
            return why;
        case CVN_TYP_INT32:
            why = parse_int(&v, view, INT32_MIN, INT32_MAX,
                            "is out of the range of int32 (-2147483648 to 2147483647)");
            if (!why) ret->i = static_cast<int32_t>(v);
            return why;
        case CVN_TYP_INT64:
            return parse_int(&ret->I, view, INT64_MIN, INT64_MAX, "is out of the range of int64; use int128");
        case CVN_TYP_INT128: return parse_int128(&ret->L, view, "is out of the range of int128");
        case CVN_TYP_FLOAT: return parse_real(&ret->f, view);
        case CVN_TYP_DOUBLE:
            return value_fast_double(text, len, &ret->F) ? nullptr : parse_real(&ret->F, view);
        case CVN_TYP_BYTEA: return parse_bytea(ret, text, len);
        case CVN_TYP_CSTR: ret->t = text; return nullptr;
        // A NUL inside would hide the rest from decNumber.
        case CVN_TYP_DEC64:
            if (memchr(text, 0, len)) return "is not a decimal number";
            return cvn_dec64_from_string(&ret->dec64, text) == 0 ? nullptr : decimal_reason(text, false);
        case CVN_TYP_DEC128:
            if (memchr(text, 0, len)) return "is not a decimal number";
            return cvn_dec128_from_string(&ret->dec128, text) == 0 ? nullptr : decimal_reason(text, true);
        default: return "is of an unknown type";
    }
}

const char* value_from_text(value_t* ret, std::string_view text, cvn_typ_t typ) {
    if (text.size() > INT32_MAX - 64) return "is too long";
    ret->bytes.reset(new char[text.size() + 64]());
    memcpy(ret->bytes.get(), text.data(), text.size());
    memset(&ret->datum, 0, sizeof(ret->datum));
    if ((cvn_storage(typ)) == CVN_TYP_CSTR && text.find('\0') != std::string_view::npos)
        return "holds a NUL byte, which a text cannot; use bytea";
    return value_parse(&ret->datum, ret->bytes.get(), static_cast<uint32_t>(text.size()), typ);
}

const char* value_hint(cvn_typ_t typ) {
    switch (typ) {
        case CVN_TYP_DATE: return "write a date as 2021-07-04";
        case CVN_TYP_TIME_MILLIS: return "write a time as 12:34:56.789";
        case CVN_TYP_TIMESTAMP_MILLIS: return "write a timestamp as 2021-07-04T12:34:56.789";
        default: break;
    }
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: return "write true or false";
        case CVN_TYP_INT16: return "write a whole number from -32768 to 32767";
        case CVN_TYP_INT32: return "write a whole number from -2147483648 to 2147483647";
        case CVN_TYP_INT64:
        case CVN_TYP_INT128: return "write a whole number";
        case CVN_TYP_FLOAT:
        case CVN_TYP_DOUBLE: return "write a number in the range of the type, with a point if it needs one";
        case CVN_TYP_BYTEA: return "write pairs of hexadecimal digits after \\x";
        case CVN_TYP_DEC64: return "write a number of at most 16 digits";
        case CVN_TYP_DEC128: return "write a number of at most 34 digits";
        default: return nullptr;
    }
}

void value_append_text(std::string* out, const cvn_datum_t& datum, cvn_typ_t typ) {
    char buf[64];
    switch (typ) {
        case CVN_TYP_DATE: append_date(out, datum.i); return;
        case CVN_TYP_TIME_MILLIS:
            if (datum.i < 0 || datum.i >= DAY_MILLIS)
                *out += std::to_string(datum.i) + "ms";
            else
                append_time(out, datum.i);
            return;
        case CVN_TYP_TIMESTAMP_MILLIS: {
            int64_t days = datum.I / DAY_MILLIS, millis = datum.I % DAY_MILLIS;
            if (millis < 0) {
                millis += DAY_MILLIS;
                days--;
            }
            append_date(out, days);
            *out += 'T';
            append_time(out, millis);
            *out += 'Z';
            return;
        }
        default: break;
    }
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: *out += datum.raw[0] ? "true" : "false"; return;
        case CVN_TYP_INT16:
            out->append(buf, static_cast<size_t>(std::to_chars(buf, buf + 64, datum.s).ptr - buf));
            return;
        case CVN_TYP_INT32:
            out->append(buf, static_cast<size_t>(std::to_chars(buf, buf + 64, datum.i).ptr - buf));
            return;
        case CVN_TYP_INT64:
            out->append(buf, static_cast<size_t>(std::to_chars(buf, buf + 64, datum.I).ptr - buf));
            return;
        case CVN_TYP_INT128: append_int128(out, datum.L); return;
        case CVN_TYP_FLOAT: append_real(out, datum.f); return;
        case CVN_TYP_DOUBLE: append_real(out, datum.F); return;
        case CVN_TYP_BYTEA: {
            constexpr char digit[] = "0123456789abcdef";
            *out += "\\x";
            for (int32_t i = 0; i < datum.a.len; i++) {
                *out += digit[static_cast<unsigned char>(datum.a.ptr[i]) >> 4];
                *out += digit[static_cast<unsigned char>(datum.a.ptr[i]) & 15];
            }
            return;
        }
        case CVN_TYP_CSTR: *out += datum.t; return;
        case CVN_TYP_DEC64:
            cvn_dec64_to_string(buf, datum.dec64);
            *out += buf;
            return;
        case CVN_TYP_DEC128:
            cvn_dec128_to_string(buf, datum.dec128);
            *out += buf;
            return;
        default: *out += '?';
    }
}

bool value_is_nan(const cvn_datum_t& datum, cvn_typ_t typ) {
    switch (cvn_storage(typ)) {
        case CVN_TYP_FLOAT: return std::isnan(datum.f);
        case CVN_TYP_DOUBLE: return std::isnan(datum.F);
        case CVN_TYP_DEC64: return cvn_dec64_isnan(&datum.dec64);
        case CVN_TYP_DEC128: return cvn_dec128_isnan(&datum.dec128);
        default: return false;
    }
}

int value_cmp(const cvn_datum_t& a, const cvn_datum_t& b, cvn_typ_t typ) {
    if (value_is_nan(a, typ) || value_is_nan(b, typ)) return 2;
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: return order(a.raw[0] != 0, b.raw[0] != 0);
        case CVN_TYP_INT16: return order(a.s, b.s);
        case CVN_TYP_INT32: return order(a.i, b.i);
        case CVN_TYP_INT64: return order(a.I, b.I);
        case CVN_TYP_INT128: return order(a.L, b.L);
        case CVN_TYP_FLOAT: return order(a.f, b.f);
        case CVN_TYP_DOUBLE: return order(a.F, b.F);
        case CVN_TYP_BYTEA: {
            const size_t n = static_cast<size_t>(a.a.len < b.a.len ? a.a.len : b.a.len);
            const int c = n == 0 ? 0 : memcmp(a.a.ptr, b.a.ptr, n);
            return c != 0 ? (c < 0 ? -1 : 1) : order(a.a.len, b.a.len);
        }
        case CVN_TYP_CSTR: {
            const int c = strcmp(a.t, b.t);
            return c < 0 ? -1 : c > 0 ? 1 : 0;
        }
        case CVN_TYP_DEC64: return cvn_dec64_cmp(a.dec64, b.dec64);
        case CVN_TYP_DEC128: return cvn_dec128_cmp(a.dec128, b.dec128);
        default: return 2;
    }
}

bool value_has_nan(cvn_typ_t typ) {
    switch (cvn_storage(typ)) {
        case CVN_TYP_FLOAT:
        case CVN_TYP_DOUBLE:
        case CVN_TYP_DEC64:
        case CVN_TYP_DEC128: return true;
        default: return false;
    }
}

bool value_is_number(cvn_typ_t typ) {
    if (typ >> 16 != 0) return false;
    switch (typ) {
        case CVN_TYP_BOOL:
        case CVN_TYP_BYTEA:
        case CVN_TYP_CSTR: return false;
        default: return true;
    }
}

}  // namespace rows
