// cvn_stat: the order of values that statistics keep, and the search for a chunk's smallest and largest
// value.
//
// The writer looks at a whole column buffer at once, when a row group is cut: loops over packed values run at
// memory speed, where comparing each appended value with two others does not. The rules are those of
// comparing one by one: the first value that is not NULL seeds both bounds, and only a strictly smaller or
// larger one replaces them. So of equal values the first is kept (-0.0 and 0.0, 1.0 and 1.00 are equal but
// not the same), a NaN never displaces a value, and a NaN that comes first stays.

#include <emmintrin.h>
#include <string.h>

#include <cmath>
#include <type_traits>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

using namespace colvane;

// Loops over integers are worth a second version for wider registers; the loader picks one.
#if defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__) && !defined(__clang__)
#define CLONE_FOR_AVX2 __attribute__((target_clones("avx2", "default")))
#else
#define CLONE_FOR_AVX2
#endif

namespace {

// Values whose minimum and maximum are found side by side, so that the comparisons overlap.
constexpr int LANES = 8;

}  // namespace

template <typename T>
static T load(const char* p, int64_t i = 0) {
    T v;
    memcpy(&v, p + i * static_cast<int64_t>(sizeof(T)), sizeof(T));
    return v;
}

static inline bool is_null(const char* nmap, int row) {
    return static_cast<uint8_t>(nmap[row >> 3]) & (0x80 >> (row & 7));
}

// Integers have no NaN.
template <typename T>
static inline bool isnan_value(T v) {
    if constexpr (std::is_floating_point_v<T>)
        return std::isnan(v);
    else
        return false;
}

// The index of the first value that equals `v`; there is one.
template <typename T>
static inline int first_equal(const char* buf, int nrow, T v) {
    int i = 0;
    while (i < nrow && !(load<T>(buf, i) == v)) i++;
    return i;
}

// No NULL among the values. `lo` and `hi` are replaced only by strictly smaller or larger values in every
// lane.
template <typename T>
static inline __attribute__((always_inline)) void minmax_dense(int* ret_imin, int* ret_imax, const char* buf,
                                                               int nrow) {
    const T seed = load<T>(buf);
    *ret_imin = *ret_imax = 0;
    if (isnan_value(seed)) return;  // it comes first, so it stays
    T lo[LANES], hi[LANES];
    for (int k = 0; k < LANES; k++) lo[k] = hi[k] = seed;
    int i = 0;
    for (; i + LANES <= nrow; i += LANES)
        for (int k = 0; k < LANES; k++) {
            const T v = load<T>(buf, i + k);
            lo[k] = v < lo[k] ? v : lo[k];
            hi[k] = v > hi[k] ? v : hi[k];
        }
    for (; i < nrow; i++) {
        const T v = load<T>(buf, i);
        lo[0] = v < lo[0] ? v : lo[0];
        hi[0] = v > hi[0] ? v : hi[0];
    }
    for (int k = 1; k < LANES; k++) {
        lo[0] = lo[k] < lo[0] ? lo[k] : lo[0];
        hi[0] = hi[k] > hi[0] ? hi[k] : hi[0];
    }
    *ret_imin = first_equal(buf, nrow, lo[0]);
    *ret_imax = first_equal(buf, nrow, hi[0]);
}

CLONE_FOR_AVX2 static void minmax_dense_i8(int* imin, int* imax, const char* buf, int nrow) {
    minmax_dense<int8_t>(imin, imax, buf, nrow);
}
CLONE_FOR_AVX2 static void minmax_dense_i16(int* imin, int* imax, const char* buf, int nrow) {
    minmax_dense<int16_t>(imin, imax, buf, nrow);
}
CLONE_FOR_AVX2 static void minmax_dense_i32(int* imin, int* imax, const char* buf, int nrow) {
    minmax_dense<int32_t>(imin, imax, buf, nrow);
}
CLONE_FOR_AVX2 static void minmax_dense_i64(int* imin, int* imax, const char* buf, int nrow) {
    minmax_dense<int64_t>(imin, imax, buf, nrow);
}
CLONE_FOR_AVX2 static void minmax_dense_f32(int* imin, int* imax, const char* buf, int nrow) {
    minmax_dense<float>(imin, imax, buf, nrow);
}
CLONE_FOR_AVX2 static void minmax_dense_f64(int* imin, int* imax, const char* buf, int nrow) {
    minmax_dense<double>(imin, imax, buf, nrow);
}

