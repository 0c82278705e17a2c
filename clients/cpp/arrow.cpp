// arrow: batches as Arrow record batches.
//
// A stream draws on a scan or on a local file, which both hand out batches. A batch is taken apart: each of
// its columns becomes a child array that owns the column's memory, so that a consumer may keep or move any
// child by itself, as the interface allows.

#include "clients/cpp/arrow.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "clients/cpp/client_int.h"

namespace {

using int128_t = cvn_int128_t;
using uint128_t = unsigned __int128;

constexpr int DECIMAL_DIGITS = 38;  // of a decimal128
constexpr int DEC64_BIAS = 398;
constexpr int DEC128_BIAS = 6176;

// Rows of a local file.
struct local_t {
    cvn_scan_t* sc = nullptr;
    plan_t plan;
    bool exact = true;
    std::vector<int> cno;  // of the columns of the plan
    std::vector<int> fd;   // split directory: their files; else empty
    std::shared_ptr<const std::vector<kelp_column_t>> column;
    std::shared_ptr<bufpool_t> pool;
    int64_t next_rg = 0;
    buf_t stored;
};

// One of the two.
struct source_t {
    kelp_scan_t* scan = nullptr;
    local_t* local = nullptr;
};

struct arrow_t {
    source_t source;
    std::vector<kelp_column_t> column;
    std::vector<int> scale;  // by column; of decimals
    bool text_as_binary = false;
    bool ended = false;
    int failed = 0;  // errno of the first failure: there is nothing more behind it
    kelp_error_t err{};
    char message[sizeof(kelp_error_t::text) + sizeof(kelp_error_t::hint) + 4] = "";
};

}  // namespace

// Local files.

static void local_free(local_t* local) {
    if (!local) return;
    for (const int fd : local->fd)
        if (fd >= 0) close(fd);
    buf_put(local->pool.get(), local->stored);
    if (local->sc) (void)cvn_scan_close(local->sc);  // always 0
    delete local;
}

static int fail_file(kelp_error_t* err, const char* fpath, int code) {
    const char* why = code == -7   ? "it is no colvane file, or a damaged one"
                      : code == -2 ? "out of memory"
                      : code == -3 ? (errno ? strerror(errno) : "it is too short")
                                   : "its path is too long";
    return kelp_fail(err, code == -2 ? KELP_ENOMEM : KELP_EFILE, code == -7 ? "verify the file" : nullptr,
                     "cannot read %.300s: %s", fpath, why);
}

static int local_fill(local_t* local, const char* fpath, const kelp_query_t& query, kelp_error_t* err) {
    if (const int code = cvn_scan_open(&local->sc, fpath)) return fail_file(err, fpath, code);
    int ncol = 0;
    const cvn_coldef_t* def = nullptr;
    (void)cvn_scan_coldef(&ncol, &def, local->sc);  // always 0
    std::vector<kelp_column_t> have;
    for (int c = 0; c < ncol; c++) {
        // A damaged file's names may lack their NUL; the footer ends behind them all the same.
        const std::string name(def[c].name, strnlen(def[c].name, CVN_NAME_SZ - 1));
        have.push_back({name, strcmp(cvn_typ_str(def[c].typ), "unknown") == 0 ? 0 : def[c].typ});
    }
    plan_t* plan = &local->plan;
    if (const int code = query_plan(plan, have, query.column, false, query.cond, err)) return code;
    local->exact = query.exact;
    local->pool = std::make_shared<bufpool_t>();
    local->cno.reserve(plan->column.size());
    local->fd.reserve(plan->column.size());
    for (const kelp_column_t& c : plan->column) {
        const auto at =
            std::find_if(have.begin(), have.end(), [&](const kelp_column_t& h) { return h.name == c.name; });
        const auto cno = static_cast<int>(at - have.begin());
        local->cno.push_back(cno);
        if (!local->sc->split_mode) continue;
        const std::string path = std::string(local->sc->fpath) + "/" + std::to_string(cno) + ".cvnx";
        local->fd.push_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (local->fd.back() < 0) return fail_file(err, path.c_str(), -3);
    }
    local->column = std::make_shared<const std::vector<kelp_column_t>>(plan->column);
    return 0;
}

static int local_open(local_t** ret, const char* fpath, const kelp_query_t& query, kelp_error_t* err) {
    auto* local = new local_t{};
    const int code = kelp_guard(err, [&] { return local_fill(local, fpath, query, err); });
    if (code) {
        local_free(local);
        return code;
    }
    *ret = local;
    return 0;
}

static int read_stored(int fd, char* dst, int32_t nbyte, int64_t offset, const char* name,
                       kelp_error_t* err) {
    int32_t done = 0;
    while (done < nbyte) {
        const ssize_t got = pread(fd, dst + done, static_cast<size_t>(nbyte - done), offset + done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0)
            return kelp_fail(err, KELP_EFILE, "verify the file", "cannot read a page of column %s: %s", name,
                             got < 0 ? strerror(errno) : "the file is too short");
        done += static_cast<int32_t>(got);
    }
    return 0;
}

