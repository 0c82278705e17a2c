// The loops are plain and the compiler turns them into vector code for the instruction set this file is
// compiled for (KERNELS_NAME and KERNELS_TABLE come from the build); only finding NULs, and adding decimals
// up with AVX-512, is written with intrinsics. Functions of other headers stay out: their out-of-line copies
// would carry this file's instruction set into the rest of the program.
#include "bench/kernels.h"

#include <string.h>

#include "bench/dpd.h"
#if defined(__SSE2__)
#include <immintrin.h>
#endif

extern const kernels_t KERNELS_TABLE;

template <class T>
static T load(const char* p, int i) {
    T v;
    memcpy(&v, p + static_cast<size_t>(i) * sizeof(T), sizeof(T));
    return v;
}

static int64_t sum_u8(const char* p, int n) {
    int64_t sum = 0;
    for (int i = 0; i < n; i++) sum += load<uint8_t>(p, i);
    return sum;
}

static int64_t sum_i16(const char* p, int n) {
    int64_t sum = 0;
    while (n > 0) {  // what a 32-bit sum can hold
        const int k = n < 32768 ? n : 32768;
        int32_t part = 0;
        for (int i = 0; i < k; i++) part += load<int16_t>(p, i);
        sum += part;
        p += static_cast<size_t>(k) * 2;
        n -= k;
    }
    return sum;
}

static int64_t sum_i32(const char* p, int n) {
    int64_t sum = 0;
    for (int i = 0; i < n; i++) sum += load<int32_t>(p, i);
    return sum;
}

static __int128 sum_i64(const char* p, int n) {
    constexpr uint64_t SIGN = uint64_t{1} << 63;  // flipped, the values are unsigned and 2^63 too large
    uint64_t low = 0, high = 0;
    for (int i = 0; i < n; i++) {
        const uint64_t v = load<uint64_t>(p, i) ^ SIGN;
        low += v & 0xffffffff;
        high += v >> 32;
    }
    return (static_cast<__int128>(high) << 32) + low - (static_cast<__int128>(n) << 63);
}

// So many partial sums that additions overlap whatever the vector width.
template <class T>
static double sum_float(const char* p, int n) {
    constexpr int LANES = 32;
    double part[LANES] = {};
    int i = 0;
    for (; i + LANES <= n; i += LANES)
        for (int j = 0; j < LANES; j++)
            part[j] += static_cast<double>(load<T>(p + static_cast<size_t>(i) * sizeof(T), j));
    for (int j = 0; i < n; i++, j++) part[j] += static_cast<double>(load<T>(p, i));
    for (int step = LANES / 2; step > 0; step /= 2)
        for (int j = 0; j < step; j++) part[j] += part[j + step];
    return part[0];
}

static double sum_f32(const char* p, int n) { return sum_float<float>(p, n); }
static double sum_f64(const char* p, int n) { return sum_float<double>(p, n); }

template <class T>
static T max_int(const char* p, int n) {
    T max = load<T>(p, 0);
    for (int i = 1; i < n; i++) {
        const T v = load<T>(p, i);
        max = v > max ? v : max;
    }
    return max;
}

static int32_t max_i32(const char* p, int n) { return max_int<int32_t>(p, n); }
static int64_t max_i64(const char* p, int n) { return max_int<int64_t>(p, n); }

constexpr uint64_t DECLETS = UINT64_C(0x0004010040100401);  // the lowest bit of each of the five declets

// Adds up the 50 coefficient bits of `n` decDoubles; the digits of at most 112 values fit a ten-bit field.
static unsigned __int128 dec64_sum_wide(const char* p, int n) {
    unsigned __int128 sum = 0;
    while (n > 0) {
        const int k = n < 112 ? n : 112;
        uint64_t ones = 0, tens = 0, hunds = 0;
        for (int i = 0; i < k; i++) {
            const auto d = dpd_digits<uint64_t>(load<uint64_t>(p, i), DECLETS);
            ones += d.ones;
            tens += d.tens;
            hunds += d.hunds;
        }
        uint64_t scale = 1;
        for (int field = 0; field < 50; field += 10) {
            const uint64_t value =
                (ones >> field & 1023) + (tens >> field & 1023) * 10 + (hunds >> field & 1023) * 100;
            sum += static_cast<unsigned __int128>(value) * scale;
            scale *= 1000;
        }
        p += static_cast<size_t>(k) * 8;
        n -= k;
    }
    return sum;
}

