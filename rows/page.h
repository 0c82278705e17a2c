// A page, from its stored bytes to a column that can be read. It comes from a file or from the network and is
// hostile: its head is checked against its type and size before a byte of it is used, its stored bytes against
// their hash, and every value of varying length by walking it once.
//
// A page body is one LZ4 block or the bytes themselves, either way the values and after them the null bitmap.
// The body of a fixed-width column needs nothing more than to be there. Values of varying width get a table of
// positions: for texts by one walk over the bytes that looks at 64 at a time.
#ifndef KELPD_ROWS_PAGE_H
#define KELPD_ROWS_PAGE_H

#include <stddef.h>
#include <stdint.h>

#include <mutex>
#include <span>
#include <vector>

#include "colvane/vec.h"

namespace rows {

// Memory for pages: aligned to 64, with BUF_SLACK bytes after it that may be read, and kept for the next row
// group when a page is done with, since fresh memory costs as much as the decompression into it. A pool may be
// shared by threads.
struct buf_t {
    char* p = nullptr;
    size_t cap = 0;
};
struct bufpool_t {
    std::mutex mutex;
    std::vector<buf_t> idle;
    size_t idlesz = 0;
    bufpool_t() = default;
    bufpool_t(const bufpool_t&) = delete;
    bufpool_t& operator=(const bufpool_t&) = delete;
    ~bufpool_t();
};
constexpr size_t BUF_SLACK = 64;
[[nodiscard]] buf_t buf_get(bufpool_t* pool, size_t nbyte);  // `p` is null without memory
void buf_put(bufpool_t* pool, buf_t buf);                    // an empty one is accepted
void bufpool_clear(bufpool_t* pool);                         // gives back what lies idle
[[nodiscard]] int64_t buf_most(int64_t nbyte);               // what a new buffer of `nbyte` takes at most

// A page's head is a cvn_page_t of which only the CVN_PAGE_HEADSZ bytes before `buf` are used: copy that many,
// not its size.

// The head of the page that a footer's record describes.
cvn_page_t page_head(const colmeta_t& meta, int cno, cvn_typ_t typ);

// Failures are phrases that say of a page of some column what is wrong with it. PAGE_NOMEM is the one that is
// not the page's fault: compare the pointer.
extern const char PAGE_NOMEM[];

// Checks what the head says, for its own type, before a byte of the page is used. Null when all is well.
[[nodiscard]] const char* page_check(const cvn_page_t& head);

// A decoded column: the view and the memory under it.
struct column_t {
    cvn_vec_t vec{};
    buf_t value;
    buf_t offset;
};

// Gives the memory back and empties the column.
void column_free(bufpool_t* pool, column_t* col);

// Checks the hash of the stored body and, unless it is stored as it is, decompresses it into `*raw`, whose
// memory is got when it has none and must otherwise have room. `stored` is the body of `head.zbyte` bytes; of
// a page that is stored as it is, raw->p itself. The head was checked. Null when all is well.
[[nodiscard]] const char* page_unpack(bufpool_t* pool, buf_t* raw, const cvn_page_t& head,
                                      const char* stored);

// Makes the view of a decompressed page, whose memory `col->value` holds. Nothing is copied; of varying widths
// the positions are found and stored in `col->offset`, whose memory is got when it has none and must otherwise
// have room. `name` is borrowed by the view. Null when all is well.
[[nodiscard]] const char* page_view(bufpool_t* pool, column_t* col, const cvn_page_t& head, const char* name);

// Finds the ends of `nrow` NUL-terminated texts in `valuesz` bytes: offset[r] is where text r begins,
// offset[nrow] is valuesz. False when there are not exactly that many. BUF_SLACK readable bytes lie after the
// values, and room for 4 more positions after the last one.
[[nodiscard]] bool find_texts(int32_t* offset, const char* value, int32_t valuesz, int32_t nrow);

// Removes all rows but those listed (ascending), in place.
void column_compact(column_t* col, std::span<const int32_t> row);

}  // namespace rows

#endif
