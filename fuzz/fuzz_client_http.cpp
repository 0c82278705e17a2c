// Any bytes as what a server writes to the connection, head and all.
//
//   byte 0      the method of the request
//   the rest    the reply, after which the server closes its side
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "fuzz/fuzz_client.h"

using namespace kelp;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr const char* METHODS[] = {"GET", "POST", "PUT", "DELETE"};
constexpr char BODY[] = "0123456789";
constexpr size_t BODYSZ = sizeof(BODY) - 1;

// Listens on a port of its own; each input is answered by one thread that ends with the connection.
struct listener_t {
    int fd = -1;
    std::string url;
    listener_t() {
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(sin);
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0 || listen(fd, 8) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len) != 0)
            abort();
        url = "http://127.0.0.1:" + std::to_string(ntohs(sin.sin_port)) + "/v1/d/s/e";
    }
};

}  // namespace

// Takes one request, of which the end is known by its text, and answers it.
static void answer(int listener, std::string_view reply, const char* until) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) abort();
    const timeval limit{.tv_sec = 10, .tv_usec = 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));  // only a broken client reaches it
    std::string request;
    char buf[4096];
    ssize_t n = 1;
    while (n > 0 && !request.ends_with(until)) {
        n = recv(fd, buf, sizeof(buf), 0);
        if (n > 0) request.append(buf, static_cast<size_t>(n));
    }
    while (!reply.empty() && (n = send(fd, reply.data(), reply.size(), MSG_NOSIGNAL)) > 0)
        reply.remove_prefix(static_cast<size_t>(n));
    (void)shutdown(fd, SHUT_WR);
    while (recv(fd, buf, sizeof(buf), 0) > 0) {
    }
    close(fd);
}

static int count_bytes(void* arg, const char* p, size_t n, kelp_error_t*) {
    static volatile unsigned sink;
    for (size_t i = 0; i < n; i++) sink = sink + static_cast<unsigned char>(p[i]);
    *static_cast<size_t*>(arg) += n;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    static const listener_t listener;
    static const int file = memfd_create("body", MFD_CLOEXEC);
    static const bool written = file >= 0 && write(file, BODY, BODYSZ) == BODYSZ;
    if (!written) abort();
    const std::string_view reply(reinterpret_cast<const char*>(data) + 1, size - 1);
    kelp_opt_t opt;
    opt.idle_timeout_ms = 5000;  // never reached: the server closes
    http_t http{.method = METHODS[data[0] % std::size(METHODS)], .url = listener.url, .opt = &opt};
    const std::string_view method = http.method;
    if (method == "POST") http.body = BODY;
    if (method == "PUT") {
        http.fd = file;
        http.filesz = BODYSZ;
    }
    size_t nbyte = 0;
    http.sink = count_bytes;
    http.sink_arg = &nbyte;
    std::thread server(answer, listener.fd, reply, method == "POST" || method == "PUT" ? BODY : "\r\n\r\n");
    kelp_error_t err{};
    const int code = http_run(&http, &err);
    server.join();
    fuzz::demand(nbyte <= reply.size(), "more bytes come out than went in");
    if (code != 0) {
        (void)fuzz::error_text(code, err);
        fuzz::demand(code != KELP_ETIMEOUT && code != KELP_ECONNECT, "a server that closed counts as silent");
    } else {
        fuzz::demand(http.status == 200, "another status than 200 counts as success");
    }
    return 0;
}
