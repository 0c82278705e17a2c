// What the tests of the daemon share: a temporary data directory to stand in, whole exchanges with one
// handler over a socket pair, captured diagnostics, and small data files.
#ifndef KELPD_TESTS_SERVER_SUPPORT_H
#define KELPD_TESTS_SERVER_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "colvane/colvane.h"
#include "handlers/handlers.h"
#include "http/htlib.h"
#include "server/kelpd.h"

namespace server_support {

namespace fs = std::filesystem;
using namespace std::string_literals;

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    ASSERT_TRUE(out.good()) << path;
}

// All paths below `dir`, sorted.
inline std::vector<std::string> tree(const std::string& dir) {
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    return paths;
}

// Stands in a fresh data directory with base/ and tmp/ until the test ends; SIGPIPE is ignored, as in the
// daemon.
class DataDir : public testing::Test {
 protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        before_ = fs::current_path();
        std::string name = (fs::temp_directory_path() / "kelpd-test-XXXXXX").string();
        ASSERT_NE(nullptr, mkdtemp(name.data()));
        dir_ = name;
        fs::current_path(dir_);
        fs::create_directory("base");
        fs::create_directory("tmp");
        verbose = 0;
    }
    void TearDown() override {
        verbose = 0;
        fs::current_path(before_);
        std::error_code ignored;  // a leftover directory must not fail a test
        fs::remove_all(dir_, ignored);
    }
    fs::path dir_, before_;
};

