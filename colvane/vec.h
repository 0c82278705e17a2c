// vec: a decoded column of one row group as a view. What decodes pages makes these, what filters, prints or
// converts rows reads them; whoever hands one out says how long its memory lives.
#ifndef COLVANE_VEC_H
#define COLVANE_VEC_H

#include <stdint.h>
#include <string.h>

#include <string_view>

#include "colvane/colvane.h"

// Everything is borrowed.
//
// A value of fixed width r lies at `value` + r * `width`; `value` is aligned to 64 bytes, and a NULL row
// holds what the file held for it (zero). A bool is a byte, 0 or 1 (another value than 0 also means true). Of
// varying width (`width` 0), cvn_vec_text(vec, r) gives the bytes. A cstr also has its NUL after them.
struct cvn_vec_t {
    const char* name;
    cvn_typ_t typ;
    int width;
    int64_t nrow;
    int64_t nnull;
    const char* value;
    const int32_t* offset;  // varying width: nrow + 1 positions in `value`; null otherwise
    int gap;  // bytes between the end of one value and the beginning of the next: 1 cstr, 4 bytea
    const uint8_t* nullmap;  // row r is NULL when bit 0x80 >> (r % 8) of byte r / 8 is set; never null
};

inline bool cvn_vec_isnull(const cvn_vec_t& vec, int64_t row) {
    return (vec.nullmap[row / 8] & (0x80 >> (row % 8))) != 0;
}

// The bytes of a bytea or cstr value; empty for NULL.
inline std::string_view cvn_vec_text(const cvn_vec_t& vec, int64_t row) {
    const int32_t* at = vec.offset + row;
    return {vec.value + at[0], static_cast<size_t>(at[1] - at[0] - vec.gap)};
}

// A value of fixed width; T is the type that colvane.h names for it.
template <typename T>
inline T cvn_vec_get(const cvn_vec_t& vec, int64_t row) {
    T v;
    memcpy(&v, vec.value + row * static_cast<int64_t>(sizeof(T)), sizeof(T));
    return v;
}

// Fills `*ret` with the value of a row that is not NULL. It borrows the column.
inline void cvn_vec_datum(const cvn_vec_t& vec, int64_t row, cvn_datum_t* ret) {
    if (cvn_storage(vec.typ) == CVN_TYP_BOOL) {
        ret->b = vec.value[row] != 0;  // the byte may be any, a bool may not
    } else if (vec.width > 0) {
        memcpy(ret, vec.value + row * vec.width, static_cast<size_t>(vec.width));
    } else {
        const std::string_view text = cvn_vec_text(vec, row);
        if (vec.gap == 1) {
            ret->t = text.data();
        } else {
            ret->a.ptr = text.data();
            ret->a.len = static_cast<int32_t>(text.size());
        }
    }
}

#endif
