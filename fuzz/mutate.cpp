#include "fuzz/mutate.h"

#include <stdlib.h>
#include <string.h>
#include <xxhash.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "colvane/colvane.h"

using fuzz::dice_t;
using bytes_t = std::vector<uint8_t>;

namespace {

// A file taken apart. The pages stay where they are in `data`, which is all before the footer.
struct group_t {
    int32_t head[4];  // nbyte, nrow, ncol, unused
    std::vector<colmeta_t> meta;
};
struct model_t {
    bytes_t data;
    schema_desc_t schema{};
    std::vector<cvn_coldef_t> coldef;
    std::vector<colstat_t> colstat;
    std::vector<group_t> group;
};

constexpr size_t GROUP_HEADSZ = CVN_ROWGROUP_HEADSZ;
constexpr size_t MAX_RECORDS = 4096;  // columns, and column records, of a file that is worth taking apart

constexpr int64_t EDGES[] = {0,
                             1,
                             -1,
                             2,
                             7,
                             8,
                             9,
                             16,
                             40,
                             255,
                             256,
                             4095,
                             4096,
                             65535,
                             65536,
                             1 << 20,
                             50000,
                             131072,
                             INT32_MAX,
                             INT32_MIN,
                             INT64_MAX,
                             INT64_MIN,
                             INT32_MAX - 40,
                             1LL << 33};
constexpr cvn_typ_t TYPES[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0x10003, 0x20003, 0x30004, 0, 12, 0x10009};

}  // namespace

template <typename T>
static T take(const uint8_t* p) {
    T v;
    memcpy(&v, p, sizeof(T));
    return v;
}

template <typename T>
static void put(bytes_t* out, const T& v) {
    const auto* p = reinterpret_cast<const uint8_t*>(&v);
    out->insert(out->end(), p, p + sizeof(T));
}

static std::optional<model_t> parse(const uint8_t* p, size_t n) {
    if (n < CVN_TRAILER_SZ + sizeof(schema_desc_t)) return std::nullopt;
    const auto trailer = take<cvn_trailer_t>(p + n - CVN_TRAILER_SZ);
    const size_t before = n - CVN_TRAILER_SZ;
    if (trailer.footersz < static_cast<int64_t>(sizeof(schema_desc_t)) ||
        trailer.footersz > static_cast<int64_t>(before))
        return std::nullopt;
    const auto footersz = static_cast<size_t>(trailer.footersz);
    const uint8_t* const footer = p + before - footersz;
    model_t m;
    m.schema = take<schema_desc_t>(footer);
    const auto ncol = static_cast<size_t>(m.schema.ncol);
    const auto ngroup = static_cast<size_t>(m.schema.nrowgroup);
    if (m.schema.ncol < 0 || m.schema.nrowgroup < 0 || ncol > MAX_RECORDS || ngroup > MAX_RECORDS ||
        ncol * ngroup > MAX_RECORDS)
        return std::nullopt;
    const size_t recordsz = GROUP_HEADSZ + ncol * sizeof(colmeta_t);
    if (sizeof(schema_desc_t) + ncol * (sizeof(cvn_coldef_t) + sizeof(colstat_t)) + ngroup * recordsz !=
        footersz)
        return std::nullopt;
    m.data.assign(p, p + before - footersz);
    const uint8_t* at = footer + sizeof(schema_desc_t);
    for (size_t c = 0; c < ncol; c++, at += sizeof(cvn_coldef_t)) m.coldef.push_back(take<cvn_coldef_t>(at));
    for (size_t c = 0; c < ncol; c++, at += sizeof(colstat_t)) m.colstat.push_back(take<colstat_t>(at));
    for (size_t g = 0; g < ngroup; g++) {
        group_t group;
        memcpy(group.head, at, GROUP_HEADSZ);
        at += GROUP_HEADSZ;
        for (size_t c = 0; c < ncol; c++, at += sizeof(colmeta_t)) group.meta.push_back(take<colmeta_t>(at));
        m.group.push_back(std::move(group));
    }
    return m;
}

// Where a chunk's stored bytes lie in `m.data`, or nothing when they do not.
static uint8_t* stored(model_t* m, const colmeta_t& meta) {
    if (meta.file_offset < 0 || meta.zbyte < 0 || meta.file_offset > static_cast<int64_t>(m->data.size()) ||
        meta.zbyte > static_cast<int64_t>(m->data.size()) - meta.file_offset)
        return nullptr;
    return m->data.data() + meta.file_offset;
}

template <typename T>
static void change_number(T* v, dice_t* dice) {
    switch (dice->roll(5)) {
        case 0: *v = static_cast<T>(EDGES[dice->roll(std::size(EDGES))]); break;
        case 1: *v = static_cast<T>(static_cast<uint64_t>(*v) + 1); break;
        case 2: *v = static_cast<T>(static_cast<uint64_t>(*v) - 1); break;
        case 3:
            *v = static_cast<T>(static_cast<uint64_t>(*v) ^ (uint64_t{1} << dice->roll(8 * sizeof(T))));
            break;
        default: *v = static_cast<T>(dice->roll(64)); break;
    }
}

