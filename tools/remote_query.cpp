// cvn count, query, get and sample: rows from a server. The client library receives, checks, decompresses and
// filters them on its own threads; here batches of columns become text or another data file.
#include <errno.h>
#include <fmt/format.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <memory>

#include "tools/commands.h"
#include "tools/format.h"
#include "tools/progress.h"
#include "tools/remote.h"
#include "tools/schema.h"
#include "tools/where.h"

namespace {

// What the commands have in common. Each has some of it as options.
struct query_opts_t {
    std::vector<std::string> arg;  // get, sample: an optional URL, then the file or the number
    std::string url;
    std::vector<std::string> columns;  // as texts: lists of names
    std::vector<std::string> where;
    int jobs = 2;
    int64_t limit = -1;
    std::string format = "csv";
    std::string out;
    bool stats = false;
    bool no_nan = false;
    remote_opts_t remote;
};

// An open scan that ends with its owner.
struct scan_t {
    kelp_url_t url;
    kelp_scan_t* scan = nullptr;
    progress_t progress;
    scan_t() = default;
    scan_t(const scan_t&) = delete;
    scan_t& operator=(const scan_t&) = delete;
    ~scan_t() {
        progress_end(&progress);
        kelp_scan_close(scan);
    }
};

struct batch_t {
    kelp_batch_t* batch = nullptr;
    batch_t() = default;
    batch_t(const batch_t&) = delete;
    batch_t& operator=(const batch_t&) = delete;
    ~batch_t() { kelp_batch_free(batch); }
};

}  // namespace

// The query that the options describe. Mistakes in the conditions are found before anything is asked.
static kelp_query_t make_query(const query_opts_t& opts) {
    (void)where_parse(opts.where);
    kelp_query_t query;
    query.column = where_names(opts.columns);
    query.where = opts.where;
    query.url = remote_url(opts.url, 3, 3, "a table");
    query.njob = opts.jobs;
    query.no_nan = opts.no_nan;
    return query;
}

static void scan_begin(scan_t* scan, const kelp_query_t& query, const kelp_opt_t& opt) {
    kelp_error_t err;
    scan->url = query.url;
    remote_check(kelp_scan_open(&scan->scan, query, opt, &err), query.url, err);
}

// Draws progress by the table's rows, unless rows go to the same terminal.
static void scan_show_progress(scan_t* scan, int rows_fd) {
    kelp_scan_stat_t stat;
    kelp_scan_stat(scan->scan, &stat);
    progress_begin(&scan->progress, stat.total_nrow, "rows");
    scan->progress.by_count = true;
    if (rows_fd >= 0 && isatty(rows_fd) == 1) scan->progress.shown = false;
}

// Fetches the next batch. Returns false when there is none left.
static bool scan_next(scan_t* scan, batch_t* batch) {
    kelp_error_t err;
    kelp_batch_free(batch->batch);
    batch->batch = nullptr;
    tool_check_signals();
    const int code = kelp_scan_next(scan->scan, &batch->batch, &err);
    if (code == KELP_END) return false;
    if (code != 0) progress_end(&scan->progress);
    remote_check(code, scan->url, err);
    if (scan->progress.shown) {
        kelp_scan_stat_t stat;
        kelp_scan_stat(scan->scan, &stat);
        progress_update(&scan->progress, stat.zbyte, stat.nrow);
    }
    return true;
}

// Calls `take(datum, isnull)` for each row until `limit` of them are taken (negative: all).
template <typename F>
static void scan_rows(scan_t* scan, int64_t limit, F take) {
    const size_t ncol = kelp_scan_columns(scan->scan).size();
    std::vector<cvn_datum_t> datum(ncol);
    const std::unique_ptr<bool[]> isnull(new bool[ncol + 1]());
    batch_t batch;
    while (limit != 0 && scan_next(scan, &batch)) {
        const kelp_vec_t* const col = batch.batch->col;
        int64_t nrow = batch.batch->nrow;
        if (limit > 0) {
            nrow = std::min(nrow, limit);
            limit -= nrow;
        }
        for (int64_t row = 0; row < nrow; row++) {
            if ((row & 0xfff) == 0) tool_check_signals();
            for (size_t c = 0; c < ncol; c++) {
                isnull[c] = kelp_vec_isnull(col[c], row);
                if (!isnull[c]) cvn_vec_datum(col[c], row, &datum[c]);
            }
            take(datum.data(), isnull.get());
        }
    }
    progress_end(&scan->progress);
}

