// catalog: what a server has, and changes to it.
//
// The daemon writes names into its JSON as they are, without escapes. So a text here ends at the first quote
// that something follows which may follow a text, and nothing is unescaped.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "clients/cpp/client_int.h"

using namespace kelp;

namespace {

// A catalogue larger than this is not believed: a quarter of a million files, as the server describes them.
constexpr size_t JSON_MAX = size_t{32} << 20;
// Nor is an array of more elements, since each takes more memory than its text.
constexpr size_t ELEMENT_MAX = size_t{1} << 20;
// What a count takes from the stream of counts before it adds up the catalogue instead (kelp_count).
constexpr int64_t COUNT_ROW_MAX = int64_t{1} << 28;
constexpr int64_t COUNT_RECORD_MAX = int64_t{1}
                                     << 20;  // a daemon's table has no more files than its catalogue
constexpr char JSON_HINT[] = "check host and port: what answers there does not seem to be kelpd";

struct json_t {
    std::string_view rest;
};

}  // namespace

// JSON.

static char peek(json_t* j) {
    while (!j->rest.empty() &&
           (j->rest[0] == ' ' || j->rest[0] == '\n' || j->rest[0] == '\r' || j->rest[0] == '\t'))
        j->rest.remove_prefix(1);
    return j->rest.empty() ? '\0' : j->rest[0];
}

static bool take(json_t* j, char c) {
    if (peek(j) != c) return false;
    j->rest.remove_prefix(1);
    return true;
}

static bool take_string(json_t* j, std::string* ret) {
    if (!take(j, '"')) return false;
    for (size_t at = 0; (at = j->rest.find('"', at)) != j->rest.npos; at++) {
        json_t after{j->rest.substr(at + 1)};
        const char next = peek(&after);
        if (next != ',' && next != ']' && next != '}' && next != ':') continue;
        *ret = j->rest.substr(0, at);
        j->rest.remove_prefix(at + 1);
        return true;
    }
    return false;
}

static bool take_number(json_t* j, int64_t* ret) {
    (void)peek(j);
    const char* first = j->rest.data();
    const auto [p, ec] = std::from_chars(first, first + j->rest.size(), *ret);
    if (ec != std::errc{}) return false;
    j->rest.remove_prefix(static_cast<size_t>(p - first));
    return true;
}

// Goes through "[x, y, ...]"; `one` takes an element.
template <typename F>
static bool take_array(json_t* j, F one) {
    if (!take(j, '[')) return false;
    if (take(j, ']')) return true;
    size_t n = 0;
    do {
        if (n++ == ELEMENT_MAX || !one()) return false;
    } while (take(j, ','));
    return take(j, ']');
}

// Goes through an object; `one` takes the value of a key.
template <typename F>
static bool take_object(json_t* j, F one) {
    if (!take(j, '{')) return false;
    do {
        std::string key;
        if (!take_string(j, &key) || !take(j, ':') || !one(key)) return false;
    } while (take(j, ','));
    return take(j, '}');
}

static bool is_over(json_t* j) { return peek(j) == '\0' && j->rest.empty(); }

// Requests.

static int sink_text(void* arg, const char* p, size_t n, kelp_error_t* err) {
    auto* text = static_cast<std::string*>(arg);
    if (n > JSON_MAX - text->size())
        return kelp_fail(err, KELP_EPROTO, JSON_HINT, "the reply is larger than any catalogue");
    text->append(p, n);
    return 0;
}

static int get_json(std::string* ret, const kelp_url_t& url, const call_t& call, kelp_error_t* err) {
    http_t http{.url = kelp_url_format(url, false), .opt = call.opt};
    http.stop = call.stop;
    http.start_ms = call.start_ms;
    http.sink = sink_text;
    http.sink_arg = ret;
    return http_run(&http, err);
}

static int no_catalogue(const kelp_url_t& url, kelp_error_t* err) {
    return kelp_fail(err, KELP_EPROTO, JSON_HINT, "the reply for %s is no catalogue",
                     kelp_url_format(url, true).c_str());
}

