// cond: conditions, from text to rows.
//
// A condition is used twice. The server gets what its statistics can decide without losing a row; what they
// make of some values is peculiar, so this side decides what may be asked.
//
//   floating and decimal numbers: a NaN that comes first in a row group becomes both of its bounds, and no
//   later value displaces it; a whole file's bounds pass over such a row group. Comparisons are asked only
//   when the caller promises that there is no NaN.
//
//   IN lists become a closed range here, since the server's own reduction of int16 and decimal lists can end
//   below the largest element.
//
//   bool becomes a comparison with 0, since a stored byte other than 0 and 1 also means true.
//
//   texts are safe at any length: of a constant over 39 bytes the first 39 count, and the answer is "perhaps"
//   more often. So only that much is sent.
//
//   bytea has no statistics.
//
// Then the rows are filtered exactly, one pass over each column that has a condition.

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "clients/cpp/client_int.h"

namespace {

// What is sent of a longer text; anything over 39 bytes means the same.
constexpr size_t PUSH_TEXTMAX = 48;

constexpr int64_t DAY_MS = 86400000;

int storage_of(cvn_typ_t typ) { return typ & 0xffff; }

bool is_nan(const decDouble& d) {
    uint64_t bits;
    memcpy(&bits, &d, sizeof(bits));
    return ((bits >> 58) & 31) == 31;
}

bool is_nan(const decQuad& d) {
    uint64_t half[2];
    memcpy(half, &d, sizeof(half));
    return ((half[1] >> 58) & 31) == 31;
}

}  // namespace

// Values from text.

// Reads a whole decimal or 0x integer with 128 bits to spare. False when it is none, or does not fit.
static bool parse_integer(std::string_view s, cvn_int128_t* ret) {
    using uint128_t = unsigned __int128;
    bool minus = false;
    if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
        minus = s[0] == '-';
        s.remove_prefix(1);
    }
    const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    if (hex) s.remove_prefix(2);
    if (s.empty()) return false;
    const unsigned base = hex ? 16 : 10;
    constexpr uint128_t TOP = ~uint128_t{0};
    uint128_t v = 0;
    for (const char c : s) {
        const unsigned digit = c >= '0' && c <= '9'          ? static_cast<unsigned>(c - '0')
                               : hex && c >= 'a' && c <= 'f' ? static_cast<unsigned>(c - 'a' + 10)
                               : hex && c >= 'A' && c <= 'F' ? static_cast<unsigned>(c - 'A' + 10)
                                                             : 99;
        if (digit == 99 || v > (TOP - digit) / base) return false;
        v = v * base + digit;
    }
    // Hexadecimal digits are the bits themselves; a decimal number has its sign apart.
    constexpr uint128_t SIGN = uint128_t{1} << 127;
    if (!hex && (minus ? v > SIGN : v >= SIGN)) return false;
    if (hex && minus && v > SIGN) return false;
    *ret = static_cast<cvn_int128_t>(minus ? uint128_t{0} - v : v);
    return true;
}

