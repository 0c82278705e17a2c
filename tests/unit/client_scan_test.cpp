// Scans, catalogue, uploads and totals against a server that sends what each test makes up.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/stat.h>

#include <chrono>
#include <future>
#include <set>

#include "client/fake_server.h"

namespace lookup {

// The state of the look-up of "slow.invalid", which takes until a test lets it go, or half a minute.
std::atomic<bool> released{false};
std::atomic<int> pending{0};

}  // namespace lookup

// Stands in front of the C library's.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res) {
    if (node && strcmp(node, "slow.invalid") == 0) {
        lookup::pending++;
        for (int i = 0; i < 3000 && !lookup::released; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        lookup::pending--;
        return EAI_NONAME;
    }
    using function_t = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto next = reinterpret_cast<function_t>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return next(node, service, hints, res);
}

namespace {

using namespace replies;
using fake::request_t;
using fake::send_all;
using fake::server_t;
using namespace std::chrono_literals;

kelp_opt_t quick() {
    kelp_opt_t opt;
    opt.connect_timeout_ms = 20000;
    opt.idle_timeout_ms = 60000;
    return opt;
}

kelp_url_t url_of(const server_t& s, const std::string& path = "/db/sc/t") {
    kelp_url_t url;
    EXPECT_EQ(0, kelp_url_parse(&url, s.url(path), nullptr));
    return url;
}

// Two numbers in brackets behind "fragment".
std::pair<size_t, size_t> fragment_of(const std::string& body) {
    const size_t at = body.find("\"fragment\": [");
    if (at == body.npos) return {0, 1};
    char* end = nullptr;
    const size_t id = strtoul(body.c_str() + at + 13, &end, 10);
    return {id, strtoul(end + 1, nullptr, 10)};
}

// The columns of a table that a request names, in its order.
std::vector<size_t> columns_of(const std::string& body, const table_t& t) {
    std::vector<size_t> out;
    size_t at = body.find('[') + 1;
    const size_t end = body.find(']');
    while ((at = body.find('"', at)) < end) {
        const size_t close = body.find('"', at + 1);
        for (size_t c = 0; c < t.column.size(); c++)
            if (t.column[c].name == body.substr(at + 1, close - at - 1)) out.push_back(c);
        at = close + 1;
    }
    return out;
}

// The row groups of a fragment, `step` rows each, as the pieces of a reply.
std::vector<std::string> fragment_pieces(const request_t& r, const table_t& t, size_t step, bool compress) {
    const auto [id, nfrag] = fragment_of(r.body);
    std::vector<std::string> piece;
    for (size_t g = id; g * step < t.nrow(); g += nfrag)
        for (const std::string& p :
             record_of(t, columns_of(r.body, t), g * step, std::min(t.nrow(), (g + 1) * step), compress))
            piece.push_back(p);
    return piece;
}

server_t::handler_t table_handler(const table_t& t, size_t step) {
    return [&t, step](int fd, const request_t& r) {
        const size_t ngroup = (t.nrow() + step - 1) / step;
        if (fake::serve_catalogue(fd, r, t, ngroup)) return;
        send_all(fd, stream_reply(fragment_pieces(r, t, step, true)));
    };
}

// A reply that a test changes between requests.
class text_t {
 public:
    text_t& operator=(const std::string& s) {
        const std::lock_guard lock(mutex_);
        text_ = s;
        return *this;
    }
    std::string get() {
        const std::lock_guard lock(mutex_);
        return text_;
    }

