// Shared by the sources of the library, never installed: arithmetic that cannot overflow, records read out of
// unaligned footers, and the steps that one source does for another.
#ifndef COLVANE_COLVANE_INT_H
#define COLVANE_COLVANE_INT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <bit>
#include <type_traits>

#include "colvane/colvane.h"

// A namespace of its own, so that none of these names can meet one of the program that links the library.
namespace colvane {

// Files are images of these records, so the host's byte order is the format's.
static_assert(std::endian::native == std::endian::little);

// The header asserts their layout for both languages; C++ can tell more: they may be copied as bytes, and
// initialising one of the first three leaves no byte of it to chance. The other records hold datums, whose
// unused bytes are cleared by hand.
static_assert(std::has_unique_object_representations_v<schema_desc_t> &&
              std::has_unique_object_representations_v<cvn_coldef_t> &&
              std::has_unique_object_representations_v<cvn_trailer_t>);
static_assert(std::is_trivially_copyable_v<colstat_t> && std::is_trivially_copyable_v<colmeta_t> &&
              std::is_trivially_copyable_v<rowgroup_t> && std::is_trivially_copyable_v<cvn_page_t>);

// The largest storage type (dec128).
constexpr int CVN_STORAGE_MAX = 11;

// The chunk rules of the writer.
constexpr int CVN_MAX_ROWGROUP_NBYTE = 33554432;  // value bytes after which a row group is cut
constexpr int CVN_COLBUF_INITSZ = 1048576;        // first capacity of a column buffer
constexpr int CVN_COLBUF_STARTSZ = 1024;          // what it has of that before rows come
constexpr int CVN_COLBUF_KEEPSZ = 50331648;       // memory of all column buffers that is kept for more rows
constexpr int CVN_COLBUF_SLACK = 32;              // after it, so that texts can be searched by blocks
constexpr int CVN_MIN_COMPRESS_NBYTE = 4096;      // smaller chunks are stored as they are
// The bytes of a cstr that statistics keep; a longer text is cut without a NUL.
constexpr size_t CVN_STAT_TEXTSZ = 40;

// Sizes of the footer's records, for walking by offset.
constexpr int64_t CVN_SCHEMASZ = sizeof(schema_desc_t);
constexpr int64_t CVN_COLDEFSZ = sizeof(cvn_coldef_t);
constexpr int64_t CVN_COLSTATSZ = sizeof(colstat_t);
constexpr int64_t CVN_COLMETASZ = sizeof(colmeta_t);

// Bytes of a null bitmap of `nrow` rows, 0 <= nrow.
inline int cvn_nmapsz(int nrow) { return nrow / 8 + (nrow % 8 != 0); }

// Rounds up to a multiple of 8; `v` is at most INT64_MAX - 7.
inline int64_t align8(int64_t v) { return (v + 7) & ~int64_t{7}; }

// Sums and products of numbers from outside. Return false, and leave `*ret` alone, when the result does not
// fit.
[[nodiscard]] inline bool add_fits(int64_t* ret, int64_t a, int64_t b) {
    int64_t sum;
    if (__builtin_add_overflow(a, b, &sum)) return false;
    *ret = sum;
    return true;
}
[[nodiscard]] inline bool mul_fits(int64_t* ret, int64_t a, int64_t b) {
    int64_t product;
    if (__builtin_mul_overflow(a, b, &product)) return false;
    *ret = product;
    return true;
}

// Copies one record out of a footer, where it may lie at any address.
template <typename T>
inline void load_record(T* ret, const void* base, int64_t offset) {
    memcpy(ret, static_cast<const char*>(base) + offset, sizeof(T));
}

// Returns the type that one of the 14 names stands for, or 0.
cvn_typ_t cvn_str_typ(const char* str);

// The order of statistics for one storage type, over images as they stand in chunks and in datums: whether
// the value at `a` is strictly below the value at `b`. Of texts at most `textmax` bytes count. bytea has no
// order: never below.
bool cvn_value_below(int storage, const char* a, const char* b, size_t textmax);

// Finds where the smallest and the largest of a column buffer's values that are not NULL lie, the first of
// equal ones, as element index or, for cstr, as byte offset. Both are -1 when there is none, and for bytea.
// `buf` has CVN_COLBUF_SLACK readable bytes after its values.
void cvn_find_minmax(int* ret_imin, int* ret_imax, int storage, const char* buf, int nrow, int nnull,
                     const char* nmap);

// A finite decimal64 taken apart: coeff * 10^exponent, |coeff| < 10^16. A negative zero is a zero.
struct dec64_parts_t {
    int64_t coeff;
    int exponent;
};

// Takes the image of a decimal64 apart. False for infinities and NaNs.
bool dec64_unpack(dec64_parts_t* ret, uint64_t bits);

// Returns -1, 0 or 1, or DEC_CANNOT_COMPARE when the exponents are too far apart for integers.
int dec64_compare_parts(const dec64_parts_t* a, const dec64_parts_t* b);
constexpr int DEC_CANNOT_COMPARE = 2;

// Write the decimal zero that stands for NULL, 8 or 16 bytes; it is not all zero bytes.
void cvn_dec64_zero(void* image);
void cvn_dec128_zero(void* image);

// The handle of a scan as callers see it, and what they do not.
struct cvn_scanner_t {
    cvn_scan_t pub;  // first: a cvn_scan_t* is a cvn_scanner_t*
    char* slab;      // pages of the current row group, in per_rowgroup_mpool; null before the first
    int64_t slabsz;
    char* scratch;  // stored bytes on their way through the decompressor, in per_rowgroup_mpool
    int64_t scratchsz;
};
static_assert(offsetof(cvn_scanner_t, pub) == 0);

inline cvn_scanner_t* scanner_of(cvn_scan_t* scan) { return reinterpret_cast<cvn_scanner_t*>(scan); }

inline bool has_rowgroup(const cvn_scan_t* scan, int64_t rg) {
    return rg >= 0 && rg < scan->schema->nrowgroup;
}

// The column's record of a row group; both exist.
inline void load_colmeta(colmeta_t* ret, const cvn_scan_t* scan, int64_t rg, int cno) {
    load_record(ret, scan->rowgroup[rg], CVN_ROWGROUP_HEADSZ + cno * CVN_COLMETASZ);
}

// What a column's pages are read from; in split mode once cvn_scan_open_column has opened it.
inline int column_fd(const cvn_scan_t* scan, int c) {
    return scan->split_mode ? scan->split_fd[c] : scan->fd;
}

// Split mode: opens a column's file unless it is open. Returns 0, -1 path too long, -3 (errno kept).
[[nodiscard]] int cvn_scan_open_column(cvn_scan_t* scan, int c);

// Pages may lie over each other in a file that is not ours; but not so that a small file takes memory or disk
// without end. What is stored in the pages that are taken together is at most this many times their file, or
// they are refused like a page that is not there (-3; a split ends); up to CVN_OVERLAP_FREE bytes it does not
// matter. The writer's pages never overlap, so only damaged or hostile files meet this.
constexpr int64_t CVN_MAX_OVERLAP = 4;
constexpr int64_t CVN_OVERLAP_FREE = 65536;
inline bool overlap_bearable(int64_t stored, int64_t filesz) {
    return stored <= CVN_OVERLAP_FREE || stored / CVN_MAX_OVERLAP <= filesz;
}

// Tells the kernel that a large block will be used whole, so that it is faulted in by large pages.
void cvn_advise_large(char* block, int64_t nbyte);
constexpr int64_t CVN_HUGE_PAGE = 2097152;

// Tells the kernel that hardly anything of a zeroed block will be touched, so that no large page is spent on
// it and its neighbours.
void cvn_advise_sparse(char* block, int64_t nbyte);

// Reads exactly `nbyte` bytes at `offset`. Returns false on failure (errno says why) or at the end of the
// file (errno 0). An interrupted read is tried again.
[[nodiscard]] bool cvn_pread_full(int fd, void* buf, size_t nbyte, int64_t offset);

// Copies `path` into `buf` with "//" turned into "/" and one trailing "/" removed. strlen(path) + 1 bytes are
// always enough. False when the result does not fit; `buf` then holds nothing of use.
[[nodiscard]] bool cvn_normalise_path(char* buf, size_t bufsz, const char* path);

// Returns the number of the first column of that name, or -1.
int cvn_scan_find_column(const cvn_scan_t* scan, const char* cname);

// Applies all predicates to the file's statistics, or to those of one row group. 1, 0 or a negative code.
int qualify_file(cvn_scan_t* scan);
int qualify_rowgroup(cvn_scan_t* scan, int rg);

}  // namespace colvane
#endif