// Reads one page to where it stays.
static int local_page(local_t* local, size_t k, int64_t rg, column_t* col, kelp_error_t* err) {
    const kelp_column_t& def = (*local->column)[k];
    const char* name = def.name.c_str();
    colmeta_t m;
    if (cvn_scan_colmeta(local->sc, rg, local->cno[k], &m) != 0)
        return kelp_fail(err, KELP_EFILE, "verify the file", "row group %lld has no record",
                         static_cast<long long>(rg));
    const page_head_t head{.magic = CVN_PAGE_MAGIC,
                           .cno = local->cno[k],
                           .typ = def.typ,
                           .nrow = m.nrow,
                           .nnull = m.nnull,
                           .nmapoff = m.nmapoff,
                           .nbyte = m.nbyte,
                           .zbyte = m.zbyte,
                           .hash = m.hash,
                           .unused = 0};
    if (const int code = page_check(head, def.typ, name, err)) return code;
    const int fd = local->fd.empty() ? local->sc->fd : local->fd[k];
    struct stat st;
    if (fstat(fd, &st) != 0 || m.file_offset < 0 || m.file_offset > st.st_size ||
        head.zbyte > st.st_size - m.file_offset)
        return kelp_fail(err, KELP_EFILE, "verify the file", "a page of column %s lies outside the file",
                         name);
    const bool in_place = head.zbyte == head.nbyte;
    buf_t* buf = in_place ? &col->value : &local->stored;
    if (buf->cap < static_cast<size_t>(head.zbyte) + BUF_SLACK) {
        buf_put(local->pool.get(), *buf);
        *buf = buf_get(local->pool.get(), static_cast<size_t>(head.zbyte));
        if (!buf->p) return kelp_nomem(err);
    }
    if (const int code = read_stored(fd, buf->p, head.zbyte, m.file_offset, name, err)) return code;
    if (const int code = page_unpack(local->pool.get(), &col->value, head, buf->p, name, err)) return code;
    return page_view(local->pool.get(), col, head, name, err);
}

static int local_next(local_t* local, kelp_batch_t** ret, kelp_error_t* err) {
    const size_t ncol = local->cno.size();
    if (local->plan.empty) return KELP_END;
    while (local->next_rg < local->sc->schema->nrowgroup) {
        const int64_t rg = local->next_rg++;
        auto batch = std::make_unique<batch_t>();
        batch->pool = local->pool;
        batch->schema = local->column;
        batch->column.resize(ncol);
        for (size_t k = 0; k < ncol; k++) {
            if (const int code = local_page(local, k, rg, &batch->column[k], err)) return code;
            if (batch->column[k].vec.nrow != batch->column[0].vec.nrow)
                return kelp_fail(err, KELP_EDAMAGED, "verify the file",
                                 "the columns of row group %lld differ in length",
                                 static_cast<long long>(rg));
        }
        const size_t nresult = local->plan.nresult;
        int64_t nrow = ncol ? batch->column[0].vec.nrow : 0;
        if (local->exact && !local->plan.cond.empty())
            nrow = filter_columns(batch->column, nresult, local->plan.cond);
        if (nrow == 0) continue;
        for (size_t k = nresult; k < ncol; k++) column_free(local->pool.get(), &batch->column[k]);
        batch->column.resize(nresult);
        for (const column_t& c : batch->column) batch->vec.push_back(c.vec);
        batch->pub = kelp_batch_t{.nrow = nrow, .ncol = static_cast<int>(nresult), .col = batch->vec.data()};
        *ret = &batch.release()->pub;
        return 0;
    }
    return KELP_END;
}

static int source_next(source_t* s, kelp_batch_t** ret, kelp_error_t* err) {
    *ret = nullptr;
    return s->scan ? kelp_scan_next(s->scan, ret, err) : local_next(s->local, ret, err);
}

// Refuses a source whose columns are not those that an earlier look at the same place has found: what follows
// was prepared for those.
static int source_check(const source_t* s, const std::vector<kelp_column_t>& want, kelp_error_t* err) {
    std::vector<kelp_column_t> have;
    if (s->scan)
        have = kelp_scan_columns(s->scan);
    else
        have.assign(s->local->column->begin(),
                    s->local->column->begin() + static_cast<ptrdiff_t>(s->local->plan.nresult));
    const auto same = [](const kelp_column_t& a, const kelp_column_t& b) {
        return a.typ == b.typ && a.name == b.name;
    };
    if (std::equal(have.begin(), have.end(), want.begin(), want.end(), same)) return 0;
    return kelp_fail(err, s->scan ? KELP_ECHANGED : KELP_EFILE, "try again",
                     "the %s changed while it was read", s->scan ? "table" : "file");
}