int kelp_list(std::vector<std::string>* ret_name, const kelp_url_t& url, const kelp_opt_t& opt,
              kelp_error_t* err) {
    return kelp_guard(err, [&] {
        ret_name->clear();
        if (const int code = want_depth(url, 0, 2, "a server, a database or a schema", err)) return code;
        std::string text;
        if (const int code = get_json(&text, url, {.opt = &opt}, err)) return code;
        std::vector<std::string> name;
        json_t j{text};
        const bool good = take_array(&j, [&] { return take_string(&j, &name.emplace_back()); });
        if (!good || !is_over(&j)) return no_catalogue(url, err);
        ret_name->swap(name);
        return 0;
    });
}

int kelp::list_files(std::vector<kelp_file_t>* ret_file, const kelp_url_t& url, const call_t& call,
                     kelp_error_t* err) {
    ret_file->clear();
    if (const int code = want_depth(url, 3, 3, "a table", err)) return code;
    std::string text;
    if (const int code = get_json(&text, url, call, err)) return code;
    std::vector<kelp_file_t> file;
    json_t j{text};
    const bool good = take_array(&j, [&] {
        kelp_file_t f{};
        int64_t chksum = 0, ncol = 0;
        const bool whole = take_object(&j, [&](const std::string& key) {
            if (key == "name") return take_string(&j, &f.name);
            int64_t v;
            if (!take_number(&j, &v)) return false;
            int64_t ignored;
            int64_t* to = key == "chksum"      ? &chksum
                          : key == "ncol"      ? &ncol
                          : key == "nrow"      ? &f.nrow
                          : key == "nrowgroup" ? &f.nrowgroup
                          : key == "nbyte"     ? &f.nbyte
                          : key == "zbyte"     ? &f.zbyte
                                               : &ignored;
            *to = v;
            return true;
        });
        f.chksum = static_cast<int32_t>(chksum);
        f.ncol = static_cast<int32_t>(ncol);
        file.push_back(f);
        return whole && !f.name.empty() && ncol >= 0 && ncol <= INT32_MAX && f.nrow >= 0 &&
               f.nrowgroup >= 0 && f.nbyte >= 0 && f.zbyte >= 0;
    });
    if (!good || !is_over(&j)) return no_catalogue(url, err);
    ret_file->swap(file);
    return 0;
}

int kelp_list_files(std::vector<kelp_file_t>* ret_file, const kelp_url_t& url, const kelp_opt_t& opt,
                    kelp_error_t* err) {
    return kelp_guard(err, [&] { return list_files(ret_file, url, {.opt = &opt}, err); });
}

int kelp::add_total(int64_t* sum, int64_t n, const kelp_file_t& file, kelp_error_t* err) {
    if (!__builtin_add_overflow(*sum, n, sum)) return 0;
    return kelp_fail(err, KELP_EPROTO, "verify that file",
                     "impossible totals: with what the file %.200s claims they exceed 64 bits",
                     file.name.c_str());
}

static cvn_typ_t typ_of(const std::string& name) {
    static constexpr cvn_typ_t ALL[] = {CVN_TYP_BOOL,        CVN_TYP_INT16,           CVN_TYP_INT32,
                                        CVN_TYP_INT64,       CVN_TYP_INT128,          CVN_TYP_FLOAT,
                                        CVN_TYP_DOUBLE,      CVN_TYP_BYTEA,           CVN_TYP_CSTR,
                                        CVN_TYP_DEC64,       CVN_TYP_DEC128,          CVN_TYP_DATE,
                                        CVN_TYP_TIME_MILLIS, CVN_TYP_TIMESTAMP_MILLIS};
    for (const cvn_typ_t typ : ALL)
        if (name == cvn_typ_str(typ)) return typ;
    return 0;
}

