// How much the process says of what it does.
#ifndef KELPD_COMMON_VERBOSE_H
#define KELPD_COMMON_VERBOSE_H

// Raised by each -v: 1 prints progress lines to standard error, 2 one line per page as well.
inline int verbose = 0;

#endif
