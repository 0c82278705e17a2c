// arrow_convert: from a table's columns to an Arrow schema, and from a batch to a record batch.
//
// A batch is taken apart: each of its columns becomes a child array that owns the column's memory, so that a
// consumer may keep or move any child by itself, as the interface allows.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "clients/cpp/arrow_int.h"

using namespace kelp;
using rows::buf_get;
using rows::buf_put;
using rows::buf_t;
using rows::bufpool_t;

namespace {

using int128_t = cvn_int128_t;
using uint128_t = unsigned __int128;

constexpr auto POW10 = [] {
    std::array<uint128_t, ARROW_DECIMAL_DIGITS + 1> t{};
    t[0] = 1;
    for (size_t i = 1; i < t.size(); i++) t[i] = t[i - 1] * 10;
    return t;
}();

}  // namespace

// Decimals.

bool kelp::arrow_is_decimal(cvn_typ_t typ) {
    return cvn_storage(typ) == CVN_TYP_DEC64 || cvn_storage(typ) == CVN_TYP_DEC128;
}

static cvn_dec_parts_t load_decimal(const kelp_vec_t& vec, int64_t row) {
    cvn_dec_parts_t parts;
    if (vec.width == 8) {
        const auto d = kelp_vec_get<decDouble>(vec, row);
        cvn_dec64_unpack(&parts, &d);
    } else {
        const auto d = kelp_vec_get<decQuad>(vec, row);
        cvn_dec128_unpack(&parts, &d);
    }
    return parts;
}

static int fail_unfit(kelp_error_t* err, const char* name, const char* what) {
    return kelp_fail(err, KELP_EUNFIT, "give the column another scale, or leave it out", "column %s holds %s",
                     name, what);
}

// The value times 10 to the power of `scale`, if that is a whole number of at most 38 digits.
static bool to_scaled(const cvn_dec_parts_t& d, int scale, int128_t* ret) {
    uint128_t v = d.coeff;
    const int shift = scale + d.exponent;
    if (v != 0 && shift > 0) {
        if (shift > ARROW_DECIMAL_DIGITS ||
            v > (POW10[ARROW_DECIMAL_DIGITS] - 1) / POW10[static_cast<size_t>(shift)])
            return false;
        v *= POW10[static_cast<size_t>(shift)];
    } else if (v != 0 && shift < 0) {
        if (-shift > ARROW_DECIMAL_DIGITS || v % POW10[static_cast<size_t>(-shift)] != 0) return false;
        v /= POW10[static_cast<size_t>(-shift)];
    }
    *ret = d.minus ? -static_cast<int128_t>(v) : static_cast<int128_t>(v);
    return true;
}

