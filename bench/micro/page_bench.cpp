// From a stored page to a column that can be read, as all readers do it: its checks, its hash, the
// decompression and the view, beside LZ4_decompress_safe and XXH32 alone on the same bytes. Memory is in use
// already on both sides: pages are taken from a pool, the bare calls write into one buffer.
#include <lz4.h>
#include <stdlib.h>
#include <string.h>
#include <xxhash.h>

#include <vector>

#include "bench/micro/micro.h"
#include "rows/page.h"

using namespace rows;

static void must_be_good(const char* why, const char* what) { must(why ? -1 : 0, what); }

constexpr int32_t NROW = 262144;

namespace {

// A compressed page of one column, such as the daemon sends.
struct stored_t {
    cvn_page_t head{};
    std::vector<char> body;
};

}  // namespace

// Values as tables hold them: some distinct ones that come back, so that the page is worth compressing.
template <typename T, typename F>
static stored_t make_page(cvn_typ_t typ, bool nulls, F value) {
    const size_t valuesz = NROW * sizeof(T);
    std::vector<char> raw(valuesz + NROW / 8, '\0');
    uint64_t state = 20240229;
    cvn_page_t head{};
    for (int32_t r = 0; r < NROW; r++) {
        state = state * UINT64_C(6364136223846793005) + UINT64_C(1442695040888963407);
        if (nulls && (state >> 40) % 8 == 0) {
            raw[valuesz + static_cast<size_t>(r) / 8] |= static_cast<char>(0x80 >> (r % 8));
            head.nnull++;
            continue;
        }
        const T v = value(r, static_cast<int>((state >> 33) % 50));
        memcpy(raw.data() + static_cast<size_t>(r) * sizeof(T), &v, sizeof(T));
    }
    stored_t page;
    page.body.resize(static_cast<size_t>(LZ4_compressBound(static_cast<int>(raw.size()))));
    const int zbyte = LZ4_compress_default(raw.data(), page.body.data(), static_cast<int>(raw.size()),
                                           static_cast<int>(page.body.size()));
    head.magic = CVN_PAGE_MAGIC;
    head.typ = typ;
    head.nrow = NROW;
    head.nmapoff = static_cast<int32_t>(valuesz);
    head.nbyte = static_cast<int32_t>(raw.size());
    head.zbyte = zbyte;
    // What saves less than a fifth is stored as it is, and is no page of this measurement.
    must(zbyte > 0 && zbyte < head.nbyte * 4 / 5 ? 0 : -1, "the page is expected to compress");
    page.body.resize(static_cast<size_t>(zbyte));
    head.hash = static_cast<int32_t>(XXH32(page.body.data(), page.body.size(), 0));
    page.head = head;
    return page;
}

static stored_t page_of(cvn_typ_t typ, bool nulls) {
    switch (typ) {
        case CVN_TYP_INT32: return make_page<int32_t>(typ, nulls, [](int32_t, int k) { return 8035 + k; });
        case CVN_TYP_INT64:
            return make_page<int64_t>(typ, nulls, [](int32_t r, int) { return int64_t{r / 4} * 4 + 1; });
        case CVN_TYP_DOUBLE: return make_page<double>(typ, nulls, [](int32_t, int k) { return k / 100.0; });
        case CVN_TYP_DEC64: {
            std::vector<decDouble> quantity(50);
            for (int k = 0; k < 50; k++)
                must(cvn_dec64_from_string(&quantity[k], (std::to_string(k) + ".00").c_str()), "dec64");
            return make_page<decDouble>(typ, nulls, [&](int32_t, int k) { return quantity[k]; });
        }
        default: {
            std::vector<decQuad> quantity(50);
            for (int k = 0; k < 50; k++)
                must(cvn_dec128_from_string(&quantity[k], (std::to_string(k) + ".00").c_str()), "dec128");
            return make_page<decQuad>(typ, nulls, [&](int32_t, int k) { return quantity[k]; });
        }
    }
}