static int list_columns(std::vector<kelp_column_t>* ret_column, int32_t* ret_chksum, const kelp_url_t& url,
                        const call_t& call, kelp_error_t* err) {
    ret_column->clear();
    *ret_chksum = 0;
    if (const int code = want_depth(url, 4, 4, "a file", err)) return code;
    std::string text;
    if (const int code = get_json(&text, url, call, err)) return code;
    std::vector<kelp_column_t> column;
    int64_t chksum = 0;
    json_t j{text};
    const auto one_column = [&] {
        kelp_column_t c{};
        const bool whole = take_object(&j, [&](const std::string& key) {
            std::string typ;
            int64_t cno;
            if (key == "name") return take_string(&j, &c.name);
            if (key == "cno") return take_number(&j, &cno) && cno == static_cast<int64_t>(column.size());
            if (key != "typ" || !take_string(&j, &typ)) return false;
            c.typ = typ_of(typ);
            return true;
        });
        column.push_back(c);
        return whole;
    };
    const bool good = take_object(&j, [&](const std::string& key) {
        if (key == "column") return take_array(&j, one_column);
        return key == "chksum" && take_number(&j, &chksum);
    });
    if (!good || !is_over(&j)) return no_catalogue(url, err);
    ret_column->swap(column);
    *ret_chksum = static_cast<int32_t>(chksum);
    return 0;
}

int kelp_list_columns(std::vector<kelp_column_t>* ret_column, int32_t* ret_chksum, const kelp_url_t& url,
                      const kelp_opt_t& opt, kelp_error_t* err) {
    return kelp_guard(err, [&] { return list_columns(ret_column, ret_chksum, url, {.opt = &opt}, err); });
}

int kelp::table_columns(std::vector<kelp_column_t>* ret_column, std::string* ret_name,
                        const std::vector<kelp_file_t>& file, const kelp_url_t& table, const call_t& call,
                        kelp_error_t* err) {
    for (const kelp_file_t& f : file) {
        // Of the files that the catalogue lists, a scan reads those of this name only.
        if (!f.name.ends_with(".cvn")) continue;
        kelp_url_t url = table;
        url.partition = *ret_name = f.name;
        int32_t chksum;
        const int code = list_columns(ret_column, &chksum, url, call, err);
        if (code != KELP_ENOTFOUND) return code;  // one that was removed meanwhile does not matter
    }
    return kelp_fail(err, KELP_EEMPTY, "upload a file first", "%s has no data files, hence no columns",
                     kelp_url_format(table, true).c_str());
}

int kelp_table_columns(std::vector<kelp_column_t>* ret_column, const kelp_url_t& url, const kelp_opt_t& opt,
                       kelp_error_t* err) {
    return kelp_guard(err, [&] {
        ret_column->clear();
        std::vector<kelp_file_t> file;
        const call_t call{.opt = &opt, .start_ms = now_ms()};
        if (const int code = list_files(&file, url, call, err)) return code;
        std::string name;
        return table_columns(ret_column, &name, file, url, call, err);
    });
}

static bool has_column(const std::vector<kelp_column_t>& column, const std::string& name) {
    return std::any_of(column.begin(), column.end(), [&](const kelp_column_t& c) { return c.name == name; });
}

static int columns_compare(const std::vector<kelp_column_t>& column, const char* name,
                           const std::vector<kelp_column_t>& other, const char* other_name,
                           kelp_error_t* err) {
    constexpr char HINT[] = "all files of a table have the same columns";
    for (size_t c = 0; c < std::max(column.size(), other.size()); c++) {
        const kelp_column_t* mine = c < column.size() ? &column[c] : nullptr;
        const kelp_column_t* theirs = c < other.size() ? &other[c] : nullptr;
        if (mine && theirs && mine->name == theirs->name) {
            if (mine->typ == theirs->typ) continue;
            return kelp_fail(err, KELP_EUNFIT, HINT, "column '%s' is of type %s in %s, but of type %s in %s",
                             mine->name.c_str(), cvn_typ_str(mine->typ), name, cvn_typ_str(theirs->typ),
                             other_name);
        }
        if (theirs && !has_column(column, theirs->name))
            return kelp_fail(err, KELP_EUNFIT, HINT, "%s has no column '%s' (%s), but %s has", name,
                             theirs->name.c_str(), cvn_typ_str(theirs->typ), other_name);
        if (mine && !has_column(other, mine->name))
            return kelp_fail(err, KELP_EUNFIT, HINT, "%s has a column '%s' (%s), but %s has not", name,
                             mine->name.c_str(), cvn_typ_str(mine->typ), other_name);
        if (!mine || !theirs)  // all before it are the same
            return kelp_fail(err, KELP_EUNFIT, HINT, "%s has two columns '%s', but %s has one",
                             mine ? name : other_name, (mine ? mine : theirs)->name.c_str(),
                             mine ? other_name : name);
        return kelp_fail(err, KELP_EUNFIT, HINT, "column %zu is '%s' in %s, but '%s' in %s", c + 1,
                         mine->name.c_str(), name, theirs->name.c_str(), other_name);
    }
    return 0;
}

