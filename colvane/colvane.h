/* colvane: columnar data files, written, scanned, pruned and split.
 *
 * A file (name ending ".cvn") holds the rows of one table fragment: typed columns, rows cut into row groups,
 * each row group stored as one contiguous chunk per column, then a footer that describes everything and a
 * 16-byte trailer that locates the footer. docs/format.md decodes one byte by byte.
 *
 *   writing    cvn_create, cvn_create_column for every column, cvn_append for every row, cvn_close
 *   reading    cvn_scan_open, cvn_scan_add_required for every column wanted, cvn_scan_add_lens for every
 *              condition, cvn_scan_add_fragment if the scan is shared, cvn_scan_next until it returns
 *              non-zero, cvn_scan_close
 *   splitting  cvnx_split turns a file into a directory of one file per column; cvn_scan_open opens either
 *
 * Every function returns 0 on success or one of these codes, unless its comment says otherwise:
 *
 *    -1  an internal inconsistency; a formatted path or a size does not fit; bad decimal or int128 text
 *    -2  out of memory
 *    -3  an operating-system call failed or was short; errno is kept, and in the handle's os_errno
 *    -4  end of scan
 *    -5  unsupported column type
 *    -6  invalid argument, syntax or state
 *    -7  not a colvane file
 *   -10  invalid predicate
 *
 * Results that are named `ret` or `ret_...` are cleared on entry and set only on success, unless the comment
 * says otherwise. Nothing is printed, but for a corrupt memory pool (mpool.h).
 *
 * A handle belongs to one thread at a time; there is no global state. Files are hostile until proved
 * otherwise: what the reading functions hand out lies inside their buffers whatever the file holds. All
 * integers in files are little-endian, as is the host.
 */
#ifndef COLVANE_COLVANE_H
#define COLVANE_COLVANE_H

#include <assert.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "colvane/dec.h"
#include "colvane/fadvise.h"
#include "colvane/mpool.h"

