// Any bytes as a data file under `cvn verify`.
//
// Demanded: it ends, with as many faults as lines; all that it prints can be printed; and of what it calls good
// every page can be had and decoded by the readers, which walk the file on another way.
#include <string.h>

#include <numeric>

#include "fuzz/exercise.h"
#include "fuzz/fuzz_client.h"
#include "fuzz/mutate.h"
#include "rows/file.h"
#include "tools/commands.h"
#include "tools/verify.h"

using fuzz::demand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

constexpr int64_t MAX_LINES = 101;  // faults, and the line that counts the rest

size_t fuzz::file_offset(const uint8_t*, size_t) { return 0; }

static void read_all(const char* path) {
    static const auto pool = std::make_shared<rows::bufpool_t>();
    rows::file_t file;
    rows::file_fault_t fault;
    demand(rows::file_open(&file, path, pool, &fault), "a good file is not opened by readers");
    std::vector<int> want(file.column.size());
    std::iota(want.begin(), want.end(), 0);
    demand(rows::file_want(&file, want, &fault), "the columns of a good file cannot be had");
    std::vector<rows::column_t> column;
    int64_t nrow = 0;
    for (int64_t rg = 0; rg < file.nrowgroup; rg++) {
        demand(rows::file_read(&file, rg, &column, &fault), "a row group of a good file cannot be read");
        nrow += cvn_scan_get_rowgroup_size(file.scan, rg);
        std::string sink;
        for (const rows::column_t& c : column) fuzz::put_column(&sink, c.vec);
    }
    for (rows::column_t& c : column) rows::column_free(pool.get(), &c);
    demand(nrow == file.nrow, "a good file has another number of rows");
    fuzz::demand_null(exercise::scan(path, true));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::memory_file_t file(data, size);
    tool_out_t out;
    out.fd = -1;  // what is printed stays in the buffer, which is larger than all that can be said
    int64_t nrow = 0, nfault = -1;
    try {
        nfault = verify_file(file.path(), &out, &nrow);
    } catch (const tool_error& error) {
        demand(*error.what() != '\0', "a failure without words");
        return 0;
    }
    demand(nfault > 0 || nrow >= 0, "a good file of fewer rows than none");
    int64_t nline = 0;
    for (const char ch : out.buf) {
        nline += ch == '\n';
        demand(ch == '\n' || (static_cast<uint8_t>(ch) >= ' ' && ch != 0x7f), "an unprintable character");
    }
    demand(nline == (nfault > 100 ? MAX_LINES : nfault > 0 ? nfault : 1), "faults without a line each");
    if (nfault == 0) read_all(file.path());
    return 0;
}
