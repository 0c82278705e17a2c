// Scans of whole tables: rows, fragments, conditions, files that change, and what is refused before a scan.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <set>

#include "client/queries.h"

namespace {

using namespace queries;

TEST(ClientScan, HandsOutEveryRowOfEveryTypeOnce) {
    const table_t t = support::all_types_table(1, 1000);
    server_t server(table_handler(t, 37));
    for (const int njob : {1, 2, 5}) {
        kelp_query_t q{.url = url_of(server)};
        q.njob = njob;
        const result_t got = run(q);
        ASSERT_EQ(KELP_END, got.code) << got.err.text;
        EXPECT_EQ(rows_of(t.value), rows_of(got.value)) << njob;
        if (njob == 1) {
            EXPECT_EQ(t.value, got.value);
        }
        EXPECT_EQ(28, got.stat.nrowgroup);
        EXPECT_EQ(28, got.stat.total_nrowgroup);
        EXPECT_EQ(1000, got.stat.nrow);
        EXPECT_EQ(1000, got.stat.nrow_out);
        EXPECT_GT(got.stat.nbyte, got.stat.zbyte);
    }
}

TEST(ClientScan, OpensOneConnectionForEachFragment) {
    const table_t t = support::all_types_table(2, 100);
    server_t server(table_handler(t, 10));
    kelp_query_t q{.url = url_of(server)};
    q.njob = 3;
    ASSERT_EQ(KELP_END, run(q).code);
    std::set<std::string> fragment;
    for (const request_t& r : server.requests()) {
        if (r.method != "POST") continue;
        fragment.insert(r.body.substr(r.body.find("\"fragment\"")));
        EXPECT_EQ(std::string::npos, r.head.find("Expect")) << r.head;
        EXPECT_NE(std::string::npos, r.head.find("Connection: close")) << r.head;
        EXPECT_EQ("/v1/db/sc/t", r.url);
    }
    EXPECT_EQ(
        (std::set<std::string>{"\"fragment\": [0, 3]}", "\"fragment\": [1, 3]}", "\"fragment\": [2, 3]}"}),
        fragment);
}

TEST(ClientScan, FiltersOnColumnsThatAreNotInTheResult) {
    table_t t = support::all_types_table(3, 500);
    server_t server(table_handler(t, 100));
    kelp_query_t q{.url = url_of(server)};
    q.column = {"cstr", "int64"};
    q.cond = {{"bool", CVN_OP_EQ, {"true"}}, {"int16", CVN_OP_GE, {"0"}}};
    q.njob = 2;
    std::vector<values_t> want(2);
    for (size_t r = 0; r < t.nrow(); r++) {
        const value_t &b = t.value[0][r], &s = t.value[1][r];
        if (b.null || s.null || !b.bytes[0] || support::load<int16_t>(s.bytes, 0) < 0) continue;
        want[0].push_back(t.value[8][r]);
        want[1].push_back(t.value[3][r]);
    }
    ASSERT_GT(want[0].size(), 10u);
    const result_t got = run(q);
    ASSERT_EQ(KELP_END, got.code) << got.err.text;
    EXPECT_EQ(rows_of(want), rows_of(got.value));
    bool seen = false;
    for (const request_t& r : server.requests()) {
        if (r.method != "POST") continue;
        seen = true;
        EXPECT_NE(std::string::npos, r.body.find(R"({"column": ["cstr", "int64", "bool", "int16"])"))
            << r.body;
        EXPECT_NE(std::string::npos,
                  r.body.find(R"("condition": [["bool", "!=", "0"], ["int16", ">=", "0"]])"))
            << r.body;
    }
    EXPECT_TRUE(seen);

    q.exact = false;
    EXPECT_EQ(500, run(q).nrow);
    q.exact = true;
    int64_t n = 0;
    ASSERT_EQ(0, kelp_count(&n, q, quick(), nullptr));
    EXPECT_EQ(static_cast<int64_t>(want[0].size()), n);
}

TEST(ClientScan, AnEmptyListMatchesNothingAndAsksNothing) {
    const table_t t = support::all_types_table(4, 50);
    server_t server(table_handler(t, 10));
    kelp_query_t q{.url = url_of(server)};
    q.cond = {{"int32", CVN_OP_IN, {}}};
    const result_t got = run(q);
    EXPECT_EQ(KELP_END, got.code);
    EXPECT_EQ(0, got.nrow);
    for (const request_t& r : server.requests()) EXPECT_EQ("GET", r.method);
}

TEST(ClientScan, BatchesOutliveTheirScan) {
    const table_t t = support::all_types_table(5, 60);
    kelp_batch_t* batch = nullptr;
    {
        server_t server(table_handler(t, 60));
        kelp_scan_t* scan = nullptr;
        kelp_query_t q{.url = url_of(server)};
        ASSERT_EQ(0, kelp_scan_open(&scan, q, quick(), nullptr));
        ASSERT_EQ(0, kelp_scan_next(scan, &batch, nullptr));
        kelp_scan_close(scan);
    }
    for (size_t c = 0; c < t.column.size(); c++) {
        EXPECT_EQ(t.value[c], values_of(batch->col[c]));
        EXPECT_EQ(t.column[c].name, batch->col[c].name);
    }
    kelp_batch_free(batch);
}

TEST(ClientSample, ReadsTheReplyLikeAScan) {
    const table_t t = support::all_types_table(9, 30);
    std::vector<size_t> all(t.column.size());
    for (size_t c = 0; c < all.size(); c++) all[c] = c;
    std::atomic<bool> fails{false};
    server_t server([&](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 1)) return;
        send_all(fd, fails ? STREAM_HEAD : stream_reply(record_of(t, all, 0, 30, true)));
    });
    kelp_error_t err{};
    kelp_scan_t* scan = nullptr;
    ASSERT_EQ(0, kelp_sample_open(&scan, url_of(server), 30, quick(), &err)) << err.text;
    const result_t got = drain(scan);
    kelp_scan_close(scan);
    EXPECT_EQ(KELP_END, got.code) << got.err.text;
    EXPECT_EQ(t.value, got.value);
    EXPECT_EQ(R"({"command": ["sample", "30"]})", server.requests().back().body);

    fails = true;
    ASSERT_EQ(0, kelp_sample_open(&scan, url_of(server), 30, quick(), &err)) << err.text;
    const result_t failed = drain(scan);
    kelp_scan_close(scan);
    EXPECT_EQ(KELP_ECUT, failed.code);
    EXPECT_NE(nullptr, strstr(failed.err.text, "sampler failed")) << failed.err.text;
    EXPECT_NE(nullptr, strstr(failed.err.hint, "cvnsamp")) << failed.err.hint;
    fails = false;
    ASSERT_EQ(0, kelp_sample_open(&scan, url_of(server), 29, quick(), &err)) << err.text;
    const result_t more = drain(scan);
    kelp_scan_close(scan);
    EXPECT_EQ(KELP_EPROTO, more.code);
    EXPECT_STREQ("the server sends more than the 29 rows of the sample that was asked for", more.err.text);
    for (const int64_t n : {int64_t{0}, int64_t{-1}, int64_t{1} << 31}) {
        EXPECT_EQ(KELP_EARG, kelp_sample_open(&scan, url_of(server), n, quick(), &err));
        EXPECT_EQ(nullptr, scan);
    }
}

