// Every part of a reply leaves in one system call: the head goes out in the same writev as what follows it,
// which the client cannot tell from two writes, and page data is never copied.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "http/htlib.h"

// Appends to the head `buf` of HTREPLY_HEADSZ bytes, of which `len` are used; what does not fit is dropped.
__attribute__((format(printf, 3, 4))) static int addf(char* buf, int len, const char* fmt, ...) {
    const int room = HTREPLY_HEADSZ - len;
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(buf + len, static_cast<size_t>(room), fmt, ap);
    va_end(ap);
    if (n < 0) return len;
    return n < room ? len + n : HTREPLY_HEADSZ - 1;
}

// The time by a system call: time() runs the kernel's code in user space, a page that each child would have
// to fault in first, for one use.
static time_t current_time() {
    struct timespec now = {};
    (void)syscall(SYS_clock_gettime, CLOCK_REALTIME_COARSE, &now);  // cannot fail
    return now.tv_sec;
}

// Formats a head into `buf` of HTREPLY_HEADSZ bytes and returns its length, at most one less.
static int format_head(char* buf, const char* status, const char* const hdline[4]) {
    const time_t now = current_time();
    struct tm tm;
    char date[100];
    if (!gmtime_r(&now, &tm) || strftime(date, sizeof(date), RFC1123FMT, &tm) == 0) date[0] = '\0';
    int len = addf(buf, 0, "HTTP/1.1 %s\r\nDate: %s\r\nConnection: close\r\n", status, date);
    for (int i = 0; i < 4 && hdline[i]; i++) len = addf(buf, len, "%s\r\n", hdline[i]);
    return addf(buf, len, "\r\n");
}

// The head that a reply still owes, or no bytes when one was attempted before. The reply counts as begun from
// here on, whatever becomes of the write.
static iovec take_head(htreply_t* reply, char* buf, const char* status, const char* hdline1,
                       const char* hdline2) {
    if (reply->status_sent) return {buf, 0};
    reply->status_sent = true;
    const char* const hdline[4] = {hdline1, hdline2, nullptr, nullptr};
    return {buf, static_cast<size_t>(format_head(buf, status, hdline))};
}

// Writes the pieces with one call, the first left out when it is empty. A short count is a failure: the
// socket blocks, so the client has gone.
static ssize_t write_pieces(int fd, const iovec* iov, int niov) {
    return iov[0].iov_len > 0 ? writev(fd, iov, niov) : writev(fd, iov + 1, niov - 1);
}

static bool write_all(int fd, const iovec* iov, int niov) {
    size_t total = 0;
    for (int i = 0; i < niov; i++) total += iov[i].iov_len;
    const ssize_t n = write_pieces(fd, iov, niov);
    return n >= 0 && static_cast<size_t>(n) == total;
}

const char* htreply_create(htreply_t** ret_reply, htrequest_t* req) {
    *ret_reply = nullptr;
    htreply_t* reply = static_cast<htreply_t*>(malloc(sizeof(*reply)));
    if (!reply) return "out_of_memory";
    reply->fd = req->fd;
    reply->status_sent = false;
    *ret_reply = reply;
    return nullptr;
}

bool htreply_status(htreply_t* reply, const char* status, const char* hdline1, const char* hdline2,
                    const char* hdline3, const char* hdline4) {
    if (reply->status_sent) return true;
    const char* const hdline[4] = {hdline1, hdline2, hdline3, hdline4};
    char head[HTREPLY_HEADSZ];
    const int len = format_head(head, status, hdline);
    reply->status_sent = true;
    return write(reply->fd, head, static_cast<size_t>(len)) == len;
}

bool htreply_chunk(htreply_t* reply, const void* buf, int bufsz) {
    if (bufsz < 0) return false;
    char head[HTREPLY_HEADSZ], size[24];
    static char crlf[] = "\r\n", last[] = "0\r\n\r\n";
    iovec iov[4];
    iov[0] = take_head(reply, head, "200 OK", "Transfer-encoding: chunked",
                       "Content-type: application/octet-stream");
    if (bufsz == 0) {
        iov[1] = {last, sizeof(last) - 1};
        const ssize_t n = write_pieces(reply->fd, iov, 2);
        return iov[0].iov_len == 0 || (n >= 0 && static_cast<size_t>(n) >= iov[0].iov_len);
    }
    const int sizelen = snprintf(size, sizeof(size), "%x; chunk\r\n", static_cast<unsigned>(bufsz));
    iov[1] = {size, static_cast<size_t>(sizelen)};
    iov[2] = {const_cast<void*>(buf), static_cast<size_t>(bufsz)};
    iov[3] = {crlf, sizeof(crlf) - 1};
    return write_all(reply->fd, iov, 4);
}

bool htreply_json(htreply_t* reply, const char* buf, int bufsz) {
    if (bufsz < 0) return false;
    char head[HTREPLY_HEADSZ], length[40];
    (void)snprintf(length, sizeof(length), "Content-length: %d", bufsz);  // always fits
    iovec iov[2];
    iov[0] = take_head(reply, head, "200 OK", length, "Content-type: application/json");
    iov[1] = {const_cast<char*>(buf), static_cast<size_t>(bufsz)};
    return write_all(reply->fd, iov, 2);
}

void htreply_error(htreply_t* reply, const char* status) {
    const size_t len = strlen(status);
    char head[HTREPLY_HEADSZ], length[40];
    (void)snprintf(length, sizeof(length), "Content-length: %d", static_cast<int>(len));  // always fits
    iovec iov[2];
    iov[0] = take_head(reply, head, status, length, "Content-type: application/plain");
    iov[1] = {const_cast<char*>(status), len};
    (void)write_all(reply->fd, iov, 2);  // nobody is left to tell
}