static void source_free(source_t* s) {
    kelp_scan_close(s->scan);
    local_free(s->local);
    *s = source_t{};
}

// Decimals: sign, combination field, exponent continuation, declets of three digits (IEEE 754-2008, 3.5.2).

namespace {

struct decimal_t {
    bool finite;
    bool minus;
    uint128_t coeff;
    int exponent;
};

constexpr uint16_t declet_value(unsigned d) {
    // By Cowlishaw's table: the bits a to m of three digits, packed as pqr stu v wxy.
    const unsigned p = d >> 9 & 1, q = d >> 8 & 1, r = d >> 7 & 1, s = d >> 6 & 1, t = d >> 5 & 1,
                   u = d >> 4 & 1, v = d >> 3 & 1, w = d >> 2 & 1, x = d >> 1 & 1, y = d & 1;
    unsigned hundred, ten, one;
    if (!v) {
        hundred = p << 2 | q << 1 | r, ten = s << 2 | t << 1 | u, one = w << 2 | x << 1 | y;
    } else if (!w && !x) {
        hundred = p << 2 | q << 1 | r, ten = s << 2 | t << 1 | u, one = 8 | y;
    } else if (!w && x) {
        hundred = p << 2 | q << 1 | r, ten = 8 | u, one = s << 2 | t << 1 | y;
    } else if (w && !x) {
        hundred = 8 | r, ten = s << 2 | t << 1 | u, one = p << 2 | q << 1 | y;
    } else if (!s && !t) {
        hundred = 8 | r, ten = 8 | u, one = p << 2 | q << 1 | y;
    } else if (!s && t) {
        hundred = 8 | r, ten = p << 2 | q << 1 | u, one = 8 | y;
    } else if (s && !t) {
        hundred = p << 2 | q << 1 | r, ten = 8 | u, one = 8 | y;
    } else {
        hundred = 8 | r, ten = 8 | u, one = 8 | y;
    }
    return static_cast<uint16_t>(hundred * 100 + ten * 10 + one);
}

constexpr auto DECLET = [] {
    std::array<uint16_t, 1024> t{};
    for (unsigned d = 0; d < 1024; d++) t[d] = declet_value(d);
    return t;
}();

constexpr auto POW10 = [] {
    std::array<uint128_t, DECIMAL_DIGITS + 1> t{};
    t[0] = 1;
    for (size_t i = 1; i < t.size(); i++) t[i] = t[i - 1] * 10;
    return t;
}();

}  // namespace

// `top` are the bits from the sign down to the exponent continuation, right-aligned; `expsz` the
// continuation's width; `tail` the declets.
static decimal_t unpack(uint64_t top, int expsz, uint128_t tail, int ndeclet, int bias) {
    decimal_t d{};
    const auto comb = static_cast<unsigned>(top >> expsz) & 31;
    d.minus = top >> (expsz + 5) & 1;
    if (comb >= 30) return d;
    d.finite = true;
    const bool large = comb >= 24;
    const unsigned exp_top = large ? comb >> 1 & 3 : comb >> 3;
    d.coeff = large ? 8 | (comb & 1) : comb & 7;
    for (int i = ndeclet - 1; i >= 0; i--)
        d.coeff = d.coeff * 1000 + DECLET[static_cast<unsigned>(tail >> (10 * i)) & 1023];
    const uint64_t exponent = static_cast<uint64_t>(exp_top) << expsz | (top & ((uint64_t{1} << expsz) - 1));
    d.exponent = static_cast<int>(exponent) - bias;
    return d;
}

static decimal_t load_decimal(const kelp_vec_t& vec, int64_t row) {
    if (vec.width == 8) {
        const auto bits = kelp_vec_get<uint64_t>(vec, row);
        return unpack(bits >> 50, 8, bits & ((uint64_t{1} << 50) - 1), 5, DEC64_BIAS);
    }
    const auto bits = kelp_vec_get<uint128_t>(vec, row);
    return unpack(static_cast<uint64_t>(bits >> 110), 12, bits & ((uint128_t{1} << 110) - 1), 11,
                  DEC128_BIAS);
}

static bool is_decimal(cvn_typ_t typ) {
    return (typ & 0xffff) == CVN_TYP_DEC64 || (typ & 0xffff) == CVN_TYP_DEC128;
}

static int fail_unfit(kelp_error_t* err, const char* name, const char* what) {
    return kelp_fail(err, KELP_EUNFIT, "give the column another scale, or leave it out", "column %s holds %s",
                     name, what);
}

