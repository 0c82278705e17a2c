// Two passes over the files. The first reads the footers, compares the schemas, proves that the files can hold
// the rows that they claim, and counts these, keeping 16 bytes per file; then it is chosen how many rows each
// takes; the second walks the row groups and reads those that hold a chosen row.
//
// The files may be replaced or removed in between: the second pass wants the footer hash of the first.
#include "sampler/sample.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <numeric>
#include <utility>

#include "rows/file.h"
#include "sampler/choose.h"
#include "sampler/memory.h"

namespace {

constexpr size_t COPY_BUFSZ = 1 << 16;
// Memory of earlier row groups that is kept for the next one, with what that adds.
constexpr int64_t REUSE_MAX = int64_t{96} << 20;
// Left for what is mapped but not in memory yet: the program's own pages.
constexpr int64_t MEMORY_RESERVE = int64_t{12} << 20;
// Per column: what the writer maps for its null bitmap, in blocks, and what of that it comes to touch.
constexpr int64_t COLUMN_SPACE = sizeof(colbuf_t) + 4096;
constexpr int64_t COLUMN_BLOCK = int64_t{40} << 20;
constexpr int64_t COLUMN_TOUCHED = 4096;

class fd_t {
 public:
    explicit fd_t(int fd) : fd_(fd) {}
    fd_t(const fd_t&) = delete;
    fd_t& operator=(const fd_t&) = delete;
    ~fd_t() {
        if (fd_ >= 0) close(fd_);
    }
    [[nodiscard]] int get() const { return fd_; }

 private:
    int fd_;
};

// A writer that is closed in any case. After a failure the result of the close says nothing new.
class writer_t {
 public:
    explicit writer_t(cvn_t* w) : w_(w) {}
    writer_t(const writer_t&) = delete;
    writer_t& operator=(const writer_t&) = delete;
    ~writer_t() {
        if (w_) (void)cvn_close(w_);
    }
    [[nodiscard]] cvn_t* get() const { return w_; }
    cvn_t* release() { return std::exchange(w_, nullptr); }

 private:
    cvn_t* w_;
};

// The decoded columns of the row group under way, given back in any case.
struct columns_t {
    std::vector<rows::column_t> column;
    rows::bufpool_t* pool;
    ~columns_t() { release(); }
    void release() {
        for (rows::column_t& c : column) rows::column_free(pool, &c);
    }
    [[nodiscard]] int64_t held() const {
        size_t sum = pool->idlesz;
        for (const rows::column_t& c : column) sum += c.value.cap + c.offset.cap;
        return static_cast<int64_t>(sum);
    }
};

// What the first pass keeps of a file.
struct source_t {
    int64_t nrow = 0;
    int32_t hash = 0;
};

}  // namespace

[[noreturn]] static void fail(const std::string& path, const std::string& what) {
    throw sample_error("'" + path + "': " + what);
}

[[noreturn]] static void fail_code(const std::string& path, int code, int err) {
    switch (code) {
        case -2: fail(path, SAMPLE_NOMEM);
        case -3: fail(path, err ? strerror(err) : "ends too early: damaged, or not a data file");
        case -7: fail(path, "damaged, or not a data file");
        default: fail(path, "cannot be read (code " + std::to_string(code) + ")");
    }
}

[[noreturn]] static void fail_file(const rows::file_fault_t& fault) {
    switch (fault.kind) {
        case rows::FILE_CODE: fail_code(fault.path, fault.code, fault.err);
        case rows::FILE_SAME_NAME: fail(fault.path, "has more than one column '" + fault.name + "'");
        case rows::FILE_PAGE:
            fail(fault.path, "damaged: row group " + std::to_string(fault.rg) + ", column '" + fault.name +
                                 "': " + fault.what);
        default: fail(fault.path, "is not a regular file");
    }
}

// Opens a file whose columns can be sampled.
static void open_file(rows::file_t* ret, const std::string& path,
                      const std::shared_ptr<rows::bufpool_t>& pool) {
    rows::file_fault_t fault;
    if (!rows::file_open(ret, path, pool, &fault)) fail_file(fault);
    if (ret->column.empty()) fail(path, "has no columns");
    if (ret->column.size() > SAMPLE_COLUMN_MAX)
        fail(path, "has " + std::to_string(ret->column.size()) + " columns: no more than " +
                       std::to_string(SAMPLE_COLUMN_MAX) + " can be sampled");
    for (const rows::file_column_t& c : ret->column)
        if (cvn_typlen(c.typ) == 0)
            fail(path, "column '" + c.name + "' has the unknown type " + std::to_string(c.typ));
}

