// Opening files with 10, 1,000 and 100,000 row groups of 16 columns, beside reading the same footer bytes
// with one pread into fresh memory (as any open has to) and into memory in use. The files are made directly:
// a head, one chunk that all row groups share, and a regular footer.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <xxhash.h>

#include <map>
#include <vector>

#include "bench/micro/micro.h"

constexpr int NCOL = 16;
constexpr int64_t HEADSZ = 8;
constexpr int64_t CHUNKSZ = 16;  // 3 values of int32, their null bitmap, padding

static std::string footer_file(int64_t nrowgroup) {
    static std::map<int64_t, std::string> files;
    std::string& path = files[nrowgroup];
    if (!path.empty()) return path;
    const int64_t recordsz = CVN_ROWGROUP_HEADSZ + static_cast<int64_t>(sizeof(colmeta_t)) * NCOL;
    const int64_t sz = static_cast<int64_t>(sizeof(schema_desc_t)) +
                       NCOL * static_cast<int64_t>(sizeof(cvn_coldef_t) + sizeof(colstat_t)) +
                       nrowgroup * recordsz;
    std::vector<char> footer(static_cast<size_t>(sz), '\0');
    char* p = footer.data();
    const auto put = [&p](const auto& record, size_t n) {
        memcpy(p, &record, n);
        p += n;
    };
    put(schema_desc_t{.version = 1,
                      .ncol = NCOL,
                      .nrow = nrowgroup * 3,
                      .nrowgroup = nrowgroup,
                      .coldefsz = static_cast<int32_t>(sizeof(cvn_coldef_t)) * NCOL,
                      .colstatsz = static_cast<int32_t>(sizeof(colstat_t)) * NCOL,
                      .rowgroupsz = nrowgroup * recordsz},
        sizeof(schema_desc_t));
    for (int c = 0; c < NCOL; c++) {
        cvn_coldef_t def;
        memset(&def, 0, sizeof(def));
        snprintf(def.name, sizeof(def.name), "c%d", c);
        def.typ = CVN_TYP_INT32;
        put(def, sizeof(def));
    }
    for (int c = 0; c < NCOL; c++) {
        colstat_t stat;
        memset(&stat, 0, sizeof(stat));
        stat.hasminmax = 1;
        stat.maxval.i = static_cast<int32_t>(nrowgroup * 3);
        put(stat, sizeof(stat));
    }
    for (int64_t r = 0; r < nrowgroup; r++) {
        const int32_t head[4] = {static_cast<int32_t>(CHUNKSZ), 3, NCOL, 0};
        put(head, sizeof(head));
        colmeta_t meta;
        memset(&meta, 0, sizeof(meta));
        meta.file_offset = HEADSZ;
        meta.nrow = 3;
        meta.hasminmax = 1;
        meta.nbyte = meta.zbyte = 13;
        meta.nmapoff = 12;
        meta.minval.i = static_cast<int32_t>(r * 3);
        meta.maxval.i = static_cast<int32_t>(r * 3 + 2);
        for (int c = 0; c < NCOL; c++) put(meta, sizeof(meta));
    }
    path = temp_path(("footer" + std::to_string(nrowgroup) + ".cvn").c_str());
    FILE* fp = fopen(path.c_str(), "wb");
    if (!fp) must(-3, path.c_str());
    const char chunk[CHUNKSZ] = {};
    const uint32_t hash = XXH32(footer.data(), footer.size(), 0);
    fwrite(CVN_HEAD_MAGIC, 1, HEADSZ, fp);
    fwrite(chunk, 1, CHUNKSZ, fp);
    fwrite(footer.data(), 1, footer.size(), fp);
    fwrite(&sz, 1, 8, fp);
    fwrite(&hash, 1, 4, fp);
    fwrite(CVN_TAIL_MAGIC, 1, 4, fp);
    if (fclose(fp) != 0) must(-3, path.c_str());
    return path;
}

static int64_t footer_size(const std::string& path) {
    cvn_scan_t* scan = nullptr;
    must(cvn_scan_open(&scan, path.c_str()), path.c_str());
    const int64_t sz = scan->schema_bufsz;
    cvn_scan_close(scan);
    return sz;
}

static void open_footer(benchmark::State& state) {
    const std::string path = footer_file(state.range(0));
    const int64_t sz = footer_size(path);
    for (auto _ : state) {
        cvn_scan_t* scan = nullptr;
        must(cvn_scan_open(&scan, path.c_str()), path.c_str());
        benchmark::DoNotOptimize(scan->rowgroup);
        cvn_scan_close(scan);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * sz);
}

static void pread_footer(benchmark::State& state, bool fresh) {
    const std::string path = footer_file(state.range(0));
    const int64_t sz = footer_size(path);
    char* buf = fresh ? nullptr : static_cast<char*>(malloc(static_cast<size_t>(sz)));
    if (!fresh) memset(buf, 1, static_cast<size_t>(sz));
    for (auto _ : state) {
        if (fresh) buf = static_cast<char*>(malloc(static_cast<size_t>(sz)));
        const int fd = open(path.c_str(), O_RDONLY);
        if (fd < 0 || pread(fd, buf, static_cast<size_t>(sz), HEADSZ + CHUNKSZ) != sz) must(-3, path.c_str());
        close(fd);
        benchmark::DoNotOptimize(buf[sz - 1]);
        if (fresh) free(buf);
    }
    if (!fresh) free(buf);
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * sz);
}
static void open_footer_pread_fresh(benchmark::State& state) { pread_footer(state, true); }
static void open_footer_pread_warm(benchmark::State& state) { pread_footer(state, false); }

BENCHMARK(open_footer)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(open_footer_pread_fresh)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(open_footer_pread_warm)->Arg(10)->Arg(1000)->Arg(100000);

// A condition that the file may meet but only one row group in 100,000 does: the walk over all statistics.
static void open_qualify(benchmark::State& state) {
    const std::string path = footer_file(state.range(0));
    cvn_datum_t v;
    memset(&v, 0, sizeof(v));
    v.i = 1;
    for (auto _ : state) {
        cvn_scan_t* scan = nullptr;
        must(cvn_scan_open(&scan, path.c_str()), path.c_str());
        must(cvn_scan_add_required(scan, "c7"), "column");
        must(cvn_scan_add_lens(scan, "c7", CVN_OP_EQ, 1, &v), "condition");
        int ncol;
        cvn_page_t** page;
        const double start = now();
        must(cvn_scan_next(scan, &ncol, &page, false), "scan");
        state.SetIterationTime(now() - start);
        must(cvn_scan_next(scan, &ncol, &page, false), "second row group", -4);
        cvn_scan_close(scan);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(open_qualify)->Arg(10)->Arg(1000)->Arg(100000)->UseManualTime();