// The value times 10 to the power of `scale`, if that is a whole number of at most 38 digits.
static bool to_scaled(const decimal_t& d, int scale, int128_t* ret) {
    uint128_t v = d.coeff;
    const int shift = scale + d.exponent;
    if (v != 0 && shift > 0) {
        if (shift > DECIMAL_DIGITS || v > (POW10[DECIMAL_DIGITS] - 1) / POW10[static_cast<size_t>(shift)])
            return false;
        v *= POW10[static_cast<size_t>(shift)];
    } else if (v != 0 && shift < 0) {
        if (-shift > DECIMAL_DIGITS || v % POW10[static_cast<size_t>(-shift)] != 0) return false;
        v /= POW10[static_cast<size_t>(-shift)];
    }
    *ret = d.minus ? -static_cast<int128_t>(v) : static_cast<int128_t>(v);
    return true;
}

namespace {

// What the values of a decimal column need.
struct need_t {
    int written = 0;  // places behind the point, as the values are written
    int least = 0;    // without zeros at their ends
    int whole = 0;    // digits in front of it
};

}  // namespace

static int need_add(need_t* need, const kelp_vec_t& vec, kelp_error_t* err) {
    if (!is_decimal(vec.typ))
        return kelp_fail(err, KELP_EPROTO, nullptr, "column %s is not decimal any more", vec.name);
    for (int64_t r = 0; r < vec.nrow; r++) {
        if (vec.nnull && kelp_vec_isnull(vec, r)) continue;
        decimal_t d = load_decimal(vec, r);
        if (!d.finite)
            return fail_unfit(err, vec.name, "a NaN or an infinity, which decimal128 does not have");
        if (d.coeff == 0) {
            // Zero has every scale; only a sensible one is remembered.
            if (-d.exponent <= DECIMAL_DIGITS) need->written = std::max(need->written, -d.exponent);
            continue;
        }
        const auto top = std::upper_bound(POW10.begin(), POW10.end(), d.coeff);
        need->whole = std::max(need->whole, static_cast<int>(top - POW10.begin()) + d.exponent);
        need->written = std::max(need->written, -d.exponent);
        int places = -d.exponent;
        for (; places > need->least && d.coeff % 10 == 0; d.coeff /= 10) places--;
        need->least = std::max(need->least, places);
    }
    return 0;
}

// Reads the decimal columns of a source and settles their scales.
static int find_scales(source_t* s, const std::vector<kelp_column_t>& column, std::vector<int>* ret,
                       kelp_error_t* err) {
    std::vector<need_t> need(column.size());
    kelp_batch_t* batch = nullptr;
    int code;
    while ((code = source_next(s, &batch, err)) == 0) {
        for (size_t c = 0; c < need.size() && code == 0; c++) code = need_add(&need[c], batch->col[c], err);
        kelp_batch_free(batch);
        if (code) return code;
    }
    if (code != KELP_END) return code;
    for (size_t c = 0; c < need.size(); c++) {
        const need_t& n = need[c];
        ret->push_back(n.whole + n.written <= DECIMAL_DIGITS ? n.written : n.least);
        if (n.whole + ret->back() > DECIMAL_DIGITS)
            return fail_unfit(err, column[c].name.c_str(), "values that no one scale expresses in 38 digits");
    }
    return 0;
}

// Schemas.

static void release_schema(ArrowSchema* s) {
    for (int64_t i = 0; i < s->n_children; i++) {
        if (s->children[i]->release) s->children[i]->release(s->children[i]);
        free(s->children[i]);
    }
    free(s->children);
    free(s->private_data);  // one block: format, name, metadata
    s->release = nullptr;
}

static void append_sized(std::string* s, std::string_view text) {
    const auto n = static_cast<int32_t>(text.size());
    s->append(reinterpret_cast<const char*>(&n), sizeof(n));
    s->append(text);
}

static std::string format_of(const arrow_t* a, size_t c) {
    const cvn_typ_t typ = a->column[c].typ;
    switch (typ) {
        case CVN_TYP_DATE: return "tdD";
        case CVN_TYP_TIME_MILLIS: return "ttm";
        case CVN_TYP_TIMESTAMP_MILLIS: return "tsm:";
        default: break;
    }
    switch (typ & 0xffff) {
        case CVN_TYP_BOOL: return "b";
        case CVN_TYP_INT16: return "s";
        case CVN_TYP_INT32: return "i";
        case CVN_TYP_INT64: return "l";
        case CVN_TYP_INT128: return "w:16";
        case CVN_TYP_FLOAT: return "f";
        case CVN_TYP_DOUBLE: return "g";
        case CVN_TYP_BYTEA: return "z";
        case CVN_TYP_CSTR: return a->text_as_binary ? "z" : "u";
        default: return "d:" + std::to_string(DECIMAL_DIGITS) + "," + std::to_string(a->scale[c]);
    }
}

