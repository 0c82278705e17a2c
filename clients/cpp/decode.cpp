// decode: from a stored page to a column that can be read.
//
// A page body is one LZ4 block or the bytes themselves, either way the values and the null bitmap behind
// them. The body of a fixed-width column needs nothing more than to be there. Values of varying width get a
// table of positions: for texts by one walk over the bytes that looks at 64 at a time.

#include <lz4.h>
#include <sys/mman.h>
#include <xxhash.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "clients/cpp/client_int.h"

static constexpr char PAGE_HINT[] =
    "verify the table's files; if they are intact, the connection or the server is not";
static constexpr int LZ4_MAX_RATIO = 255;  // no block expands by more
static constexpr size_t BUF_ALIGN = 64;
static constexpr size_t IDLE_MAX = size_t{48} << 20;  // memory kept for reuse
static constexpr size_t PAGE_ALIGN = 4096;

// Buffers.

// Larger ones are mappings of their own: the memory allocator would keep what is freed of them, in pieces
// that the next sizes do not fit.
static constexpr size_t MAP_MIN = size_t{1} << 20;

static buf_t buf_alloc(size_t cap) {
    buf_t fresh;
    if (cap < MAP_MIN) {
        fresh.p = static_cast<char*>(aligned_alloc(BUF_ALIGN, cap));
    } else {
        cap = (cap + PAGE_ALIGN - 1) / PAGE_ALIGN * PAGE_ALIGN;
        void* const p = mmap(nullptr, cap, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p != MAP_FAILED) fresh.p = static_cast<char*>(p);
    }
    if (fresh.p) fresh.cap = cap;
    return fresh;
}

static void buf_free(const buf_t& buf) {
    if (buf.cap < MAP_MIN)
        free(buf.p);
    else
        munmap(buf.p, buf.cap);
}

bufpool_t::~bufpool_t() {
    for (const buf_t& b : idle) buf_free(b);
}

buf_t buf_get(bufpool_t* pool, size_t nbyte) {
    const size_t want = (nbyte + BUF_SLACK + BUF_ALIGN - 1) / BUF_ALIGN * BUF_ALIGN;
    {
        const std::lock_guard lock(pool->mutex);
        size_t best = pool->idle.size();
        for (size_t i = 0; i < pool->idle.size(); i++) {
            const size_t cap = pool->idle[i].cap;
            // Not one of a much larger size, which then would be missing where it is needed.
            if (cap >= want && cap / 2 <= want && (best == pool->idle.size() || cap < pool->idle[best].cap))
                best = i;
        }
        if (best < pool->idle.size()) {
            const buf_t found = pool->idle[best];
            pool->idle[best] = pool->idle.back();
            pool->idle.pop_back();
            pool->idlesz -= found.cap;
            return found;
        }
    }
    // A little more than asked for, since the next row group's pages are about this large, not exactly.
    return buf_alloc(want + want / 16 / BUF_ALIGN * BUF_ALIGN);
}

void buf_put(bufpool_t* pool, buf_t buf) {
    if (!buf.p) return;
    try {
        const std::lock_guard lock(pool->mutex);
        // What has lain longest makes room: the sizes now in use are more likely to come again.
        while (!pool->idle.empty() && pool->idlesz + buf.cap > IDLE_MAX) {
            pool->idlesz -= pool->idle.front().cap;
            buf_free(pool->idle.front());
            pool->idle.erase(pool->idle.begin());
        }
        if (buf.cap <= IDLE_MAX) {
            pool->idle.push_back(buf);
            pool->idlesz += buf.cap;
            return;
        }
    } catch (...) {
        // No room to remember it: released like any other memory.
    }
    buf_free(buf);
}

void column_free(bufpool_t* pool, column_t* col) {
    buf_put(pool, col->value);
    buf_put(pool, col->offset);
    *col = column_t{};
}

// Pages.

static int damaged(kelp_error_t* err, const char* name, const char* why) {
    return kelp_fail(err, KELP_EDAMAGED, PAGE_HINT, "a page of column %s is damaged: %s", name, why);
}

