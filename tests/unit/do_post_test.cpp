// What becomes of a query before it reaches a scan or a command.
#include "server_support.h"

namespace {
using namespace server_support;

class DoPost : public DataDir {
 protected:
    void SetUp() override {
        DataDir::SetUp();
        fs::create_directories("base/d/s/e");
    }
    static void expect_status(const char* status, const result_t& r) {
        EXPECT_STREQ(status, r.status);
        EXPECT_EQ("", r.reply);
    }
    static void expect_empty_stream(const result_t& r) {
        EXPECT_EQ(nullptr, r.status);
        EXPECT_EQ(STREAM_HEAD + STREAM_END, r.reply);
    }
    static result_t post_raw(const std::string& header, const std::string& body) {
        return run(do_post, "POST /v1/d/s/e HTTP/1.1\r\n" + header + "\r\n" + body);
    }
};

TEST_F(DoPost, AboveTheEntityThereIsNoReply) {
    for (const char* url : {"/v1", "/v1/d", "/v1/d/s"}) expect_status(nullptr, post(url, "{}"));
}
TEST_F(DoPost, APartitionIsRefused) {
    expect_status("400 Bad Request - invalid url", post("/v1/d/s/e/p.cvn", "{}"));
}
TEST_F(DoPost, PassesTheStatusOfABadUrlOn) {
    expect_status("400 Bad Request - invalid version", post("/v3/d/s/e", "{}"));
    expect_status("400 Bad Request - invalid url", post("/v1/d/.s/e", "{}"));
}
TEST_F(DoPost, NoBodyStandsForAnEmptyObject) {
    expect_empty_stream(post_raw("", "[not read"));
    expect_empty_stream(post_raw("Content-Length: 0\r\n", "[not read"));
    expect_empty_stream(post_raw("Content-Length: -1\r\n", "[not read"));
    expect_empty_stream(post_raw("Content-Length: -4294967294\r\n", "[]"));  // its low 32 bits are 2
    expect_empty_stream(post_raw("Content-Length: -9223372036854775808\r\n", "[]"));
    expect_empty_stream(post("/v1/d/s/e", "{}"));
}
TEST_F(DoPost, AcceptsABodyOfTheLimitAndNoByteMore) {
    expect_empty_stream(post("/v1/d/s/e", "{}" + std::string(32766, ' ')));
    expect_status("400 Bad Request - invalid content", post("/v1/d/s/e", "{}" + std::string(32767, ' ')));
    expect_status("400 Bad Request - invalid content",
                  post_raw("Content-Length: 9223372036854775807\r\n", "{}"));
}
TEST_F(DoPost, ReadsOnlyTheLengthOfTheBody) {
    expect_empty_stream(post_raw("Content-Length: 2\r\n", "{}garbage"));
    expect_status("400 Bad Request - invalid content", post_raw("Content-Length: 1\r\n", "{}"));
}
TEST_F(DoPost, AShortBodyIsRefused) {
    expect_status("400 Bad Request", post_raw("Content-Length: 3\r\n", "{}"));
    expect_status("400 Bad Request", post_raw("Content-Length: 30000\r\n", std::string(20000, ' ')));
}
TEST_F(DoPost, AMissingEntityIsNotFound) { expect_status("404 Not Found", post("/v1/d/s/none", "{}")); }
TEST_F(DoPost, AnEmptyCommandGoesToTheScan) { expect_empty_stream(post("/v1/d/s/e", R"({"command": []})")); }
TEST_F(DoPost, ACommandWithColumnsOrConditionsGetsNoReply) {
    expect_status(nullptr, post("/v1/d/s/e", R"({"command": ["sample"], "column": ["a"]})"));
    expect_status(nullptr, post("/v1/d/s/e", R"({"command": ["none"], "condition": [["a", "isnull"]]})"));
}
TEST_F(DoPost, AnUnknownCommandIsRefused) {
    expect_status("400 Bad Request", post("/v1/d/s/e", R"({"command": ["Meta"]})"));
    expect_status("400 Bad Request", post("/v1/d/s/e", R"({"command": [""]})"));
}
TEST_F(DoPost, LogsItsStepsWhenVerbose) {
    verbose = 1;
    const std::string head = "POST /v1/d/s/e HTTP/1.1\ndo_post /v1/d/s/e\n  post body: ";
    EXPECT_EQ(head + "{}\n", post_raw("", "").log);
    EXPECT_EQ(head + "{\"command\":[\"meta\"]}\ncommand: meta, status 200\n",
              post("/v1/d/s/e", R"({"command":["meta"]})").log);
    EXPECT_EQ(
        head +
            "{\"command\":[\"x\"]}\ncommand: x, status 400 Bad Request\nPOST returns error 400 Bad Request\n",
        post("/v1/d/s/e", R"({"command":["x"]})").log);
    EXPECT_EQ(head + "[]\nPOST returns error 400 Bad Request - invalid content\n",
              post("/v1/d/s/e", "[]").log);
}
}  // namespace
