// The linker puts the write and the writev below in front of the C library's, so that a test sees the calls
// on its connection and what becomes of each.
#include <sys/uio.h>
#include <time.h>

#include "server_support.h"

namespace {
using namespace server_support;

// The connection under test, -1 for none. The client's end is emptied into `got` after every write, so that
// there would be room for another.
struct watch_t {
    int fd = -1, client_fd = -1;
    std::vector<ssize_t> wrote;  // the result of each write
    std::string got;
};
watch_t watch;

ssize_t watched(ssize_t n) {
    watch.wrote.push_back(n);
    char buf[65536];
    for (ssize_t k; (k = recv(watch.client_fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0;)
        watch.got.append(buf, static_cast<size_t>(k));
    return n;
}
}  // namespace

extern "C" {
ssize_t __real_write(int fd, const void* buf, size_t n);
ssize_t __real_writev(int fd, const struct iovec* iov, int niov);
ssize_t __wrap_write(int fd, const void* buf, size_t n);
ssize_t __wrap_writev(int fd, const struct iovec* iov, int niov);

ssize_t __wrap_write(int fd, const void* buf, size_t n) {
    const ssize_t ret = __real_write(fd, buf, n);
    return fd == watch.fd ? watched(ret) : ret;
}
ssize_t __wrap_writev(int fd, const struct iovec* iov, int niov) {
    const ssize_t ret = __real_writev(fd, iov, niov);
    return fd == watch.fd ? watched(ret) : ret;
}
}

namespace {

// Runs `use` on a fresh reply and returns what the client received, the date masked.
std::string sent(const std::function<void(htreply_t*)>& use) {
    client_t client("");
    htrequest_t req = {};
    req.fd = client.fd();
    htreply_t* reply = nullptr;
    EXPECT_EQ(nullptr, htreply_create(&reply, &req));
    EXPECT_EQ(client.fd(), reply->fd);
    EXPECT_FALSE(reply->status_sent);
    use(reply);
    free(reply);
    return mask_date(client.finish());
}
bool ok(htreply_t* r) { return htreply_status(r, "200 OK", nullptr, nullptr, nullptr, nullptr); }

TEST(HtreplyStatus, WritesStatusDateAndConnection) {
    EXPECT_EQ(OK_HEAD, sent([](htreply_t* r) {
                  EXPECT_TRUE(ok(r));
                  EXPECT_TRUE(r->status_sent);
              }));
}
TEST(HtreplyStatus, TheSecondCallWritesNothingAndIsTrue) {
    EXPECT_EQ(OK_HEAD, sent([](htreply_t* r) {
                  EXPECT_TRUE(ok(r));
                  EXPECT_TRUE(htreply_status(r, "404 Not Found", "A: b", nullptr, nullptr, nullptr));
              }));
}
TEST(HtreplyStatus, TheFirstNullEndsTheHeaderLines) {
    EXPECT_EQ("HTTP/1.1 299 Odd\r\nDate: *\r\nConnection: close\r\nA: 1\r\nB: 2\r\n\r\n",
              sent([](htreply_t* r) {
                  EXPECT_TRUE(htreply_status(r, "299 Odd", "A: 1", "B: 2", nullptr, "D: 4"));
              }));
    EXPECT_EQ("HTTP/1.1 299 Odd\r\nDate: *\r\nConnection: close\r\nA: 1\r\nB: 2\r\nC: 3\r\nD: 4\r\n\r\n",
              sent([](htreply_t* r) {
                  EXPECT_TRUE(htreply_status(r, "299 Odd", "A: 1", "B: 2", "C: 3", "D: 4"));
              }));
    EXPECT_EQ(OK_HEAD, sent([](htreply_t* r) {
                  EXPECT_TRUE(htreply_status(r, "200 OK", nullptr, "B: 2", "C", "D"));
              }));
}
TEST(HtreplyStatus, CutsALongHeadAt999Bytes) {
    const std::string status(990, 's');
    EXPECT_EQ("HTTP/1.1 " + status, sent([&](htreply_t* r) {
                  EXPECT_TRUE(htreply_status(r, status.c_str(), nullptr, nullptr, nullptr, nullptr));
              }));
    const std::string line = "X: " + std::string(990, 'x');
    client_t client("");
    htreply_t r = {client.fd(), false};
    EXPECT_TRUE(htreply_status(&r, "200 OK", line.c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(999u, client.finish().size());
}
TEST(HtreplyStatus, TheDateIsNowInGmt) {
    client_t client("");
    htreply_t r = {client.fd(), false};
    const time_t before = time(nullptr);
    EXPECT_TRUE(ok(&r));
    const time_t after = time(nullptr);
    const std::string got = client.finish();
    const size_t at = got.find("Date: ");
    ASSERT_NE(std::string::npos, at);
    struct tm tm = {};
    ASSERT_NE(nullptr, strptime(got.c_str() + at + 6, RFC1123FMT, &tm));
    EXPECT_LE(before, timegm(&tm));
    EXPECT_GE(after, timegm(&tm));
}
TEST(HtreplyStatus, FailsWhenThePeerHasGoneAndCountsAsAttempted) {
    signal(SIGPIPE, SIG_IGN);
    int fd[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
    close(fd[1]);
    htreply_t r = {fd[0], false};
    EXPECT_FALSE(ok(&r));
    EXPECT_TRUE(r.status_sent);
    EXPECT_TRUE(ok(&r));
    EXPECT_FALSE(htreply_chunk(&r, "x", 1));
    EXPECT_TRUE(htreply_chunk(&r, nullptr, 0));  // the end reports no failure
    htreply_error(&r, "500 Internal Server Error");
    htreply_t fresh = {fd[0], false};
    EXPECT_FALSE(htreply_chunk(&fresh, nullptr, 0));  // but a head that was due does
    htreply_t json = {fd[0], false};
    EXPECT_FALSE(htreply_json(&json, "[]", 2));
    close(fd[0]);
}
TEST(HtreplyChunk, TheFirstSendsTheHeadOfAStream) {
    const std::string data(500, 'd');
    EXPECT_EQ(STREAM_HEAD + "1f4; chunk\r\n" + data + "\r\na; chunk\r\n0123456789\r\n0\r\n\r\n",
              sent([&](htreply_t* r) {
                  EXPECT_TRUE(htreply_chunk(r, data.data(), 500));
                  EXPECT_TRUE(htreply_chunk(r, "0123456789", 10));
                  EXPECT_TRUE(htreply_chunk(r, nullptr, 0));
              }));
}
TEST(HtreplyChunk, AnEmptyFirstChunkIsAWholeEmptyReply) {
    EXPECT_EQ(STREAM_HEAD + "0\r\n\r\n", sent([](htreply_t* r) { EXPECT_TRUE(htreply_chunk(r, "", 0)); }));
}
TEST(HtreplyChunk, SendsMegabytesWhole) {
    const std::string data(3 << 20, 'm');
    const std::string got = sent([&](htreply_t* r) { EXPECT_TRUE(htreply_chunk(r, data.data(), 3 << 20)); });
    EXPECT_TRUE(got == STREAM_HEAD + "300000; chunk\r\n" + data + "\r\n");
}
// Runs `use` on a reply whose connection takes but a part of 3 MB at once: it must be false, after one write
// of the head, unless it was sent before, and one that gave the client a true part of `whole`.
void expect_short(const std::string& whole, const std::function<bool(htreply_t*)>& use) {
    for (const bool head_sent : {false, true}) {
        int fd[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fd));
        const int small = 4096;
        ASSERT_EQ(0, setsockopt(fd[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)));
        watch = {.fd = fd[0], .client_fd = fd[1]};
        htreply_t r = {fd[0], head_sent};
        EXPECT_FALSE(use(&r));
        EXPECT_TRUE(r.status_sent);
        const watch_t did = watch;
        watch = {};
        close(fd[0]);
        close(fd[1]);
        const size_t headsz = head_sent ? 0 : did.got.find("\r\n\r\n") + 4;
        ASSERT_EQ(head_sent ? 1u : 2u, did.wrote.size());
        if (!head_sent) {
            EXPECT_EQ(static_cast<ssize_t>(headsz), did.wrote[0]);
        }
        EXPECT_EQ(static_cast<ssize_t>(did.got.size() - headsz), did.wrote.back());
        const std::string got = mask_date(did.got);
        const std::string want = head_sent ? whole.substr(whole.find("\r\n\r\n") + 4) : whole;
        EXPECT_GT(did.got.size(), headsz + 500);
        EXPECT_LT(got.size(), want.size());
        EXPECT_TRUE(got == want.substr(0, got.size()));
    }
}
// What each write of `use` sent.
std::vector<std::string> writes(const std::function<void(htreply_t*)>& use) {
    int fd[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
    watch = {.fd = fd[0], .client_fd = fd[1]};
    htreply_t r = {fd[0], false};
    use(&r);
    const watch_t did = watch;
    watch = {};
    close(fd[0]);
    close(fd[1]);
    std::vector<std::string> part;
    size_t at = 0;
    for (const ssize_t n : did.wrote) {
        part.push_back(mask_date(did.got.substr(at, static_cast<size_t>(n))));
        at += static_cast<size_t>(n);
    }
    EXPECT_EQ(did.got.size(), at);
    return part;
}
using parts = std::vector<std::string>;
TEST(Htreply, HeadAndBodyAreWritesOfTheirOwn) {
    EXPECT_EQ((parts{STREAM_HEAD, "1; chunk\r\nx\r\n", "2; chunk\r\nyz\r\n", "0\r\n\r\n"}),
              writes([](htreply_t* r) {
                  EXPECT_TRUE(htreply_chunk(r, "x", 1));
                  EXPECT_TRUE(htreply_chunk(r, "yz", 2));
                  EXPECT_TRUE(htreply_chunk(r, nullptr, 0));
              }));
    EXPECT_EQ((parts{STREAM_HEAD, "0\r\n\r\n"}),
              writes([](htreply_t* r) { EXPECT_TRUE(htreply_chunk(r, "", 0)); }));
    const std::string json = json_reply("[1]");
    EXPECT_EQ((parts{json.substr(0, json.size() - 3), "[1]"}),
              writes([](htreply_t* r) { EXPECT_TRUE(htreply_json(r, "[1]", 3)); }));
    const parts error = writes([](htreply_t* r) { htreply_error(r, "404 Not Found"); });
    ASSERT_EQ(2u, error.size());
    EXPECT_TRUE(error[0].ends_with("Content-type: application/plain\r\n\r\n")) << error[0];
    EXPECT_EQ("404 Not Found", error[1]);
}
TEST(Htreply, NothingButAnErrorTextFollowsAHeadThatFailed) {
    signal(SIGPIPE, SIG_IGN);
    const auto nwrite = [](const std::function<void(htreply_t*)>& use) {
        int fd[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
        shutdown(fd[1], SHUT_RD);
        watch = {.fd = fd[0], .client_fd = fd[1]};
        htreply_t r = {fd[0], false};
        use(&r);
        const std::vector<ssize_t> wrote = watch.wrote;
        watch = {};
        close(fd[0]);
        close(fd[1]);
        EXPECT_EQ(std::vector<ssize_t>(wrote.size(), -1), wrote);
        return wrote.size();
    };
    EXPECT_EQ(1u, nwrite([](htreply_t* r) { EXPECT_FALSE(htreply_chunk(r, "x", 1)); }));
    EXPECT_EQ(1u, nwrite([](htreply_t* r) { EXPECT_FALSE(htreply_chunk(r, nullptr, 0)); }));
    EXPECT_EQ(1u, nwrite([](htreply_t* r) { EXPECT_FALSE(htreply_json(r, "x", 1)); }));
    EXPECT_EQ(2u, nwrite([](htreply_t* r) { htreply_error(r, "404 Not Found"); }));
}
TEST(HtreplyChunk, FailsAfterAShortWriteAndRetriesNothing) {
    const std::string data(3 << 20, 'm');
    expect_short(STREAM_HEAD + "300000; chunk\r\n" + data + "\r\n",
                 [&](htreply_t* r) { return htreply_chunk(r, data.data(), 3 << 20); });
}
TEST(HtreplyChunk, RefusesANegativeSizeWithoutWriting) {
    EXPECT_EQ("", sent([](htreply_t* r) { EXPECT_FALSE(htreply_chunk(r, "", -1)); }));
}
TEST(HtreplyJson, SendsLengthAndType) {
    EXPECT_EQ(json_reply("[1]"), sent([](htreply_t* r) { EXPECT_TRUE(htreply_json(r, "[1]", 3)); }));
}
TEST(HtreplyJson, OfNothingHasLengthZeroAndNoBody) {
    EXPECT_EQ(json_reply(""), sent([](htreply_t* r) { EXPECT_TRUE(htreply_json(r, "x", 0)); }));
}
TEST(HtreplyJson, FollowsAnEarlierHeadBare) {
    EXPECT_EQ(OK_HEAD + "{}", sent([](htreply_t* r) {
                  EXPECT_TRUE(ok(r));
                  EXPECT_TRUE(htreply_json(r, "{}", 2));
              }));
}
TEST(HtreplyJson, FailsAfterAShortWriteAndRetriesNothing) {
    const std::string data(3 << 20, 'j');
    expect_short(json_reply(data), [&](htreply_t* r) { return htreply_json(r, data.data(), 3 << 20); });
}
TEST(HtreplyError, HasTheStatusAsLineAndAsBody) {
    EXPECT_EQ(
        "HTTP/1.1 404 Not Found\r\nDate: *\r\nConnection: close\r\nContent-length: 13\r\n"
        "Content-type: application/plain\r\n\r\n404 Not Found",
        sent([](htreply_t* r) { htreply_error(r, "404 Not Found"); }));
    EXPECT_EQ(
        "HTTP/1.1 400 Bad Request - invalid url\r\nDate: *\r\nConnection: close\r\nContent-length: 29\r\n"
        "Content-type: application/plain\r\n\r\n400 Bad Request - invalid url",
        sent([](htreply_t* r) { htreply_error(r, "400 Bad Request - invalid url"); }));
}
TEST(HtreplyError, CutsOnlyTheHeadOfALongStatus) {
    const auto error = [](const std::string& status) {
        return sent([&](htreply_t* r) { htreply_error(r, status.c_str()); });
    };
    const std::string s990 = std::string(989, 's') + "!";
    EXPECT_EQ("HTTP/1.1 " + s990 + s990, error(s990));
    const std::string s984 = std::string(983, 's') + "!";
    EXPECT_EQ("HTTP/1.1 " + s984 + "\r\nDate" + s984, error(s984));
    const std::string s2000 = std::string(1999, 's') + "!";
    EXPECT_EQ("HTTP/1.1 " + s2000.substr(0, 990) + s2000, error(s2000));
}
TEST(HtreplyError, InAStreamIsOnlyTheText) {
    EXPECT_EQ(STREAM_HEAD + "1; chunk\r\nx\r\n400 Bad Request", sent([](htreply_t* r) {
                  EXPECT_TRUE(htreply_chunk(r, "x", 1));
                  htreply_error(r, "400 Bad Request");
              }));
}
}  // namespace