int page_check(const page_head_t& head, cvn_typ_t typ, const char* name, kelp_error_t* err) {
    if (head.typ != typ)
        return kelp_fail(err, KELP_EPROTO, "the files of the table have different columns: query them apart",
                         "column %s is of type %s in one file and %s in another", name, cvn_typ_str(typ),
                         cvn_typ_str(head.typ));
    if (head.nrow < 0 || head.nnull < 0 || head.nnull > head.nrow)
        return damaged(err, name, "its row counts are wrong");
    const int64_t nmapsz = (int64_t{head.nrow} + 7) / 8;
    if (head.nbyte < 0 || head.nmapoff < 0 || head.nmapoff + nmapsz != head.nbyte)
        return damaged(err, name, "its size does not fit its rows");
    const int width = cvn_typlen(typ);
    if (width > 0 && int64_t{head.nrow} * width != head.nmapoff)
        return damaged(err, name, "its size does not fit its type");
    const int64_t least = width == -1 ? 4 : 1;
    if (width < 0 && head.nrow * least > head.nmapoff)
        return damaged(err, name, "its size does not fit its rows");
    if (width == 0) return kelp_fail(err, KELP_EPROTO, PAGE_HINT, "column %s is of an unknown type", name);
    if (head.zbyte < 0 || head.zbyte > head.nbyte)
        return damaged(err, name, "its stored size exceeds its size");
    if (head.zbyte < head.nbyte && head.nbyte / LZ4_MAX_RATIO > head.zbyte)
        return damaged(err, name, "its stored size is too small for its size");
    return 0;
}

int page_unpack(bufpool_t* pool, buf_t* raw, const page_head_t& head, const char* stored, const char* name,
                kelp_error_t* err) {
    if (static_cast<int32_t>(XXH32(stored, static_cast<size_t>(head.zbyte), 0)) != head.hash)
        return damaged(err, name, "its hash does not match");
    if (head.zbyte == head.nbyte) return 0;
    if (!raw->p) *raw = buf_get(pool, static_cast<size_t>(head.nbyte));
    if (!raw->p) return kelp_nomem(err);
    if (LZ4_decompress_safe(stored, raw->p, head.zbyte, head.nbyte) != head.nbyte)
        return damaged(err, name, "it does not decompress to its size");
    return 0;
}

// Texts.

#if defined(__x86_64__)

__attribute__((target("avx2,bmi,bmi2,popcnt"))) static int64_t find_nuls_avx2(int32_t* out, const char* value,
                                                                              int32_t valuesz, int32_t nrow) {
    const __m256i zero = _mm256_setzero_si256();
    int32_t* at = out;
    for (int64_t i = 0; i < valuesz; i += 64) {  // the last step may go beyond 32 bits
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(value + i));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(value + i + 32));
        const auto lo = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(a, zero)));
        const auto hi = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(b, zero)));
        uint64_t mask = static_cast<uint64_t>(hi) << 32 | lo;
        if (valuesz - i < 64) mask &= (uint64_t{1} << (valuesz - i)) - 1;
        const int n = __builtin_popcountll(mask);
        if (n > nrow - (at - out)) return -1;
        int32_t* to = at;
        for (int k = 0; k < n; k += 4) {
            // Behind the last bit the count is 64; what that stores is overwritten, or lies in the slack.
            to[0] = static_cast<int32_t>(i + static_cast<int64_t>(_tzcnt_u64(mask)) + 1);
            mask = _blsr_u64(mask);
            to[1] = static_cast<int32_t>(i + static_cast<int64_t>(_tzcnt_u64(mask)) + 1);
            mask = _blsr_u64(mask);
            to[2] = static_cast<int32_t>(i + static_cast<int64_t>(_tzcnt_u64(mask)) + 1);
            mask = _blsr_u64(mask);
            to[3] = static_cast<int32_t>(i + static_cast<int64_t>(_tzcnt_u64(mask)) + 1);
            mask = _blsr_u64(mask);
            to += 4;
        }
        at += n;
    }
    return at - out;
}

#endif

// Stores the position behind each NUL, at most `nrow` of them. Returns their number, or -1 when there are
// more.
static int64_t find_nuls(int32_t* out, const char* value, int32_t valuesz, int32_t nrow) {
    int64_t n = 0;
    const char* p = value;
    const char* end = value + valuesz;
    while (p < end) {
        const auto* nul = static_cast<const char*>(memchr(p, 0, static_cast<size_t>(end - p)));
        if (!nul) break;
        if (n == nrow) return -1;
        out[n++] = static_cast<int32_t>(nul - value) + 1;
        p = nul + 1;
    }
    return n;
}