 private:
    std::mutex mutex_;
    std::string text_;
};

struct result_t {
    int code = 0;
    kelp_error_t err{};
    std::vector<values_t> value;
    int64_t nrow = 0;
    kelp_scan_stat_t stat{};
};

result_t drain(kelp_scan_t* scan) {
    result_t out;
    out.value.resize(kelp_scan_columns(scan).size());
    kelp_batch_t* batch = nullptr;
    while ((out.code = kelp_scan_next(scan, &batch, &out.err)) == 0) {
        EXPECT_EQ(static_cast<int>(out.value.size()), batch->ncol);
        EXPECT_GT(batch->nrow, 0);
        out.nrow += batch->nrow;
        for (int c = 0; c < batch->ncol; c++) {
            EXPECT_EQ(batch->nrow, batch->col[c].nrow);
            EXPECT_EQ(kelp_scan_columns(scan)[static_cast<size_t>(c)].name, batch->col[c].name);
            const values_t v = values_of(batch->col[c]);
            out.value[static_cast<size_t>(c)].insert(out.value[static_cast<size_t>(c)].end(), v.begin(),
                                                     v.end());
        }
        kelp_batch_free(batch);
    }
    EXPECT_EQ(nullptr, batch);
    kelp_scan_stat(scan, &out.stat);
    return out;
}

result_t run(const kelp_query_t& query, const kelp_opt_t& opt = quick()) {
    kelp_scan_t* scan = nullptr;
    result_t out;
    out.code = kelp_scan_open(&scan, query, opt, &out.err);
    if (out.code == 0) out = drain(scan);
    kelp_scan_close(scan);
    return out;
}

// Rows as a set, since the connections finish in any order.
std::multiset<std::string> rows_of(const std::vector<values_t>& value) {
    std::multiset<std::string> rows;
    for (size_t r = 0; !value.empty() && r < value[0].size(); r++) {
        std::string row;
        for (const values_t& v : value)
            row +=
                v[r].null ? "N" : "V" + support::le64(static_cast<int64_t>(v[r].bytes.size())) + v[r].bytes;
        rows.insert(row);
    }
    return rows;
}

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

// Replies that are wrong.

// What a scan of a small table makes of `reply`.
result_t scan_reply(const table_t& t, const std::string& reply, kelp_opt_t opt = quick()) {
    server_t server([&](int fd, const request_t& r) {
        if (!fake::serve_catalogue(fd, r, t, 2)) send_all(fd, reply);
    });
    kelp_query_t q{.url = url_of(server)};
    q.njob = 1;
    return run(q, opt);
}

table_t small_table() {
    table_t t;
    t.column = {{"i", CVN_TYP_INT32, false, false}, {"s", CVN_TYP_CSTR, false, false}};
    t.value = {{support::i32(1), support::null_value(), support::i32(3), support::i32(4)},
               {support::text("x"), support::text(""), support::null_value(), support::text("yz")}};
    return t;
}

std::vector<std::string> small_pieces(const table_t& t) {
    std::vector<std::string> piece = record_of(t, {0, 1}, 0, 2, false);
    for (const std::string& p : record_of(t, {0, 1}, 2, 4, false)) piece.push_back(p);
    return piece;
}

TEST(ClientScan, TakesNoReplyCutAtAnyByteForWhole) {
    const table_t t = small_table();
    const std::string whole = stream_reply(small_pieces(t));
    ASSERT_EQ(KELP_END, scan_reply(t, whole).code);
    std::atomic<size_t> cut{0};
    server_t server([&](int fd, const request_t& r) {
        if (!fake::serve_catalogue(fd, r, t, 2)) send_all(fd, std::string_view(whole).substr(0, cut));
    });
    kelp_query_t q{.url = url_of(server)};
    q.njob = 1;
    for (cut = 0; cut < whole.size(); cut++) {
        const result_t got = run(q);
        ASSERT_TRUE(got.code == KELP_ECUT || got.code == KELP_EPROTO)
            << cut << " " << got.code << got.err.text;
        EXPECT_EQ(got.code, got.err.code);
        EXPECT_NE('\0', got.err.text[0]) << cut;
        EXPECT_NE('\0', got.err.hint[0]) << cut;
    }
}

TEST(ClientScan, ReportsWhatTheServerSaidInTheMiddleOfAStream) {
    const table_t t = small_table();
    const std::vector<std::string> piece = small_pieces(t);
    for (size_t n = 1; n <= piece.size(); n++) {
        std::string reply = STREAM_HEAD;
        for (size_t i = 0; i < n; i++) reply += chunk(piece[i]);
        const result_t got = scan_reply(t, reply + "400 Bad Request");
        EXPECT_EQ(KELP_ECUT, got.code) << n;
        EXPECT_STREQ("400 Bad Request", got.err.said) << n;
        EXPECT_NE(nullptr, strstr(got.err.text, "400 Bad Request")) << got.err.text;
    }
}

TEST(ClientScan, NeedsTheEndRecord) {
    const table_t t = small_table();
    std::string reply = STREAM_HEAD;
    for (const std::string& p : small_pieces(t)) reply += chunk(p);
    const result_t got = scan_reply(t, reply + "0\r\n\r\n");
    EXPECT_EQ(KELP_ECUT, got.code);
    EXPECT_STREQ("the reply ends without its end record", got.err.text);
}

TEST(ClientScan, RefusesRecordsOfOtherColumns) {
    const table_t t = small_table();
    EXPECT_EQ(KELP_EPROTO, scan_reply(t, stream_reply(record_of(t, {0}, 0, 2, false))).code);
    EXPECT_EQ(KELP_EPROTO, scan_reply(t, stream_reply(record_of(t, {0, 1, 0}, 0, 2, false))).code);
    EXPECT_EQ(KELP_EPROTO, scan_reply(t, stream_reply(record_of(t, {1, 0}, 0, 2, false))).code);
    std::vector<std::string> uneven =
        record({page(0, CVN_TYP_INT32, {support::i32(1)}, false),
                page(1, CVN_TYP_CSTR, {support::text("a"), support::text("b")}, false)});
    EXPECT_EQ(KELP_EDAMAGED, scan_reply(t, stream_reply(uneven)).code);
}

TEST(ClientScan, RefusesAPageWithAWrongHash) {
    const table_t t = small_table();
    std::vector<std::string> piece = small_pieces(t);
    piece[4].back() = static_cast<char>(piece[4].back() ^ 0x40);
    const result_t got = scan_reply(t, stream_reply(piece));
    EXPECT_EQ(KELP_EDAMAGED, got.code);
    EXPECT_STREQ("a page of column i is damaged: its hash does not match", got.err.text);
}

TEST(ClientScan, DoesNotBelieveAHugeRecord) {
    const table_t t = small_table();
    kelp_opt_t opt = quick();
    opt.max_record_nbyte = 1 << 20;
    const result_t got = scan_reply(t, STREAM_HEAD + chunk(record_head(INT32_MAX)), opt);
    EXPECT_EQ(KELP_EPROTO, got.code);
    EXPECT_NE(nullptr, strstr(got.err.text, "above the limit of 1048576")) << got.err.text;
}

TEST(ClientScan, AFailureOnOneConnectionFailsTheScan) {
    const table_t t = support::all_types_table(6, 200);
    server_t server([&](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 20)) return;
        const std::string reply = stream_reply(fragment_pieces(r, t, 10, true));
        send_all(fd, fragment_of(r.body).first == 2 ? reply.substr(0, reply.size() / 2) : reply);
    });
    kelp_query_t q{.url = url_of(server)};
    q.njob = 4;
    kelp_scan_t* scan = nullptr;
    ASSERT_EQ(0, kelp_scan_open(&scan, q, quick(), nullptr));
    EXPECT_EQ(KELP_ECUT, drain(scan).code);
    kelp_batch_t* batch = nullptr;
    EXPECT_EQ(KELP_ECUT, kelp_scan_next(scan, &batch, nullptr));  // and ever after
    kelp_scan_close(scan);
}

TEST(ClientScan, ErrorStatusesBecomeErrorsWithTheServersWords) {
    const table_t t = small_table();
    result_t got = scan_reply(t, error_reply("400 Bad Request - invalid content"));
    EXPECT_EQ(KELP_EREFUSED, got.code);
    EXPECT_EQ(400, got.err.http_status);
    EXPECT_STREQ("400 Bad Request - invalid content", got.err.said);
    got = scan_reply(t, error_reply("404 Not Found"));
    EXPECT_EQ(KELP_ENOTFOUND, got.code);
    got = scan_reply(t, "");
    EXPECT_EQ(KELP_EPROTO, got.code);
    EXPECT_NE(nullptr, strstr(got.err.text, "without a reply")) << got.err.text;
    got = scan_reply(t, "220 mail.example ESMTP\r\n");
    EXPECT_EQ(KELP_EPROTO, got.code);
    EXPECT_NE(nullptr, strstr(got.err.text, "does not speak HTTP")) << got.err.text;
    got = scan_reply(t, json_reply("{}"));
    EXPECT_TRUE(got.code == KELP_ECUT || got.code == KELP_EPROTO) << got.code;
}

