#include <netinet/in.h>
#include <sys/select.h>

#include "tests/server_support.h"

namespace {
using namespace server_support;

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
    const read_t r(head + std::string(20000, 'b'), true);
    ASSERT_EQ(nullptr, r.err);
    // One read of a full buffer, or fewer bytes when the client was slower.
    EXPECT_GT(r.req->bodysz, 0);
    EXPECT_LE(r.req->bodysz, static_cast<int>(10239 - head.size()));
    EXPECT_EQ('\0', r.req->body[r.req->bodysz]);
    EXPECT_EQ(std::string(static_cast<size_t>(r.req->bodysz), 'b'), r.req->body);
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
TEST(HtreqCreate, AReadErrorStepsBackAndTheNextReadReportsTheEnd) {
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
    (void)testing::internal::GetCapturedStderr();
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
