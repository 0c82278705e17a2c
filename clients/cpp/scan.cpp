// scan: several connections that each read one fragment of a table, and one reader.
//
// Each connection has a thread that receives, checks, decompresses and filters row groups and queues the
// batches. What is under way and what is queued counts against one limit: a thread whose next row group would
// exceed it waits, which stops it reading from its connection, which makes the server wait.
//
// How large a row group is once decompressed shows only page by page. It is let in for what it is expected to
// need, and asks again before each page that exceeds that. Then there may be no room although all wait, so
// one row group at a time, the oversized one, may exceed the limit: it goes on until the caller has its
// batch, and what is in flight stays below the limit and one row group. So the scan always advances. The
// first failure ends everything.
//
// The server opens the files of each fragment by itself. When several fragments are read, the catalogue is
// compared afterwards with what it was before, since a file that was replaced in between would have been read
// partly as it was and partly as it is.

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <thread>
#include <tuple>

#include "clients/cpp/client_int.h"

using namespace kelp;
using rows::buf_t;
using rows::column_t;

namespace {

constexpr int JOB_DEFAULT_MAX = 4;
constexpr int JOB_MAX = 64;
constexpr int64_t FILTER_NBYTE = 5;  // of memory that filtering takes for each row, by rows::cond_filter

struct worker_t {
    kelp_scan_t* scan;
    std::thread thread;
    CURLM* multi = nullptr;
    std::string body;              // of the request
    std::vector<column_t> column;  // of the row group under way
    buf_t stored;                  // a compressed page as it arrives
    int64_t raw_nbyte = 0;         // of the row group under way, decompressed and with positions of texts
    int64_t need_nbyte = 0;        // the same with `stored` and what filtering takes
    int64_t admitted_nbyte = 0;    // what the row group counts for
    bool is_oversized = false;     // it may exceed the limit
    kelp_error_t err{};
};

struct queued_t {
    std::unique_ptr<batch_t> batch;
    int64_t nbyte;
    bool is_oversized;
};

}  // namespace

struct kelp_scan_t {
    kelp_opt_t opt;
    std::string url;
    plan_t plan;
    bool exact = true;
    bool is_sample = false;
    int64_t sample_nrow = 0;  // rows asked for as a sample
    int64_t max_flight_nbyte = 0;
    kelp_url_t table;
    std::vector<kelp_file_t> file;  // its data files before the scan, by name
    std::string first_name;         // the one whose columns those of the scan are
    int64_t start_ms = 0;
    std::shared_ptr<const std::vector<kelp_column_t>> requested;  // all columns of the request
    std::vector<kelp_column_t> result;                            // those handed out
    std::shared_ptr<rows::bufpool_t> pool;
    std::vector<std::unique_ptr<worker_t>> worker;

    std::atomic<bool> stop{false};         // ends the connections: cancelled, or one failed
    std::atomic<bool> is_given_up{false};  // cancelled: also ends what explains a failure
    std::mutex mutex;                      // guards what follows
    std::condition_variable changed;
    std::deque<queued_t> queue;
    int64_t flight_nbyte = 0;  // admitted and not yet taken
    bool has_oversized = false;
    bool is_compared = false;   // the catalogue with what it was
    bool is_explained = false;  // the failure
    int64_t largest_nbyte = 0;  // the largest row group so far: what the next is expected to be
    int nrunning = 0;
    kelp_error_t failure{};  // the first; code 0 while there is none

    kelp_scan_stat_t total{};  // the totals; constant
    std::atomic<int64_t> nrowgroup{0}, nrow{0}, nrow_out{0}, zbyte{0}, nbyte{0};
};

static bool is_stopped(const kelp_scan_t* scan) {
    return scan->stop.load(std::memory_order_relaxed) ||
           (scan->opt.cancel && scan->opt.cancel->load(std::memory_order_relaxed));
}

// Waits on `changed`, but not so long that the caller's cancel flag, which signals nothing, would go unseen.
static void wait_a_while(kelp_scan_t* scan, std::unique_lock<std::mutex>* lock) {
    scan->changed.wait_for(*lock, std::chrono::milliseconds(50));
}