TEST(ClientScan, AnErrorPageInChunksIsReadAsItsText) {
    const table_t t = small_table();
    const auto chunked = [](const char* status, const std::string& body) {
        return std::string("HTTP/1.1 ") + status + "\r\nTransfer-Encoding: chunked\r\n\r\n" + body;
    };
    result_t got =
        scan_reply(t, chunked("502 Bad Gateway", chunk("no ") + chunk("daemon\r\n") + "0\r\n\r\n"));
    EXPECT_EQ(KELP_EREFUSED, got.code);
    EXPECT_EQ(502, got.err.http_status);
    EXPECT_STREQ("no daemon", got.err.said);
    got = scan_reply(t, chunked("404 Not Found", chunk("<html>") + "0\r\n\r\n"));
    EXPECT_EQ(KELP_ENOTFOUND, got.code);
    EXPECT_STREQ("404", got.err.said);
    got = scan_reply(t, chunked("503 Service Unavailable", "no chunk\r\n"));
    EXPECT_EQ(KELP_EREFUSED, got.code);
    EXPECT_STREQ("503", got.err.said);
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
            if (got.code == KELP_ECHANGED) {
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

// Time.

// Sends half a reply and then nothing until the test is over.
server_t::handler_t stalling_handler(const table_t& t, server_t** server) {
    return [&t, server](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 2)) return;
        const std::string reply = stream_reply(small_pieces(t));
        send_all(fd, std::string_view(reply).substr(0, reply.size() / 2));
        while (!(*server)->stopping) std::this_thread::sleep_for(5ms);
    };
}

TEST(ClientTime, AServerThatStallsTimesOut) {
    const table_t t = small_table();
    server_t* at = nullptr;
    server_t server(stalling_handler(t, &at));
    at = &server;
    kelp_query_t q{.url = url_of(server)};
    kelp_opt_t opt = quick();
    opt.idle_timeout_ms = 200;
    result_t got = run(q, opt);
    EXPECT_EQ(KELP_ETIMEOUT, got.code);
    EXPECT_NE(nullptr, strstr(got.err.text, "has sent nothing for 200 ms")) << got.err.text;
    opt = quick();
    opt.total_timeout_ms = 200;
    got = run(q, opt);
    EXPECT_EQ(KELP_ETIMEOUT, got.code);
    EXPECT_NE(nullptr, strstr(got.err.text, "did not finish in 200 ms")) << got.err.text;
}

// Sends `head`, then `piece` over and over, until the peer or the test is gone.
server_t::handler_t endless_handler(const table_t& t, server_t** server, std::string head, std::string piece,
                                    std::chrono::milliseconds pause) {
    return [=, &t](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 2)) return;
        send_all(fd, head);
        while (!(*server)->stopping && send_all(fd, piece)) std::this_thread::sleep_for(pause);
    };
}

TEST(ClientTime, NothingThatNobodyReadsKeepsARequestAlive) {
    const table_t t = small_table();
    std::string over = STREAM_HEAD;
    for (const std::string& p : small_pieces(t)) over += chunk(p);
    over += chunk(record_head(0)) + "0\r\n";
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 100000000\r\n\r\n";
    struct {
        const char* what;
        std::string head, piece;
        bool scan;
        int slow, fast;  // what becomes of it when the pieces trickle, and when they pour
    } const cases[] = {
        {"an error text", "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 100000000\r\n\r\n", "x", true,
         KELP_EREFUSED, KELP_EREFUSED},
        {"an error text in chunks", "HTTP/1.1 502 Bad Gateway\r\nTransfer-Encoding: chunked\r\n\r\n",
         "1\r\nx\r\n", true, KELP_EREFUSED, KELP_EREFUSED},
        {"a text where none belongs", ok, "xxxxxxxxxxxxxxxx", false, KELP_ETIMEOUT, KELP_EPROTO},
        {"a chunked text where none belongs", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
         "10\r\nxxxxxxxxxxxxxxxx\r\n", false, KELP_ETIMEOUT, KELP_EPROTO},
        {"lines of the head", "HTTP/1.1 200 OK\r\n", "X-Header: some text\r\n", true, KELP_ETIMEOUT,
         KELP_EPROTO},
        {"interim replies", "", "HTTP/1.1 100 Continue\r\n\r\n", true, KELP_ETIMEOUT, KELP_EPROTO},
        {"lines of a trailer", over, "X: y\r\n", true, KELP_ETIMEOUT, KELP_EPROTO},
    };
    for (const auto& c : cases)
        for (const bool slow : {true, false}) {
            server_t* at = nullptr;
            server_t server(endless_handler(t, &at, c.head, c.piece, slow ? 20ms : 0ms));
            at = &server;
            kelp_opt_t opt = quick();
            opt.idle_timeout_ms = slow ? 400 : 20000;
            opt.total_timeout_ms = 30000;  // in case it goes on all the same
            kelp_error_t err{};
            int code;
            if (c.scan) {
                kelp_query_t q{.url = url_of(server)};
                q.njob = 1;
                const result_t got = run(q, opt);
                code = got.code;
                err = got.err;
            } else {
                code = kelp_remove(url_of(server), opt, &err);
            }
            EXPECT_EQ(slow ? c.slow : c.fast, code) << c.what << " " << slow << ": " << err.text;
            EXPECT_EQ(nullptr, strstr(err.text, "did not finish")) << c.what << " " << slow;
        }
}

TEST(ClientTime, AnUploadThatGoesOnSlowlyIsNotIdle) {
    support::temp_dir_t dir;
    constexpr size_t FILESZ = 700000;
    support::write_file(dir / "p.cvn", std::string(FILESZ, 'x'));
    // Half of what libcurl takes of the file at once needs longer than the time-out.
    server_t server(
        [&](int fd, const request_t&) {
            std::string in;
            char buf[16384];
            while (in.size() < FILESZ) {
                const ssize_t n = read(fd, buf, sizeof(buf));
                if (n <= 0) return;
                in.append(buf, static_cast<size_t>(n));
                std::this_thread::sleep_for(std::chrono::microseconds(n * 8));
            }
            send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
        },
        true);
    kelp_opt_t opt = quick();
    opt.idle_timeout_ms = 1500;
    kelp_error_t err{};
    EXPECT_EQ(0, kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, opt, &err))
        << err.text;
}

