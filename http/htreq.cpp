// Reads one request head into the record's own buffer and cuts it up in place: one allocation, one release.
// The head is searched for its end after every read, whole, since the two kinds of end are ranked: a
// "\r\n\r\n" anywhere wins over any "\n\n".
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/select.h>
#include <unistd.h>

#include "common/number.h"
#include "common/verbose.h"
#include "http/htlib.h"

static const char* htreq_readbuf(htrequest_t* req) {
    // Such a descriptor does not fit the set.
    if (req->fd < 0 || req->fd >= FD_SETSIZE) return "select failed";
    fd_set rset;
    FD_ZERO(&rset);
    FD_SET(req->fd, &rset);
    // One time-out for all calls: Linux takes off what was waited, so the head as a whole is bounded.
    struct timeval tv = {.tv_sec = HTREQ_TIMEOUT_SEC, .tv_usec = 0};
    char* fill = req->buf;
    char* const limit = req->buf + sizeof(req->buf) - 1;
    char* end = nullptr;
    while (fill < limit && !end) {
        const int ready = select(req->fd + 1, &rset, nullptr, nullptr, &tv);
        if (ready == 0) return "clnt timed out";
        if (ready < 0) return "select failed";
        const ssize_t n = read(req->fd, fill, static_cast<size_t>(limit - fill));
        if (n == 0) return "clnt closed without valid req";
        if (n > 0) {
            fill += n;
        } else if (errno == EINTR) {
            continue;
        } else if (fill > req->buf) {
            fill--;  // Kept: an error steps back one byte; the next read reports the end
        }
        *fill = '\0';
        // A NUL byte in the head ends the search: such a request is never complete.
        end = strstr(req->buf, "\r\n\r\n");
        if (!end) end = strstr(req->buf, "\n\n");
    }
    if (!end) return "clnt overflowed request buffer";
    size_t endsz = 0;
    if (*end == '\r') {
        endsz = 4;
    } else if (*end == '\n') {
        endsz = 2;
    } else {
        return "internal error";
    }
    memset(end, 0, endsz);
    req->body = end + endsz;
    req->bodysz = static_cast<int>(fill - req->body);
    return nullptr;
}

// Cuts the request line at every single space. False unless that gives two or three words.
static bool parse_reqline(htrequest_t* req, char* line) {
    const char* word[3] = {"", "", ""};
    int nword = 0;
    for (char* p = line; p;) {
        if (nword == 3) return false;
        word[nword++] = p;
        p = strchr(p, ' ');
        if (p) *p++ = '\0';
    }
    if (nword < 2) return false;
    req->method = word[0];
    req->url = word[1];
    req->proto = word[2];
    return true;
}

static const char* htreq_parse(htrequest_t* req) {
    char* line[HTREQ_MAXLINE];
    int nline = 0;
    for (char* p = req->buf; p;) {
        line[nline++] = p;
        if (nline == HTREQ_MAXLINE) return "htreq_parse: too many lines in req";
        char* const s = p;
        p = strchr(p, '\n');
        if (p) *p++ = '\0';
        if (char* cr = strchr(s, '\r')) *cr = '\0';
    }
    if (verbose) fprintf(stderr, "%s\n", line[0]);
    if (!parse_reqline(req, line[0])) return "htreq_parse: invalid req line";
    if (strcasecmp(req->proto, "HTTP/1.0") == 0) return "htreq_parse: HTTP/1.0 not supported";
    req->one_one = true;
    for (int i = 1; i < nline; i++) {
        char* value = strchr(line[i], ':');
        if (!value) continue;
        *value++ = '\0';
        value += strspn(value, " \t");
        const char* const name = line[i];  // not trimmed: a blank before the colon makes it another name
        if (strcasecmp(name, "Referer") == 0 || strcasecmp(name, "Referrer") == 0) {
            req->referrer = value;
        } else if (strcasecmp(name, "Host") == 0) {
            value[strcspn(value, ":")] = '\0';
            if (*value == '.' || strchr(value, '/')) return "htreq_parse: invalid Host header";
            req->host = value;
        } else if (strcasecmp(name, "Content-Type") == 0) {
            req->contenttype = value;
        } else if (strcasecmp(name, "Content-Length") == 0) {
            errno = 0;
            req->contentlength = strtoll(value, nullptr, number_base(value));
            if (req->contentlength == 0 && errno != 0) return "htreq_parse: invalid contentlength";
        }
    }
    // Kept: the host starts as "", so a request without a Host line passes.
    if (req->one_one && !req->host) return "htreq_parse: missing Host header";
    return nullptr;
}

static const char* htreq_create_err(const char* err, const char* step, htrequest_t* req) {
    fprintf(stderr, "%s failed: %s\n", step, err);
    free(req);
    return err;
}

const char* htreq_create(htrequest_t** ret_req, int fd) {
    *ret_req = nullptr;
    htrequest_t* req = static_cast<htrequest_t*>(malloc(sizeof(*req)));
    if (!req) return "out of memory";
    req->fd = fd;
    req->method = req->url = req->proto = "";
    req->one_one = false;
    req->referrer = req->host = req->contenttype = "";
    req->contentlength = -1;
    req->body = nullptr;
    req->bodysz = 0;
    if (const char* err = htreq_readbuf(req)) return htreq_create_err(err, "htreq_readbuf", req);
    if (const char* err = htreq_parse(req)) return htreq_create_err(err, "htreq_parse", req);
    *ret_req = req;
    return nullptr;
}
