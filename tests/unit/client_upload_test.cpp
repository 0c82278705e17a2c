// Uploads and removals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>

#include "client/queries.h"

namespace {

using namespace queries;
using namespace std::chrono_literals;

TEST(ClientUpload, SendsTheWholeFileAndReportsProgress) {
    support::temp_dir_t dir;
    std::mt19937_64 rng(5);
    const std::string bytes = support::random_bytes(rng, 3000000);
    support::write_file(dir / "p 1.cvn", bytes);
    server_t server(
        [&](int fd, const request_t&) { send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"); });
    struct progress_t {
        int64_t last = 0;
        int calls = 0;
        int64_t stop_at = INT64_MAX;
    } progress;
    const auto report = [](void* arg, int64_t done, int64_t total) {
        auto* p = static_cast<progress_t*>(arg);
        EXPECT_GE(done, p->last);
        EXPECT_EQ(3000000, total);
        p->last = done;
        p->calls++;
        return done < p->stop_at;
    };
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_upload(url_of(server), (dir / "p 1.cvn").c_str(), report, &progress, quick(), &err))
        << err.text;
    const request_t r = server.requests().at(0);
    EXPECT_EQ("PUT", r.method);
    EXPECT_EQ("/v1/db/sc/t/p%201.cvn", r.url);
    EXPECT_TRUE(bytes == r.body);
    EXPECT_EQ(std::string::npos, r.head.find("Expect")) << r.head;
    EXPECT_NE(std::string::npos, r.head.find("Content-Length: 3000000")) << r.head;
    EXPECT_EQ(3000000, progress.last);
    EXPECT_GT(progress.calls, 2);

    progress = {.stop_at = 1000000};
    EXPECT_EQ(KELP_ECANCEL,
              kelp_upload(url_of(server), (dir / "p 1.cvn").c_str(), report, &progress, quick(), &err));
    EXPECT_EQ(KELP_EFILE,
              kelp_upload(url_of(server), (dir / "none").c_str(), nullptr, nullptr, quick(), &err));
    EXPECT_EQ(KELP_EFILE, kelp_upload(url_of(server), dir.str().c_str(), nullptr, nullptr, quick(), &err));
    EXPECT_EQ(KELP_EARG,
              kelp_upload(url_of(server, "/db"), (dir / "p 1.cvn").c_str(), nullptr, nullptr, quick(), &err));
}

TEST(ClientUpload, ARefusalIsReported) {
    support::temp_dir_t dir;
    support::write_file(dir / "p.cvn", "no data file");
    server_t server([&](int fd, const request_t&) { send_all(fd, error_reply("400 Bad Request")); });
    kelp_error_t err{};
    EXPECT_EQ(KELP_EREFUSED,
              kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, quick(), &err));
    EXPECT_STREQ("400 Bad Request", err.said);
    EXPECT_NE(nullptr, strstr(err.hint, "verify")) << err.hint;
}

TEST(ClientUpload, OnlyTheDaemonsWordForABadFileBlamesTheFile) {
    support::temp_dir_t dir;
    support::write_file(dir / "p.cvn", "a good data file");
    text_t status;
    server_t server([&](int fd, const request_t&) { send_all(fd, error_reply(status.get())); });
    for (const char* other :
         {"400 Bad Request - missing Content-Length", "400 <html>", "500 Internal Server Error"}) {
        status = other;
        kelp_error_t err{};
        EXPECT_EQ(KELP_EREFUSED,
                  kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, quick(), &err));
        EXPECT_EQ(nullptr, strstr(err.hint, "verify")) << other << ": " << err.hint;
    }
}

// As a proxy passes on a reply that has neither body nor length.
TEST(ClientUpload, AChunkedReplyWithoutABodyIsSuccess) {
    support::temp_dir_t dir;
    support::write_file(dir / "p.cvn", "x");
    text_t reply;
    std::string said;
    server_t server([&](int fd, const request_t&) { send_all(fd, reply.get()); });
    const auto both = [&](const std::string& text) {
        reply = text;
        kelp_error_t err{};
        const int put = kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, quick(), &err);
        EXPECT_EQ(put, kelp_remove(url_of(server), quick(), &err)) << text;
        said = err.text;
        return put;
    };
    const std::string head = "HTTP/1.1 200 OK\r\nServer: nginx\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(0, both(head + "0\r\n\r\n"));
    EXPECT_EQ(0, both(head + chunk("done") + "0\r\n\r\n"));
    EXPECT_EQ(KELP_ECUT, both(head));
    EXPECT_EQ(KELP_ECUT, both(head + chunk("done")));
    EXPECT_EQ("the server closed the connection in the middle of its reply", said);
    EXPECT_EQ(KELP_ECUT, both(head + chunk("done") + "500 Bro"));
    EXPECT_EQ("the server broke off its reply: 500 Bro", said);
    EXPECT_EQ(KELP_EREFUSED, both("HTTP/1.1 204 No Content\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"));
}

TEST(ClientUpload, AFileThatGrowsIsSentAsItWasAnnounced) {
    support::temp_dir_t dir;
    const std::string bytes(600000, 'x');
    support::write_file(dir / "p.cvn", bytes);
    server_t server(
        [&](int fd, const request_t&) { send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"); });
    struct grow_t {
        std::string path;
        int64_t most = 0;
    } grow{dir / "p.cvn"};
    const auto append = [](void* arg, int64_t done, int64_t) {
        auto* g = static_cast<grow_t*>(arg);
        if (g->most == 0) std::ofstream(g->path, std::ios::app) << std::string(100000, 'y');
        g->most = std::max(g->most, done);
        return true;
    };
    kelp_error_t err{};
    EXPECT_EQ(0, kelp_upload(url_of(server), grow.path.c_str(), append, &grow, quick(), &err)) << err.text;
    EXPECT_EQ(700000u, std::filesystem::file_size(grow.path));
    EXPECT_EQ(600000, grow.most);
    EXPECT_TRUE(bytes == server.requests().at(0).body);
}

TEST(ClientUpload, APipeIsRefusedWithoutWaitingForItsOtherEnd) {
    support::temp_dir_t dir;
    const std::string path = dir / "pipe.cvn";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    kelp_url_t url;
    ASSERT_EQ(0, kelp_url_parse(&url, "kelp://127.0.0.1:1/d/s/t", nullptr));
    kelp_error_t err{};
    auto upload = std::async(std::launch::async,
                             [&] { return kelp_upload(url, path.c_str(), nullptr, nullptr, quick(), &err); });
    const bool ready = upload.wait_for(20s) == std::future_status::ready;
    EXPECT_TRUE(ready);
    if (!ready) close(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(KELP_EFILE, upload.get());
    EXPECT_NE(nullptr, strstr(err.text, "is no regular file")) << err.text;
}

TEST(ClientRemove, NeedsADatabase) {
    server_t server(
        [&](int fd, const request_t&) { send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"); });
    kelp_error_t err{};
    EXPECT_EQ(KELP_EARG, kelp_remove(url_of(server, ""), quick(), &err));
    EXPECT_EQ(0, kelp_remove(url_of(server, "/db/sc/t/p.cvn"), quick(), &err)) << err.text;
    ASSERT_EQ(1u, server.requests().size());
    EXPECT_EQ("DELETE", server.requests()[0].method);
    EXPECT_EQ("/v1/db/sc/t/p.cvn", server.requests()[0].url);
}

}  // namespace