static std::string metadata_of(const arrow_t* a, size_t c) {
    std::string s;
    if ((a->column[c].typ & 0xffff) != CVN_TYP_INT128) return s;
    const int32_t npair = 2;
    s.append(reinterpret_cast<const char*>(&npair), sizeof(npair));
    append_sized(&s, "ARROW:extension:name");
    append_sized(&s, "arrow.opaque");
    append_sized(&s, "ARROW:extension:metadata");
    append_sized(&s, R"({"type_name": "hugeint", "vendor_name": "DuckDB"})");
    return s;
}

static bool fill_schema(ArrowSchema* s, const std::string& format, const std::string& name,
                        const std::string& metadata) {
    *s = ArrowSchema{};
    const size_t formatsz = format.size() + 1, namesz = name.size() + 1;
    auto* block = static_cast<char*>(malloc(formatsz + namesz + metadata.size()));
    if (!block) return false;
    memcpy(block, format.c_str(), formatsz);
    memcpy(block + formatsz, name.c_str(), namesz);
    if (!metadata.empty()) memcpy(block + formatsz + namesz, metadata.data(), metadata.size());
    s->format = block;
    s->name = block + formatsz;
    s->metadata = metadata.empty() ? nullptr : block + formatsz + namesz;
    s->flags = ARROW_FLAG_NULLABLE;
    s->private_data = block;
    s->release = release_schema;
    return true;
}

static bool make_schema(const arrow_t* a, ArrowSchema* out) {
    if (!fill_schema(out, "+s", "", "")) return false;
    out->flags = 0;
    out->children = static_cast<ArrowSchema**>(calloc(a->column.size() + 1, sizeof(ArrowSchema*)));
    if (!out->children) return false;
    for (size_t c = 0; c < a->column.size(); c++) {
        auto* child = static_cast<ArrowSchema*>(calloc(1, sizeof(ArrowSchema)));
        if (!child) return false;
        out->children[out->n_children++] = child;
        if (!fill_schema(child, format_of(a, c), a->column[c].name, metadata_of(a, c))) return false;
    }
    return true;
}

// Arrays.

namespace {

// What a child array owns.
struct owned_t {
    std::shared_ptr<bufpool_t> pool;
    buf_t buf[3];
    const void* buffers[3];
};

// What the array of a whole batch owns besides its children.
struct parent_t {
    const void* buffers[1];
    std::vector<ArrowArray*> children;
};

}  // namespace

static void release_child(ArrowArray* a) {
    auto* owned = static_cast<owned_t*>(a->private_data);
    for (const buf_t& b : owned->buf) buf_put(owned->pool.get(), b);
    delete owned;
    a->release = nullptr;
}

static void release_parent(ArrowArray* a) {
    auto* parent = static_cast<parent_t*>(a->private_data);
    for (ArrowArray* child : parent->children) {
        if (child->release) child->release(child);
        free(child);
    }
    delete parent;
    a->release = nullptr;
}

// Turns the bits of a byte around.
static uint8_t reverse_bits(uint8_t b) {
    return static_cast<uint8_t>(
        ((b * UINT64_C(0x80200802)) & UINT64_C(0x0884422110)) * UINT64_C(0x0101010101) >> 32);
}

static int convert_nullmap(owned_t* owned, const kelp_vec_t& vec, kelp_error_t* err) {
    if (vec.nnull == 0) return 0;
    const auto n = static_cast<size_t>((vec.nrow + 7) / 8);
    owned->buf[0] = buf_get(owned->pool.get(), n);
    if (!owned->buf[0].p) return kelp_nomem(err);
    for (size_t i = 0; i < n; i++) owned->buf[0].p[i] = static_cast<char>(~reverse_bits(vec.nullmap[i]));
    return 0;
}

static int convert_bool(owned_t* owned, const kelp_vec_t& vec, kelp_error_t* err) {
    owned->buf[1] = buf_get(owned->pool.get(), static_cast<size_t>((vec.nrow + 7) / 8));
    char* out = owned->buf[1].p;
    if (!out) return kelp_nomem(err);
    for (int64_t r = 0; r < vec.nrow; r += 8) {
        unsigned byte = 0;
        for (int64_t k = r; k < std::min(r + 8, vec.nrow); k++)
            byte |= unsigned{vec.value[k] != 0} << (k - r);
        out[r / 8] = static_cast<char>(byte);
    }
    return 0;
}

static int convert_decimal(owned_t* owned, const kelp_vec_t& vec, int scale, kelp_error_t* err) {
    owned->buf[1] = buf_get(owned->pool.get(), static_cast<size_t>(vec.nrow) * sizeof(int128_t));
    if (!owned->buf[1].p) return kelp_nomem(err);
    for (int64_t r = 0; r < vec.nrow; r++) {
        int128_t v = 0;
        if (vec.nnull == 0 || !kelp_vec_isnull(vec, r)) {
            const decimal_t d = load_decimal(vec, r);
            if (!d.finite)
                return fail_unfit(err, vec.name, "a NaN or an infinity, which decimal128 does not have");
            if (!to_scaled(d, scale, &v)) {
                char what[64];
                snprintf(what, sizeof(what), "a value that decimal128(%d, %d) cannot express", DECIMAL_DIGITS,
                         scale);
                return fail_unfit(err, vec.name, what);
            }
        }
        memcpy(owned->buf[1].p + static_cast<size_t>(r) * sizeof(v), &v, sizeof(v));
    }
    return 0;
}

