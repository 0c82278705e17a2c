#include "server_support.h"
#include "store/dir.h"

namespace {
using namespace server_support;

class DirRmrf : public DataDir {
 protected:
    const char* rmrf(const char* path) {
        testing::internal::CaptureStderr();
        const char* err = dir_rmrf(path);
        log = testing::internal::GetCapturedStderr();
        return err;
    }
    std::string log;
};

TEST_F(DirRmrf, AMissingPathCountsAsRemoved) {
    EXPECT_EQ(nullptr, rmrf("base/none"));
    EXPECT_EQ("", log);
}
TEST_F(DirRmrf, RemovesASingleFile) {
    write_file("base/f", "x");
    EXPECT_EQ(nullptr, rmrf("base/f"));
    EXPECT_FALSE(fs::exists("base/f"));
}
TEST_F(DirRmrf, RemovesATreeAndItself) {
    fs::create_directories("base/a/b/c/d");
    for (int i = 0; i < 100; i++) write_file("base/a/b/c/" + std::to_string(i), "x");
    write_file("base/a/.hidden", "x");
    EXPECT_EQ(nullptr, rmrf("base/a"));
    EXPECT_FALSE(fs::exists("base/a"));
    EXPECT_TRUE(fs::exists("base"));
    EXPECT_EQ(nullptr, rmrf("base/"));
    EXPECT_FALSE(fs::exists("base"));
}
TEST_F(DirRmrf, RemovesALinkAndNotWhatItNames) {
    fs::create_directory("outside");
    write_file("outside/kept", "x");
    fs::create_directory("base/a");
    fs::create_directory_symlink(fs::absolute("outside"), "base/a/link");
    EXPECT_EQ(nullptr, rmrf("base/a"));
    EXPECT_FALSE(fs::exists("base/a"));
    EXPECT_TRUE(fs::exists("outside/kept"));
}
TEST_F(DirRmrf, FailsBelowAFile) {
    write_file("base/f", "x");
    EXPECT_STREQ("error while rm -rf", rmrf("base/f/x"));
    EXPECT_EQ("Error unlink base/f/x: Not a directory\n", log);
    EXPECT_TRUE(fs::exists("base/f"));
}
TEST_F(DirRmrf, FailsOnANameThatIsTooLong) {
    const std::string name = "base/" + std::string(300, 'n');
    EXPECT_STREQ("error while rm -rf", rmrf(name.c_str()));
    EXPECT_EQ("Error rm -rf " + name + ": File name too long\n", log);
}
TEST_F(DirRmrf, ReportsAnEntryThatCannotBeRemoved) {
    // procfs lets nobody remove its entries, root included.
    EXPECT_STREQ("error while rm -rf", rmrf("/proc/self/comm"));
    EXPECT_EQ(
        "ERROR while remove(/proc/self/comm): Operation not permitted\n"
        "Error rm -rf /proc/self/comm: Operation not permitted\n",
        log);
}
}  // namespace
