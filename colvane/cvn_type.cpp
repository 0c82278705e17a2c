// cvn_type: the closed list of column types, their names and widths, and values from text.

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"
#include "common/number.h"

using namespace colvane;

namespace {

struct typ_name_t {
    const char* name;
    cvn_typ_t typ;
};

constexpr typ_name_t TYP_NAMES[] = {
    {"bool", CVN_TYP_BOOL},     {"int16", CVN_TYP_INT16},
    {"int32", CVN_TYP_INT32},   {"int64", CVN_TYP_INT64},
    {"int128", CVN_TYP_INT128}, {"float", CVN_TYP_FLOAT},
    {"double", CVN_TYP_DOUBLE}, {"bytea", CVN_TYP_BYTEA},
    {"cstr", CVN_TYP_CSTR},     {"timestamp_millis", CVN_TYP_TIMESTAMP_MILLIS},
    {"date", CVN_TYP_DATE},     {"time_millis", CVN_TYP_TIME_MILLIS},
    {"dec64", CVN_TYP_DEC64},   {"dec128", CVN_TYP_DEC128},
};

// By storage type: how many bytes a value takes, or the markers -1 (bytea) and -2 (cstr).
constexpr int8_t TYP_LEN[CVN_STORAGE_MAX + 1] = {0, 1, 2, 4, 8, 16, 4, 8, -1, -2, 8, 16};

}  // namespace

int cvn_typlen(cvn_typ_t typ) {
    const int storage = cvn_storage(typ);
    return storage > CVN_STORAGE_MAX ? 0 : TYP_LEN[storage];
}

const char* cvn_typ_str(cvn_typ_t typ) {
    for (const typ_name_t& t : TYP_NAMES)
        if (t.typ == typ) return t.name;
    return "unknown";
}

cvn_typ_t colvane::cvn_str_typ(const char* str) {
    for (const typ_name_t& t : TYP_NAMES)
        if (strcmp(t.name, str) == 0) return t.typ;
    return 0;
}

// The three integer readers share one habit. Kept: only a zero with errno set is an error, so out-of-range
// text is clamped by strtol and then cut to the width.
static int parse_int32(int32_t* ret, const char* s) {
    errno = 0;
    const auto v = static_cast<int32_t>(strtol(s, nullptr, number_base(s)));
    if (v == 0 && errno) return -6;
    *ret = v;
    return 0;
}

static int parse_int64(int64_t* ret, const char* s) {
    errno = 0;
    const int64_t v = strtoll(s, nullptr, number_base(s));
    if (v == 0 && errno) return -6;
    *ret = v;
    return 0;
}

// An int16 alone is checked against its range, after the cut to 32 bits.
static int parse_int16(int16_t* ret, const char* s) {
    int32_t v;
    if (parse_int32(&v, s) != 0) return -6;
    if (v < INT16_MIN || v > INT16_MAX) return -6;
    *ret = static_cast<int16_t>(v);
    return 0;
}

// Underflow to zero is refused, overflow to infinity is not.
static int parse_float(float* ret, const char* s) {
    errno = 0;
    const float v = strtof(s, nullptr);
    if (v == 0 && errno) return -6;
    *ret = v;
    return 0;
}

static int parse_double(double* ret, const char* s) {
    errno = 0;
    const double v = strtod(s, nullptr);
    if (v == 0 && errno) return -6;
    *ret = v;
    return 0;
}

int cvn_datum_from_string(cvn_datum_t* ret_datum, const char* s, cvn_typ_t typ) {
    cvn_datum_t work;
    memset(&work, 0, sizeof(work));
    int rc = 0;
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: {
            int32_t v;
            rc = parse_int32(&v, s);
            if (rc == 0) work.b = v != 0;
            break;
        }
        case CVN_TYP_INT16: rc = parse_int16(&work.s, s); break;
        case CVN_TYP_INT32: rc = parse_int32(&work.i, s); break;
        case CVN_TYP_INT64: rc = parse_int64(&work.I, s); break;
        case CVN_TYP_INT128: rc = cvn_int128_from_string(&work.L, s); break;
        case CVN_TYP_FLOAT: rc = parse_float(&work.f, s); break;
        case CVN_TYP_DOUBLE: rc = parse_double(&work.F, s); break;
        case CVN_TYP_BYTEA: {
            // Kept: the NUL is part of the value.
            const size_t len = strlen(s) + 1;
            if (len > INT32_MAX) return -6;
            work.a.ptr = s;
            work.a.len = static_cast<int32_t>(len);
            break;
        }
        case CVN_TYP_CSTR: work.t = s; break;
        case CVN_TYP_DEC64: rc = cvn_dec64_from_string(&work.dec64, s); break;
        case CVN_TYP_DEC128: rc = cvn_dec128_from_string(&work.dec128, s); break;
        default: return -6;
    }
    if (rc != 0) return rc;
    memcpy(ret_datum, &work, sizeof(work));
    return 0;
}
