#include "server_support.h"

namespace {
using namespace server_support;

class DoDelete : public DataDir {
 protected:
    void SetUp() override {
        DataDir::SetUp();
        fs::create_directories("base/d/s/e");
        fs::create_directories("base/d2");
        write_file("base/d/s/e/f", "x");
    }
    static void expect_removed(const char* url, const char* path) {
        const result_t r = del(url);
        EXPECT_EQ(nullptr, r.status);
        EXPECT_EQ(OK_HEAD, r.reply);
        EXPECT_EQ("", r.log);
        EXPECT_FALSE(fs::exists(path));
    }
};

TEST_F(DoDelete, RemovesWhatEachDepthNames) {
    expect_removed("/v1/d/s/e/f", "base/d/s/e/f");
    EXPECT_TRUE(fs::exists("base/d/s/e"));
    expect_removed("/v1/d/s/e", "base/d/s/e");
    expect_removed("/v1/d/s", "base/d/s");
    EXPECT_TRUE(fs::exists("base/d"));
    expect_removed("/v1/d", "base/d");
    EXPECT_TRUE(fs::exists("base/d2"));
    expect_removed("/v1", "base");
}
TEST_F(DoDelete, AMissingNameIsOk) { expect_removed("/v1/none/at/all/here", "base/none"); }
TEST_F(DoDelete, EveryBadUrlHasTheOneStatus) {
    for (const char* url : {"/v2/d", "/", "/v1/..", "/v1/d/s/e/f/g", "abc"}) {
        const result_t r = del(url);
        EXPECT_STREQ("400 Bad Request - invalid url", r.status) << url;
        EXPECT_EQ("", r.reply);
    }
    EXPECT_TRUE(fs::exists("base/d/s/e/f"));
}
TEST_F(DoDelete, AFailedRemovalIsAServerErrorAndIsLogged) {
    write_file("base/d/s/plain", "x");
    const result_t r = del("/v1/d/s/plain/x");
    EXPECT_STREQ("500 Internal Server Error", r.status);
    EXPECT_EQ("", r.reply);
    EXPECT_EQ("Error unlink base/d/s/plain/x: Not a directory\n", r.log);
    EXPECT_TRUE(fs::exists("base/d/s/plain"));
}
TEST_F(DoDelete, LogsThePathWhenVerbose) {
    verbose = 1;
    EXPECT_EQ("DELETE /v1/d HTTP/1.1\n  do_delete: base/d\n", del("/v1/d").log);
}
TEST_F(DoDelete, AnOpenScanReadsOn) {
    write_cvn("base/d/s/e/p.cvn", {{"id", CVN_TYP_INT32}}, 100);
    cvn_scan_t* scan = nullptr;
    ASSERT_EQ(0, cvn_scan_open(&scan, "base/d/s/e/p.cvn"));
    ASSERT_EQ(0, cvn_scan_add_required(scan, "id"));
    expect_removed("/v1/d", "base/d");
    int npage = 0;
    cvn_page_t** page = nullptr;
    EXPECT_EQ(0, cvn_scan_next(scan, &npage, &page, false));
    EXPECT_EQ(1, npage);
    cvn_scan_close(scan);
}
}  // namespace
