// cvn-bench: loads rows and adds up columns through the public interface of the library, in one thread, and
// says how long that took. The seconds are the job's alone: neither the start of the program nor the reading
// of input rows counts.
#include "bench/cvn_bench.h"

#include <errno.h>
#include <limits.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <string_view>

#include "bench/guard.h"

static constexpr char USAGE[] =
    "usage: cvn-bench load-rows COLDEF ROWS.BIN OUT.cvn\n"
    "       cvn-bench sum [-d LO HI] [-b COLUMN] [-u] [-k SET] FILE [COLUMN...]\n"
    "       cvn-bench query URL JOBS [COLUMN...]\n"
    "\n"
    "load-rows  reads a binary row file into memory and appends its rows one by one to a new data file.\n"
    "           Prints seconds=S cpu=P rows=N, from the first append to the finished close.\n"
    "sum        decodes every value of the named columns and adds them up; of all columns, with the row "
    "count in\n"
    "           front, when none is named. Texts and byte strings count by their length, dates and times by "
    "the largest.\n"
    "           Prints seconds=S cpu=P bytes_read=B result=V1,V2,..., from the open to the close of the "
    "scan.\n"
    "  -d LO HI    only rows with LO <= date <= HI, days since 1970-01-01; the row count comes first\n"
    "  -b COLUMN   the date column of -d, or any other column stored as int32 (l_shipdate)\n"
    "  -u          the library decompresses whole row groups, instead of the program each page just before "
    "its use\n"
    "  -k SET      instruction set of the inner loops: base, avx2 or avx512 (the best that the processor "
    "has)\n"
    "query      scans a daemon's table over JOBS connections into decoded batches, in a build with the "
    "client "
    "library.\n"
    "           Prints seconds=S cpu=P rows=N stored=Z decoded=B, from the open to the close of the scan.\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage or a build that is not fit for measuring.\n";

void fail(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("cvn-bench: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    exit(1);
}

static double clock_seconds(clockid_t clock) {
    timespec t;
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

moment_t now() { return {clock_seconds(CLOCK_MONOTONIC), clock_seconds(CLOCK_PROCESS_CPUTIME_ID)}; }

[[noreturn]] static void usage(const char* what) {
    if (what) fprintf(stderr, "cvn-bench: %s\n", what);
    fputs(USAGE, stderr);
    exit(2);
}

static int32_t day(const char* text) {
    char* end;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (end == text || *end || errno || v < INT32_MIN || v > INT32_MAX)
        usage("LO and HI are whole numbers of days");
    return static_cast<int32_t>(v);
}

static void sum_verb(int argc, char** argv) {
    sum_args_t args;
    int i = 2;
    const auto next = [&]() -> const char* {
        if (i >= argc) usage("an argument is missing");
        return argv[i++];
    };
    while (i < argc && argv[i][0] == '-') {
        const std::string_view opt = argv[i++];
        if (opt == "-d") {
            args.select = true;
            args.lo = day(next());
            args.hi = day(next());
        } else if (opt == "-b") {
            args.by = next();
        } else if (opt == "-u") {
            args.whole = true;
        } else if (opt == "-k") {
            args.kernels = next();
        } else {
            usage("unknown option");
        }
    }
    args.file = next();
    while (i < argc) args.columns.emplace_back(argv[i++]);
    sum_file(args);
}

static void query_verb(int argc, char** argv) {
#ifdef BENCH_CLIENT
    if (argc < 4) usage("query takes a URL and a number of jobs");
    char* end;
    const long njob = strtol(argv[3], &end, 10);
    if (end == argv[3] || *end || njob < 1 || njob > 64) usage("JOBS is a number from 1 to 64");
    query_url(argv[2], static_cast<int>(njob), std::vector<std::string>(argv + 4, argv + argc));
#else
    (void)argc;
    (void)argv;
    fail("query: this build has no client library (libcurl was missing)");
#endif
}

// Row groups come and go by the megabyte: freed blocks stay for the next one, and the heap grows in steps
// that huge pages can back. Nothing is touched beforehand, so that first use is still paid for where it
// happens.
static void tune_heap() {
    constexpr size_t STEP = 64 << 20;
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    mallopt(M_TOP_PAD, STEP);
    void* volatile first = malloc(STEP / 64);  // volatile, or the pair is optimised away
    free(first);
    constexpr uintptr_t HUGE_PAGE = 2 << 20;
    const auto end = reinterpret_cast<uintptr_t>(sbrk(0)) & ~(HUGE_PAGE - 1);
    (void)madvise(reinterpret_cast<void*>(end - STEP), STEP, MADV_HUGEPAGE);  // a hint
}

int main(int argc, char** argv) {
    const std::string_view verb = argc > 1 ? argv[1] : "";
    if (verb == "--help" || verb == "-h") {
        fputs(USAGE, stdout);
        return 0;
    }
    if (const char* why = guard_refusal()) {
        fprintf(stderr,
                "cvn-bench: %s: figures would mean nothing; configure with -DCMAKE_BUILD_TYPE=Release\n",
                why);
        return 2;
    }
    // The client keeps its pages itself, and is measured, its memory too, as any program has it.
    if (verb != "query") tune_heap();
    if (verb == "load-rows") {
        if (argc != 5) usage("load-rows takes three arguments");
        load_rows(argv[2], argv[3], argv[4]);
    } else if (verb == "sum") {
        sum_verb(argc, argv);
    } else if (verb == "query") {
        query_verb(argc, argv);
    } else {
        usage(argc > 1 ? "unknown verb" : nullptr);
    }
    if (fflush(stdout) != 0) fail("standard output: %s", strerror(errno));
    return 0;
}
