// Any bytes as a request head: what is accepted points into its own buffer and is terminated there.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <initializer_list>

#include "http/htlib.h"

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// The refusals' log lines would drown the fuzzer's own.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    stderr = fopen("/dev/null", "w");
    return 0;
}

static void check_text(const htrequest_t* req, const char* s) {
    if (!*s) return;  // the static empty text, or an empty one in the buffer
    if (s < req->buf || s + strlen(s) >= req->buf + sizeof(req->buf)) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > size_t{2} * HTREQ_BUFSZ) return 0;
    int fd[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0) abort();
    if (size > 0 && write(fd[1], data, size) != static_cast<ssize_t>(size)) abort();
    shutdown(fd[1], SHUT_WR);
    htrequest_t* req = nullptr;
    const char* err = htreq_create(&req, fd[0]);
    if ((err == nullptr) != (req != nullptr)) abort();
    if (req) {
        for (const char* s : {req->method, req->url, req->proto, req->referrer, req->host, req->contenttype})
            check_text(req, s);
        if (req->body < req->buf || req->bodysz < 0 || req->body + req->bodysz >= req->buf + sizeof(req->buf))
            abort();
        if (req->body[req->bodysz] != '\0') abort();
        if (strpbrk(req->method, " \r\n") || strpbrk(req->url, " \r\n")) abort();
        free(req);
    }
    close(fd[0]);
    close(fd[1]);
    return 0;
}
