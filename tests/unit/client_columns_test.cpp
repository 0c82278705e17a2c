// Columns that differ between the files of a table: how a difference is told, and how a scan that fails of one
// finds its file. The server's catalogue is made up by each test.
#include <gtest/gtest.h>

#include <future>
#include <map>

#include "client/fake_server.h"

namespace {

using namespace replies;
using fake::request_t;
using fake::send_all;
using fake::server_t;
using columns_t = std::vector<kelp_column_t>;

std::string difference(const columns_t& a, const columns_t& b) {
    kelp_error_t err{};
    const int code = kelp_columns_compare(a, "a.cvn", b, "b.cvn", &err);
    EXPECT_EQ(code, err.code);
    EXPECT_EQ(err.text[0] ? KELP_EUNFIT : 0, code);
    return err.text;
}

TEST(ClientColumns, AreTheSameByNameTypeAndOrderAlone) {
    EXPECT_EQ("", difference({}, {}));
    EXPECT_EQ("", difference({{"a", CVN_TYP_DATE}, {"b", CVN_TYP_CSTR}},
                             {{"a", CVN_TYP_DATE}, {"b", CVN_TYP_CSTR}}));
    EXPECT_EQ(0, kelp_columns_compare({}, "", {}, "", nullptr));
    EXPECT_EQ(KELP_EUNFIT, kelp_columns_compare({{"a", CVN_TYP_DATE}}, "", {}, "", nullptr));
}

TEST(ClientColumns, TheFirstDifferenceIsTold) {
    const kelp_column_t a{"a", CVN_TYP_INT32}, b{"b", CVN_TYP_CSTR}, c{"c", CVN_TYP_INT64};
    EXPECT_EQ("column 'a' is of type date in a.cvn, but of type int32 in b.cvn",
              difference({{"a", CVN_TYP_DATE}, c}, {a, b}));
    EXPECT_EQ("a.cvn has no column 'b' (cstr), but b.cvn has", difference({a, c}, {a, b, c}));
    EXPECT_EQ("a.cvn has no column 'b' (cstr), but b.cvn has", difference({a}, {a, b}));
    EXPECT_EQ("a.cvn has a column 'b' (cstr), but b.cvn has not", difference({a, b, c}, {a, c}));
    EXPECT_EQ("a.cvn has a column 'b' (cstr), but b.cvn has not", difference({a, b}, {a}));
    EXPECT_EQ("column 1 is 'b' in a.cvn, but 'a' in b.cvn", difference({b, a}, {a, b}));
    EXPECT_EQ("a.cvn has two columns 'a', but b.cvn has one", difference({a, a}, {a}));
    EXPECT_EQ("b.cvn has two columns 'a', but a.cvn has one", difference({a}, {a, a}));
    EXPECT_EQ("a.cvn has no column 'b c' (int32), but b.cvn has", difference({}, {{"b\nc", CVN_TYP_INT32}}));
}

// A table whose files have the columns that are given for them; a POST gets `reply`.
struct table_server_t {
    std::map<std::string, columns_t> file;
    std::string reply = error_reply("400 Bad Request");
    std::function<void(int fd)> before_columns = [](int) {
    };                             // of the second file asked for, and of each after it
    std::atomic<int> ncolumns{0};  // requests for a file's columns
    server_t server{[this](int fd, const request_t& r) { serve(fd, r); }};