// Any column: one value after the other, NULLs passed over.
template <typename T>
static void minmax_sparse(int* ret_imin, int* ret_imax, const char* buf, int nrow, const char* nmap) {
    T lo{}, hi{};
    for (int i = 0; i < nrow; i++) {
        if (is_null(nmap, i)) continue;
        const T v = load<T>(buf, i);
        if (*ret_imin < 0) {
            lo = hi = v;
            *ret_imin = *ret_imax = i;
        } else if (v < lo) {
            lo = v;
            *ret_imin = i;
        } else if (v > hi) {
            hi = v;
            *ret_imax = i;
        }
    }
}

static void minmax_dec64(int* ret_imin, int* ret_imax, const char* buf, int nrow, const char* nmap) {
    dec64_parts_t lo{}, hi{};
    bool plain = true;  // both bounds are finite, and `lo` and `hi` are their parts
    uint64_t previous = 0;
    for (int i = 0; i < nrow; i++) {
        if (is_null(nmap, i)) continue;
        const auto bits = load<uint64_t>(buf, i);
        if (*ret_imin >= 0 && bits == previous) continue;
        previous = bits;
        dec64_parts_t parts{};
        const bool finite = dec64_unpack(&parts, bits);
        if (*ret_imin < 0) {
            *ret_imin = *ret_imax = i;
            lo = hi = parts;
            plain = finite;
            continue;
        }
        int below = DEC_CANNOT_COMPARE, above = DEC_CANNOT_COMPARE;
        if (plain && finite) {
            below = dec64_compare_parts(&parts, &lo);
            above = dec64_compare_parts(&parts, &hi);
        }
        if (below == DEC_CANNOT_COMPARE || above == DEC_CANNOT_COMPARE) {
            const auto v = load<decDouble>(buf, i), l = load<decDouble>(buf, *ret_imin),
                       h = load<decDouble>(buf, *ret_imax);
            below = cvn_dec64_cmp(&v, &l);
            above = cvn_dec64_cmp(&v, &h);
        }
        if (below < 0) {
            *ret_imin = i;
            lo = parts;
            plain = plain && finite;
        } else if (above > 0) {
            *ret_imax = i;
            hi = parts;
            plain = plain && finite;
        }
    }
}

static void minmax_dec128(int* ret_imin, int* ret_imax, const char* buf, int nrow, const char* nmap) {
    decQuad lo{}, hi{};
    for (int i = 0; i < nrow; i++) {
        if (is_null(nmap, i)) continue;
        const auto v = load<decQuad>(buf, i);
        if (*ret_imin < 0) {
            lo = hi = v;
            *ret_imin = *ret_imax = i;
        } else if (cvn_dec128_cmp(&v, &lo) < 0) {
            lo = v;
            *ret_imin = i;
        } else if (cvn_dec128_cmp(&v, &hi) > 0) {
            hi = v;
            *ret_imax = i;
        }
    }
}

// The first eight bytes of a text as a number that orders like strcmp, bytes after the NUL cleared. `*ended`
// tells that the NUL is among them, so that equal keys mean equal texts.
static inline uint64_t text_key(const char* p, bool* ended) {
    uint64_t v = load<uint64_t>(p);
    const uint64_t zero = (v - 0x0101010101010101) & ~v & 0x8080808080808080;
    *ended = zero != 0;
    if (zero) v &= ((zero & -zero) >> 7) - 1;
    return __builtin_bswap64(v);
}

