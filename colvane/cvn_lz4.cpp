// cvn_lz4: the one place where stored bytes are decompressed.
//
// The checked decoder decides nearly always, and is also several times faster than the other one. What it
// refuses is put to LZ4_decompress_fast, which knows no input length and whose consumed length is what the
// format is defined by: it accepts a few blocks more. It gets a copy of the block that is zero-filled after
// the data up to the size that no block of this output size can exceed, so whatever it is led to read lies
// inside the copy.

// The unchecked decoder is deprecated for its missing input length; see above.
#define LZ4_DISABLE_DEPRECATE_WARNINGS
#include <lz4.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "colvane/colvane.h"

int cvn_lz4_decode(char* dst, int32_t nbyte, const char* src, int32_t zbyte) {
    if (zbyte <= 0 || nbyte <= zbyte || nbyte > LZ4_MAX_INPUT_SIZE || nbyte / CVN_LZ4_MAX_RATIO > zbyte)
        return -6;
    if (LZ4_decompress_safe(src, dst, zbyte, nbyte) == nbyte) return 0;

    const int bound = LZ4_compressBound(nbyte);
    // Length bytes run on while they are 255, so a run at the end of the data needs its zero byte as well.
    const size_t copysz = static_cast<size_t>(std::max(bound, zbyte)) + LZ4_COMPRESSBOUND(0);
    auto* copy = static_cast<char*>(calloc(1, copysz));
    if (!copy) return -2;
    memcpy(copy, src, static_cast<size_t>(zbyte));
    memset(dst, 0, static_cast<size_t>(nbyte));  // a match may reach what no literal has written
    const int consumed = LZ4_decompress_fast(copy, dst, nbyte);
    free(copy);
    return consumed == zbyte ? 0 : -6;
}