    void serve(int fd, const request_t& r) {
        if (r.method == "POST") {
            send_all(fd, reply);
            return;
        }
        std::string s;
        if (!r.url.ends_with(".cvn")) {
            for (const auto& [name, column] : file)
                s += (s.empty() ? "" : ", ") + ("{\"name\": \"" + name) +
                     "\", \"chksum\": 1, \"ncol\": " + std::to_string(column.size()) +
                     ", \"nrow\": 2, \"nrowgroup\": 1,\"nbyte\": 10, \"zbyte\": 5}";
            send_all(fd, json_reply("[ " + s + "]\n"));
            return;
        }
        if (ncolumns++ > 0) before_columns(fd);
        int cno = 0;
        for (const kelp_column_t& c : file.at(r.url.substr(r.url.rfind('/') + 1)))
            s += (cno ? ",{\"cno\": " : "{\"cno\": ") + std::to_string(cno) + ", \"typ\": \"" +
                 cvn_typ_str(c.typ) + "\", \"name\": \"" + c.name + "\"}",
                cno++;
        send_all(fd, json_reply("{\"column\":[" + s + "], \"chksum\": 1}"));
    }
    kelp_url_t url() const {
        kelp_url_t u;
        EXPECT_EQ(0, kelp_url_parse(&u, server.url("/db/sc/t"), nullptr));
        return u;
    }
    // Scans the table with one connection, over which nothing but a failure comes.
    kelp_error_t fail(const std::vector<std::string>& column, const kelp_opt_t& opt = {}) {
        kelp_query_t query{.url = url()};
        query.column = column;
        query.njob = 1;
        kelp_error_t err{};
        kelp_scan_t* scan = nullptr;
        if (kelp_scan_open(&scan, query, opt, &err) == 0) fail_next(scan, &err);
        return err;
    }
    static void fail_next(kelp_scan_t* scan, kelp_error_t* err) {
        kelp_batch_t* batch = nullptr;
        const int code = kelp_scan_next(scan, &batch, err);
        EXPECT_EQ(nullptr, batch);
        EXPECT_EQ(code, err->code);
        kelp_error_t again{};
        EXPECT_EQ(code, kelp_scan_next(scan, &batch, &again));
        EXPECT_STREQ(err->text, again.text);
        kelp_scan_close(scan);
    }
};

const kelp_column_t ID{"id", CVN_TYP_INT64}, DAY{"day", CVN_TYP_DATE}, NOTE{"note", CVN_TYP_CSTR};

TEST(ClientMisfit, TheFileThatLacksAColumnOfAScanIsNamed) {
    table_server_t t;
    t.file = {{"a.cvn", {ID, DAY}}, {"b.cvn", {ID, DAY}}, {"c.cvn", {NOTE, ID}}, {"d.cvn", {ID, DAY}}};
    const kelp_error_t err = t.fail({"id", "day"});
    EXPECT_EQ(KELP_EREFUSED, err.code);
    EXPECT_EQ(400, err.http_status);
    EXPECT_STREQ("400 Bad Request", err.said);
    EXPECT_EQ("c.cvn has no column 'day' (date), but a.cvn has (127.0.0.1:" + std::to_string(t.server.port) +
                  " answered: 400 Bad Request)",
              err.text);
    EXPECT_STREQ("remove that file, or replace it by one with the table's columns", err.hint);
    EXPECT_EQ(3, t.ncolumns);  // of a.cvn for the scan, of b.cvn, and of the one that differs
}

TEST(ClientMisfit, AFileThatFitsTheScanIsNotBlamedForItsOtherColumns) {
    table_server_t t;
    t.file = {{"a.cvn", {ID, DAY}}, {"b.cvn", {NOTE, DAY, ID}}};
    const kelp_error_t err = t.fail({"id"});
    EXPECT_EQ(KELP_EREFUSED, err.code);
    EXPECT_STREQ("400 Bad Request", strstr(err.text, "400 Bad Request"));
    EXPECT_EQ(nullptr, strstr(err.text, "b.cvn"));
    EXPECT_EQ(2, t.ncolumns);
}

TEST(ClientMisfit, AFileWithTooFewColumnsIsAskedFirst) {
    table_server_t t;
    t.file = {{"a.cvn", {ID, DAY}}, {"b.cvn", {ID, DAY}}, {"c.cvn", {ID, DAY}}, {"z.cvn", {ID}}};
    EXPECT_EQ(0u, std::string(t.fail({}).text).find("z.cvn has no column 'day' (date), but a.cvn has ("));
    EXPECT_EQ(2, t.ncolumns);
}

TEST(ClientMisfit, AFirstFileWithoutTheColumnIsComparedWithOneThatHasMore) {
    table_server_t t;
    t.file = {{"a.cvn", {ID}}, {"b.cvn", {ID, DAY}}, {"c.cvn", {ID, DAY}}};
    const kelp_error_t err = t.fail({"day"});
    EXPECT_EQ(KELP_EARG, err.code);
    EXPECT_STREQ("there is no column day (b.cvn has a column 'day' (date), but a.cvn has not)", err.text);
    EXPECT_STREQ("the table has id", err.hint);
    EXPECT_EQ(2, t.ncolumns);
}

TEST(ClientMisfit, AColumnThatNoFileHasCostsNoSearch) {
    table_server_t t;
    t.file = {{"a.cvn", {ID}}, {"b.cvn", {ID}}};
    EXPECT_STREQ("there is no column day", t.fail({"day"}).text);
    EXPECT_EQ(1, t.ncolumns);
}

TEST(ClientMisfit, AnErrorInTheMiddleOfAStreamIsExplainedToo) {
    table_server_t t;
    t.file = {{"a.cvn", {ID}}, {"b.cvn", {{"id", CVN_TYP_INT32}}}, {"c.cvn.mismatch", {NOTE}}};
    t.reply = STREAM_HEAD + "400 Bad Request";
    const kelp_error_t err = t.fail({"id"});
    EXPECT_EQ(KELP_ECUT, err.code);
    EXPECT_STREQ("400 Bad Request", err.said);
    EXPECT_EQ(
        0u, std::string(err.text).find("column 'id' is of type int32 in b.cvn, but of type int64 in a.cvn ("))
        << err.text;
}

TEST(ClientMisfit, APageOfAnotherTypeNamesItsFile) {
    table_server_t t;
    t.file = {{"a.cvn", {ID}}, {"b.cvn", {{"id", CVN_TYP_INT32}}}};
    t.reply = stream_reply(record({page(0, CVN_TYP_INT32, {support::i32(1)}, false)}));
    const kelp_error_t err = t.fail({"id"});
    EXPECT_EQ(KELP_EPROTO, err.code);
    EXPECT_EQ(
        0u, std::string(err.text).find("column 'id' is of type int32 in b.cvn, but of type int64 in a.cvn ("))
        << err.text;
}

TEST(ClientMisfit, ASampleWantsAllColumnsOfAFileInTheirOrder) {
    table_server_t t;
    t.file = {{"a.cvn", {ID, DAY}}, {"b.cvn", {DAY, ID}}};
    t.reply = STREAM_HEAD;
    kelp_scan_t* scan = nullptr;
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_sample_open(&scan, t.url(), 5, {}, &err)) << err.text;
    table_server_t::fail_next(scan, &err);
    EXPECT_EQ(KELP_ECUT, err.code);
    EXPECT_STREQ("column 1 is 'day' in b.cvn, but 'id' in a.cvn (the server's sampler failed)", err.text);
}

