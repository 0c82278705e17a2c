// Time-outs and cancelling: nothing keeps a request alive that does not go on.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "client/queries.h"

namespace lookup {

// The state of the look-up of "slow.invalid", which takes until a test lets it go, or half a minute.
std::atomic<bool> released{false};
std::atomic<int> pending{0};

}  // namespace lookup

// Stands in front of the C library's.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res) {
    if (node && strcmp(node, "slow.invalid") == 0) {
        lookup::pending++;
        for (int i = 0; i < 3000 && !lookup::released; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        lookup::pending--;
        return EAI_NONAME;
    }
    using function_t = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto next = reinterpret_cast<function_t>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return next(node, service, hints, res);
}

namespace {

using namespace queries;
using namespace std::chrono_literals;

// Sends half a reply and then nothing until the test is over.
server_t::handler_t stalling_handler(const table_t& t, server_t** server) {
    return [&t, server](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 2)) return;
        const std::string reply = stream_reply(small_pieces(t));
        send_all(fd, std::string_view(reply).substr(0, reply.size() / 2));
        while (!(*server)->stopping) std::this_thread::sleep_for(5ms);
    };
}

TEST(ClientTime, AServerThatStallsTimesOut) {
    const table_t t = small_table();
    server_t* at = nullptr;
    server_t server(stalling_handler(t, &at));
    at = &server;
    kelp_query_t q{.url = url_of(server)};
    kelp_opt_t opt = quick();
    opt.idle_timeout_ms = 200;
    result_t got = run(q, opt);
    EXPECT_EQ(KELP_ETIMEOUT, got.code);
    EXPECT_NE(nullptr, strstr(got.err.text, "has sent nothing for 200 ms")) << got.err.text;
    opt = quick();
    opt.total_timeout_ms = 200;
    got = run(q, opt);
    EXPECT_EQ(KELP_ETIMEOUT, got.code);
    EXPECT_NE(nullptr, strstr(got.err.text, "did not finish in 200 ms")) << got.err.text;
}

// Sends `head`, then `piece` over and over, until the peer or the test is gone.
server_t::handler_t endless_handler(const table_t& t, server_t** server, std::string head, std::string piece,
                                    std::chrono::milliseconds pause) {
    return [=, &t](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 2)) return;
        send_all(fd, head);
        while (!(*server)->stopping && send_all(fd, piece)) std::this_thread::sleep_for(pause);
    };
}

TEST(ClientTime, NothingThatNobodyReadsKeepsARequestAlive) {
    const table_t t = small_table();
    std::string over = STREAM_HEAD;
    for (const std::string& p : small_pieces(t)) over += chunk(p);
    over += chunk(record_head(0)) + "0\r\n";
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n";
    struct {
        const char* what;
        std::string head, piece;
        bool scan;
        int slow, fast;  // what becomes of it when the pieces trickle, and when they pour
    } const cases[] = {
        {"an error text", "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 100000000\r\n\r\n", "x", true,
         KELP_EREFUSED, KELP_EREFUSED},
        {"an error text in chunks", "HTTP/1.1 502 Bad Gateway\r\nTransfer-Encoding: chunked\r\n\r\n",
         "1\r\nx\r\n", true, KELP_EREFUSED, KELP_EREFUSED},
        {"a text where none belongs", ok, "xxxxxxxxxxxxxxxx", false, KELP_ETIMEOUT, KELP_EPROTO},
        {"a chunked text where none belongs", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
         "10\r\nxxxxxxxxxxxxxxxx\r\n", false, KELP_ETIMEOUT, KELP_EPROTO},
        {"lines of the head", "HTTP/1.1 200 OK\r\n", "X-Header: some text\r\n", true, KELP_ETIMEOUT,
         KELP_EPROTO},
        {"interim replies", "", "HTTP/1.1 100 Continue\r\n\r\n", true, KELP_ETIMEOUT, KELP_EPROTO},
        {"lines of a trailer", over, "X: y\r\n", true, KELP_ETIMEOUT, KELP_EPROTO},
    };
    for (const auto& c : cases)
        for (const bool slow : {true, false}) {
            server_t* at = nullptr;
            server_t server(endless_handler(t, &at, c.head, c.piece, slow ? 20ms : 0ms));
            at = &server;
            kelp_opt_t opt = quick();
            opt.idle_timeout_ms = slow ? 400 : 20000;
            opt.total_timeout_ms = 30000;  // in case it goes on all the same
            kelp_error_t err{};
            int code;
            if (c.scan) {
                kelp_query_t q{.url = url_of(server)};
                q.njob = 1;
                const result_t got = run(q, opt);
                code = got.code;
                err = got.err;
            } else {
                code = kelp_remove(url_of(server), opt, &err);
            }
            EXPECT_EQ(slow ? c.slow : c.fast, code) << c.what << " " << slow << ": " << err.text;
            EXPECT_EQ(nullptr, strstr(err.text, "did not finish")) << c.what << " " << slow;
        }
}