template <typename T>
static void change_bytes(T* record, size_t at, size_t n) {
    (void)LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(record) + at, n, n);
}

static colmeta_t* pick(model_t* m, dice_t* dice) {
    if (m->group.empty() || m->coldef.empty()) return nullptr;
    group_t& g = m->group[dice->roll(static_cast<uint32_t>(m->group.size()))];
    return &g.meta[dice->roll(static_cast<uint32_t>(g.meta.size()))];
}

static void change_meta(colmeta_t* meta, dice_t* dice) {
    switch (dice->roll(12)) {
        case 0: change_number(&meta->file_offset, dice); break;
        case 1: change_number(&meta->nrow, dice); break;
        case 2: change_number(&meta->zflag, dice); break;
        case 3: change_number(&meta->nflag, dice); break;
        case 4: meta->hasminmax = static_cast<char>(!meta->hasminmax); break;
        case 5: change_number(&meta->nbyte, dice); break;
        case 6: change_number(&meta->zbyte, dice); break;
        case 7: change_number(&meta->nnull, dice); break;
        case 8: change_number(&meta->nmapoff, dice); break;
        case 9: change_bytes(meta, offsetof(colmeta_t, minval), sizeof(cvn_datum_t)); break;
        case 10: change_bytes(meta, offsetof(colmeta_t, maxval), sizeof(cvn_datum_t)); break;
        default: std::swap(meta->minval, meta->maxval); break;
    }
}

// Changes the bytes of a chunk. Where their number changes they go to the end of the data, and the record follows.
static void change_chunk(model_t* m, colmeta_t* meta, dice_t* dice) {
    const uint8_t* const p = stored(m, *meta);
    if (!p) return;
    bytes_t chunk(p, p + meta->zbyte);
    const size_t old = chunk.size();
    chunk.resize(old + 64);
    const size_t n = LLVMFuzzerMutate(chunk.data(), old, dice->roll(2) ? old : chunk.size());
    chunk.resize(n);
    if (n == old) {
        std::copy(chunk.begin(), chunk.end(), m->data.begin() + meta->file_offset);
        return;
    }
    const bool plain = meta->zbyte == meta->nbyte;
    m->data.resize((m->data.size() + 7) / 8 * 8);
    meta->file_offset = static_cast<int64_t>(m->data.size());
    meta->zbyte = static_cast<int32_t>(n);
    if (plain) {
        // The bitmap stays at the end.
        meta->nmapoff += static_cast<int32_t>(n) - meta->nbyte;
        meta->nbyte = meta->zbyte;
    }
    m->data.insert(m->data.end(), chunk.begin(), chunk.end());
}

static void change_column(model_t* m, dice_t* dice) {
    if (m->coldef.empty()) return;
    const uint32_t c = dice->roll(static_cast<uint32_t>(m->coldef.size()));
    switch (dice->roll(8)) {
        case 0: m->coldef[c].typ = TYPES[dice->roll(std::size(TYPES))]; break;
        case 1: m->coldef[c].zflag ^= 1; break;
        case 2: m->coldef[c].nflag ^= 1; break;
        case 3: change_bytes(&m->coldef[c], 0, dice->roll(2) ? 8 : CVN_NAME_SZ); break;
        case 4: change_number(&m->colstat[c].nnull, dice); break;
        case 5: m->colstat[c].hasminmax = static_cast<char>(!m->colstat[c].hasminmax); break;
        case 6: change_bytes(&m->colstat[c], offsetof(colstat_t, minval), 2 * sizeof(cvn_datum_t)); break;
        default: {  // another column's name and type
            const uint32_t d = dice->roll(static_cast<uint32_t>(m->coldef.size()));
            m->coldef[c] = m->coldef[d];
        }
    }
}

// Adds, removes or moves whole columns and row groups.
static void change_shape(model_t* m, dice_t* dice) {
    const auto ncol = static_cast<uint32_t>(m->coldef.size());
    const auto ngroup = static_cast<uint32_t>(m->group.size());
    switch (dice->roll(5)) {
        case 0: {
            if (ncol == 0) break;
            const uint32_t c = dice->roll(ncol);
            m->coldef.push_back(m->coldef[c]);
            m->coldef.back().name[0] = static_cast<char>('a' + dice->roll(26));
            m->colstat.push_back(m->colstat[c]);
            for (group_t& g : m->group) g.meta.push_back(g.meta[c]);
            break;
        }
        case 1: {
            if (ncol == 0) break;
            const uint32_t c = dice->roll(ncol);
            m->coldef.erase(m->coldef.begin() + c);
            m->colstat.erase(m->colstat.begin() + c);
            for (group_t& g : m->group) g.meta.erase(g.meta.begin() + c);
            break;
        }
        case 2:
            if (ngroup == 0) break;
            for (uint32_t n = 1 + dice->roll(4); n > 0; n--) m->group.push_back(m->group[dice->roll(ngroup)]);
            break;
        case 3:
            if (ngroup > 0) m->group.erase(m->group.begin() + dice->roll(ngroup));
            break;
        default:
            if (ngroup > 0) {
                group_t& g = m->group[dice->roll(ngroup)];
                change_number(&g.head[dice->roll(3)], dice);
            }
    }
}