TEST(ClientTime, AnUploadThatStallsIsReportedAsWhatItIs) {
    support::temp_dir_t dir;
    support::write_file(dir / "large.cvn", std::string(8 << 20, 'x'));
    support::write_file(dir / "small.cvn", "x");
    server_t* at = nullptr;
    server_t server(
        [&](int, const request_t&) {
            while (!at->stopping) std::this_thread::sleep_for(5ms);
        },
        true);
    at = &server;
    kelp_opt_t opt = quick();
    opt.idle_timeout_ms = 300;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ETIMEOUT,
              kelp_upload(url_of(server), (dir / "large.cvn").c_str(), nullptr, nullptr, opt, &err));
    EXPECT_NE(nullptr, strstr(err.text, "has taken nothing of the file for 300 ms")) << err.text;
    EXPECT_EQ(KELP_ETIMEOUT,
              kelp_upload(url_of(server), (dir / "small.cvn").c_str(), nullptr, nullptr, opt, &err));
    EXPECT_NE(nullptr, strstr(err.text, "has not answered the upload for 300 ms")) << err.text;
}

TEST(ClientTime, TheTotalTimeOfAScanIncludesItsCatalogue) {
    const table_t t = small_table();
    server_t server([&](int fd, const request_t& r) {
        std::this_thread::sleep_for(300ms);
        fake::serve_catalogue(fd, r, t, 2);
    });
    kelp_query_t q{.url = url_of(server)};
    kelp_opt_t opt = quick();
    opt.total_timeout_ms = 500;  // enough for each of two requests
    kelp_scan_t* scan = nullptr;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ETIMEOUT, kelp_scan_open(&scan, q, opt, &err)) << err.text;
    EXPECT_EQ(nullptr, scan);
    kelp_scan_close(scan);
}

TEST(ClientTime, CancellingDoesNotWaitForAHostNameToBeFound) {
    kelp_url_t url;
    ASSERT_EQ(0, kelp_url_parse(&url, "kelp://slow.invalid:1/db", nullptr));
    std::atomic<bool> flag{false};
    kelp_opt_t opt = quick();
    opt.cancel = &flag;
    std::thread other([&] {
        for (int i = 0; i < 1000 && lookup::pending == 0; i++) std::this_thread::sleep_for(10ms);
        flag = true;
    });
    std::vector<std::string> name;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ECANCEL, kelp_list(&name, url, opt, &err)) << err.text;
    EXPECT_EQ(1, lookup::pending);  // it goes on
    lookup::released = true;
    other.join();
    for (int i = 0; i < 1000 && lookup::pending > 0; i++) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(0, lookup::pending);
}

TEST(ClientTime, CancellingEndsAWait) {
    const table_t t = small_table();
    server_t* at = nullptr;
    server_t server(stalling_handler(t, &at));
    at = &server;
    kelp_query_t q{.url = url_of(server)};
    for (const bool by_flag : {false, true}) {
        std::atomic<bool> flag{false};
        kelp_opt_t opt = quick();
        opt.idle_timeout_ms = 0;
        opt.cancel = &flag;
        kelp_scan_t* scan = nullptr;
        ASSERT_EQ(0, kelp_scan_open(&scan, q, opt, nullptr));
        std::thread other([&] {
            std::this_thread::sleep_for(50ms);
            if (by_flag)
                flag = true;
            else
                kelp_scan_cancel(scan);
        });
        EXPECT_EQ(KELP_ECANCEL, drain(scan).code);
        other.join();
        kelp_scan_close(scan);
    }
}

TEST(ClientTime, AScanMayBeClosedInTheMiddle) {
    const table_t t = support::all_types_table(8, 2000);
    server_t server(table_handler(t, 20));
    for (const int n : {0, 1, 5}) {
        kelp_query_t q{.url = url_of(server)};
        q.njob = 3;
        q.max_flight_nbyte = 1;
        kelp_scan_t* scan = nullptr;
        ASSERT_EQ(0, kelp_scan_open(&scan, q, quick(), nullptr));
        for (int i = 0; i < n; i++) {
            kelp_batch_t* batch = nullptr;
            ASSERT_EQ(0, kelp_scan_next(scan, &batch, nullptr));
            kelp_batch_free(batch);
        }
        kelp_scan_close(scan);
    }
}

// Memory.

TEST(ClientMemory, ASlowReaderHoldsTheServerBack) {
    // Row groups of 1 MiB that compress well, so that what limits the client is not what the sockets hold.
    constexpr size_t NROW = 1 << 17;
    constexpr int NGROUP = 40;
    values_t v(NROW, support::i64(7));
    table_t t;
    t.column = {{"i", CVN_TYP_INT64, false, false}};
    const std::string body = join(record({page(0, CVN_TYP_INT64, v, true)}));
    v.clear();
    std::atomic<int> sent{0};
    server_t server([&](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, NGROUP)) return;
        send_all(fd, STREAM_HEAD);
        const auto [id, nfrag] = fragment_of(r.body);
        for (size_t g = id; g < NGROUP; g += nfrag) {
            if (!send_all(fd, chunk(body))) return;
            sent++;
        }
        send_all(fd, chunk(record_head(0)) + "0\r\n\r\n");
    });
    kelp_query_t q{.url = url_of(server)};
    q.njob = 2;
    q.max_flight_nbyte = 4 << 20;
    kelp_scan_t* scan = nullptr;
    ASSERT_EQ(0, kelp_scan_open(&scan, q, quick(), nullptr));
    // Until the server has sent all it can; far less than everything has been decoded then.
    int before = -1;
    for (int i = 0; i < 100 && before != sent; i++) {
        before = sent;
        std::this_thread::sleep_for(50ms);
    }
    kelp_scan_stat_t stat;
    kelp_scan_stat(scan, &stat);
    EXPECT_GE(stat.nrowgroup, 2);
    EXPECT_LE(stat.nbyte, 6 << 20);
    EXPECT_LE(stat.nrowgroup, 6);
    const result_t got = drain(scan);
    EXPECT_EQ(KELP_END, got.code) << got.err.text;
    EXPECT_EQ(int64_t{NROW} * NGROUP, got.nrow);
    EXPECT_EQ(NGROUP, sent);
    kelp_scan_close(scan);
}

