// arrow: rows of a kelpd's table or of a local file as an Arrow stream, for any consumer in the same process.
//
// The stream is the Arrow C stream interface: plain C structures, no library. A consumer takes its address,
// or its members. Each row group (what a filter leaves of it) becomes one record batch. After a failure every
// further call for a batch fails likewise. How types are expressed:
//
//   bool              bool                  repacked, a bit per row
//   int16 to int64    int16, int32, int64   in place
//   int128            fixed-size binary 16  in place [1]
//   float, double     float, double         in place
//   bytea             binary                copied without the length prefixes
//   cstr              utf8                  copied without the NULs [2]
//   dec64, dec128     decimal128(38, s)     converted, exactly or not at all; see `scale`
//   date              date32                in place, days since 1970-01-01
//   time_millis       time32(ms)            in place [3]
//   timestamp_millis  timestamp(ms)         in place, no time zone
//
// [1] Two's complement, little-endian, since no decimal of 128 bits holds 39 digits. The field's metadata
// call it the extension "arrow.opaque" with the type name "hugeint", which DuckDB reads as its own type; to
// others it is its bytes.
//
// [2] Text that is no UTF-8 is KELP_EUNFIT, unless `text_as_binary` makes the column binary. So is the name
// of a column that is none.
//
// [3] A value outside of one day is KELP_EUNFIT.
//
// "In place" means that the array's buffer is the memory into which the page was received or decompressed; it
// is released with the array, also when that is after the stream's end. Null bitmaps are converted.
#ifndef COLVANE_ARROW_H
#define COLVANE_ARROW_H

#include "client.h"

#ifdef __cplusplus
extern "C" {
#endif

// https://arrow.apache.org/docs/format/CDataInterface.html
#ifndef ARROW_C_DATA_INTERFACE
#define ARROW_C_DATA_INTERFACE

#define ARROW_FLAG_DICTIONARY_ORDERED 1
#define ARROW_FLAG_NULLABLE 2
#define ARROW_FLAG_MAP_KEYS_SORTED 4

struct ArrowSchema {
    const char* format;
    const char* name;
    const char* metadata;
    int64_t flags;
    int64_t n_children;
    struct ArrowSchema** children;
    struct ArrowSchema* dictionary;
    void (*release)(struct ArrowSchema*);
    void* private_data;
};

struct ArrowArray {
    int64_t length;
    int64_t null_count;
    int64_t offset;
    int64_t n_buffers;
    int64_t n_children;
    const void** buffers;
    struct ArrowArray** children;
    struct ArrowArray* dictionary;
    void (*release)(struct ArrowArray*);
    void* private_data;
};

#endif

// https://arrow.apache.org/docs/format/CStreamInterface.html
#ifndef ARROW_C_STREAM_INTERFACE
#define ARROW_C_STREAM_INTERFACE

struct ArrowArrayStream {
    int (*get_schema)(struct ArrowArrayStream*, struct ArrowSchema* out);
    int (*get_next)(struct ArrowArrayStream*, struct ArrowArray* out);
    const char* (*get_last_error)(struct ArrowArrayStream*);
    void (*release)(struct ArrowArrayStream*);
    void* private_data;
};

#endif

#ifdef __cplusplus
}
#endif

struct kelp_arrow_opt_t {
    // The scale of decimal columns, 0 to 38, by name. A stream has one scale for each, while every value of a
    // file has its own. A column that is not named here is read once beforehand to find the scale that
    // expresses all its values; when none does, and later when a value does not fit the scale, that is
    // KELP_EUNFIT.
    std::vector<std::pair<std::string, int>> scale;
    bool text_as_binary = false;
};

// Makes a stream of a scan. The stream is the caller's: its release callback ends the scan. What `opt.cancel`
// points at must outlive it. `*ret_stream` is written only on success. Finding a scale, the scan itself and
// the look at the catalogue before them have `opt.total_timeout_ms` each; when the table's columns
// change in between, that is KELP_ECHANGED.
[[nodiscard]] int kelp_arrow_scan(struct ArrowArrayStream* ret_stream, const kelp_query_t& query,
                                  const kelp_arrow_opt_t& arrow, const kelp_opt_t& opt, kelp_error_t* err);

// Makes a stream of a data file or of a directory that cvnx_split wrote: of the columns named, or of all when
// none is. Every page that is read is checked.
[[nodiscard]] int kelp_arrow_file(struct ArrowArrayStream* ret_stream, const char* fpath,
                                  const std::vector<std::string>& column, const kelp_arrow_opt_t& arrow,
                                  kelp_error_t* err);

// The same with conditions: of `query`, the columns, the conditions and `exact` are used. Row groups that, by
// the file's statistics, cannot hold a row that meets the conditions are not read; without `exact` the others
// are handed out whole.
[[nodiscard]] int kelp_arrow_file_query(struct ArrowArrayStream* ret_stream, const char* fpath,
                                        const kelp_query_t& query, const kelp_arrow_opt_t& arrow,
                                        kelp_error_t* err);

#endif
