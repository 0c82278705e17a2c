// The model writer: builds the one file that the rules allow for given rows. See reader.h.
#include <lz4.h>
#include <xxhash.h>

#include <cstring>

#include "reader/order.h"

namespace reader {

namespace {

constexpr int64_t GROUP_NBYTE = 32 << 20;
constexpr int64_t GROUP_NROW = 1048576;

int64_t align8(int64_t n) { return (n + 7) / 8 * 8; }

template <typename T>
void put(std::string& out, T v) {
    out.append(reinterpret_cast<const char*>(&v), sizeof(v));
}

// Where the row groups end: the number of the first row after each.
std::vector<size_t> cuts(const std::vector<column_t>& column, const std::vector<values_t>& value) {
    const size_t ncol = column.size(), nrow = value.empty() ? 0 : value[0].size();
    std::vector<int64_t> bufmax(ncol, 1 << 20), buftop(ncol, 0);
    std::vector<size_t> cut;
    size_t start = 0;
    int64_t reserved = 0;
    for (size_t r = 0; r < nrow; r++) {
        const auto flush = [&] {
            if (r == start) return;  // no rows, and nothing is written or forgotten
            cut.push_back(r);
            start = r;
            reserved = 0;
            buftop.assign(ncol, 0);
        };
        if (static_cast<int64_t>(r - start) >= GROUP_NROW) flush();
        std::vector<int64_t> need(ncol);
        for (size_t c = 0; c < ncol; c++) {
            const value_t& v = value[c][r];
            const int w = width(column[c].typ);
            need[c] =
                w ? w : static_cast<int64_t>(v.bytes.size()) + ((column[c].typ & 0xffff) == BYTEA ? 4 : 1);
            reserved += need[c];
            if (reserved > GROUP_NBYTE) flush();
            if (bufmax[c] - buftop[c] >= need[c]) continue;
            const int64_t grown =
                align8(static_cast<int64_t>(static_cast<double>(need[c] + bufmax[c]) * 1.2));
            if (buftop[c] > 0 && grown <= INT32_MAX) {
                bufmax[c] = grown;
            } else {
                if (buftop[c] > 0) flush();
                if (need[c] > bufmax[c]) bufmax[c] = align8(need[c]);
            }
        }
        for (size_t c = 0; c < ncol; c++) buftop[c] += need[c];
    }
    if (start < nrow) cut.push_back(nrow);
    return cut;
}

std::string raw_chunk(int32_t typ, const value_t* value, size_t nrow, int32_t* nmapoff) {
    std::string raw, map((nrow + 7) / 8, '\0');
    for (size_t r = 0; r < nrow; r++) {
        if (value[r].null) map[r / 8] = static_cast<char>(map[r / 8] | (0x80 >> (r % 8)));
        const std::string& bytes = value[r].null ? null_bytes(typ) : value[r].bytes;
        if ((typ & 0xffff) == BYTEA) put(raw, static_cast<int32_t>(bytes.size()));
        raw += bytes;
        if ((typ & 0xffff) == CSTR) raw += '\0';
    }
    *nmapoff = static_cast<int32_t>(raw.size());
    return raw + map;
}

std::string build(const std::vector<column_t>& column, const std::vector<values_t>& value, bool whole) {
    const int32_t ncol = static_cast<int32_t>(column.size());
    std::string out = whole ? "CVN1IX86" : "";
    std::string groups;
    std::vector<int64_t> nnull(column.size(), 0);
    std::vector<bounds_t> bounds(column.size());
    size_t from = 0;
    int64_t ngroup = 0;
    for (const size_t to : cuts(column, value)) {
        const size_t nrow = to - from, start = out.size();
        std::string metas;
        for (size_t c = 0; c < column.size(); c++) {
            int32_t nmapoff;
            const std::string raw = raw_chunk(column[c].typ, &value[c][from], nrow, &nmapoff);
            const int nbyte = static_cast<int>(raw.size());
            std::string stored = raw;
            if (nbyte >= 4096) {
                const double share = column[c].zflag ? 0.8 : 0.5;
                const int budget = static_cast<int>(align8(static_cast<int>(share * nbyte)));
                std::string z(static_cast<size_t>(budget), '\0');
                const int n = LZ4_compress_default(raw.data(), z.data(), nbyte, budget);
                if (n > 0) stored = z.substr(0, static_cast<size_t>(n));
            }
            int32_t null_rows = 0;
            for (size_t r = from; r < to; r++) null_rows += value[c][r].null;
            const bounds_t b = chunk_bounds(column[c], &value[c][from], nrow);
            nnull[c] += null_rows;
            merge_bounds(column[c].typ, bounds[c], b);

            put(metas, static_cast<int64_t>(out.size()));
            put(metas, static_cast<int32_t>(nrow));
            put(metas, static_cast<int8_t>(stored.size() < raw.size()));
            put(metas, static_cast<int8_t>(column[c].nflag));
            put(metas, int8_t{0});
            put(metas, static_cast<int8_t>(b.has));
            put(metas, nbyte);
            put(metas, static_cast<int32_t>(stored.size()));
            put(metas, null_rows);
            put(metas, nmapoff);
            put(metas, static_cast<uint32_t>(XXH32(stored.data(), stored.size(), 0)));
            metas.append(12, '\0');
            metas += b.minval + b.maxval;

            out += stored;
            out.resize(static_cast<size_t>(align8(static_cast<int64_t>(out.size()))), '\0');
        }
        put(groups, static_cast<int32_t>(out.size() - start));
        put(groups, static_cast<int32_t>(nrow));
        put(groups, ncol);
        put(groups, int32_t{0});
        groups += metas;
        ++ngroup;
        from = to;
    }
    if (!whole) return out;

    std::string foot;
    put(foot, int32_t{1});
    put(foot, ncol);
    put(foot, static_cast<int64_t>(value.empty() ? 0 : value[0].size()));
    put(foot, ngroup);
    put(foot, 136 * ncol);
    put(foot, 112 * ncol);
    put(foot, static_cast<int64_t>(groups.size()));
    for (const column_t& col : column) {
        std::string name = col.name;
        name.resize(128, '\0');
        foot += name;
        put(foot, col.typ);
        put(foot, static_cast<int8_t>(col.zflag));
        put(foot, static_cast<int8_t>(col.nflag));
        foot.append(2, '\0');
    }
    for (size_t c = 0; c < column.size(); c++) {
        put(foot, nnull[c]);
        put(foot, static_cast<int64_t>(bounds[c].has));  // one byte and seven unused ones
        foot += bounds[c].minval + bounds[c].maxval;
    }
    foot += groups;
    out += foot;
    put(out, static_cast<int64_t>(foot.size()));
    put(out, static_cast<uint32_t>(XXH32(foot.data(), foot.size(), 0)));
    return out + "CVN1";
}

}  // namespace

std::string encode(const std::vector<column_t>& column, const std::vector<values_t>& value) {
    return build(column, value, true);
}

std::string encode_stream(const std::vector<column_t>& column, const std::vector<values_t>& value) {
    return build(column, value, false);
}

}  // namespace reader