// Days since 1970-01-01 of a day in the proleptic Gregorian calendar.
static int64_t days_of(int64_t year, int64_t month, int64_t day) {
    const int64_t y = month <= 2 ? year - 1 : year;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

// Reads exactly `n` digits, or fewer never.
static bool take_digits(std::string_view* s, size_t n, int64_t* ret) {
    if (s->size() < n) return false;
    int64_t v = 0;
    for (size_t i = 0; i < n; i++) {
        const char c = (*s)[i];
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    s->remove_prefix(n);
    *ret = v;
    return true;
}

static bool take_char(std::string_view* s, char c) {
    if (s->empty() || (*s)[0] != c) return false;
    s->remove_prefix(1);
    return true;
}

static bool take_date(std::string_view* s, int64_t* ret_day) {
    const bool minus = take_char(s, '-');
    int64_t year, month, day;
    if (!take_digits(s, 4, &year) || !take_char(s, '-') || !take_digits(s, 2, &month) || !take_char(s, '-') ||
        !take_digits(s, 2, &day))
        return false;
    if (minus) year = -year;
    static constexpr int LENGTH[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1) return false;
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    if (day > LENGTH[month - 1] + (leap && month == 2 ? 1 : 0)) return false;
    *ret_day = days_of(year, month, day);
    return true;
}

static bool take_time(std::string_view* s, int64_t* ret_ms) {
    int64_t hour, minute, second = 0, ms = 0;
    if (!take_digits(s, 2, &hour) || !take_char(s, ':') || !take_digits(s, 2, &minute)) return false;
    if (take_char(s, ':')) {
        if (!take_digits(s, 2, &second)) return false;
        if (take_char(s, '.')) {
            int64_t scale = 100;
            if (s->empty() || !isdigit(static_cast<unsigned char>((*s)[0]))) return false;
            while (!s->empty() && isdigit(static_cast<unsigned char>((*s)[0])) && scale > 0) {
                ms += scale * ((*s)[0] - '0');
                scale /= 10;
                s->remove_prefix(1);
            }
        }
    }
    if (hour > 23 || minute > 59 || second > 59) return false;
    *ret_ms = ((hour * 60 + minute) * 60 + second) * 1000 + ms;
    return true;
}

// The forms that dates and times have besides that of an integer.
static bool parse_calendar(std::string_view s, cvn_typ_t typ, cvn_int128_t* ret) {
    int64_t day = 0, ms = 0;
    switch (typ) {
        case CVN_TYP_DATE:
            if (!take_date(&s, &day) || !s.empty()) return false;
            *ret = day;
            return true;
        case CVN_TYP_TIME_MILLIS:
            if (!take_time(&s, &ms) || !s.empty()) return false;
            *ret = ms;
            return true;
        case CVN_TYP_TIMESTAMP_MILLIS:
            if (!take_date(&s, &day)) return false;
            if (!s.empty()) {
                if (!take_char(&s, ' ') && !take_char(&s, 'T')) return false;
                if (!take_time(&s, &ms)) return false;
                if (!s.empty() && !take_char(&s, 'Z')) return false;
            }
            if (!s.empty()) return false;
            *ret = cvn_int128_t{day} * DAY_MS + ms;
            return true;
        default: return false;
    }
}

// The same in every locale. What overflows to infinity, or underflows to zero, is no number of the type.
template <typename T>
static bool parse_float(std::string_view s, T* ret) {
    const bool minus = s.starts_with('-');
    if (minus || s.starts_with('+')) s.remove_prefix(1);
    const bool hex = s.starts_with("0x") || s.starts_with("0X");
    if (hex) s.remove_prefix(2);
    if (s.empty() || s[0] == '-' || (hex && s[0] != '.' && !isxdigit(static_cast<unsigned char>(s[0]))))
        return false;
    const char* end = s.data() + s.size();
    T v = 0;
    const auto [p, ec] =
        std::from_chars(s.data(), end, v, hex ? std::chars_format::hex : std::chars_format::general);
    const bool is_word = isalpha(static_cast<unsigned char>(s[0])) && !hex;
    if (ec != std::errc{} || p != end || (std::isinf(v) && !is_word)) return false;
    *ret = minus ? -v : v;
    return true;
}

static bool parse_bool(std::string_view s, bool* ret) {
    for (const char* word : {"true", "t", "yes", "1"})
        if (s.size() == strlen(word) && strncasecmp(s.data(), word, s.size()) == 0) return *ret = true;
    for (const char* word : {"false", "f", "no", "0"})
        if (s.size() == strlen(word) && strncasecmp(s.data(), word, s.size()) == 0) {
            *ret = false;
            return true;
        }
    return false;
}

static bool parse_bytes(std::string_view s, std::string* ret) {
    if (!s.starts_with("\\x")) {
        *ret = s;
        return true;
    }
    s.remove_prefix(2);
    if (s.size() % 2) return false;
    for (size_t i = 0; i < s.size(); i += 2) {
        unsigned v = 0;
        const auto [p, ec] = std::from_chars(s.data() + i, s.data() + i + 2, v, 16);
        if (ec != std::errc{} || p != s.data() + i + 2) return false;
        *ret += static_cast<char>(v);
    }
    return true;
}

static const char* value_form(cvn_typ_t typ) {
    switch (typ) {
        case CVN_TYP_DATE: return "write a date as 2021-07-04";
        case CVN_TYP_TIME_MILLIS: return "write a time as 12:34:56.789";
        case CVN_TYP_TIMESTAMP_MILLIS: return "write a timestamp as 2021-07-04T12:34:56.789";
        default: break;
    }
    switch (storage_of(typ)) {
        case CVN_TYP_BOOL: return "write true or false";
        case CVN_TYP_INT16: return "write a whole number from -32768 to 32767";
        case CVN_TYP_INT32: return "write a whole number from -2147483648 to 2147483647";
        case CVN_TYP_INT64:
        case CVN_TYP_INT128: return "write a whole number";
        case CVN_TYP_FLOAT:
        case CVN_TYP_DOUBLE: return "write a number in the range of the type, with a point if it needs one";
        case CVN_TYP_BYTEA: return "write pairs of hexadecimal digits behind \\x";
        case CVN_TYP_DEC64: return "write a number of at most 16 digits";
        case CVN_TYP_DEC128: return "write a number of at most 34 digits";
        default: return nullptr;
    }
}

int value_parse(cvn_datum_t* ret, std::string* text, std::string_view s, cvn_typ_t typ,
                const std::string& column, kelp_error_t* err) {
    memset(static_cast<void*>(ret), 0, sizeof(*ret));
    const std::string copy(s);  // with a NUL
    bool good = false;
    const int storage = storage_of(typ);
    if (copy.find('\0') == copy.npos || storage == CVN_TYP_BYTEA) {
        cvn_int128_t v = 0;
        switch (storage) {
            case CVN_TYP_BOOL: good = parse_bool(s, &ret->b); break;
            case CVN_TYP_INT16:
                good = parse_integer(s, &v) && v == static_cast<int16_t>(v);
                ret->s = static_cast<int16_t>(v);
                break;
            case CVN_TYP_INT32:
                good = (parse_calendar(s, typ, &v) || parse_integer(s, &v)) && v == static_cast<int32_t>(v);
                ret->i = static_cast<int32_t>(v);
                break;
            case CVN_TYP_INT64:
                good = (parse_calendar(s, typ, &v) || parse_integer(s, &v)) && v == static_cast<int64_t>(v);
                ret->I = static_cast<int64_t>(v);
                break;
            case CVN_TYP_INT128:
                good = parse_integer(s, &v);
                ret->L = v;
                break;
            case CVN_TYP_FLOAT: good = parse_float(s, &ret->f); break;
            case CVN_TYP_DOUBLE: good = parse_float(s, &ret->F); break;
            case CVN_TYP_BYTEA:
                text->clear();
                good = parse_bytes(s, text) && text->size() <= INT32_MAX;
                ret->a.ptr = text->data();
                ret->a.len = static_cast<int32_t>(text->size());
                break;
            case CVN_TYP_CSTR:
                *text = copy;
                ret->t = text->c_str();
                good = true;
                break;
            case CVN_TYP_DEC64: good = cvn_dec64_from_string(&ret->dec64, copy.c_str()) == 0; break;
            case CVN_TYP_DEC128: good = cvn_dec128_from_string(&ret->dec128, copy.c_str()) == 0; break;
            default: break;
        }
    }
    if (good) return 0;
    return kelp_fail(err, KELP_EARG, value_form(typ),
                     "'%.100s' is no value of column %.100s, which is of type %s", copy.c_str(),
                     column.c_str(), cvn_typ_str(typ));
}

int cond_bind(bound_cond_t* ret, const kelp_cond_t& cond, int col, cvn_typ_t typ, kelp_error_t* err) {
    if (cond.op < CVN_OP_EQ || cond.op > CVN_OP_IN)
        return kelp_fail(err, KELP_EARG, nullptr, "the condition on column %.100s has no valid operator",
                         cond.column.c_str());
    const bool none = cond.op == CVN_OP_ISNULL || cond.op == CVN_OP_ISNOTNULL;
    if (cond.op != CVN_OP_IN && cond.value.size() != (none ? 0 : 1))
        return kelp_fail(err, KELP_EARG, nullptr, "the condition on column %.100s takes %s",
                         cond.column.c_str(), none ? "no value" : "one value");
    *ret = bound_cond_t{.col = col, .op = cond.op, .typ = typ, .arg = {}, .text = {}};
    ret->arg.resize(cond.value.size());
    ret->text.resize(cond.value.size());  // not resized again: the datums borrow from these
    for (size_t i = 0; i < cond.value.size(); i++)
        if (const int code = value_parse(&ret->arg[i], &ret->text[i], cond.value[i], typ, cond.column, err))
            return code;
    return 0;
}

static bool order_meets(int op, int order) {
    switch (op) {
        case CVN_OP_EQ: return order == 0;
        case CVN_OP_NE: return order != 0;
        case CVN_OP_GT: return order > 0;
        case CVN_OP_GE: return order >= 0;
        case CVN_OP_LT: return order < 0;
        default: return order <= 0;
    }
}

// Whether a bool meets a comparison or a list.
static bool bool_meets(const bound_cond_t& cond, bool x) {
    const auto meets = [&](int op, const cvn_datum_t& v) { return order_meets(op, int{x} - int{v.b}); };
    if (cond.op != CVN_OP_IN) return meets(cond.op, cond.arg[0]);
    return std::any_of(cond.arg.begin(), cond.arg.end(),
                       [&](const cvn_datum_t& v) { return meets(CVN_OP_EQ, v); });
}

// Pushing down.

// `precision` digits express every value of the type.
template <typename T>
static std::string float_text(T v, int precision) {
    char buf[64];
    const auto [end, ec] = std::to_chars(buf, buf + sizeof(buf), v, std::chars_format::general, precision);
    return std::string(buf, ec == std::errc{} ? end : buf);  // they always fit
}

// Writes a value so that the server reads exactly it. False when there is no such text.
static bool push_text(std::string* ret, const cvn_datum_t& v, int storage) {
    char buf[64];
    switch (storage) {
        case CVN_TYP_INT16: *ret = std::to_string(v.s); return true;
        case CVN_TYP_INT32: *ret = std::to_string(v.i); return true;
        case CVN_TYP_INT64: *ret = std::to_string(v.I); return true;
        case CVN_TYP_INT128: (void)cvn_int128_to_string(buf, v.L); break;  // always 0
        case CVN_TYP_FLOAT: *ret = float_text(v.f, 9); return true;
        case CVN_TYP_DOUBLE: *ret = float_text(v.F, 17); return true;
        case CVN_TYP_DEC64: (void)cvn_dec64_to_string(buf, &v.dec64); break;
        case CVN_TYP_DEC128: (void)cvn_dec128_to_string(buf, &v.dec128); break;
        case CVN_TYP_CSTR: {
            const size_t len = strlen(v.t);
            ret->assign(v.t, std::min(len, PUSH_TEXTMAX));
            // Strings of a request are taken as they stand, so what would need an escape cannot be said.
            return ret->find_first_of("\"\\") == ret->npos &&
                   std::none_of(ret->begin(), ret->end(),
                                [](char c) { return static_cast<unsigned char>(c) < ' '; });
        }
        default: return false;
    }
    *ret = buf;
    return true;
}

// The order of two values, for the ends of a list. Never asked of bytea.
static int compare_values(const cvn_datum_t& a, const cvn_datum_t& b, int storage) {
    const auto order = [](auto x, auto y) { return x < y ? -1 : x > y; };
    switch (storage) {
        case CVN_TYP_INT16: return order(a.s, b.s);
        case CVN_TYP_INT32: return order(a.i, b.i);
        case CVN_TYP_INT64: return order(a.I, b.I);
        case CVN_TYP_INT128: return order(a.L, b.L);
        case CVN_TYP_FLOAT: return order(a.f, b.f);
        case CVN_TYP_DOUBLE: return order(a.F, b.F);
        case CVN_TYP_CSTR: return strcmp(a.t, b.t);
        case CVN_TYP_DEC64: return cvn_dec64_cmp(&a.dec64, &b.dec64);
        default: return cvn_dec128_cmp(&a.dec128, &b.dec128);
    }
}

static bool value_is_nan(const cvn_datum_t& v, int storage) {
    switch (storage) {
        case CVN_TYP_FLOAT: return std::isnan(v.f);
        case CVN_TYP_DOUBLE: return std::isnan(v.F);
        case CVN_TYP_DEC64: return is_nan(v.dec64);
        case CVN_TYP_DEC128: return is_nan(v.dec128);
        default: return false;
    }
}

std::vector<pushed_t> cond_push(const bound_cond_t& cond, bool no_nan) {
    std::vector<pushed_t> out;
    const int storage = storage_of(cond.typ);
    if (cond.op == CVN_OP_ISNULL || cond.op == CVN_OP_ISNOTNULL) {
        out.push_back({cond.op, false, {}});
        return out;
    }
    if (storage == CVN_TYP_BOOL) {
        if (!bool_meets(cond, false)) out.push_back({CVN_OP_NE, true, "0"});
        if (!bool_meets(cond, true)) out.push_back({CVN_OP_EQ, true, "0"});
        return out;
    }
    const bool may_be_nan = storage == CVN_TYP_FLOAT || storage == CVN_TYP_DOUBLE ||
                            storage == CVN_TYP_DEC64 || storage == CVN_TYP_DEC128;
    if (storage == CVN_TYP_BYTEA || (may_be_nan && !no_nan) || cond.arg.empty()) return out;
    for (const cvn_datum_t& v : cond.arg)
        if (value_is_nan(v, storage)) return out;
    const cvn_datum_t *least = &cond.arg[0], *most = &cond.arg[0];
    for (const cvn_datum_t& v : cond.arg) {
        if (compare_values(v, *least, storage) < 0) least = &v;
        if (compare_values(v, *most, storage) > 0) most = &v;
    }
    std::string text;
    if (cond.op != CVN_OP_IN) {
        if (push_text(&text, *least, storage)) out.push_back({cond.op, true, text});
        return out;
    }
    if (push_text(&text, *least, storage)) out.push_back({CVN_OP_GE, true, text});
    if (push_text(&text, *most, storage)) out.push_back({CVN_OP_LE, true, text});
    return out;
}

// Filtering.

// keep[r] &= what the operator makes of value r and `v`. The loops are simple enough for the compiler to do
// many rows at a time.
template <typename T>
static void keep_fixed(uint8_t* keep, const char* value, int64_t nrow, int op, T v) {
    const T* x = reinterpret_cast<const T*>(value);
    switch (op) {
        case CVN_OP_EQ:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] == v;
            break;
        case CVN_OP_NE:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] != v;
            break;
        case CVN_OP_GT:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] > v;
            break;
        case CVN_OP_GE:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] >= v;
            break;
        case CVN_OP_LT:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] < v;
            break;
        default:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] <= v;
            break;
    }
}

