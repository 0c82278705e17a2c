// Runs a fuzz target over files: each argument is an input, or a folder of inputs. Where there is no libFuzzer this
// is what ctest calls with the corpus. Prints how many inputs it ran; none at all is a failure.
//
//   fuzz_<entry> [-m N] PATH...    -m: and N mutations of each input, the same ones every time
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/mutate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// A target may have these two or not.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" __attribute__((weak)) size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                                                unsigned seed);

constexpr size_t MAX_GROWTH = 4096;

static fuzz::dice_t dice{1};
static int nrun = 0;

// Changes, inserts or removes a few bytes.
size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size) {
    const uint32_t kind = dice.roll(4);
    if (size == 0 || (kind == 0 && size < max_size)) {
        if (max_size == 0) return 0;
        const size_t n = std::min<size_t>(1 + dice.roll(8), max_size - size);
        const size_t at = dice.roll(static_cast<uint32_t>(size) + 1);
        memmove(data + at + n, data + at, size - at);
        for (size_t i = 0; i < n; i++) data[at + i] = static_cast<uint8_t>(dice.roll(256));
        return size + n;
    }
    const size_t at = dice.roll(static_cast<uint32_t>(size));
    if (kind == 1) {
        const size_t n = std::min<size_t>(1 + dice.roll(8), size - at);
        memmove(data + at, data + at + n, size - at - n);
        return size - n;
    }
    if (kind == 2) {
        data[at] ^= static_cast<uint8_t>(1 << dice.roll(8));
    } else {
        data[at] = static_cast<uint8_t>(dice.roll(2) ? dice.roll(256) : (dice.roll(2) ? 0xff : 0));
    }
    return size;
}

static void run(const uint8_t* data, size_t size) {
    // A copy of exactly the input's size, so that a read past it is seen.
    const std::vector<uint8_t> input(data, data + size);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    nrun++;
}

static void run_file(const std::filesystem::path& path, int nmutation) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::vector<uint8_t> input(bytes.begin(), bytes.end());
    run(input.data(), input.size());
    for (int i = 0; i < nmutation; i++) {
        std::vector<uint8_t> other = input;
        const size_t room = input.size() + MAX_GROWTH;
        other.resize(room);
        size_t n = input.size();
        for (uint32_t k = dice.roll(3);; k--) {
            n = LLVMFuzzerCustomMutator ? LLVMFuzzerCustomMutator(other.data(), n, room, dice.roll(1u << 31))
                                        : LLVMFuzzerMutate(other.data(), n, room);
            if (k == 0) break;
        }
        run(other.data(), n);
    }
}

int main(int argc, char** argv) {
    int nmutation = 0, first = 1;
    if (argc > 2 && strcmp(argv[1], "-m") == 0) {
        nmutation = atoi(argv[2]);
        first = 3;
    }
    std::vector<std::filesystem::path> paths;
    for (int i = first; i < argc; i++) {
        if (!std::filesystem::exists(argv[i])) {
            fprintf(stderr, "%s: does not exist\n", argv[i]);
            return 1;
        }
        if (!std::filesystem::is_directory(argv[i])) {
            paths.emplace_back(std::filesystem::absolute(argv[i]));
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            if (entry.is_regular_file()) paths.push_back(std::filesystem::absolute(entry.path()));
    }
    std::sort(paths.begin(), paths.end());  // the same mutations on every machine
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    for (const auto& path : paths) run_file(path, nmutation);
    printf("%d inputs, %zu files\n", nrun, paths.size());
    return paths.empty() ? 1 : 0;
}
