// One data file: opened, asked and scanned, taking its pages as they are stored.
#include "fuzz/exercise.h"
#include "fuzz/fuzz_file.h"
#include "fuzz/mutate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

size_t fuzz::file_offset(const uint8_t*, size_t) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::memory_file_t file(data, size);
    fuzz::demand_null(exercise::scan(file.path(), false));
    return 0;
}