// Ends all connections.
static void stop_scan(kelp_scan_t* scan) {
    scan->stop.store(true);
    {
        const std::lock_guard lock(scan->mutex);  // whoever is about to wait has seen `stop`, or is woken
    }
    scan->changed.notify_all();
    for (const auto& w : scan->worker)
        if (w->multi)
            (void)curl_multi_wakeup(w->multi);  // a wait that goes on ends within a tenth of a second
}

// What the stream of one connection calls.

static int cancelled(kelp_error_t* err) {
    return kelp_fail(err, KELP_ECANCEL, nullptr, "the scan was cancelled");
}

static int scan_record_begin(void* arg, int32_t nbyte, kelp_error_t* err) {
    auto* w = static_cast<worker_t*>(arg);
    kelp_scan_t* scan = w->scan;
    w->raw_nbyte = 0;
    w->need_nbyte = static_cast<int64_t>(w->stored.cap);
    std::unique_lock lock(scan->mutex);
    const int64_t expected = std::max<int64_t>(nbyte, scan->largest_nbyte);
    while (!is_stopped(scan) && scan->flight_nbyte > 0 &&
           scan->flight_nbyte + expected > scan->max_flight_nbyte)
        wait_a_while(scan, &lock);
    if (is_stopped(scan)) return cancelled(err);
    w->admitted_nbyte = expected;
    scan->flight_nbyte += expected;
    return 0;
}

// Waits until what the row group needs now is let in.
static int admit(worker_t* w, kelp_error_t* err) {
    if (w->need_nbyte <= w->admitted_nbyte) return 0;
    kelp_scan_t* scan = w->scan;
    const int64_t more = w->need_nbyte - w->admitted_nbyte;
    std::unique_lock lock(scan->mutex);
    while (!is_stopped(scan) && !w->is_oversized && scan->has_oversized &&
           scan->flight_nbyte + more > scan->max_flight_nbyte)
        wait_a_while(scan, &lock);
    if (is_stopped(scan)) return cancelled(err);
    if (scan->flight_nbyte + more > scan->max_flight_nbyte) w->is_oversized = scan->has_oversized = true;
    w->admitted_nbyte += more;
    scan->flight_nbyte += more;
    return 0;
}

// Words what the room for pages says of one.
static int fail_page(kelp_error_t* err, const char* name, const char* why) {
    if (why == rows::PAGE_NOMEM) return kelp_nomem(err);
    return kelp_fail(err, KELP_EDAMAGED,
                     "verify the table's files; if they are intact, the connection or the server is not",
                     "a page of column %s is damaged: %s", name, why);
}

static int scan_page_begin(void* arg, int k, const cvn_page_t& head, char** ret_dst, kelp_error_t* err) {
    auto* w = static_cast<worker_t*>(arg);
    kelp_scan_t* scan = w->scan;
    const auto& requested = *scan->requested;
    const auto at = static_cast<size_t>(k);
    if (at >= requested.size())
        return kelp_fail(err, KELP_EPROTO,
                         "the files of the table may have different columns: query them apart",
                         "the server sends more than the %zu columns that were asked for", requested.size());
    const char* name = requested[at].name.c_str();
    const cvn_typ_t typ = requested[at].typ;
    if (head.typ != typ)
        return kelp_fail(err, KELP_EPROTO, "the files of the table have different columns: query them apart",
                         "column %s is of type %s in one file and %s in another", name, cvn_typ_str(typ),
                         cvn_typ_str(head.typ));
    if (const char* why = rows::page_check(head)) return fail_page(err, name, why);
    if (k > 0 && head.nrow != w->column[0].vec.nrow)
        return kelp_fail(err, KELP_EDAMAGED, "verify the table's files",
                         "a row group has %lld rows of column %s and %d of column %s",
                         static_cast<long long>(w->column[0].vec.nrow), requested[0].name.c_str(), head.nrow,
                         name);
    int64_t nbyte = head.nbyte;
    if (cvn_typlen(head.typ) < 0) nbyte += (int64_t{head.nrow} + 1) * static_cast<int64_t>(sizeof(int32_t));
    w->raw_nbyte += nbyte;
    if (w->raw_nbyte > scan->opt.max_record_nbyte)
        return kelp_fail(err, KELP_EPROTO, "raise the limit if the table really has such rows",
                         "a row group claims more than the limit of %lld bytes",
                         static_cast<long long>(scan->opt.max_record_nbyte));
    column_t* col = &w->column[at];
    col->vec.nrow = head.nrow;
    buf_t* buf = head.zbyte == head.nbyte ? &col->value : &w->stored;
    const auto want = static_cast<size_t>(head.zbyte);
    w->need_nbyte += nbyte;
    if (k == 0 && scan->exact && scan->plan.has_cond()) w->need_nbyte += head.nrow * FILTER_NBYTE;
    if (buf == &w->stored && want > buf->cap) w->need_nbyte += static_cast<int64_t>(want - buf->cap);
    if (const int code = admit(w, err)) return code;
    if (buf->cap < want + rows::BUF_SLACK) {
        rows::buf_put(scan->pool.get(), *buf);
        *buf = rows::buf_get(scan->pool.get(), want);
        if (!buf->p) return kelp_nomem(err);
    }
    *ret_dst = buf->p;
    return 0;
}

