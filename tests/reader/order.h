// Orders and null images that the strict reader and the model writer share.
#ifndef KELPD_TESTS_READER_ORDER_H
#define KELPD_TESTS_READER_ORDER_H

#include "reader/reader.h"

namespace reader {

// What a NULL of the type stores: zero bytes, the decimal zero, or nothing.
std::string null_bytes(int32_t typ);

// Adds the bounds of one more chunk to those of the file.
void merge_bounds(int32_t typ, bounds_t& file, const bounds_t& chunk);

}  // namespace reader
#endif
