// A CSV reader that hands out the fields of one row at a time without copying them.
//
// Input is read in large blocks. The positions of all delimiters, line feeds and quotes of a block are found
// first, 64 bytes at a time; rows are then cut along these positions. A row that continues after the block
// is moved to the front of the buffer and cut again when more has been read.
//
// Rules (RFC 4180 and what is common besides): a field that begins with a double quote ends at the next quote
// that is not doubled, and may hold delimiters and line ends; a quote inside a bare field is an ordinary
// character; lines end in LF or CR LF, the last one also in nothing; a UTF-8 byte-order mark at the very
// beginning is skipped.
#ifndef KELPD_TOOLS_CSV_H
#define KELPD_TOOLS_CSV_H

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

constexpr size_t CSV_BLOCKSZ = size_t{256} << 10;  // of a read: the block and its positions fit the L2 cache
constexpr size_t CSV_MAX_ROWSZ = size_t{256} << 20;  // a longer row is refused
constexpr size_t CSV_MAX_NFIELD = 1000000;           // a row of more fields is refused
constexpr size_t CSV_PADSZ = 64;                     // readable bytes after the last byte of any field

// One field of the current row. The bytes are the caller's to change until the next row is asked for.
struct csv_field_t {
    char* ptr;     // the text, NUL-terminated; borrowed from the reader, at least CSV_PADSZ readable bytes
                   // after it
    uint32_t len;  // its length in bytes
    bool quoted;   // it stood in quotes
    bool escaped;  // internal: doubled quotes are still to be undone
};

struct csv_t {
    std::string name;  // for messages
    int fd = -1;       // borrowed
    char delim = ',';
    size_t blocksz = CSV_BLOCKSZ;

    std::vector<csv_field_t> field;  // the current row: the first `nfield` entries
    size_t nfield = 0;
    int64_t line = 0;      // the line on which the current row begins, from 1
    int64_t nbyte = 0;     // bytes read so far
    bool has_nul = false;  // the block holds a NUL byte somewhere, so fields must be searched for one

    std::unique_ptr<char[]> buf;
    size_t bufsz = 0;                  // without the padding
    size_t cur = 0;                    // where the next row begins
    size_t top = 0;                    // end of the data
    std::unique_ptr<uint32_t[]> mark;  // positions of delimiters, line feeds and quotes from `cur` on
    size_t nmark = 0;
    size_t imark = 0;  // the first one of the next row
    int64_t next_line = 1;
    bool started = false;
    bool eof = false;
};

// Prepares a reader on an open descriptor. `name` is what messages call the input.
void csv_open(csv_t* csv, int fd, std::string name, char delim, size_t blocksz = CSV_BLOCKSZ);

// Cuts the next row into `field` and `nfield` (at least 1; an empty line is one empty field). Returns false
// at the end of the input. Throws tool_error for a quoted field that is not closed or goes on after its
// closing quote, for a row above CSV_MAX_ROWSZ or CSV_MAX_NFIELD and for a failed read.
bool csv_next(csv_t* csv);

// The scanner of csv_next by itself: writes the positions in [from, to) of `delim`, line feeds and quotes to
// `out`, which has room for to - from + 64 numbers, and sets `*has_nul` when a zero byte is there (it never
// clears it). `buf` is readable for CSV_PADSZ bytes after `to`. Returns how many.
size_t csv_index(const char* buf, size_t from, size_t to, char delim, uint32_t* out, bool* has_nul);

// The same, one byte at a time: what the fast forms are tested against.
size_t csv_index_plain(const char* buf, size_t from, size_t to, char delim, uint32_t* out, bool* has_nul);

#endif
