// What the sources of cvn-bench share: the verbs, and how they end.
#ifndef BENCH_CVN_BENCH_H
#define BENCH_CVN_BENCH_H

#include <stdint.h>

#include <string>
#include <vector>

// Prints "cvn-bench: " and the formatted text to standard error and ends the program with status 1.
[[noreturn]] void fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// A moment, on the clock and in processor time of the process.
struct moment_t {
    double seconds;
    double cpu;
};
moment_t now();

// Reads the row file `rows` into memory, then appends its rows one by one to a new file `out` with the
// columns of `coldef`; prints "seconds=S rows=N", where S runs from the first append to the finished close.
// Only the appending thread works. Ends the program on any failure, with `out` removed.
void load_rows(const char* coldef, const char* rows, const char* out);

// A scan that adds up.
struct sum_args_t {
    const char* file = nullptr;
    std::vector<std::string> columns;  // none: all, and the row count in front
    bool select = false;               // only rows whose `by` lies in lo..hi
    std::string by = "l_shipdate";
    int32_t lo = 0;
    int32_t hi = 0;
    bool whole = false;             // let the library decompress whole row groups
    const char* kernels = nullptr;  // instruction set; null: the best one
};

// Scans and prints "seconds=S cpu=P bytes_read=B result=V1,V2,...". S runs from the open to the close of the
// scan. Ends the program on any failure.
void sum_file(const sum_args_t& args);

// Scans a table of a daemon over `njob` connections into decoded batches and prints "seconds=S cpu=P rows=N
// stored=Z decoded=B", where P is this process's part. No columns: all. Ends the program on any failure. Only
// in builds that have the client library.
void query_url(const char* url, int njob, const std::vector<std::string>& columns);

#endif
