// Two passes over the files. The first reads the footers, compares the schemas and counts rows, keeping 16
// bytes a file; then the rows are chosen; the second walks the row groups and reads those that hold a chosen
// row.
//
// The files may be replaced or removed in between: the second pass wants the footer hash of the first.
#include "sampler/sample.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"  // cvn_lz4_decode
#include "sampler/choose.h"

namespace {

constexpr size_t COPY_BUFSZ = 1 << 16;

struct scan_close_t {
    void operator()(cvn_scan_t* sc) const { cvn_scan_close(sc); }
};
using scan_ptr_t = std::unique_ptr<cvn_scan_t, scan_close_t>;

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

// What the first pass keeps of a file.
struct source_t {
    int64_t nrow = 0;
    int32_t hash = 0;
};

struct column_t {
    std::string name;
    cvn_typ_t typ;
    bool zflag;
    bool nflag;
};

// One column of the row group under way, read row by row from the front. The page's body stays where it is
// for later row groups.
struct cursor_t {
    std::unique_ptr<char[]> body;
    size_t room = 0;
    int storage = 0;
    int width = 0;  // below 1: the values vary in length
    const char* value = nullptr;
    int64_t valuesz = 0;
    const char* nmap = nullptr;
    int64_t row = 0;  // of a varying column: the row at `offset`
    int64_t offset = 0;
};

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw sample_error("'" + path + "': " + what);
}

std::string name_of(const cvn_coldef_t& def) { return {def.name, strnlen(def.name, CVN_NAME_SZ - 1)}; }

[[noreturn]] void fail_code(const std::string& path, int code, int err) {
    switch (code) {
        case -2: fail(path, "out of memory");
        case -3: fail(path, err ? strerror(err) : "ends too early: damaged, or not a data file");
        case -7: fail(path, "damaged, or not a data file");
        default: fail(path, "cannot be read (code " + std::to_string(code) + ")");
    }
}

// Opening a pipe waits for its writer, so it is not even tried.
void check_regular(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode))
        fail(path, "is not a regular file");
}

scan_ptr_t open_scan(const std::string& path) {
    check_regular(path);
    check_regular(path + "/meta.cvnx");
    cvn_scan_t* sc = nullptr;
    errno = 0;
    if (const int e = cvn_scan_open(&sc, path.c_str())) fail_code(path, e, errno);
    scan_ptr_t scan(sc);
    if (sc->split_mode) {
        schema_desc_t schema;
        memcpy(&schema, sc->schema, sizeof(schema));
        for (int c = 0; c < schema.ncol; ++c) check_regular(path + "/" + std::to_string(c) + ".cvnx");
    }
    return scan;
}

std::vector<column_t> columns_of(cvn_scan_t* sc, const std::string& path) {
    int ncol = 0;
    const cvn_coldef_t* def = nullptr;
    (void)cvn_scan_coldef(&ncol, &def, sc);  // always 0
    if (ncol < 1) fail(path, "has no columns");
    std::vector<column_t> column;
    for (int c = 0; c < ncol; ++c) {
        cvn_coldef_t d;
        memcpy(&d, def + c, sizeof(d));
        if (cvn_typlen(d.typ) == 0)
            fail(path, "column '" + name_of(d) + "' has the unknown type " + std::to_string(d.typ));
        column.push_back({name_of(d), d.typ, d.zflag != 0, d.nflag != 0});
    }
    return column;
}

void compare(const std::vector<column_t>& first, const std::vector<column_t>& column,
             const std::string& first_path, const std::string& path) {
    const std::string where = " as '" + first_path + "'";
    if (first.size() != column.size())
        fail(path, "has not the same schema" + where + ": " + std::to_string(column.size()) +
                       " columns, not " + std::to_string(first.size()));
    for (size_t c = 0; c < first.size(); ++c)
        if (first[c].name != column[c].name || first[c].typ != column[c].typ)
            fail(path, "has not the same schema" + where + ": column " + std::to_string(c + 1) + " is '" +
                           column[c].name + "' " + cvn_typ_str(column[c].typ) + ", not '" + first[c].name +
                           "' " + cvn_typ_str(first[c].typ));
}