// The client's end of a connection: sends `bytes`, ends its side unless told to keep it open, and reads until
// the end.
class client_t {
 public:
    explicit client_t(std::string bytes, bool keep_open = false) {
        int fd[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0) abort();
        server_ = fd[0];
        thread_ = std::thread([this, bytes = std::move(bytes), mine = fd[1], keep_open] {
            for (size_t at = 0; at < bytes.size();) {
                const ssize_t n = send(mine, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
                if (n <= 0) break;
                at += static_cast<size_t>(n);
            }
            if (!keep_open) shutdown(mine, SHUT_WR);
            char buf[65536];
            for (ssize_t n; (n = read(mine, buf, sizeof(buf))) > 0;) got_.append(buf, static_cast<size_t>(n));
            close(mine);
        });
    }
    client_t(const client_t&) = delete;
    client_t& operator=(const client_t&) = delete;
    ~client_t() { (void)finish(); }
    int fd() const { return server_; }
    // Ends the connection and returns all that the client received.
    const std::string& finish() {
        if (server_ >= 0) close(server_);
        server_ = -1;
        if (thread_.joinable()) thread_.join();
        return got_;
    }

 private:
    int server_ = -1;
    std::thread thread_;
    std::string got_;
};

// Replaces the value of the head's Date line by "*" when it is a date as HTTP writes it.
inline std::string mask_date(std::string s) {
    const size_t at = s.find("\r\nDate: ");
    if (at == std::string::npos) return s;
    struct tm tm = {};
    const char* const date = s.c_str() + at + 8;
    const char* const end = strptime(date, RFC1123FMT, &tm);
    if (end && end - date == 29) s.replace(at + 8, 29, "*");
    return s;
}

// Replaces the name of a sampler's output file, three hexadecimal numbers, by "tmp/*.tmp".
inline std::string mask_tmp(std::string s) {
    const size_t at = s.find("tmp/");
    if (at == std::string::npos) return s;
    unsigned number[3];
    int len = 0;
    if (sscanf(s.c_str() + at, "tmp/%x-%x-%x.tmp%n", &number[0], &number[1], &number[2], &len) == 3 &&
        len > 0)
        s.replace(at, static_cast<size_t>(len), "tmp/*.tmp");
    return s;
}

struct result_t {
    const char* status;  // what the handler returned
    std::string reply;   // what the client received, the date masked
    std::string log;     // standard error
};

// Runs one handler on one request as the worker does, but for its error reply and access line.
inline result_t run(const char* (*handler)(htrequest_t*, htreply_t*), const std::string& bytes) {
    result_t r = {};
    client_t client(bytes);
    htrequest_t* req = nullptr;
    htreply_t* reply = nullptr;
    testing::internal::CaptureStderr();
    if (const char* err = htreq_create(&req, client.fd())) {
        ADD_FAILURE() << err;
    } else {
        EXPECT_EQ(nullptr, htreply_create(&reply, req));
        r.status = handler(req, reply);
        free(reply);
        free(req);
    }
    r.log = testing::internal::GetCapturedStderr();
    r.reply = mask_date(client.finish());
    return r;
}

inline result_t get(const std::string& url) { return run(do_get, "GET " + url + " HTTP/1.1\r\n\r\n"); }
inline result_t del(const std::string& url) { return run(do_delete, "DELETE " + url + " HTTP/1.1\r\n\r\n"); }
inline result_t put(const std::string& url, const std::string& body) {
    return run(do_put, "PUT " + url + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                           "\r\n\r\n" + body);
}
inline result_t post(const std::string& url, const std::string& body) {
    return run(do_post, "POST " + url + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                            "\r\n\r\n" + body);
}

inline const std::string OK_HEAD = "HTTP/1.1 200 OK\r\nDate: *\r\nConnection: close\r\n\r\n";
inline const std::string STREAM_HEAD =
    "HTTP/1.1 200 OK\r\nDate: *\r\nConnection: close\r\nTransfer-encoding: chunked\r\n"
    "Content-type: application/octet-stream\r\n\r\n";
inline std::string json_reply(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nDate: *\r\nConnection: close\r\nContent-length: " +
           std::to_string(body.size()) + "\r\nContent-type: application/json\r\n\r\n" + body;
}

inline std::string le32(int32_t v) { return {reinterpret_cast<const char*>(&v), sizeof(v)}; }
inline std::string le64(int64_t v) { return {reinterpret_cast<const char*>(&v), sizeof(v)}; }
inline std::string chunk(const std::string& data) {
    char size[32];
    snprintf(size, sizeof(size), "%zx; chunk\r\n", data.size());
    return size + data + "\r\n";
}
inline std::string record_header(int32_t nbyte) { return chunk("\x74\x73\x72\x71"s + le32(nbyte)); }
inline const std::string STREAM_END = record_header(0) + "0\r\n\r\n";

struct column_t {
    const char* name;
    cvn_typ_t typ;
};

// Writes a data file of int32 and cstr columns: row r holds first + r, or that number as text.
inline void write_cvn(const std::string& path, const std::vector<column_t>& column, int64_t nrow,
                      int32_t first = 0) {
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path.c_str()));
    for (const column_t& c : column) ASSERT_EQ(0, cvn_create_column(w, c.name, c.typ, false, false));
    std::vector<cvn_datum_t> datum(column.size());
    const auto isnull = std::make_unique<bool[]>(column.size());
    for (int64_t r = 0; r < nrow; r++) {
        const std::string text = std::to_string(first + r);
        for (size_t c = 0; c < column.size(); c++) {
            memset(&datum[c], 0, sizeof(datum[c]));
            if (column[c].typ == CVN_TYP_CSTR)
                datum[c].t = text.c_str();
            else
                datum[c].i = static_cast<int32_t>(first + r);
        }
        ASSERT_EQ(0, cvn_append(w, static_cast<int>(column.size()), datum.data(), isnull.get()));
    }
    ASSERT_EQ(0, cvn_close(w));
}

inline std::string cvn_bytes(const std::vector<column_t>& column, int64_t nrow) {
    const std::string path =
        (fs::temp_directory_path() / ("kelpd-bytes-" + std::to_string(getpid()) + ".cvn")).string();
    write_cvn(path, column, nrow);
    const std::string bytes = read_file(path);
    fs::remove(path);
    return bytes;
}

}  // namespace server_support
#endif
