// What the whole daemon shares: its settings, its verbosity, and the tests for the kinds of files it stores.
#ifndef KELPD_SERVER_KELPD_H
#define KELPD_SERVER_KELPD_H

#include <stdio.h>

#include "server/conf.h"

struct global_t {
    const char* progname;  // argv[0]; borrowed
    const char* datadir;   // argument of -D, null until given; borrowed
    int donotfork;         // 1 with -n
    struct {
        char fname[80];  // name of the current log file, relative to the data directory
        FILE* fp;        // standard error, reopened onto it; null before the log is opened
    } log;
    struct {
        conf_t* lst;  // the configuration, kept for the life of the process; owned
        int port;     // 0 until a port entry was accepted; the socket uses its low 16 bits
    } conf;
};

extern global_t gl;  // all zero when the process starts
// Raised by each -v: 1 prints progress lines to standard error, 2 one line per page as well.
extern int verbose;

// The base to give to strtol and its kin for a number in decimal, "0x" hexadecimal or leading-"0" octal: 0,
// which finds these, or 8 for "0b", which newer C libraries would read as binary and which is a zero here.
[[nodiscard]] int number_base(const char* text);

// Return 1 when the name ends in ".cvn", ".cvn.mismatch" or ".sql", else 0. The bare suffix counts; case
// matters.
[[nodiscard]] int file_is_cvn(const char* path);
[[nodiscard]] int file_is_cvn_mismatch(const char* path);
[[nodiscard]] int file_is_sql(const char* path);

#endif
