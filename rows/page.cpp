#include "rows/page.h"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <xxhash.h>

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace rows {

constexpr size_t BUF_ALIGN = 64;
constexpr size_t IDLE_MAX = size_t{48} << 20;  // memory kept for reuse
constexpr size_t PAGE_ALIGN = 4096;

const char PAGE_NOMEM[] = "out of memory";

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

void bufpool_clear(bufpool_t* pool) {
    const std::lock_guard lock(pool->mutex);
    for (const buf_t& b : pool->idle) buf_free(b);
    pool->idle.clear();
    pool->idlesz = 0;
}

bufpool_t::~bufpool_t() {
    for (const buf_t& b : idle) buf_free(b);
}

int64_t buf_most(int64_t nbyte) {
    constexpr int64_t ROUNDING = PAGE_ALIGN + BUF_SLACK + BUF_ALIGN;
    return nbyte + nbyte / 16 + ROUNDING;
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

cvn_page_t page_head(const colmeta_t& meta, int cno, cvn_typ_t typ) {
    return {.magic = CVN_PAGE_MAGIC,
            .cno = cno,
            .typ = typ,
            .nrow = meta.nrow,
            .nnull = meta.nnull,
            .nmapoff = meta.nmapoff,
            .nbyte = meta.nbyte,
            .zbyte = meta.zbyte,
            .hash = meta.hash,
            .unused = 0,
            .buf = {}};
}

const char* page_check(const cvn_page_t& head) {
    const int width = cvn_typlen(head.typ);
    if (width == 0) return "its type is unknown";
    if (head.nrow < 0 || head.nnull < 0 || head.nnull > head.nrow) return "its row counts are wrong";
    const int64_t nmapsz = (int64_t{head.nrow} + 7) / 8;
    if (head.nbyte < 0 || head.nmapoff < 0 || head.nmapoff + nmapsz != head.nbyte)
        return "its size does not fit its rows";
    if (width > 0 && int64_t{head.nrow} * width != head.nmapoff) return "its size does not fit its type";
    const int64_t least = width == -1 ? 4 : 1;
    if (width < 0 && head.nrow * least > head.nmapoff) return "its size does not fit its rows";
    if (head.zbyte < 0 || head.zbyte > head.nbyte) return "its stored size exceeds its size";
    if (head.zbyte < head.nbyte && head.nbyte / CVN_LZ4_MAX_RATIO > head.zbyte)
        return "its stored size is too small for its size";
    return nullptr;
}

const char* page_unpack(bufpool_t* pool, buf_t* raw, const cvn_page_t& head, const char* stored) {
    if (static_cast<int32_t>(XXH32(stored, static_cast<size_t>(head.zbyte), 0)) != head.hash)
        return "its hash does not match";
    if (head.zbyte == head.nbyte) return nullptr;
    if (!raw->p) *raw = buf_get(pool, static_cast<size_t>(head.nbyte));
    if (!raw->p) return PAGE_NOMEM;
    const int code = cvn_lz4_decode(raw->p, head.nbyte, stored, head.zbyte);
    if (code == 0) return nullptr;
    return code == -2 ? PAGE_NOMEM : "it does not decompress to its size";
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
            // After the last bit the count is 64; what that stores is overwritten, or lies in the slack.
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

// Stores the position after each NUL, at most `nrow` of them. Returns their number, or -1 when there are
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

// Walks length-prefixed values. offset[r] is after the length of value r; offset[nrow] as if one more
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

const char* page_view(bufpool_t* pool, column_t* col, const cvn_page_t& head, const char* name) {
    const int width = cvn_typlen(head.typ);
    cvn_vec_t* vec = &col->vec;
    *vec = cvn_vec_t{.name = name,
                     .typ = head.typ,
                     .width = width > 0 ? width : 0,
                     .nrow = head.nrow,
                     .nnull = head.nnull,
                     .value = col->value.p,
                     .offset = nullptr,
                     .gap = 0,
                     .nullmap = reinterpret_cast<const uint8_t*>(col->value.p) + head.nmapoff};
    if (count_nulls(vec->nullmap, head.nrow) != head.nnull)
        return "its null bitmap does not match its count of NULLs";
    if (width > 0) return nullptr;
    if (!col->offset.p) col->offset = buf_get(pool, (static_cast<size_t>(head.nrow) + 1) * sizeof(int32_t));
    if (!col->offset.p) return PAGE_NOMEM;
    auto* offset = reinterpret_cast<int32_t*>(col->offset.p);
    vec->offset = offset;
    vec->gap = width == -1 ? 4 : 1;
    const bool found = width == -1 ? find_bytes(offset, col->value.p, head.nmapoff, head.nrow)
                                   : find_texts(offset, col->value.p, head.nmapoff, head.nrow);
    return found ? nullptr : "its values do not fit its size";
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
    // Before a bytea stands its length, after a cstr its NUL; they move along.
    const int32_t before = gap == 4 ? 4 : 0;
    int32_t at = before;
    for (size_t i = 0; i < row.size(); i++) {
        const int32_t from = offset[row[i]], to = offset[row[i] + 1];
        const int32_t len = to - from - before;  // with the NUL, if any
        memmove(value + at - before, value + from - before,
                static_cast<size_t>(len) + static_cast<size_t>(before));
        offset[i] = at;
        at += len + before;
    }
    offset[row.size()] = at;
}

void column_compact(column_t* col, std::span<const int32_t> row) {
    cvn_vec_t* vec = &col->vec;
    char* value = col->value.p;
    switch (vec->width) {
        case 0: compact_varying(col, row); break;
        case 1: compact_fixed<uint8_t>(value, row); break;
        case 2: compact_fixed<uint16_t>(value, row); break;
        case 4: compact_fixed<uint32_t>(value, row); break;
        case 8: compact_fixed<uint64_t>(value, row); break;
        default: compact_fixed<unsigned __int128>(value, row); break;
    }
    // The bitmap lies after the values, in the same memory.
    auto* nullmap = const_cast<uint8_t*>(vec->nullmap);
    int64_t nnull = 0;
    for (size_t i = 0; i < row.size(); i += 8) {
        unsigned byte = 0;
        for (size_t k = i; k < std::min(i + 8, row.size()); k++)
            if (cvn_vec_isnull(*vec, row[k])) {
                byte |= 0x80u >> (k - i);
                nnull++;
            }
        nullmap[i / 8] = static_cast<uint8_t>(byte);
    }
    vec->nrow = static_cast<int64_t>(row.size());
    vec->nnull = nnull;
}

}  // namespace rows
