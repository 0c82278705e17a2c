// cvn split: one file per column. The split is made in a directory of its own inside the one that was named,
// and moved to its place when it is complete: a failure leaves an older split as it was, and nothing new.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <charconv>
#include <set>

#include "tools/commands.h"
#include "tools/schema.h"
#include "tools/source.h"
#include "tools/tool.h"

namespace {

struct split_opts_t {
    std::string file, dir;
};

// The directory of the new split, which vanishes with what is left in it.
struct work_t {
    std::string dir;    // what was named
    bool made = false;  // it was not there before
    std::string path;   // the one inside it
    int nfile = 0;      // column files that may be in there

    work_t() = default;
    work_t(const work_t&) = delete;
    work_t& operator=(const work_t&) = delete;
    ~work_t() {
        if (!path.empty()) {
            // Without an allocation: want of memory may be what led here.
            const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            for (int c = 0; c < nfile; c++) {
                char name[24];
                (void)snprintf(name, sizeof(name), "%d.cvnx", c);  // always fits
                (void)unlinkat(fd, name, 0);
            }
            for (const char* const name : {"meta.cvnx", "meta.cvnx.tmp"}) (void)unlinkat(fd, name, 0);
            if (fd != -1) close(fd);
            (void)rmdir(path.c_str());
        }
        if (made) (void)rmdir(dir.c_str());  // refused once the split is in there
    }
};

}  // namespace

[[noreturn]] static void fail(const std::string& path) {
    throw tool_error(path + ": " + tool_strerror(errno));
}

// Reads all stored pages and compares their hashes: what is split is copied as it is, and its hashes with it.
static void check_pages(const std::string& path, cvn_scan_t* scan) {
    for (int64_t rg = 0; rg < scan->schema->nrowgroup; rg++)
        for (int c = 0; c < scan->schema->ncol; c++) {
            tool_check_signals();
            cvn_page_t* page = nullptr;
            errno = 0;
            const int code = cvn_scan_page(scan, rg, c, &page, false);
            if (code == -2) throw std::bad_alloc();
            if (code == 0 &&
                XXH32(page->buf, static_cast<size_t>(page->zbyte), 0) == static_cast<uint32_t>(page->hash))
                continue;
            throw tool_error(fmt::format(
                "{}: row group {}, column {}: {}; it is not split, and 'cvn verify {}' tells all", path, rg,
                tool_quote(schema_name(scan->coldef[c])),
                code == 0 ? "its bytes do not match their hash" : "its page cannot be read", path));
        }
}

// Proves that the file can be split, and returns the number of its columns.
static int check_file(const std::string& path) {
    rows::file_t open;
    source_open(&open, path);
    cvn_scan_t* const scan = open.scan;
    std::set<std::string> names;
    for (int c = 0; c < scan->schema->ncol; c++) {
        const std::string name = schema_name(scan->coldef[c]);
        if (!names.insert(name).second)
            throw tool_error(
                fmt::format("{}: two columns are named {}; a split is read by names, so make the "
                            "file anew with others",
                            path, tool_quote(name)));
        if (cvn_scan_add_required(scan, name.c_str()) != 0)
            throw tool_error(
                fmt::format("{}: column {} cannot be read; 'cvn verify' tells more", path, tool_quote(name)));
    }
    check_pages(path, scan);
    return scan->schema->ncol;
}

// Removes column files of an older split with more columns.
static void remove_older(const std::string& dir, int ncol) {
    DIR* const d = opendir(dir.c_str());
    if (!d) fail(dir);
    std::vector<std::string> older;
    while (const dirent* entry = readdir(d)) {
        const std::string_view name = entry->d_name;
        if (name.size() < 6 || !name.ends_with(".cvnx")) continue;
        const char* const end = name.data() + name.size() - 5;
        int number = 0;
        const auto [stop, ec] = std::from_chars(name.data(), end, number);
        if (ec == std::errc() && stop == end && number >= ncol) older.push_back(dir + "/" + entry->d_name);
    }
    closedir(d);
    for (const std::string& path : older)
        if (unlink(path.c_str()) != 0) fail(path);
}

static int split_run(const split_opts_t& opts) {
    struct stat st;
    if (stat(opts.file.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw tool_error(opts.file + ": is a directory; only a data file can be split");
    work_t work;
    const int ncol = check_file(opts.file);
    work.dir = opts.dir;
    work.made = stat(opts.dir.c_str(), &st) != 0;
    if (mkdir_p(opts.dir.c_str()) != 0) fail(opts.dir);
    std::string path = opts.dir + "/.split-XXXXXX";
    if (!mkdtemp(path.data())) fail(opts.dir);
    work.path = path;
    work.nfile = ncol;
    tool_allow_files(ncol);
    errno = 0;
    const int code = cvnx_split(path.c_str(), opts.file.c_str());
    if (code == -3) fail(opts.dir);
    if (code != 0) throw tool_error(tool_code_text(code, errno, opts.file));
    if (stat((path + "/meta.cvnx").c_str(), &st) != 0)
        throw tool_error(
            fmt::format("{}: its pages overlap, or it changed while it was split; 'cvn verify {}' tells more",
                        opts.file, opts.file));
    tool_check_signals();
    // The older metadata describes other files than those that come now, so it goes first. The new one, with
    // which the split is complete, comes last.
    const std::string meta = opts.dir + "/meta.cvnx";
    if (unlink(meta.c_str()) != 0 && errno != ENOENT) fail(meta);
    for (int c = 0; c < ncol; c++) {
        const std::string name = fmt::format("/{}.cvnx", c);
        if (rename((path + name).c_str(), (opts.dir + name).c_str()) != 0) fail(opts.dir + name);
    }
    remove_older(opts.dir, ncol);
    if (rename((path + "/meta.cvnx").c_str(), meta.c_str()) != 0) fail(meta);
    return 0;
}

void split_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<split_opts_t>();
    CLI::App* const sub = app->add_subcommand(
        "split",
        "Rewrite a data file as a directory with one file per column.\n"
        "\n"
        "A scan of a few columns then reads these columns' files alone. info, cat and "
        "verify take the directory\n"
        "wherever they take a file. The directory is made if it is missing, and a "
        "split that is in it already is\n"
        "replaced when the new one is complete. A file with a damaged page is not split.\n"
        "\n"
        "Example:\n"
        "  cvn split orders.cvn orders.split && cvn cat orders.split --columns id,qty");
    sub->add_option("FILE", opts->file, "The data file")->required();
    sub->add_option("DIR", opts->dir, "The directory to write")->required();
    sub->callback([opts, ret] { *ret = split_run(*opts); });
}