int kelp_columns_compare(const std::vector<kelp_column_t>& column, const char* name,
                         const std::vector<kelp_column_t>& other, const char* other_name, kelp_error_t* err) {
    return kelp_guard(err, [&] { return columns_compare(column, name, other, other_name, err); });
}

// The columns of `have` that a scan of `want` reads, in the scan's order.
static std::vector<kelp_column_t> columns_read(const std::vector<kelp_column_t>& have,
                                               const std::vector<kelp_column_t>& want) {
    std::vector<kelp_column_t> out;
    for (const kelp_column_t& w : want) {
        const auto found =
            std::find_if(have.begin(), have.end(), [&](const kelp_column_t& c) { return c.name == w.name; });
        if (found != have.end()) out.push_back(*found);
    }
    return out;
}

void kelp::find_misfit(misfit_t* ret, std::vector<kelp_file_t> file, const std::vector<kelp_column_t>& want,
                       const std::string& want_name, bool whole, const kelp_url_t& table,
                       const call_t& call) {
    ret->name.clear();
    ret->err = kelp_error_t{};
    std::erase_if(file,
                  [&](const kelp_file_t& f) { return !f.name.ends_with(".cvn") || f.name == want_name; });
    const auto nwant = static_cast<int32_t>(want.size());
    std::stable_partition(file.begin(), file.end(),
                          [&](const kelp_file_t& f) { return whole ? f.ncol != nwant : f.ncol < nwant; });
    if (file.size() > MISFIT_REQUEST_MAX) file.resize(MISFIT_REQUEST_MAX);
    for (const kelp_file_t& f : file) {
        kelp_url_t url = table;
        url.partition = f.name;
        int32_t chksum;
        std::vector<kelp_column_t> have;
        kelp_error_t err{};
        const int code = list_columns(&have, &chksum, url, call, &err);
        if (code == KELP_ENOTFOUND) continue;  // removed meanwhile
        if (code) return;
        if (!whole) have = columns_read(have, want);
        if (columns_compare(have, f.name.c_str(), want, want_name.c_str(), &ret->err) == 0) continue;
        ret->name = f.name;
        return;
    }
}

// Files.

namespace {

struct fd_t {
    int fd;
    explicit fd_t(int open_fd) : fd(open_fd) {}
    fd_t(const fd_t&) = delete;
    fd_t& operator=(const fd_t&) = delete;
    ~fd_t() {
        if (fd >= 0) close(fd);
    }
};

}  // namespace

static int upload(const kelp_url_t& place, const char* fpath, kelp_progress_t progress, void* arg,
                  const kelp_opt_t& opt, kelp_error_t* err) {
    if (const int code = want_depth(place, 3, 4, "a table or a file of one", err)) return code;
    kelp_url_t url = place;
    if (url.partition.empty()) {
        const std::string_view path = fpath;
        url.partition = path.substr(path.rfind('/') + 1);
        if (url.partition.empty() || url.partition[0] == '.')
            return kelp_fail(err, KELP_EARG, "name the file in the URL", "%s has no name to upload it under",
                             fpath);
    }
    // Not to wait for the other end of what turns out to be a pipe.
    const fd_t file(open(fpath, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) != 0)
        return kelp_fail(err, KELP_EFILE, nullptr, "cannot open %s: %s", fpath, strerror(errno));
    if (!S_ISREG(st.st_mode)) return kelp_fail(err, KELP_EFILE, nullptr, "%s is no regular file", fpath);
    http_t http{.method = "PUT", .url = kelp_url_format(url, false), .opt = &opt};
    http.fd = file.fd;
    http.filesz = st.st_size;
    http.progress = progress;
    http.progress_arg = arg;
    const int code = http_run(&http, err);
    // The daemon's word for a file that fails its checks; others who answer with this status say more.
    if (code == KELP_EREFUSED && err && strcmp(err->said, "400 Bad Request") == 0) {
        constexpr char VERIFY_HINT[] = "a data file must be whole: verify it first";
        static_assert(sizeof(VERIFY_HINT) <= sizeof(err->hint));
        memcpy(err->hint, VERIFY_HINT, sizeof(VERIFY_HINT));
    }
    if (code == 0 && progress && http.filesz == 0) (void)progress(arg, 0, 0);  // done already
    return code;
}