template <typename T, typename GET>
static void keep_fixed_in(uint8_t* keep, const char* value, int64_t nrow, const std::vector<cvn_datum_t>& arg,
                          GET get) {
    const T* x = reinterpret_cast<const T*>(value);
    std::vector<T> list;
    for (const cvn_datum_t& v : arg)
        if (get(v) == get(v)) list.push_back(get(v));  // a NaN equals nothing, and has no place in an order
    std::sort(list.begin(), list.end());
    for (int64_t r = 0; r < nrow; r++)
        if (keep[r]) keep[r] = std::binary_search(list.begin(), list.end(), x[r]) && x[r] == x[r];
}

template <typename T, typename GET>
static void keep_number(uint8_t* keep, const kelp_vec_t& vec, const bound_cond_t& cond, GET get) {
    if (cond.op == CVN_OP_IN)
        keep_fixed_in<T>(keep, vec.value, vec.nrow, cond.arg, get);
    else
        keep_fixed<T>(keep, vec.value, vec.nrow, cond.op, get(cond.arg[0]));
}

// Values whose order is a function: `order(r, i)` of row r and argument i.
template <typename ORDER>
static void keep_ordered(uint8_t* keep, int64_t nrow, const bound_cond_t& cond, ORDER order) {
    for (int64_t r = 0; r < nrow; r++) {
        if (!keep[r]) continue;
        if (cond.op != CVN_OP_IN) {
            keep[r] = order_meets(cond.op, order(r, size_t{0}));
            continue;
        }
        bool found = false;
        for (size_t i = 0; i < cond.arg.size() && !found; i++) found = order(r, i) == 0;
        keep[r] = found;
    }
}