// What was not read of a total. Both come from the server and need not fit together.
static std::string skipped(int64_t total, int64_t n) {
    int64_t left;
    return tool_count(__builtin_sub_overflow(total, n, &left) ? 0 : std::max<int64_t>(left, 0));
}

static void print_stats(const kelp_scan_stat_t& s) {
    tool_say(fmt::format("{}, {}: {} read, {} skipped", tool_counted(s.total_nfile, "file", "files"),
                         tool_counted(s.total_nrowgroup, "row group", "row groups"), tool_count(s.nrowgroup),
                         skipped(s.total_nrowgroup, s.nrowgroup)));
    tool_say(fmt::format("{} of {} read, {} selected", tool_count(s.nrow),
                         tool_counted(s.total_nrow, "row", "rows"), tool_count(s.nrow_out)));
    tool_say(fmt::format("{} of {} stored bytes received, {} skipped; {} decompressed", tool_count(s.zbyte),
                         tool_count(s.total_zbyte), skipped(s.total_zbyte, s.zbyte), tool_count(s.nbyte)));
}

static void print_stats(const scan_t& scan) {
    kelp_scan_stat_t stat;
    kelp_scan_stat(scan.scan, &stat);
    print_stats(stat);
}

// Of a count that the server made from what its files say.
static void print_count_stats(const kelp_url_t& url, const kelp_opt_t& opt, int64_t nrow) {
    kelp_error_t err;
    std::vector<kelp_file_t> file;
    remote_check(kelp_list_files(&file, url, opt, &err), url, err);
    kelp_scan_stat_t stat = {};
    for (const kelp_file_t& f : file) {
        if (!f.name.ends_with(".cvn")) continue;  // set aside
        stat.total_nfile++;
        tool_add_claim(&stat.total_nrow, f.nrow, f.name);
        tool_add_claim(&stat.total_nrowgroup, f.nrowgroup, f.name);
        tool_add_claim(&stat.total_zbyte, f.zbyte, f.name);
    }
    stat.nrow_out = nrow;
    print_stats(stat);
}

// Prints the rows of a scan, on the standard output or into a file.
static void print_rows(scan_t* scan, const query_opts_t& opts) {
    static const std::map<std::string, format_kind_t> kind = {
        {"csv", FORMAT_CSV}, {"jsonl", FORMAT_JSONL}, {"table", FORMAT_TABLE}};
    remote_target_t target;
    tool_out_t out;
    const bool to_file = !opts.out.empty() && opts.out != "-";
    if (to_file) {
        remote_target_open(&target, opts.out);
        out.fd = target.fd;
    }
    std::vector<std::string> name;
    std::vector<cvn_typ_t> typ;
    for (const kelp_column_t& c : kelp_scan_columns(scan->scan)) {
        name.push_back(c.name);
        typ.push_back(c.typ);
    }
    format_t format;
    format_begin(&format, kind.at(opts.format), &out, name, typ);
    scan_show_progress(scan, out.fd);
    scan_rows(scan, opts.limit,
              [&](const cvn_datum_t* datum, const bool* isnull) { format_row(&format, datum, isnull); });
    format_end(&format);
    if (to_file) remote_target_commit(&target);
}

static int query_run(const query_opts_t& opts) {
    const kelp_opt_t opt = remote_opt(opts.remote);
    const kelp_query_t query = make_query(opts);
    scan_t scan;
    scan_begin(&scan, query, opt);
    print_rows(&scan, opts);
    if (opts.stats) print_stats(scan);
    return 0;
}

// The rows of a query with conditions.
static int64_t count_scanned(kelp_query_t query, const kelp_opt_t& opt, bool stats) {
    query.rows_only = true;
    scan_t scan;
    scan.url = query.url;
    kelp_error_t err;
    const int code = kelp_scan_open(&scan.scan, query, opt, &err);
    if (code == KELP_EEMPTY) {  // a table without files has no rows
        if (stats) print_count_stats(query.url, opt, 0);
        return 0;
    }
    remote_check(code, query.url, err);
    scan_show_progress(&scan, -1);
    int64_t nrow = 0;
    batch_t batch;
    while (scan_next(&scan, &batch)) nrow = tool_add(nrow, batch.batch->nrow);
    progress_end(&scan.progress);
    if (stats) print_stats(scan);
    return nrow;
}