static int scan_page_end(void* arg, int k, const cvn_page_t& head, kelp_error_t* err) {
    auto* w = static_cast<worker_t*>(arg);
    kelp_scan_t* scan = w->scan;
    const auto at = static_cast<size_t>(k);
    const char* name = (*scan->requested)[at].name.c_str();
    column_t* col = &w->column[at];
    const char* stored = head.zbyte == head.nbyte ? col->value.p : w->stored.p;
    if (const char* why = rows::page_unpack(scan->pool.get(), &col->value, head, stored))
        return fail_page(err, name, why);
    scan->zbyte += head.zbyte;
    scan->nbyte += head.nbyte;
    const char* why = rows::page_view(scan->pool.get(), col, head, name);
    return why ? fail_page(err, name, why) : 0;
}

static std::unique_ptr<batch_t> make_batch(worker_t* w, int64_t nrow) {
    kelp_scan_t* scan = w->scan;
    auto batch = std::make_unique<batch_t>();
    batch->pool = scan->pool;
    batch->schema = scan->requested;
    batch->column.reserve(scan->plan.nresult);
    batch->vec.reserve(scan->plan.nresult);
    for (size_t c = 0; c < scan->plan.nresult; c++) {
        batch->column.push_back(w->column[c]);
        batch->vec.push_back(w->column[c].vec);
        w->column[c] = column_t{};
    }
    batch->pub =
        kelp_batch_t{.nrow = nrow, .ncol = static_cast<int>(scan->plan.nresult), .col = batch->vec.data()};
    return batch;
}

// Takes a row group that is done, or given up, out of what counts. The scan's mutex is held.
static void discharge(worker_t* w) {
    kelp_scan_t* scan = w->scan;
    scan->flight_nbyte -= w->admitted_nbyte;
    w->admitted_nbyte = 0;
    if (w->is_oversized) scan->has_oversized = false;
    w->is_oversized = false;
}

static int scan_record_end(void* arg, int npage, kelp_error_t* err) {
    auto* w = static_cast<worker_t*>(arg);
    kelp_scan_t* scan = w->scan;
    if (static_cast<size_t>(npage) != scan->requested->size())
        return kelp_fail(
            err, KELP_EPROTO, "the files of the table may have different columns: query them apart",
            "the server sends %d of the %zu columns that were asked for", npage, scan->requested->size());
    int64_t nrow = w->column.empty() ? 0 : w->column[0].vec.nrow;
    scan->nrowgroup += 1;
    scan->nrow += nrow;
    if (scan->is_sample && scan->nrow > scan->sample_nrow)
        return kelp_fail(err, KELP_EPROTO, "look at the cvnsamp that the server runs",
                         "the server sends more than the %lld rows of the sample that was asked for",
                         static_cast<long long>(scan->sample_nrow));
    if (scan->exact && scan->plan.has_cond())
        nrow = rows::cond_filter(w->column, scan->plan.nresult, scan->plan.cond);
    scan->nrow_out += nrow;
    queued_t done{.batch = nrow > 0 ? make_batch(w, nrow) : nullptr, .nbyte = 1, .is_oversized = false};
    if (done.batch)
        for (const column_t& c : done.batch->column)
            done.nbyte += static_cast<int64_t>(c.value.cap + c.offset.cap);
    // What is left are the columns of conditions, and of a row group without a match all.
    for (column_t& c : w->column) rows::column_free(scan->pool.get(), &c);
    {
        const std::lock_guard lock(scan->mutex);
        scan->largest_nbyte = std::max(scan->largest_nbyte, w->need_nbyte);
        done.is_oversized = w->is_oversized;
        discharge(w);
        if (done.batch) {
            scan->has_oversized = scan->has_oversized || done.is_oversized;
            scan->flight_nbyte += done.nbyte;
            scan->queue.push_back(std::move(done));
        }
    }
    scan->changed.notify_all();
    return 0;
}

