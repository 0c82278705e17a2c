#include <sys/resource.h>

#include "server_support.h"

namespace {
using namespace server_support;

class DoPut : public DataDir {
 protected:
    static void expect_stored(const result_t& r) {
        EXPECT_EQ(nullptr, r.status);
        EXPECT_EQ(OK_HEAD, r.reply);
        EXPECT_EQ("", r.log);
    }
    static void expect_status(const char* status, const result_t& r) {
        EXPECT_STREQ(status, r.status);
        EXPECT_EQ("", r.reply);
        EXPECT_EQ("", r.log);
    }
    static result_t put_raw(const std::string& url, const std::string& length, const std::string& body) {
        return run(do_put, "PUT " + url + " HTTP/1.1\r\n" + length + "\r\n" + body);
    }
    const std::vector<column_t> one = {{"id", CVN_TYP_INT32}};
    const char* const file = "base/d/s/e/p.cvn";
};
using strings = std::vector<std::string>;

TEST_F(DoPut, CreatesTheMissingDirectoriesAndTheFilePrivately) {
    const std::string bytes = cvn_bytes(one, 10);
    expect_stored(put("/v1/d/s/e/p.cvn", bytes));
    EXPECT_TRUE(bytes == read_file(file));
    EXPECT_EQ((strings{"base/d", "base/d/s", "base/d/s/e", file}), tree("base"));
    for (const char* dir : {"base/d", "base/d/s", "base/d/s/e"})
        EXPECT_EQ(fs::perms::owner_all, fs::status(dir).permissions()) << dir;
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file).permissions());
}
TEST_F(DoPut, RestoresTheUmask) {
    const mode_t mine = umask(027);
    expect_stored(put("/v1/d/s/e/f", "x"));
    EXPECT_EQ(027u, umask(mine));
}
TEST_F(DoPut, ReplacesAFile) {
    expect_stored(put("/v1/d/s/e/p.cvn", cvn_bytes(one, 10)));
    const std::string bytes = cvn_bytes(one, 2000);
    expect_stored(put("/v1/d/s/e/p.cvn", bytes));
    EXPECT_TRUE(bytes == read_file(file));
}
TEST_F(DoPut, StoresABodyOfManyReads) {
    std::string bytes;
    for (int i = 0; bytes.size() < (3 << 20) + 17; i++) bytes += std::to_string(i);
    expect_stored(put("/v1/d/s/e/f.bin", bytes));
    EXPECT_TRUE(bytes == read_file("base/d/s/e/f.bin"));
}
TEST_F(DoPut, AShortPathGetsNoReplyAndLeavesNothing) {
    for (const char* url : {"/v1", "/v1/d", "/v1/d/s", "/v1/d/s/e"}) expect_status(nullptr, put(url, "x"));
    EXPECT_EQ(strings{}, tree("base"));
}
TEST_F(DoPut, PassesTheStatusOfABadUrlOn) {
    expect_status("400 Bad Request - invalid url", put("/v1/d/s/e/.p", "x"));
    expect_status("400 Bad Request - invalid version", put("/v2/d/s/e/p", "x"));
    EXPECT_EQ(strings{}, tree("base"));
}
TEST_F(DoPut, WantsALength) {
    expect_status("400 Bad Request - no content", put_raw("/v1/d/s/e/p", "", "x"));
    expect_status("400 Bad Request - no content", put_raw("/v1/d/s/e/p", "Content-Length: -1\r\n", "x"));
    EXPECT_EQ(strings{}, tree("base"));
}
TEST_F(DoPut, AnEmptyBodyIsAnEmptyFile) {
    expect_stored(put("/v1/d/s/e/q.sql", ""));
    EXPECT_EQ("", read_file("base/d/s/e/q.sql"));
    EXPECT_EQ(4u, tree("base").size());
}
TEST_F(DoPut, AnEmptyDataFileIsRefused) {
    expect_status("400 Bad Request", put("/v1/d/s/e/p.cvn", ""));
    expect_status("400 Bad Request", put("/v1/d/s/e/p.cvn.mismatch", ""));
    EXPECT_EQ((strings{"base/d", "base/d/s", "base/d/s/e"}), tree("base"));
}
TEST_F(DoPut, ALengthOfZeroWithBytesBehindTheHeadIsAServerError) {
    expect_status("500 Internal Server Error", put_raw("/v1/d/s/e/f", "Content-Length: 0\r\n", "x"));
    EXPECT_EQ((strings{"base/d", "base/d/s", "base/d/s/e"}), tree("base"));
}
TEST_F(DoPut, CutsALongerBodyToItsLength) {
    expect_stored(put_raw("/v1/d/s/e/f", "Content-Length: 3\r\n", "abcdef"));
    EXPECT_EQ("abc", read_file("base/d/s/e/f"));
    const std::string big(30000, 'b');
    expect_stored(put_raw("/v1/d/s/e/g", "Content-Length: 20001\r\n", big));
    EXPECT_EQ(std::string(20001, 'b'), read_file("base/d/s/e/g"));
}
TEST_F(DoPut, AShorterBodyIsRefusedAndTheOldFileStays) {
    expect_stored(put("/v1/d/s/e/f", "old"));
    expect_status("400 Bad Request", put_raw("/v1/d/s/e/f", "Content-Length: 10\r\n", "short"));
    expect_status("400 Bad Request",
                  put_raw("/v1/d/s/e/f", "Content-Length: 9223372036854775807\r\n", "short"));
    EXPECT_EQ("old", read_file("base/d/s/e/f"));
    EXPECT_EQ(4u, tree("base").size());
}
TEST_F(DoPut, AnInvalidDataFileLeavesTheOldOneInPlace) {
    const std::string bytes = cvn_bytes(one, 10);
    expect_stored(put("/v1/d/s/e/p.cvn", bytes));
    for (size_t n = 0; n < bytes.size(); n += 1 + n / 8) {
        expect_status("400 Bad Request", put("/v1/d/s/e/p.cvn", bytes.substr(0, n)));
        expect_status("400 Bad Request", put("/v1/d/s/e/p.cvn.mismatch", bytes.substr(0, n)));
    }
    EXPECT_TRUE(bytes == read_file(file));
    EXPECT_EQ((strings{"base/d", "base/d/s", "base/d/s/e", file}), tree("base"));
}
TEST_F(DoPut, OtherNamesAreStoredUnchecked) {
    expect_stored(put("/v1/d/s/e/p.cvnx", "junk"));
    expect_stored(put("/v1/d/s/e/q.sql", "select 1"));
    EXPECT_EQ("select 1", read_file("base/d/s/e/q.sql"));
}
TEST_F(DoPut, AMismatchFileIsCheckedAndStored) {
    expect_stored(put("/v1/d/s/e/p.cvn.mismatch", cvn_bytes(one, 1)));
    EXPECT_TRUE(fs::exists("base/d/s/e/p.cvn.mismatch"));
}
TEST_F(DoPut, AnUploadBelowAFileIsAServerError) {
    fs::create_directories("base/d/s");
    write_file("base/d/s/e", "in the way");
    expect_status("500 Internal Server Error", put("/v1/d/s/e/f", "x"));
    EXPECT_EQ("in the way", read_file("base/d/s/e"));
}
TEST_F(DoPut, WithoutBaseNothingCanBeStored) {
    fs::remove("base");
    expect_status("500 Internal Server Error", put("/v1/d/s/e/f", "x"));
    EXPECT_FALSE(fs::exists("base"));
}
TEST_F(DoPut, ARenameOntoADirectoryIsAServerErrorWithoutLeftover) {
    fs::create_directories("base/d/s/e/f");
    expect_status("500 Internal Server Error", put("/v1/d/s/e/f", "x"));
    EXPECT_EQ((strings{"base/d", "base/d/s", "base/d/s/e", "base/d/s/e/f"}), tree("base"));
}
TEST_F(DoPut, AFullDiskIsAServerErrorWithoutLeftover) {
    // A file size limit fails the write as a full disk does.
    struct rlimit old, small;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &old));
    small = {4096, old.rlim_max};
    const auto before = signal(SIGXFSZ, SIG_DFL);  // which would end this process
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    const result_t body = put("/v1/d/s/e/f", std::string(100000, 'x'));
    const result_t head = put("/v1/d/s/e/g", std::string(5000, 'x'));
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &old));
    signal(SIGXFSZ, before);
    expect_status("500 Internal Server Error", body);
    expect_status("500 Internal Server Error", head);
    EXPECT_EQ((strings{"base/d", "base/d/s", "base/d/s/e"}), tree("base"));
}
TEST_F(DoPut, ALinkInTheTemporaryFilesPlaceIsNotFollowed) {
    fs::create_directories("base/d/s/e");
    write_file("outside", "kept");
    // The name holds the second of the upload: links for each one that may come while this runs.
    const time_t now = time(nullptr);
    strings link;
    for (time_t t = now; t < now + 600; t++) {
        link.push_back("base/d/s/e/f." + std::to_string(t) + ".tmp");
        fs::create_symlink(fs::absolute("outside"), link.back());
    }
    expect_status("500 Internal Server Error", put("/v1/d/s/e/f", "x"));
    EXPECT_EQ("kept", read_file("outside"));
    EXPECT_FALSE(fs::exists("base/d/s/e/f"));
}
TEST_F(DoPut, ANameWithoutRoomForTheTemporaryEndingIsAServerError) {
    expect_status("500 Internal Server Error", put("/v1/d/s/e/" + std::string(250, 'n'), "x"));
    EXPECT_EQ((strings{"base/d", "base/d/s", "base/d/s/e"}), tree("base"));
}
}  // namespace
