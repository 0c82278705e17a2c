#include "server_support.h"

namespace {
using namespace server_support;

constexpr int32_t FULL = CVN_MAX_ROWGROUP_NROW;

class DoScan : public DataDir {
 protected:
    void SetUp() override {
        DataDir::SetUp();
        fs::create_directories(dir);
    }
    static result_t query(const std::string& body) { return post("/v1/d/s/e", body); }
    // The records that the stored pages of these columns make, over the row groups `rg` of a file.
    static std::string records(const std::string& file, const std::vector<const char*>& column,
                               const std::vector<int>& rg) {
        std::string s;
        cvn_scan_t* scan = nullptr;
        EXPECT_EQ(0, cvn_scan_open(&scan, file.c_str()));
        for (const char* c : column) EXPECT_EQ(0, cvn_scan_add_required(scan, c));
        for (const int r : rg) {
            int n = 0;
            cvn_page_t** page = nullptr;
            EXPECT_EQ(0, cvn_scan_rowgroup(scan, r, &n, &page, false));
            std::string pages;
            int32_t nbyte = 0;
            for (int i = 0; i < n; i++) {
                const std::string image(reinterpret_cast<const char*>(page[i]),
                                        static_cast<size_t>(CVN_PAGE_HEADSZ + page[i]->zbyte));
                pages += chunk(image);
                nbyte += static_cast<int32_t>(image.size());
            }
            s += record_header(nbyte) + pages;
        }
        cvn_scan_close(scan);
        return s;
    }
    static void expect_stream(const std::string& recs, const result_t& r) {
        EXPECT_EQ(nullptr, r.status);
        EXPECT_TRUE(STREAM_HEAD + recs + STREAM_END == r.reply) << r.reply.size();
        EXPECT_EQ("", r.log);
    }
    static void expect_status(const char* status, const result_t& r) {
        EXPECT_STREQ(status, r.status);
        EXPECT_EQ("", r.reply);
    }
    static std::string count_record(int32_t nrow, int32_t nbyte) {
        return record_header(40 + nbyte) +
               chunk(le32(0x19293949) + le32(-1) + le32(0) + le32(nrow) + le32(0) + le32(0) + le32(nbyte) +
                     le32(nbyte) + le32(0) + le32(0) + std::string(static_cast<size_t>(nbyte), '\0'));
    }
    const std::string dir = "base/d/s/e";
    const std::string p = dir + "/p.cvn";
    const std::vector<column_t> two = {{"id", CVN_TYP_INT32}, {"note", CVN_TYP_CSTR}};
};

TEST_F(DoScan, AnEntityWithoutDataFilesIsJustTheEndRecord) {
    expect_stream("", query("{}"));
    write_file(dir + "/q.sql", "x");
    write_file(dir + "/.hidden.cvn", "x");
    write_file(dir + "/p.cvn.mismatch", "x");
    write_file(dir + "/p.cvn.1700000000.tmp", "x");
    expect_stream("", query("{}"));
    expect_stream("", query(R"({"column":["id"]})"));
}
TEST_F(DoScan, StreamsTheStoredPagesInRequestOrder) {
    write_cvn(p, two, 3000);
    expect_stream(records(p, {"id", "note"}, {0}), query(R"({"column":["id","note"]})"));
    expect_stream(records(p, {"note", "id"}, {0}), query(R"({"column":["note","id"]})"));
    expect_stream(records(p, {"note"}, {0}), query(R"({"column":["note"]})"));
}
TEST_F(DoScan, RecordsHaveTheLayoutOfTheWire) {
    write_cvn(p, {{"id", CVN_TYP_INT32}}, 2, 5);
    // Two int32 and one byte of null bits, stored as they are.
    const std::string body = le32(5) + le32(6) + "\0"s;
    cvn_scan_t* scan = nullptr;
    ASSERT_EQ(0, cvn_scan_open(&scan, p.c_str()));
    colmeta_t m;
    ASSERT_EQ(0, cvn_scan_colmeta(scan, 0, 0, &m));
    cvn_scan_close(scan);
    expect_stream(record_header(49) + chunk(le32(0x19293949) + le32(0) + le32(3) + le32(2) + le32(0) +
                                            le32(8) + le32(9) + le32(9) + le32(m.hash) + le32(0) + body),
                  query(R"({"column":["id"]})"));
}
TEST_F(DoScan, StreamsAllFilesInListingOrder) {
    for (int i = 0; i < 20; i++) write_cvn(dir + "/p" + std::to_string(i) + ".cvn", two, 10, i);
    std::string want;
    for (const auto& e : fs::directory_iterator(dir)) want += records(e.path(), {"id"}, {0});
    expect_stream(want, query(R"({"column":["id"]})"));
}
TEST_F(DoScan, ConditionsAndFragmentsSelectRowGroups) {
    write_cvn(p, {{"id", CVN_TYP_INT32}}, 3 * int64_t{FULL} + 5);
    const auto all = records(p, {"id"}, {0, 1, 2, 3});
    expect_stream(all, query(R"({"column":["id"]})"));
    expect_stream(records(p, {"id"}, {1}), query(R"({"column":["id"],"condition":[["id","==","1048576"]]})"));
    expect_stream(records(p, {"id"}, {2, 3}),
                  query(R"({"column":["id"],"condition":[["id",">=","0x200000"]]})"));
    expect_stream(records(p, {"id"}, {0, 1}),
                  query(R"({"column":["id"],"condition":[["id","<=","1048576"]]})"));
    expect_stream(records(p, {"id"}, {0}), query(R"({"column":["id"],"condition":[["id","<","1048576"]]})"));
    expect_stream(records(p, {"id"}, {3}), query(R"({"column":["id"],"condition":[["id",">","3145727"]]})"));
    expect_stream(all, query(R"({"column":["id"],"condition":[["id","!=","7"]]})"));
    expect_stream(records(p, {"id"}, {1}),
                  query(R"({"column":["id"],"condition":[["id",">=","1048576"],["id","<","2097152"]]})"));
    expect_stream(records(p, {"id"}, {1, 2}),
                  query(R"({"column":["id"],"condition":[["id","In",["2097152","1048577"]]]})"));
    expect_stream("", query(R"({"column":["id"],"condition":[["id","ISNULL"]]})"));
    expect_stream(all, query(R"({"column":["id"],"condition":[["id","IsNotNull"]]})"));
    expect_stream("", query(R"({"column":["id"],"condition":[["id","==","99999999"]]})"));
    expect_stream(records(p, {"id"}, {1}), query(R"({"column":["id"],"fragment":[1,3]})"));
    expect_stream(records(p, {"id"}, {0, 3}), query(R"({"column":["id"],"fragment":[0,3]})"));
    expect_stream(records(p, {"id"}, {2}),
                  query(R"({"column":["id"],"condition":[["id",">=","1048576"]],"fragment":[0,2]})"));
}
// The value of a condition is read as one of the column's type; an int16 would refuse this one.
TEST_F(DoScan, AColumnWhoseNameBeginsAnothersIsTheOneThatAConditionMeans) {
    write_cvn(p, {{"idx", CVN_TYP_INT16}, {"id", CVN_TYP_CSTR}}, 10);
    expect_stream(records(p, {"id"}, {0}), query(R"({"column":["id"],"condition":[["id","<=","40000"]]})"));
    expect_stream("", query(R"({"column":["id"],"condition":[["id",">","90000"]]})"));
}
TEST_F(DoScan, RefusesBadColumns) {
    write_cvn(p, two, 10);
    expect_status("400 Bad Request", query(R"({"column":["none"]})"));
    expect_status("400 Bad Request", query(R"({"column":["ID"]})"));
    expect_status("400 Bad Request", query(R"({"column":["id","id"]})"));
    expect_status("400 Bad Request", query("{\"column\":[\"" + std::string(200, 'x') + "\"]}"));
}
TEST_F(DoScan, RefusesBadOperators) {
    write_cvn(p, two, 10);
    for (const char* op : {"=", "<>", "", " ==", "== ", "isnull ", "LIKE", ">>"})
        expect_status("400 Bad Request", query(std::string("{\"column\":[\"id\"],\"condition\":[[\"id\",\"") +
                                               op + "\",\"1\"]]}"));
}
TEST_F(DoScan, RefusesBadConditions) {
    write_cvn(p, two, 10);
    expect_status("400 Bad Request", query(R"({"column":["id"],"condition":[["none","==","1"]]})"));
    expect_status("400 Bad Request", query(R"({"column":["id"],"condition":[["note","==","1"]]})"));
    expect_status("400 Bad Request", query(R"({"condition":[["id","==","1"]]})"));
    expect_status("400 Bad Request", query(R"({"column":["id"],"condition":[["id","=="]]})"));
    expect_status("400 Bad Request", query(R"({"column":["id"],"condition":[["id","==",["1","2"]]]})"));
    expect_status("400 Bad Request", query(R"({"column":["id"],"condition":[["id","isnull","1"]]})"));
    expect_status("400 Bad Request", query("{\"column\":[\"id\"],\"condition\":[[\"" + std::string(200, 'x') +
                                           "\",\"==\",\"1\"]]}"));
}
TEST_F(DoScan, RefusesAnArgumentThatIsNoValueOfTheType) {
    write_cvn(p, {{"d", CVN_TYP_INT16}}, 0);
    expect_status("400 Bad Request", query(R"({"column":["d"],"condition":[["d","==","40000"]]})"));
    expect_status("400 Bad Request", query(R"({"column":["d"],"condition":[["d","in",["1","40000"]]]})"));
}
TEST_F(DoScan, RefusesBadFragments) {
    write_cvn(p, two, 10);
    expect_status("400 Bad Request", query(R"({"column":["id"],"fragment":[3,3]})"));
    expect_status("400 Bad Request", query(R"({"column":["id"],"fragment":[-1,3]})"));
    expect_status("400 Bad Request", query(R"({"column":["id"],"fragment":[0,-3]})"));
    expect_stream(records(p, {"id"}, {0}), query(R"({"column":["id"],"fragment":[5,0]})"));
}
TEST_F(DoScan, AnEmptyInListNeedsNoColumnsAndYieldsNothing) {
    write_cvn(p, two, 10);
    expect_stream("", query(R"({"condition":[["id","in",[]]]})"));
    expect_stream("", query(R"({"condition":[["id","in"]]})"));
    expect_status("400 Bad Request",
                  query(R"({"condition":[["none","in",[]]]})"));  // the column is looked up first
}
TEST_F(DoScan, TwoByteStringsWithoutColumnsYieldEmptyRecords) {
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, p.c_str()));
    ASSERT_EQ(0, cvn_create_column(w, "b", CVN_TYP_BYTEA, false, false));
    cvn_datum_t v = {};
    v.a.ptr = "xy";
    v.a.len = 2;
    const bool isnull = false;
    ASSERT_EQ(0, cvn_append(w, 1, &v, &isnull));
    ASSERT_EQ(0, cvn_close(w));
    expect_stream(record_header(0), query(R"({"condition":[["b","in",["x","y"]]]})"));
}
TEST_F(DoScan, AFileThatIsNoDataFileIsAServerError) {
    write_file(p, "junk");
    expect_status("500 Internal Server Error", query(R"({"column":["id"]})"));
    expect_status("500 Internal Server Error", query("{}"));
}
TEST_F(DoScan, AFailureAfterTheFirstRecordCutsTheStream) {
    write_cvn(dir + "/a.cvn", two, 10);
    write_cvn(dir + "/b.cvn", two, 10);
    std::vector<std::string> file;  // in listing order
    for (const auto& e : fs::directory_iterator(dir)) file.push_back(e.path());
    ASSERT_EQ(2u, file.size());
    const std::string first = records(file[0], {"id"}, {0});
    const std::pair<std::string, const char*> second[] = {
        {cvn_bytes({{"other", CVN_TYP_INT32}}, 10), "400 Bad Request"},
        {read_file(file[1]).substr(0, 100), "500 Internal Server Error"},
    };
    for (const auto& [bytes, status] : second) {
        write_file(file[1], bytes);  // in place: the order stays
        const result_t r = query(R"({"column":["id"]})");
        EXPECT_STREQ(status, r.status);
        EXPECT_TRUE(r.reply == STREAM_HEAD + first) << r.reply.size();
    }
}
TEST_F(DoScan, APageThatCannotBeReadCutsTheStreamWithTheStatusOfBadInput) {
    write_cvn(p, {{"id", CVN_TYP_INT32}}, int64_t{FULL} + 5);
    const std::string first = records(p, {"id"}, {0});
    std::string bytes = read_file(p);
    int64_t footsz;
    memcpy(&footsz, bytes.data() + bytes.size() - 16, sizeof(footsz));
    // The second row group's only colmeta_t begins with the file offset, which now lies after the end.
    const size_t meta = bytes.size() - 16 - static_cast<size_t>(footsz) + 40 + 136 + 112 + (16 + 144) + 16;
    bytes.replace(meta, 8, le64(int64_t{1} << 40));
    write_file(p, bytes);
    const result_t r = query(R"({"column":["id"]})");
    EXPECT_STREQ("400 Bad Request", r.status);
    EXPECT_TRUE(r.reply == STREAM_HEAD + first);
}
TEST_F(DoScan, CountsRowsWithoutColumnsAndConditions) {
    write_cvn(p, {{"id", CVN_TYP_INT32}}, 1);
    expect_stream(count_record(1, 1), query("{}"));
    write_cvn(p, {{"id", CVN_TYP_INT32}}, 65);
    expect_stream(count_record(65, 2), query(R"({"fragment":[0,0]})"));
    expect_stream(count_record(65, 2), query(R"({"fragment":[5,4]})"));  // the fragment is not looked at
    write_cvn(p, {{"id", CVN_TYP_INT32}}, 0);
    expect_stream("", query("{}"));
}
TEST_F(DoScan, CountsInSegments) {
    write_cvn(p, {{"id", CVN_TYP_INT32}}, 2500000);
    expect_stream(count_record(FULL, 16384) + count_record(FULL, 16384) + count_record(402848, 6295),
                  query("{}"));
    write_cvn(p, {{"id", CVN_TYP_INT32}}, FULL);
    expect_stream(count_record(FULL, 16384), query("{}"));
}
TEST_F(DoScan, CountsOnWhenTheClientHasGone) {
    write_cvn(p, {{"id", CVN_TYP_INT32}}, 10);
    int fd[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
    close(fd[1]);
    htreply_t reply = {fd[0], false};
    fragment_t frag = {};
    EXPECT_EQ(nullptr, do_scan(&reply, dir.c_str(), nullptr, nullptr, &frag));
    reply.status_sent = false;
    char name[] = "id";
    colname_t col = {name, nullptr};
    EXPECT_STREQ("400 Bad Request", do_scan(&reply, dir.c_str(), &col, nullptr, &frag));
    close(fd[0]);
}
TEST_F(DoScan, PagesLargerThanARecordAreRefusedBeforeAnythingIsSent) {
    write_cvn(p, {{"a", CVN_TYP_INT32}, {"b", CVN_TYP_INT32}}, 3);
    cvn_scan_t* scan;
    ASSERT_EQ(0, cvn_scan_open(&scan, p.c_str()));
    ASSERT_EQ(0, cvn_scan_add_required(scan, "a"));
    ASSERT_EQ(0, cvn_scan_add_required(scan, "b"));
    int fd[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
    htreply_t reply = {fd[0], false};
    // The footer in memory claims more than a record's 32-bit size can say; no body is looked at.
    colmeta_t* meta = scan->rowgroup[0]->colmeta;
    meta[0].zbyte = INT32_MAX - 2 * CVN_PAGE_HEADSZ - meta[1].zbyte + 1;
    EXPECT_EQ(STREAM_BADSIZE, stream_rowgroup(&reply, scan, 0, true));
    meta[0].zbyte = -1;
    EXPECT_EQ(STREAM_BADSIZE, stream_rowgroup(&reply, scan, 0, true));
    EXPECT_FALSE(reply.status_sent);
    cvn_page_t page = {};
    page.zbyte = -1;
    EXPECT_FALSE(stream_page(&reply, &page));
    EXPECT_FALSE(reply.status_sent);
    cvn_scan_close(scan);
    close(fd[0]);
    close(fd[1]);
}
TEST_F(DoScan, ARecordOfWhichAPageCannotBeReadIsNotBegun) {
    write_cvn(p, two, 3);
    cvn_scan_t* scan;
    ASSERT_EQ(0, cvn_scan_open(&scan, p.c_str()));
    ASSERT_EQ(0, cvn_scan_add_required(scan, "id"));
    ASSERT_EQ(0, cvn_scan_add_required(scan, "note"));
    int64_t rg;
    ASSERT_EQ(0, cvn_scan_next_rowgroup(scan, &rg));
    colmeta_t note;
    ASSERT_EQ(0, cvn_scan_colmeta(scan, rg, 1, &note));
    client_t client("");
    htreply_t reply = {client.fd(), false};
    ASSERT_EQ(0, truncate(p.c_str(), note.file_offset + note.zbyte - 1));  // the last byte of the last page
    EXPECT_EQ(STREAM_NOREAD, stream_rowgroup(&reply, scan, rg, true));
    ASSERT_EQ(0, truncate(p.c_str(), 12));  // and the first page
    EXPECT_EQ(STREAM_NOREAD, stream_rowgroup(&reply, scan, rg, true));
    EXPECT_FALSE(reply.status_sent);
    EXPECT_EQ("", client.finish());
    cvn_scan_close(scan);
}
TEST_F(DoScan, APageWithoutATypeIsPrintedAndSent) {
    write_cvn(p, {{"a", CVN_TYP_INT32}}, 3);
    cvn_scan_t* scan;
    ASSERT_EQ(0, cvn_scan_open(&scan, p.c_str()));
    ASSERT_EQ(0, cvn_scan_add_required(scan, "a"));
    scan->coldef[0].typ = 0;
    client_t client("");
    htreply_t reply = {client.fd(), true};
    testing::internal::CaptureStderr();
    EXPECT_EQ(STREAM_OK, stream_rowgroup(&reply, scan, 0, true));
    EXPECT_EQ("\n *** invalid typ 0 detected *** \n\n", testing::internal::GetCapturedStderr());
    cvn_page_t* page;
    ASSERT_EQ(0, cvn_scan_page(scan, 0, 0, &page, false));
    EXPECT_EQ(0, page->typ);
    EXPECT_EQ(record_header(CVN_PAGE_HEADSZ + 13) +
                  chunk(std::string(reinterpret_cast<const char*>(page), CVN_PAGE_HEADSZ + 13)),
              client.finish());
    cvn_scan_close(scan);
}
TEST_F(DoScan, LogsFilesAndPagesWhenVerbose) {
    write_cvn(p, two, 10);
    verbose = 1;
    const std::string head =
        "POST /v1/d/s/e HTTP/1.1\ndo_post /v1/d/s/e\n  post body: {\"column\":[\"id\"]}\n"
        "  do_scan: scanning base/d/s/e/p.cvn\n";
    EXPECT_EQ(head, query(R"({"column":["id"]})").log);
    verbose = 2;
    EXPECT_EQ(head + "  page[1]: 42\n", query(R"({"column":["id"]})").log);
}
TEST_F(DoScan, LogsBothSizesOfACompressedPage) {
    write_cvn(p, {{"c", CVN_TYP_INT32}}, 0);
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, p.c_str()));
    ASSERT_EQ(0, cvn_create_column(w, "c", CVN_TYP_INT32, true, false));
    cvn_datum_t v = {};
    const bool isnull = false;
    for (int i = 0; i < 10000; i++) ASSERT_EQ(0, cvn_append(w, 1, &v, &isnull));
    ASSERT_EQ(0, cvn_close(w));
    verbose = 2;
    const result_t r = query(R"({"column":["c"]})");
    const size_t at = r.log.find("  page[1]: ");
    ASSERT_NE(std::string::npos, at);
    int zbyte = 0, nbyte = 0, len = 0;
    EXPECT_EQ(2, sscanf(r.log.c_str() + at, "  page[1]: %d %d\n%n", &zbyte, &nbyte, &len));
    EXPECT_EQ(41250, nbyte);
    EXPECT_LT(zbyte, nbyte);
    EXPECT_EQ(r.log.size(), at + static_cast<size_t>(len));
}
}  // namespace