// Whether all bytes are well-formed UTF-8. A NUL is a character like any other, so texts with their NULs
// between are well-formed together exactly when each is.
static bool is_utf8(const char* p, size_t n) {
    size_t i = 0;
    while (i < n) {
        uint64_t word;
        while (n - i >= sizeof(word)) {
            memcpy(&word, p + i, sizeof(word));
            if (word & UINT64_C(0x8080808080808080)) break;
            i += sizeof(word);
        }
        if (i == n) break;
        const auto at = [&](size_t k) { return i + k < n ? static_cast<unsigned char>(p[i + k]) : 0u; };
        const auto more = [&](size_t k) { return (at(k) & 0xc0) == 0x80; };
        const unsigned c = at(0);
        if (c < 0x80) {
            i += 1;
        } else if (c >= 0xc2 && c <= 0xdf && more(1)) {
            i += 2;
        } else if ((c & 0xf0) == 0xe0 && more(1) && more(2) && !(c == 0xe0 && at(1) < 0xa0) &&
                   !(c == 0xed && at(1) >= 0xa0)) {
            i += 3;
        } else if (c >= 0xf0 && c <= 0xf4 && more(1) && more(2) && more(3) && !(c == 0xf0 && at(1) < 0x90) &&
                   !(c == 0xf4 && at(1) >= 0x90)) {
            i += 4;
        } else {
            return false;
        }
    }
    return true;
}

static int convert_varying(owned_t* owned, const kelp_vec_t& vec, bool is_text, kelp_error_t* err) {
    const int32_t* from = vec.offset;
    const auto nrow = static_cast<size_t>(vec.nrow);
    if (is_text && !is_utf8(vec.value, static_cast<size_t>(from[nrow])))
        return kelp_fail(err, KELP_EUNFIT, "ask for texts as binary", "column %s holds text that is no UTF-8",
                         vec.name);
    owned->buf[1] = buf_get(owned->pool.get(), (nrow + 1) * sizeof(int32_t));
    // The gaps between the values are what goes, so the room for them all is enough.
    owned->buf[2] = buf_get(owned->pool.get(), static_cast<size_t>(from[nrow]));
    if (!owned->buf[1].p || !owned->buf[2].p) return kelp_nomem(err);
    auto* to = reinterpret_cast<int32_t*>(owned->buf[1].p);
    char* data = owned->buf[2].p;
    constexpr size_t BLOCK = 32;  // most values are shorter; behind both buffers there is room for as much
    static_assert(BLOCK <= BUF_SLACK);
    int32_t at = 0;
    for (size_t r = 0; r < nrow; r++) {
        to[r] = at;
        const auto len = static_cast<size_t>(from[r + 1] - from[r] - vec.gap);
        memcpy(data + at, vec.value + from[r], len <= BLOCK ? BLOCK : len);
        at += static_cast<int32_t>(len);
    }
    to[nrow] = at;
    return 0;
}

// A time of day lies within one day; what does not could be taken for another, or for none.
static int check_times(const kelp_vec_t& vec, kelp_error_t* err) {
    constexpr int32_t DAY_MS = 86400000;
    for (int64_t r = 0; r < vec.nrow; r++) {
        const auto ms = kelp_vec_get<int32_t>(vec, r);
        if ((ms < 0 || ms >= DAY_MS) && !kelp_vec_isnull(vec, r))
            return kelp_fail(err, KELP_EUNFIT, "leave the column out",
                             "column %s holds %d milliseconds, which is no time of a day", vec.name, ms);
    }
    return 0;
}

static int convert_column(const arrow_t* a, size_t c, owned_t* owned, batch_t* batch, ArrowArray* out,
                          kelp_error_t* err) {
    column_t* col = &batch->column[c];
    const kelp_vec_t vec = col->vec;
    int code = convert_nullmap(owned, vec, err);
    out->n_buffers = 2;
    if (code == 0) {
        if (vec.width == 0) {
            out->n_buffers = 3;
            code = convert_varying(owned, vec, vec.gap == 1 && !a->text_as_binary, err);
        } else if ((vec.typ & 0xffff) == CVN_TYP_BOOL) {
            code = convert_bool(owned, vec, err);
        } else if (is_decimal(vec.typ)) {
            code = convert_decimal(owned, vec, a->scale[c], err);
        } else {
            if (vec.typ == CVN_TYP_TIME_MILLIS) code = check_times(vec, err);
            owned->buf[1] = col->value;
            col->value = buf_t{};
        }
    }
    for (int i = 0; i < 3; i++) owned->buffers[i] = owned->buf[i].p;
    out->length = vec.nrow;
    out->null_count = vec.nnull;
    out->buffers = owned->buffers;
    out->private_data = owned;
    out->release = release_child;
    return code;
}

