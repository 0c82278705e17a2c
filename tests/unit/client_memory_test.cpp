// What a scan holds in memory: the limits, and how a slow reader holds the server back.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "client/queries.h"

namespace {

using namespace queries;
using namespace std::chrono_literals;

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
    // Until the server has sent all it can, and nothing has gone on for a while; far less than everything has been
    // decoded then.
    int before = -1;
    kelp_scan_stat_t stat{};
    for (int i = 0, quiet = 0; i < 400 && quiet < 10; i++) {
        kelp_scan_stat(scan, &stat);
        quiet = stat.nrowgroup >= 2 && before == sent ? quiet + 1 : 0;
        before = sent;
        std::this_thread::sleep_for(50ms);
    }
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

}  // namespace
