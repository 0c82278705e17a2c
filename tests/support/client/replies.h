// Replies of a daemon made by hand: pages, records, chunks, and the columns that they should decode to.
#ifndef KELPD_TESTS_CLIENT_REPLIES_H
#define KELPD_TESTS_CLIENT_REPLIES_H

#include <lz4.h>
#include <xxhash.h>

#include <cstdio>
#include <string>
#include <vector>

#include "clients/cpp/client_int.h"
#include "reader/order.h"
#include "support.h"

namespace replies {

using namespace kelp;

using support::image;
using support::table_t;
using support::value_t;
using support::values_t;

// The uncompressed body of a page.
inline std::string raw_body(int32_t typ, const values_t& value) {
    std::string body, nullmap((value.size() + 7) / 8, '\0');
    const int storage = cvn_storage(typ);
    for (size_t r = 0; r < value.size(); r++) {
        const std::string& bytes = value[r].null ? reader::null_bytes(typ) : value[r].bytes;
        if (value[r].null) nullmap[r / 8] = static_cast<char>(nullmap[r / 8] | 0x80 >> (r % 8));
        if (storage == CVN_TYP_BYTEA)
            body += support::le32(value[r].null ? 0 : static_cast<int32_t>(bytes.size())) +
                    (value[r].null ? "" : bytes);
        else if (storage == CVN_TYP_CSTR)
            body += (value[r].null ? "" : bytes) + std::string(1, '\0');
        else
            body += bytes;
    }
    return body + nullmap;
}

inline int32_t hash_of(const std::string& stored) {
    return static_cast<int32_t>(XXH32(stored.data(), stored.size(), 0));
}

// A page, compressed if asked and if that makes it smaller.
inline std::string page(int32_t cno, int32_t typ, const values_t& value, bool compress) {
    const std::string raw = raw_body(typ, value);
    std::string stored = raw;
    if (compress) {
        std::string z(static_cast<size_t>(LZ4_compressBound(static_cast<int>(raw.size()))), '\0');
        const int n = LZ4_compress_default(raw.data(), z.data(), static_cast<int>(raw.size()),
                                           static_cast<int>(z.size()));
        if (n > 0 && static_cast<size_t>(n) < raw.size()) stored = z.substr(0, static_cast<size_t>(n));
    }
    cvn_page_t head{};
    head.magic = CVN_PAGE_MAGIC;
    head.cno = cno;
    head.typ = typ;
    head.nrow = static_cast<int32_t>(value.size());
    for (const value_t& v : value) head.nnull += v.null;
    head.nbyte = static_cast<int32_t>(raw.size());
    head.nmapoff = head.nbyte - static_cast<int32_t>((value.size() + 7) / 8);
    head.zbyte = static_cast<int32_t>(stored.size());
    head.hash = hash_of(stored);
    return image(head) + stored;
}

inline std::string record_head(int32_t nbyte) { return support::le32(RECORD_MAGIC) + support::le32(nbyte); }

// The pieces that the daemon sends as one chunk each: a record's head, then its pages.
inline std::vector<std::string> record(const std::vector<std::string>& pages) {
    size_t nbyte = 0;
    for (const std::string& p : pages) nbyte += p.size();
    std::vector<std::string> piece{record_head(static_cast<int32_t>(nbyte))};
    piece.insert(piece.end(), pages.begin(), pages.end());
    return piece;
}

// Rows `from` to `to` of the columns `col` of a table, as one record.
inline std::vector<std::string> record_of(const table_t& t, const std::vector<size_t>& col, size_t from,
                                          size_t to, bool compress) {
    std::vector<std::string> pages;
    for (const size_t c : col) {
        const auto first = t.value[c].begin() + static_cast<ptrdiff_t>(from);
        pages.push_back(page(static_cast<int32_t>(c), t.column[c].typ,
                             values_t(first, first + static_cast<ptrdiff_t>(to - from)), compress));
    }
    return record(pages);
}

inline std::string join(const std::vector<std::string>& piece) {
    std::string s;
    for (const std::string& p : piece) s += p;
    return s;
}

inline std::string chunk(const std::string& data) {
    char line[32];
    snprintf(line, sizeof(line), "%zx; chunk\r\n", data.size());
    return line + data + "\r\n";
}

inline const std::string STREAM_HEAD =
    "HTTP/1.1 200 OK\r\nDate: Sun, 04 Jul 2021 09:30:15 GMT\r\nConnection: close\r\n"
    "Transfer-encoding: chunked\r\nContent-type: application/octet-stream\r\n\r\n";

// A whole reply of these pieces and the end record.
inline std::string stream_reply(const std::vector<std::string>& piece) {
    std::string s = STREAM_HEAD;
    for (const std::string& p : piece) s += chunk(p);
    return s + chunk(record_head(0)) + "0\r\n\r\n";
}

inline std::string json_reply(const std::string& json) {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-length: " + std::to_string(json.size()) +
           "\r\nContent-type: application/json\r\n\r\n" + json;
}

inline std::string error_reply(const std::string& status) {
    return "HTTP/1.1 " + status +
           "\r\nConnection: close\r\nContent-length: " + std::to_string(status.size()) +
           "\r\nContent-type: application/plain\r\n\r\n" + status;
}

// The values of a decoded column.
inline values_t values_of(const kelp_vec_t& vec) {
    values_t out;
    for (int64_t r = 0; r < vec.nrow; r++) {
        if (kelp_vec_isnull(vec, r))
            out.push_back(support::null_value());
        else if (vec.width == 0)
            out.push_back(support::text(std::string(kelp_vec_text(vec, r))));
        else
            out.push_back(
                support::text(std::string(vec.value + r * vec.width, static_cast<size_t>(vec.width))));
    }
    return out;
}

}  // namespace replies
#endif