int kelp::arrow_need_add(arrow_need_t* need, const kelp_vec_t& vec, kelp_error_t* err) {
    if (!arrow_is_decimal(vec.typ))
        return kelp_fail(err, KELP_EPROTO, nullptr, "column %s is not decimal any more", vec.name);
    for (int64_t r = 0; r < vec.nrow; r++) {
        if (vec.nnull && kelp_vec_isnull(vec, r)) continue;
        cvn_dec_parts_t d = load_decimal(vec, r);
        if (!d.finite)
            return fail_unfit(err, vec.name, "a NaN or an infinity, which decimal128 does not have");
        if (d.coeff == 0) {
            // Zero has every scale; only a sensible one is remembered.
            if (-d.exponent <= ARROW_DECIMAL_DIGITS) need->written = std::max(need->written, -d.exponent);
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

int kelp::arrow_need_scale(int* ret_scale, const arrow_need_t& need, const char* name, kelp_error_t* err) {
    *ret_scale = need.whole + need.written <= ARROW_DECIMAL_DIGITS ? need.written : need.least;
    if (need.whole + *ret_scale > ARROW_DECIMAL_DIGITS)
        return fail_unfit(err, name, "values that no one scale expresses in 38 digits");
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

static std::string format_of(const arrow_form_t& form, size_t c) {
    const cvn_typ_t typ = form.column[c].typ;
    switch (typ) {
        case CVN_TYP_DATE: return "tdD";
        case CVN_TYP_TIME_MILLIS: return "ttm";
        case CVN_TYP_TIMESTAMP_MILLIS: return "tsm:";
        default: break;
    }
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: return "b";
        case CVN_TYP_INT16: return "s";
        case CVN_TYP_INT32: return "i";
        case CVN_TYP_INT64: return "l";
        case CVN_TYP_INT128: return "w:16";
        case CVN_TYP_FLOAT: return "f";
        case CVN_TYP_DOUBLE: return "g";
        case CVN_TYP_BYTEA: return "z";
        case CVN_TYP_CSTR: return form.text_as_binary ? "z" : "u";
        default: return "d:" + std::to_string(ARROW_DECIMAL_DIGITS) + "," + std::to_string(form.scale[c]);
    }
}

static std::string metadata_of(const arrow_form_t& form, size_t c) {
    std::string s;
    if (cvn_storage(form.column[c].typ) != CVN_TYP_INT128) return s;
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
    // NOLINTBEGIN(bugprone-not-null-terminated-result): the sizes count the NULs; metadata has none
    memcpy(block, format.c_str(), formatsz);
    memcpy(block + formatsz, name.c_str(), namesz);
    if (!metadata.empty()) memcpy(block + formatsz + namesz, metadata.data(), metadata.size());
    // NOLINTEND(bugprone-not-null-terminated-result)
    s->format = block;
    s->name = block + formatsz;
    s->metadata = metadata.empty() ? nullptr : block + formatsz + namesz;
    s->flags = ARROW_FLAG_NULLABLE;
    s->private_data = block;
    s->release = release_schema;
    return true;
}

bool kelp::arrow_schema(const arrow_form_t& form, ArrowSchema* out) {
    if (!fill_schema(out, "+s", "", "")) return false;
    out->flags = 0;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): an array of pointers
    out->children = static_cast<ArrowSchema**>(calloc(form.column.size() + 1, sizeof(ArrowSchema*)));
    if (!out->children) return false;
    for (size_t c = 0; c < form.column.size(); c++) {
        auto* child = static_cast<ArrowSchema*>(calloc(1, sizeof(ArrowSchema)));
        if (!child) return false;
        out->children[out->n_children++] = child;
        if (!fill_schema(child, format_of(form, c), form.column[c].name, metadata_of(form, c))) return false;
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
            const cvn_dec_parts_t d = load_decimal(vec, r);
            if (!d.finite)
                return fail_unfit(err, vec.name, "a NaN or an infinity, which decimal128 does not have");
            if (!to_scaled(d, scale, &v)) {
                char what[64];
                snprintf(what, sizeof(what), "a value that decimal128(%d, %d) cannot express",
                         ARROW_DECIMAL_DIGITS, scale);
                return fail_unfit(err, vec.name, what);
            }
        }
        memcpy(owned->buf[1].p + static_cast<size_t>(r) * sizeof(v), &v, sizeof(v));
    }
    return 0;
}

// Whether all bytes are well-formed UTF-8. A NUL is a character like any other, so texts with their NULs
// between are well-formed together exactly when each is.
bool kelp::arrow_is_utf8(const char* p, size_t n) {
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
    if (is_text && !arrow_is_utf8(vec.value, static_cast<size_t>(from[nrow])))
        return kelp_fail(err, KELP_EUNFIT, "ask for texts as binary", "column %s holds text that is no UTF-8",
                         vec.name);
    owned->buf[1] = buf_get(owned->pool.get(), (nrow + 1) * sizeof(int32_t));
    // The gaps between the values are what goes, so the room for them all is enough.
    owned->buf[2] = buf_get(owned->pool.get(), static_cast<size_t>(from[nrow]));
    if (!owned->buf[1].p || !owned->buf[2].p) return kelp_nomem(err);
    auto* to = reinterpret_cast<int32_t*>(owned->buf[1].p);
    char* data = owned->buf[2].p;
    constexpr size_t BLOCK = 32;  // most values are shorter; after both buffers there is room for as much
    static_assert(BLOCK <= rows::BUF_SLACK);
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
    for (int64_t r = 0; r < vec.nrow; r++) {
        const auto ms = kelp_vec_get<int32_t>(vec, r);
        if ((ms < 0 || ms >= rows::DAY_MILLIS) && !kelp_vec_isnull(vec, r))
            return kelp_fail(err, KELP_EUNFIT, "leave the column out",
                             "column %s holds %d milliseconds, which is no time of a day", vec.name, ms);
    }
    return 0;
}

static int convert_column(const arrow_form_t& form, size_t c, owned_t* owned, batch_t* batch, ArrowArray* out,
                          kelp_error_t* err) {
    rows::column_t* col = &batch->column[c];
    const kelp_vec_t vec = col->vec;
    int code = convert_nullmap(owned, vec, err);
    out->n_buffers = 2;
    if (code == 0) {
        if (vec.width == 0) {
            out->n_buffers = 3;
            code = convert_varying(owned, vec, vec.gap == 1 && !form.text_as_binary, err);
        } else if (cvn_storage(vec.typ) == CVN_TYP_BOOL) {
            code = convert_bool(owned, vec, err);
        } else if (arrow_is_decimal(vec.typ)) {
            code = convert_decimal(owned, vec, form.scale[c], err);
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

int kelp::arrow_array(const arrow_form_t& form, batch_t* batch, ArrowArray* out, kelp_error_t* err) {
    auto parent = std::make_unique<parent_t>();
    parent->children.reserve(form.column.size());
    *out = ArrowArray{};
    out->length = batch->pub.nrow;
    out->n_buffers = 1;
    parent->buffers[0] = nullptr;
    out->buffers = parent->buffers;
    out->private_data = parent.get();
    out->release = release_parent;
    parent_t* p = parent.release();
    for (size_t c = 0; c < form.column.size(); c++) {
        auto owned = std::make_unique<owned_t>();
        owned->pool = batch->pool;
        auto* child = static_cast<ArrowArray*>(calloc(1, sizeof(ArrowArray)));
        if (!child) return kelp_nomem(err);
        p->children.push_back(child);
        if (const int code = convert_column(form, c, owned.release(), batch, child, err)) return code;
    }
    out->n_children = static_cast<int64_t>(p->children.size());
    out->children = p->children.data();
    return 0;
}
