// cvn ls, put, rm and meta: what a server has, and changes to it.
#include <errno.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "tools/commands.h"
#include "tools/format.h"
#include "tools/progress.h"
#include "tools/remote.h"

namespace {

struct ls_opts_t {
    std::string url;
    std::string format;
    remote_opts_t remote;
};

// Rows of texts and numbers on the standard output. The texts are borrowed until the end.
struct listing_t {
    tool_out_t out;
    format_t format;
    std::vector<cvn_datum_t> datum;
};

}  // namespace

static void listing_begin(listing_t* listing, const std::string& kind, const std::vector<std::string>& name,
                          const std::vector<cvn_typ_t>& typ) {
    const std::map<std::string, format_kind_t> kinds = {
        {"csv", FORMAT_CSV}, {"jsonl", FORMAT_JSONL}, {"table", FORMAT_TABLE}};
    format_begin(&listing->format, kinds.at(kind.empty() ? "table" : kind), &listing->out, name, typ);
    listing->datum.resize(name.size());
}

static void listing_row(listing_t* listing) {
    static constexpr bool none[8] = {};
    format_row(&listing->format, listing->datum.data(), none);
}

static void ls_names(const ls_opts_t& opts, const kelp_url_t& url) {
    kelp_error_t err;
    std::vector<std::string> name;
    remote_check(kelp_list(&name, url, remote_opt(opts.remote), &err), url, err);
    std::sort(name.begin(), name.end());
    listing_t listing;
    if (opts.format.empty()) {
        for (const std::string& n : name) {
            listing.out.buf += format_cell(n, n.size()) + "\n";
            tool_out_spill(&listing.out);
        }
        return tool_out_flush(&listing.out);
    }
    listing_begin(&listing, opts.format, {"name"}, {CVN_TYP_CSTR});
    for (const std::string& n : name) {
        listing.datum[0].t = n.c_str();
        listing_row(&listing);
    }
    format_end(&listing.format);
}

