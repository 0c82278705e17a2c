// What the fuzz targets of the client share: pieces to cut an input into, hashes put right, and columns read
// to their last byte.
#ifndef KELPD_FUZZ_FUZZ_CLIENT_H
#define KELPD_FUZZ_FUZZ_CLIENT_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <xxhash.h>

#include <string>
#include <string_view>
#include <vector>

#include "clients/cpp/client_int.h"
#include "fuzz/fuzz_file.h"

namespace fuzz {

using namespace kelp;

// Calls `take(p, n)` for pieces of `s`, each copied to memory of its own size, until it returns a code. Seed
// 0 gives one piece; other seeds give pieces of 1 to 64 bytes.
template <typename F>
int in_pieces(std::string_view s, unsigned seed, F take) {
    unsigned state = seed;
    while (!s.empty()) {
        state = state * 1664525u + 1013904223u;
        const size_t n = seed == 0 ? s.size() : std::min<size_t>(s.size(), 1 + (state >> 16) % 64);
        const std::vector<char> piece(s.begin(), s.begin() + static_cast<ptrdiff_t>(n));
        if (const int code = take(piece.data(), n)) return code;
        s.remove_prefix(n);
    }
    return 0;
}

// Walks the records of a reply and writes to every page the hash that its body has, which no mutation finds.
inline void repair_hashes(std::string* stream) {
    size_t at = 0;
    const auto left = [&] { return stream->size() - at; };
    while (left() >= RECORD_HEADSZ) {
        int32_t nbyte;
        memcpy(&nbyte, stream->data() + at + 4, sizeof(nbyte));
        at += RECORD_HEADSZ;
        while (nbyte >= CVN_PAGE_HEADSZ && left() >= CVN_PAGE_HEADSZ) {
            cvn_page_t head;
            memcpy(&head, stream->data() + at, CVN_PAGE_HEADSZ);
            const size_t body = left() - CVN_PAGE_HEADSZ;
            if (head.zbyte < 0 || static_cast<size_t>(head.zbyte) > body) return;
            if (head.zbyte > nbyte - CVN_PAGE_HEADSZ) return;
            const uint32_t hash =
                XXH32(stream->data() + at + CVN_PAGE_HEADSZ, static_cast<size_t>(head.zbyte), 0);
            memcpy(stream->data() + at + offsetof(cvn_page_t, hash), &hash, sizeof(hash));
            at += CVN_PAGE_HEADSZ + static_cast<size_t>(head.zbyte);
            nbyte -= CVN_PAGE_HEADSZ + head.zbyte;
        }
        if (nbyte != 0) return;
    }
}

// Appends every value of a column to `*out`, so that a sanitizer sees one that is not there.
inline void put_column(std::string* out, const kelp_vec_t& vec) {
    demand(vec.name && vec.value && vec.nullmap && vec.nrow >= 0, "a column lacks a part");
    demand((vec.width == 0) == (vec.offset != nullptr), "a column of varying width without positions");
    int64_t nnull = 0;
    for (int64_t r = 0; r < vec.nrow; r++) {
        const bool null = kelp_vec_isnull(vec, r);
        nnull += null;
        out->push_back(null ? 'n' : 'v');
        if (vec.width == 0)
            out->append(kelp_vec_text(vec, r));
        else
            out->append(vec.value + r * vec.width, static_cast<size_t>(vec.width));
    }
    demand(nnull == vec.nnull, "a column miscounts its NULLs");
}

// Puts an error into words; its texts must be single lines.
inline std::string error_text(int code, const kelp_error_t& err) {
    for (const char* text : {err.text, err.said, err.hint})
        for (const char* p = text; *p; p++)
            demand(static_cast<unsigned char>(*p) >= ' ' && *p != 0x7f, "an error text is not one line");
    demand(err.text[0] != '\0', "an error has no text");
    return std::to_string(code) + " " + err.text + " | " + err.said + " | " + err.hint;
}

inline constexpr cvn_typ_t TYPES[] = {
    CVN_TYP_BOOL,        CVN_TYP_INT16,           CVN_TYP_INT32, CVN_TYP_INT64, CVN_TYP_INT128, CVN_TYP_FLOAT,
    CVN_TYP_DOUBLE,      CVN_TYP_BYTEA,           CVN_TYP_CSTR,  CVN_TYP_DEC64, CVN_TYP_DEC128, CVN_TYP_DATE,
    CVN_TYP_TIME_MILLIS, CVN_TYP_TIMESTAMP_MILLIS};

}  // namespace fuzz
#endif