static void repair_hashes(model_t* m) {
    for (group_t& g : m->group)
        for (colmeta_t& meta : g.meta)
            if (const uint8_t* p = stored(m, meta))
                meta.hash = static_cast<int32_t>(XXH32(p, static_cast<size_t>(meta.zbyte), 0));
}

static void repair_counts(model_t* m) {
    m->schema.ncol = static_cast<int32_t>(m->coldef.size());
    m->schema.nrowgroup = static_cast<int64_t>(m->group.size());
    m->schema.coldefsz = static_cast<int32_t>(m->coldef.size() * sizeof(cvn_coldef_t));
    m->schema.colstatsz = static_cast<int32_t>(m->colstat.size() * sizeof(colstat_t));
    m->schema.rowgroupsz =
        m->schema.nrowgroup * static_cast<int64_t>(GROUP_HEADSZ + m->coldef.size() * sizeof(colmeta_t));
}

static void repair_rows(model_t* m) {
    uint64_t nrow = 0;
    for (group_t& g : m->group) {
        if (!g.meta.empty()) g.head[1] = g.meta[0].nrow;
        g.head[2] = static_cast<int32_t>(g.meta.size());
        nrow += static_cast<uint64_t>(int64_t{g.head[1]});
    }
    m->schema.nrow = static_cast<int64_t>(nrow);
}

static void change_schema(schema_desc_t* schema, dice_t* dice) {
    switch (dice->roll(7)) {
        case 0: change_number(&schema->version, dice); break;
        case 1: change_number(&schema->ncol, dice); break;
        case 2: change_number(&schema->nrowgroup, dice); break;
        case 3: change_number(&schema->nrow, dice); break;
        case 4: {  // the two sizes may lean on each other as long as their sum holds
            const int32_t by = static_cast<int32_t>(dice->roll(64)) - 32;
            schema->coldefsz += by;
            schema->colstatsz -= by;
            break;
        }
        case 5: change_number(&schema->coldefsz, dice); break;
        default: change_number(&schema->rowgroupsz, dice); break;
    }
}

static bytes_t assemble(const model_t& m, dice_t* dice) {
    bytes_t footer;
    put(&footer, m.schema);
    for (const cvn_coldef_t& d : m.coldef) put(&footer, d);
    for (const colstat_t& s : m.colstat) put(&footer, s);
    for (const group_t& g : m.group) {
        put(&footer, g.head);
        for (const colmeta_t& meta : g.meta) put(&footer, meta);
    }
    cvn_trailer_t trailer;
    trailer.footersz = static_cast<int64_t>(footer.size());
    trailer.hash = static_cast<int32_t>(XXH32(footer.data(), footer.size(), 0));
    memcpy(trailer.magic, CVN_TAIL_MAGIC, sizeof(trailer.magic));
    if (dice->roll(64) == 0) change_number(&trailer.footersz, dice);
    if (dice->roll(64) == 0) change_number(&trailer.hash, dice);
    bytes_t file = m.data;
    file.insert(file.end(), footer.begin(), footer.end());
    put(&file, trailer);
    return file;
}

static bytes_t mutate_blindly(const uint8_t* data, size_t size, size_t max_size) {
    bytes_t out(data, data + size);
    out.resize(std::max(size, max_size));
    out.resize(LLVMFuzzerMutate(out.data(), size, max_size));
    return out;
}

std::vector<uint8_t> fuzz::mutate_file(const uint8_t* data, size_t size, size_t max_size, dice_t* dice) {
    std::optional<model_t> m;
    if (dice->roll(16) != 0) m = parse(data, size);
    if (!m) return mutate_blindly(data, size, max_size);
    const bool rows = dice->roll(2) != 0;
    for (uint32_t n = 1 + dice->roll(3); n > 0; n--) {
        colmeta_t* const meta = pick(&*m, dice);
        switch (dice->roll(4)) {
            case 0:
                if (meta) change_meta(meta, dice);
                break;
            case 1:
                if (meta) change_chunk(&*m, meta, dice);
                break;
            case 2: change_column(&*m, dice); break;
            default: change_shape(&*m, dice);
        }
    }
    repair_counts(&*m);
    if (rows) repair_rows(&*m);
    if (dice->roll(8) != 0) repair_hashes(&*m);
    if (dice->roll(8) == 0) change_schema(&m->schema, dice);
    bytes_t file = assemble(*m, dice);
    return file.size() <= max_size ? file : mutate_blindly(data, size, max_size);
}
