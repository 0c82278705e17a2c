// Shared by the sources of the client, never installed.
#pragma once

#include <curl/curl.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <bit>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "clients/cpp/client.h"
#include "rows/cond.h"
#include "rows/page.h"

static_assert(std::endian::native == std::endian::little);

// Errors.

// Fills `*err` (may be null) and returns `code`. `hint` may be null.
__attribute__((format(printf, 4, 5))) int kelp_fail(kelp_error_t* err, int code, const char* hint,
                                                    const char* fmt, ...);
// The same when out of memory; and for the server's words, which are made printable first.
int kelp_nomem(kelp_error_t* err);
void kelp_said(kelp_error_t* err, std::string_view said);

// Runs `f`, which returns a code, and turns what it throws into one.
template <typename F>
int kelp_guard(kelp_error_t* err, F f) noexcept {
    try {
        return f();
    } catch (...) {
        return kelp_nomem(err);
    }
}

// What follows has names of no prefix, and so a namespace.
namespace kelp {

// HTTP (http.cpp).

// One request. The first group is set by the caller, the second by http_run.
struct http_t {
    const char* method = "GET";
    std::string url;
    std::string body;  // POST
    int fd = -1;       // PUT: the file, from its start; borrowed
    int64_t filesz = 0;
    kelp_progress_t progress = nullptr;
    void* progress_arg = nullptr;
    const kelp_opt_t* opt = nullptr;
    const std::atomic<bool>* stop = nullptr;  // ends the request like opt->cancel
    int64_t start_ms = 0;    // where opt->total_timeout_ms counts from (now_ms); 0: from the request
    CURLM* multi = nullptr;  // the caller's, to be woken up; null: one for this request
    // Takes the bytes of a reply with status 200, its transfer encoding undone.
    int (*sink)(void* arg, const char* p, size_t n, kelp_error_t* err) = nullptr;
    void* sink_arg = nullptr;

