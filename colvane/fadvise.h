/* fadvise: the one read-ahead hint that the scanner gives. */
#ifndef COLVANE_FADVISE_H
#define COLVANE_FADVISE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Tells the kernel that `len` bytes at `off` of `fd` will be needed soon. A hint: its result is ignored. */
void fadvise(int fd, int64_t off, int64_t len);

#ifdef __cplusplus
}
#endif
#endif