bool find_texts(int32_t* offset, const char* value, int32_t valuesz, int32_t nrow) {
    offset[0] = 0;
    int64_t n;
#if defined(__x86_64__)
    static const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi");
    if (avx2)
        n = find_nuls_avx2(offset + 1, value, valuesz, nrow);
    else
#endif
        n = find_nuls(offset + 1, value, valuesz, nrow);
    return n == nrow && offset[nrow] == valuesz;
}

// Walks length-prefixed values. offset[r] is behind the length of value r; offset[nrow] as if one more
// followed.
static bool find_bytes(int32_t* offset, const char* value, int32_t valuesz, int32_t nrow) {
    constexpr int64_t LENSZ = sizeof(int32_t);
    int64_t at = 0;
    for (int32_t r = 0; r < nrow; r++) {
        int32_t len;
        if (valuesz - at < LENSZ) return false;
        memcpy(&len, value + at, sizeof(len));
        at += LENSZ;
        if (len < 0 || len > valuesz - at) return false;
        offset[r] = static_cast<int32_t>(at);
        at += len;
    }
    if (at != valuesz || at > INT32_MAX - LENSZ) return false;
    offset[nrow] = static_cast<int32_t>(at + LENSZ);
    return true;
}

// The bits that are set in `nword` words of eight bytes.
static inline __attribute__((always_inline)) int64_t count_bits_any(const uint8_t* p, int64_t nword) {
    int64_t n = 0;
    for (int64_t i = 0; i < nword; i++) {
        uint64_t word;
        memcpy(&word, p + 8 * i, sizeof(word));
        n += __builtin_popcountll(word);
    }
    return n;
}

#if defined(__x86_64__)
__attribute__((target("popcnt"))) static int64_t count_bits_popcnt(const uint8_t* p, int64_t nword) {
    return count_bits_any(p, nword);
}
#endif

static int64_t count_bits(const uint8_t* p, int64_t nword) {
#if defined(__x86_64__)
    static const bool popcnt = __builtin_cpu_supports("popcnt");
    if (popcnt) return count_bits_popcnt(p, nword);
#endif
    return count_bits_any(p, nword);
}

// The rows whose bit is set.
static int64_t count_nulls(const uint8_t* nullmap, int64_t nrow) {
    const int64_t whole = nrow / 8;
    int64_t n = count_bits(nullmap, whole / 8);
    for (int64_t i = whole / 8 * 8; i < whole; i++) n += __builtin_popcount(nullmap[i]);
    if (nrow % 8) n += __builtin_popcount(nullmap[whole] >> (8 - nrow % 8));
    return n;
}

int page_view(bufpool_t* pool, column_t* col, const page_head_t& head, const char* name, kelp_error_t* err) {
    const int width = cvn_typlen(head.typ);
    kelp_vec_t* vec = &col->vec;
    *vec = kelp_vec_t{.name = name,
                      .typ = head.typ,
                      .width = width > 0 ? width : 0,
                      .nrow = head.nrow,
                      .nnull = head.nnull,
                      .value = col->value.p,
                      .offset = nullptr,
                      .gap = 0,
                      .nullmap = reinterpret_cast<const uint8_t*>(col->value.p) + head.nmapoff};
    if (count_nulls(vec->nullmap, head.nrow) != head.nnull)
        return damaged(err, name, "its null bitmap does not match its count of NULLs");
    if (width > 0) return 0;
    if (!col->offset.p) col->offset = buf_get(pool, (static_cast<size_t>(head.nrow) + 1) * sizeof(int32_t));
    if (!col->offset.p) return kelp_nomem(err);
    auto* offset = reinterpret_cast<int32_t*>(col->offset.p);
    vec->offset = offset;
    vec->gap = width == -1 ? 4 : 1;
    const bool found = width == -1 ? find_bytes(offset, col->value.p, head.nmapoff, head.nrow)
                                   : find_texts(offset, col->value.p, head.nmapoff, head.nrow);
    return found ? 0 : damaged(err, name, "its values do not fit its size");
}