static void ls_files(const ls_opts_t& opts, const kelp_url_t& url) {
    kelp_error_t err;
    std::vector<kelp_file_t> file;
    remote_check(kelp_list_files(&file, url, remote_opt(opts.remote), &err), url, err);
    std::sort(file.begin(), file.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    listing_t listing;
    listing_begin(&listing, opts.format,
                  {"name", "columns", "rows", "row_groups", "stored_bytes", "raw_bytes"},
                  {CVN_TYP_CSTR, CVN_TYP_INT32, CVN_TYP_INT64, CVN_TYP_INT64, CVN_TYP_INT64, CVN_TYP_INT64});
    for (const kelp_file_t& f : file) {
        listing.datum[0].t = f.name.c_str();
        listing.datum[1].i = f.ncol;
        listing.datum[2].I = f.nrow;
        listing.datum[3].I = f.nrowgroup;
        listing.datum[4].I = f.zbyte;
        listing.datum[5].I = f.nbyte;
        listing_row(&listing);
    }
    format_end(&listing.format);
}

static void ls_columns(const ls_opts_t& opts, const kelp_url_t& url) {
    kelp_error_t err;
    std::vector<kelp_column_t> column;
    int32_t chksum;
    remote_check(kelp_list_columns(&column, &chksum, url, remote_opt(opts.remote), &err), url, err);
    listing_t listing;
    listing_begin(&listing, opts.format, {"column", "type"}, {CVN_TYP_CSTR, CVN_TYP_CSTR});
    for (const kelp_column_t& c : column) {
        listing.datum[0].t = c.name.c_str();
        listing.datum[1].t = cvn_typ_str(c.typ);
        listing_row(&listing);
    }
    format_end(&listing.format);
}

static int ls_run(const ls_opts_t& opts) {
    const kelp_url_t url = remote_url(opts.url);
    switch (kelp_url_depth(url)) {
        case 3: ls_files(opts, url); break;
        case 4: ls_columns(opts, url); break;
        default: ls_names(opts, url); break;
    }
    return 0;
}

namespace {

struct put_opts_t {
    std::vector<std::string> arg;  // the files, then the URL
    bool force = false;
    remote_opts_t remote;
};

// One file on its way.
struct upload_t {
    std::string path;
    kelp_url_t url;
    int64_t nrow = 0;
    int64_t nbyte = 0;
    std::vector<kelp_column_t> column;
};

}  // namespace

static bool is_table_file(const std::string& name) {
    return name.ends_with(".cvn") || name.ends_with(".cvn.mismatch");
}

// Whether scans read it: a file set aside is listed, but not read.
static bool is_scanned(const std::string& name) { return name.ends_with(".cvn"); }

// The columns of a file that was verified.
static std::vector<kelp_column_t> read_columns(const std::string& path) {
    cvn_scan_t* scan = nullptr;
    errno = 0;
    const int code = cvn_scan_open(&scan, path.c_str());
    if (code != 0) throw tool_error(tool_code_text(code, errno, path));
    const struct closer_t {
        cvn_scan_t* scan;
        ~closer_t() { (void)cvn_scan_close(scan); }  // always 0
    } closer = {scan};
    int ncol = 0;
    const cvn_coldef_t* coldef = nullptr;
    (void)cvn_scan_coldef(&ncol, &coldef, scan);  // always 0
    std::vector<kelp_column_t> column;
    for (int c = 0; c < ncol; c++) column.push_back({coldef[c].name, coldef[c].typ});
    return column;
}

// Refuses a file that is damaged, or that no query would ever find.
static void put_check(upload_t* up) {
    const std::string& path = up->path;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw tool_error(path + ": " + tool_strerror(errno));
    if (S_ISDIR(st.st_mode))
        throw tool_error(path +
                         ": is a directory; upload data files (a split has none: upload what it was "
                         "made from)");
    if (!S_ISREG(st.st_mode)) throw tool_error(path + ": is not a regular file");
    up->nbyte = st.st_size;
    if (!is_table_file(up->url.partition))
        throw tool_error(
            fmt::format("{}: no query finds a file named {}; end the name in .cvn, in the URL if need be",
                        path, tool_quote(up->url.partition)));
    tool_out_t faults;
    faults.fd = 2;  // for more than fits into the buffer
    faults.optional = true;
    const int64_t nfault = verify_file(path, &faults, &up->nrow);
    if (nfault == 0) {
        up->column = read_columns(path);
        return;
    }
    const std::string first = faults.buf.substr(0, faults.buf.find('\n'));
    throw tool_error(fmt::format("{}; it is damaged ({}) and nothing was uploaded; 'cvn verify {}' tells all",
                                 first.empty() ? path + ": verification failed" : first,
                                 tool_counted(nfault, "fault", "faults"), path));
}

// Refuses a server that is no kelpd: any web server may answer a change with success.
static void check_server(const kelp_url_t& url, const kelp_opt_t& opt) {
    kelp_url_t root = url;
    root.database = root.schema = root.entity = root.partition = "";
    std::vector<std::string> name;
    kelp_error_t err;
    const int code = kelp_list(&name, root, opt, &err);
    // A proxy may keep the list of databases to itself.
    if (code != KELP_EREFUSED && code != KELP_ENOTFOUND) remote_check(code, url, err);
}

// The columns that the files of a table have, by the first one that stays when `replaced` are put, and the
// name of that file. Returns false when none stays.
static bool table_has(std::vector<kelp_column_t>* ret_column, std::string* ret_name, const kelp_url_t& table,
                      const std::set<std::string>& replaced, const kelp_opt_t& opt) {
    kelp_error_t err;
    const auto check = [&](int code) {
        // The table can be taken as it is, though not be read.
        if (code == KELP_EPROTO || (code == KELP_EREFUSED && err.http_status != 401))
            snprintf(err.hint, sizeof(err.hint),
                     "its columns cannot be compared; --force puts files all the same");
        remote_check(code, table, err);
    };
    kelp_url_t url = table;
    url.partition = "";
    std::vector<kelp_file_t> file;
    int code = kelp_list_files(&file, url, opt, &err);
    if (code == KELP_ENOTFOUND) return false;  // to be made
    check(code);
    for (const kelp_file_t& f : file) {
        if (!is_scanned(f.name) || replaced.contains(f.name)) continue;
        url.partition = f.name;
        int32_t chksum;
        code = kelp_list_columns(ret_column, &chksum, url, opt, &err);
        if (code == KELP_ENOTFOUND) continue;  // removed meanwhile
        check(code);
        *ret_name = remote_name(url);
        return true;
    }
    return false;
}

// Refuses files with other columns than those beside which they would stand: every query of the table would
// fail.
static void put_compare(const std::vector<upload_t>& ups, const std::set<std::string>& names,
                        const kelp_opt_t& opt) {
    std::vector<kelp_column_t> want;
    std::string want_name;
    bool known = table_has(&want, &want_name, ups[0].url, names, opt);
    for (const upload_t& up : ups) {
        if (!is_scanned(up.url.partition)) continue;
        kelp_error_t err;
        if (!known) {
            want = up.column;
            want_name = up.path;
            known = true;
        } else if (kelp_columns_compare(up.column, up.path.c_str(), want, want_name.c_str(), &err) != 0) {
            throw tool_error(fmt::format("{}; {}, so nothing was uploaded; --force puts files all the same",
                                         err.text, err.hint));
        }
    }
}

static bool put_progress(void* arg, int64_t done, int64_t) {
    progress_update(static_cast<progress_t*>(arg), done, 0);
    return true;
}

static bool is_file(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Whether the last argument is one more file, for the table in KELPD_URL. Of several it is one only when that
// names a table: below a server it would be a place.
static bool put_to_default(const put_opts_t& opts) {
    if (!is_file(opts.arg.back())) return false;
    if (opts.arg.size() == 1) return true;
    const char* const base = getenv("KELPD_URL");
    return base && *base && kelp_url_depth(remote_url("")) == 3;
}

static int put_run(const put_opts_t& opts) {
    std::vector<std::string> files = opts.arg;
    std::string place;
    if (!put_to_default(opts)) {
        place = files.back();
        files.pop_back();
        if (files.empty()) throw tool_usage("put takes files and, last, the URL of a table");
    }
    const kelp_url_t url = remote_url(place, 3, 4, "a table, or a file of one, to put files into");
    const bool named = kelp_url_depth(url) == 4;
    if (named && files.size() > 1)
        throw tool_usage(fmt::format("{} names one file, but {} are to be put there; name the table",
                                     remote_name(url), files.size()));
    std::vector<upload_t> ups;
    std::set<std::string> names;
    for (const std::string& path : files) {
        upload_t up = {path, url};
        if (!named) up.url.partition = up.path.substr(up.path.rfind('/') + 1);
        if (up.url.partition.empty() || up.url.partition[0] == '.')
            throw tool_error(up.path +
                             ": cannot be uploaded under its own name; put a name after the table's");
        if (!names.insert(up.url.partition).second)
            throw tool_error(fmt::format("{}: another file is called {} too, and would be replaced", up.path,
                                         tool_quote(up.url.partition)));
        ups.push_back(std::move(up));
    }
    for (upload_t& up : ups) put_check(&up);
    check_server(url, remote_opt(opts.remote));
    if (!opts.force) put_compare(ups, names, remote_opt(opts.remote));
    tool_out_t out;
    out.optional = true;  // all files are to be put, whoever reads on
    for (const upload_t& up : ups) {
        progress_t progress;
        progress_begin(&progress, up.nbyte, nullptr);
        kelp_error_t err;
        const int code =
            kelp_upload(up.url, up.path.c_str(), put_progress, &progress, remote_opt(opts.remote), &err);
        progress_end(&progress);
        const std::string text = err.text;
        if (code == KELP_EFILE)
            throw tool_error(text.find(up.path) == text.npos ? up.path + ": " + text : text);
        remote_check(code, up.url, err);
        out.buf += fmt::format("{}: {}, {} put to {}\n", up.path, tool_counted(up.nrow, "row", "rows"),
                               tool_bytes(static_cast<double>(up.nbyte)), kelp_url_format(up.url, true));
        tool_out_flush(&out);
    }
    return 0;
}

namespace {

struct rm_opts_t {
    std::string url;
    bool yes = false;
    remote_opts_t remote;
};

}  // namespace

// Lets pass what can be removed although it cannot be described: a kelpd does not escape the names that it
// lists, so that a name with a quote in it spoils the reply.
static void rm_check(int code, const kelp_url_t& url, const kelp_opt_t& opt, const kelp_error_t& err) {
    if (code != KELP_EPROTO) return remote_check(code, url, err);
    std::vector<std::string> name;
    kelp_url_t root = url;
    root.database = root.schema = root.entity = root.partition = "";
    kelp_error_t other;
    if (kelp_list(&name, root, opt, &other) != 0) remote_fail(url, err);
}

// What would be removed. Fails when there is nothing of that name, which the server itself would not tell.
static std::string rm_what(const kelp_url_t& url, const kelp_opt_t& opt) {
    kelp_error_t err;
    const std::string name = tool_quote(remote_name(url), 500);
    const int depth = kelp_url_depth(url);
    if (depth == 4) {
        std::vector<kelp_column_t> column;
        int32_t chksum;
        // Any file can be removed, also one that the server cannot read.
        const int code = kelp_list_columns(&column, &chksum, url, opt, &err);
        if (code != KELP_EREFUSED || err.http_status != 500) rm_check(code, url, opt, err);
        return "the file " + name;
    }
    if (depth == 3) {
        std::vector<kelp_file_t> file;
        const int code = kelp_list_files(&file, url, opt, &err);
        rm_check(code, url, opt, err);
        int64_t nrow = 0;
        for (const kelp_file_t& f : file) nrow = tool_add(nrow, f.nrow);
        if (code != 0) return "the table " + name;
        return fmt::format("the table {} with {} and {}", name,
                           tool_counted(static_cast<int64_t>(file.size()), "file", "files"),
                           tool_counted(nrow, "row", "rows"));
    }
    std::vector<std::string> below;
    const int code = kelp_list(&below, url, opt, &err);
    rm_check(code, url, opt, err);
    const auto n = static_cast<int64_t>(below.size());
    std::string what = (depth == 2 ? "the schema " : "the database ") + name;
    if (code != 0) return what;
    return what + " with " +
           (depth == 2 ? tool_counted(n, "table", "tables") : tool_counted(n, "schema", "schemas"));
}

static bool ask(const std::string& question) {
    if (!tool_tell(question + " [y/N] ")) return false;  // what cannot be shown is answered with "no"
    std::string line;
    for (char ch = 0; ch != '\n';) {
        const ssize_t n = read(0, &ch, 1);
        tool_check_signals();
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            (void)tool_tell("\n");
            return false;
        }
        if (ch != '\n' && line.size() < 8) line += ch;
    }
    return strcasecmp(line.c_str(), "y") == 0 || strcasecmp(line.c_str(), "yes") == 0;
}

static int rm_run(const rm_opts_t& opts) {
    const kelp_url_t url = remote_url(opts.url, 1, 4, "anything that can be removed");
    if (!opts.yes && (isatty(0) != 1 || isatty(2) != 1))
        throw tool_usage("there is no terminal to ask on; --yes removes without asking");
    const kelp_opt_t opt = remote_opt(opts.remote);
    const std::string what = rm_what(url, opt);
    if (!opts.yes && !ask("remove " + what + "?")) throw tool_error("nothing was removed");
    kelp_error_t err;
    remote_check(kelp_remove(url, opt, &err), url, err);
    tool_out_t out;
    out.optional = true;
    out.buf = "removed " + what + "\n";
    tool_out_flush(&out);
    return 0;
}

namespace {

struct meta_opts_t {
    std::string url;
    remote_opts_t remote;
};

}  // namespace

static int meta_run(const meta_opts_t& opts) {
    const kelp_url_t url = remote_url(opts.url, 3, 3, "a table");
    kelp_error_t err;
    kelp_meta_t meta;
    remote_check(kelp_meta(&meta, url, remote_opt(opts.remote), &err), url, err);
    tool_out_t out;
    out.buf = fmt::format("rows        {}\nrow groups  {}\n", meta.nrow, meta.nrowgroup);
    tool_out_flush(&out);
    return 0;
}

static void ls_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<ls_opts_t>();
    CLI::App* const sub =
        app->add_subcommand("ls",
                            "List what a server has: databases, schemas, tables, a table's files, a file's "
                            "columns.\n"
                            "\n"
                            "URL is kelp://host:port/database/schema/table/file, cut at any depth, or "
                            "http://host:port/v1/database/...\n"
                            "With KELPD_URL set to kelp://host:port, database/schema/table is enough; "
                            "without a URL its own place is listed.\n"
                            "\n"
                            "Examples:\n"
                            "  cvn ls kelp://localhost:8642\n"
                            "  cvn ls kelp://localhost:8642/shop/public/orders\n"
                            "  KELPD_URL=kelp://localhost:8642 cvn ls shop/public --format jsonl");
    sub->add_option("URL", opts->url, "The place to list (default: KELPD_URL)");
    sub->add_option("--format", opts->format, "csv, jsonl or table")
        ->check(CLI::IsMember({"csv", "jsonl", "table"}));
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = ls_run(*opts); });
}