namespace {

// The value of 16 coefficient bits: the last declet and six bits of the one before it. A table is faster than
// vector code here, since a column's values mostly come from few of its lines.
struct low16_t {
    uint32_t value[65536];
};
constexpr low16_t LOW16 = [] {
    low16_t tab{};
    for (unsigned i = 0; i < 65536; i++) tab.value[i] = DPD_VALUE[i & 1023] + 1000u * DPD_VALUE[i >> 10];
    return tab;
}();

}  // namespace

#if defined(__GNUC__) && !defined(__clang__)
// Gathering single loads into vectors would only cost time.
static uint32_t dec64_sum_low16(const char* p, int n) __attribute__((optimize("no-tree-vectorize")));
#endif
static uint32_t dec64_sum_low16(const char* p, int n) {
    uint32_t a = 0, b = 0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        a += LOW16.value[load<uint16_t>(p, i * 4)];
        b += LOW16.value[load<uint16_t>(p, i * 4 + 4)];
        a += LOW16.value[load<uint16_t>(p, i * 4 + 8)];
        b += LOW16.value[load<uint16_t>(p, i * 4 + 12)];
    }
    for (; i < n; i++) a += LOW16.value[load<uint16_t>(p, i * 4)];
    return a + b;
}

#if defined(__AVX512BW__)

namespace {

// The same for 32 values at a time, without memory look-ups. A declet pqrstuvwxy is worth
//   own[stuvwxy] + 100 r + factor[stuvwxy] * pq0
// since the low seven bits decide which digit p and q belong to; tables of 64 words fit two registers.
struct declet_tab_t {
    uint16_t own[128];
    uint16_t factor[128];
};
constexpr declet_tab_t DECLET = [] {
    declet_tab_t tab{};
    for (unsigned i = 0; i < 128; i++) {
        tab.own[i] = DPD_VALUE[i];
        tab.factor[i] = static_cast<uint16_t>((DPD_VALUE[i | 0x200] - DPD_VALUE[i]) / 4);
    }
    return tab;
}();
static_assert([] {
    for (unsigned i = 0; i < 1024; i++)
        if (DPD_VALUE[i] != DECLET.own[i & 127] + 100 * (i >> 7 & 1) + DECLET.factor[i & 127] * (i >> 7 & 6))
            return false;
    return true;
}());

constexpr uint16_t FOURTH[32] = {0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60,
                                 0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60};

}  // namespace