int kelp_upload(const kelp_url_t& url, const char* fpath, kelp_progress_t progress, void* arg,
                const kelp_opt_t& opt, kelp_error_t* err) {
    return kelp_guard(err, [&] { return upload(url, fpath, progress, arg, opt, err); });
}

int kelp_remove(const kelp_url_t& url, const kelp_opt_t& opt, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        if (const int code = want_depth(url, 1, 4, "anything to remove", err)) return code;
        http_t http{.method = "DELETE", .url = kelp_url_format(url, false), .opt = &opt};
        return http_run(&http, err);
    });
}

// Totals.

namespace {

// The pages of the two replies that carry counts rather than columns.
struct totals_t {
    bool is_meta;
    int64_t value[2] = {0, 0};  // meta: its two values; count: the rows so far
    std::vector<char> body;
    int64_t nrecord = 0;
    bool is_long = false;  // count: it was given up, there is more than should be streamed
};

}  // namespace

static constexpr char TOTALS_HINT[] = "check host and port: what answers there does not seem to be kelpd";

static int totals_record_begin(void* arg, int32_t, kelp_error_t* err) {
    auto* t = static_cast<totals_t*>(arg);
    t->nrecord++;
    if (t->is_meta && t->nrecord > 1)
        return kelp_fail(err, KELP_EPROTO, TOTALS_HINT, "the reply has two records");
    t->is_long = !t->is_meta && (t->value[0] >= COUNT_ROW_MAX || t->nrecord > COUNT_RECORD_MAX);
    return t->is_long ? KELP_ECANCEL : 0;
}

static int totals_page_begin(void* arg, int k, const cvn_page_t& head, char** ret_dst, kelp_error_t* err) {
    auto* t = static_cast<totals_t*>(arg);
    // These pages are made for the reply: never compressed, and without a hash.
    const bool right = t->is_meta ? k < 2 && head.cno == k && head.typ == CVN_TYP_INT64 && head.nrow == 1 &&
                                        head.nmapoff == 8 && head.nbyte == 9 && head.zbyte == 9
                                  : k == 0 && head.cno == -1 && head.nrow > 0 && head.nbyte == head.zbyte &&
                                        head.nbyte == (head.nrow - 1) / 8 / 8 + 1;
    if (!right) return kelp_fail(err, KELP_EPROTO, TOTALS_HINT, "the reply is no row count");
    t->body.resize(static_cast<size_t>(head.zbyte));
    *ret_dst = t->body.data();
    return 0;
}

static int totals_page_end(void* arg, int k, const cvn_page_t& head, kelp_error_t* err) {
    auto* t = static_cast<totals_t*>(arg);
    if (t->is_meta) {
        memcpy(&t->value[k], t->body.data(), sizeof(t->value[k]));
        if (t->value[k] >= 0) return 0;
        return kelp_fail(err, KELP_EPROTO, TOTALS_HINT, "the reply counts %lld rows or row groups",
                         static_cast<long long>(t->value[k]));
    }
    t->value[0] += head.nrow;  // of what stays below COUNT_ROW_MAX
    return 0;
}

static int totals_record_end(void* arg, int npage, kelp_error_t* err) {
    const auto* t = static_cast<const totals_t*>(arg);
    if (npage == (t->is_meta ? 2 : 1)) return 0;
    return kelp_fail(err, KELP_EPROTO, TOTALS_HINT, "the reply is no row count");
}