static void put_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<put_opts_t>();
    CLI::App* const sub = app->add_subcommand(
        "put",
        "Upload data files into a table.\n"
        "\n"
        "Every file is verified first, as 'cvn verify' does, and none is sent when one is "
        "damaged. A file replaces the\n"
        "table's file of the same name; the server keeps that one when the upload fails. "
        "A table that does not exist\n"
        "is made. Without a URL they go into the table that KELPD_URL names.\n"
        "\n"
        "All files of a table have the same columns, with the same types and in the same order, or queries "
        "fail. So the\n"
        "columns of every file are compared with those of the first file in the table's list that is not "
        "replaced, or\n"
        "else of the first file named here, and none is sent when one differs. --force sends them unseen: to "
        "change the\n"
        "columns of a whole table, file by file, or when its columns cannot be read.\n"
        "\n"
        "Examples:\n"
        "  cvn put orders.*.cvn kelp://localhost:8642/shop/public/orders\n"
        "  cvn put new.cvn kelp://localhost:8642/shop/public/orders/2024-01.cvn");
    remote_usage(sub, "FILE... [URL]");
    sub->add_option("FILE", opts->arg,
                    "The data files, then the table, or one file of it (default: KELPD_URL)")
        ->required();
    sub->add_flag("--force", opts->force, "Do not compare columns");
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = put_run(*opts); });
}

