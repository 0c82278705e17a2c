// fadvise: the read-ahead hint.

#include "colvane/fadvise.h"

#include <fcntl.h>

void fadvise(int fd, int64_t off, int64_t len) {
    (void)posix_fadvise(fd, off, len, POSIX_FADV_WILLNEED);  // a hint; without it the read merely waits
}