// The same for decimals, which a NaN leaves without order: only "not equal" holds then.
template <typename T, typename COMPARE>
static void keep_decimal(uint8_t* keep, const kelp_vec_t& vec, const bound_cond_t& cond,
                         const T cvn_datum_t::*member, COMPARE compare) {
    for (int64_t r = 0; r < vec.nrow; r++) {
        if (!keep[r]) continue;
        const T x = kelp_vec_get<T>(vec, r);
        const auto meets = [&](int op, const cvn_datum_t& v) {
            if (is_nan(x) || is_nan(v.*member)) return op == CVN_OP_NE;
            return order_meets(op, compare(&x, &(v.*member)));
        };
        if (cond.op != CVN_OP_IN) {
            keep[r] = meets(cond.op, cond.arg[0]);
            continue;
        }
        keep[r] = std::any_of(cond.arg.begin(), cond.arg.end(),
                              [&](const cvn_datum_t& v) { return meets(CVN_OP_EQ, v); });
    }
}

static void keep_bool(uint8_t* keep, const kelp_vec_t& vec, const bound_cond_t& cond) {
    const uint8_t answer[2] = {bool_meets(cond, false), bool_meets(cond, true)};
    for (int64_t r = 0; r < vec.nrow; r++) keep[r] &= answer[vec.value[r] != 0];
}

