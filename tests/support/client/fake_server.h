// A server on 127.0.0.1 whose replies a test makes up: bytes as they are, cut, slow or wrong.
#ifndef KELPD_TESTS_CLIENT_FAKE_SERVER_H
#define KELPD_TESTS_CLIENT_FAKE_SERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/replies.h"

namespace fake {

struct request_t {
    std::string method, url, head, body;
};

// Sends all, or as much as the peer takes. MSG_NOSIGNAL: a test's client may be gone.
inline bool send_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// Calls `handler` in a thread of its own for each connection, once its request is complete; the connection is
// closed when it returns.
class server_t {
 public:
    using handler_t = std::function<void(int fd, const request_t& request)>;

    // With `raw`, the handler reads the request itself, over a connection that holds little of it.
    explicit server_t(handler_t handler, bool raw = false) : handler_(std::move(handler)), raw_(raw) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int room = 8192, segment = 1024;
        if (raw && (setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room)) != 0 ||
                    setsockopt(fd_, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof(segment)) != 0))
            abort();
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd_, 64) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            abort();
        port = ntohs(addr.sin_port);
        thread_ = std::thread([this] { accept_all(); });
    }
    server_t(const server_t&) = delete;
    server_t& operator=(const server_t&) = delete;
    ~server_t() {
        stopping = true;
        thread_.join();
        for (std::thread& t : worker_) t.join();
        close(fd_);
    }

    std::string url(const std::string& path) const {
        return "kelp://127.0.0.1:" + std::to_string(port) + path;
    }
    std::vector<request_t> requests() {
        const std::lock_guard lock(mutex_);
        return request_;
    }

    int port = 0;
    std::atomic<bool> stopping{false};  // handlers that wait look at it

 private:
    void accept_all() {
        while (!stopping) {
            pollfd p{.fd = fd_, .events = POLLIN, .revents = 0};
            if (poll(&p, 1, 20) <= 0) continue;
            const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) worker_.emplace_back([this, fd] { serve(fd); });
        }
    }
    void serve(int fd) {
        if (raw_) {
            handler_(fd, {});
            close(fd);
            return;
        }
        std::string in;
        char buf[65536];
        size_t need = 0;
        bool whole = false;
        while (!whole && !stopping) {
            pollfd p{.fd = fd, .events = POLLIN, .revents = 0};
            if (poll(&p, 1, 20) <= 0) continue;
            const ssize_t n = read(fd, buf, sizeof(buf));
            if (n <= 0) break;
            in.append(buf, static_cast<size_t>(n));
            const size_t end = in.find("\r\n\r\n");
            if (end == in.npos) continue;
            if (!need) {
                const char* length = strcasestr(in.c_str(), "\ncontent-length:");
                need = end + 4 + (length ? strtoul(length + 16, nullptr, 10) : 0);
            }
            whole = in.size() >= need;
        }
        if (whole) {
            request_t r;
            const size_t end = in.find("\r\n\r\n"), space = in.find(' ');
            r.method = in.substr(0, space);
            r.url = in.substr(space + 1, in.find(' ', space + 1) - space - 1);
            r.head = in.substr(0, end);
            r.body = in.substr(end + 4);
            {
                const std::lock_guard lock(mutex_);
                request_.push_back(r);
            }
            handler_(fd, r);
        }
        close(fd);
    }

    handler_t handler_;
    bool raw_;
    int fd_ = -1;
    std::thread thread_;
    std::vector<std::thread> worker_;
    std::mutex mutex_;
    std::vector<request_t> request_;
};

// The catalogue's replies for a table of one file, "p.cvn", of the given columns and row groups.
inline bool serve_catalogue(int fd, const request_t& r, const support::table_t& t, size_t nrowgroup) {
    if (r.method != "GET") return false;
    if (r.url.ends_with(".cvn")) {
        std::string s = "{\"column\":[";
        for (size_t c = 0; c < t.column.size(); c++)
            s += (c ? "," : "") + ("{\"cno\": " + std::to_string(c)) + ", \"typ\": \"" +
                 cvn_typ_str(t.column[c].typ) + "\", \"name\": \"" + t.column[c].name + "\"}";
        send_all(fd, replies::json_reply(s + "], \"chksum\": -5}"));
    } else {
        send_all(fd, replies::json_reply("[ {\"name\": \"p.cvn\", \"chksum\": -5, \"ncol\": " +
                                         std::to_string(t.column.size()) +
                                         ", \"nrow\": " + std::to_string(t.nrow()) + ", \"nrowgroup\": " +
                                         std::to_string(nrowgroup) + ",\"nbyte\": 10, \"zbyte\": 5}]\n"));
    }
    return true;
}

}  // namespace fake
#endif
