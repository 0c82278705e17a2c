// The linker puts the select and the read below in front of the C library's, so that a test can say how the
// calls on its connection end.
#include <errno.h>
#include <netinet/in.h>
#include <sys/select.h>

#include "server_support.h"

namespace {
using namespace server_support;

// The connection under test. The client's thread reads as well, but from another descriptor.
struct script_t {
    int fd = -1;
    int select_errno = 0;       // the first select fails with it, 0 for none
    std::vector<ssize_t> read;  // the reads in their order: the most they give, or -errno; then unbounded
    int nselect = 0;            // select calls made
    std::vector<size_t> read_asked;  // what each read asked for
};
script_t script;
}  // namespace

extern "C" {
int __real_select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* tv);
ssize_t __real_read(int fd, void* buf, size_t n);
int __wrap_select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* tv);
ssize_t __wrap_read(int fd, void* buf, size_t n);

int __wrap_select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* tv) {
    if (nfds == script.fd + 1 && ++script.nselect == 1 && script.select_errno != 0) {
        errno = script.select_errno;
        return -1;
    }
    return __real_select(nfds, r, w, e, tv);
}
ssize_t __wrap_read(int fd, void* buf, size_t n) {
    if (fd != script.fd) return __real_read(fd, buf, n);
    const size_t at = script.read_asked.size();
    script.read_asked.push_back(n);
    if (at >= script.read.size()) return __real_read(fd, buf, n);
    if (script.read[at] >= 0) return __real_read(fd, buf, std::min(n, static_cast<size_t>(script.read[at])));
    errno = static_cast<int>(-script.read[at]);
    return -1;
}
}

namespace {

// A request read from `bytes`, the client then ending its side or keeping it open.
struct read_t {
    explicit read_t(const std::string& bytes, bool keep_open = false) : client(bytes, keep_open) {
        testing::internal::CaptureStderr();
        err = htreq_create(&req, client.fd());
        log = testing::internal::GetCapturedStderr();
    }
    ~read_t() { free(req); }
    read_t(const read_t&) = delete;
    read_t& operator=(const read_t&) = delete;
    client_t client;
    htrequest_t* req = reinterpret_cast<htrequest_t*>(1);  // not null, so that the clearing is seen
    const char* err = nullptr;
    std::string log;
};

// A request read from a connection that all of `bytes` reached before the first read, and that then ended.
struct scripted_t {
    explicit scripted_t(const std::string& bytes, const script_t& how = {}) {
        int fd[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), send(fd[1], bytes.data(), bytes.size(), MSG_DONTWAIT));
        close(fd[1]);
        script = how;
        script.fd = fd[0];
        testing::internal::CaptureStderr();
        err = htreq_create(&req, fd[0]);
        log = testing::internal::GetCapturedStderr();
        did = script;
        script = {};
        close(fd[0]);
    }
    ~scripted_t() { free(req); }
    scripted_t(const scripted_t&) = delete;
    scripted_t& operator=(const scripted_t&) = delete;
    htrequest_t* req = reinterpret_cast<htrequest_t*>(1);  // not null, so that the clearing is seen
    const char* err = nullptr;
    std::string log;
    script_t did;
};

void expect_refused(const std::string& bytes, const char* err, const std::string& step) {
    const read_t r(bytes);
    EXPECT_STREQ(err, r.err);
    EXPECT_EQ(nullptr, r.req);
    EXPECT_EQ(step + " failed: " + err + "\n", r.log);
}
void expect_unread(const std::string& bytes, const char* err) { expect_refused(bytes, err, "htreq_readbuf"); }
void expect_unparsed(const std::string& bytes, const char* err) { expect_refused(bytes, err, "htreq_parse"); }