// Clears keep[r] where row r is NULL (`null` true) or is not.
static void drop_nulls(uint8_t* keep, const kelp_vec_t& vec, bool null) {
    if (null && vec.nnull == 0) return;
    for (int64_t r = 0; r < vec.nrow; r++) keep[r] &= kelp_vec_isnull(vec, r) != null;
}

void cond_apply(uint8_t* keep, const kelp_vec_t& vec, const bound_cond_t& cond) {
    if (cond.op == CVN_OP_ISNULL) return drop_nulls(keep, vec, false);
    drop_nulls(keep, vec, true);  // a comparison with NULL is unknown, which is not true
    if (cond.op == CVN_OP_ISNOTNULL) return;
    const auto text_order = [&](int64_t r, size_t i) {
        const std::string_view x = kelp_vec_text(vec, r), v = cond.text[i];
        const int order = memcmp(x.data(), v.data(), std::min(x.size(), v.size()));
        return order ? order : (x.size() > v.size()) - (x.size() < v.size());
    };
    using datum_t = cvn_datum_t;
    switch (storage_of(cond.typ)) {
        case CVN_TYP_BOOL: return keep_bool(keep, vec, cond);
        case CVN_TYP_INT16:
            return keep_number<int16_t>(keep, vec, cond, [](const datum_t& v) { return v.s; });
        case CVN_TYP_INT32:
            return keep_number<int32_t>(keep, vec, cond, [](const datum_t& v) { return v.i; });
        case CVN_TYP_INT64:
            return keep_number<int64_t>(keep, vec, cond, [](const datum_t& v) { return v.I; });
        case CVN_TYP_INT128:
            return keep_number<cvn_int128_t>(keep, vec, cond, [](const datum_t& v) { return v.L; });
        case CVN_TYP_FLOAT: return keep_number<float>(keep, vec, cond, [](const datum_t& v) { return v.f; });
        case CVN_TYP_DOUBLE:
            return keep_number<double>(keep, vec, cond, [](const datum_t& v) { return v.F; });
        case CVN_TYP_DEC64:
            return keep_decimal<decDouble>(
                keep, vec, cond, &cvn_datum_t::dec64,
                [](const decDouble* a, const decDouble* b) { return cvn_dec64_cmp(a, b); });
        case CVN_TYP_DEC128:
            return keep_decimal<decQuad>(
                keep, vec, cond, &cvn_datum_t::dec128,
                [](const decQuad* a, const decQuad* b) { return cvn_dec128_cmp(a, b); });
        default: return keep_ordered(keep, vec.nrow, cond, text_order);
    }
}

