// A head is one write, a body or a chunk is one more; page data is never copied. What would fill a segment
// together is not gathered here: the children of the daemon have the system do it, and the daemon that does
// not fork means to see each write end as it ends.
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

// Writes what may fail unheard.
static void write_or_not(int fd, const char* buf, size_t n) {
    if (write(fd, buf, n) == -1) return;
}

bool htreply_chunk(htreply_t* reply, const void* buf, int bufsz) {
    if (bufsz < 0) return false;
    if (!htreply_status(reply, "200 OK", "Transfer-encoding: chunked",
                        "Content-type: application/octet-stream", nullptr, nullptr))
        return false;
    if (bufsz == 0) {
        static const char last[] = "0\r\n\r\n";
        write_or_not(reply->fd, last, sizeof(last) - 1);  // Kept: nobody is told when the end does not arrive
        return true;
    }
    char size[24];
    const int sizelen = snprintf(size, sizeof(size), "%x; chunk\r\n", static_cast<unsigned>(bufsz));
    static char crlf[] = "\r\n";
    const iovec iov[3] = {{size, static_cast<size_t>(sizelen)},
                          {const_cast<void*>(buf), static_cast<size_t>(bufsz)},
                          {crlf, sizeof(crlf) - 1}};
    return writev(reply->fd, iov, 3) == ssize_t{sizelen} + bufsz + 2;
}

// Sends the head of a body of `len` bytes, unless a head was attempted before.
static bool send_head(htreply_t* reply, const char* status, int len, const char* type) {
    char length[40];
    (void)snprintf(length, sizeof(length), "Content-length: %d", len);  // always fits
    return htreply_status(reply, status, length, type, nullptr, nullptr);
}

bool htreply_json(htreply_t* reply, const char* buf, int bufsz) {
    if (bufsz < 0) return false;
    if (!send_head(reply, "200 OK", bufsz, "Content-type: application/json")) return false;
    return write(reply->fd, buf, static_cast<size_t>(bufsz)) == bufsz;
}

void htreply_error(htreply_t* reply, const char* status) {
    const size_t len = strlen(status);
    (void)send_head(reply, status, static_cast<int>(len), "Content-type: application/plain");
    write_or_not(reply->fd, status, len);  // nobody is left to tell
}