static int make_array(const arrow_t* a, batch_t* batch, ArrowArray* out, kelp_error_t* err) {
    auto parent = std::make_unique<parent_t>();
    parent->children.reserve(a->column.size());
    *out = ArrowArray{};
    out->length = batch->pub.nrow;
    out->n_buffers = 1;
    parent->buffers[0] = nullptr;
    out->buffers = parent->buffers;
    out->private_data = parent.get();
    out->release = release_parent;
    parent_t* p = parent.release();
    for (size_t c = 0; c < a->column.size(); c++) {
        auto owned = std::make_unique<owned_t>();
        owned->pool = batch->pool;
        auto* child = static_cast<ArrowArray*>(calloc(1, sizeof(ArrowArray)));
        if (!child) return kelp_nomem(err);
        p->children.push_back(child);
        if (const int code = convert_column(a, c, owned.release(), batch, child, err)) return code;
    }
    out->n_children = static_cast<int64_t>(p->children.size());
    out->children = p->children.data();
    return 0;
}

// The stream.

static int errno_of(int code) {
    switch (code) {
        case KELP_ENOMEM: return ENOMEM;
        case KELP_EARG:
        case KELP_EUNFIT: return EINVAL;
        case KELP_ECANCEL: return ECANCELED;
        case KELP_ETIMEOUT: return ETIMEDOUT;
        case KELP_ENOTFOUND: return ENOENT;
        default: return EIO;
    }
}

static int stream_fail(arrow_t* a, int code) {
    snprintf(a->message, sizeof(a->message), "%s%s%s%s", a->err.text, a->err.hint[0] ? " (" : "", a->err.hint,
             a->err.hint[0] ? ")" : "");
    return errno_of(code);
}

static int stream_get_schema(ArrowArrayStream* stream, ArrowSchema* out) {
    auto* a = static_cast<arrow_t*>(stream->private_data);
    *out = ArrowSchema{};
    const int code = kelp_guard(&a->err, [&] { return make_schema(a, out) ? 0 : kelp_nomem(&a->err); });
    if (code == 0) return 0;
    if (out->release) out->release(out);
    return stream_fail(a, code);
}

static int next_array(arrow_t* a, ArrowArray* out) {
    kelp_batch_t* batch = nullptr;
    int code = source_next(&a->source, &batch, &a->err);
    if (code == KELP_END) {
        a->ended = true;
        return 0;
    }
    if (code) return code;
    code = kelp_guard(&a->err, [&] { return make_array(a, batch_of(batch), out, &a->err); });
    kelp_batch_free(batch);
    if (code && out->release) out->release(out);
    return code;
}

static int stream_get_next(ArrowArrayStream* stream, ArrowArray* out) {
    auto* a = static_cast<arrow_t*>(stream->private_data);
    *out = ArrowArray{};
    if (a->failed) return a->failed;
    if (a->ended) return 0;
    const int code = kelp_guard(&a->err, [&] { return next_array(a, out); });
    if (code) a->failed = stream_fail(a, code);
    return a->failed;
}

static const char* stream_get_last_error(ArrowArrayStream* stream) {
    const auto* a = static_cast<const arrow_t*>(stream->private_data);
    return a->message[0] ? a->message : nullptr;
}

static void stream_release(ArrowArrayStream* stream) {
    auto* a = static_cast<arrow_t*>(stream->private_data);
    source_free(&a->source);
    delete a;
    stream->release = nullptr;
}

static int given_scale(const kelp_arrow_opt_t& arrow, const std::vector<kelp_column_t>& column,
                       std::vector<int>* ret, kelp_error_t* err) {
    ret->assign(column.size(), -1);
    for (const auto& [name, scale] : arrow.scale) {
        const auto at = std::find_if(column.begin(), column.end(),
                                     [&name = name](const kelp_column_t& c) { return c.name == name; });
        if (at == column.end() || !is_decimal(at->typ))
            return kelp_fail(err, KELP_EARG, nullptr,
                             "a scale is given for %.100s, which is no decimal column of the result",
                             name.c_str());
        if (scale < 0 || scale > DECIMAL_DIGITS)
            return kelp_fail(err, KELP_EARG, "give a scale from 0 to 38",
                             "the scale %d of column %.100s is not possible", scale, name.c_str());
        (*ret)[static_cast<size_t>(at - column.begin())] = scale;
    }
    return 0;
}

