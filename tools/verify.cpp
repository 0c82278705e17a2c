// cvn verify: everything that a data file claims, proved against its bytes. The footer is read and walked
// here, without the library, so that each fault has a name of its own; pages are then fetched through the
// library, because what matters is whether a reader gets them. All faults are reported, up to a bound, and a
// fault in one chunk does not hide those behind it.
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <set>

#include "rows/value.h"
#include "tools/commands.h"
#include "tools/progress.h"
#include "tools/rows.h"
#include "tools/schema.h"
#include "tools/source.h"
#include "tools/tool.h"

namespace {

constexpr int64_t MAX_FAULTS = 100;  // printed for one file; the rest is counted
constexpr size_t HASH_BLOCKSZ =
    1 << 20;  // stored bytes are hashed in blocks, whatever a chunk claims to be long
constexpr int64_t HEADSZ = 8;

struct fd_t {
    int fd = -1;
    int64_t size = 0;
    fd_t() = default;
    fd_t(const fd_t&) = delete;
    fd_t& operator=(const fd_t&) = delete;
    ~fd_t() {
        if (fd >= 0) close(fd);
    }
};

struct verify_t {
    std::string path;
    bool split = false;
    int64_t nfault = 0;
    tool_out_t* out = nullptr;

    fd_t data;  // the data file or meta.cvnx
    std::vector<fd_t> split_file;
    std::vector<char> footer;
    schema_desc_t schema = {};
    std::vector<cvn_coldef_t> coldef;
    uint32_t footer_hash = 0;
    int64_t footer_offset = 0;
    int64_t nbyte = 0;  // stored bytes looked at

    void fault(const std::string& what) {
        if (++nfault <= MAX_FAULTS) out->buf += fmt::format("{}: {}\n", path, what);
        tool_out_spill(out);
    }
};

// Names one chunk.
std::string chunk_name(const verify_t& v, int64_t rg, int c) {
    return fmt::format("row group {}, column {}", rg, tool_quote(schema_name(v.coldef[size_t(c)])));
}

// Throws tool_error without the path. Opening a pipe waits for its writer, so it is not even tried.
void open_fd(fd_t* file, const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw tool_error(tool_strerror(errno));
    if (!S_ISREG(st.st_mode)) throw tool_error("is not a regular file");
    file->fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file->fd < 0 || fstat(file->fd, &st) != 0) throw tool_error(tool_strerror(errno));
    file->size = st.st_size;
}

// Why read_at failed.
std::string read_fault() {
    return errno != 0 ? tool_strerror(errno) : "the file has become shorter meanwhile";
}