static int sink_stream(void* arg, const char* p, size_t n, kelp_error_t* err) {
    return stream_feed(static_cast<stream_t*>(arg), p, n, err);
}

static int work(worker_t* w) {
    kelp_scan_t* scan = w->scan;
    stream_t st{.user = {scan_record_begin, scan_page_begin, scan_page_end, scan_record_end, w},
                .max_record_nbyte = scan->opt.max_record_nbyte};
    w->column.resize(scan->requested->size());
    http_t http{.method = "POST", .url = scan->url, .body = w->body, .opt = &scan->opt, .stop = &scan->stop};
    http.start_ms = scan->start_ms;
    http.multi = w->multi;
    http.sink = sink_stream;
    http.sink_arg = &st;
    if (const int code = http_run(&http, &w->err)) return code;
    return stream_end(&st, &w->err);
}

static void worker_main(worker_t* w) {
    kelp_scan_t* scan = w->scan;
    const int code = kelp_guard(&w->err, [&] { return work(w); });
    if (code == KELP_ECUT && scan->is_sample && w->err.said[0] == '\0')
        kelp_fail(&w->err, KELP_ECUT, "the server needs cvnsamp on its search path: look into its log",
                  "the server's sampler failed");
    for (column_t& c : w->column) rows::column_free(scan->pool.get(), &c);
    rows::buf_put(scan->pool.get(), w->stored);
    w->stored = buf_t{};
    bool first = false;
    {
        const std::lock_guard lock(scan->mutex);
        discharge(w);
        scan->nrunning--;
        if (code != 0 && scan->failure.code == 0) {
            scan->failure = w->err;
            scan->failure.code = code;
            first = true;
        }
    }
    if (first)
        stop_scan(scan);
    else
        scan->changed.notify_all();
}

// Opening.

static int open_err(int code, kelp_scan_t* scan) {
    kelp_scan_close(scan);
    return code;
}

// The data files that scans read.
static int list_data_files(std::vector<kelp_file_t>* ret, kelp_scan_t* scan, kelp_error_t* err) {
    const call_t call{.opt = &scan->opt, .start_ms = scan->start_ms, .stop = &scan->stop};
    if (const int code = list_files(ret, scan->table, call, err)) return code;
    std::erase_if(*ret, [](const kelp_file_t& f) { return !f.name.ends_with(".cvn"); });
    return 0;
}

// Asks for what every scan needs to know beforehand.
static int prepare(kelp_scan_t* scan, std::vector<kelp_column_t>* have, const kelp_url_t& url,
                   kelp_error_t* err) {
    scan->start_ms = now_ms();
    scan->table = url;
    std::vector<kelp_file_t>* file = &scan->file;
    if (const int code = list_data_files(file, scan, err)) return code;
    kelp_scan_stat_t* total = &scan->total;
    for (const kelp_file_t& f : *file) {
        total->total_nfile++;
        if (const int code = add_total(&total->total_nrow, f.nrow, f, err)) return code;
        if (const int code = add_total(&total->total_nrowgroup, f.nrowgroup, f, err)) return code;
        if (const int code = add_total(&total->total_zbyte, f.zbyte, f, err)) return code;
    }
    scan->url = kelp_url_format(url, false);
    scan->pool = std::make_shared<rows::bufpool_t>();
    const call_t call{.opt = &scan->opt, .start_ms = scan->start_ms};
    const int code = table_columns(have, &scan->first_name, *file, url, call, err);
    std::sort(file->begin(), file->end(),
              [](const kelp_file_t& a, const kelp_file_t& b) { return a.name < b.name; });
    return code;
}

