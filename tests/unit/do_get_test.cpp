#include "server_support.h"

namespace {
using namespace server_support;

class DoGet : public DataDir {
 protected:
    static std::string filestat(const std::string& name) {
        cvn_filestat_t st;
        EXPECT_EQ(0, cvn_filestat(&st, ("base/d/s/e/" + name).c_str()));
        return " {\"name\": \"" + name + "\", \"chksum\": " + std::to_string(st.chksum) +
               ", \"ncol\": " + std::to_string(st.ncol) + ", \"nrow\": " + std::to_string(st.nrow) +
               ", \"nrowgroup\": " + std::to_string(st.nrowgroup) +
               ",\"nbyte\": " + std::to_string(st.nbyte) + ", \"zbyte\": " + std::to_string(st.zbyte) + "}";
    }
    static void expect_json(const std::string& body, const result_t& r) {
        EXPECT_EQ(nullptr, r.status);
        EXPECT_EQ(json_reply(body), r.reply);
        EXPECT_EQ("", r.log);
    }
    static void expect_status(const char* status, const result_t& r) {
        EXPECT_STREQ(status, r.status);
        EXPECT_EQ("", r.reply);
    }
    const std::vector<column_t> two = {{"id", CVN_TYP_INT32}, {"note", CVN_TYP_CSTR}};
};

TEST_F(DoGet, AnEmptyCatalogueIsAnEmptyArray) { expect_json("[]", get("/v1")); }
TEST_F(DoGet, ListsSubDirectoriesAndLeavesOutFilesHiddenNamesAndUploads) {
    fs::create_directory("base/db1");
    fs::create_directory("base/.hidden");
    fs::create_directory("base/x.tmp");
    write_file("base/file", "");
    expect_json("[\"db1\"]", get("/v1/"));
}
TEST_F(DoGet, ListsInTheOrderOfTheDirectory) {
    for (int i = 0; i < 50; i++) fs::create_directories("base/d/s" + std::to_string(i * 31));
    std::string want;
    for (const auto& e : fs::directory_iterator("base/d"))
        want += (want.empty() ? "[\"" : ",\"") + e.path().filename().string() + "\"";
    expect_json(want + "]", get("/v1/d"));
}
TEST_F(DoGet, WritesNamesUnescaped) {
    fs::create_directories("base/d/a\"b\\c");
    expect_json("[\"a\"b\\c\"]", get("/v1/d"));
}
TEST_F(DoGet, AMissingLevelIsNotFound) {
    expect_status("404 Not Found", get("/v1/x"));
    expect_status("404 Not Found", get("/v1/x/y"));
    expect_status("404 Not Found", get("/v1/x/y/z"));
    expect_status("404 Not Found", get("/v1/x/y/z/p.cvn"));
}
TEST_F(DoGet, PassesTheStatusOfABadUrlOn) {
    expect_status("400 Bad Request - invalid url", get("/v1/.x"));
    expect_status("400 Bad Request - invalid version", get("/v2"));
}
TEST_F(DoGet, ASplitDirectoryInsideAnEntityIsListed) {
    fs::create_directories("base/d/s/e/plain");
    write_cvn("source.cvn", two, 5);
    ASSERT_EQ(0, cvnx_split("base/d/s/e/split", "source.cvn"));
    expect_json("[" + filestat("split") + "]\n", get("/v1/d/s/e"));
}
TEST_F(DoGet, AnEmptyEntityIsAnEmptyArrayAndALineEnd) {
    fs::create_directories("base/d/s/e");
    expect_json("[]\n", get("/v1/d/s/e"));
}
TEST_F(DoGet, AnEntityShowsTheStatisticsOfItsDataFiles) {
    fs::create_directories("base/d/s/e/sub");
    write_cvn("base/d/s/e/p1.cvn", two, 1000);
    expect_json("[" + filestat("p1.cvn") + "]\n", get("/v1/d/s/e"));
    write_cvn("base/d/s/e/p2.cvn", two, 5);
    write_file("base/d/s/e/q.sql", "select");
    write_file("base/d/s/e/bad.cvn", "CVN1IX86");
    write_file("base/d/s/e/p1.cvn.1700000000.tmp", cvn_bytes(two, 3));
    write_file("base/d/s/e/.tmp", cvn_bytes(two, 3));
    std::string want;
    for (const auto& e : fs::directory_iterator("base/d/s/e")) {
        const std::string name = e.path().filename();
        if (name == "p1.cvn" || name == "p2.cvn") want += (want.empty() ? "" : ",") + filestat(name);
    }
    expect_json("[" + want + "]\n", get("/v1/d/s/e"));
}
TEST_F(DoGet, TheLongestPathThatAUrlCanNameIsListed) {
    // Four components of 255 bytes stay far below the buffer of a file path.
    fs::create_directories("base/" + std::string(255, 'd') + "/" + std::string(255, 's') + "/" +
                           std::string(255, 'e'));
    write_cvn("base/" + std::string(255, 'd') + "/" + std::string(255, 's') + "/" + std::string(255, 'e') +
                  "/" + std::string(251, 'p') + ".cvn",
              two, 1);
    const result_t r =
        get("/v1/" + std::string(255, 'd') + "/" + std::string(255, 's') + "/" + std::string(255, 'e'));
    EXPECT_EQ(nullptr, r.status);
    EXPECT_NE(std::string::npos, r.reply.find(std::string(251, 'p') + ".cvn\", \"chksum\": "));
}
TEST_F(DoGet, APartitionShowsItsColumns) {
    fs::create_directories("base/d/s/e");
    write_cvn("base/d/s/e/p.cvn", two, 10);
    cvn_filestat_t st;
    ASSERT_EQ(0, cvn_filestat(&st, "base/d/s/e/p.cvn"));
    expect_json(
        "{\"column\":[{\"cno\": 0, \"typ\": \"int32\", \"name\": \"id\"},{\"cno\": 1, \"typ\": \"cstr\", "
        "\"name\": \"note\"}], \"chksum\": " +
            std::to_string(st.chksum) + "}",
        get("/v1/d/s/e/p.cvn"));
}
TEST_F(DoGet, AFileOfNoColumnsHasAnEmptyList) {
    // Head, footer of one schema record and nothing else, trailer.
    const std::string foot = le32(1) + le32(0) + le64(0) + le64(0) + le32(0) + le32(0) + le64(0);
    fs::create_directories("base/d/s/e");
    write_file("base/d/s/e/p.cvn", "CVN1IX86" + foot + le64(40) + le32(77) + "CVN1");
    expect_json("{\"column\":[], \"chksum\": 77}", get("/v1/d/s/e/p.cvn"));
}
TEST_F(DoGet, ADamagedPartitionIsAServerError) {
    fs::create_directories("base/d/s/e");
    const std::string whole = cvn_bytes(two, 10);
    write_file("base/d/s/e/file", "x");
    for (size_t n = 0; n < whole.size(); n += n < 40 || n + 40 > whole.size() ? 1 : 97) {
        write_file("base/d/s/e/p.cvn", whole.substr(0, n));
        errno = ENOENT;  // what an earlier call left behind must not turn a short file into a missing one
        expect_status("500 Internal Server Error", get("/v1/d/s/e/p.cvn"));
    }
    expect_status("500 Internal Server Error", get("/v1/d/s/e/file"));
}
TEST_F(DoGet, APathThroughAFileIsAServerErrorAtPartitionDepth) {
    fs::create_directories("base/d/s");
    write_file("base/d/s/e", "x");
    expect_status("500 Internal Server Error", get("/v1/d/s/e/p"));
}
TEST_F(DoGet, AColumnNameWithoutNulIsCut) {
    fs::create_directories("base/d/s/e");
    std::string bytes = cvn_bytes({{"id", CVN_TYP_INT32}}, 1);
    int64_t footsz;
    memcpy(&footsz, bytes.data() + bytes.size() - 16, 8);
    bytes.replace(bytes.size() - 16 - static_cast<size_t>(footsz) + 40, 128, std::string(128, 'n'));
    write_file("base/d/s/e/p.cvn", bytes);
    cvn_filestat_t st;
    ASSERT_EQ(0, cvn_filestat(&st, "base/d/s/e/p.cvn"));
    expect_json("{\"column\":[{\"cno\": 0, \"typ\": \"int32\", \"name\": \"" + std::string(127, 'n') +
                    "\"}], \"chksum\": " + std::to_string(st.chksum) + "}",
                get("/v1/d/s/e/p.cvn"));
}
TEST_F(DoGet, LogsThePathWhenVerbose) {
    verbose = 1;
    EXPECT_EQ("GET /v1 HTTP/1.1\n  do_get: base/\n", get("/v1").log);
}
TEST_F(DoGet, ListsThousandsOfFiles) {
    fs::create_directories("base/d/s/e");
    const std::string bytes = cvn_bytes({{"id", CVN_TYP_INT32}}, 1);
    for (int i = 0; i < 3000; i++) write_file("base/d/s/e/" + std::to_string(i) + ".cvn", bytes);
    const result_t r = get("/v1/d/s/e");
    EXPECT_EQ(nullptr, r.status);
    size_t n = 0;
    for (size_t at = 0; (at = r.reply.find("{\"name\": ", at)) != std::string::npos; at++) n++;
    EXPECT_EQ(3000u, n);
}
}  // namespace