// Compacting. Every move is towards the front, and rows come in ascending order, so nothing is overwritten
// before it was read.

template <typename T>
static void compact_fixed(char* value, std::span<const int32_t> row) {
    T* x = reinterpret_cast<T*>(value);
    for (size_t i = 0; i < row.size(); i++) x[i] = x[row[i]];
}

static void compact_varying(column_t* col, std::span<const int32_t> row) {
    char* value = col->value.p;
    auto* offset = reinterpret_cast<int32_t*>(col->offset.p);
    const int gap = col->vec.gap;
    // In front of a bytea stands its length, behind a cstr its NUL; they move along.
    const int32_t before = gap == 4 ? 4 : 0;
    int32_t at = before;
    for (size_t i = 0; i < row.size(); i++) {
        const int32_t from = offset[row[i]], to = offset[row[i] + 1];
        const int32_t len = to - from - before;  // with the NUL, if any
        memmove(value + at - before, value + from - before, static_cast<size_t>(len + before));
        offset[i] = at;
        at += len + before;
    }
    offset[row.size()] = at;
}

void column_compact(column_t* col, std::span<const int32_t> row) {
    kelp_vec_t* vec = &col->vec;
    char* value = col->value.p;
    switch (vec->width) {
        case 0: compact_varying(col, row); break;
        case 1: compact_fixed<uint8_t>(value, row); break;
        case 2: compact_fixed<uint16_t>(value, row); break;
        case 4: compact_fixed<uint32_t>(value, row); break;
        case 8: compact_fixed<uint64_t>(value, row); break;
        default: compact_fixed<unsigned __int128>(value, row); break;
    }
    // The bitmap lies behind the values, in the same memory.
    auto* nullmap = const_cast<uint8_t*>(vec->nullmap);
    int64_t nnull = 0;
    for (size_t i = 0; i < row.size(); i += 8) {
        unsigned byte = 0;
        for (size_t k = i; k < std::min(i + 8, row.size()); k++)
            if (kelp_vec_isnull(*vec, row[k])) {
                byte |= 0x80u >> (k - i);
                nnull++;
            }
        nullmap[i / 8] = static_cast<uint8_t>(byte);
    }
    vec->nrow = static_cast<int64_t>(row.size());
    vec->nnull = nnull;
}