static int sink_stream(void* arg, const char* p, size_t n, kelp_error_t* err) {
    return stream_feed(static_cast<stream_t*>(arg), p, n, err);
}

static int get_totals(totals_t* t, const kelp_url_t& url, const call_t& call, kelp_error_t* err) {
    if (const int code = want_depth(url, 3, 3, "a table", err)) return code;
    stream_t st{.user = {totals_record_begin, totals_page_begin, totals_page_end, totals_record_end, t},
                .max_record_nbyte = call.opt->max_record_nbyte};
    http_t http{.method = "POST", .url = kelp_url_format(url, false), .opt = call.opt};
    http.start_ms = call.start_ms;
    http.body = t->is_meta ? R"({"command": ["meta"]})" : "{}";
    http.sink = sink_stream;
    http.sink_arg = &st;
    if (const int code = http_run(&http, err)) return code;
    if (const int code = stream_end(&st, err)) return code;
    if (t->is_meta && t->nrecord != 1)
        return kelp_fail(err, KELP_EPROTO, TOTALS_HINT, "the reply is no row count");
    return 0;
}

int kelp_meta(kelp_meta_t* ret_meta, const kelp_url_t& url, const kelp_opt_t& opt, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        *ret_meta = kelp_meta_t{};
        totals_t t{.is_meta = true};
        if (const int code = get_totals(&t, url, {.opt = &opt}, err)) return code;
        *ret_meta = kelp_meta_t{.nrow = t.value[0], .nrowgroup = t.value[1]};
        return 0;
    });
}

// The rows that the files say they have. The server streams them, 16 KiB for every 2^20 rows, so that one
// file of a few hundred bytes that claims 2^62 would keep it and the client at it for ever. From
// COUNT_ROW_MAX rows on (4 MiB) the catalogue is added up instead, which is the same sum where the server can
// read all files: what it cannot read breaks off the stream, but is left out of the catalogue.
static int count_claimed(int64_t* ret_nrow, const kelp_url_t& url, const call_t& call, kelp_error_t* err) {
    totals_t t{.is_meta = false};
    const int code = get_totals(&t, url, call, err);
    if (!t.is_long) {
        *ret_nrow = code ? 0 : t.value[0];
        return code;
    }
    std::vector<kelp_file_t> file;
    if (const int failed = list_files(&file, url, call, err)) return failed;
    int64_t nrow = 0;
    for (const kelp_file_t& f : file) {
        if (!f.name.ends_with(".cvn")) continue;  // set aside
        if (const int failed = add_total(&nrow, f.nrow, f, err)) return failed;
    }
    if (nrow < t.value[0])
        return kelp_fail(err, KELP_ECHANGED,
                         "try again; if it stays so, that is no kelpd: check host and port",
                         "the reply counts more rows than the catalogue has, %lld, and goes on",
                         static_cast<long long>(nrow));
    *ret_nrow = nrow;
    return 0;
}

static int count_scanned(int64_t* ret_nrow, const kelp_query_t& query, const kelp_opt_t& opt,
                         kelp_error_t* err) {
    kelp_query_t rows = query;
    rows.rows_only = true;
    rows.exact = true;
    kelp_scan_t* scan = nullptr;
    const int opened = kelp_scan_open(&scan, rows, opt, err);
    if (opened == KELP_EEMPTY) {  // no files, no rows
        if (err) *err = kelp_error_t{};
        return 0;
    }
    if (opened) return opened;
    int64_t nrow = 0;
    kelp_batch_t* batch = nullptr;
    int code;
    while ((code = kelp_scan_next(scan, &batch, err)) == 0) {
        nrow += batch->nrow;
        kelp_batch_free(batch);
    }
    kelp_scan_close(scan);
    if (code != KELP_END) return code;
    *ret_nrow = nrow;
    return 0;
}

int kelp_count(int64_t* ret_nrow, const kelp_query_t& query, const kelp_opt_t& opt, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        *ret_nrow = 0;
        if (!query.cond.empty() || !query.where.empty()) return count_scanned(ret_nrow, query, opt, err);
        return count_claimed(ret_nrow, query.url, {.opt = &opt, .start_ms = now_ms()}, err);
    });
}