// Adds up the low 16 coefficient bits of `n` values, a multiple of 32, at most DEC64_BLOCK, and collects the
// bits in which values differ from `first`.
static uint32_t dec64_sum_low16x32(uint64_t* ret_diff, const char* p, int n, uint64_t first) {
    const auto table = [](const uint16_t* words) { return _mm512_loadu_si512(words); };
    const __m512i own0 = table(DECLET.own), own1 = table(DECLET.own + 32), own2 = table(DECLET.own + 64),
                  own3 = table(DECLET.own + 96);
    const __m512i fac0 = table(DECLET.factor), fac1 = table(DECLET.factor + 32),
                  fac2 = table(DECLET.factor + 64), fac3 = table(DECLET.factor + 96);
    const __m512i fourth = table(FOURTH);
    const __m512i all_first = _mm512_set1_epi64(static_cast<int64_t>(first));
    const __m512i bit_s = _mm512_set1_epi16(0x40), bit_r = _mm512_set1_epi16(0x80),
                  six = _mm512_set1_epi16(6), hundred = _mm512_set1_epi16(100);
    __m512i diff = _mm512_setzero_si512(), sum_low = diff, sum_high = diff;
    for (int i = 0; i < n; i += 32, p += 256) {
        const __m512i v0 = _mm512_loadu_si512(p), v1 = _mm512_loadu_si512(p + 64),
                      v2 = _mm512_loadu_si512(p + 128), v3 = _mm512_loadu_si512(p + 192);
        diff = _mm512_or_si512(diff, _mm512_xor_si512(v0, all_first));
        diff = _mm512_or_si512(diff, _mm512_xor_si512(v1, all_first));
        diff = _mm512_or_si512(diff, _mm512_xor_si512(v2, all_first));
        diff = _mm512_or_si512(diff, _mm512_xor_si512(v3, all_first));
        // The last word of every value: 16 of each pair of registers, in both halves, then one half of each.
        const __m512i x = _mm512_mask_blend_epi16(0xffff0000, _mm512_permutex2var_epi16(v0, fourth, v1),
                                                  _mm512_permutex2var_epi16(v2, fourth, v3));
        const __mmask32 s = _mm512_test_epi16_mask(x, bit_s);
        const __m512i own = _mm512_mask_blend_epi16(s, _mm512_permutex2var_epi16(own0, x, own1),
                                                    _mm512_permutex2var_epi16(own2, x, own3));
        const __m512i factor = _mm512_mask_blend_epi16(s, _mm512_permutex2var_epi16(fac0, x, fac1),
                                                       _mm512_permutex2var_epi16(fac2, x, fac3));
        const __m512i pq0 = _mm512_and_si512(_mm512_srli_epi16(x, 7), six);
        sum_low = _mm512_add_epi16(sum_low, _mm512_add_epi16(own, _mm512_mullo_epi16(factor, pq0)));
        sum_low = _mm512_mask_add_epi16(sum_low, _mm512_test_epi16_mask(x, bit_r), sum_low, hundred);
        const __m512i second = _mm512_srli_epi16(x, 10);
        sum_high = _mm512_add_epi16(sum_high, _mm512_permutex2var_epi16(own0, second, own1));
    }
    static_assert(DEC64_BLOCK / 32 * 999 < 65536);  // a lane's sum
    uint16_t lane[64];
    _mm512_storeu_si512(lane, sum_low);
    _mm512_storeu_si512(lane + 32, sum_high);
    uint32_t ret = 0;
    for (int i = 0; i < 32; i++) ret += lane[i] + 1000u * lane[32 + i];
    uint64_t word[8];
    _mm512_storeu_si512(word, diff);
    uint64_t any = 0;
    for (const uint64_t w : word) any |= w;
    *ret_diff |= any;
    return ret;
}
#endif

static bool dec64_block(unsigned* ret_high, unsigned __int128* ret_sum, const char* p, int n) {
    const uint64_t first = load<uint64_t>(p, 0);
    uint64_t diff = 0;
    uint32_t sum = 0;
    int i = 0;
#if defined(__AVX512BW__)
    i = n & ~31;
    sum = dec64_sum_low16x32(&diff, p, i, first);
#endif
    const char* const rest = p + static_cast<size_t>(i) * 8;
    const int nrest = n - i;
    for (int j = 0; j < nrest; j++) diff |= load<uint64_t>(rest, j) ^ first;
    if (diff >> 50 != 0) return false;
    *ret_high = static_cast<unsigned>(first >> 50);
    constexpr uint64_t COEFFICIENT = (UINT64_C(1) << 50) - 1;
    if (((diff | first) & COEFFICIENT) >> 16 != 0) {
        *ret_sum = dec64_sum_wide(p, n);
        return true;
    }
    static_assert(DEC64_BLOCK < (1 << 12));  // as many values below 10^6 fit 32 bits
    *ret_sum = sum + dec64_sum_low16(rest, nrest);
    return true;
}

// One bit per byte of the 64 at `p`: set where it is 0.
static uint64_t nul_mask(const char* p) {
#if defined(__AVX512BW__)
    const __m512i v = _mm512_loadu_si512(p);
    return _mm512_testn_epi8_mask(v, v);
#elif defined(__AVX2__)
    const __m256i zero = _mm256_setzero_si256();
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32));
    return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(a, zero))) |
           static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(b, zero))))
               << 32;
#elif defined(__SSE2__)
    uint64_t mask = 0;
    for (int i = 0; i < 4; i++) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p) + i);
        mask |= static_cast<uint64_t>(
                    static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128()))))
                << (16 * i);
    }
    return mask;
#else
    uint64_t mask = 0;
    for (int i = 0; i < 64; i++) mask |= static_cast<uint64_t>(p[i] == 0) << i;
    return mask;
#endif
}

