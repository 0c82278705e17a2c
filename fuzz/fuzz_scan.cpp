// One data file: opened, asked and scanned, taking its pages as they are stored.
#include "fuzz/exercise.h"
#include "fuzz/fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::memory_file_t file(data, size);
    fuzz::demand_null(exercise::scan(file.path(), false));
    return 0;
}