// Whether all fragments were of the same files.
static int compare_catalogue(kelp_scan_t* scan, kelp_error_t* err) {
    std::vector<kelp_file_t> now;
    const int code = list_data_files(&now, scan, err);
    if (code && code != KELP_ENOTFOUND) return code;
    std::sort(now.begin(), now.end(),
              [](const kelp_file_t& a, const kelp_file_t& b) { return a.name < b.name; });
    const auto same = [](const kelp_file_t& a, const kelp_file_t& b) {
        return std::tie(a.name, a.chksum, a.nrow, a.nrowgroup) ==
               std::tie(b.name, b.chksum, b.nrow, b.nrowgroup);
    };
    if (code == 0 && std::equal(scan->file.begin(), scan->file.end(), now.begin(), now.end(), same)) return 0;
    return kelp_fail(err, KELP_ECHANGED, "try again, or use one connection",
                     "the table changed while it was read");
}

static int start(kelp_scan_t* scan, const std::vector<std::string>& body, kelp_error_t* err) {
    scan->requested = std::make_shared<const std::vector<kelp_column_t>>(scan->plan.column);
    scan->result.assign(scan->plan.column.begin(),
                        scan->plan.column.begin() + static_cast<ptrdiff_t>(scan->plan.nresult));
    for (const std::string& b : body) {
        auto w = std::make_unique<worker_t>();
        w->scan = scan;
        w->body = b;
        w->multi = curl_multi_init();
        if (!w->multi) return kelp_nomem(err);
        scan->worker.push_back(std::move(w));
    }
    for (const auto& w : scan->worker) {
        {
            const std::lock_guard lock(scan->mutex);
            scan->nrunning++;
        }
        try {
            w->thread = std::thread(worker_main, w.get());
        } catch (...) {
            const std::lock_guard lock(scan->mutex);
            scan->nrunning--;
            return kelp_fail(err, KELP_ENOMEM, "use fewer jobs", "cannot start a thread");
        }
    }
    return 0;
}

static bool lacks_column(const std::vector<kelp_column_t>& have, const kelp_query_t& query,
                         const rows::cond_t& cond) {
    std::vector<std::string> want;
    rows::cond_names(&want, cond);
    if (!query.rows_only) want.insert(want.end(), query.column.begin(), query.column.end());
    return std::any_of(want.begin(), want.end(), [&](const std::string& name) {
        return std::none_of(have.begin(), have.end(), [&](const kelp_column_t& c) { return c.name == name; });
    });
}

// The table's first file lacks a column: adds to the failure that it may be the one that does not fit. Files
// with another number of columns show it, and asking one of them is enough.
static void blame_first_file(kelp_scan_t* scan, const std::vector<kelp_column_t>& have, kelp_error_t* err) {
    std::vector<kelp_file_t> file = scan->file;
    std::erase_if(file, [&](const kelp_file_t& f) { return f.ncol == static_cast<int32_t>(have.size()); });
    misfit_t misfit;
    find_misfit(&misfit, std::move(file), have, scan->first_name, true, scan->table,
                {.opt = &scan->opt, .start_ms = scan->start_ms});
    if (misfit.name.empty()) return;
    const kelp_error_t old = *err;
    kelp_fail(err, old.code, old.hint, "%s (%s)", old.text, misfit.err.text);
}

