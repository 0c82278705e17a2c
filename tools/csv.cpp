// Reading CSV: blocks, positions, rows. The rows are cut from positions that a vectorised pass found, so that
// the cost of a field is a few instructions and not one branch per byte.
#include "tools/csv.h"

#include <errno.h>
#include <fmt/format.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "tools/tool.h"

namespace {

using index_fn_t = size_t (*)(const char*, size_t, size_t, char, uint32_t*, bool*);

}  // namespace

#if defined(__SSE2__)

// Appends the positions of the set bits of `mask`. Eight at a time are written whether they are there or not,
// which costs less than a branch for each; `out` has the room for it.
static __attribute__((always_inline)) inline uint32_t* write_bits(uint32_t* out, uint64_t mask,
                                                                  uint32_t base) {
    const int n = __builtin_popcountll(mask);
    uint32_t* w = out;
    while (mask != 0) {
        for (int i = 0; i < 8; i++) {
            w[i] = base + static_cast<uint32_t>(__builtin_ctzll(mask | (uint64_t{1} << 63)));
            mask &= mask - 1;
        }
        w += 8;
    }
    return out + n;
}

static size_t index_sse2(const char* buf, size_t from, size_t to, char delim, uint32_t* out, bool* has_nul) {
    uint32_t* w = out;
    const __m128i d = _mm_set1_epi8(delim), q = _mm_set1_epi8('"'), n = _mm_set1_epi8('\n');
    for (size_t at = from; at < to; at += 64) {
        uint64_t mask = 0, zero = 0;
        for (size_t i = 0; i < 4; i++) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + at + 16 * i));
            const __m128i hit =
                _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, d), _mm_cmpeq_epi8(v, q)), _mm_cmpeq_epi8(v, n));
            mask |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(hit))) << (16 * i);
            zero |= static_cast<uint64_t>(
                        static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128()))))
                    << (16 * i);
        }
        if (to - at < 64) {
            mask &= (uint64_t{1} << (to - at)) - 1;
            zero &= (uint64_t{1} << (to - at)) - 1;
        }
        if (zero != 0) *has_nul = true;
        w = write_bits(w, mask, static_cast<uint32_t>(at));
    }
    return static_cast<size_t>(w - out);
}

static __attribute__((target("avx2,bmi,popcnt"))) size_t index_avx2(const char* buf, size_t from, size_t to,
                                                                    char delim, uint32_t* out,
                                                                    bool* has_nul) {
    uint32_t* w = out;
    const __m256i d = _mm256_set1_epi8(delim), q = _mm256_set1_epi8('"'), n = _mm256_set1_epi8('\n');
    for (size_t at = from; at < to; at += 64) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(buf + at));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(buf + at + 32));
        const __m256i ha = _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(a, d), _mm256_cmpeq_epi8(a, q)),
                                           _mm256_cmpeq_epi8(a, n));
        const __m256i hb = _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(b, d), _mm256_cmpeq_epi8(b, q)),
                                           _mm256_cmpeq_epi8(b, n));
        const __m256i zero = _mm256_cmpeq_epi8(_mm256_min_epu8(a, b), _mm256_setzero_si256());
        uint64_t mask = static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(ha))) |
                        static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(hb))) << 32;
        // After `to` lies padding that may be zero: that makes has_nul a false alarm at worst, which costs
        // time only.
        if (_mm256_movemask_epi8(zero) != 0) *has_nul = true;
        if (to - at < 64) mask &= (uint64_t{1} << (to - at)) - 1;
        const int count = __builtin_popcountll(mask);
        uint32_t* x = w;
        while (mask != 0) {
            for (int i = 0; i < 8; i++) {
                x[i] = static_cast<uint32_t>(at) + static_cast<uint32_t>(_tzcnt_u64(mask));
                mask = _blsr_u64(mask);
            }
            x += 8;
        }
        w += count;
    }
    return static_cast<size_t>(w - out);
}