static int count_run(const query_opts_t& opts) {
    const kelp_opt_t opt = remote_opt(opts.remote);
    const kelp_query_t query = make_query(opts);
    int64_t nrow = 0;
    if (query.where.empty()) {
        kelp_error_t err;
        remote_check(kelp_count(&nrow, query, opt, &err), query.url, err);
        if (opts.stats) print_count_stats(query.url, opt, nrow);
    } else {
        nrow = count_scanned(query, opt, opts.stats);
    }
    tool_out_t out;
    out.buf = fmt::format("{}\n", nrow);
    tool_out_flush(&out);
    return 0;
}

namespace {

// A data file in the making.
struct writer_t {
    cvn_t* writer = nullptr;
    writer_t() = default;
    writer_t(const writer_t&) = delete;
    writer_t& operator=(const writer_t&) = delete;
    ~writer_t() {
        if (!writer) return;
        (void)cvn_append(writer, -1, nullptr, nullptr);  // refused, and the writer told to drop its file
        (void)cvn_close(writer);
    }
};

}  // namespace

// Splits "[URL] LAST" of get and sample.
static std::string take_last(query_opts_t* opts, const char* what) {
    if (opts->arg.empty() || opts->arg.size() > 2)
        throw tool_usage(fmt::format("the arguments are a URL and {}", what));
    if (opts->arg.size() == 2) opts->url = opts->arg[0];
    return opts->arg.back();
}

static int get_run(query_opts_t opts) {
    const std::string path = take_last(&opts, "the file to write");
    if (path.empty() || path == "-" || path.ends_with('/') || path.find("://") != std::string::npos)
        throw tool_usage("OUT.cvn must be the name of a file");
    tool_check_target(path, "cvn get URL OUT.cvn");
    const kelp_opt_t opt = remote_opt(opts.remote);
    const kelp_query_t query = make_query(opts);
    scan_t scan;
    scan_begin(&scan, query, opt);
    remote_target_t target;
    remote_target_open(&target, path);
    writer_t w;
    errno = 0;
    int code = cvn_create(&w.writer, target.temp.c_str());
    if (code != 0) {
        w.writer = nullptr;
        throw tool_error(tool_code_text(code, errno, path));
    }
    const std::vector<kelp_column_t>& column = kelp_scan_columns(scan.scan);
    for (const kelp_column_t& c : column) {
        const int storage = cvn_storage(c.typ);
        // Texts compress eagerly, as those of a created file do.
        code = cvn_create_column(w.writer, c.name.c_str(), c.typ, storage == CVN_TYP_CSTR, false);
        if (code != 0) {
            w.writer = nullptr;  // destroyed by the failure
            throw tool_error(
                fmt::format("{}: column {} cannot be written ({})", path, tool_quote(c.name), code));
        }
    }
    scan_show_progress(&scan, -1);
    scan_rows(&scan, opts.limit, [&](const cvn_datum_t* datum, const bool* isnull) {
        const int failed = cvn_append(w.writer, static_cast<int>(column.size()), datum, isnull);
        if (failed != 0) throw tool_error(tool_code_text(failed, w.writer->os_errno, path));
    });
    cvn_t* const writer = w.writer;
    w.writer = nullptr;
    errno = 0;
    code = cvn_close(writer);
    if (code != 0) throw tool_error(tool_code_text(code, errno, path));
    remote_target_commit(&target);
    if (opts.stats) print_stats(scan);
    return 0;
}

static int sample_run(query_opts_t opts) {
    const std::string text = take_last(&opts, "the number of rows");
    int64_t nrow = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), nrow);
    if (ec != std::errc{} || end != text.data() + text.size() || nrow < 1 || nrow > INT32_MAX)
        throw tool_usage(
            fmt::format("{} is no number of rows; it goes from 1 to 2147483647", tool_quote(text)));
    scan_t scan;
    scan.url = remote_url(opts.url, 3, 3, "a table");
    kelp_error_t err;
    remote_check(kelp_sample_open(&scan.scan, scan.url, nrow, remote_opt(opts.remote), &err), scan.url, err);
    print_rows(&scan, opts);
    return 0;
}

static void add_where(CLI::App* sub, query_opts_t* opts) {
    sub->add_option("--where", opts->where, "A condition on the rows; may be repeated, and all must hold")
        ->allow_extra_args(false);
    sub->add_option("--jobs", opts->jobs, "Connections to read over, 1 to 64 (default: 2)")
        ->check(CLI::Range(1, 64));
    sub->add_flag("--no-nan", opts->no_nan,
                  "The columns of the conditions hold no NaN: more is skipped (and rows, where one does)");
    sub->add_flag("--stats", opts->stats, "Tell on the standard error what was read and what was skipped");
}

