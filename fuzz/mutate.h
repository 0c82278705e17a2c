// A mutator that knows the format: it takes a data file apart from its tail, changes one thing of it as a writer with a
// fault would, and puts the sizes, offsets and hashes right again, which blind mutations hardly ever do.
#ifndef KELPD_FUZZ_MUTATE_H
#define KELPD_FUZZ_MUTATE_H

#include <stddef.h>
#include <stdint.h>

#include <cstddef>
#include <vector>

// What libFuzzer offers to custom mutators; fuzz/replay.cpp has one of its own. Returns the new size.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed);

namespace fuzz {

// How many bytes at the start of an input are the target's own, before its data file. Each target defines it.
size_t file_offset(const uint8_t* data, size_t size);

// Numbers for mutations, the same for the same seed.
struct dice_t {
    uint64_t state;
    uint32_t roll(uint32_t n) {  // below n, which is not 0
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>((state >> 33) % n);
    }
};

// Returns a changed copy of a data file of at most `max_size` bytes. What is no data file any more, or would become
// too large, is changed blindly.
std::vector<uint8_t> mutate_file(const uint8_t* data, size_t size, size_t max_size, dice_t* dice);

}  // namespace fuzz
#endif
