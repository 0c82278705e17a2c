// Column pages as rows of values, as verify reads them: a walk of its own, so that a fault of the one that
// all other readers share (rows/page.h) does not hide from it. A page comes from a file and is proved before
// any value of it is touched: the counts against its size, and every variable-length value by walking it
// once.
#ifndef KELPD_TOOLS_VERIFY_PAGE_H
#define KELPD_TOOLS_VERIFY_PAGE_H

#include <stdint.h>
#include <string.h>

#include <vector>

#include "colvane/colvane.h"

// One decompressed page.
struct verify_page_t {
    cvn_typ_t typ = 0;
    int64_t nrow = 0;
    int width = 0;                        // bytes of a value; -1 bytea, -2 cstr
    const char* value = nullptr;          // borrowed from the page
    const unsigned char* nmap = nullptr;  // likewise
    std::vector<uint32_t> offset;         // bytea and cstr: where each value begins
};

// Sets up `ret` from the body of a page: `nbyte` bytes, of which those from `nmapoff` on are the null bitmap.
// `ret` borrows the body. Returns null, or what is wrong with it.
const char* verify_page_decode(verify_page_t* ret, cvn_typ_t typ, int64_t nrow, const char* body,
                               int64_t nbyte, int64_t nmapoff);

inline bool verify_page_isnull(const verify_page_t& col, int64_t row) {
    return (col.nmap[row / 8] & (0x80 >> (row % 8))) != 0;
}

// Fills `*ret` with the value of a row. It borrows the page.
inline void verify_page_datum(const verify_page_t& col, int64_t row, cvn_datum_t* ret) {
    if (col.width > 0) {
        memcpy(ret, col.value + row * col.width, static_cast<size_t>(col.width));
    } else if (col.width == -2) {
        ret->t = col.value + col.offset[row];
    } else {
        memcpy(&ret->a.len, col.value + col.offset[row], sizeof(int32_t));
        ret->a.ptr = col.value + col.offset[row] + sizeof(int32_t);
    }
}

#endif
