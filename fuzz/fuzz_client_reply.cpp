// Any bytes as the bodies of a server's replies: catalogues, totals, scans and samples.
//
//   byte 0      what is asked for
//   byte 1      of a scan: which conditions, whether all columns, whether the rows are filtered
//   byte 2      1: every page gets the hash that its body has; 2: the last reply ends in an error
//   the rest    the bodies of the replies in their order, parted by the bytes "\xff|\xff"
//
// The linker puts answer_http into the place of http_run, which needs a connection. Whatever the pieces that
// a body comes in, the answer is the same.
#include <algorithm>

#include "fuzz/fuzz_client.h"

using namespace kelp;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t HEADSZ = 3;
constexpr int64_t RECORD_MAX = 1 << 24;

struct server_t {
    std::vector<std::string> body;
    size_t next = 0;
    unsigned seed = 0;
    bool cut = false;
};
server_t server;  // one request at a time

}  // namespace

static std::string put_scan(kelp_scan_t* scan) {
    std::string out;
    for (const kelp_column_t& c : kelp_scan_columns(scan)) out += c.name + "\n";
    const size_t ncol = kelp_scan_columns(scan).size();
    kelp_error_t err{};
    kelp_batch_t* batch = nullptr;
    int code;
    while ((code = kelp_scan_next(scan, &batch, &err)) == 0) {
        fuzz::demand(batch->nrow > 0 && static_cast<size_t>(batch->ncol) == ncol, "a batch of another form");
        for (int c = 0; c < batch->ncol; c++) {
            fuzz::demand(batch->col[c].nrow == batch->nrow, "a batch with a column of another length");
            fuzz::put_column(&out, batch->col[c]);
        }
        kelp_batch_free(batch);
    }
    kelp_scan_close(scan);
    // Rows that came before a failure depend on who was quicker.
    return code == KELP_END ? out : fuzz::error_text(code, err);
}

static std::string scan(const kelp_url_t& url, const kelp_opt_t& opt, uint8_t how) {
    kelp_query_t q{.url = url, .column = {}, .cond = {}};
    q.njob = 1;
    q.exact = how & 1;
    q.no_nan = how & 2;
    if (how & 4) q.column = {"a"};
    if (how & 8) q.cond.push_back({.column = "a", .op = CVN_OP_GE, .value = {"1"}});
    if (how & 16) q.cond.push_back({.column = "b", .op = CVN_OP_ISNOTNULL, .value = {}});
    if (how & 32) q.cond.push_back({.column = "b", .op = CVN_OP_IN, .value = {"1", "0"}});
    q.rows_only = (how & 64) && !q.cond.empty();
    kelp_scan_t* s = nullptr;
    kelp_error_t err{};
    if (const int code = kelp_scan_open(&s, q, opt, &err)) return fuzz::error_text(code, err);
    return put_scan(s);
}

static std::string put_columns(const std::vector<kelp_column_t>& column) {
    std::string out;
    for (const kelp_column_t& c : column) out += c.name + " " + std::to_string(c.typ) + "\n";
    return out;
}

static std::string ask(uint8_t what, uint8_t how) {
    kelp_url_t url{.base = "http://h:1", .database = "d", .schema = "s", .entity = "e", .partition = ""};
    kelp_opt_t opt;
    opt.max_record_nbyte = RECORD_MAX;
    kelp_error_t err{};
    std::string out;
    int code = 0;
    switch (what % 8) {
        case 0: {
            url.entity.clear();
            std::vector<std::string> name;
            code = kelp_list(&name, url, opt, &err);
            for (const std::string& n : name) out += n + "\n";
            break;
        }
        case 1: {
            std::vector<kelp_file_t> file;
            code = kelp_list_files(&file, url, opt, &err);
            for (const kelp_file_t& f : file)
                out += f.name + " " + std::to_string(f.nrow) + " " + std::to_string(f.zbyte) + "\n";
            break;
        }
        case 2: {
            url.partition = "p.cvn";
            std::vector<kelp_column_t> column;
            int32_t chksum;
            code = kelp_list_columns(&column, &chksum, url, opt, &err);
            out = put_columns(column);
            break;
        }
        case 3: {
            std::vector<kelp_column_t> column;
            code = kelp_table_columns(&column, url, opt, &err);
            out = put_columns(column);
            break;
        }
        case 4: {
            kelp_meta_t meta;
            code = kelp_meta(&meta, url, opt, &err);
            out = std::to_string(meta.nrow) + " " + std::to_string(meta.nrowgroup);
            break;
        }
        case 5: {
            int64_t nrow;
            code = kelp_count(&nrow, kelp_query_t{.url = url, .column = {}, .cond = {}}, opt, &err);
            out = std::to_string(nrow);
            break;
        }
        case 6: return scan(url, opt, how);
        default: {
            kelp_scan_t* s = nullptr;
            code = kelp_sample_open(&s, url, 5, opt, &err);
            if (code == 0) return put_scan(s);
        }
    }
    return code == 0 ? out : fuzz::error_text(code, err);
}

int answer_http(http_t* http, kelp_error_t* err) asm("__wrap__ZN4kelp8http_runEPNS_6http_tEP12kelp_error_t");

int answer_http(http_t* http, kelp_error_t* err) {
    if (server.next >= server.body.size()) return kelp_fail(err, KELP_ECONNECT, nullptr, "no reply is left");
    const std::string& body = server.body[server.next++];
    const bool last = server.next == server.body.size();
    http->status = 200;
    const int code = kelp_guard(err, [&] {
        return fuzz::in_pieces(body, server.seed, [&](const char* p, size_t n) {
            return http->sink ? http->sink(http->sink_arg, p, n, err) : 0;
        });
    });
    if (code) return code;
    return last && server.cut ? kelp_fail(err, KELP_ECUT, nullptr, "the reply is cut off") : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < HEADSZ) return 0;
    server.body.clear();
    std::string_view rest(reinterpret_cast<const char*>(data) + HEADSZ, size - HEADSZ);
    for (;;) {
        const size_t end = rest.find("\xff|\xff");
        server.body.emplace_back(rest.substr(0, end));
        if (data[2] & 1) fuzz::repair_hashes(&server.body.back());
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 3);
    }
    server.cut = data[2] & 2;
    std::string first;
    for (const unsigned seed : {0u, 1u}) {
        server.next = 0;
        server.seed = seed;
        const std::string answer = ask(data[0], data[1]);
        if (seed == 0) first = answer;
        fuzz::demand(answer == first, "pieces change an answer");
    }
    return 0;
}
