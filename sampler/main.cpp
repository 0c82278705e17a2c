// cvnsamp: a uniform sample of data files, as one data file on standard output.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include <charconv>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "sampler/sample.h"

constexpr int STATUS_FAILED = 1;
constexpr int STATUS_USAGE = 2;

constexpr char HELP[] =
    "Usage: cvnsamp N FILE...\n"
    "\n"
    "Writes a data file with N rows to standard output, chosen uniformly and without\n"
    "replacement among all rows of the data files FILE (or split directories), in the\n"
    "order in which they lie there. All rows are taken when there are no more than N.\n"
    "The files must have the same column names and types.\n"
    "\n"
    "  -h, --help     print this message\n"
    "  -V, --version  print the version\n"
    "\n"
    "Environment:\n"
    "  CVNSAMP_SEED   a decimal number: the same seed, N and files give the same sample\n"
    "  TMPDIR         where the sample is made before it is written out (default /tmp)\n"
    "\n"
    "Example:\n"
    "  CVNSAMP_SEED=7 cvnsamp 1000 orders/*.cvn > sample.cvn\n"
    "\n"
    "Exit status: 0 done, 1 failed (nothing was written), 2 bad command line or seed.\n";

static int usage(const std::string& msg) {
    fprintf(stderr, "cvnsamp: %s\nTry 'cvnsamp --help'.\n", msg.c_str());
    return STATUS_USAGE;
}

static bool parse_number(uint64_t* ret, std::string_view text) {
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, *ret);
    return ec == std::errc() && ptr == end;
}

static bool random_seed(uint64_t* ret) {
    while (getrandom(ret, sizeof(*ret), 0) != static_cast<ssize_t>(sizeof(*ret)))
        if (errno != EINTR) return false;
    return true;
}

static int run(int argc, char** argv) {
    std::vector<std::string> operand;
    bool options = true;
    for (int i = 1; i < argc; i++) {
        const std::string_view arg = argv[i];
        if (options && (arg == "-h" || arg == "--help")) {
            fputs(HELP, stdout);
            return fflush(stdout) == 0 ? 0 : STATUS_FAILED;
        }
        if (options && (arg == "-V" || arg == "--version")) {
            puts("cvnsamp " CVNSAMP_VERSION);
            return fflush(stdout) == 0 ? 0 : STATUS_FAILED;
        }
        if (options && arg == "--")
            options = false;
        else if (options && arg.size() > 1 && arg[0] == '-')
            return usage("unknown option '" + std::string(arg) + "'");
        else
            operand.emplace_back(arg);
    }
    if (operand.empty()) return usage("the number of rows is missing");
    uint64_t nrow = 0;
    if (!parse_number(&nrow, operand[0]) || nrow == 0)
        return usage("'" + operand[0] + "' is not a number of rows: give a decimal number above 0");
    uint64_t seed = 0;
    const char* const seed_text = getenv("CVNSAMP_SEED");
    const bool given = seed_text && *seed_text;
    if (given && !parse_number(&seed, seed_text))
        return usage("CVNSAMP_SEED must be a decimal number below 2^64");
    if (!given && !random_seed(&seed)) {
        fprintf(stderr, "cvnsamp: cannot get random numbers: %s; set CVNSAMP_SEED instead\n",
                strerror(errno));
        return STATUS_FAILED;
    }
    operand.erase(operand.begin());
    if (isatty(STDOUT_FILENO)) {
        fputs(
            "cvnsamp: standard output is a terminal: send the sample to a file, as in 'cvnsamp 10 a.cvn > "
            "b.cvn'\n",
            stderr);
        return STATUS_FAILED;
    }
    const char* tmpdir = getenv("TMPDIR");
    try {
        sample_files(STDOUT_FILENO, nrow, seed, operand, tmpdir && *tmpdir ? tmpdir : "/tmp",
                     SAMPLE_MEMORY_MAX);
    } catch (const sample_error& e) {
        fprintf(stderr, "cvnsamp: %s\n", e.what());
        return STATUS_FAILED;
    }
    return 0;
}

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "cvnsamp: %s\n", SAMPLE_NOMEM);
    }
    return STATUS_FAILED;
}