// Stores `at` plus the place of each of `k` set bits of `mask` and clears them; of more bits than there are,
// any place.
template <int k>
static uint64_t put_some(uint32_t* out, uint64_t mask, uint32_t at) {
    for (int j = 0; j < k; j++) {
        out[j] = at + static_cast<uint32_t>(__builtin_ctzll(mask | uint64_t{1} << 63));
        mask &= mask - 1;
    }
    return mask;
}

// Stores `at` plus the place of each set bit of `mask` and returns how many. Up to OVERRUN entries after the
// last are overwritten too: that is cheaper than a branch guessed wrongly for every other text.
constexpr int OVERRUN = 8;
static int put_bits(uint32_t* out, uint64_t mask, uint32_t at) {
    const int n = __builtin_popcountll(mask);
    mask = put_some<4>(out, mask, at);
    if (n > 4) {
        mask = put_some<4>(out + 4, mask, at);
        if (n > 8) {
            mask = put_some<8>(out + 8, mask, at);
            for (int i = 16; i < n; i += 8) mask = put_some<8>(out + i, mask, at);
        }
    }
    return n;
}

// The bits of the last `sz` bytes, below 64; nothing after them is read.
static uint64_t nul_mask_tail(const char* p, size_t sz) {
    char tail[64];
    memset(tail, 1, sizeof(tail));
    memcpy(tail, p, sz);
    return nul_mask(tail);
}

static int64_t sum_texts(int64_t* ret_ntext, const char* p, size_t sz) {
    constexpr int ROOM = 1024;
    uint32_t buf[1 + ROOM + 64 + OVERRUN];  // the end before the first one, then the ends
    uint32_t* const end = buf + 1;
    end[-1] = static_cast<uint32_t>(-1);
    int64_t sum = 0, ntext = 0;
    for (size_t at = 0; at < sz;) {
        int n = 0;
        for (; n <= ROOM && at + 64 <= sz; at += 64)
            n += put_bits(end + n, nul_mask(p + at), static_cast<uint32_t>(at));
        if (n <= ROOM && at < sz) {
            n += put_bits(end + n, nul_mask_tail(p + at, sz - at), static_cast<uint32_t>(at));
            at = sz;
        }
        uint32_t part = 0;
        for (int i = 0; i < n; i++) part += end[i] - end[i - 1] - 1;
        sum += part;
        ntext += n;
        if (n > 0) end[-1] = end[n - 1];
    }
    *ret_ntext = ntext;
    return sum;
}

static int find_texts(uint32_t* ret_end, int max, const char* p, size_t sz) {
    int n = 0;
    for (size_t at = 0; at < sz && n < max; at += 64) {
        uint32_t end[64 + OVERRUN];
        const int k = put_bits(end, at + 64 <= sz ? nul_mask(p + at) : nul_mask_tail(p + at, sz - at),
                               static_cast<uint32_t>(at));
        const int take = k < max - n ? k : max - n;
        memcpy(ret_end + n, end, static_cast<size_t>(take) * sizeof(*end));
        n += take;
    }
    return n;
}

static int select_i32(int32_t* ret_index, const char* p, int n, int32_t lo, int32_t hi) {
    if (lo > hi) return 0;
    const uint32_t width = static_cast<uint32_t>(hi) - static_cast<uint32_t>(lo);
    constexpr int STEP = 256;
    int k = 0;
    for (int i = 0; i < n; i += STEP) {
        const int m = n - i < STEP ? n - i : STEP;
        uint32_t hits = 0;
        for (int j = 0; j < m; j++) hits += load<uint32_t>(p, i + j) - static_cast<uint32_t>(lo) <= width;
        if (hits == 0) continue;
        for (int j = 0; j < m; j++) {
            ret_index[k] = i + j;
            k += load<uint32_t>(p, i + j) - static_cast<uint32_t>(lo) <= width;
        }
    }
    return k;
}

const kernels_t KERNELS_TABLE = {
    .name = KERNELS_NAME,
    .sum_u8 = sum_u8,
    .sum_i16 = sum_i16,
    .sum_i32 = sum_i32,
    .sum_i64 = sum_i64,
    .sum_f32 = sum_f32,
    .sum_f64 = sum_f64,
    .max_i32 = max_i32,
    .max_i64 = max_i64,
    .dec64_block = dec64_block,
    .sum_texts = sum_texts,
    .find_texts = find_texts,
    .select_i32 = select_i32,
};