static void compare(const std::vector<rows::file_column_t>& first,
                    const std::vector<rows::file_column_t>& column, const std::string& first_path,
                    const std::string& path) {
    const std::string where = " as '" + first_path + "'";
    if (first.size() != column.size())
        fail(path, "has not the same schema" + where + ": " + std::to_string(column.size()) +
                       " columns, not " + std::to_string(first.size()));
    for (size_t c = 0; c < first.size(); c++)
        if (first[c].name != column[c].name || first[c].typ != column[c].typ)
            fail(path, "has not the same schema" + where + ": column " + std::to_string(c + 1) + " is '" +
                           column[c].name + "' " + cvn_typ_str(column[c].typ) + ", not '" + first[c].name +
                           "' " + cvn_typ_str(first[c].typ));
}

// Rows by the row groups, which is what the second pass walks; they must agree with the file's own count, and
// the file must be large enough for them.
static int64_t count_rows(rows::file_t& file) {
    int64_t sum = 0;
    for (int64_t rg = 0; rg < file.nrowgroup; rg++) {
        const int64_t n = cvn_scan_get_rowgroup_size(file.scan, rg);
        if (n < 0 || n > CVN_MAX_ROWGROUP_NROW || __builtin_add_overflow(sum, n, &sum))
            fail(file.path,
                 "damaged: row group " + std::to_string(rg) + " claims " + std::to_string(n) + " rows");
    }
    if (sum != file.nrow)
        fail(file.path, "damaged: its row groups have " + std::to_string(sum) + " rows, the file claims " +
                            std::to_string(file.nrow));
    rows::file_fault_t fault;
    if (!rows::file_prove(&file, &fault)) fail_file(fault);
    return sum;
}

[[noreturn]] static void fail_write(const std::string& tmpdir, int code, int err) {
    if (code == -2) throw sample_error(SAMPLE_NOMEM);
    throw sample_error("cannot write the sample in '" + tmpdir +
                       "': " + (code == -3 ? strerror(err) : "code " + std::to_string(code)));
}

// Makes sure that a row group can be read: gives back what earlier ones left where it would be too much together.
static void make_room(rows::file_t* file, int64_t rg, columns_t* columns) {
    rows::file_fault_t fault;
    rows::file_need_t need;
    if (!rows::file_need(file, rg, columns->column, &need, &fault)) fail_file(fault);
    if (need.all > SAMPLE_ROWGROUP_MAX)
        fail(file->path, "row group " + std::to_string(rg) + " takes " + std::to_string(need.all) +
                             " bytes of memory: no more than " + std::to_string(SAMPLE_ROWGROUP_MAX) +
                             " can be sampled");
    if (columns->held() + static_cast<int64_t>(file->stored.cap) + need.more <= REUSE_MAX) return;
    columns->release();
    rows::buf_put(columns->pool, std::exchange(file->stored, rows::buf_t{}));
    rows::bufpool_clear(columns->pool);
}

// Appends the chosen rows of one file.
static void sample_file(cvn_t* w, row_choice_t* choice, const source_t& source, size_t ncol,
                        const std::string& path, const std::shared_ptr<rows::bufpool_t>& pool,
                        const std::string& tmpdir) {
    rows::file_t file;
    open_file(&file, path, pool);
    if (file.scan->schema_hash != source.hash || count_rows(file) != source.nrow ||
        file.column.size() != ncol)
        fail(path, "changed while it was being sampled: try again");
    std::vector<int> want(ncol);
    std::iota(want.begin(), want.end(), 0);
    rows::file_fault_t fault;
    if (!rows::file_want(&file, want, &fault)) fail_file(fault);
    std::vector<uint64_t> group_nrow;
    for (int64_t rg = 0; rg < file.nrowgroup; rg++)
        group_nrow.push_back(static_cast<uint64_t>(cvn_scan_get_rowgroup_size(file.scan, rg)));
    choice->open_file(group_nrow);
    std::vector<uint32_t> chosen;
    columns_t columns{.column = {}, .pool = pool.get()};
    std::vector<cvn_datum_t> datum(ncol);
    const auto isnull = std::make_unique<bool[]>(ncol);
    for (int64_t rg = 0; rg < file.nrowgroup; rg++) {
        choice->take(static_cast<uint32_t>(group_nrow[static_cast<size_t>(rg)]), &chosen);
        if (chosen.empty()) continue;
        make_room(&file, rg, &columns);
        if (!rows::file_read(&file, rg, &columns.column, &fault)) fail_file(fault);
        for (const uint32_t row : chosen) {
            for (size_t c = 0; c < ncol; c++) {
                const cvn_vec_t& vec = columns.column[c].vec;
                memset(static_cast<void*>(&datum[c]), 0, sizeof(datum[c]));
                isnull[c] = cvn_vec_isnull(vec, row);
                if (!isnull[c]) cvn_vec_datum(vec, row, &datum[c]);
            }
            if (const int e = cvn_append(w, static_cast<int>(ncol), datum.data(), isnull.get()))
                fail_write(tmpdir, e, w->os_errno);
        }
    }
}