TEST(ClientTime, AnUploadThatGoesOnSlowlyIsNotIdle) {
    support::temp_dir_t dir;
    constexpr size_t FILESZ = 700000;
    support::write_file(dir / "p.cvn", std::string(FILESZ, 'x'));
    // Half of what libcurl takes of the file at once needs longer than the time-out.
    server_t server(
        [&](int fd, const request_t&) {
            std::string in;
            char buf[16384];
            while (in.size() < FILESZ) {
                const ssize_t n = read(fd, buf, sizeof(buf));
                if (n <= 0) return;
                in.append(buf, static_cast<size_t>(n));
                std::this_thread::sleep_for(std::chrono::microseconds(n * 8));
            }
            send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
        },
        true);
    kelp_opt_t opt = quick();
    opt.idle_timeout_ms = 1500;
    kelp_error_t err{};
    EXPECT_EQ(0, kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, opt, &err))
        << err.text;
}

TEST(ClientTime, AnUploadThatStallsIsReportedAsWhatItIs) {
    support::temp_dir_t dir;
    support::write_file(dir / "large.cvn", std::string(8 << 20, 'x'));
    support::write_file(dir / "small.cvn", "x");
    server_t* at = nullptr;
    server_t server(
        [&](int, const request_t&) {
            while (!at->stopping) std::this_thread::sleep_for(5ms);
        },
        true);
    at = &server;
    kelp_opt_t opt = quick();
    opt.idle_timeout_ms = 300;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ETIMEOUT,
              kelp_upload(url_of(server), (dir / "large.cvn").c_str(), nullptr, nullptr, opt, &err));
    EXPECT_NE(nullptr, strstr(err.text, "has taken nothing of the file for 300 ms")) << err.text;
    EXPECT_EQ(KELP_ETIMEOUT,
              kelp_upload(url_of(server), (dir / "small.cvn").c_str(), nullptr, nullptr, opt, &err));
    EXPECT_NE(nullptr, strstr(err.text, "has not answered the upload for 300 ms")) << err.text;
}

TEST(ClientTime, TheTotalTimeOfAScanIncludesItsCatalogue) {
    const table_t t = small_table();
    server_t server([&](int fd, const request_t& r) {
        std::this_thread::sleep_for(300ms);
        fake::serve_catalogue(fd, r, t, 2);
    });
    kelp_query_t q{.url = url_of(server)};
    kelp_opt_t opt = quick();
    opt.total_timeout_ms = 500;  // enough for each of two requests
    kelp_scan_t* scan = nullptr;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ETIMEOUT, kelp_scan_open(&scan, q, opt, &err)) << err.text;
    EXPECT_EQ(nullptr, scan);
    kelp_scan_close(scan);
}

TEST(ClientTime, CancellingDoesNotWaitForAHostNameToBeFound) {
    kelp_url_t url;
    ASSERT_EQ(0, kelp_url_parse(&url, "kelp://slow.invalid:1/db", nullptr));
    std::atomic<bool> flag{false};
    kelp_opt_t opt = quick();
    opt.cancel = &flag;
    std::thread other([&] {
        for (int i = 0; i < 1000 && lookup::pending == 0; i++) std::this_thread::sleep_for(10ms);
        flag = true;
    });
    std::vector<std::string> name;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ECANCEL, kelp_list(&name, url, opt, &err)) << err.text;
    EXPECT_EQ(1, lookup::pending);  // it goes on
    lookup::released = true;
    other.join();
    for (int i = 0; i < 1000 && lookup::pending > 0; i++) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(0, lookup::pending);
}

TEST(ClientTime, CancellingEndsAWait) {
    const table_t t = small_table();
    server_t* at = nullptr;
    server_t server(stalling_handler(t, &at));
    at = &server;
    kelp_query_t q{.url = url_of(server)};
    for (const bool by_flag : {false, true}) {
        std::atomic<bool> flag{false};
        kelp_opt_t opt = quick();
        opt.idle_timeout_ms = 0;
        opt.cancel = &flag;
        kelp_scan_t* scan = nullptr;
        ASSERT_EQ(0, kelp_scan_open(&scan, q, opt, nullptr));
        std::thread other([&] {
            std::this_thread::sleep_for(50ms);
            if (by_flag)
                flag = true;
            else
                kelp_scan_cancel(scan);
        });
        EXPECT_EQ(KELP_ECANCEL, drain(scan).code);
        other.join();
        kelp_scan_close(scan);
    }
}

TEST(ClientTime, AScanMayBeClosedInTheMiddle) {
    const table_t t = support::all_types_table(8, 2000);
    server_t server(table_handler(t, 20));
    for (const int n : {0, 1, 5}) {
        kelp_query_t q{.url = url_of(server)};
        q.njob = 3;
        q.max_flight_nbyte = 1;
        kelp_scan_t* scan = nullptr;
        ASSERT_EQ(0, kelp_scan_open(&scan, q, quick(), nullptr));
        for (int i = 0; i < n; i++) {
            kelp_batch_t* batch = nullptr;
            ASSERT_EQ(0, kelp_scan_next(scan, &batch, nullptr));
            kelp_batch_free(batch);
        }
        kelp_scan_close(scan);
    }
}

}  // namespace