static index_fn_t choose_index() {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") && __builtin_cpu_supports("popcnt"))
        return index_avx2;
    return index_sse2;
}

#else

static index_fn_t choose_index() { return csv_index_plain; }

#endif

[[noreturn]] static void fail(const csv_t* csv, int64_t line, const std::string& what) {
    throw tool_error(fmt::format("{}:{}: {}", csv->name, line, what));
}

// Grows the buffer to `size` bytes, keeping [cur, top).
static void grow(csv_t* csv, size_t size) {
    csv->mark.reset();  // found anew for the larger buffer
    std::unique_ptr<char[]> buf(new char[size + 1 + 2 * CSV_PADSZ]());
    std::unique_ptr<uint32_t[]> mark(new uint32_t[size + 1 + 2 * CSV_PADSZ]);
    if (csv->top > csv->cur) memcpy(buf.get(), csv->buf.get() + csv->cur, csv->top - csv->cur);
    csv->top -= csv->cur;
    csv->cur = 0;
    csv->buf = std::move(buf);
    csv->mark = std::move(mark);
    csv->bufsz = size;
}

// Reads until the buffer is full or the input ends, and finds the positions of what is there.
static void refill(csv_t* csv) {
    tool_check_signals();
    if (csv->cur > 0) {
        memmove(csv->buf.get(), csv->buf.get() + csv->cur, csv->top - csv->cur);
        csv->top -= csv->cur;
        csv->cur = 0;
    } else if (csv->top == csv->bufsz) {
        if (csv->bufsz >= CSV_MAX_ROWSZ)
            fail(csv, csv->next_line,
                 "the row is longer than 256 MiB; is a quote not closed, or does a line end in CR alone?");
        grow(csv, std::min(csv->bufsz * 2, CSV_MAX_ROWSZ));
    }
    while (csv->top < csv->bufsz) {
        const ssize_t n = read(csv->fd, csv->buf.get() + csv->top, csv->bufsz - csv->top);
        if (n < 0) {
            const int err = errno;
            tool_check_signals();
            if (err == EINTR) continue;
            throw tool_error(fmt::format("{}: {}", csv->name, tool_strerror(err)));
        }
        if (n == 0) {
            csv->eof = true;
            break;
        }
        csv->top += static_cast<size_t>(n);
        csv->nbyte += n;
    }
    if (!csv->started) {
        csv->started = true;
        if (csv->top >= 3 && memcmp(csv->buf.get(), "\xEF\xBB\xBF", 3) == 0) csv->cur = 3;
    }
    // The last line need not be ended: it is given its line feed here, for which the buffer has a byte to
    // spare.
    if (csv->eof && csv->top > csv->cur && csv->buf[csv->top - 1] != '\n') csv->buf[csv->top++] = '\n';
    csv->has_nul = false;
    csv->nmark = csv_index(csv->buf.get(), csv->cur, csv->top, csv->delim, csv->mark.get(), &csv->has_nul);
    csv->imark = 0;
}

// Undoes the doubling of quotes in place.
static uint32_t unescape(char* ptr, uint32_t len) {
    uint32_t to = 0;
    for (uint32_t from = 0; from < len; from++) {
        if (ptr[from] == '"') from++;
        ptr[to++] = ptr[from];
    }
    return to;
}