TEST(HtreqCreate, AcceptsAHeadWithoutAHostLine) {
    const read_t r("GET /v1 HTTP/1.1\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("GET", r.req->method);
    EXPECT_STREQ("/v1", r.req->url);
    EXPECT_STREQ("HTTP/1.1", r.req->proto);
    EXPECT_TRUE(r.req->one_one);
    EXPECT_STREQ("", r.req->host);
    EXPECT_STREQ("", r.req->referrer);
    EXPECT_STREQ("", r.req->contenttype);
    EXPECT_EQ(-1, r.req->contentlength);
    EXPECT_EQ(0, r.req->bodysz);
    EXPECT_EQ('\0', *r.req->body);
    EXPECT_EQ("", r.log);
}
TEST(HtreqCreate, AcceptsARequestLineOfTwoWords) {
    const read_t r("GET /v1\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("", r.req->proto);
    EXPECT_TRUE(r.req->one_one);
}
TEST(HtreqCreate, AcceptsATrailingSpaceAsAnEmptyThirdWord) {
    const read_t r("GET /v1 \r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("", r.req->proto);
}
TEST(HtreqCreate, AcceptsAHeadEndingInBareLineFeeds) {
    const read_t r("GET /v1 HTTP/1.1\nHost: h\n\nbody");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("h", r.req->host);
    EXPECT_EQ(4, r.req->bodysz);
    EXPECT_STREQ("body", r.req->body);
}
TEST(HtreqCreate, ACarriageReturnEndWinsOverAnEarlierBareOne) {
    const read_t r("GET /v1 HTTP/1.1\n\nHost: h\r\n\r\nrest");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("rest", r.req->body);
    EXPECT_STREQ("h", r.req->host);
}
TEST(HtreqCreate, AcceptsAnyOtherProtocolText) {
    const read_t r("GET /v1 HTTP/9\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("HTTP/9", r.req->proto);
}
TEST(HtreqCreate, RefusesHttp10InAnyCase) {
    expect_unparsed("GET /v1 HTTP/1.0\r\n\r\n", "htreq_parse: HTTP/1.0 not supported");
    expect_unparsed("GET /v1 http/1.0\r\n\r\n", "htreq_parse: HTTP/1.0 not supported");
}
TEST(HtreqCreate, RefusesTwoSpacesInTheRequestLine) {
    expect_unparsed("GET  /v1 HTTP/1.1\r\n\r\n", "htreq_parse: invalid req line");
}
TEST(HtreqCreate, RefusesOneWordAndNone) {
    expect_unparsed("GET\r\n\r\n", "htreq_parse: invalid req line");
    expect_unparsed("\r\n\r\n", "htreq_parse: invalid req line");
    expect_unparsed("\n\n", "htreq_parse: invalid req line");
    expect_unparsed("\r\nGET /v1\r\n\r\n", "htreq_parse: invalid req line");
}
TEST(HtreqCreate, ReadsTheKnownHeaders) {
    const read_t r(
        "GET /v1 HTTP/1.1\r\nREFERER:\t r1 \r\nhost: example:8080\r\ncontent-TYPE: text/x "
        "\r\nContent-Length: 12\r\n"
        "X-Other: 1\r\nno colon here\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("r1 ", r.req->referrer);
    EXPECT_STREQ("example", r.req->host);
    EXPECT_STREQ("text/x ", r.req->contenttype);
    EXPECT_EQ(12, r.req->contentlength);
}
TEST(HtreqCreate, TakesBothSpellingsOfReferrerAndTheLastLineWins) {
    const read_t r("GET /v1\r\nReferer: a\r\nReferrer: b\r\nHost: x\r\nHost: y\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("b", r.req->referrer);
    EXPECT_STREQ("y", r.req->host);
}
TEST(HtreqCreate, ABlankBeforeTheColonMakesTheNameUnknown) {
    const read_t r("GET /v1\r\nContent-Length : 5\r\nHost : a/b\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_EQ(-1, r.req->contentlength);
    EXPECT_STREQ("", r.req->host);
}
TEST(HtreqCreate, RefusesAHostWithASlashOrALeadingDot) {
    expect_unparsed("GET /v1\r\nHost: a/b\r\n\r\n", "htreq_parse: invalid Host header");
    expect_unparsed("GET /v1\r\nHost: .x\r\n\r\n", "htreq_parse: invalid Host header");
}
TEST(HtreqCreate, DropsWhatFollowsTheHostsColonBeforeJudgingIt) {
    const read_t r("GET /v1\r\nHost: a:b/c\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("a", r.req->host);
}
int64_t length_of(const std::string& value) {
    const read_t r("GET /v1\r\nContent-Length:" + value + "\r\n\r\n");
    EXPECT_EQ(nullptr, r.err) << value;
    return r.req ? r.req->contentlength : INT64_MIN;
}
TEST(HtreqCreate, ReadsALengthInBaseZero) {
    EXPECT_EQ(8, length_of(" 010"));
    EXPECT_EQ(16, length_of("0x10"));
    EXPECT_EQ(0, length_of(" 0b11"));
    EXPECT_EQ(0, length_of(" abc"));
    EXPECT_EQ(0, length_of(""));
    EXPECT_EQ(7, length_of(" 7 bytes"));
    EXPECT_EQ(-5, length_of(" -5"));
    EXPECT_EQ(INT64_MAX, length_of(" 99999999999999999999"));
}
TEST(HtreqCreate, CutsALineAtItsFirstCarriageReturn) {
    const read_t r("GET /v1 HTTP/1.1\rGARBAGE here too\r\nHost: a\rb\r\n\r\n");
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("HTTP/1.1", r.req->proto);
    EXPECT_STREQ("a", r.req->host);
}
std::string head_of_lines(int nline) {
    std::string s = "GET /v1";
    for (int i = 1; i < nline; i++) s += "\r\nA: b";
    return s + "\r\n\r\n";
}
TEST(HtreqCreate, AcceptsNinetyNineLines) { EXPECT_EQ(nullptr, read_t(head_of_lines(99)).err); }
TEST(HtreqCreate, RefusesAHundredLines) {
    expect_unparsed(head_of_lines(100), "htreq_parse: too many lines in req");
    expect_unparsed(head_of_lines(101), "htreq_parse: too many lines in req");
}
// A head of exactly `sz` bytes, its blank line included.
std::string head_of_size(size_t sz) {
    std::string s = "GET /v1\r\nA: ";
    return s + std::string(sz - s.size() - 4, 'x') + "\r\n\r\n";
}
TEST(HtreqCreate, AcceptsAHeadThatFillsTheBuffer) {
    const read_t r(head_of_size(10239));
    ASSERT_EQ(nullptr, r.err);
    EXPECT_EQ(0, r.req->bodysz);
}
TEST(HtreqCreate, RefusesAHeadOneByteLonger) {
    expect_unread(head_of_size(10240), "clnt overflowed request buffer");
}
TEST(HtreqCreate, CountsTheBodyBytesThatCameAlong) {
    const std::string head = "PUT /v1\r\nContent-Length: 3\r\n\r\n";
    const size_t room = 10239 - head.size();
    // Fewer than declared, as declared, more, the buffer filled, and what only a later read would give.
    for (const size_t sz : {size_t{1}, size_t{3}, size_t{4}, room - 1, room, room + 1, size_t{20000}}) {
        const scripted_t r(head + std::string(sz - 1, 'b') + "c");
        ASSERT_EQ(nullptr, r.err);
        EXPECT_EQ(std::min(sz, room), static_cast<size_t>(r.req->bodysz));
        EXPECT_EQ((std::string(sz - 1, 'b') + "c").substr(0, room), r.req->body);
        EXPECT_EQ((std::vector<size_t>{10239}), r.did.read_asked);
    }
}
TEST(HtreqCreate, RefusesAClientThatClosesEarlyAtEveryLength) {
    const std::string whole = "GET /v1 HTTP/1.1\r\n\r\n";
    for (size_t n = 0; n < whole.size(); n++)
        expect_unread(whole.substr(0, n), "clnt closed without valid req");
}
TEST(HtreqCreate, ANulByteHidesTheEndOfTheHead) {
    expect_unread("GET /v1\0\r\n\r\n"s, "clnt closed without valid req");
}
TEST(HtreqCreate, TimesOutOnASilentClient) {
    const read_t r("", true);
    EXPECT_STREQ("clnt timed out", r.err);
    EXPECT_EQ(nullptr, r.req);
    EXPECT_EQ("htreq_readbuf failed: clnt timed out\n", r.log);
}
TEST(HtreqCreate, FailsOnABadDescriptor) {
    constexpr int closed = 60;  // high enough that capturing does not take it
    close(closed);
    for (const int fd : {-1, FD_SETSIZE, closed}) {
        htrequest_t* req = reinterpret_cast<htrequest_t*>(1);
        testing::internal::CaptureStderr();
        EXPECT_STREQ("select failed", htreq_create(&req, fd));
        EXPECT_EQ("htreq_readbuf failed: select failed\n", testing::internal::GetCapturedStderr());
        EXPECT_EQ(nullptr, req);
    }
}
TEST(HtreqCreate, AnInterruptedSelectIsAFailure) {
    // The head is there: a second try would have succeeded.
    const scripted_t r("GET /v1 HTTP/1.1\r\n\r\n", {.select_errno = EINTR});
    EXPECT_STREQ("select failed", r.err);
    EXPECT_EQ(nullptr, r.req);
    EXPECT_EQ("htreq_readbuf failed: select failed\n", r.log);
    EXPECT_EQ(1, r.did.nselect);
    EXPECT_TRUE(r.did.read_asked.empty());
}
TEST(HtreqCreate, AReadErrorStepsBackOneByte) {
    for (const ssize_t err : {EIO, ECONNRESET, EAGAIN}) {
        // Each error takes one more byte off "GET /v1XY" before the rest comes.
        const scripted_t one("GET /v1XY HTTP/1.1\r\n\r\n", {.read = {9, -err}});
        ASSERT_EQ(nullptr, one.err);
        EXPECT_STREQ("/v1X", one.req->url);
        EXPECT_STREQ("HTTP/1.1", one.req->proto);
        EXPECT_EQ(0, one.req->bodysz);
        EXPECT_EQ((std::vector<size_t>{10239, 10230, 10231}), one.did.read_asked);
        EXPECT_EQ("", one.log);
        const scripted_t two("GET /v1XY HTTP/1.1\r\n\r\n", {.read = {9, -err, -err}});
        ASSERT_EQ(nullptr, two.err);
        EXPECT_STREQ("/v1", two.req->url);
        EXPECT_EQ((std::vector<size_t>{10239, 10230, 10231, 10232}), two.did.read_asked);
        EXPECT_EQ(4, two.did.nselect);
    }
}
TEST(HtreqCreate, AReadErrorBeforeTheFirstByteStepsNowhere) {
    const scripted_t r("GET /v1 HTTP/1.1\r\n\r\n", {.read = {-EIO, -EIO, 1, -EIO, -EIO}});
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("ET", r.req->method);  // the first byte was read, then stepped back over
    EXPECT_STREQ("/v1", r.req->url);
    EXPECT_EQ((std::vector<size_t>{10239, 10239, 10239, 10238, 10239, 10239}), r.did.read_asked);
}
TEST(HtreqCreate, AnInterruptedReadIsTriedAgainWhereItStood) {
    const scripted_t r("GET /v1XY HTTP/1.1\r\n\r\n", {.read = {9, -EINTR, -EINTR}});
    ASSERT_EQ(nullptr, r.err);
    EXPECT_STREQ("/v1XY", r.req->url);
    EXPECT_EQ((std::vector<size_t>{10239, 10230, 10230, 10230}), r.did.read_asked);
    EXPECT_EQ(4, r.did.nselect);
}
TEST(HtreqCreate, AResetIsAClientThatClosedEarly) {
    // A TCP client that resets: the first read fails with ECONNRESET, the second is the end.
    const int ls = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    ASSERT_EQ(0, bind(ls, reinterpret_cast<struct sockaddr*>(&a), sizeof(a)));
    ASSERT_EQ(0, listen(ls, 1));
    ASSERT_EQ(0, getsockname(ls, reinterpret_cast<struct sockaddr*>(&a), &len));
    const int c = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(0, connect(c, reinterpret_cast<struct sockaddr*>(&a), sizeof(a)));
    const int s = accept(ls, nullptr, nullptr);
    const struct linger hard = {1, 0};
    ASSERT_EQ(0, setsockopt(c, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)));
    close(c);
    htrequest_t* req = reinterpret_cast<htrequest_t*>(1);
    testing::internal::CaptureStderr();
    EXPECT_STREQ("clnt closed without valid req", htreq_create(&req, s));
    EXPECT_EQ("htreq_readbuf failed: clnt closed without valid req\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(nullptr, req);
    close(s);
    close(ls);
}
TEST(HtreqCreate, PrintsTheRequestLineWhenVerbose) {
    verbose = 1;
    const read_t r("GET /v1 HTTP/1.1\r\nHost: x\r\n\r\n");
    verbose = 0;
    EXPECT_EQ("GET /v1 HTTP/1.1\n", r.log);
}
}  // namespace