static void count(benchmark::State& state, const stored_t& page) {
    state.SetItemsProcessed(state.iterations() * page.head.nrow);
    state.SetBytesProcessed(state.iterations() * page.head.nbyte);
}

static void must_view(bufpool_t* pool, column_t* col, const stored_t& page) {
    must_be_good(page_view(pool, col, page.head, "c"), "page_view");
    benchmark::DoNotOptimize(col->vec.value);
}

// All of it: what one page costs a client.
static void page_decode(benchmark::State& state, cvn_typ_t typ, bool nulls) {
    const stored_t page = page_of(typ, nulls);
    bufpool_t pool;
    for (auto _ : state) {
        column_t col;
        must_be_good(page_check(page.head), "page_check");
        must_be_good(page_unpack(&pool, &col.value, page.head, page.body.data()), "page_unpack");
        must_view(&pool, &col, page);
        column_free(&pool, &col);
    }
    count(state, page);
}

// What the client adds to hash and decompression: checks, memory and the view.
static void page_view_only(benchmark::State& state, cvn_typ_t typ, bool nulls) {
    const stored_t page = page_of(typ, nulls);
    bufpool_t pool;
    column_t first;
    must_be_good(page_unpack(&pool, &first.value, page.head, page.body.data()), "page_unpack");
    column_free(&pool, &first);
    for (auto _ : state) {
        column_t col;
        must_be_good(page_check(page.head), "page_check");
        col.value = buf_get(&pool, static_cast<size_t>(page.head.nbyte));  // the same bytes as before
        must_view(&pool, &col, page);
        column_free(&pool, &col);
    }
    count(state, page);
}

static void bare(benchmark::State& state, cvn_typ_t typ, bool nulls, bool lz4, bool hash) {
    const stored_t page = page_of(typ, nulls);
    std::vector<char> raw(static_cast<size_t>(page.head.nbyte), '\1');
    for (auto _ : state) {
        if (hash)
            must(XXH32(page.body.data(), page.body.size(), 0) == static_cast<uint32_t>(page.head.hash) ? 0
                                                                                                       : -1,
                 "hash");
        if (lz4)
            must(LZ4_decompress_safe(page.body.data(), raw.data(), page.head.zbyte, page.head.nbyte), "LZ4",
                 page.head.nbyte);
        benchmark::DoNotOptimize(raw.data());
        benchmark::ClobberMemory();
    }
    count(state, page);
}
static void page_bare(benchmark::State& state, cvn_typ_t typ, bool nulls) {
    bare(state, typ, nulls, true, true);
}
static void page_lz4(benchmark::State& state, cvn_typ_t typ, bool nulls) {
    bare(state, typ, nulls, true, false);
}
static void page_hash(benchmark::State& state, cvn_typ_t typ, bool nulls) {
    bare(state, typ, nulls, false, true);
}

const bool registered = [] {
    static constexpr struct {
        const char* name;
        void (*run)(benchmark::State&, cvn_typ_t, bool);
    } BENCHMARKS[] = {{"page_decode", page_decode},
                      {"page_bare", page_bare},
                      {"page_lz4", page_lz4},
                      {"page_hash", page_hash},
                      {"page_view", page_view_only}};
    static constexpr cvn_typ_t TYPES[] = {CVN_TYP_INT32, CVN_TYP_INT64, CVN_TYP_DOUBLE, CVN_TYP_DEC64,
                                          CVN_TYP_DEC128};
    for (const cvn_typ_t typ : TYPES)
        for (const bool nulls : {false, true})
            for (const auto& b : BENCHMARKS) {
                const std::string name =
                    std::string(b.name) + "/" + cvn_typ_str(typ) + (nulls ? "_nulls" : "");
                benchmark::RegisterBenchmark(name.c_str(), b.run, typ, nulls)->Unit(benchmark::kMicrosecond);
            }
    return true;
}();
