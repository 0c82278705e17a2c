// A plain consumer of Arrow streams: it knows the interface's rules, checks them, and turns arrays into the
// values that the tests compare. It shares no code with the producer.
#ifndef KELPD_TESTS_CLIENT_ARROW_READER_H
#define KELPD_TESTS_CLIENT_ARROW_READER_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clients/cpp/arrow.h"
#include "support.h"

namespace arrow_reader {

struct field_t {
    std::string name, format;
    bool nullable;
    bool operator==(const field_t&) const = default;
};

// The fields of a stream; the schema is released, and asked for twice, which must give the same.
inline std::vector<field_t> fields_of(ArrowArrayStream* stream) {
    std::vector<field_t> once, twice;
    for (std::vector<field_t>* out : {&once, &twice}) {
        ArrowSchema schema;
        EXPECT_EQ(0, stream->get_schema(stream, &schema)) << stream->get_last_error(stream);
        if (!schema.release) return {};
        EXPECT_STREQ("+s", schema.format);
        EXPECT_EQ(nullptr, schema.dictionary);
        for (int64_t i = 0; i < schema.n_children; i++) {
            const ArrowSchema* child = schema.children[i];
            EXPECT_NE(nullptr, child->release);
            EXPECT_EQ(0, child->n_children);
            EXPECT_EQ(nullptr, child->dictionary);
            out->push_back({child->name, child->format, (child->flags & ARROW_FLAG_NULLABLE) != 0});
        }
        schema.release(&schema);
        EXPECT_EQ(nullptr, schema.release);
    }
    EXPECT_EQ(once, twice);
    return once;
}

// The bytes of each value of a child array: fixed width as they lie there, bool one byte, others their bytes.
inline support::values_t values_of(const ArrowArray& a, const std::string& format) {
    support::values_t out;
    EXPECT_EQ(0, a.offset);
    EXPECT_EQ(0, a.n_children);
    EXPECT_EQ(nullptr, a.dictionary);
    const bool varying = format == "z" || format == "u";
    EXPECT_EQ(varying ? 3 : 2, a.n_buffers);
    const auto* valid = static_cast<const uint8_t*>(a.buffers[0]);
    const auto* data = static_cast<const char*>(a.buffers[1]);
    size_t width = 0;
    if (format == "s") width = 2;
    if (format == "i" || format == "f" || format == "tdD" || format == "ttm") width = 4;
    if (format == "l" || format == "g" || format == "tsm:") width = 8;
    if (format == "w:16" || format.starts_with("d:38,")) width = 16;
    int64_t nnull = 0;
    for (int64_t r = 0; r < a.length; r++) {
        if (valid && !(valid[r / 8] >> (r % 8) & 1)) {
            out.push_back(support::null_value());
            nnull++;
        } else if (format == "b") {
            out.push_back(support::boolean(data[r / 8] >> (r % 8) & 1));
        } else if (varying) {
            const auto* offset = reinterpret_cast<const int32_t*>(data);
            EXPECT_LE(offset[r], offset[r + 1]);
            out.push_back(support::text({static_cast<const char*>(a.buffers[2]) + offset[r],
                                         static_cast<size_t>(offset[r + 1] - offset[r])}));
        } else {
            EXPECT_NE(0u, width) << format;
            out.push_back(support::text({data + static_cast<size_t>(r) * width, width}));
        }
    }
    EXPECT_EQ(nnull, a.null_count);
    return out;
}

// All values of a stream by column; the stream is not released. `code` is what its last get_next returned.
inline std::vector<support::values_t> read_all(ArrowArrayStream* stream, int* code) {
    const std::vector<field_t> field = fields_of(stream);
    std::vector<support::values_t> out(field.size());
    for (;;) {
        ArrowArray array;
        *code = stream->get_next(stream, &array);
        if (*code != 0 || !array.release) return out;
        EXPECT_EQ(static_cast<int64_t>(field.size()), array.n_children);
        EXPECT_EQ(1, array.n_buffers);
        EXPECT_EQ(nullptr, array.buffers[0]);
        EXPECT_EQ(0, array.null_count);
        EXPECT_GT(array.length, 0);
        for (size_t c = 0; c < field.size(); c++) {
            EXPECT_EQ(array.length, array.children[c]->length);
            const support::values_t v = values_of(*array.children[c], field[c].format);
            out[c].insert(out[c].end(), v.begin(), v.end());
        }
        array.release(&array);
        EXPECT_EQ(nullptr, array.release);
    }
}

}  // namespace arrow_reader
#endif