// Rows by the row groups, which is what the second pass walks; they must agree with the file's own count.
int64_t count_rows(cvn_scan_t* sc, const std::string& path) {
    schema_desc_t schema;
    memcpy(&schema, sc->schema, sizeof(schema));
    int64_t sum = 0;
    for (int64_t rg = 0; rg < schema.nrowgroup; ++rg) {
        const int64_t n = cvn_scan_get_rowgroup_size(sc, rg);
        if (n < 0 || n > CVN_MAX_ROWGROUP_NROW || __builtin_add_overflow(sum, n, &sum))
            fail(path, "damaged: row group " + std::to_string(rg) + " claims " + std::to_string(n) + " rows");
    }
    if (sum != schema.nrow)
        fail(path, "damaged: its row groups have " + std::to_string(sum) + " rows, the file claims " +
                       std::to_string(schema.nrow));
    return sum;
}

// Reads one row group, checks every stored page against its hash and its sizes, and sets a cursor on each
// column. What is decompressed are the bytes whose hash was checked.
void read_rowgroup(std::vector<cursor_t>* cursor, cvn_scan_t* sc, int64_t rg, int64_t nrow,
                   const std::vector<column_t>& column, const std::string& path) {
    for (size_t c = 0; c < column.size(); ++c) {
        const auto damaged = [&](const std::string& what) {
            fail(path,
                 "damaged: row group " + std::to_string(rg) + ", column '" + column[c].name + "': " + what);
        };
        cvn_page_t* p = nullptr;
        errno = 0;
        if (const int e = cvn_scan_page(sc, rg, static_cast<int>(c), &p, false)) {
            if (e == -3 && errno == 0)
                fail(path, "damaged: row group " + std::to_string(rg) + " lies outside the file");
            fail_code(path, e, errno);
        }
        if (static_cast<uint32_t>(p->hash) != XXH32(p->buf, static_cast<size_t>(p->zbyte), 0))
            damaged("the stored bytes do not match their hash");
        cursor_t& cur = (*cursor)[c];
        // Memory is had for no more than the stored bytes can become.
        if (p->nbyte < p->zbyte || p->nbyte / CVN_LZ4_MAX_RATIO > p->zbyte) damaged("it does not decompress");
        const auto size = static_cast<size_t>(p->nbyte);
        if (size > cur.room) {
            cur.body.reset();
            cur.room = 0;
            cur.body = std::make_unique_for_overwrite<char[]>(size);
            cur.room = size;
        }
        if (p->nbyte == p->zbyte) {
            memcpy(cur.body.get(), p->buf, size);
        } else if (const int e = cvn_lz4_decode(cur.body.get(), p->nbyte, p->buf, p->zbyte)) {
            if (e == -2) fail_code(path, e, 0);
            damaged("it does not decompress");
        }
        if (p->nrow != nrow) damaged("its row count differs from that of the row group");
        if (p->nmapoff < 0 || p->nmapoff > p->nbyte || p->nbyte - p->nmapoff != (nrow + 7) / 8)
            damaged("the null bitmap is not where it must be");
        cur.storage = column[c].typ & 0xffff;
        cur.width = cvn_typlen(column[c].typ);
        if (cur.width > 0 && p->nmapoff != nrow * cur.width) damaged("the values do not fill the page");
        cur.value = cur.body.get();
        cur.valuesz = p->nmapoff;
        cur.nmap = cur.value + p->nmapoff;
        cur.row = cur.offset = 0;
    }
}

// Returns the length of the varying value at the cursor with all that belongs to it, or -1 when it leaves the
// page.
int64_t varying_size(const cursor_t& cur) {
    const int64_t left = cur.valuesz - cur.offset;
    const char* at = cur.value + cur.offset;
    if (cur.storage == CVN_TYP_BYTEA) {
        int32_t len;
        if (left < static_cast<int64_t>(sizeof(len))) return -1;
        memcpy(&len, at, sizeof(len));
        if (len < 0 || len > left - static_cast<int64_t>(sizeof(len))) return -1;
        return static_cast<int64_t>(sizeof(len)) + len;
    }
    const void* nul = left > 0 ? memchr(at, 0, static_cast<size_t>(left)) : nullptr;
    return nul ? static_cast<const char*>(nul) - at + 1 : -1;
}

