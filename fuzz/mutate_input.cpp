// The custom mutator of the targets whose input is a few bytes of their own and then a data file.
#include <string.h>

#include <algorithm>

#include "fuzz/mutate.h"

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    fuzz::dice_t dice{seed};
    const size_t own = std::min(fuzz::file_offset(data, size), size);
    if (own >= size || dice.roll(8) == 0) {
        // The target's own bytes, of which there are always as many, or everything.
        if (own > 0 && own < size && dice.roll(4) != 0) {
            (void)LLVMFuzzerMutate(data, own, own);
            return size;
        }
        return LLVMFuzzerMutate(data, size, max_size);
    }
    const std::vector<uint8_t> file = fuzz::mutate_file(data + own, size - own, max_size - own, &dice);
    std::copy(file.begin(), file.end(), data + own);
    return own + file.size();
}