static void add_columns(CLI::App* sub, query_opts_t* opts) {
    sub->add_option("--columns", opts->columns, "The columns, in this order: a,b,\"c d\" (default: all)")
        ->allow_extra_args(false);
    sub->add_option("--limit", opts->limit, "Stop after this many rows")->check(whole_number(0));
}

static void add_output(CLI::App* sub, query_opts_t* opts) {
    sub->add_option("--format", opts->format, "csv, jsonl or table (default: csv)")
        ->check(CLI::IsMember({"csv", "jsonl", "table"}));
    sub->add_option("-o,--output", opts->out,
                    "Write to this file, which is replaced when all rows are there (default: the standard "
                    "output)");
}

static void count_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<query_opts_t>();
    CLI::App* const sub = app->add_subcommand(
        "count",
        "Count the rows of a table, or those that meet conditions.\n"
        "\n"
        "Without conditions what the files say is added up, by the server or, from 2^28 rows on, from "
        "its list of the\n"
        "table's files; with conditions their columns are read and every row is decided. "
        "Conditions are those\n"
        "of 'cvn query'.\n"
        "\n"
        "Example:\n"
        "  cvn count kelp://localhost:8642/shop/public/orders --where 'qty > 10'");
    sub->add_option("URL", opts->url, "The table (default: KELPD_URL)");
    add_where(sub, opts.get());
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = count_run(*opts); });
}

static void query_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<query_opts_t>();
    CLI::App* const sub = app->add_subcommand(
        "query",
        "Print the rows of a table that meet conditions.\n"
        "\n"
        "A condition compares a column with a constant: = != > >= < <=, 'is null', 'is not null', 'in (a, "
        "b)', joined by\n"
        "'and'. Constants are written as in CSV (qty > 10, day >= 2024-01-31); texts and names with spaces "
        "are quoted:\n"
        "\"ship mode\" = 'REG AIR'. A comparison with NULL is unknown and selects nothing. The server skips "
        "row groups that\n"
        "cannot hold a matching row; the rows of the others are decided here, exactly.\n"
        "\n"
        "With more than one job the rows come in no particular order; --jobs 1 keeps that of the files.\n"
        "\n"
        "Examples:\n"
        "  cvn query kelp://localhost:8642/shop/public/orders --limit 10 --format table\n"
        "  cvn query shop/public/orders --columns id,qty --where 'qty > 10 and day in (2024-01-30, "
        "2024-01-31)' --stats\n"
        "  cvn query shop/public/orders --where \"mode = 'AIR'\" --where 'note is not null' -o air.csv");
    sub->add_option("URL", opts->url, "The table (default: KELPD_URL)");
    add_columns(sub, opts.get());
    add_where(sub, opts.get());
    add_output(sub, opts.get());
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = query_run(*opts); });
}

static void get_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<query_opts_t>();
    CLI::App* const sub = app->add_subcommand(
        "get",
        "Write the result of a query as a data file.\n"
        "\n"
        "Columns and conditions are those of 'cvn query'. OUT.cvn appears, or is replaced, "
        "when all rows are there.\n"
        "\n"
        "Example:\n"
        "  cvn get kelp://localhost:8642/shop/public/orders big.cvn --where 'qty > 10'");
    remote_usage(sub, "[URL] OUT.cvn");
    sub->add_option("URL", opts->arg, "The table (default: KELPD_URL), then the data file to write")
        ->required();
    add_columns(sub, opts.get());
    add_where(sub, opts.get());
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = get_run(*opts); });
}

static void sample_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<query_opts_t>();
    opts->remote.timeout = 600;  // the server reads the table before it answers
    CLI::App* const sub =
        app->add_subcommand("sample",
                            "Print rows of a table that its server picks at random.\n"
                            "\n"
                            "The server runs its program cvnsamp, which needs to be on its search path.\n"
                            "\n"
                            "Example:\n"
                            "  cvn sample kelp://localhost:8642/shop/public/orders 20 --format table");
    remote_usage(sub, "[URL] N");
    sub->add_option("URL", opts->arg, "The table (default: KELPD_URL), then the number of rows")->required();
    add_output(sub, opts.get());
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = sample_run(*opts); });
}

void remote_query_register(CLI::App* app, int* ret) {
    count_register(app, ret);
    query_register(app, ret);
    get_register(app, ret);
    sample_register(app, ret);
}