/* A small function in a header, for both languages. */
#ifdef __cplusplus
#define CVN_INLINE constexpr
extern "C" {
#else
#define CVN_INLINE static inline
#endif

/* Types and values. */

/* A column's type: the low 16 bits are the storage type (1 to 11), which alone decides width, encoding, order
 * and parsing; the high 16 bits are a logical number that only gives it another name. A plain integer rather
 * than an enum, because files and requests may hold any number. */
typedef int32_t cvn_typ_t;
enum {
    CVN_TYP_BOOL = 1,                  /* 1 byte, 0 or 1 */
    CVN_TYP_INT16 = 2,                 /* 2 bytes, two's complement, as are the next three */
    CVN_TYP_INT32 = 3,                 /* 4 bytes */
    CVN_TYP_INT64 = 4,                 /* 8 bytes */
    CVN_TYP_INT128 = 5,                /* 16 bytes */
    CVN_TYP_FLOAT = 6,                 /* IEEE 754 binary32 */
    CVN_TYP_DOUBLE = 7,                /* IEEE 754 binary64 */
    CVN_TYP_BYTEA = 8,                 /* int32 length, then the bytes */
    CVN_TYP_CSTR = 9,                  /* the bytes of the text, then a NUL */
    CVN_TYP_DEC64 = 10,                /* decDouble, 8 bytes */
    CVN_TYP_DEC128 = 11,               /* decQuad, 16 bytes */
    CVN_TYP_DATE = 0x10003,            /* stored as int32 */
    CVN_TYP_TIME_MILLIS = 0x20003,     /* stored as int32, milliseconds of the day */
    CVN_TYP_TIMESTAMP_MILLIS = 0x30004 /* stored as int64, milliseconds */
};

/* Returns the storage type of `typ`, its low 16 bits: 1 to 11 (CVN_TYP_BOOL to CVN_TYP_DEC128) in a sound
 * type, 0 to 65535 in any. */
CVN_INLINE int cvn_storage(cvn_typ_t typ) { return typ & 0xffff; }

/* One value. It never owns memory: `t` and `a.ptr` borrow the caller's bytes. In files only the fixed-width
 * members and `raw` mean anything; all bytes that the value does not use are 0 there. */
typedef union cvn_datum_t {
    bool b;          /* bool */
    int16_t s;       /* int16 */
    int32_t i;       /* int32, date, time_millis */
    int64_t I;       /* int64, timestamp_millis */
    cvn_int128_t L;  /* int128 */
    decDouble dec64; /* dec64 */
    decQuad dec128;  /* dec128 */
    float f;         /* float */
    double F;        /* double */
    const char* t;   /* cstr: the text, NUL-terminated */
    struct {
        const char* ptr; /* bytea: the bytes */
        int32_t len;     /* and how many */
    } a;
    char raw[40]; /* statistics of cstr: the first 40 bytes, zero-padded, no NUL when the text is as long */
} cvn_datum_t;
static_assert(sizeof(cvn_datum_t) == 48, "a datum is 48 bytes in files and in memory");

#define CVN_NAME_SZ 128 /* a column name with its NUL */

/* A column definition, in files and in memory:
 *     0 128  name     NUL-terminated, zero-padded
 *   128   4  typ      cvn_typ_t
 *   132   1  zflag    1: chunks are stored compressed when that saves a fifth, else only when it saves half
 *   133   1  nflag    1: no minimum and maximum are kept
 *   134   2  padding  0
 * The flags are bytes, not bool, and the name of a damaged file may lack its NUL (it ends inside the footer
 * buffer all the same): print it with "%.127s". */
typedef struct cvn_coldef_t {
    char name[CVN_NAME_SZ];
    cvn_typ_t typ;
    uint8_t zflag;
    uint8_t nflag;
    char padding[2];
} cvn_coldef_t;
static_assert(sizeof(cvn_coldef_t) == 136, "size of cvn_coldef_t");
static_assert(offsetof(cvn_coldef_t, typ) == 128 && offsetof(cvn_coldef_t, zflag) == 132 &&
                  offsetof(cvn_coldef_t, nflag) == 133,
              "layout of cvn_coldef_t");

/* Returns the width in bytes of a value of the storage type of `typ`; -1 for bytea and -2 for cstr, whose
 * values vary; 0 for no type. */
int cvn_typlen(cvn_typ_t typ);

/* Returns the name of one of the 14 types ("int32", "date", ...), else "unknown". A constant string. */
const char* cvn_typ_str(cvn_typ_t typ);

/* Fills `*ret_datum` from text as the storage type of `typ` reads it: integers in base 0 (0x and leading-0
 * octal), text after a number ignored, empty text zero; bool as an integer; int128 and decimals as in dec.h;
 * cstr and bytea borrow `s` (bytea with its NUL). An int32 that overflows is truncated, an int64 clamped; an
 * int16 out of range is refused. Returns 0, -6, or -1 for bad decimal or int128 text; `*ret_datum` is written
 * only on success. */
int cvn_datum_from_string(cvn_datum_t* ret_datum, const char* s, cvn_typ_t typ);

/* Records of the file. */

#define CVN_FORMAT_VERSION 1      /* of the footer; there is no other */
#define CVN_HEAD_MAGIC "CVN1IX86" /* the first bytes of a file */
#define CVN_HEAD_SZ 8             /* how many they are */
#define CVN_TAIL_MAGIC "CVN1"     /* the last bytes of a file */
#define CVN_PAGE_MAGIC 0x19293949
#define CVN_MAX_ROWGROUP_NROW 1048576

/* The last 16 bytes of a file:
 *    0  8  footersz  bytes of the footer, which ends where the trailer begins
 *    8  4  hash      XXH32, seed 0, of the footer
 *   12  4  magic     CVN_TAIL_MAGIC, without a NUL */
typedef struct cvn_trailer_t {
    int64_t footersz;
    int32_t hash;
    char magic[4];
} cvn_trailer_t;
#define CVN_TRAILER_SZ 16
static_assert(sizeof(cvn_trailer_t) == CVN_TRAILER_SZ && offsetof(cvn_trailer_t, hash) == 8 &&
                  offsetof(cvn_trailer_t, magic) == 12,
              "layout of cvn_trailer_t");

/* The start of the footer:
 *    0  4  version     CVN_FORMAT_VERSION
 *    4  4  ncol        columns
 *    8  8  nrow        rows of the file
 *   16  8  nrowgroup   row groups
 *   24  4  coldefsz    bytes of the column definitions that follow: 136 * ncol
 *   28  4  colstatsz   bytes of the column statistics after them: 112 * ncol
 *   32  8  rowgroupsz  bytes of the row-group records after those: nrowgroup * (16 + 144 * ncol); readers do
 *                      not consult it */
typedef struct schema_desc_t {
    int32_t version;
    int32_t ncol;
    int64_t nrow;
    int64_t nrowgroup;
    int32_t coldefsz;
    int32_t colstatsz;
    int64_t rowgroupsz;
} schema_desc_t;
static_assert(sizeof(schema_desc_t) == 40 && offsetof(schema_desc_t, nrow) == 8 &&
                  offsetof(schema_desc_t, coldefsz) == 24 && offsetof(schema_desc_t, rowgroupsz) == 32,
              "layout of schema_desc_t");

/* Statistics of one column over the whole file:
 *    0  8  nnull      NULL values
 *    8  1  hasminmax  1 when minval and maxval are valid
 *    9  3  unused1 to unused3, 0
 *   12  4  unused4    0
 *   16 48  minval     smallest value that is not NULL
 *   64 48  maxval     largest */
typedef struct colstat_t {
    int64_t nnull;
    char hasminmax;
    char unused1;
    char unused2;
    char unused3;
    int32_t unused4;
    cvn_datum_t minval;
    cvn_datum_t maxval;
} colstat_t;
static_assert(sizeof(colstat_t) == 112 && offsetof(colstat_t, hasminmax) == 8 &&
                  offsetof(colstat_t, unused4) == 12 && offsetof(colstat_t, minval) == 16 &&
                  offsetof(colstat_t, maxval) == 64,
              "layout of colstat_t");

/* One column chunk of a row group:
 *    0  8  file_offset  where the stored bytes begin, a multiple of 8
 *    8  4  nrow         rows
 *   12  1  zflag        1 when the stored bytes are one LZ4 block
 *   13  1  nflag        the column's nflag
 *   14  1  unused1      0
 *   15  1  hasminmax    1 when minval and maxval are valid
 *   16  4  nbyte        bytes of the chunk, uncompressed: the values, then one bit per row
 *   20  4  zbyte        bytes stored; below nbyte exactly when compressed
 *   24  4  nnull        NULL rows
 *   28  4  nmapoff      where the null bitmap begins in the uncompressed chunk
 *   32  4  hash         XXH32, seed 0, of the stored bytes
 *   36  4  unused2      0
 *   40  8  unused3      0
 *   48 48  minval
 *   96 48  maxval */
typedef struct colmeta_t {
    int64_t file_offset;
    int32_t nrow;
    char zflag;
    char nflag;
    char unused1;
    char hasminmax;
    int32_t nbyte;
    int32_t zbyte;
    int32_t nnull;
    int32_t nmapoff;
    int32_t hash;
    int32_t unused2;
    int64_t unused3;
    cvn_datum_t minval;
    cvn_datum_t maxval;
} colmeta_t;
static_assert(sizeof(colmeta_t) == 144 && offsetof(colmeta_t, nrow) == 8 &&
                  offsetof(colmeta_t, zflag) == 12 && offsetof(colmeta_t, hasminmax) == 15 &&
                  offsetof(colmeta_t, nbyte) == 16 && offsetof(colmeta_t, zbyte) == 20 &&
                  offsetof(colmeta_t, nnull) == 24 && offsetof(colmeta_t, nmapoff) == 28 &&
                  offsetof(colmeta_t, hash) == 32 && offsetof(colmeta_t, minval) == 48 &&
                  offsetof(colmeta_t, maxval) == 96,
              "layout of colmeta_t");

/* The record of one row group: 16 + 144 * ncol bytes, so never take its sizeof:
 *    0  4  nbyte   bytes of the row group in the file, padding included
 *    4  4  nrow    rows
 *    8  4  ncol    columns
 *   12  4  unused  0
 *   16     colmeta, one per column */
typedef struct rowgroup_t {
    int32_t nbyte;
    int32_t nrow;
    int32_t ncol;
    int32_t unused;
    colmeta_t colmeta[1];
} rowgroup_t;
#define CVN_ROWGROUP_HEADSZ 16
static_assert(offsetof(rowgroup_t, nrow) == 4 && offsetof(rowgroup_t, ncol) == 8 &&
                  offsetof(rowgroup_t, colmeta) == CVN_ROWGROUP_HEADSZ,
              "layout of rowgroup_t");

/* A column chunk as the scanner hands it out and as scan replies carry it; 40 bytes and the body:
 *    0  4  magic    CVN_PAGE_MAGIC
 *    4  4  cno      column number
 *    8  4  typ      the column's declared type
 *   12  4  nrow     rows
 *   16  4  nnull    NULL rows
 *   20  4  nmapoff  where the null bitmap begins in the uncompressed body
 *   24  4  nbyte    bytes of the body, uncompressed
 *   28  4  zbyte    bytes in `buf`; equal to nbyte when they are not compressed
 *   32  4  hash     XXH32, seed 0, of the bytes as stored in the file
 *   36  4  unused   0
 *   40     buf      the body. Row r is NULL when bit 0x80 >> (r % 8) of byte nmapoff + r / 8 is set */
typedef struct cvn_page_t {
    int32_t magic;
    int32_t cno;
    cvn_typ_t typ;
    int32_t nrow;
    int32_t nnull;
    int32_t nmapoff;
    int32_t nbyte;
    int32_t zbyte;
    int32_t hash;
    int32_t unused;
    char buf[1];
} cvn_page_t;
#define CVN_PAGE_HEADSZ 40
static_assert(offsetof(cvn_page_t, cno) == 4 && offsetof(cvn_page_t, nrow) == 12 &&
                  offsetof(cvn_page_t, nbyte) == 24 && offsetof(cvn_page_t, hash) == 32 &&
                  offsetof(cvn_page_t, buf) == CVN_PAGE_HEADSZ,
              "layout of cvn_page_t");

/* Writer. */

/* The values of one column in the row group under way. Owned by the writer. */
typedef struct colbuf_t {
    int nrow;  /* rows */
    int nnull; /* NULL rows among them */
    /* Where the maximum and the minimum are: element index, for cstr the text's byte offset; -1 when there is
     * none. Found when the row group is written. */
    int imax;
    int imin;
    int bufmax;                           /* capacity of buf, bytes; its memory comes as it fills */
    int buftop;                           /* bytes of buf in use */
    char* buf;                            /* encoded values; owned */
    char nmap[CVN_MAX_ROWGROUP_NROW / 8]; /* null bitmap */
} colbuf_t;

/* A writer. Its fields are for reading only. */
typedef struct cvn_t {
    mpool_t* mpool;        /* owns the handle and all its buffers */
    int ncol;              /* declared columns */
    cvn_coldef_t* coldef;  /* their definitions; owned */
    colstat_t* colstat;    /* their statistics over the file so far; owned */
    int64_t nrow;          /* rows appended */
    int64_t nrowgroup;     /* row groups written */
    rowgroup_t** rowgroup; /* their records, for the footer; owned */
    int rgcur_nbyte;       /* value bytes reserved in the row group under way */
    colbuf_t** colbuf;     /* one per column; owned */
    char* fpath;           /* output path, owned; null for a caller's stream */
    FILE* fp;              /* output, owned; null after a failed write */
    int64_t fp_offset;     /* bytes written: the next chunk's file offset */
    int drop_file;         /* the output will be discarded; appends fail */
    int os_errno;          /* errno of the failed write */
    struct {
        int srcsz;
        int dstsz;
        char* src; /* the assembled chunk; owned */
        char* dst; /* its compressed form; owned */
    } zbuf;
} cvn_t;

/* Creates `fpath` (truncating what is there) and a writer on it. `*ret` is owned by the caller (cvn_close),
 * null on failure. Returns 0, -3 (nothing is created when the file cannot be opened) or -2; the file is
 * removed again. */
int cvn_create(cvn_t** ret, const char* fpath);

/* Creates a writer on a caller's open stream: its output is only the chunks, each followed by zero bytes up
 * to a multiple of 8, without head, footer and trailer. The writer takes over the stream: cvn_close closes
 * it. Returns 0, or -2 with `*ret` null and the stream left open. */
int cvn_create_stream(cvn_t** ret, FILE* fp);

/* Parses a column-definition string: definitions parted by commas, each NAME TYPE [-z] [-n], where NAME may
 * stand in double quotes (no escapes). `*ret_cdef` is one array for the caller to free(). The last definition
 * may be incomplete (empty name, type 0), and duplicate names are not detected. Returns 0, -2, or -6 for bad
 * syntax. */
int cvn_coldef_parse(cvn_coldef_t** ret_cdef, int* ret_ncdef, const char* defstr);

/* Declares the next column, before the first row. `name` is copied. Returns 0, -5 unsupported type, -6 rows
 * were appended already or the name is longer than 127 bytes, -2. Any failure destroys the writer: the handle
 * is gone, and neither is the stream closed nor the file removed. */
int cvn_create_column(cvn_t* sp, const char* name, cvn_typ_t typ, bool zflag, bool nflag);

/* Appends one row: `ndatum` values and NULL flags in column order; the value of a NULL is not looked at. What
 * the values point at is copied. A row group is written whenever it is full: 1,048,576 rows, 32 MiB of
 * values, or a column buffer that cannot grow; a row is never cut. Values are measured in column order, so a
 * row group that the columns before a refused value fill is written all the same. A writer without columns
 * counts a row of no values, and cannot be closed well for it. Returns 0, -6 wrong count, negative length
 * or an append after a failure, -3 write failed, -2, -1. After a failure only cvn_close remains useful; it
 * then removes the file. */
int cvn_append(cvn_t* sp, int ndatum, const cvn_datum_t* datum, const bool* isnull);

/* Writes what is left, the footer and the trailer, closes the stream and frees the writer, whatever the
 * result. Returns 0 when the file is complete, or when an earlier append failed (the file is then removed);
 * -6 without columns (the file is removed); -3 write or close failed, errno kept; -2, -1. After these three
 * an incomplete file stays, which every reader refuses. */
int cvn_close(cvn_t* sp);

/* Scanner. */

/* The value of a predicate, by storage type. */
typedef union lensval_t {
    int64_t I;       /* bool (zero-extended), int16, int32, int64 */
    double F;        /* float (widened), double */
    cvn_int128_t L;  /* int128 */
    decDouble dec64; /* dec64 */
    decQuad dec128;  /* dec128 */
    struct {
        const char* ptr; /* bytea: a copy in the scan's pool */
        int32_t len;
    } a;
    const char* t; /* cstr: a copy in the scan's pool */
} lensval_t;

/* A predicate on one column, decided on statistics alone. */
typedef struct lens_t {
    int cno;       /* column number */
    int op;        /* CVN_OP_... */
    lensval_t val; /* what is compared with; zero for CVN_OP_ISNULL and CVN_OP_ISNOTNULL */
} lens_t;

/* Predicate codes and their argument counts. */
enum {
    CVN_OP_EQ = 1,        /* 1 */
    CVN_OP_NE = 2,        /* 1 */
    CVN_OP_GT = 3,        /* 1 */
    CVN_OP_GE = 4,        /* 1 */
    CVN_OP_LT = 5,        /* 1 */
    CVN_OP_LE = 6,        /* 1 */
    CVN_OP_ISNULL = 7,    /* none */
    CVN_OP_ISNOTNULL = 8, /* none */
    CVN_OP_IN = 9         /* any number; never stored: becomes CVN_OP_GE and CVN_OP_LE */
};

/* A scan of one file or one split directory. Its fields are for reading only. The pointers into `schema_buf`
 * lead to records that are aligned when the file's sizes are the regular ones; in a damaged file they may lie
 * anywhere inside the buffer, so a record is copied out (cvn_scan_colstat, cvn_scan_colmeta) before it is
 * looked at. */
typedef struct cvn_scan_t {
    int fd;           /* the data file, or meta.cvnx in split mode; -1 once closed */
    char* fpath;      /* the path, normalised; owned */
    mpool_t* mpool;   /* owns the scan and all that lives as long */
    bool split_mode;  /* fpath is a directory that cvnx_split wrote */
    int* split_fd;    /* split mode: one descriptor per column, -1 until needed */
    char* split_path; /* split mode: scratch for paths */
    int split_pathsz; /* its size */
    char* schema_buf; /* the footer, verbatim; owned */
    int64_t schema_bufsz;
    int32_t schema_hash; /* the trailer's hash word */
    schema_desc_t* schema;
    cvn_coldef_t* coldef;
    colstat_t* colstat;
    rowgroup_t** rowgroup; /* nrowgroup pointers into schema_buf */
    int* qualify_index;    /* row groups that qualified, ascending */
    int qualify_top;       /* how many */
    int qualify_cur;       /* the next to return */
    int nlens;
    lens_t* lens; /* predicates, all of which must hold; owned */
    int fragid;
    int nfrag;    /* 0: no fragments */
    int os_errno; /* errno of the last failed read during open */
    int nreqcol;
    int* reqcol; /* required columns in the order of registration */
    bool started;
    bool disqualify_file;        /* an empty IN list: nothing qualifies */
    mpool_t* per_rowgroup_mpool; /* owns the pages of the current row group */
    cvn_page_t** page;           /* what cvn_scan_next returns */
} cvn_scan_t;

/* Per-file statistics. */
typedef struct cvn_filestat_t {
    int32_t chksum; /* the footer's hash */
    int32_t ncol;
    int64_t nrow;
    int64_t nrowgroup;
    int64_t nbyte; /* bytes of all chunks, uncompressed */
    int64_t zbyte; /* bytes of all chunks as stored */
} cvn_filestat_t;

/* Opens a data file, or a directory that cvnx_split wrote, and reads its footer. "//" in the path counts as
 * "/", and one trailing "/" is ignored. `*ret` is owned by the caller (cvn_scan_close) and untouched on
 * failure. Hashes are not verified. Returns 0, -1 (path too long), -2, -3 (errno kept; 0 when the file was
 * merely short) or -7. */
int cvn_scan_open(cvn_scan_t** ret, const char* orig_fpath);

/* Stores the number of columns. Returns 0. */
int cvn_scan_get_ncol(cvn_scan_t* sc, int* ncol);

/* Stores the number of columns and their definitions, which the scan owns. Returns 0. */
int cvn_scan_coldef(int* ncol, const cvn_coldef_t** coldef, cvn_scan_t* sc);

/* Returns the rows of row group `rg`, or -1 when there is no such row group. */
int64_t cvn_scan_get_rowgroup_size(cvn_scan_t* scan, int64_t rg);

/* Copy one footer record out, wherever it lies. Return 0, or -6 when there is no such column or row group;
 * the result is then zeros. */
int cvn_scan_colstat(cvn_scan_t* scan, int cno, colstat_t* ret_colstat);
int cvn_scan_colmeta(cvn_scan_t* scan, int64_t rg, int cno, colmeta_t* ret_colmeta);

/* Whether the stored bytes of the page that `m` describes all lie in a file of `filesz` bytes. A negative
 * size or offset lies in none; a page without stored bytes lies in every file, at any offset from 0. */
CVN_INLINE bool cvn_page_in_file(const colmeta_t* m, int64_t filesz) {
    return m->zbyte >= 0 && m->file_offset >= 0 &&
           (m->zbyte == 0 || (m->file_offset <= filesz && m->zbyte <= filesz - m->file_offset));
}

/* Says where the stored page of column `cno` in row group `rg` lies, for callers that read it themselves.
 *
 * ret_fd       the descriptor to read from, with pread. It belongs to the scan, which closes it.
 * ret_colmeta  the page's record: its `zbyte` bytes at `file_offset` were just seen to be in that file.
 *
 * The column need not be a required one. The results are cleared to -1 and to zeros. Returns 0, -6 when there
 * is no such column or row group, -3 when the column's file of a split directory cannot be opened (errno
 * kept) or the page does not lie in its file (errno 0), -1 path too long. */
int cvn_scan_locate(cvn_scan_t* scan, int64_t rg, int cno, int* ret_fd, colmeta_t* ret_colmeta);

/* Names a column to be read; pages come in the order of these calls. Returns 0, or -6: no such column, a
 * column named twice, or a call after the first predicate or the start of the scan. The second form also
 * wants the declared type to be exactly `typ`. */
int cvn_scan_add_required(cvn_scan_t* scan, const char* cname);
int cvn_scan_add_required_ex(cvn_scan_t* scan, const char* cname, cvn_typ_t typ);

/* Adds a predicate (CVN_OP_...) on a required column; all predicates must hold. `arg` is an array of `narg`
 * values of the column's type; what they point at is copied. Returns 0, -2, -6 unknown column or type, or
 * -10: the column is not required, an unknown code, a wrong count. Earlier predicates stay. */
int cvn_scan_add_lens(cvn_scan_t* sc, const char* cname, int op, int narg, cvn_datum_t* arg);

/* The CVN_OP_IN part of cvn_scan_add_lens: the list becomes a closed range. No element at all makes the whole
 * scan empty; two or more byte strings filter nothing. */
int add_in(cvn_scan_t* sc, const char* cname, int narg, cvn_datum_t* arg);

/* Makes this scan one of `nfrag` that share the file: it sees the row groups r with r mod nfrag = id. Returns
 * 0, or -6 unless 0 <= id < nfrag. */
int cvn_scan_add_fragment(cvn_scan_t* scan, int id, int nfrag);

/* Returns the next qualifying row group: `*ret_ncol` pages (one per required column, in their order) at
 * `*ret_page`. The pages belong to the scan and live until the next call of this function or of
 * cvn_scan_rowgroup. With `uncompress` the bodies are decompressed, else they are as stored. Returns 0, -4 at
 * the end (and ever after), -6 a predicate on a type that has no order, or the codes of cvn_scan_rowgroup. */
int cvn_scan_next(cvn_scan_t* scan, int* ret_ncol, cvn_page_t*** ret_page, bool uncompress);

/* Reads row group `rg` in the same way, at any time after the open. Returns 0, -6 no such row group or a page
 * that does not decompress to its size, -3 a page cannot be read whole, -1 a page is not compressed but its
 * sizes differ, -2. */
int cvn_scan_rowgroup(cvn_scan_t* scan, int64_t rg, int* ret_ncol, cvn_page_t*** ret_page, bool uncompress);

/* The two halves of cvn_scan_next for callers that pass pages on one by one, and need memory for the largest
 * only. The first stores the number of the next qualifying row group; its pages are not read, but they are
 * known to lie in the file. Codes as cvn_scan_next. The second reads the page of the k-th required column
 * (counted from 0) of a row group; it lives until the next read. Codes as cvn_scan_rowgroup. */
int cvn_scan_next_rowgroup(cvn_scan_t* scan, int64_t* ret_rg);
int cvn_scan_page(cvn_scan_t* scan, int64_t rg, int k, cvn_page_t** ret_page, bool uncompress);

/* Finds out whether the pages of the required columns from the first-th on can be read, without keeping them:
 * for a caller of the two halves that must know before it passes the first one on. It brings them into the
 * page cache, where reading them finds them, and may end the life of a page that was read before. Only a file
 * that is changed meanwhile, or memory so short that the kernel drops the pages again, can still fail a read
 * after it. Codes as cvn_scan_rowgroup. */
int cvn_scan_prove(cvn_scan_t* scan, int64_t rg, int first);

/* How far LZ4 can expand a block: more than this times its size never comes out. */
#define CVN_LZ4_MAX_RATIO 255

/* Decompresses the body of a page that is stored compressed, for callers that have only the page: one LZ4
 * block of `zbyte` bytes at `src` into exactly `nbyte` bytes at `dst`. Neither buffer is left, whatever the
 * block holds, and `dst` holds nothing of use after a failure. Returns 0, -6 when the block does not come out
 * so or not 0 < zbyte < nbyte, or -2. */
int cvn_lz4_decode(char* dst, int32_t nbyte, const char* src, int32_t zbyte);

/* Closes the scan and frees all that it handed out. Returns 0. */
int cvn_scan_close(cvn_scan_t* scan);

/* Fills `*fstat` for a file or split directory. Returns 0, the codes of cvn_scan_open, or -7 when a row
 * group's own column count leads outside the footer. `*fstat` is written only on success. */
int cvn_filestat(cvn_filestat_t* fstat, const char* fpath);

/* Stores the footer hash that the trailer holds, without reading the footer. The path may name a directory
 * that cvnx_split wrote, and is normalised as by cvn_scan_open. Returns 0, -3 when it cannot be opened (errno
 * kept), -7 not a colvane file, -1 when a directory's normalised path leaves no room for "/meta.cvnx" within
 * 4095 characters. */
int cvn_get_hash(int32_t* ret_hash, const char* orig_fpath);

/* Decides whether rows with these statistics may match a predicate: 1 they may, 0 they cannot, -6 the type
 * has no order. `minval` and `maxval` are null when no bounds are kept. */
int qualify(lens_t* ln, cvn_typ_t typ, int64_t nrow, int64_t nnull, cvn_datum_t* minval, cvn_datum_t* maxval);

/* Splitting. */

/* The working state of one split. */
typedef struct cvnx_split_t {
    cvn_scan_t* sc;             /* the source; owned */
    const cvn_coldef_t* coldef; /* its columns; borrowed from sc */
    char* buf;                  /* one page, reused; owned */
    /* ncol + 1 streams, at least 2, the last always null; borrowed from sc, the streams owned */
    FILE** fp;
} cvnx_split_t;

/* Rewrites the data file `fname` as a directory: "N.cvnx" with the stored pages of column N back to back, and
 * "meta.cvnx", which appears last, by rename. Returns 0, -2, -3, -6 (path too long), or a code of
 * cvn_scan_open. Kept: a page that cannot be read ends the split with 0 and without a meta.cvnx. */
int cvnx_split(const char* dpath, const char* fname);

/* The way out of cvnx_split: closes and frees all of `*sp` and returns `ret`. */
int cvnx_split_ret(int ret, cvnx_split_t* sp);

/* Creates a directory (mode 0700) and its missing parents; one trailing "/" is ignored. Returns 0, also when
 * something of that name exists, or -3 (errno kept). "" and "/" name nothing that could be made: -3. */
int mkdir_p(const char* dir);

#ifdef __cplusplus
}
#endif
#endif
