// Replies that are cut, lie, or say what went wrong: none of them passes for a whole scan.
#include <gtest/gtest.h>

#include <atomic>

#include "client/queries.h"

namespace {

using namespace queries;

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

}  // namespace
