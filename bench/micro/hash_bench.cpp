// The hash of every stored chunk and of the footer, beside a plain pass over the same bytes, and the hash
// read back from a file's trailer.
#include <string.h>
#include <xxhash.h>

#include <vector>

#include "bench/micro/micro.h"

static void hash_chunk(benchmark::State& state) {
    const std::vector<char> chunk(static_cast<size_t>(state.range(0)), 'x');
    for (auto _ : state) benchmark::DoNotOptimize(XXH32(chunk.data(), chunk.size(), 0));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(hash_chunk)->Arg(4096)->Arg(1 << 20)->Arg(8 << 20);

static void hash_chunk_memcpy(benchmark::State& state) {
    const std::vector<char> chunk(static_cast<size_t>(state.range(0)), 'x');
    std::vector<char> copy(chunk.size());
    for (auto _ : state) {
        memcpy(copy.data(), chunk.data(), chunk.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(hash_chunk_memcpy)->Arg(4096)->Arg(1 << 20)->Arg(8 << 20);

static void hash_of_file(benchmark::State& state) {
    const std::string path = table_file(10000);
    int32_t hash;
    for (auto _ : state) {
        must(cvn_get_hash(&hash, path.c_str()), path.c_str());
        benchmark::DoNotOptimize(hash);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(hash_of_file);