// Cuts one row from the positions. Returns false, changing nothing but `field`, when the buffer ends before
// the row.
static bool cut_row(csv_t* csv) {
    char* const buf = csv->buf.get();
    const uint32_t* m = csv->mark.get() + csv->imark;
    const uint32_t* const end = csv->mark.get() + csv->nmark;
    const char delim = csv->delim;
    char* s = buf + csv->cur;
    csv_field_t* field = csv->field.data();
    size_t nfield = 0, room = csv->field.size();
    int64_t nline = 1;
    bool escaped = false;
    for (;;) {
        if (m == end) return false;
        if (nfield == room) {
            if (room >= CSV_MAX_NFIELD)
                fail(csv, csv->next_line,
                     fmt::format("the row has more than {} fields; is another --delimiter needed?",
                                 tool_count(static_cast<int64_t>(CSV_MAX_NFIELD))));
            csv->field.resize(std::min(room * 2, CSV_MAX_NFIELD));
            field = csv->field.data();
            room = csv->field.size();
        }
        char* const p = buf + *m;
        m++;
        if (*p == delim) [[likely]] {
            field[nfield++] = {s, static_cast<uint32_t>(p - s), false, false};
            s = p + 1;
            continue;
        }
        if (*p == '\n') {
            char* e = p;
            if (e > s && e[-1] == '\r') e--;
            field[nfield++] = {s, static_cast<uint32_t>(e - s), false, false};
            s = p + 1;
            break;
        }
        if (p != s) continue;  // a quote inside a bare field
        bool doubled = false;
        char* q;
        for (;; m++) {
            if (m == end) {
                if (csv->eof)
                    fail(csv, csv->next_line,
                         fmt::format("field {} begins with a quote that is never closed", nfield + 1));
                return false;
            }
            q = buf + *m;
            if (*q == '\n') nline++;
            if (*q != '"') continue;
            if (q + 1 >= buf + csv->top) return false;
            if (q[1] != '"') break;
            doubled = true;
            m++;  // the second quote of the pair has a position of its own
        }
        m++;
        char* after = q + 1;
        if (*after == '\r') {
            if (after + 1 >= buf + csv->top) return false;
            if (after[1] == '\n') after++;
        }
        if (*after != delim && *after != '\n')
            fail(csv, csv->next_line + nline - 1,
                 fmt::format("field {} goes on after its closing quote; write a quote inside quotes as two",
                             nfield + 1));
        field[nfield++] = {s + 1, static_cast<uint32_t>(q - s - 1), true, doubled};
        escaped |= doubled;
        s = after + 1;
        m++;  // the position of the delimiter or line feed
        if (*after == '\n') break;
    }
    // Only a complete row may be changed: an incomplete one is cut again.
    for (size_t i = 0; i < nfield; i++) {
        if (escaped && field[i].escaped) [[unlikely]]
            field[i].len = unescape(field[i].ptr, field[i].len);
        field[i].ptr[field[i].len] = 0;
    }
    csv->nfield = nfield;
    csv->line = csv->next_line;
    csv->next_line += nline;
    csv->imark = static_cast<size_t>(m - csv->mark.get());
    csv->cur = static_cast<size_t>(s - buf);
    return true;
}

size_t csv_index_plain(const char* buf, size_t from, size_t to, char delim, uint32_t* out, bool* has_nul) {
    uint32_t* w = out;
    for (size_t at = from; at < to; at++) {
        if (buf[at] == delim || buf[at] == '\n' || buf[at] == '"') *w++ = static_cast<uint32_t>(at);
        if (buf[at] == 0) *has_nul = true;
    }
    return static_cast<size_t>(w - out);
}

size_t csv_index(const char* buf, size_t from, size_t to, char delim, uint32_t* out, bool* has_nul) {
    static const index_fn_t fn = choose_index();
    return fn(buf, from, to, delim, out, has_nul);
}

void csv_open(csv_t* csv, int fd, std::string name, char delim, size_t blocksz) {
    *csv = csv_t();
    csv->fd = fd;
    csv->name = std::move(name);
    csv->delim = delim;
    csv->blocksz = std::max<size_t>(blocksz, 4);  // room for a byte-order mark
    csv->field.resize(64);
    grow(csv, csv->blocksz);
}

bool csv_next(csv_t* csv) {
    for (;;) {
        if (cut_row(csv)) [[likely]]
            return true;
        if (csv->eof) return false;
        refill(csv);
    }
}
