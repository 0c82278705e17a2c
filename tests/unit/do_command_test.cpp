#include "server_support.h"

namespace {
using namespace server_support;

class DoCommand : public DataDir {
 protected:
    void SetUp() override {
        DataDir::SetUp();
        fs::create_directories(dir);
        // A sampler on the search path that notes its arguments and copies a file to its output.
        fs::create_directory("bin");
        const char* path = getenv("PATH");
        path_ = path ? path : "";
        setenv("PATH", (fs::absolute("bin").string() + ":" + path_).c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);
        DataDir::TearDown();
    }
    static void sampler(const std::string& script) {
        write_file("bin/cvnsamp", "#!/bin/sh\nfor a; do echo \"$a\" >> args; done\n" + script);
        fs::permissions("bin/cvnsamp", fs::perms::owner_all);
    }
    static result_t command(const std::string& list) {
        return post("/v1/d/s/e", "{\"command\":[" + list + "]}");
    }
    static std::string meta_reply(int64_t nrow, int64_t nrowgroup) {
        const auto page = [](int32_t cno, int64_t value) {
            return chunk(le32(0x19293949) + le32(cno) + le32(4) + le32(1) + le32(0) + le32(8) + le32(9) +
                         le32(9) + le32(0) + le32(0) + le64(value) + "\0"s);
        };
        return STREAM_HEAD + record_header(98) + page(0, nrow) + page(1, nrowgroup) + STREAM_END;
    }
    static void expect_status(const char* status, const result_t& r) {
        EXPECT_STREQ(status, r.status);
        EXPECT_EQ("", r.reply);
    }
    static bool tmp_is_empty() { return fs::is_empty("tmp"); }
    const std::string dir = "base/d/s/e";
    const std::vector<column_t> two = {{"id", CVN_TYP_INT32}, {"note", CVN_TYP_CSTR}};
    std::string path_;
};

TEST_F(DoCommand, MetaOfNothingIsTwoZeros) {
    const result_t r = command("\"meta\"");
    EXPECT_EQ(nullptr, r.status);
    EXPECT_EQ(meta_reply(0, 0), r.reply);
}
TEST_F(DoCommand, MetaAddsUpDataFilesAndMismatchFilesOnly) {
    write_cvn(dir + "/a.cvn", two, 1000);
    write_cvn(dir + "/b.cvn", {{"x", CVN_TYP_INT32}}, CVN_MAX_ROWGROUP_NROW + 1);
    write_cvn(dir + "/c.cvn.mismatch", two, 7);
    write_cvn(dir + "/.d.cvn", two, 100000);
    write_cvn(dir + "/e.cvnx", two, 100000);
    write_file(dir + "/bad.cvn", "junk");
    EXPECT_EQ(meta_reply(1000 + CVN_MAX_ROWGROUP_NROW + 1 + 7, 4), command("\"meta\"").reply);
}
TEST_F(DoCommand, MetaTakesNoArguments) {
    expect_status("400 Bad Request - invalid content", command("\"meta\",\"1\""));
}
TEST_F(DoCommand, CommandsOnAMissingEntityAreNotFound) {
    expect_status("404 Not Found", post("/v1/d/s/none", R"({"command":["meta"]})"));
    expect_status("404 Not Found", post("/v1/d/s/none", R"({"command":["sample","1"]})"));
}
TEST_F(DoCommand, MetaWhoseChunksCannotBeSentIsABadRequest) {
    int fd[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
    close(fd[1]);
    char meta[] = "meta";
    char* argv[] = {meta};
    htreply_t reply = {fd[0], true};  // the head went out, then the client left
    EXPECT_STREQ("400 Bad Request", do_meta(&reply, dir.c_str(), 1, argv));
    reply.status_sent = false;
    EXPECT_EQ(nullptr, do_meta(&reply, dir.c_str(), 1, argv));  // the head itself failed
    close(fd[0]);
}
TEST_F(DoCommand, SampleWantsAPositiveCountOf32Bits) {
    sampler("exit 1");
    for (const char* list : {"\"sample\"", "\"sample\",\"0\"", "\"sample\",\"-5\"", "\"sample\",\"abc\"",
                             "\"sample\",\"99999999999999999999\"", "\"sample\",\"4294967296\"",
                             "\"sample\",\"1\",\"2\"", "\"sample\",\"2147483648\"", "\"sample\",\"\""})
        expect_status("400 Bad Request - invalid content", command(list));
    EXPECT_FALSE(fs::exists("args"));
    for (const auto& [given, asked] :
         {std::pair{"0x10", "16"}, {"99999999999", "1215752191"}, {"5 rows", "5"}}) {
        fs::remove("args");
        EXPECT_EQ(STREAM_HEAD, command("\"sample\",\""s + given + "\"").reply);
        EXPECT_EQ(asked + "\n"s, read_file("args"));
    }
    EXPECT_TRUE(tmp_is_empty());
}
TEST_F(DoCommand, SampleStreamsWhatTheSamplerWrites) {
    write_cvn(dir + "/a.cvn", two, 1000);
    write_cvn("sampled", two, 5, 100);
    sampler("cat sampled");
    const result_t r = command("\"sample\",\"5\"");
    EXPECT_EQ(nullptr, r.status);
    EXPECT_EQ("5\nbase/d/s/e/a.cvn\n", read_file("args"));
    EXPECT_TRUE(tmp_is_empty());
    // What a scan of all columns streams, after the head.
    fs::remove(dir + "/a.cvn");
    fs::copy("sampled", dir + "/s.cvn");
    EXPECT_EQ(post("/v1/d/s/e", R"({"column":["id","note"]})").reply, r.reply);
    EXPECT_GT(r.reply.size(), STREAM_HEAD.size() + STREAM_END.size());
}
TEST_F(DoCommand, SampleNamesEveryDataFileInListingOrderAndNoOther) {
    std::string want = "3\n";
    for (int i = 0; i < 20; i++) write_file(dir + "/p" + std::to_string(i) + " $x`y\\\"&.cvn", "");
    write_file(dir + "/m.cvn.mismatch", "");
    write_file(dir + "/.h.cvn", "");
    write_file(dir + "/q.sql", "");
    for (const auto& e : fs::directory_iterator(dir)) {
        const std::string name = e.path().filename();
        if (name[0] == 'p') want += dir + "/" + name + "\n";
    }
    sampler("");
    EXPECT_EQ(STREAM_HEAD, command("\"sample\",\"3\"").reply);
    EXPECT_EQ(want, read_file("args"));
}
TEST_F(DoCommand, AFailedSamplerLeavesAHeadAndNothingElse) {
    write_cvn(dir + "/a.cvn", two, 10);
    for (const char* script : {"", "echo junk", "exit 3", "printf CVN1IX86"}) {
        sampler(script);
        const result_t r = command("\"sample\",\"3\"");
        EXPECT_EQ(nullptr, r.status);
        EXPECT_EQ(STREAM_HEAD, r.reply);
        EXPECT_TRUE(tmp_is_empty());
    }
}
TEST_F(DoCommand, AQuoteInAFileNameStartsNoShell) {
    sampler("touch ran");
    write_file(dir + "/a'; touch owned; '.cvn", "");
    const result_t r = command("\"sample\",\"3\"");
    EXPECT_EQ(nullptr, r.status);
    EXPECT_EQ(STREAM_HEAD, r.reply);
    EXPECT_FALSE(fs::exists("owned"));
    EXPECT_FALSE(fs::exists("ran"));
    EXPECT_TRUE(tmp_is_empty());
}
TEST_F(DoCommand, AQuoteInTheEntityPathStartsNoShell) {
    sampler("touch ran");
    fs::create_directories("base/d/s/e'x");
    write_file("base/d/s/e'x/a.cvn", "");
    const result_t r = post("/v1/d/s/e'x", R"({"command":["sample","3"]})");
    EXPECT_EQ(nullptr, r.status);
    EXPECT_EQ(STREAM_HEAD, r.reply);
    EXPECT_FALSE(fs::exists("ran"));
}
TEST_F(DoCommand, ACommandLineTooLongForTheShellIsAServerError) {
    // The shell takes its command as one argument of at most 128 KiB.
    sampler("touch ran");
    for (int i = 0; i < 700; i++)
        write_file(dir + "/" + std::string(200, 'n') + std::to_string(i) + ".cvn", "");
    const result_t r = command("\"sample\",\"3\"");
    expect_status("500 Internal Server Error", r);
    EXPECT_EQ("popen failed\n", r.log);
    EXPECT_FALSE(fs::exists("ran"));
    EXPECT_TRUE(tmp_is_empty());
}
TEST_F(DoCommand, TheLongestCommandLineOfTheShellRunsAndOneByteMoreStartsNone) {
    sampler("");
    // "cvnsamp 3", a blank, two quotes and the path per file, and " > tmp/..." at the end, whose numbers vary in
    // length: so the lengths go over the limit one by one until the first is refused.
    constexpr size_t MAX = 131071, PER_FILE = 3 + 11, NAME = 200;
    const size_t nfile = MAX / (PER_FILE + NAME) - 1;
    for (size_t i = 0; i < nfile; i++) {
        std::string n = std::to_string(i);
        write_file(dir + "/" + std::string(NAME - 4 - n.size(), 'n') + n + ".cvn", "");
    }
    std::string last;
    size_t nrun = 0;
    verbose = 1;
    for (size_t len = 5; len < 250; len++) {
        if (!last.empty()) fs::remove(last);
        last = dir + "/" + std::string(len - 4, 'm') + ".cvn";
        write_file(last, "");
        fs::remove("args");
        const result_t r = command("\"sample\",\"3\"");
        const size_t at = r.log.find("do_sample: cvnsamp") + 11;
        const size_t line = r.log.find('\n', at) - at;
        EXPECT_EQ(line <= MAX, fs::exists("args")) << line;
        if (line > MAX) {
            expect_status("500 Internal Server Error", r);
            EXPECT_NE(std::string::npos,
                      r.log.find("do_sample: " + std::to_string(line) +
                                 " bytes of command line, the shell takes 131071: too many files\n"
                                 "popen failed\n"));
            break;
        }
        nrun++;
        len += MAX - line > 12 ? std::min<size_t>(MAX - line - 10, 240 - len) : 0;
    }
    EXPECT_GT(nrun, 1u);
    EXPECT_TRUE(tmp_is_empty());
}
TEST_F(DoCommand, ASampleWhoseHeadCannotBeSentLeavesItsOutput) {
    sampler("echo x");
    int fd[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
    close(fd[1]);
    char sample[] = "sample", n[] = "3";
    char* argv[] = {sample, n};
    htreply_t reply = {fd[0], false};
    EXPECT_EQ(nullptr, do_sample(&reply, dir.c_str(), 2, argv));
    close(fd[0]);
    const std::vector<std::string> left = tree("tmp");
    ASSERT_EQ(1u, left.size());
    EXPECT_EQ("tmp/*.tmp", mask_tmp(left[0]));
    EXPECT_EQ("x\n", read_file(left[0]));
}
TEST_F(DoCommand, LogsTheCommandLineWhenVerbose) {
    sampler("");
    write_file(dir + "/a b.cvn", "");
    verbose = 1;
    const result_t r = command("\"sample\",\"3\"");
    EXPECT_EQ(
        "POST /v1/d/s/e HTTP/1.1\ndo_post /v1/d/s/e\n  post body: {\"command\":[\"sample\",\"3\"]}\n"
        "do_sample: cvnsamp 3 'base/d/s/e/a b.cvn' > tmp/*.tmp\ncommand: sample, status 200\n",
        mask_tmp(r.log));
}
}  // namespace
