// A data file as an Arrow stream, taken by a consumer that trusts nothing.
//
//   byte 0       bit 0: texts as binary; bit 1: rows are filtered; bit 2: a scale for the first decimal column
//   byte 1       that scale
//   byte 2, 3    the condition: a column, an operator and a constant
//   the rest     a data file
//
// Demanded: the stream keeps to the interface. Every buffer is as long as its format says, positions ascend,
// texts are UTF-8, NULLs are as many as are claimed, children outlive the stream, and what is released is
// released once. A failure has words, and comes again.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "clients/cpp/arrow_int.h"
#include "fuzz/exercise.h"
#include "fuzz/fuzz_client.h"
#include "fuzz/mutate.h"

using fuzz::demand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

constexpr size_t OWNSZ = 4;
constexpr int MAX_BATCHES = 16;

size_t fuzz::file_offset(const uint8_t*, size_t) { return OWNSZ; }

static volatile unsigned sink;

static void touch(const void* p, int64_t n) {
    unsigned sum = 0;
    for (int64_t i = 0; i < n; i++) sum += static_cast<const unsigned char*>(p)[i];
    sink = sink + sum;
}

// Bits of a value of this format; 0 for those of varying width.
static int64_t width_of(std::string_view format) {
    if (format == "b") return 1;
    if (format == "s") return 16;
    if (format == "i" || format == "f" || format == "tdD" || format == "ttm") return 32;
    if (format == "l" || format == "g" || format == "tsm:") return 64;
    if (format == "w:16" || format.starts_with("d:38,")) return 128;
    demand(format == "u" || format == "z", "an unknown format");
    return 0;
}

static bool is_null(const ArrowArray& a, int64_t r) {
    return a.buffers[0] && (static_cast<const uint8_t*>(a.buffers[0])[r / 8] >> (r % 8) & 1) == 0;
}

static void check_child(const ArrowSchema& schema, const ArrowArray& a, int64_t nrow) {
    demand(a.length == nrow && a.offset == 0 && a.n_children == 0, "a child of another form");
    int64_t nnull = 0;
    for (int64_t r = 0; r < nrow; r++) nnull += is_null(a, r);
    demand(nnull == a.null_count, "NULLs are miscounted");
    const int64_t width = width_of(schema.format);
    if (width > 0) {
        demand(a.n_buffers == 2 && (a.buffers[1] || nrow == 0), "an array without its values");
        touch(a.buffers[1], (nrow * width + 7) / 8);
        if (strcmp(schema.format, "ttm") == 0)
            for (int64_t r = 0; r < nrow; r++) {
                const int32_t ms = static_cast<const int32_t*>(a.buffers[1])[r];
                demand(is_null(a, r) || (ms >= 0 && ms < 86400000), "a time that is none of a day");
            }
        return;
    }
    demand(a.n_buffers == 3 && a.buffers[1] && (a.buffers[2] || nrow == 0), "an array without its values");
    const auto* at = static_cast<const int32_t*>(a.buffers[1]);
    const char* const text = static_cast<const char*>(a.buffers[2]);
    demand(at[0] == 0, "positions that do not begin with 0");
    for (int64_t r = 0; r < nrow; r++) {
        demand(at[r + 1] >= at[r], "positions that do not ascend");
        demand(schema.format[0] != 'u' ||
                   kelp::arrow_is_utf8(text + at[r], static_cast<size_t>(at[r + 1] - at[r])),
               "a text that is no UTF-8");
    }
    touch(text, at[nrow]);
}

