// Reading row groups, beside the bare calls that any reader needs for the same pages: pread of the same
// ranges for a scan that hands out stored bytes, LZ4_decompress_safe (memcpy where a page is stored as it is)
// for one that decompresses. The bare calls write into buffers in use, one per column, reused by every row
// group.
#include <fcntl.h>
#include <lz4.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "bench/micro/micro.h"

namespace {

constexpr int64_t NROW = 1000000;  // three row groups

struct chunk_t {
    int64_t offset;
    int32_t nbyte;
    int32_t zbyte;
    size_t raw_at;     // where its bytes go in the buffer, decompressed
    size_t stored_at;  // and as stored
    std::vector<char> stored;
};

struct table_t {
    std::string path;
    cvn_scan_t* scan = nullptr;
    int nrowgroup = 0;
    std::vector<std::vector<chunk_t>> chunk;  // per row group, per required column
    char* buf = nullptr;                      // room for one row group, decompressed; owned
    int64_t nbyte = 0;
    int64_t zbyte = 0;
    int64_t nrow = 0;
    ~table_t() {
        if (scan) cvn_scan_close(scan);
        free(buf);
    }
};

}  // namespace

// Opens the table and reads its chunks, of the columns named; of all columns when there are none.
static void table_open(table_t* t, int64_t nrow, std::initializer_list<const char*> columns) {
    t->path = table_file(nrow);
    must(cvn_scan_open(&t->scan, t->path.c_str()), t->path.c_str());
    int ncol;
    const cvn_coldef_t* coldef;
    cvn_scan_coldef(&ncol, &coldef, t->scan);
    std::vector<int> cnos;
    for (int c = 0; c < ncol; c++) {
        const auto same = [&](const char* name) { return strcmp(name, coldef[c].name) == 0; };
        if (columns.size() > 0 && std::none_of(columns.begin(), columns.end(), same)) continue;
        must(cvn_scan_add_required(t->scan, coldef[c].name), coldef[c].name);
        cnos.push_back(c);
    }
    t->nrow = nrow;
    t->nrowgroup = static_cast<int>(t->scan->schema->nrowgroup);
    size_t bufsz = 0;
    for (int rg = 0; rg < t->nrowgroup; rg++) {
        std::vector<chunk_t>& chunks = t->chunk.emplace_back();
        size_t raw_at = 0, stored_at = 0;
        for (size_t k = 0; k < cnos.size(); k++) {
            colmeta_t meta;
            must(cvn_scan_colmeta(t->scan, rg, cnos[k], &meta), "colmeta");
            chunk_t& chunk = chunks.emplace_back();
            chunk.offset = meta.file_offset;
            chunk.nbyte = meta.nbyte;
            chunk.zbyte = meta.zbyte;
            chunk.raw_at = raw_at;
            chunk.stored_at = stored_at;
            raw_at += static_cast<size_t>(meta.nbyte);
            stored_at += static_cast<size_t>(meta.zbyte);
            chunk.stored.resize(static_cast<size_t>(meta.zbyte));
            if (pread(t->scan->fd, chunk.stored.data(), chunk.stored.size(), meta.file_offset) != meta.zbyte)
                must(-3, "pread");
            t->nbyte += meta.nbyte;
            t->zbyte += meta.zbyte;
        }
        bufsz = std::max(bufsz, raw_at);
    }
    // In large pages, as the scanner's own memory, and touched.
    constexpr size_t HUGE_PAGE = 2 << 20;
    bufsz = (bufsz + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    t->buf = static_cast<char*>(aligned_alloc(HUGE_PAGE, bufsz));
    if (!t->buf) must(-2, "buffer");
    (void)madvise(t->buf, bufsz, MADV_HUGEPAGE);  // a hint
    memset(t->buf, 1, bufsz);
}

static void count(benchmark::State& state, const table_t& t, int64_t nbyte) {
    state.SetItemsProcessed(state.iterations() * t.nrow);
    state.SetBytesProcessed(state.iterations() * nbyte);
}

static void scan_all(benchmark::State& state, table_t* t, bool uncompress) {
    for (auto _ : state)
        for (int rg = 0; rg < t->nrowgroup; rg++) {
            int npage;
            cvn_page_t** page;
            must(cvn_scan_rowgroup(t->scan, rg, &npage, &page, uncompress), "rowgroup");
            benchmark::DoNotOptimize(page);
        }
    count(state, *t, uncompress ? t->nbyte : t->zbyte);
}

static void scan_decompressed(benchmark::State& state) {
    table_t t;
    table_open(&t, NROW, {});
    scan_all(state, &t, true);
}
BENCHMARK(scan_decompressed)->Unit(benchmark::kMillisecond);

static void scan_stored(benchmark::State& state) {
    table_t t;
    table_open(&t, NROW, {});
    scan_all(state, &t, false);
}
BENCHMARK(scan_stored)->Unit(benchmark::kMillisecond);

static void decompress(const chunk_t& chunk, const char* src, char* dst) {
    if (chunk.zbyte == chunk.nbyte)
        memcpy(dst, src, static_cast<size_t>(chunk.nbyte));
    else if (LZ4_decompress_safe(src, dst, chunk.zbyte, chunk.nbyte) != chunk.nbyte)
        must(-6, "LZ4_decompress_safe");
    benchmark::ClobberMemory();
}

static void scan_decompressed_bare(benchmark::State& state) {
    table_t t;
    table_open(&t, NROW, {});
    for (auto _ : state)
        for (const auto& chunks : t.chunk)
            for (const chunk_t& chunk : chunks) decompress(chunk, chunk.stored.data(), &t.buf[chunk.raw_at]);
    count(state, t, t.nbyte);
}
BENCHMARK(scan_decompressed_bare)->Unit(benchmark::kMillisecond);

// The same with the bytes read from the file, as a scan does.
static void scan_decompressed_bare_pread(benchmark::State& state) {
    table_t t;
    table_open(&t, NROW, {});
    std::vector<char> stored;
    for (const auto& chunks : t.chunk)
        for (const chunk_t& chunk : chunks) stored.resize(std::max(stored.size(), chunk.stored.size()));
    for (auto _ : state)
        for (const auto& chunks : t.chunk)
            for (const chunk_t& chunk : chunks) {
                char* to = chunk.zbyte == chunk.nbyte ? &t.buf[chunk.raw_at] : stored.data();
                if (pread(t.scan->fd, to, static_cast<size_t>(chunk.zbyte), chunk.offset) != chunk.zbyte)
                    must(-3, "pread");
                if (to == stored.data()) decompress(chunk, to, &t.buf[chunk.raw_at]);
            }
    count(state, t, t.nbyte);
}
BENCHMARK(scan_decompressed_bare_pread)->Unit(benchmark::kMillisecond);

static void scan_stored_bare(benchmark::State& state) {
    table_t t;
    table_open(&t, NROW, {});
    for (auto _ : state)
        for (const auto& chunks : t.chunk)
            for (const chunk_t& chunk : chunks) {
                if (pread(t.scan->fd, &t.buf[chunk.stored_at], static_cast<size_t>(chunk.zbyte),
                          chunk.offset) != chunk.zbyte)
                    must(-3, "pread");
                benchmark::ClobberMemory();
            }
    count(state, t, t.zbyte);
}
BENCHMARK(scan_stored_bare)->Unit(benchmark::kMillisecond);

// A column whose pages are stored as they are: nothing is decompressed.
static void scan_raw(benchmark::State& state) {
    table_t t;
    table_open(&t, NROW, {"partkey"});
    if (t.nbyte != t.zbyte) must(-1, "partkey is expected to be stored as it is");
    scan_all(state, &t, true);
}
BENCHMARK(scan_raw)->Unit(benchmark::kMillisecond);

static void scan_raw_bare(benchmark::State& state) {
    table_t t;
    table_open(&t, NROW, {"partkey"});
    for (auto _ : state)
        for (const auto& chunks : t.chunk)
            for (const chunk_t& chunk : chunks) decompress(chunk, chunk.stored.data(), &t.buf[chunk.raw_at]);
    count(state, t, t.nbyte);
}
BENCHMARK(scan_raw_bare)->Unit(benchmark::kMillisecond);

// What one call costs when there is next to nothing to read: 1 or 15 chunks of 100 rows.
static void rowgroup_1(benchmark::State& state) {
    table_t t;
    table_open(&t, 100, {"price"});
    scan_all(state, &t, true);
}
BENCHMARK(rowgroup_1);

static void rowgroup_1_bare(benchmark::State& state) {
    table_t t;
    table_open(&t, 100, {"price"});
    const chunk_t& chunk = t.chunk[0][0];
    for (auto _ : state)
        if (pread(t.scan->fd, t.buf, static_cast<size_t>(chunk.zbyte), chunk.offset) != chunk.zbyte)
            must(-3, "pread");
    count(state, t, t.zbyte);
}
BENCHMARK(rowgroup_1_bare);

static void rowgroup_15(benchmark::State& state) {
    table_t t;
    table_open(&t, 100, {});
    scan_all(state, &t, true);
}
BENCHMARK(rowgroup_15);

static void rowgroup_15_bare(benchmark::State& state) {
    table_t t;
    table_open(&t, 100, {});
    for (auto _ : state)
        for (const chunk_t& chunk : t.chunk[0])
            if (pread(t.scan->fd, &t.buf[chunk.stored_at], static_cast<size_t>(chunk.zbyte), chunk.offset) !=
                chunk.zbyte)
                must(-3, "pread");
    count(state, t, t.zbyte);
}
BENCHMARK(rowgroup_15_bare);