// A catalogue with one file, whose checksum is what `chksum` gives for the n-th look at it.
server_t::handler_t changing_handler(const table_t& t, size_t step, std::function<std::string(int)> listing) {
    auto nlook = std::make_shared<std::atomic<int>>(0);
    return [&t, step, listing, nlook](int fd, const request_t& r) {
        if (r.method == "GET" && !r.url.ends_with(".cvn"))
            send_all(fd, listing((*nlook)++));
        else if (!fake::serve_catalogue(fd, r, t, 4))
            send_all(fd, stream_reply(fragment_pieces(r, t, step, true)));
    };
}

std::string listing_of(int chksum, int nrowgroup) {
    return json_reply("[ {\"name\": \"p.cvn\", \"chksum\": " + std::to_string(chksum) +
                      ", \"ncol\": 14, \"nrow\": 40, \"nrowgroup\": " + std::to_string(nrowgroup) +
                      ",\"nbyte\": 10, \"zbyte\": 5}]\n");
}

TEST(ClientScan, AFileReplacedUnderSeveralConnectionsIsNotTakenForWhole) {
    const table_t t = support::all_types_table(21, 40);
    const std::string first = listing_of(5, 4);
    struct {
        const char* what;
        std::string second;
        int code;
    } const cases[] = {
        {"nothing", first, KELP_END},
        {"another footer", listing_of(6, 4), KELP_ECHANGED},
        {"another count", listing_of(5, 5), KELP_ECHANGED},
        {"no file", json_reply("[]"), KELP_ECHANGED},
        {"no table", error_reply("404 Not Found"), KELP_ECHANGED},
        {"an error", error_reply("500 Internal Server Error"), KELP_EREFUSED},
        {"a mismatched file more",
         json_reply(
             "[ {\"name\": \"q.cvn.mismatch\", \"chksum\": 7, \"ncol\": 1, \"nrow\": 1, "
             "\"nrowgroup\": 1, \"nbyte\": 1, \"zbyte\": 1}, {\"name\": \"p.cvn\", \"chksum\": 5, \"ncol\": "
             "14, \"nrow\": 40, \"nrowgroup\": 4, \"nbyte\": 10, \"zbyte\": 5}]\n"),
         KELP_END},
    };
    for (const auto& c : cases)
        for (const int njob : {1, 2, 3}) {
            server_t server(changing_handler(t, 10, [&](int n) { return n == 0 ? first : c.second; }));
            kelp_query_t q{.url = url_of(server)};
            q.njob = njob;
            kelp_scan_t* scan = nullptr;
            ASSERT_EQ(0, kelp_scan_open(&scan, q, quick(), nullptr));
            const result_t got = drain(scan);
            EXPECT_EQ(40, got.nrow);
            EXPECT_EQ(njob == 1 ? KELP_END : c.code, got.code) << c.what << got.err.text;
            kelp_error_t err{};
            kelp_batch_t* batch = nullptr;
            EXPECT_EQ(got.code, kelp_scan_next(scan, &batch, &err));  // and ever after
            EXPECT_EQ(got.code < 0 ? got.code : 0, got.err.code);
            if (got.code == KELP_ECHANGED) {
                EXPECT_STREQ("the table changed while it was read", got.err.text);
                EXPECT_STREQ("the table changed while it was read", err.text);
                EXPECT_NE(nullptr, strstr(err.hint, "one connection")) << err.hint;
            }
            kelp_scan_close(scan);
        }
}