TEST(ClientMisfit, NothingMoreIsAskedAfterAnotherFailure) {
    for (const std::string& reply :
         {error_reply("500 Internal Server Error"), STREAM_HEAD + "500 Internal Server Error",
          error_reply("404 Not Found"), STREAM_HEAD}) {
        table_server_t t;
        t.file = {{"a.cvn", {ID}}, {"b.cvn", {DAY}}};
        t.reply = reply;
        EXPECT_EQ(nullptr, strstr(t.fail({"id"}).text, "b.cvn")) << reply;
        EXPECT_EQ(1, t.ncolumns) << reply;
    }
}

TEST(ClientMisfit, ACatalogueThatFailsLeavesTheFailureAsItWas) {
    table_server_t t;
    t.file = {{"a.cvn", {ID}}, {"b.cvn", {ID}}, {"c.cvn", {DAY}}};
    t.before_columns = [](int fd) { send_all(fd, error_reply("503 Service Unavailable")); };
    const kelp_error_t err = t.fail({"id"});
    EXPECT_EQ(KELP_EREFUSED, err.code);
    EXPECT_STREQ("400 Bad Request", err.said);
    EXPECT_EQ(nullptr, strstr(err.text, ".cvn")) << err.text;
    EXPECT_EQ(2, t.ncolumns);
}

TEST(ClientMisfit, CancellingEndsTheSearch) {
    table_server_t t;
    t.file = {{"a.cvn", {ID}}, {"b.cvn", {DAY}}};
    std::promise<void> asked;
    t.before_columns = [&](int) {
        asked.set_value();
        while (!t.server.stopping) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    };
    kelp_query_t query{.url = t.url()};
    kelp_opt_t opt;
    opt.idle_timeout_ms = 0;
    kelp_scan_t* scan = nullptr;
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_scan_open(&scan, query, opt, &err)) << err.text;
    std::thread other([&] {
        asked.get_future().wait();
        kelp_scan_cancel(scan);
    });
    kelp_batch_t* batch = nullptr;
    EXPECT_EQ(KELP_EREFUSED, kelp_scan_next(scan, &batch, &err));
    EXPECT_EQ(nullptr, strstr(err.text, "b.cvn"));
    other.join();
    kelp_scan_close(scan);
}

TEST(ClientMisfit, NoMoreFilesAreAskedThanTheHeaderSays) {
    table_server_t t;
    for (int i = 0; i < 2005; i++) t.file[std::to_string(100000 + i) + ".cvn"] = {ID};
    t.file["last.cvn"] = {DAY};
    const kelp_error_t err = t.fail({"id"});
    EXPECT_EQ(KELP_EREFUSED, err.code);
    EXPECT_EQ(nullptr, strstr(err.text, ".cvn")) << err.text;
    EXPECT_EQ(1 + 2000, t.ncolumns);
}

}  // namespace
