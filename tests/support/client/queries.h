// What the tests of scans share: servers of one table, queries of them, and what came of a query.
#ifndef KELPD_TESTS_CLIENT_QUERIES_H
#define KELPD_TESTS_CLIENT_QUERIES_H

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/fake_server.h"

namespace queries {

using namespace replies;
using fake::request_t;
using fake::send_all;
using fake::server_t;

inline kelp_opt_t quick() {
    kelp_opt_t opt;
    opt.connect_timeout_ms = 20000;
    opt.idle_timeout_ms = 60000;
    return opt;
}

inline kelp_url_t url_of(const server_t& s, const std::string& path = "/db/sc/t") {
    kelp_url_t url;
    EXPECT_EQ(0, kelp_url_parse(&url, s.url(path), nullptr));
    return url;
}

// Two numbers in brackets after "fragment".
inline std::pair<size_t, size_t> fragment_of(const std::string& body) {
    const size_t at = body.find("\"fragment\": [");
    if (at == body.npos) return {0, 1};
    char* end = nullptr;
    const size_t id = strtoul(body.c_str() + at + 13, &end, 10);
    return {id, strtoul(end + 1, nullptr, 10)};
}

// The columns of a table that a request names, in its order.
inline std::vector<size_t> columns_of(const std::string& body, const table_t& t) {
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
inline std::vector<std::string> fragment_pieces(const request_t& r, const table_t& t, size_t step,
                                                bool compress) {
    const auto [id, nfrag] = fragment_of(r.body);
    std::vector<std::string> piece;
    for (size_t g = id; g * step < t.nrow(); g += nfrag)
        for (const std::string& p :
             record_of(t, columns_of(r.body, t), g * step, std::min(t.nrow(), (g + 1) * step), compress))
            piece.push_back(p);
    return piece;
}

inline server_t::handler_t table_handler(const table_t& t, size_t step) {
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

inline result_t drain(kelp_scan_t* scan) {
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

inline result_t run(const kelp_query_t& query, const kelp_opt_t& opt = quick()) {
    kelp_scan_t* scan = nullptr;
    result_t out;
    out.code = kelp_scan_open(&scan, query, opt, &out.err);
    if (out.code == 0) out = drain(scan);
    kelp_scan_close(scan);
    return out;
}

// Rows as a set, since the connections finish in any order.
inline std::multiset<std::string> rows_of(const std::vector<values_t>& value) {
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

// What a scan of a small table makes of `reply`.
inline result_t scan_reply(const table_t& t, const std::string& reply, kelp_opt_t opt = quick()) {
    server_t server([&](int fd, const request_t& r) {
        if (!fake::serve_catalogue(fd, r, t, 2)) send_all(fd, reply);
    });
    kelp_query_t q{.url = url_of(server)};
    q.njob = 1;
    return run(q, opt);
}

inline table_t small_table() {
    table_t t;
    t.column = {{"i", CVN_TYP_INT32, false, false}, {"s", CVN_TYP_CSTR, false, false}};
    t.value = {{support::i32(1), support::null_value(), support::i32(3), support::i32(4)},
               {support::text("x"), support::text(""), support::null_value(), support::text("yz")}};
    return t;
}

inline std::vector<std::string> small_pieces(const table_t& t) {
    std::vector<std::string> piece = record_of(t, {0, 1}, 0, 2, false);
    for (const std::string& p : record_of(t, {0, 1}, 2, 4, false)) piece.push_back(p);
    return piece;
}

}  // namespace queries

#endif
