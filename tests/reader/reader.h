// A second reader and writer of data files, for tests only. It shares no code with the library that it
// checks: it knows the format from docs/format.md, keeps everything in standard containers and is slow and
// strict on purpose. What the library writes must decode here without a complaint, and must equal, byte for
// byte, what encode() builds from the same rows.
#ifndef KELPD_TESTS_READER_READER_H
#define KELPD_TESTS_READER_READER_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace reader {

// Storage types, the low 16 bits of a column's type.
enum storage_t : int32_t {
    BOOL = 1,
    INT16 = 2,
    INT32 = 3,
    INT64 = 4,
    INT128 = 5,
    FLOAT = 6,
    DOUBLE = 7,
    BYTEA = 8,
    CSTR = 9,
    DEC64 = 10,
    DEC128 = 11,
};
inline constexpr int32_t DATE = (1 << 16) | INT32;
inline constexpr int32_t TIME_MILLIS = (2 << 16) | INT32;
inline constexpr int32_t TIMESTAMP_MILLIS = (3 << 16) | INT64;
inline constexpr int32_t ALL_TYPES[14] = {BOOL,  INT16, INT32, INT64,  INT128, FLOAT,       DOUBLE,
                                          BYTEA, CSTR,  DEC64, DEC128, DATE,   TIME_MILLIS, TIMESTAMP_MILLIS};

struct column_t {
    std::string name;
    int32_t typ = 0;
    bool zflag = false;
    bool nflag = false;
    bool operator==(const column_t&) const = default;
};

// One value: its bytes as they are stored, without the length of a byte string and without the NUL of a text.
// A NULL has no bytes.
struct value_t {
    bool null = false;
    std::string bytes;
    bool operator==(const value_t&) const = default;
};
using values_t = std::vector<value_t>;

struct bounds_t {
    bool has = false;
    std::string minval = std::string(48, '\0');  // datum images
    std::string maxval = std::string(48, '\0');
    bool operator==(const bounds_t&) const = default;
};

struct chunk_t {
    int64_t file_offset = 0;
    int32_t nrow = 0;
    bool zflag = false;
    int32_t nbyte = 0;
    int32_t zbyte = 0;
    int32_t nnull = 0;
    int32_t nmapoff = 0;
    uint32_t hash = 0;
    bounds_t bounds;
};

struct group_t {
    int32_t nbyte = 0;
    int32_t nrow = 0;
    std::vector<chunk_t> chunk;  // one per column
};

struct file_t {
    std::vector<column_t> column;
    std::vector<int64_t> nnull;    // per column
    std::vector<bounds_t> bounds;  // per column
    std::vector<group_t> group;
    std::vector<values_t> value;  // per column, all rows
    int64_t nrow = 0;
    uint32_t hash = 0;  // of the footer
};

// What decode() throws: a sentence on the first thing that is wrong.
struct damage_t : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Decodes a whole file and checks all of it: magics, sizes, sums, padding, hashes, compression, bitmaps,
// statistics.
file_t decode(std::string_view file);

// The values of one uncompressed chunk; checks that they end at `nmapoff` and that the bitmap ends the chunk.
values_t decode_chunk(int32_t typ, std::string_view raw, int32_t nrow, int32_t nmapoff);

// The file that the rules demand for these columns and rows (`value` is per column).
std::string encode(const std::vector<column_t>& column, const std::vector<values_t>& value);

// The same for a writer on a stream: the chunks alone.
std::string encode_stream(const std::vector<column_t>& column, const std::vector<values_t>& value);

// Whether `a` is strictly below `b` in the order of the type.
bool below(int32_t typ, const std::string& a, const std::string& b);

// Width of a storage type, 0 for the two that vary.
int width(int32_t typ);

// Bounds of the values of one chunk.
bounds_t chunk_bounds(const column_t& column, const value_t* value, size_t nrow);

}  // namespace reader
#endif