static int scan_open(kelp_scan_t* scan, const kelp_query_t& query, kelp_error_t* err) {
    if (const int code = want_depth(query.url, 3, 3, "a table", err)) return code;
    rows::cond_t cond;
    if (const int code = query_cond(&cond, query, err)) return code;
    if (query.rows_only && cond.kid.empty())
        return kelp_fail(err, KELP_EARG, "use kelp_count",
                         "rows without columns are wanted, but without a condition");
    if (query.njob < 0 || query.njob > JOB_MAX)
        return kelp_fail(err, KELP_EARG, nullptr, "%d jobs are not between 1 and %d", query.njob, JOB_MAX);
    std::vector<kelp_column_t> have;
    if (const int code = prepare(scan, &have, query.url, err)) return code;
    if (const int code = query_plan(&scan->plan, have, query.column, query.rows_only, cond, err)) {
        if (err && lacks_column(have, query, cond)) blame_first_file(scan, have, err);
        return code;
    }
    scan->exact = query.exact;
    scan->max_flight_nbyte = query.max_flight_nbyte;
    int njob = query.njob;
    if (njob == 0)
        njob = std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, JOB_DEFAULT_MAX);
    // Fragments go by the number of a row group in its file, so there are no more than the longest file has.
    int64_t longest = 1;
    for (const kelp_file_t& f : scan->file) longest = std::max(longest, f.nrowgroup);
    njob = static_cast<int>(std::min<int64_t>(njob, longest));
    const bool is_empty = rows::cond_is_never(scan->plan.cond) || scan->plan.column.empty();
    std::vector<std::string> body(is_empty ? 0 : static_cast<size_t>(njob));
    for (int id = 0; id < static_cast<int>(body.size()); id++)
        if (const int code =
                query_request(&body[static_cast<size_t>(id)], scan->plan, query.no_nan, id, njob, err))
            return code;
    return start(scan, body, err);
}

int kelp_scan_open(kelp_scan_t** ret_scan, const kelp_query_t& query, const kelp_opt_t& opt,
                   kelp_error_t* err) {
    *ret_scan = nullptr;
    auto* scan = new (std::nothrow) kelp_scan_t{};
    if (!scan) return kelp_nomem(err);
    scan->opt = opt;
    const int code = kelp_guard(err, [&] { return scan_open(scan, query, err); });
    if (code) return open_err(code, scan);
    *ret_scan = scan;
    return 0;
}

static int sample_open(kelp_scan_t* scan, const kelp_url_t& url, int64_t nrow, kelp_error_t* err) {
    if (const int code = want_depth(url, 3, 3, "a table", err)) return code;
    if (nrow < 1 || nrow > INT32_MAX)
        return kelp_fail(err, KELP_EARG, "ask for 1 to 2147483647 rows", "%lld rows cannot be sampled",
                         static_cast<long long>(nrow));
    std::vector<kelp_column_t> have;
    if (const int code = prepare(scan, &have, url, err)) return code;
    for (const kelp_column_t& c : have)
        if (c.typ == 0)
            return kelp_fail(err, KELP_EPROTO, "use a newer client", "column %.100s is of an unknown type",
                             c.name.c_str());
    scan->plan.column = have;
    scan->plan.nresult = have.size();
    scan->is_sample = true;
    scan->sample_nrow = nrow;
    scan->max_flight_nbyte = kelp_query_t{}.max_flight_nbyte;
    return start(scan, {R"({"command": ["sample", ")" + std::to_string(nrow) + R"("]})"}, err);
}

int kelp_sample_open(kelp_scan_t** ret_scan, const kelp_url_t& url, int64_t nrow, const kelp_opt_t& opt,
                     kelp_error_t* err) {
    *ret_scan = nullptr;
    auto* scan = new (std::nothrow) kelp_scan_t{};
    if (!scan) return kelp_nomem(err);
    scan->opt = opt;
    const int code = kelp_guard(err, [&] { return sample_open(scan, url, nrow, err); });
    if (code) return open_err(code, scan);
    *ret_scan = scan;
    return 0;
}

// Reading.

const std::vector<kelp_column_t>& kelp_scan_columns(const kelp_scan_t* scan) { return scan->result; }

// All connections have ended well and all batches are taken.
static int finish(kelp_scan_t* scan, std::unique_lock<std::mutex>* lock, kelp_error_t* err) {
    if (scan->worker.size() < 2 || scan->is_compared) return KELP_END;
    lock->unlock();
    kelp_error_t failure{};
    const int code = kelp_guard(&failure, [&] { return compare_catalogue(scan, &failure); });
    lock->lock();
    scan->is_compared = code == 0;
    if (code == 0) return KELP_END;
    if (is_stopped(scan)) return cancelled(err);
    scan->failure = failure;
    scan->failure.code = code;
    if (err) *err = scan->failure;
    return code;
}