// Copies all of `from` to `out`.
static void copy_out(int out, int from) {
    struct stat st;
    const bool regular = fstat(out, &st) == 0 && S_ISREG(st.st_mode);
    const auto buf = std::make_unique<char[]>(COPY_BUFSZ);
    for (off_t offset = 0;;) {
        const ssize_t n = pread(from, buf.get(), COPY_BUFSZ, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw sample_error(std::string("cannot read the sample back: ") + strerror(errno));
        if (n == 0) return;
        for (ssize_t done = 0; done < n;) {
            const ssize_t m = write(out, buf.get() + done, static_cast<size_t>(n - done));
            if (m < 0 && errno == EINTR) continue;
            if (m < 0) {
                const int err = errno;
                // What cannot be complete must not stay; where cutting fails too, no reader takes the rest
                // for a file.
                if (regular && ftruncate(out, st.st_size) != 0)
                    throw sample_error(
                        std::string("cannot write to standard output, and part of the sample stays: ") +
                        strerror(err));
                throw sample_error(std::string("cannot write to standard output: ") + strerror(err));
            }
            done += m;
        }
        offset += n;
    }
}

// Creates a file without a name in `tmpdir`, so that whatever ends this process leaves nothing behind, and a
// writer on it. Returns its descriptor.
static int create_temp(cvn_t** ret, const std::string& tmpdir) {
    int fd = open(tmpdir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0) {
        if (cvn_create(ret, ("/proc/self/fd/" + std::to_string(fd)).c_str()) == 0) return fd;
        close(fd);
    }
    // Without support for that, or without /proc, it has a name for a moment.
    std::string name = tmpdir + "/cvnsamp-XXXXXX";
    fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) throw sample_error("cannot make a file in '" + tmpdir + "': " + strerror(errno));
    const int code = cvn_create(ret, name.c_str());
    const int err = errno;
    unlink(name.c_str());
    if (code == 0) return fd;
    close(fd);
    fail_write(tmpdir, code, err);
}

uint64_t sample_files(int out, uint64_t nrow, uint64_t seed, const std::vector<std::string>& files,
                      const std::string& tmpdir, int64_t memory) {
    const auto limit = [memory](int64_t touched, int64_t untouched) {
        if (memory > 0) memory_limit(memory - MEMORY_RESERVE - touched, untouched);
    };
    limit(0, 0);
    if (files.empty()) throw sample_error("no data files, so there is no schema to write");
    const auto pool = std::make_shared<rows::bufpool_t>();
    std::vector<source_t> source;
    std::vector<rows::file_column_t> column;
    int64_t total = 0;
    for (const std::string& path : files) {
        rows::file_t file;
        open_file(&file, path, pool);
        if (source.empty())
            column = file.column;
        else
            compare(column, file.column, files[0], path);
        source.push_back({count_rows(file), file.scan->schema_hash});
        if (__builtin_add_overflow(total, source.back().nrow, &total)) fail(path, "too many rows altogether");
    }

    cvn_t* created = nullptr;
    const fd_t tmp(create_temp(&created, tmpdir));
    writer_t writer(created);
    const auto ncol = static_cast<int64_t>(column.size());
    limit(0, ncol * COLUMN_SPACE + COLUMN_BLOCK);
    for (const rows::file_column_t& c : column) {
        if (const int code = cvn_create_column(writer.get(), c.name.c_str(), c.typ, c.zflag, c.nflag)) {
            (void)writer.release();  // gone with the failure
            fail_write(tmpdir, code, errno);
        }
    }
    limit(ncol * COLUMN_TOUCHED, 0);
    std::vector<uint64_t> file_nrow;
    for (const source_t& s : source) file_nrow.push_back(static_cast<uint64_t>(s.nrow));
    row_choice_t choice(seed, nrow, file_nrow);
    const uint64_t chosen = choice.left();
    for (size_t i = 0; i < files.size() && choice.left() > 0; i++) {
        if (!choice.skip_file())
            sample_file(writer.get(), &choice, source[i], column.size(), files[i], pool, tmpdir);
    }
    if (const int code = cvn_close(writer.release())) fail_write(tmpdir, code, errno);
    copy_out(out, tmp.get());
    return chosen;
}
