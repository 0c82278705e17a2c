// The sampler over files that nobody vouches for.
//
//   byte 0, 1    how many rows are wanted, from 1
//   byte 2       the seed
//   byte 3       bit 0: the file twice; bit 1: the sample is taken twice
//   the rest     a data file
//
// Demanded: a refusal has words and writes nothing; else the sample is a file that `cvn verify` calls good, with the
// columns of the first file and as many rows as were wanted or there are; the same seed gives the same bytes.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/exercise.h"
#include "fuzz/fuzz_file.h"
#include "fuzz/mutate.h"
#include "sampler/sample.h"
#include "tools/commands.h"

using fuzz::demand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

constexpr size_t OWNSZ = 4;
constexpr std::string_view PASSED_ON[] = {": its type ", ": its name is empty", " has the same name"};

size_t fuzz::file_offset(const uint8_t*, size_t) { return OWNSZ; }

static std::string bytes_of(int fd) {
    struct stat st;
    demand(fstat(fd, &st) == 0, "the output is gone");
    std::string s(static_cast<size_t>(st.st_size), '\0');
    demand(pread(fd, s.data(), s.size(), 0) == st.st_size, "the output cannot be read");
    return s;
}

// Whether there are no faults but, unless `all`, those of columns that were as bad in the source: an unknown type
// and an empty name are passed on, and without rows two columns of one name.
static bool sound(std::string_view said, bool all) {
    while (!said.empty()) {
        const std::string_view line = said.substr(0, said.find('\n'));
        said.remove_prefix(line.size() + 1);
        if (line.find(": good: ") != line.npos) return true;
        if (all) return false;
        if (std::none_of(std::begin(PASSED_ON), std::end(PASSED_ON),
                         [&](auto what) { return line.find(what) != line.npos; }))
            return false;
    }
    return true;
}

// Returns whether there is a sample, and its bytes.
static bool sample(std::string* ret, const std::vector<std::string>& files, uint64_t want, uint64_t seed,
                   uint64_t* ret_nrow) {
    const fuzz::memory_file_t out(nullptr, 0);
    demand(lseek(out.fd(), 0, SEEK_SET) == 0, "a file in memory has no beginning");
    try {
        *ret_nrow = sample_files(out.fd(), want, seed, files, fuzz::scratch_dir(), 0);
    } catch (const sample_error& error) {
        const std::string_view what = error.what();
        demand(!what.empty(), "a refusal without words");
        demand(bytes_of(out.fd()).empty(), "a refusal writes something");
        return false;
    }
    *ret = bytes_of(out.fd());
    tool_out_t said;
    int64_t nrow = 0;
    const int64_t nfault = verify_file(out.path(), &said, &nrow);
    demand((nfault == 0) == sound(said.buf, true), "faults without words");
    if (!sound(said.buf, false)) fprintf(stderr, "%s", said.buf.c_str());
    demand(sound(said.buf, false), "a sample that is damaged");
    demand(static_cast<uint64_t>(nrow) == *ret_nrow && *ret_nrow <= want,
           "a sample of another number of rows");
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < OWNSZ) return 0;
    const fuzz::memory_file_t file(data + OWNSZ, size - OWNSZ);
    std::vector<std::string> files = {file.path()};
    if (data[3] & 1) files.push_back(files[0]);
    const uint64_t want = uint64_t{1} + data[0] + uint64_t{256} * data[1];
    std::string first, again;
    uint64_t nfirst = 0, nagain = 0;
    if (!sample(&first, files, want, data[2], &nfirst)) return 0;
    cvn_scan_t* sc = nullptr;
    demand(cvn_scan_open(&sc, file.path()) == 0, "a file that was sampled does not open");
    const auto nrow = static_cast<uint64_t>(sc->schema->nrow);
    (void)cvn_scan_close(sc);
    demand(nfirst == std::min<uint64_t>(want, nrow * files.size()), "a sample of too few rows");
    if (data[3] & 2) {
        demand(sample(&again, files, want, data[2], &nagain), "a sample cannot be had twice");
        demand(first == again, "the same seed gives another sample");
    }
    return 0;
}
