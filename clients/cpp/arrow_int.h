// Shared by the two halves of Arrow's part: arrow.cpp, which makes streams of batches, and arrow_convert.cpp,
// which makes schemas and arrays of columns. Never installed.
#pragma once

#include "clients/cpp/arrow.h"
#include "clients/cpp/client_int.h"

namespace kelp {

constexpr int ARROW_DECIMAL_DIGITS = 38;  // of a decimal128

// How the columns of a stream are expressed.
struct arrow_form_t {
    std::vector<kelp_column_t> column;
    std::vector<int> scale;  // by column; of decimals
    bool text_as_binary = false;
};

bool arrow_is_decimal(cvn_typ_t typ);

// Whether all bytes are well-formed UTF-8. A NUL is a character like any other, so texts with their NULs
// between are well-formed together exactly when each is.
bool arrow_is_utf8(const char* p, size_t n);

// What the values of a decimal column need.
struct arrow_need_t {
    int written = 0;  // places after the point, as the values are written
    int least = 0;    // without zeros at their ends
    int whole = 0;    // digits before it
};
// Takes the values of a batch into account. KELP_EUNFIT for one that no decimal128 is.
[[nodiscard]] int arrow_need_add(arrow_need_t* need, const kelp_vec_t& vec, kelp_error_t* err);
// The scale that expresses them all. KELP_EUNFIT when there is none.
[[nodiscard]] int arrow_need_scale(int* ret_scale, const arrow_need_t& need, const char* name,
                                   kelp_error_t* err);

// Makes the schema of a stream. False without memory; `*out` then may have to be released.
[[nodiscard]] bool arrow_schema(const arrow_form_t& form, ArrowSchema* out);

// Makes a record batch of a batch, whose memory it takes where it can. After a failure `*out` may have to be
// released.
[[nodiscard]] int arrow_array(const arrow_form_t& form, batch_t* batch, ArrowArray* out, kelp_error_t* err);

}  // namespace kelp