static void rm_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<rm_opts_t>();
    CLI::App* const sub =
        app->add_subcommand("rm",
                            "Remove a file, a table, a schema or a database from a server.\n"
                            "\n"
                            "Asks on the terminal first; without one, --yes must be given. Scans that read a "
                            "file already go on to its end.\n"
                            "\n"
                            "Examples:\n"
                            "  cvn rm kelp://localhost:8642/shop/public/orders/2024-01.cvn\n"
                            "  cvn rm --yes kelp://localhost:8642/shop/scratch");
    sub->add_option("URL", opts->url, "What to remove")->required();
    sub->add_flag("--yes,-y", opts->yes, "Do not ask");
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = rm_run(*opts); });
}

static void meta_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<meta_opts_t>();
    CLI::App* const sub =
        app->add_subcommand("meta",
                            "Print how many rows and row groups a table has.\n"
                            "\n"
                            "Files set aside as .cvn.mismatch count too, which no query reads.\n"
                            "\n"
                            "Example:\n"
                            "  cvn meta kelp://localhost:8642/shop/public/orders");
    sub->add_option("URL", opts->url, "The table (default: KELPD_URL)");
    remote_add_options(sub, &opts->remote);
    sub->callback([opts, ret] { *ret = meta_run(*opts); });
}

void remote_catalog_register(CLI::App* app, int* ret) {
    ls_register(app, ret);
    put_register(app, ret);
    rm_register(app, ret);
    meta_register(app, ret);
}
