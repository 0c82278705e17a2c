// Whether a row group's pages can be read, found out before a caller commits itself to passing them on.
//
// A large page is given to /dev/null with sendfile: the kernel brings all of it into the page cache, waits
// for the disk, and copies nothing, which takes no memory and half the time of a read. A small page is read;
// so is one that sendfile does not take whole, for whatever reason, and what that read gives is the answer.
// Mapping the file instead costs as much per page and makes a file that is cut meanwhile a signal.
#include <errno.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "colvane/colvane.h"

constexpr int CVN_PROVE_BY_READING = 65536;  // stored bytes up to which reading costs less than the detour

// Returns false when any of the bytes could not be had; errno says nothing.
static bool pass_over(int null_fd, int fd, int64_t offset, int64_t nbyte) {
    while (nbyte > 0) {
        const ssize_t n = sendfile(null_fd, fd, &offset, static_cast<size_t>(nbyte));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        nbyte -= n;  // at most 2 GiB go at once
    }
    return true;
}

static int cvn_scan_prove_ret(int code, int null_fd) {
    const int saved = errno;
    if (null_fd >= 0) close(null_fd);
    errno = saved;
    return code;
}

int cvn_scan_prove(cvn_scan_t* scan, int64_t rg, int first) {
    int null_fd = -1;
    for (int k = first < 0 ? 0 : first; k < scan->nreqcol; k++) {
        const int c = scan->reqcol[k];
        colmeta_t m;
        const int rc = cvn_scan_colmeta(scan, rg, c, &m);
        if (rc != 0) return cvn_scan_prove_ret(rc, null_fd);
        const int fd = scan->split_mode ? scan->split_fd[c] : scan->fd;
        if (fd >= 0 && m.file_offset >= 0 && m.zbyte > CVN_PROVE_BY_READING) {
            if (null_fd < 0) null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
            if (null_fd >= 0 && pass_over(null_fd, fd, m.file_offset, m.zbyte)) continue;
        }
        cvn_page_t* page;
        const int code = cvn_scan_page(scan, rg, k, &page, false);
        if (code != 0) return cvn_scan_prove_ret(code, null_fd);
    }
    return cvn_scan_prove_ret(0, null_fd);
}
