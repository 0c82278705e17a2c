// Recursive removal: children before their directory, by one walk of the tree.
#include <errno.h>
#include <ftw.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "store/dir.h"

constexpr int MAX_OPEN_DIR = 64;  // descriptors that the walk may hold

static int remove_one(const char* path, const struct stat*, int, struct FTW*) {
    if (remove(path) == 0 || errno == ENOENT) return 0;
    const int saved = errno;  // judged after the walk
    fprintf(stderr, "ERROR while remove(%s): %s\n", path, strerror(saved));
    errno = saved;
    return -1;
}

const char* dir_rmrf(const char* path) {
    if (nftw(path, remove_one, MAX_OPEN_DIR, FTW_DEPTH | FTW_PHYS) == 0) return nullptr;
    if (errno == ENOENT) return nullptr;
    if (errno == ENOTDIR) {
        if (unlink(path) == 0 || errno == ENOENT) return nullptr;
        fprintf(stderr, "Error unlink %s: %s\n", path, strerror(errno));
    } else {
        fprintf(stderr, "Error rm -rf %s: %s\n", path, strerror(errno));
    }
    return "error while rm -rf";
}