static void take_stream(ArrowArrayStream* stream) {
    ArrowSchema schema;
    demand(stream->get_schema(stream, &schema) == 0, "no schema");
    demand(strcmp(schema.format, "+s") == 0 && schema.n_children >= 0, "a schema that is no struct");
    for (int64_t c = 0; c < schema.n_children; c++) {
        const char* const name = schema.children[c]->name;
        demand(kelp::arrow_is_utf8(name, strlen(name)), "a name that is no UTF-8");
        (void)width_of(schema.children[c]->format);
    }
    ArrowArray kept{};  // outlives the stream
    for (int i = 0; i < MAX_BATCHES; i++) {
        ArrowArray batch;
        const int code = stream->get_next(stream, &batch);
        if (code != 0) {
            demand(exercise::one_of(code, {EINVAL, EIO, ENOMEM, ECANCELED, ETIMEDOUT, ENOENT}),
                   "an unknown errno");
            const char* const said = stream->get_last_error(stream);
            demand(said && *said, "a failure without words");
            ArrowArray other;
            demand(stream->get_next(stream, &other) == code, "a failure that does not come again");
            break;
        }
        if (!batch.release) break;
        demand(batch.n_children == schema.n_children && batch.null_count == 0 && batch.length > 0,
               "a batch of another form");
        for (int64_t c = 0; c < batch.n_children; c++)
            check_child(*schema.children[c], *batch.children[c], batch.length);
        if (batch.n_children > 0 && !kept.release) {
            kept = *batch.children[0];
            batch.children[0]->release = nullptr;  // moved, as the interface allows
        }
        const int64_t nrow = batch.length;
        batch.release(&batch);
        demand(!batch.release, "a batch that is released stays");
        if (kept.release && kept.length == nrow) check_child(*schema.children[0], kept, nrow);
    }
    stream->release(stream);
    demand(!stream->release, "a stream that is released stays");
    if (kept.release) {
        check_child(*schema.children[0], kept, kept.length);
        kept.release(&kept);
    }
    schema.release(&schema);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < OWNSZ) return 0;
    const fuzz::memory_file_t file(data + OWNSZ, size - OWNSZ);
    kelp_query_t query;
    kelp_arrow_opt_t arrow;
    arrow.text_as_binary = (data[0] & 1) != 0;
    query.exact = (data[0] & 8) == 0;
    cvn_scan_t* sc = nullptr;
    if (cvn_scan_open(&sc, file.path()) == 0) {
        // The conditions and the scale are of columns that there are.
        const int ncol = std::min(sc->schema->ncol, 64);
        const auto name_of = [&](int c) {
            return std::string(sc->coldef[c].name, strnlen(sc->coldef[c].name, 128));
        };
        if ((data[0] & 2) && ncol > 0) {
            constexpr const char* VALUES[] = {"0", "1", "x", "1.5", "2021-07-04", "true"};
            const int op = 1 + data[3] % 9;
            const int narg = op == CVN_OP_IN                                 ? data[3] / 9 % 3
                             : op == CVN_OP_ISNULL || op == CVN_OP_ISNOTNULL ? 0
                                                                             : 1;
            query.cond.push_back({name_of(data[2] % ncol), op, {}});
            for (int i = 0; i < narg; i++) query.cond[0].value.emplace_back(VALUES[(data[3] / 9 + i) % 6]);
        }
        for (int c = 0; c < ncol && (data[0] & 4); c++) {
            if (!kelp::arrow_is_decimal(sc->coldef[c].typ)) continue;
            arrow.scale.emplace_back(name_of(c), static_cast<int8_t>(data[1]));
            break;
        }
        (void)cvn_scan_close(sc);
    }
    ArrowArrayStream stream;
    memset(&stream, 0x55, sizeof(stream));
    kelp_error_t err{};
    const int code = kelp_arrow_file_query(&stream, file.path(), query, arrow, &err);
    if (code != 0) {
        (void)fuzz::error_text(code, err);
        demand(exercise::one_of(
                   code, {KELP_EARG, KELP_ENOMEM, KELP_EFILE, KELP_EPROTO, KELP_EDAMAGED, KELP_EUNFIT}),
               "an unknown code of a stream");
        demand(stream.private_data == reinterpret_cast<void*>(0x5555555555555555),
               "a failure sets its result");
        return 0;
    }
    take_stream(&stream);
    return 0;
}