// Reads exactly `nb` bytes; the caller has compared them with the file's size. Sets errno, to 0 at the end.
bool read_at(const fd_t& file, void* to, size_t nb, int64_t offset) {
    for (size_t done = 0; done < nb;) {
        const ssize_t n = pread(file.fd, static_cast<char*>(to) + done, nb - done, offset + int64_t(done));
        if (n < 0 && errno == EINTR) {
            tool_check_signals();
            continue;
        }
        if (n == 0) errno = 0;
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

// The XXH32 of `nb` stored bytes.
bool hash_at(const fd_t& file, int64_t offset, int64_t nb, uint32_t* ret) {
    static std::vector<char> buf(HASH_BLOCKSZ);  // one for all chunks
    XXH32_state_t* const state = XXH32_createState();
    if (!state) throw std::bad_alloc();
    (void)XXH32_reset(state, 0);  // both fail only for a null state
    bool good = true;
    while (nb > 0 && good) {
        const auto part = size_t(std::min<int64_t>(nb, HASH_BLOCKSZ));
        good = read_at(file, buf.data(), part, offset);
        if (good) (void)XXH32_update(state, buf.data(), part);
        offset += int64_t(part);
        nb -= int64_t(part);
    }
    *ret = XXH32_digest(state);
    XXH32_freeState(state);
    return good;
}

// Copies a record out of the footer, whose geometry is proved.
template <typename T>
T record_at(const verify_t& v, size_t at) {
    T record;
    memcpy(&record, v.footer.data() + at, sizeof(T));
    return record;
}

size_t colstat_at(const verify_t& v, int c) {
    return sizeof(schema_desc_t) + size_t(v.schema.ncol) * sizeof(cvn_coldef_t) +
           size_t(c) * sizeof(colstat_t);
}

size_t rowgroup_at(const verify_t& v, int64_t rg) {
    const size_t recordsz = CVN_ROWGROUP_HEADSZ + size_t(v.schema.ncol) * sizeof(colmeta_t);
    return colstat_at(v, v.schema.ncol) + size_t(rg) * recordsz;
}

colmeta_t colmeta_at(const verify_t& v, int64_t rg, int c) {
    return record_at<colmeta_t>(v, rowgroup_at(v, rg) + CVN_ROWGROUP_HEADSZ + size_t(c) * sizeof(colmeta_t));
}

// Head, trailer and the footer's geometry. Returns false when there is nothing to go on with.
bool check_frame(verify_t* v) {
    const int64_t size = v->data.size;
    char head[HEADSZ], tail[CVN_TRAILER_SZ];
    if (size < HEADSZ + CVN_TRAILER_SZ) {
        v->fault(fmt::format("is only {} bytes long; head and trailer alone take {}", size,
                             HEADSZ + CVN_TRAILER_SZ));
        return false;
    }
    if (!read_at(v->data, head, sizeof(head), 0) ||
        !read_at(v->data, tail, sizeof(tail), size - CVN_TRAILER_SZ)) {
        v->fault("cannot be read: " + read_fault());
        return false;
    }
    if (memcmp(head, CVN_HEAD_MAGIC, sizeof(head)) != 0) v->fault("the head magic is not " CVN_HEAD_MAGIC);
    if (memcmp(tail + 12, CVN_TAIL_MAGIC, 4) != 0) {
        v->fault("the trailer magic is not " CVN_TAIL_MAGIC "; the file was cut or never completed");
        return false;
    }
    int64_t footersz;
    memcpy(&footersz, tail, sizeof(footersz));
    memcpy(&v->footer_hash, tail + 8, sizeof(v->footer_hash));
    if (footersz < int64_t(sizeof(schema_desc_t)) || footersz > size - CVN_TRAILER_SZ - HEADSZ) {
        v->fault(fmt::format("the footer's size {} does not fit the file of {} bytes", footersz, size));
        return false;
    }
    v->footer_offset = size - CVN_TRAILER_SZ - footersz;
    v->footer.resize(size_t(footersz));
    if (!read_at(v->data, v->footer.data(), v->footer.size(), v->footer_offset)) {
        v->fault("the footer cannot be read: " + read_fault());
        return false;
    }
    if (!v->split && XXH32(v->footer.data(), v->footer.size(), 0) != v->footer_hash)
        v->fault(fmt::format("the footer's hash is {:08x}, the trailer says {:08x}",
                             XXH32(v->footer.data(), v->footer.size(), 0), v->footer_hash));

    const schema_desc_t schema = record_at<schema_desc_t>(*v, 0);
    v->schema = schema;
    if (schema.version != 1) {
        v->fault(fmt::format("the footer's version is {}, not 1", schema.version));
        return false;
    }
    if (schema.ncol < 0 || schema.nrowgroup < 0 || schema.nrow < 0) {
        v->fault(fmt::format("a count in the footer is negative ({} columns, {} rows, {} row groups)",
                             schema.ncol, schema.nrow, schema.nrowgroup));
        return false;
    }
    // 128 bits hold any product of these.
    const cvn_int128_t coldefsz = cvn_int128_t(schema.ncol) * sizeof(cvn_coldef_t);
    const cvn_int128_t colstatsz = cvn_int128_t(schema.ncol) * sizeof(colstat_t);
    const cvn_int128_t rowgroupsz = cvn_int128_t(schema.nrowgroup) *
                                    (CVN_ROWGROUP_HEADSZ + cvn_int128_t(schema.ncol) * sizeof(colmeta_t));
    if (schema.coldefsz != coldefsz || schema.colstatsz != colstatsz ||
        cvn_int128_t(sizeof(schema_desc_t)) + coldefsz + colstatsz + rowgroupsz != footersz) {
        v->fault(fmt::format(
            "the footer's sizes do not add up: {} columns and {} row groups in {} bytes (definitions {}, "
            "statistics {})",
            schema.ncol, schema.nrowgroup, footersz, schema.coldefsz, schema.colstatsz));
        return false;
    }
    if (schema.rowgroupsz != rowgroupsz)
        v->fault(fmt::format("the footer says its row groups take {} bytes, they take {}", schema.rowgroupsz,
                             int64_t(rowgroupsz)));
    return true;
}

void check_columns(verify_t* v) {
    std::set<std::string> names;
    for (int c = 0; c < v->schema.ncol; ++c) {
        const auto col =
            record_at<cvn_coldef_t>(*v, sizeof(schema_desc_t) + size_t(c) * sizeof(cvn_coldef_t));
        v->coldef.push_back(col);
        const std::string name = schema_name(col);
        const std::string what = fmt::format("column {} {}", c, tool_quote(name));
        if (name.empty()) v->fault(what + ": its name is empty");
        if (name.size() == CVN_NAME_SZ)
            v->fault(what + ": its name has no NUL");
        else
            for (size_t i = name.size(); i < CVN_NAME_SZ; ++i)
                if (col.name[i] != 0) {
                    v->fault(what + ": bytes follow the NUL of its name");
                    break;
                }
        if (!names.insert(name).second)
            v->fault(what + ": another column has the same name; only the first can be read by it");
        if (strcmp(cvn_typ_str(col.typ), "unknown") == 0)
            v->fault(fmt::format("{}: its type {} is unknown", what, col.typ));
        if (col.zflag > 1 || col.nflag > 1) v->fault(what + ": a flag is neither 0 nor 1");
        if (col.padding[0] != 0 || col.padding[1] != 0)
            v->fault(what + ": the padding of its definition is not zero");
    }
}

// The smallest and largest value, kept as the writer keeps them: the first of equal ones, and an order in
// which NaN displaces nothing.
struct minmax_t {
    bool any = false;
    cvn_datum_t min, max;
};

// Compares as the statistics do: NaN is equal to everything.
int stat_cmp(const cvn_datum_t& a, const cvn_datum_t& b, cvn_typ_t typ) {
    switch (typ & 0xffff) {
        case CVN_TYP_BOOL: {
            const auto x = static_cast<signed char>(a.raw[0]), y = static_cast<signed char>(b.raw[0]);
            return x < y ? -1 : x > y ? 1 : 0;
        }
        case CVN_TYP_DEC64: return cvn_dec64_cmp(a.dec64, b.dec64);
        case CVN_TYP_DEC128: return cvn_dec128_cmp(a.dec128, b.dec128);
        default: {
            const int order = rows::value_cmp(a, b, typ);
            return order == 2 ? 0 : order;
        }
    }
}

void minmax_add(minmax_t* m, const cvn_datum_t& datum, cvn_typ_t typ) {
    if (!m->any) {
        m->min = m->max = datum;
        m->any = true;
    } else if (stat_cmp(datum, m->min, typ) < 0) {
        m->min = datum;
    } else if (stat_cmp(datum, m->max, typ) > 0) {
        m->max = datum;
    }
}

// A value as statistics store it: the first bytes hold it, the others are zero.
cvn_datum_t stat_image(const cvn_datum_t& datum, cvn_typ_t typ) {
    cvn_datum_t image;
    memset(&image, 0, sizeof(image));
    if ((typ & 0xffff) == CVN_TYP_CSTR)
        memcpy(image.raw, datum.t, strnlen(datum.t, sizeof(image.raw)));
    else
        memcpy(&image, &datum, size_t(cvn_typlen(typ)));
    return image;
}

bool same_image(const cvn_datum_t& a, const cvn_datum_t& b) { return memcmp(&a, &b, sizeof(a)) == 0; }

// A stored image, for a message.
std::string image_text(const cvn_datum_t& image, cvn_typ_t typ) {
    std::string text;
    if ((typ & 0xffff) == CVN_TYP_CSTR)
        text.assign(image.raw, strnlen(image.raw, sizeof(image.raw)));
    else
        rows::value_append_text(&text, image, typ);
    return tool_quote(text);
}

// A NULL's bytes: zero, but for the decimals, whose zero has an exponent.
bool is_null_value(const rows_column_t& col, int64_t row) {
    static const struct zeros_t {
        decDouble d;
        decQuad q;
        zeros_t() {
            (void)cvn_dec64_from_string(&d, "0");  // exact
            (void)cvn_dec128_from_string(&q, "0");
        }
    } zeros;
    switch (col.typ & 0xffff) {
        case CVN_TYP_DEC64: return memcmp(col.value + row * 8, &zeros.d, 8) == 0;
        case CVN_TYP_DEC128: return memcmp(col.value + row * 16, &zeros.q, 16) == 0;
        default: break;
    }
    cvn_datum_t datum;
    memset(&datum, 0, sizeof(datum));
    rows_datum(col, row, &datum);
    if (col.width == -2) return *datum.t == 0;
    if (col.width == -1) return datum.a.len == 0;
    for (int i = 0; i < col.width; ++i)
        if (datum.raw[i] != 0) return false;
    return true;
}

// The values of one chunk against its record.
void check_values(verify_t* v, const std::string& what, const colmeta_t& m, const cvn_coldef_t& coldef,
                  const char* body) {
    rows_column_t col;
    if (const char* why = rows_decode(&col, coldef.typ, m.nrow, body, m.nbyte, m.nmapoff)) {
        v->fault(fmt::format("{}: {}", what, why));
        return;
    }
    if (m.nrow % 8 != 0 && (col.nmap[m.nrow / 8] & (0xff >> (m.nrow % 8))) != 0)
        v->fault(what + ": unused bits of the null bitmap are set");
    int64_t nnull = 0, dirty = -1, odd = -1;
    minmax_t minmax;
    const bool keeps = coldef.nflag == 0 && col.width != -1;
    for (int64_t row = 0; row < m.nrow; ++row) {
        if (rows_isnull(col, row)) {
            ++nnull;
            if (dirty < 0 && !is_null_value(col, row)) dirty = row;
            continue;
        }
        cvn_datum_t datum;
        memset(&datum, 0, sizeof(datum));
        rows_datum(col, row, &datum);
        if (odd < 0 && (coldef.typ & 0xffff) == CVN_TYP_BOOL && static_cast<unsigned char>(datum.raw[0]) > 1)
            odd = row;
        if (keeps) minmax_add(&minmax, datum, coldef.typ);
    }
    if (nnull != m.nnull)
        v->fault(fmt::format("{}: the null bitmap holds {} NULLs, the record says {}", what, nnull, m.nnull));
    if (dirty >= 0) v->fault(fmt::format("{}: the NULL in row {} has a value beneath it", what, dirty));
    if (odd >= 0) v->fault(fmt::format("{}: the bool in row {} is neither 0 nor 1", what, odd));
    if (m.hasminmax != (minmax.any ? 1 : 0)) {
        v->fault(fmt::format("{}: the record {} a minimum and maximum, the values {}", what,
                             m.hasminmax ? "has" : "lacks", minmax.any ? "have one" : "have none"));
        return;
    }
    if (!minmax.any) return;
    const cvn_datum_t min = stat_image(minmax.min, coldef.typ), max = stat_image(minmax.max, coldef.typ);
    if (!same_image(min, m.minval))
        v->fault(fmt::format("{}: the smallest value is {}, the record says {}", what,
                             image_text(min, coldef.typ), image_text(m.minval, coldef.typ)));
    if (!same_image(max, m.maxval))
        v->fault(fmt::format("{}: the largest value is {}, the record says {}", what,
                             image_text(max, coldef.typ), image_text(m.maxval, coldef.typ)));
}

// One chunk. `*end` is where the chunk before it ended (with its padding), in its file.
void check_chunk(verify_t* v, cvn_scan_t* scan, int64_t rg, int c, int k, int64_t* end, int32_t nrow) {
    const colmeta_t m = colmeta_at(*v, rg, c);
    const cvn_coldef_t& coldef = v->coldef[size_t(c)];
    const std::string what = chunk_name(*v, rg, c);
    const fd_t& file = v->split ? v->split_file[size_t(c)] : v->data;
    const int64_t limit = v->split ? file.size : v->footer_offset;
    if (m.nrow != nrow) v->fault(fmt::format("{}: it has {} rows, its row group {}", what, m.nrow, nrow));
    if (m.nnull < 0 || m.nnull > m.nrow)
        v->fault(fmt::format("{}: {} NULLs among {} rows", what, m.nnull, m.nrow));
    if (m.nbyte < 0 || m.zbyte < 0 || m.zbyte > m.nbyte) {
        v->fault(fmt::format("{}: its sizes ({} stored of {} raw) are impossible", what, m.zbyte, m.nbyte));
        return;
    }
    if (m.zflag != (m.zbyte < m.nbyte ? 1 : 0))
        v->fault(fmt::format("{}: its compression flag is {}, with {} stored of {} raw bytes", what,
                             int(m.zflag), m.zbyte, m.nbyte));
    if (uint8_t(m.nflag) != coldef.nflag) v->fault(what + ": its -n flag differs from its column's");
    if (m.unused1 != 0 || m.unused2 != 0 || m.unused3 != 0)
        v->fault(what + ": unused bytes of its record are not zero");
    if (m.hasminmax != 0 && m.hasminmax != 1) v->fault(what + ": hasminmax is neither 0 nor 1");
    if (m.hasminmax == 0) {
        cvn_datum_t zero;
        memset(&zero, 0, sizeof(zero));
        if (!same_image(m.minval, zero) || !same_image(m.maxval, zero))
            v->fault(what + ": a minimum or maximum stands in its record without being valid");
    }
    if (m.file_offset < 0 || m.file_offset > limit || m.zbyte > limit - m.file_offset) {
        v->fault(fmt::format("{}: its {} bytes at offset {} lie outside the file ({} bytes for chunks)", what,
                             m.zbyte, m.file_offset, limit));
        return;
    }
    if (!v->split && m.file_offset % 8 != 0)
        v->fault(fmt::format("{}: its offset {} is no multiple of 8", what, m.file_offset));
    if (m.file_offset != *end)
        v->fault(fmt::format("{}: it begins at offset {}, where {} was due ({})", what, m.file_offset, *end,
                             m.file_offset < *end ? "it overlaps the chunk before it" : "there is a gap"));
    *end = m.file_offset + m.zbyte;
    if (!v->split) {
        char pad[8] = {};
        const auto npad = size_t(-*end & 7);
        if (int64_t(npad) > limit - *end)
            v->fault(what + ": its padding is missing");
        else if (npad > 0 && (!read_at(file, pad, npad, *end) ||
                              std::any_of(pad, pad + npad, [](char b) { return b != 0; })))
            v->fault(what + ": its padding is not zero");
        *end += int64_t(npad);
    }
    v->nbyte += m.zbyte;
    uint32_t hash;
    if (!hash_at(file, m.file_offset, m.zbyte, &hash)) {
        v->fault(fmt::format("{}: it cannot be read: {}", what, read_fault()));
        return;
    }
    if (hash != uint32_t(m.hash))
        v->fault(fmt::format("{}: its hash is {:08x}, the record says {:08x}; its bytes were changed", what,
                             hash, uint32_t(m.hash)));
    if (!scan || k < 0) return;
    cvn_page_t* page = nullptr;
    errno = 0;
    const int code = cvn_scan_page(scan, rg, k, &page, true);
    if (code == -6) return v->fault(fmt::format("{}: it does not decompress to {} bytes", what, m.nbyte));
    if (code == -2) throw std::bad_alloc();
    if (code != 0) return v->fault(fmt::format("{}: the library cannot read it ({})", what, code));
    check_values(v, what, m, coldef, page->buf);
}

// The file's statistics of one column, made from the records of its chunks.
void check_colstat(verify_t* v, int c) {
    const cvn_typ_t typ = v->coldef[size_t(c)].typ;
    const auto stat = record_at<colstat_t>(*v, colstat_at(*v, c));
    const std::string what = fmt::format("column {}", tool_quote(schema_name(v->coldef[size_t(c)])));
    int64_t nnull = 0;
    bool any = false;
    cvn_datum_t min, max;
    memset(&min, 0, sizeof(min));
    memset(&max, 0, sizeof(max));
    const auto cmp = [typ](const cvn_datum_t& a, const cvn_datum_t& b) {
        if ((typ & 0xffff) == CVN_TYP_CSTR) return strncmp(a.raw, b.raw, sizeof(a.raw));
        return stat_cmp(a, b, typ);
    };
    for (int64_t rg = 0; rg < v->schema.nrowgroup; ++rg) {
        const colmeta_t m = colmeta_at(*v, rg, c);
        nnull += m.nnull;
        if (!m.hasminmax || (typ & 0xffff) == CVN_TYP_BYTEA) continue;
        if (!any || cmp(m.minval, min) < 0) min = m.minval;
        if (!any || cmp(m.maxval, max) > 0) max = m.maxval;
        any = true;
    }
    if (stat.nnull != nnull)
        v->fault(fmt::format("{}: its chunks hold {} NULLs, the file's statistics say {}", what, nnull,
                             stat.nnull));
    if (stat.hasminmax != (any ? 1 : 0))
        v->fault(fmt::format("{}: the file's statistics {} a minimum and maximum, its chunks {}", what,
                             stat.hasminmax ? "have" : "lack", any ? "have them" : "do not"));
    else if (!same_image(stat.minval, min) || !same_image(stat.maxval, max))
        v->fault(any ? fmt::format("{}: its chunks range from {} to {}, the file's statistics say {} to {}",
                                   what, image_text(min, typ), image_text(max, typ),
                                   image_text(stat.minval, typ), image_text(stat.maxval, typ))
                     : what + ": a minimum or maximum stands in the file's statistics without being valid");
    if (stat.unused1 != 0 || stat.unused2 != 0 || stat.unused3 != 0 || stat.unused4 != 0)
        v->fault(what + ": unused bytes of its statistics are not zero");
}

// A split keeps the hash of the file that it was made from, whose offsets follow from the sizes of the
// chunks.
void check_split_hash(verify_t* v) {
    std::vector<char> footer = v->footer;
    int64_t offset = HEADSZ;
    for (int64_t rg = 0; rg < v->schema.nrowgroup; ++rg)
        for (int c = 0; c < v->schema.ncol; ++c) {
            const size_t at = rowgroup_at(*v, rg) + CVN_ROWGROUP_HEADSZ + size_t(c) * sizeof(colmeta_t);
            memcpy(footer.data() + at, &offset, sizeof(offset));
            const int64_t zbyte = colmeta_at(*v, rg, c).zbyte;
            if (zbyte < 0) return;  // reported with its chunk
            offset += (zbyte + 7) & ~int64_t(7);
        }
    const uint32_t hash = XXH32(footer.data(), footer.size(), 0);
    if (hash != v->footer_hash)
        v->fault(
            fmt::format("the footer's hash with the offsets of the file that was split is {:08x}, the "
                        "trailer says {:08x}",
                        hash, v->footer_hash));
}

// The columns that the library can fetch: one page index each, -1 where there is none.
std::vector<int> require_columns(verify_t* v, cvn_scan_t* scan) {
    std::vector<int> index;
    int next = 0;
    std::set<std::string> names;
    for (int c = 0; c < v->schema.ncol; ++c) {
        const cvn_coldef_t& col = v->coldef[size_t(c)];
        const bool first = names.insert(schema_name(col)).second;
        if (first && strnlen(col.name, CVN_NAME_SZ) < CVN_NAME_SZ &&
            cvn_scan_add_required(scan, col.name) == 0)
            index.push_back(next++);
        else
            index.push_back(-1);
    }
    return index;
}

void check_chunks(verify_t* v, cvn_scan_t* scan, const std::vector<int>& page_index, progress_t* progress) {
    int64_t nrow = 0, end = HEADSZ;
    std::vector<int64_t> split_end(size_t(v->schema.ncol), 0);
    for (int64_t rg = 0; rg < v->schema.nrowgroup; ++rg) {
        struct {
            int32_t nbyte, nrow, ncol, unused;
        } head;
        static_assert(sizeof(head) == CVN_ROWGROUP_HEADSZ);
        memcpy(&head, v->footer.data() + rowgroup_at(*v, rg), sizeof(head));
        if (head.ncol != v->schema.ncol)
            v->fault(fmt::format("row group {}: it says {} columns, the file has {}", rg, head.ncol,
                                 v->schema.ncol));
        if (head.nrow < 1 || head.nrow > CVN_MAX_ROWGROUP_NROW)
            v->fault(fmt::format("row group {}: {} rows, where 1 to {} can be", rg, head.nrow,
                                 CVN_MAX_ROWGROUP_NROW));
        if (head.unused != 0)
            v->fault(fmt::format("row group {}: unused bytes of its record are not zero", rg));
        nrow += head.nrow;
        int64_t size = 0;
        for (int c = 0; c < v->schema.ncol; ++c) {
            tool_check_signals();
            check_chunk(v, scan, rg, c, page_index[size_t(c)], v->split ? &split_end[size_t(c)] : &end,
                        head.nrow);
            size += (int64_t(colmeta_at(*v, rg, c).zbyte) + 7) & ~int64_t(7);
            progress_update(progress, v->nbyte, rg);
        }
        if (size != head.nbyte)
            v->fault(fmt::format("row group {}: its chunks take {} bytes, its record says {}", rg, size,
                                 head.nbyte));
    }
    if (nrow != v->schema.nrow)
        v->fault(fmt::format("the row groups hold {} rows, the footer says {}", nrow, v->schema.nrow));
    if (!v->split && end != v->footer_offset)
        v->fault(fmt::format("the chunks end at offset {}, the footer begins at {}", end, v->footer_offset));
    for (int c = 0; v->split && c < v->schema.ncol; ++c)
        if (split_end[size_t(c)] != v->split_file[size_t(c)].size)
            v->fault(fmt::format("{}.cvnx: its pages take {} bytes, the file has {}", c, split_end[size_t(c)],
                                 v->split_file[size_t(c)].size));
}

}  // namespace

int64_t verify_file(const std::string& path, tool_out_t* out, int64_t* ret_nrow) {
    verify_t v;
    v.path = path;
    v.out = out;
    struct stat st;
    v.split = stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    try {
        open_fd(&v.data, v.split ? path + "/meta.cvnx" : path);
    } catch (const tool_error& error) {
        throw tool_error(path + ": " + error.what());
    }
    progress_t progress;
    if (check_frame(&v)) {
        check_columns(&v);
        int64_t total = v.split ? 0 : v.footer_offset;
        bool pages = true;
        if (v.split) {
            check_split_hash(&v);
            tool_allow_files(2 * int64_t(v.schema.ncol));  // here and in the library
            v.split_file = std::vector<fd_t>(size_t(v.schema.ncol));
            for (int c = 0; c < v.schema.ncol; ++c) {
                const std::string name = fmt::format("{}/{}.cvnx", path, c);
                try {
                    open_fd(&v.split_file[size_t(c)], name);
                } catch (const tool_error& error) {
                    v.fault(fmt::format("{}.cvnx: {}", c, error.what()));
                    pages = false;
                }
                total += v.split_file[size_t(c)].size;
            }
        }
        progress_begin(&progress, total, "row groups");
        cvn_scan_t* scan = nullptr;
        const int code = cvn_scan_open(&scan, path.c_str());
        if (code != 0) {
            v.fault(fmt::format("the library refuses to open it ({})", code));
        } else {
            const struct closer_t {
                cvn_scan_t* scan;
                ~closer_t() { (void)cvn_scan_close(scan); }  // always 0
            } closer = {scan};
            const std::vector<int> page_index = require_columns(&v, scan);
            if (pages) check_chunks(&v, scan, page_index, &progress);
            for (int c = 0; c < v.schema.ncol; ++c) check_colstat(&v, c);
        }
    }
    progress_end(&progress);
    if (v.nfault > MAX_FAULTS)
        out->buf += fmt::format("{}: and {} more faults\n", path, v.nfault - MAX_FAULTS);
    if (v.nfault == 0)
        out->buf +=
            fmt::format("{}: good: {}, {}, {}, {} stored\n", path, tool_counted(v.schema.nrow, "row", "rows"),
                        tool_counted(v.schema.nrowgroup, "row group", "row groups"),
                        tool_counted(v.schema.ncol, "column", "columns"), tool_bytes(double(v.nbyte)));
    *ret_nrow = tool_add(*ret_nrow, v.schema.nrow);
    return v.nfault;
}

namespace {

int verify_run(const std::string& path) {
    const rows::file_list_t source = source_find(path);
    const auto nfile = int64_t(source.path.size());
    tool_out_t out;
    out.optional = true;  // the status is what scripts ask for
    int64_t nbad = 0, nunread = 0, nrow = 0;
    for (const std::string& file : source.path) {
        try {
            nbad += verify_file(file, &out, &nrow) > 0;
        } catch (const tool_error& error) {
            if (!source.many) throw;
            out.buf += std::string(error.what()) + "\n";
            ++nunread;
        }
        tool_out_flush(&out);
    }
    const bool good = nbad == 0 && nunread == 0;
    if (source.many && good)
        out.buf += fmt::format("{}: {}, all good, {}\n", path, tool_counted(nfile, "file", "files"),
                               tool_counted(nrow, "row", "rows"));
    else if (source.many)
        out.buf += fmt::format("{}: {} of {} are damaged{}\n", path, tool_count(nbad),
                               tool_counted(nfile, "file", "files"),
                               nunread > 0 ? fmt::format(", {} cannot be read", tool_count(nunread)) : "");
    tool_out_flush(&out);
    return good ? 0 : 1;
}

}  // namespace

void verify_register(CLI::App* app, int* ret) {
    auto path = std::make_shared<std::string>();
    CLI::App* const sub = app->add_subcommand(
        "verify",
        "Prove every claim of a data file, a split directory, or each file of a directory.\n"
        "\n"
        "Checked are the magics, all sizes and offsets, the hash of the footer and of every chunk, that each "
        "chunk\n"
        "decompresses to its size, its values and null bitmap, and every count, minimum and maximum. Each "
        "fault is one\n"
        "line that names the row group and the column. The exit status is 1 when there is one.\n"
        "\n"
        "Example:\n"
        "  cvn verify orders.cvn && cp orders.cvn backup/");
    sub->add_option("PATH", *path, "The data file or directory")->required();
    sub->callback([path, ret] { *ret = verify_run(*path); });
}