// Whether a data file with other columns may be what a scan failed of. The server says so by its word for a
// bad request, with which it ends or begins the reply; a sampler says nothing.
static bool may_be_misfit(const kelp_scan_t* scan) {
    const kelp_error_t& f = scan->failure;
    if (f.code == KELP_EPROTO) return true;
    if (f.code == KELP_ECUT && scan->is_sample) return true;
    return (f.code == KELP_ECUT || (f.code == KELP_EREFUSED && f.http_status == 400)) &&
           strncmp(f.said, "400", 3) == 0;
}

// Finds the file that does not fit and puts it into the failure's text, once. Whatever goes wrong leaves the
// failure as it was.
static void explain(kelp_scan_t* scan, std::unique_lock<std::mutex>* lock) {
    scan->is_explained = true;
    if (!may_be_misfit(scan) || (scan->opt.cancel && scan->opt.cancel->load())) return;
    lock->unlock();
    misfit_t misfit;
    // Not `stop`, which the failure has set.
    const call_t call{.opt = &scan->opt, .start_ms = scan->start_ms, .stop = &scan->is_given_up};
    (void)kelp_guard(nullptr, [&] {
        std::vector<kelp_file_t> file;
        if (const int code = list_files(&file, scan->table, call, nullptr)) return code;
        find_misfit(&misfit, std::move(file), scan->plan.column, scan->first_name, scan->is_sample,
                    scan->table, call);
        return 0;
    });
    lock->lock();
    if (misfit.name.empty()) return;
    const kelp_error_t old = scan->failure;
    kelp_fail(&scan->failure, old.code, "remove that file, or replace it by one with the table's columns",
              "%s (%s)", misfit.err.text, old.text);
    scan->failure.http_status = old.http_status;
    memcpy(scan->failure.said, old.said, sizeof(old.said));
}

int kelp_scan_next(kelp_scan_t* scan, kelp_batch_t** ret_batch, kelp_error_t* err) {
    *ret_batch = nullptr;
    std::unique_lock lock(scan->mutex);
    for (;;) {
        if (scan->failure.code) {
            if (!scan->is_explained) explain(scan, &lock);
            if (err) *err = scan->failure;
            return scan->failure.code;
        }
        if (is_stopped(scan)) return cancelled(err);
        if (!scan->queue.empty()) break;
        if (scan->nrunning == 0) return finish(scan, &lock, err);
        wait_a_while(scan, &lock);
    }
    queued_t q = std::move(scan->queue.front());
    scan->queue.pop_front();
    scan->flight_nbyte -= q.nbyte;
    if (q.is_oversized) scan->has_oversized = false;
    lock.unlock();
    scan->changed.notify_all();
    *ret_batch = &q.batch.release()->pub;
    return 0;
}

void kelp_batch_free(kelp_batch_t* batch) {
    if (batch) delete batch_of(batch);
}

void kelp_scan_stat(const kelp_scan_t* scan, kelp_scan_stat_t* ret_stat) {
    *ret_stat = scan->total;
    ret_stat->nrowgroup = scan->nrowgroup;
    ret_stat->nrow = scan->nrow;
    ret_stat->nrow_out = scan->nrow_out;
    ret_stat->zbyte = scan->zbyte;
    ret_stat->nbyte = scan->nbyte;
}

void kelp_scan_cancel(kelp_scan_t* scan) {
    scan->is_given_up.store(true);
    stop_scan(scan);
}

void kelp_scan_close(kelp_scan_t* scan) {
    if (!scan) return;
    stop_scan(scan);
    for (const auto& w : scan->worker)
        if (w->thread.joinable()) w->thread.join();
    // Only now: one that failed wakes up the others.
    for (const auto& w : scan->worker)
        if (w->multi) curl_multi_cleanup(w->multi);
    delete scan;
}