TEST(ClientMemory, OneRowGroupAtATimeMayExceedTheLimit) {
    // Each connection has room for its row group as stored; decompressed, there is room for one.
    constexpr size_t NROW = 1 << 20;
    constexpr int NJOB = 4, NGROUP = 8;
    constexpr int64_t RAW = (8 << 20) + (1 << 17);
    table_t t;
    t.column = {{"i", CVN_TYP_INT64, false, false}};
    const std::string body = join(record({page(0, CVN_TYP_INT64, values_t(NROW, support::i64(7)), true)}));
    std::atomic<int> nbegun{0};
    server_t server([&](int fd, const request_t& r) {
        if (fake::serve_catalogue(fd, r, t, NGROUP)) return;
        const auto [id, nfrag] = fragment_of(r.body);
        // Every connection learns of its row group before the first has received one.
        send_all(fd, STREAM_HEAD + chunk(body.substr(0, RECORD_HEADSZ)));
        nbegun++;
        for (int i = 0; i < 1000 && nbegun < NJOB; i++) std::this_thread::sleep_for(5ms);
        std::this_thread::sleep_for(200ms);
        send_all(fd, chunk(body.substr(RECORD_HEADSZ)));
        for (size_t g = id + nfrag; g < NGROUP; g += nfrag) send_all(fd, chunk(body));
        send_all(fd, chunk(record_head(0)) + "0\r\n\r\n");
    });
    kelp_query_t q{.url = url_of(server)};
    q.njob = NJOB;
    q.max_flight_nbyte = 9 << 20;
    kelp_scan_t* scan = nullptr;
    ASSERT_EQ(0, kelp_scan_open(&scan, q, quick(), nullptr));
    // Until nothing has been decoded for a while.
    kelp_scan_stat_t stat{};
    int64_t before = -1;
    for (int i = 0, quiet = 0; i < 200 && quiet < 10; i++) {
        kelp_scan_stat(scan, &stat);
        quiet = stat.nbyte > 0 && stat.nbyte == before ? quiet + 1 : 0;
        before = stat.nbyte;
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_GE(stat.nbyte, RAW);
    EXPECT_LE(stat.nbyte, 2 * RAW);
    const result_t got = drain(scan);
    EXPECT_EQ(KELP_END, got.code) << got.err.text;
    EXPECT_EQ(int64_t{NROW} * NGROUP, got.nrow);
    kelp_scan_close(scan);
}

TEST(ClientMemory, PositionsOfTextsCountForTheLimitOfARowGroup) {
    table_t t;
    t.column = {{"s", CVN_TYP_CSTR, false, false}};
    const std::string reply =
        stream_reply(record({page(0, CVN_TYP_CSTR, values_t(100000, support::text("")), true)}));
    kelp_opt_t opt = quick();
    opt.max_record_nbyte = 500000;
    EXPECT_EQ(KELP_EPROTO, scan_reply(t, reply, opt).code);
    opt.max_record_nbyte = 520000;
    EXPECT_EQ(KELP_END, scan_reply(t, reply, opt).code);
}

// Catalogue, totals, files.

TEST(ClientCatalogue, NumbersThatCannotBeAreRefused) {
    text_t listing;
    server_t server([&](int fd, const request_t&) { send_all(fd, json_reply(listing.get())); });
    std::vector<kelp_file_t> file;
    kelp_error_t err{};
    for (const char* bad : {"\"nrow\": -1", "\"nrowgroup\": -1", "\"nbyte\": -1", "\"zbyte\": -1",
                            "\"ncol\": -1", "\"ncol\": 2147483648", "\"nrow\": 9223372036854775808"}) {
        listing = std::string("[{\"name\": \"p.cvn\", ") + bad + "}]";
        EXPECT_EQ(KELP_EPROTO, kelp_list_files(&file, url_of(server), quick(), &err)) << bad;
        EXPECT_TRUE(file.empty());
    }
    for (const char* big : {"nrow", "nrowgroup", "zbyte"}) {
        const std::string one = std::string("{\"name\": \"p.cvn\", \"") + big + "\": 9223372036854775807}";
        listing = "[" + one + "]";
        ASSERT_EQ(0, kelp_list_files(&file, url_of(server), quick(), &err)) << err.text;
        listing = "[" + one + ", " + one + "]";
        kelp_scan_t* scan = nullptr;
        EXPECT_EQ(KELP_EPROTO, kelp_scan_open(&scan, {.url = url_of(server)}, quick(), &err));
        EXPECT_NE(nullptr, strstr(err.text, "impossible totals")) << err.text;
    }
}

TEST(ClientCatalogue, ThatIsTooLargeIsNotBelieved) {
    text_t listing;
    server_t server([&](int fd, const request_t&) { send_all(fd, json_reply(listing.get())); });
    std::vector<std::string> name;
    kelp_error_t err{};
    const auto names = [](size_t n) {
        std::string s = "[\"\"";
        for (size_t i = 1; i < n; i++) s += ",\"\"";
        return s + "]";
    };
    listing = names(1 << 20);
    EXPECT_EQ(0, kelp_list(&name, url_of(server, ""), quick(), &err)) << err.text;
    EXPECT_EQ(size_t{1} << 20, name.size());
    listing = names((1 << 20) + 1);
    EXPECT_EQ(KELP_EPROTO, kelp_list(&name, url_of(server, ""), quick(), &err));
    listing = "[\"" + std::string((32 << 20) - 4, 'x') + "\"]";
    EXPECT_EQ(0, kelp_list(&name, url_of(server, ""), quick(), &err)) << err.text;
    listing = "[\"" + std::string((32 << 20) - 3, 'x') + "\"]";
    EXPECT_EQ(KELP_EPROTO, kelp_list(&name, url_of(server, ""), quick(), &err));
    EXPECT_STREQ("the reply is larger than any catalogue", err.text);
}

TEST(ClientCatalogue, ATableWithoutFilesHasACodeOfItsOwn) {
    text_t listing;
    server_t server([&](int fd, const request_t& r) {
        send_all(fd, r.url.ends_with(".cvn") ? error_reply("404 Not Found") : json_reply(listing.get()));
    });
    for (const char* none : {"[]", "[{\"name\": \"p.cvn.mismatch\"}]", "[{\"name\": \"gone.cvn\"}]"}) {
        listing = none;
        kelp_error_t err{};
        std::vector<kelp_column_t> column;
        EXPECT_EQ(KELP_EEMPTY, kelp_table_columns(&column, url_of(server), quick(), &err));
        EXPECT_NE(nullptr, strstr(err.text, "/db/sc/t has no data files")) << err.text;
        kelp_query_t q{.url = url_of(server)};
        q.cond = {{"a", CVN_OP_EQ, {"1"}}};
        kelp_scan_t* scan = nullptr;
        EXPECT_EQ(KELP_EEMPTY, kelp_scan_open(&scan, q, quick(), &err));
        EXPECT_EQ(nullptr, scan);
        int64_t n = 77;
        EXPECT_EQ(0, kelp_count(&n, q, quick(), &err));
        EXPECT_EQ(0, n);
    }
}

TEST(ClientCatalogue, IsReadAsTheDaemonWritesIt) {
    server_t server([&](int fd, const request_t& r) {
        if (r.url == "/v1")
            return (void)send_all(fd, json_reply("[\"db1\",\"my db\",\"a\"b\",\"back\\slash\"]"));
        if (r.url == "/v1/empty") return (void)send_all(fd, json_reply("[]"));
        if (r.url == "/v1/d/s/t")
            return (void)send_all(
                fd,
                json_reply(
                    "[ {\"name\": \"p1.cvn\", \"chksum\": -1234, \"ncol\": 3, \"nrow\": 1000, "
                    "\"nrowgroup\": 1,\"nbyte\": 12000, \"zbyte\": 4000}, {\"name\": \"p2.cvn.mismatch\", "
                    "\"chksum\": 7, \"ncol\": 1, \"nrow\": 9000000000, \"nrowgroup\": 2,\"nbyte\": 1, "
                    "\"zbyte\": 1}]\n"));
        if (r.url == "/v1/d/s/t/p1.cvn")
            return (void)send_all(
                fd, json_reply("{\"column\":[{\"cno\": 0, \"typ\": \"int32\", \"name\": \"id\"},"
                               "{\"cno\": 1, \"typ\": \"unknown\", \"name\": \"x y\"}], "
                               "\"chksum\": 5678}"));
        send_all(fd, error_reply("404 Not Found"));
    });
    kelp_error_t err{};
    std::vector<std::string> name;
    ASSERT_EQ(0, kelp_list(&name, url_of(server, ""), quick(), &err)) << err.text;
    EXPECT_EQ((std::vector<std::string>{"db1", "my db", "a\"b", "back\\slash"}), name);
    ASSERT_EQ(0, kelp_list(&name, url_of(server, "/empty"), quick(), &err)) << err.text;
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(KELP_ENOTFOUND, kelp_list(&name, url_of(server, "/gone"), quick(), &err));
    EXPECT_EQ(KELP_EARG, kelp_list(&name, url_of(server, "/d/s/t"), quick(), &err));
    std::vector<kelp_file_t> file;
    ASSERT_EQ(0, kelp_list_files(&file, url_of(server, "/d/s/t"), quick(), &err)) << err.text;
    ASSERT_EQ(2u, file.size());
    EXPECT_EQ("p1.cvn", file[0].name);
    EXPECT_EQ(-1234, file[0].chksum);
    EXPECT_EQ(3, file[0].ncol);
    EXPECT_EQ(1000, file[0].nrow);
    EXPECT_EQ(1, file[0].nrowgroup);
    EXPECT_EQ(12000, file[0].nbyte);
    EXPECT_EQ(4000, file[0].zbyte);
    EXPECT_EQ(9000000000, file[1].nrow);
    std::vector<kelp_column_t> column;
    int32_t chksum = 0;
    ASSERT_EQ(0, kelp_list_columns(&column, &chksum, url_of(server, "/d/s/t/p1.cvn"), quick(), &err))
        << err.text;
    ASSERT_EQ(2u, column.size());
    EXPECT_EQ("id", column[0].name);
    EXPECT_EQ(CVN_TYP_INT32, column[0].typ);
    EXPECT_EQ("x y", column[1].name);
    EXPECT_EQ(0, column[1].typ);
    EXPECT_EQ(5678, chksum);
    ASSERT_EQ(0, kelp_table_columns(&column, url_of(server, "/d/s/t"), quick(), &err)) << err.text;
    EXPECT_EQ(2u, column.size());
}

TEST(ClientCatalogue, CutOrForeignJsonIsRefused) {
    const std::string whole = "[ {\"name\": \"p1.cvn\", \"chksum\": -1, \"ncol\": 3}]\n";
    std::atomic<size_t> cut{0};
    text_t foreign;
    server_t server([&](int fd, const request_t&) {
        const std::string text = foreign.get();
        send_all(fd, json_reply(text.empty() ? whole.substr(0, cut) : text));
    });
    std::vector<kelp_file_t> file;
    kelp_error_t err{};
    for (cut = 0; cut + 1 < whole.size(); cut++)
        EXPECT_EQ(KELP_EPROTO, kelp_list_files(&file, url_of(server), quick(), &err)) << cut;
    ASSERT_EQ(0, (cut = whole.size(), kelp_list_files(&file, url_of(server), quick(), &err)));
    for (const char* text : {"{}", "[[]]", "[{\"name\": 5}]", "[{\"name\": \"a\", \"x\": \"y\"}]",
                             "[{\"nrow\": 5}]", "[] x", "[1]", "<html></html>"}) {
        foreign = text;
        EXPECT_EQ(KELP_EPROTO, kelp_list_files(&file, url_of(server), quick(), &err)) << text;
        EXPECT_TRUE(file.empty());
    }
}

std::string meta_page(int32_t cno, int64_t value) {
    page_head_t head{};
    head.magic = CVN_PAGE_MAGIC;
    head.cno = cno;
    head.typ = CVN_TYP_INT64;
    head.nrow = 1;
    head.nmapoff = 8;
    head.nbyte = head.zbyte = 9;
    return image(head) + support::le64(value) + std::string(1, '\0');
}

std::string count_page(int32_t nrow) {
    page_head_t head{};
    head.magic = CVN_PAGE_MAGIC;
    head.cno = -1;
    head.nrow = nrow;
    head.nbyte = head.zbyte = (nrow - 1) / 8 / 8 + 1;
    return image(head) + std::string(static_cast<size_t>(head.zbyte), '\0');
}

TEST(ClientTotals, AreReadWithoutHashes) {
    text_t reply;
    server_t server([&](int fd, const request_t&) { send_all(fd, reply.get()); });
    kelp_error_t err{};
    kelp_meta_t meta;
    reply = stream_reply(record({meta_page(0, 2500), meta_page(1, 3)}));
    ASSERT_EQ(0, kelp_meta(&meta, url_of(server), quick(), &err)) << err.text;
    EXPECT_EQ(2500, meta.nrow);
    EXPECT_EQ(3, meta.nrowgroup);
    EXPECT_EQ(R"({"command": ["meta"]})", server.requests()[0].body);

    const kelp_query_t q{.url = url_of(server)};
    int64_t nrow = 0;
    std::vector<std::string> piece;
    for (const int32_t n : {1048576, 1048576, 402848})
        for (const std::string& p : record({count_page(n)})) piece.push_back(p);
    reply = stream_reply(piece);
    ASSERT_EQ(0, kelp_count(&nrow, q, quick(), &err)) << err.text;
    EXPECT_EQ(2500000, nrow);
    reply = stream_reply({});
    ASSERT_EQ(0, kelp_count(&nrow, q, quick(), &err)) << err.text;
    EXPECT_EQ(0, nrow);

    for (const auto& pages :
         std::vector<std::vector<std::string>>{{},
                                               {meta_page(0, 1)},
                                               {meta_page(1, 1), meta_page(0, 1)},
                                               {meta_page(0, 1), meta_page(1, 1), meta_page(2, 1)}}) {
        reply = stream_reply(pages.empty() ? std::vector<std::string>{} : record(pages));
        EXPECT_EQ(KELP_EPROTO, kelp_meta(&meta, url_of(server), quick(), &err)) << pages.size();
        EXPECT_EQ(0, meta.nrow);
    }
    for (const auto& [nrow_claim, nrowgroup_claim] : {std::pair{-1, 1}, std::pair{1, -1}}) {
        reply = stream_reply(record({meta_page(0, nrow_claim), meta_page(1, nrowgroup_claim)}));
        EXPECT_EQ(KELP_EPROTO, kelp_meta(&meta, url_of(server), quick(), &err));
        EXPECT_STREQ("the reply counts -1 rows or row groups", err.text);
    }
    const std::string whole = stream_reply(record({meta_page(0, 1), meta_page(1, 1)}));
    for (size_t n = 0; n < whole.size(); n += 7) {
        reply = whole.substr(0, n);
        EXPECT_NE(0, kelp_meta(&meta, url_of(server), quick(), &err)) << n;
    }
}

TEST(ClientUpload, SendsTheWholeFileAndReportsProgress) {
    support::temp_dir_t dir;
    std::mt19937_64 rng(5);
    const std::string bytes = support::random_bytes(rng, 3000000);
    support::write_file(dir / "p 1.cvn", bytes);
    server_t server(
        [&](int fd, const request_t&) { send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"); });
    struct progress_t {
        int64_t last = 0;
        int calls = 0;
        int64_t stop_at = INT64_MAX;
    } progress;
    const auto report = [](void* arg, int64_t done, int64_t total) {
        auto* p = static_cast<progress_t*>(arg);
        EXPECT_GE(done, p->last);
        EXPECT_EQ(3000000, total);
        p->last = done;
        p->calls++;
        return done < p->stop_at;
    };
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_upload(url_of(server), (dir / "p 1.cvn").c_str(), report, &progress, quick(), &err))
        << err.text;
    const request_t r = server.requests().at(0);
    EXPECT_EQ("PUT", r.method);
    EXPECT_EQ("/v1/db/sc/t/p%201.cvn", r.url);
    EXPECT_TRUE(bytes == r.body);
    EXPECT_EQ(std::string::npos, r.head.find("Expect")) << r.head;
    EXPECT_NE(std::string::npos, r.head.find("Content-Length: 3000000")) << r.head;
    EXPECT_EQ(3000000, progress.last);
    EXPECT_GT(progress.calls, 2);

    progress = {.stop_at = 1000000};
    EXPECT_EQ(KELP_ECANCEL,
              kelp_upload(url_of(server), (dir / "p 1.cvn").c_str(), report, &progress, quick(), &err));
    EXPECT_EQ(KELP_EFILE,
              kelp_upload(url_of(server), (dir / "none").c_str(), nullptr, nullptr, quick(), &err));
    EXPECT_EQ(KELP_EFILE, kelp_upload(url_of(server), dir.str().c_str(), nullptr, nullptr, quick(), &err));
    EXPECT_EQ(KELP_EARG,
              kelp_upload(url_of(server, "/db"), (dir / "p 1.cvn").c_str(), nullptr, nullptr, quick(), &err));
}

TEST(ClientUpload, ARefusalIsReported) {
    support::temp_dir_t dir;
    support::write_file(dir / "p.cvn", "no data file");
    server_t server([&](int fd, const request_t&) { send_all(fd, error_reply("400 Bad Request")); });
    kelp_error_t err{};
    EXPECT_EQ(KELP_EREFUSED,
              kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, quick(), &err));
    EXPECT_STREQ("400 Bad Request", err.said);
    EXPECT_NE(nullptr, strstr(err.hint, "verify")) << err.hint;
}

TEST(ClientUpload, OnlyTheDaemonsWordForABadFileBlamesTheFile) {
    support::temp_dir_t dir;
    support::write_file(dir / "p.cvn", "a good data file");
    text_t status;
    server_t server([&](int fd, const request_t&) { send_all(fd, error_reply(status.get())); });
    for (const char* other :
         {"400 Bad Request - missing Content-Length", "400 <html>", "500 Internal Server Error"}) {
        status = other;
        kelp_error_t err{};
        EXPECT_EQ(KELP_EREFUSED,
                  kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, quick(), &err));
        EXPECT_EQ(nullptr, strstr(err.hint, "verify")) << other << ": " << err.hint;
    }
}