// Walks the texts sixteen bytes at a time; the buffer has CVN_COLBUF_SLACK readable bytes after its last one.
static void minmax_text(int* ret_imin, int* ret_imax, const char* buf, int nrow, int nnull,
                        const char* nmap) {
    const __m128i nul = _mm_setzero_si128();
    uint64_t lo_key = 0, hi_key = 0;
    int64_t start = 0, block = 0;
    int row = 0;
    while (row < nrow) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + block));
        auto ends = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, nul)));
        for (; ends && row < nrow; ends &= ends - 1, row++) {
            const char* text = buf + start;
            const auto offset = static_cast<int>(start);
            start = block + __builtin_ctz(ends) + 1;
            if (nnull && is_null(nmap, row)) continue;
            bool ended;
            const uint64_t key = text_key(text, &ended);
            if (*ret_imin < 0) {
                *ret_imin = *ret_imax = offset;
                lo_key = hi_key = key;
            } else if (key < lo_key || (key == lo_key && !ended && strcmp(text, buf + *ret_imin) < 0)) {
                *ret_imin = offset;
                lo_key = key;
            } else if (key > hi_key || (key == hi_key && !ended && strcmp(text, buf + *ret_imax) > 0)) {
                *ret_imax = offset;
                hi_key = key;
            }
        }
        block += 16;
    }
}

void colvane::cvn_find_minmax(int* ret_imin, int* ret_imax, int storage, const char* buf, int nrow, int nnull,
                              const char* nmap) {
    int imin = -1, imax = -1;
    const bool dense = nnull == 0;
    if (nnull < nrow) switch (storage) {
            case CVN_TYP_BOOL:
                if (dense)
                    minmax_dense_i8(&imin, &imax, buf, nrow);
                else
                    minmax_sparse<int8_t>(&imin, &imax, buf, nrow, nmap);
                break;
            case CVN_TYP_INT16:
                if (dense)
                    minmax_dense_i16(&imin, &imax, buf, nrow);
                else
                    minmax_sparse<int16_t>(&imin, &imax, buf, nrow, nmap);
                break;
            case CVN_TYP_INT32:
                if (dense)
                    minmax_dense_i32(&imin, &imax, buf, nrow);
                else
                    minmax_sparse<int32_t>(&imin, &imax, buf, nrow, nmap);
                break;
            case CVN_TYP_INT64:
                if (dense)
                    minmax_dense_i64(&imin, &imax, buf, nrow);
                else
                    minmax_sparse<int64_t>(&imin, &imax, buf, nrow, nmap);
                break;
            case CVN_TYP_INT128: minmax_sparse<cvn_int128_t>(&imin, &imax, buf, nrow, nmap); break;
            case CVN_TYP_FLOAT:
                if (dense)
                    minmax_dense_f32(&imin, &imax, buf, nrow);
                else
                    minmax_sparse<float>(&imin, &imax, buf, nrow, nmap);
                break;
            case CVN_TYP_DOUBLE:
                if (dense)
                    minmax_dense_f64(&imin, &imax, buf, nrow);
                else
                    minmax_sparse<double>(&imin, &imax, buf, nrow, nmap);
                break;
            case CVN_TYP_CSTR: minmax_text(&imin, &imax, buf, nrow, nnull, nmap); break;
            case CVN_TYP_DEC64: minmax_dec64(&imin, &imax, buf, nrow, nmap); break;
            case CVN_TYP_DEC128: minmax_dec128(&imin, &imax, buf, nrow, nmap); break;
            default: break;
        }
    *ret_imin = imin;
    *ret_imax = imax;
}

bool colvane::cvn_value_below(int storage, const char* a, const char* b, size_t textmax) {
    switch (storage) {
        case CVN_TYP_BOOL: return load<int8_t>(a) < load<int8_t>(b);
        case CVN_TYP_INT16: return load<int16_t>(a) < load<int16_t>(b);
        case CVN_TYP_INT32: return load<int32_t>(a) < load<int32_t>(b);
        case CVN_TYP_INT64: return load<int64_t>(a) < load<int64_t>(b);
        case CVN_TYP_INT128: return load<cvn_int128_t>(a) < load<cvn_int128_t>(b);
        case CVN_TYP_FLOAT: return load<float>(a) < load<float>(b);
        case CVN_TYP_DOUBLE: return load<double>(a) < load<double>(b);
        case CVN_TYP_CSTR: return strncmp(a, b, textmax) < 0;
        case CVN_TYP_DEC64: {
            const auto x = load<decDouble>(a), y = load<decDouble>(b);
            return cvn_dec64_cmp(&x, &y) < 0;
        }
        case CVN_TYP_DEC128: {
            const auto x = load<decQuad>(a), y = load<decQuad>(b);
            return cvn_dec128_cmp(&x, &y) < 0;
        }
        default: return false;
    }
}