int64_t filter_columns(std::vector<column_t>& column, size_t nresult, const std::vector<bound_cond_t>& cond) {
    const int64_t nrow = column.empty() ? 0 : column[0].vec.nrow;
    if (nrow == 0) return 0;
    std::vector<uint8_t> keep(static_cast<size_t>(nrow), 1);
    for (const bound_cond_t& c : cond) cond_apply(keep.data(), column[static_cast<size_t>(c.col)].vec, c);
    std::vector<int32_t> row(static_cast<size_t>(nrow));
    size_t n = 0;
    for (int64_t r = 0; r < nrow; r++) {
        row[n] = static_cast<int32_t>(r);
        n += keep[static_cast<size_t>(r)];
    }
    if (n > 0 && n < static_cast<size_t>(nrow))
        for (size_t c = 0; c < nresult; c++) column_compact(&column[c], {row.data(), n});
    return static_cast<int64_t>(n);
}

// Conditions from text.

namespace {

struct lexer_t {
    std::string_view rest;
    void skip() {
        while (!rest.empty() && isspace(static_cast<unsigned char>(rest[0]))) rest.remove_prefix(1);
    }
};

}  // namespace

// Takes a quoted text, or a word up to one of `stop`. False when there is none, or its quote is not closed.
static bool take_word(lexer_t* lx, std::string_view stop, std::string_view quotes, std::string* ret) {
    lx->skip();
    ret->clear();
    std::string_view& s = lx->rest;
    if (!s.empty() && quotes.find(s[0]) != quotes.npos) {
        const char quote = s[0];
        for (size_t i = 1; i < s.size(); i++) {
            if (s[i] != quote) {
                *ret += s[i];
            } else if (i + 1 < s.size() && s[i + 1] == quote) {
                *ret += s[i++];
            } else {
                s.remove_prefix(i + 1);
                return true;
            }
        }
        return false;
    }
    const size_t n = std::min(s.find_first_of(stop), s.size());
    *ret = s.substr(0, n);
    s.remove_prefix(n);
    while (!ret->empty() && isspace(static_cast<unsigned char>(ret->back()))) ret->pop_back();
    return !ret->empty();
}

// Takes `word`, whatever its case, if it stands there as a word of its own.
static bool take_keyword(lexer_t* lx, std::string_view word) {
    lx->skip();
    const std::string_view s = lx->rest;
    if (s.size() < word.size() || strncasecmp(s.data(), word.data(), word.size()) != 0) return false;
    if (s.size() > word.size() &&
        (isalnum(static_cast<unsigned char>(s[word.size()])) || s[word.size()] == '_'))
        return false;
    lx->rest.remove_prefix(word.size());
    return true;
}

static bool take_symbol(lexer_t* lx, std::string_view symbol) {
    lx->skip();
    if (!lx->rest.starts_with(symbol)) return false;
    lx->rest.remove_prefix(symbol.size());
    return true;
}

// Takes a value. One without quotes that looks like more of a condition is refused: `a => 1` and `a = 1 and b
// = 2` are not meant as texts.
static bool take_value(lexer_t* lx, std::string_view stop, std::string* ret, const char** why) {
    lx->skip();
    const bool quoted = lx->rest.starts_with('"') || lx->rest.starts_with('\'');
    if (!take_word(lx, stop, "\"'", ret)) return false;
    if (quoted) return true;
    if (ret->find_first_of("=!<>") == 0)
        *why = "has an operator that there is not; a value that begins so needs quotes";
    for (lexer_t word{*ret}; !word.rest.empty();) {
        const size_t n = std::min(word.rest.find_first_of(" \t\r\n"), word.rest.size());
        if (n == 3 && strncasecmp(word.rest.data(), "and", n) == 0 && word.rest.data() != ret->data() &&
            n < word.rest.size())
            *why = "holds more than one condition; give each by itself, or put the value in quotes";
        word.rest.remove_prefix(n);
        word.skip();
    }
    return !*why;
}