// As a proxy passes on a reply that has neither body nor length.
TEST(ClientUpload, AChunkedReplyWithoutABodyIsSuccess) {
    support::temp_dir_t dir;
    support::write_file(dir / "p.cvn", "x");
    text_t reply;
    server_t server([&](int fd, const request_t&) { send_all(fd, reply.get()); });
    const auto both = [&](const std::string& text) {
        reply = text;
        kelp_error_t err{};
        const int put = kelp_upload(url_of(server), (dir / "p.cvn").c_str(), nullptr, nullptr, quick(), &err);
        EXPECT_EQ(put, kelp_remove(url_of(server), quick(), &err)) << text;
        return put;
    };
    const std::string head = "HTTP/1.1 200 OK\r\nServer: nginx\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(0, both(head + "0\r\n\r\n"));
    EXPECT_EQ(0, both(head + chunk("done") + "0\r\n\r\n"));
    EXPECT_EQ(KELP_ECUT, both(head));
    EXPECT_EQ(KELP_ECUT, both(head + chunk("done")));
    EXPECT_EQ(KELP_EREFUSED, both("HTTP/1.1 204 No Content\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"));
}

TEST(ClientUpload, AFileThatGrowsIsSentAsItWasAnnounced) {
    support::temp_dir_t dir;
    const std::string bytes(600000, 'x');
    support::write_file(dir / "p.cvn", bytes);
    server_t server(
        [&](int fd, const request_t&) { send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"); });
    struct grow_t {
        std::string path;
        int64_t most = 0;
    } grow{dir / "p.cvn"};
    const auto append = [](void* arg, int64_t done, int64_t) {
        auto* g = static_cast<grow_t*>(arg);
        if (g->most == 0) std::ofstream(g->path, std::ios::app) << std::string(100000, 'y');
        g->most = std::max(g->most, done);
        return true;
    };
    kelp_error_t err{};
    EXPECT_EQ(0, kelp_upload(url_of(server), grow.path.c_str(), append, &grow, quick(), &err)) << err.text;
    EXPECT_EQ(700000u, std::filesystem::file_size(grow.path));
    EXPECT_EQ(600000, grow.most);
    EXPECT_TRUE(bytes == server.requests().at(0).body);
}

TEST(ClientUpload, APipeIsRefusedWithoutWaitingForItsOtherEnd) {
    support::temp_dir_t dir;
    const std::string path = dir / "pipe.cvn";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    kelp_url_t url;
    ASSERT_EQ(0, kelp_url_parse(&url, "kelp://127.0.0.1:1/d/s/t", nullptr));
    kelp_error_t err{};
    auto upload = std::async(std::launch::async,
                             [&] { return kelp_upload(url, path.c_str(), nullptr, nullptr, quick(), &err); });
    const bool ready = upload.wait_for(20s) == std::future_status::ready;
    EXPECT_TRUE(ready);
    if (!ready) close(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(KELP_EFILE, upload.get());
    EXPECT_NE(nullptr, strstr(err.text, "is no regular file")) << err.text;
}

TEST(ClientRemove, NeedsADatabase) {
    server_t server(
        [&](int fd, const request_t&) { send_all(fd, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"); });
    kelp_error_t err{};
    EXPECT_EQ(KELP_EARG, kelp_remove(url_of(server, ""), quick(), &err));
    EXPECT_EQ(0, kelp_remove(url_of(server, "/db/sc/t/p.cvn"), quick(), &err)) << err.text;
    ASSERT_EQ(1u, server.requests().size());
    EXPECT_EQ("DELETE", server.requests()[0].method);
    EXPECT_EQ("/v1/db/sc/t/p.cvn", server.requests()[0].url);
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
    for (const int64_t n : {int64_t{0}, int64_t{-1}, int64_t{1} << 31}) {
        EXPECT_EQ(KELP_EARG, kelp_sample_open(&scan, url_of(server), n, quick(), &err));
        EXPECT_EQ(nullptr, scan);
    }
}

// https.

TEST(ClientTls, TrustsTheAuthorityThatIsNamedAndNoOther) {
    support::temp_dir_t dir;
    FILE* out = popen(("python3 " TESTS_DIR "/support/tls_server.py " + dir.str()).c_str(), "r");
    ASSERT_NE(nullptr, out);
    int port = 0;
    ASSERT_EQ(1, fscanf(out, "%d", &port));
    const std::string base = "https://127.0.0.1:" + std::to_string(port) + "/v1/";
    const auto list = [&](const std::string& path, const std::string& ca_file, kelp_error_t* err) {
        kelp_url_t url;
        EXPECT_EQ(0, kelp_url_parse(&url, base + path, nullptr));
        kelp_opt_t opt = quick();
        opt.ca_file = ca_file;
        std::vector<std::string> name;
        return kelp_list(&name, url, opt, err);
    };
    for (const std::string& untrusted : {std::string(), dir / "other.pem"}) {
        kelp_error_t err{};
        EXPECT_EQ(KELP_ECONNECT, list("db", untrusted, &err));
        EXPECT_NE(nullptr, strstr(err.text, "the certificate of 127.0.0.1:")) << err.text;
        EXPECT_NE(nullptr, strstr(err.hint, "ca_file")) << err.hint;
    }
    kelp_error_t err{};
    EXPECT_EQ(KELP_EFILE, list("db", dir / "none.pem", &err));
    EXPECT_NE(nullptr, strstr(err.text, "none.pem")) << err.text;
    EXPECT_EQ(0, list("db", dir / "cert.pem", &err)) << err.text;
    EXPECT_EQ(0, list("quit", dir / "cert.pem", &err)) << err.text;
    EXPECT_EQ(0, pclose(out));
}

TEST(ClientTls, APortWithoutItIsNamedAsThat) {
    server_t server([](int fd, const request_t&) { send_all(fd, json_reply("[]")); }, true);
    kelp_url_t url;
    ASSERT_EQ(0, kelp_url_parse(&url, "https://127.0.0.1:" + std::to_string(server.port), nullptr));
    std::vector<std::string> name;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ECONNECT, kelp_list(&name, url, quick(), &err));
    EXPECT_NE(nullptr, strstr(err.text, "no secure connection to 127.0.0.1:")) << err.text;
    EXPECT_NE(nullptr, strstr(err.hint, "kelp://")) << err.hint;
}

}  // namespace
