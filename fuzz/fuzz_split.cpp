// A data file to be split, and a split directory to be scanned.
//
// The first byte chooses. 0: the rest is a data file, which is split; the directory that results is scanned.
// Otherwise the rest is the metadata file and the column files 0 and 1 of a directory, parted by the bytes
// "\xff|\xff", and the directory is scanned as it is.
#include <filesystem>
#include <fstream>
#include <string_view>

#include "fuzz/exercise.h"
#include "fuzz/fuzz_file.h"
#include "fuzz/mutate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

size_t fuzz::file_offset(const uint8_t*, size_t) { return 1; }

static void put(const std::string& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string dir = fuzz::scratch_dir() + "/d";
    std::filesystem::remove_all(dir);
    if (data[0] == 0) {
        const fuzz::memory_file_t file(data + 1, size - 1);
        fuzz::demand_null(exercise::split(file.path(), dir.c_str()));
    } else {
        std::filesystem::create_directory(dir);
        std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
        for (const char* name : {"/meta.cvnx", "/0.cvnx", "/1.cvnx"}) {
            const size_t end = rest.find("\xff|\xff");
            put(dir + name, rest.substr(0, end));
            if (end == std::string_view::npos) break;
            rest.remove_prefix(end + 3);
        }
        fuzz::demand_null(exercise::scan(dir.c_str(), false));
        fuzz::demand_null(exercise::scan(dir.c_str(), true));
    }
    std::filesystem::remove_all(dir);
    return 0;
}