// False when the text is none; then `*why` may say more.
static bool parse_cond(kelp_cond_t* ret, std::string_view text, const char** why) {
    lexer_t lx{text};
    if (!take_word(&lx, " \t\n\r=!<>(", "\"", &ret->column)) return false;
    static constexpr struct {
        const char* symbol;
        int op;
    } SYMBOLS[] = {{"==", CVN_OP_EQ}, {"!=", CVN_OP_NE}, {"<>", CVN_OP_NE}, {">=", CVN_OP_GE},
                   {"<=", CVN_OP_LE}, {"=", CVN_OP_EQ},  {">", CVN_OP_GT},  {"<", CVN_OP_LT}};
    ret->op = 0;
    for (const auto& s : SYMBOLS)
        if (take_symbol(&lx, s.symbol)) {
            ret->op = s.op;
            break;
        }
    std::string value;
    if (ret->op) {
        lx.skip();
        const bool quoted = !lx.rest.empty() && (lx.rest[0] == '"' || lx.rest[0] == '\'');
        if (!take_value(&lx, "", &value, why)) return false;
        ret->value.push_back(value);
        lx.skip();
        return !quoted || lx.rest.empty();
    }
    if (take_keyword(&lx, "is")) {
        ret->op = take_keyword(&lx, "not") ? CVN_OP_ISNOTNULL : CVN_OP_ISNULL;
        if (!take_keyword(&lx, "null")) return false;
    } else if (take_keyword(&lx, "isnull")) {
        ret->op = CVN_OP_ISNULL;
    } else if (take_keyword(&lx, "isnotnull")) {
        ret->op = CVN_OP_ISNOTNULL;
    } else if (take_keyword(&lx, "in")) {
        ret->op = CVN_OP_IN;
        if (!take_symbol(&lx, "(")) return false;
        if (!take_symbol(&lx, ")")) {
            do {
                if (!take_value(&lx, ",)", &value, why)) return false;
                ret->value.push_back(value);
            } while (take_symbol(&lx, ","));
            if (!take_symbol(&lx, ")")) return false;
        }
    } else {
        return false;
    }
    lx.skip();
    return lx.rest.empty();
}

int kelp_cond_parse(kelp_cond_t* ret_cond, std::string_view text, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        *ret_cond = kelp_cond_t{};
        kelp_cond_t cond;
        const char* why = nullptr;
        if (!parse_cond(&cond, text, &why)) {
            constexpr char FORMS[] =
                "write COLUMN OP VALUE with = != > >= < <=, COLUMN is [not] null, or COLUMN in (VALUE, ...)";
            return kelp_fail(err, KELP_EARG, FORMS, "'%.200s' %s", std::string(text).c_str(),
                             why ? why : "is no condition");
        }
        *ret_cond = cond;
        return 0;
    });
}

// Queries.

static std::string name_list(const std::vector<kelp_column_t>& have) {
    std::string s = "the table has ";
    for (size_t i = 0; i < have.size() && s.size() < 200; i++) s += (i ? ", " : "") + have[i].name;
    return s;
}

// Finds a column of the table, and its place among those requested, where it is added if need be.
static int find_column(plan_t* plan, size_t* ret, const std::vector<kelp_column_t>& have,
                       const std::string& name, kelp_error_t* err) {
    for (size_t i = 0; i < plan->column.size(); i++)
        if (plan->column[i].name == name) {
            *ret = i;
            return 0;
        }
    const auto found =
        std::find_if(have.begin(), have.end(), [&](const kelp_column_t& c) { return c.name == name; });
    if (found == have.end())
        return kelp_fail(err, KELP_EARG, name_list(have).c_str(), "there is no column %.100s", name.c_str());
    if (found->typ == 0)
        return kelp_fail(err, KELP_EPROTO, "use a newer client", "column %.100s is of an unknown type",
                         name.c_str());
    *ret = plan->column.size();
    plan->column.push_back(*found);
    return 0;
}

int query_plan(plan_t* ret, const std::vector<kelp_column_t>& have, const std::vector<std::string>& column,
               bool rows_only, const std::vector<kelp_cond_t>& cond, kelp_error_t* err) {
    plan_t plan;
    std::vector<std::string> want = column;
    if (want.empty())
        for (const kelp_column_t& c : have) want.push_back(c.name);
    if (rows_only) want.clear();
    size_t at;
    for (const std::string& name : want) {
        if (const int code = find_column(&plan, &at, have, name, err)) return code;
        if (at + 1 != plan.column.size() || plan.nresult == plan.column.size())
            return kelp_fail(err, KELP_EARG, column.empty() ? "name the columns that are wanted" : nullptr,
                             "column %.100s is named twice", name.c_str());
        plan.nresult++;
    }
    for (const kelp_cond_t& c : cond) {
        if (const int code = find_column(&plan, &at, have, c.column, err)) return code;
        plan.cond.emplace_back();
        if (const int code = cond_bind(&plan.cond.back(), c, static_cast<int>(at), plan.column[at].typ, err))
            return code;
        plan.empty = plan.empty || cond_is_empty(plan.cond.back());
    }
    *ret = std::move(plan);
    return 0;
}