    int status = 0;
    std::string error_body;  // of a reply with another status, its first bytes
};

// Performs the request. Returns 0 when the whole reply with status 200 arrived and the sink took it, else a
// code.
[[nodiscard]] int http_run(http_t* http, kelp_error_t* err);

// Milliseconds of the monotonic clock.
int64_t now_ms();

// Undoes the chunked transfer encoding of the daemon: any chunk extension, any trailer. libcurl could do so
// as well, but would keep to itself what the server wrote in place of a chunk, which is how kelpd reports a
// failure in the middle of a stream.
struct chunk_t {
    enum state_t : int { SIZE_LINE, DATA, DATA_CR, DATA_LF, TRAILER, DONE };
    state_t state = SIZE_LINE;
    uint64_t left = 0;     // DATA: bytes to come
    size_t linesz = 0;     // SIZE_LINE, TRAILER: bytes in `line`
    size_t trailersz = 0;  // bytes of the trailer's lines before
    char line[256];
};
[[nodiscard]] int chunk_feed(chunk_t* ck, const char* p, size_t n,
                             int (*sink)(void* arg, const char* p, size_t n, kelp_error_t* err),
                             void* sink_arg, kelp_error_t* err);
// What to report when the bytes end: 0 when the body was complete.
[[nodiscard]] int chunk_end(const chunk_t* ck, kelp_error_t* err);

// The reply stream (stream.cpp).

constexpr int32_t RECORD_MAGIC = 0x71727374;
constexpr size_t RECORD_HEADSZ = 8;

// What a stream's user does with its parts. A code other than 0 ends the stream with it.
struct stream_user_t {
    // A record of `nbyte` bytes begins.
    int (*record_begin)(void* arg, int32_t nbyte, kelp_error_t* err);
    // Page `k` of it begins: stores where its `zbyte` body bytes go.
    int (*page_begin)(void* arg, int k, const cvn_page_t& head, char** ret_dst, kelp_error_t* err);
    // They are there.
    int (*page_end)(void* arg, int k, const cvn_page_t& head, kelp_error_t* err);
    // All pages of the record are.
    int (*record_end)(void* arg, int npage, kelp_error_t* err);
    void* arg;
};

// Cuts a reply body into records and pages, wherever it is cut into pieces. It checks magics and that the
// sizes add up; what a page's numbers mean together is the user's to check (rows::page_check).
struct stream_t {
    stream_user_t user;
    int64_t max_record_nbyte;
    enum state_t : int { RECORD, PAGE, BODY, ENDED };
    state_t state = RECORD;
    int64_t nrecord = 0;
    int32_t record_left = 0;  // bytes of the record to come
    int npage = 0;            // pages of the record that began
    size_t headsz = 0;        // bytes in `head`
    char head[CVN_PAGE_HEADSZ];
    cvn_page_t page;
    char* dst = nullptr;  // BODY: where the next byte goes
    int32_t body_left = 0;
};
[[nodiscard]] int stream_feed(stream_t* st, const char* p, size_t n, kelp_error_t* err);
// What to report when the body is over: 0 when the end record was seen.
[[nodiscard]] int stream_end(const stream_t* st, kelp_error_t* err);

// A batch and what it owns.
struct batch_t {
    kelp_batch_t pub{};
    std::vector<rows::column_t> column;
    std::vector<kelp_vec_t> vec;
    std::shared_ptr<rows::bufpool_t> pool;
    std::shared_ptr<const std::vector<kelp_column_t>> schema;  // owns the names
    batch_t() = default;
    batch_t(const batch_t&) = delete;
    batch_t& operator=(const batch_t&) = delete;
    ~batch_t() {
        for (rows::column_t& c : column) rows::column_free(pool.get(), &c);
    }
};
inline batch_t* batch_of(kelp_batch_t* pub) { return reinterpret_cast<batch_t*>(pub); }

// Requests (catalog.cpp).

std::string percent_encode(std::string_view s);

// A request that belongs to something larger.
struct call_t {
    const kelp_opt_t* opt;
    int64_t start_ms = 0;                     // as in http_t
    const std::atomic<bool>* stop = nullptr;  // as in http_t
};

// kelp_list_files, under the same conditions.
[[nodiscard]] int list_files(std::vector<kelp_file_t>* ret_file, const kelp_url_t& url, const call_t& call,
                             kelp_error_t* err);

// Adds what a file of a table claims to a total of the table. Where that exceeds 64 bits it fails with the
// file's name.
[[nodiscard]] int add_total(int64_t* sum, int64_t n, const kelp_file_t& file, kelp_error_t* err);

[[nodiscard]] int want_depth(const kelp_url_t& url, int least, int most, const char* what, kelp_error_t* err);

// The columns of a table whose files are known, and the name of the file whose columns they are.
[[nodiscard]] int table_columns(std::vector<kelp_column_t>* ret_column, std::string* ret_name,
                                const std::vector<kelp_file_t>& file, const kelp_url_t& table,
                                const call_t& call, kelp_error_t* err);

// A data file of a table that a scan cannot read like the others.
struct misfit_t {
    std::string name;  // empty: none was found
    kelp_error_t err;  // what differs
};
// Looks for the first of `file` without the columns `want`, which are those of the file `want_name`: by name
// and type, and when `whole` all of a file's columns and their order as well. Files that cannot have them by
// their number of columns are asked first, and not more than MISFIT_REQUEST_MAX in all. Ends early, without a
// result, when a request fails.
constexpr size_t MISFIT_REQUEST_MAX = 2000;
void find_misfit(misfit_t* ret, std::vector<kelp_file_t> file, const std::vector<kelp_column_t>& want,
                 const std::string& want_name, bool whole, const kelp_url_t& table, const call_t& call);

// Queries (query.cpp).

// The columns that a query reads and returns: result columns first, then those only conditions need.
struct plan_t {
    std::vector<kelp_column_t> column;
    size_t nresult = 0;
    rows::cond_t cond;  // bound to `column`
    // Whether rows are to be decided at all.
    [[nodiscard]] bool has_cond() const { return !cond.kid.empty(); }
};

// Reads the conditions of a query, before anything is known of its table.
[[nodiscard]] int query_cond(rows::cond_t* ret, const kelp_query_t& query, kelp_error_t* err);

// Plans a query with those conditions of a table with the columns `have`.
[[nodiscard]] int query_plan(plan_t* ret, const std::vector<kelp_column_t>& have,
                             const std::vector<std::string>& column, bool rows_only, const rows::cond_t& cond,
                             kelp_error_t* err);

// A predicate as the server is asked it: a column of the plan, an operator and, unless it has none, the
// value's text.
struct pushed_t {
    int col;
    int op;
    bool has_value;
    std::string value;
};
// What may be asked without losing a row that meets the conditions; without what no request can say.
std::vector<pushed_t> query_push(const plan_t& plan, bool no_nan);

// The body of a request for one fragment. Conditions that do not fit into it are left to the filter.
[[nodiscard]] int query_request(std::string* ret, const plan_t& plan, bool no_nan, int id, int nfrag,
                                kelp_error_t* err);

}  // namespace kelp