TEST(ClientScan, FilesThatItDoesNotReadAddNoConnections) {
    const table_t t = support::all_types_table(22, 40);
    server_t server(changing_handler(t, 40, [](int) {
        return json_reply(
            "[ {\"name\": \"a.cvn.mismatch\", \"chksum\": 7, \"ncol\": 1, \"nrow\": 9, \"nrowgroup\": 9, "
            "\"nbyte\": "
            "1, \"zbyte\": 1}, {\"name\": \"p.cvn\", \"chksum\": 5, \"ncol\": 14, \"nrow\": 40, "
            "\"nrowgroup\": 1, "
            "\"nbyte\": 10, \"zbyte\": 5}]\n");
    }));
    kelp_query_t q{.url = url_of(server)};
    q.njob = 4;
    const result_t got = run(q);
    EXPECT_EQ(KELP_END, got.code) << got.err.text;
    EXPECT_EQ(40, got.nrow);
    EXPECT_EQ(1, got.stat.total_nfile);
    std::vector<std::string> post;
    for (const request_t& r : server.requests())
        if (r.method == "POST") post.push_back(r.body.substr(r.body.find("\"fragment\"")));
    EXPECT_EQ(std::vector<std::string>{"\"fragment\": [0, 1]}"}, post);
}

TEST(ClientScan, MistakesInAQueryAreFoundBeforeTheScan) {
    const table_t t = support::all_types_table(7, 10);
    server_t server(table_handler(t, 10));
    const auto fails = [&](const char* words, auto change) {
        kelp_query_t q{.url = url_of(server)};
        change(q);
        const result_t got = run(q);
        EXPECT_EQ(KELP_EARG, got.code) << words;
        EXPECT_NE(nullptr, strstr(got.err.text, words)) << got.err.text;
    };
    fails("there is no column nope", [](kelp_query_t& q) { q.column = {"nope"}; });
    fails("named twice", [](kelp_query_t& q) { q.column = {"int32", "bool", "int32"}; });
    fails("named twice", [](kelp_query_t& q) { q.column = {"int32", "int32"}; });
    fails("column int32 (int32): 'x' is not a whole number", [](kelp_query_t& q) {
        q.cond = {{"int32", CVN_OP_EQ, {"x"}}};
    });
    fails("takes one value", [](kelp_query_t& q) { q.cond = {{"int32", CVN_OP_EQ, {}}}; });
    fails("takes no value", [](kelp_query_t& q) { q.cond = {{"int32", CVN_OP_ISNULL, {"1"}}}; });
    fails("no valid operator", [](kelp_query_t& q) { q.cond = {{"int32", 77, {"1"}}}; });
    fails("without a condition", [](kelp_query_t& q) { q.rows_only = true; });
    fails("jobs", [](kelp_query_t& q) { q.njob = 1000; });
    fails("does not name a table", [](kelp_query_t& q) { q.url.entity.clear(); });
    for (const request_t& r : server.requests()) EXPECT_EQ("GET", r.method) << r.body;
}

TEST(ClientScan, UnreachableServersAreNamed) {
    int port;
    {
        const server_t gone([](int, const request_t&) {});
        port = gone.port;
    }
    kelp_url_t url;
    ASSERT_EQ(0, kelp_url_parse(&url, "kelp://127.0.0.1:" + std::to_string(port) + "/d/s/t", nullptr));
    std::vector<kelp_file_t> file;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ECONNECT, kelp_list_files(&file, url, quick(), &err));
    EXPECT_NE(nullptr, strstr(err.text, ("127.0.0.1:" + std::to_string(port)).c_str())) << err.text;
    EXPECT_NE(nullptr, strstr(err.text, "refused")) << err.text;
    EXPECT_NE(nullptr, strstr(err.hint, "kelpd.conf")) << err.hint;
}

}  // namespace
