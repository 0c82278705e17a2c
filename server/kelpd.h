// What the whole daemon shares: its settings, and, from where the lower layers find them too, its verbosity,
// its rule for numbers and the tests for the kinds of files that it stores.
#ifndef KELPD_SERVER_KELPD_H
#define KELPD_SERVER_KELPD_H

#include <stdio.h>

#include "common/number.h"
#include "common/verbose.h"
#include "server/conf.h"
#include "store/util.h"

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

// All zero when the process starts. NOLINTNEXTLINE(bugprone-dynamic-static-initializers): it says so itself
extern constinit global_t gl;

#endif
