// The page decoder: the first four bytes are the size that is to come out, the rest is the stored block. Both
// buffers are exactly as large as they are said to be. What decodes must be what the checked decoder makes of
// it.
#include <lz4.h>
#include <stdlib.h>
#include <string.h>

#include "colvane/colvane.h"
#include "fuzz/fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Larger pages teach nothing more.
static constexpr int32_t MAX_NBYTE = 1 << 20;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    int32_t nbyte;
    memcpy(&nbyte, data, sizeof(nbyte));
    const int32_t zbyte = static_cast<int32_t>(size) - 4;
    if (nbyte > MAX_NBYTE) nbyte %= MAX_NBYTE;
    const size_t room = nbyte > 0 ? static_cast<size_t>(nbyte) : 0;
    char* src = static_cast<char*>(malloc(size - 4));
    char* dst = static_cast<char*>(malloc(room));
    char* safe = static_cast<char*>(malloc(room));
    if (!src || !dst || !safe) abort();
    memcpy(src, data + 4, size - 4);
    const int code = cvn_lz4_decode(dst, nbyte, src, zbyte);
    if (code != 0 && code != -6) fuzz::demand_null("an unknown code");
    if (code == 0) {
        static volatile unsigned sink = 0;
        unsigned sum = 0;
        for (size_t i = 0; i < room; i++) sum += static_cast<unsigned char>(dst[i]);
        sink = sink + sum;
        if (LZ4_decompress_safe(src, safe, zbyte, nbyte) == nbyte && memcmp(dst, safe, room) != 0)
            fuzz::demand_null("bytes that the checked decoder does not make");
    } else if (zbyte > 0 && nbyte > zbyte && LZ4_decompress_safe(src, safe, zbyte, nbyte) == nbyte) {
        fuzz::demand_null("a block refused that the checked decoder takes");
    }
    free(src);
    free(dst);
    free(safe);
    return 0;
}