// Settles the scales of the columns. `again` opens a source of just those whose scale is to be found.
template <typename AGAIN>
static int settle_scales(arrow_t* a, const kelp_arrow_opt_t& arrow, AGAIN again, kelp_error_t* err) {
    a->text_as_binary = arrow.text_as_binary;
    if (const int code = given_scale(arrow, a->column, &a->scale, err)) return code;
    std::vector<std::string> name;
    std::vector<kelp_column_t> unknown;
    for (size_t c = 0; c < a->column.size(); c++)
        if (is_decimal(a->column[c].typ) && a->scale[c] < 0) {
            name.push_back(a->column[c].name);
            unknown.push_back(a->column[c]);
        }
    if (!name.empty()) {
        source_t source;
        std::vector<int> found;
        if (const int code = again(&source, name)) return code;
        const int code = kelp_guard(err, [&] {
            const int changed = source_check(&source, unknown, err);
            return changed ? changed : find_scales(&source, unknown, &found, err);
        });
        source_free(&source);
        if (code) return code;
        size_t i = 0;
        for (size_t c = 0; c < a->column.size(); c++)
            if (is_decimal(a->column[c].typ) && a->scale[c] < 0) a->scale[c] = found[i++];
    }
    return 0;
}

// The names of Arrow's fields are UTF-8.
static int check_names(const std::vector<kelp_column_t>& column, kelp_error_t* err) {
    for (const kelp_column_t& c : column)
        if (!is_utf8(c.name.data(), c.name.size()))
            return kelp_fail(err, KELP_EUNFIT, "leave the column out",
                             "the name of column %.100s is no UTF-8", c.name.c_str());
    return 0;
}

static void make_stream(ArrowArrayStream* ret, arrow_t* a) {
    *ret = ArrowArrayStream{.get_schema = stream_get_schema,
                            .get_next = stream_get_next,
                            .get_last_error = stream_get_last_error,
                            .release = stream_release,
                            .private_data = a};
}

static int arrow_err(int code, arrow_t* a) {
    if (a) source_free(&a->source);
    delete a;
    return code;
}

int kelp_arrow_scan(ArrowArrayStream* ret_stream, const kelp_query_t& query, const kelp_arrow_opt_t& arrow,
                    const kelp_opt_t& opt, kelp_error_t* err) {
    auto* a = new (std::nothrow) arrow_t{};
    if (!a) return kelp_nomem(err);
    const int code = kelp_guard(err, [&] {
        // The scales come first: the connections of the scan itself would lie idle meanwhile.
        std::vector<kelp_column_t> have;
        if (const int failed = kelp_table_columns(&have, query.url, opt, err)) return failed;
        plan_t plan;
        if (const int failed = query_plan(&plan, have, query.column, query.rows_only, query.cond, err))
            return failed;
        a->column.assign(plan.column.begin(), plan.column.begin() + static_cast<ptrdiff_t>(plan.nresult));
        const auto again = [&](source_t* source, const std::vector<std::string>& name) {
            kelp_query_t q = query;
            q.column = name;
            return kelp_scan_open(&source->scan, q, opt, err);
        };
        if (const int failed = check_names(a->column, err)) return failed;
        if (const int failed = settle_scales(a, arrow, again, err)) return failed;
        if (const int failed = kelp_scan_open(&a->source.scan, query, opt, err)) return failed;
        return source_check(&a->source, a->column, err);
    });
    if (code) return arrow_err(code, a);
    make_stream(ret_stream, a);
    return 0;
}

int kelp_arrow_file_query(ArrowArrayStream* ret_stream, const char* fpath, const kelp_query_t& query,
                          const kelp_arrow_opt_t& arrow, kelp_error_t* err) {
    auto* a = new (std::nothrow) arrow_t{};
    if (!a) return kelp_nomem(err);
    const int code = kelp_guard(err, [&] {
        if (const int failed = local_open(&a->source.local, fpath, query, err)) return failed;
        const plan_t& plan = a->source.local->plan;
        a->column.assign(plan.column.begin(), plan.column.begin() + static_cast<ptrdiff_t>(plan.nresult));
        if (const int failed = check_names(a->column, err)) return failed;
        const auto again = [&](source_t* source, const std::vector<std::string>& name) {
            kelp_query_t q = query;
            q.column = name;
            return local_open(&source->local, fpath, q, err);
        };
        return settle_scales(a, arrow, again, err);
    });
    if (code) return arrow_err(code, a);
    make_stream(ret_stream, a);
    return 0;
}

int kelp_arrow_file(ArrowArrayStream* ret_stream, const char* fpath, const std::vector<std::string>& column,
                    const kelp_arrow_opt_t& arrow, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        kelp_query_t query;
        query.column = column;
        return kelp_arrow_file_query(ret_stream, fpath, query, arrow, err);
    });
}
