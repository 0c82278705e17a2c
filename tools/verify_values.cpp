// The chunks of a data file: what their records say of their place, size and hash, and what of their values.
#include <errno.h>
#include <fmt/format.h>
#include <string.h>

#include <algorithm>
#include <set>

#include "rows/value.h"
#include "tools/schema.h"
#include "tools/verify.h"
#include "tools/verify_page.h"

// Names one chunk.
static std::string chunk_name(const verify_t& v, int64_t rg, int c) {
    return fmt::format("row group {}, column {}", rg, tool_quote(schema_name(v.coldef[c])));
}

namespace {

// The smallest and largest value, kept as the writer keeps them: the first of equal ones, and an order in
// which NaN displaces nothing.
struct minmax_t {
    bool any = false;
    cvn_datum_t min, max;
};

}  // namespace

int verify_stat_cmp(const cvn_datum_t& a, const cvn_datum_t& b, cvn_typ_t typ) {
    switch (cvn_storage(typ)) {
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

// NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): all bytes of an image count
bool verify_same_image(const cvn_datum_t& a, const cvn_datum_t& b) { return memcmp(&a, &b, sizeof(a)) == 0; }

std::string verify_image_text(const cvn_datum_t& image, cvn_typ_t typ) {
    std::string text;
    if (cvn_storage(typ) == CVN_TYP_CSTR)
        text.assign(image.raw, strnlen(image.raw, sizeof(image.raw)));
    else
        rows::value_append_text(&text, image, typ);
    return tool_quote(text);
}

static void minmax_add(minmax_t* m, const cvn_datum_t& datum, cvn_typ_t typ) {
    if (!m->any) {
        m->min = m->max = datum;
        m->any = true;
    } else if (verify_stat_cmp(datum, m->min, typ) < 0) {
        m->min = datum;
    } else if (verify_stat_cmp(datum, m->max, typ) > 0) {
        m->max = datum;
    }
}

// A value as statistics store it: the first bytes hold it, the others are zero.
static cvn_datum_t stat_image(const cvn_datum_t& datum, cvn_typ_t typ) {
    cvn_datum_t image;
    memset(&image, 0, sizeof(image));
    if (cvn_storage(typ) == CVN_TYP_CSTR)
        memcpy(image.raw, datum.t, strnlen(datum.t, sizeof(image.raw)));
    else
        memcpy(&image, &datum, static_cast<size_t>(cvn_typlen(typ)));
    return image;
}

// A NULL's bytes: zero, but for the decimals, whose zero has an exponent.
static bool is_null_value(const verify_page_t& col, int64_t row) {
    static const struct zeros_t {
        decDouble d;
        decQuad q;
        zeros_t() {
            (void)cvn_dec64_from_string(&d, "0");  // exact
            (void)cvn_dec128_from_string(&q, "0");
        }
    } zeros;
    switch (cvn_storage(col.typ)) {
        case CVN_TYP_DEC64: return memcmp(col.value + row * 8, &zeros.d, 8) == 0;
        case CVN_TYP_DEC128: return memcmp(col.value + row * 16, &zeros.q, 16) == 0;
        default: break;
    }
    cvn_datum_t datum;
    memset(&datum, 0, sizeof(datum));
    verify_page_datum(col, row, &datum);
    if (col.width == -2) return *datum.t == 0;
    if (col.width == -1) return datum.a.len == 0;
    for (int i = 0; i < col.width; i++)
        if (datum.raw[i] != 0) return false;
    return true;
}

// The values of one chunk against its record.
static void check_values(verify_t* v, const std::string& what, const colmeta_t& m, const cvn_coldef_t& coldef,
                         const char* body) {
    verify_page_t col;
    if (const char* why = verify_page_decode(&col, coldef.typ, m.nrow, body, m.nbyte, m.nmapoff)) {
        v->fault(fmt::format("{}: {}", what, why));
        return;
    }
    if (m.nrow % 8 != 0 && (col.nmap[m.nrow / 8] & (0xff >> (m.nrow % 8))) != 0)
        v->fault(what + ": unused bits of the null bitmap are set");
    int64_t nnull = 0, dirty = -1, odd = -1;
    minmax_t minmax;
    const bool keeps = coldef.nflag == 0 && col.width != -1;
    for (int64_t row = 0; row < m.nrow; row++) {
        if (verify_page_isnull(col, row)) {
            nnull++;
            if (dirty < 0 && !is_null_value(col, row)) dirty = row;
            continue;
        }
        cvn_datum_t datum;
        memset(&datum, 0, sizeof(datum));
        verify_page_datum(col, row, &datum);
        if (odd < 0 && cvn_storage(coldef.typ) == CVN_TYP_BOOL &&
            static_cast<unsigned char>(datum.raw[0]) > 1)
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
    if (!verify_same_image(min, m.minval))
        v->fault(fmt::format("{}: the smallest value is {}, the record says {}", what,
                             verify_image_text(min, coldef.typ), verify_image_text(m.minval, coldef.typ)));
    if (!verify_same_image(max, m.maxval))
        v->fault(fmt::format("{}: the largest value is {}, the record says {}", what,
                             verify_image_text(max, coldef.typ), verify_image_text(m.maxval, coldef.typ)));
}

// One chunk. `*end` is where the chunk before it ended (with its padding), in its file.
static void check_chunk(verify_t* v, cvn_scan_t* scan, int64_t rg, int c, int k, int64_t* end, int32_t nrow) {
    const colmeta_t m = verify_colmeta_at(*v, rg, c);
    const cvn_coldef_t& coldef = v->coldef[c];
    const std::string what = chunk_name(*v, rg, c);
    const verify_fd_t& file = v->split ? v->split_file[c] : v->data;
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
                             static_cast<int>(m.zflag), m.zbyte, m.nbyte));
    if (static_cast<uint8_t>(m.nflag) != coldef.nflag)
        v->fault(what + ": its -n flag differs from its column's");
    if (m.unused1 != 0 || m.unused2 != 0 || m.unused3 != 0)
        v->fault(what + ": unused bytes of its record are not zero");
    if (m.hasminmax != 0 && m.hasminmax != 1) v->fault(what + ": hasminmax is neither 0 nor 1");
    if (m.hasminmax == 0) {
        cvn_datum_t zero;
        memset(&zero, 0, sizeof(zero));
        if (!verify_same_image(m.minval, zero) || !verify_same_image(m.maxval, zero))
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
        const auto npad = static_cast<size_t>(-*end & 7);
        if (static_cast<int64_t>(npad) > limit - *end)
            v->fault(what + ": its padding is missing");
        else if (npad > 0 && (!verify_read_at(file, pad, npad, *end) ||
                              std::any_of(pad, pad + npad, [](char b) { return b != 0; })))
            v->fault(what + ": its padding is not zero");
        *end += static_cast<int64_t>(npad);
    }
    v->nbyte += m.zbyte;
    uint32_t hash;
    if (!verify_hash_at(file, m.file_offset, m.zbyte, &hash)) {
        v->fault(fmt::format("{}: it cannot be read: {}", what, verify_read_fault()));
        return;
    }
    if (hash != static_cast<uint32_t>(m.hash))
        v->fault(fmt::format("{}: its hash is {:08x}, the record says {:08x}; its bytes were changed", what,
                             hash, static_cast<uint32_t>(m.hash)));
    if (!scan || k < 0) return;
    cvn_page_t* page = nullptr;
    errno = 0;
    const int code = cvn_scan_page(scan, rg, k, &page, true);
    if (code == -6) return v->fault(fmt::format("{}: it does not decompress to {} bytes", what, m.nbyte));
    if (code == -2) throw std::bad_alloc();
    if (code != 0) return v->fault(fmt::format("{}: the library cannot read it ({})", what, code));
    check_values(v, what, m, coldef, page->buf);
}

std::vector<int> verify_require_columns(verify_t* v, cvn_scan_t* scan) {
    std::vector<int> index;
    int next = 0;
    std::set<std::string> names;
    for (int c = 0; c < v->schema.ncol; c++) {
        const cvn_coldef_t& col = v->coldef[c];
        const bool first = names.insert(schema_name(col)).second;
        if (first && strnlen(col.name, CVN_NAME_SZ) < CVN_NAME_SZ &&
            cvn_scan_add_required(scan, col.name) == 0)
            index.push_back(next++);
        else
            index.push_back(-1);
    }
    return index;
}

void verify_check_chunks(verify_t* v, cvn_scan_t* scan, const std::vector<int>& page_index,
                         progress_t* progress) {
    int64_t nrow = 0, end = VERIFY_HEADSZ;
    std::vector<int64_t> split_end(static_cast<size_t>(v->schema.ncol), 0);
    for (int64_t rg = 0; rg < v->schema.nrowgroup; rg++) {
        struct {
            int32_t nbyte, nrow, ncol, unused;
        } head;
        static_assert(sizeof(head) == CVN_ROWGROUP_HEADSZ);
        memcpy(&head, v->footer.data() + verify_rowgroup_at(*v, rg), sizeof(head));
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
        for (int c = 0; c < v->schema.ncol; c++) {
            tool_check_signals();
            check_chunk(v, scan, rg, c, page_index[c], v->split ? &split_end[c] : &end, head.nrow);
            size += (static_cast<int64_t>(verify_colmeta_at(*v, rg, c).zbyte) + 7) & ~int64_t{7};
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
    for (int c = 0; v->split && c < v->schema.ncol; c++)
        if (split_end[c] != v->split_file[c].size)
            v->fault(fmt::format("{}.cvnx: its pages take {} bytes, the file has {}", c, split_end[c],
                                 v->split_file[c].size));
}