// Sets `*ret` to the value of row `row`, at or behind the cursor. Returns false when the page ends before it.
bool value_at(cvn_datum_t* ret, bool* ret_null, cursor_t* cur, int64_t row) {
    memset(ret, 0, sizeof(*ret));
    *ret_null = (static_cast<unsigned char>(cur->nmap[row / 8]) & (0x80 >> (row % 8))) != 0;
    if (cur->width > 0) {
        const char* at = cur->value + row * cur->width;
        if (cur->storage == CVN_TYP_BOOL)
            ret->b = *at != 0;
        else
            memcpy(ret, at, static_cast<size_t>(cur->width));
        return true;
    }
    for (;; ++cur->row) {
        const int64_t size = varying_size(*cur);
        if (size < 0) return false;
        if (cur->row == row) {
            const char* at = cur->value + cur->offset;
            if (cur->storage == CVN_TYP_BYTEA) {
                ret->a.len = static_cast<int32_t>(size - static_cast<int64_t>(sizeof(int32_t)));
                ret->a.ptr = at + sizeof(int32_t);
            } else {
                ret->t = at;
            }
            return true;
        }
        cur->offset += size;
    }
}

[[noreturn]] void fail_write(const std::string& tmpdir, int code, int err) {
    if (code == -2) throw sample_error("out of memory");
    throw sample_error("cannot write the sample in '" + tmpdir +
                       "': " + (code == -3 ? strerror(err) : "code " + std::to_string(code)));
}

// Appends the chosen rows of one file.
void sample_file(cvn_t* w, row_choice_t* choice, const source_t& source, const std::vector<column_t>& column,
                 const std::string& path, const std::string& tmpdir) {
    const scan_ptr_t scan = open_scan(path);
    cvn_scan_t* sc = scan.get();
    if (sc->schema_hash != source.hash || count_rows(sc, path) != source.nrow ||
        columns_of(sc, path).size() != column.size())
        fail(path, "changed while it was being sampled: try again");
    for (const column_t& c : column)
        if (cvn_scan_add_required(sc, c.name.c_str()))
            fail(path, "has more than one column '" + c.name + "'");
    schema_desc_t schema;
    memcpy(&schema, sc->schema, sizeof(schema));
    std::vector<uint32_t> rows;
    std::vector<cursor_t> cursor(column.size());
    std::vector<cvn_datum_t> datum(column.size());
    const auto isnull = std::make_unique<bool[]>(column.size());
    for (int64_t rg = 0; rg < schema.nrowgroup; ++rg) {
        const int64_t nrow = cvn_scan_get_rowgroup_size(sc, rg);
        choice->take(static_cast<uint32_t>(nrow), &rows);
        if (rows.empty()) continue;
        read_rowgroup(&cursor, sc, rg, nrow, column, path);
        for (const uint32_t row : rows) {
            for (size_t c = 0; c < column.size(); ++c)
                if (!value_at(&datum[c], &isnull[c], &cursor[c], row))
                    fail(path, "damaged: row group " + std::to_string(rg) + ", column '" + column[c].name +
                                   "': the values leave the page");
            if (const int e = cvn_append(w, static_cast<int>(column.size()), datum.data(), isnull.get()))
                fail_write(tmpdir, e, w->os_errno);
        }
    }
}

// Copies all of `from` to `out`.
void copy_out(int out, int from) {
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

}  // namespace

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
                      const std::string& tmpdir) {
    if (files.empty()) throw sample_error("no data files, so there is no schema to write");
    std::vector<source_t> source;
    std::vector<column_t> column;
    int64_t total = 0;
    for (const std::string& path : files) {
        const scan_ptr_t scan = open_scan(path);
        std::vector<column_t> here = columns_of(scan.get(), path);
        if (source.empty())
            column = std::move(here);
        else
            compare(column, here, files[0], path);
        source.push_back({count_rows(scan.get(), path), scan->schema_hash});
        if (__builtin_add_overflow(total, source.back().nrow, &total)) fail(path, "too many rows altogether");
    }

    cvn_t* created = nullptr;
    const fd_t tmp(create_temp(&created, tmpdir));
    writer_t writer(created);
    for (const column_t& c : column) {
        if (const int code = cvn_create_column(writer.get(), c.name.c_str(), c.typ, c.zflag, c.nflag)) {
            (void)writer.release();  // gone with the failure
            fail_write(tmpdir, code, errno);
        }
    }
    row_choice_t choice(seed, nrow, static_cast<uint64_t>(total));
    const uint64_t chosen = choice.left();
    for (size_t i = 0; i < files.size() && choice.left() > 0; ++i) {
        if (source[i].nrow > 0) sample_file(writer.get(), &choice, source[i], column, files[i], tmpdir);
    }
    if (const int code = cvn_close(writer.release())) fail_write(tmpdir, code, errno);
    copy_out(out, tmp.get());
    return chosen;
}
