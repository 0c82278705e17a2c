// The strict reader: see reader.h.
#include "reader/reader.h"

#include <lz4.h>
#include <xxhash.h>

#include <cstring>

#include "reader/order.h"

namespace reader {

namespace {

// A cursor over the file's bytes that refuses to leave them.
struct bytes_t {
    std::string_view all;
    size_t at = 0;

    std::string_view take(size_t n, const char* what) {
        if (n > all.size() - at) throw damage_t(std::string(what) + " leads outside the file");
        const std::string_view part = all.substr(at, n);
        at += n;
        return part;
    }
    template <typename T>
    T get(const char* what) {
        T v;
        memcpy(&v, take(sizeof(T), what).data(), sizeof(T));
        return v;
    }
};

void demand(bool holds, const std::string& what) {
    if (!holds) throw damage_t(what);
}

void demand_zero(std::string_view part, const std::string& what) {
    for (const char c : part) demand(c == 0, what + " is not zero");
}

bool flag(bytes_t& in, const char* what) {
    const auto v = in.get<uint8_t>(what);
    demand(v <= 1, std::string(what) + " is neither 0 nor 1");
    return v == 1;
}

std::string image(bytes_t& in, const char* what) { return std::string(in.take(48, what)); }

}  // namespace

values_t decode_chunk(int32_t typ, std::string_view raw, int32_t nrow, int32_t nmapoff) {
    const size_t mapsz = (static_cast<size_t>(nrow) + 7) / 8;
    demand(nmapoff >= 0 && nrow >= 0 && raw.size() == static_cast<size_t>(nmapoff) + mapsz,
           "bitmap is not at the end");
    const std::string_view map = raw.substr(static_cast<size_t>(nmapoff));
    bytes_t in{raw.substr(0, static_cast<size_t>(nmapoff))};
    values_t value;
    value.reserve(static_cast<size_t>(nrow));
    for (int32_t r = 0; r < nrow; r++) {
        const bool null = (static_cast<uint8_t>(map[static_cast<size_t>(r) / 8]) & (0x80 >> (r % 8))) != 0;
        std::string_view v;
        if (const int w = width(typ)) {
            v = in.take(static_cast<size_t>(w), "value");
        } else if ((typ & 0xffff) == BYTEA) {
            const auto len = in.get<int32_t>("length");
            demand(len >= 0, "length is negative");
            v = in.take(static_cast<size_t>(len), "byte string");
        } else {
            const size_t len = in.all.substr(in.at).find('\0');
            demand(len != std::string_view::npos, "text has no end");
            v = in.take(len, "text");
            in.at += 1;
        }
        if (null) {
            demand(v == null_bytes(typ), "NULL is not stored as its zero");
            value.push_back({true, {}});
        } else {
            if ((typ & 0xffff) == BOOL) demand(v[0] == 0 || v[0] == 1, "bool is neither 0 nor 1");
            value.push_back({false, std::string(v)});
        }
    }
    demand(in.at == in.all.size(), "values do not end where the bitmap begins");
    for (size_t r = static_cast<size_t>(nrow); r < mapsz * 8; r++)
        demand((static_cast<uint8_t>(map[r / 8]) & (0x80 >> (r % 8))) == 0, "unused bitmap bit is set");
    return value;
}

file_t decode(std::string_view file) {
    file_t f;
    demand(file.size() >= 8 + 40 + 16, "file is too short");
    demand(file.substr(0, 8) == "CVN1IX86", "head magic");
    bytes_t tail{file, file.size() - 16};
    const auto size = tail.get<int64_t>("footer size");
    f.hash = tail.get<uint32_t>("footer hash");
    demand(tail.take(4, "tail magic") == "CVN1", "tail magic");
    demand(size >= 40 && static_cast<uint64_t>(size) <= file.size() - 24, "footer size");
    const size_t foot_at = file.size() - 16 - static_cast<size_t>(size);
    demand(foot_at % 8 == 0, "footer offset is not a multiple of 8");
    const std::string_view foot = file.substr(foot_at, static_cast<size_t>(size));
    demand(XXH32(foot.data(), foot.size(), 0) == f.hash, "footer hash");

    bytes_t in{foot};
    demand(in.get<int32_t>("version") == 1, "version");
    const auto ncol = in.get<int32_t>("ncol");
    f.nrow = in.get<int64_t>("nrow");
    const auto ngroup = in.get<int64_t>("nrowgroup");
    demand(ncol >= 1 && ncol <= 1000000 && ngroup >= 0 && f.nrow >= 0, "negative count");
    demand(in.get<int32_t>("coldefsz") == 136 * ncol, "coldefsz");
    demand(in.get<int32_t>("colstatsz") == 112 * ncol, "colstatsz");
    demand(in.get<int64_t>("rowgroupsz") == ngroup * (16 + 144 * ncol), "rowgroupsz");
    demand(size == 40 + 248 * ncol + ngroup * (16 + 144 * ncol), "footer size does not match its counts");

    std::vector<bool> nflag;
    for (int32_t c = 0; c < ncol; c++) {
        column_t col;
        const std::string_view name = in.take(128, "name");
        const size_t len = name.find('\0');
        demand(len != std::string_view::npos, "name has no NUL");
        col.name = std::string(name.substr(0, len));
        demand_zero(name.substr(len), "padding of a name");
        col.typ = in.get<int32_t>("typ");
        demand((col.typ & 0xffff) >= BOOL && (col.typ & 0xffff) <= DEC128, "type");
        col.zflag = flag(in, "zflag of a column");
        col.nflag = flag(in, "nflag of a column");
        demand_zero(in.take(2, "padding"), "padding of a column definition");
        f.column.push_back(col);
    }
    for (int32_t c = 0; c < ncol; c++) {
        f.nnull.push_back(in.get<int64_t>("nnull"));
        bounds_t b;
        b.has = flag(in, "hasminmax of a column");
        demand_zero(in.take(7, "unused"), "unused part of column statistics");
        b.minval = image(in, "minval");
        b.maxval = image(in, "maxval");
        f.bounds.push_back(b);
    }

    f.value.resize(static_cast<size_t>(ncol));
    std::vector<int64_t> nnull(static_cast<size_t>(ncol), 0);
    std::vector<bounds_t> bounds(static_cast<size_t>(ncol));
    size_t at = 8;
    int64_t nrow = 0;
    for (int64_t g = 0; g < ngroup; g++) {
        group_t group;
        group.nbyte = in.get<int32_t>("row group nbyte");
        group.nrow = in.get<int32_t>("row group nrow");
        demand(group.nrow >= 1 && group.nrow <= 1048576, "rows of a row group");
        demand(in.get<int32_t>("row group ncol") == ncol, "ncol of a row group");
        demand(in.get<int32_t>("row group unused") == 0, "unused part of a row group");
        const size_t start = at;
        for (int32_t c = 0; c < ncol; c++) {
            const size_t k = static_cast<size_t>(c);
            chunk_t m;
            m.file_offset = in.get<int64_t>("file_offset");
            m.nrow = in.get<int32_t>("chunk nrow");
            m.zflag = flag(in, "zflag of a chunk");
            demand(flag(in, "nflag of a chunk") == f.column[k].nflag, "nflag of a chunk");
            demand(in.get<uint8_t>("unused1") == 0, "unused1 of a chunk");
            m.bounds.has = flag(in, "hasminmax of a chunk");
            m.nbyte = in.get<int32_t>("nbyte");
            m.zbyte = in.get<int32_t>("zbyte");
            m.nnull = in.get<int32_t>("nnull");
            m.nmapoff = in.get<int32_t>("nmapoff");
            m.hash = in.get<uint32_t>("hash");
            demand(in.get<int32_t>("unused2") == 0, "unused2 of a chunk");
            demand(in.get<int64_t>("padding") == 0, "padding of a chunk");
            m.bounds.minval = image(in, "minval");
            m.bounds.maxval = image(in, "maxval");

            demand(m.file_offset == static_cast<int64_t>(at),
                   "chunk does not begin where the last one ended");
            demand(m.nrow == group.nrow, "rows of a chunk");
            demand(m.zbyte >= 0 && m.zbyte <= m.nbyte, "stored size");
            demand(m.zflag == (m.zbyte < m.nbyte), "zflag of a chunk and its sizes disagree");
            demand(!m.zflag || m.nbyte >= 4096, "a chunk below 4096 bytes is compressed");
            demand(static_cast<size_t>(m.zbyte) <= foot_at - at, "chunk leads into the footer");
            const std::string_view stored = file.substr(at, static_cast<size_t>(m.zbyte));
            demand(XXH32(stored.data(), stored.size(), 0) == m.hash, "hash of a chunk");
            std::string raw(stored);
            if (m.zflag) {
                raw.assign(static_cast<size_t>(m.nbyte), '\0');
                demand(LZ4_decompress_safe(stored.data(), raw.data(), m.zbyte, m.nbyte) == m.nbyte,
                       "decompression");
            }
            const values_t value = decode_chunk(f.column[k].typ, raw, m.nrow, m.nmapoff);
            int32_t seen = 0;
            for (const value_t& v : value) seen += v.null;
            demand(seen == m.nnull, "nnull of a chunk");
            demand(chunk_bounds(f.column[k], value.data(), value.size()) == m.bounds, "bounds of a chunk");
            nnull[k] += seen;
            merge_bounds(f.column[k].typ, bounds[k], m.bounds);
            f.value[k].insert(f.value[k].end(), value.begin(), value.end());

            at += static_cast<size_t>(m.zbyte);
            for (; at % 8 != 0; at++) demand(at < foot_at && file[at] == 0, "padding after a chunk");
            group.chunk.push_back(m);
        }
        demand(group.nbyte == static_cast<int64_t>(at - start), "nbyte of a row group");
        nrow += group.nrow;
        f.group.push_back(group);
    }
    demand(at == foot_at, "bytes between the last chunk and the footer");
    demand(nrow == f.nrow, "rows of the file");
    demand(nnull == f.nnull, "NULLs of a column");
    demand(bounds == f.bounds, "bounds of a column");
    return f;
}

}  // namespace reader
