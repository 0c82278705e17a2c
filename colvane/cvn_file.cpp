// cvn_file: opening and closing files, the footer and where its records are, and what can be asked of a file
// without scanning it.
//
// The footer is read with one positional read and used in place. Before anything is taken from it, one
// function proves that its parts lie inside the buffer; records are then copied out before use wherever a
// damaged file may have put them off alignment.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

using namespace colvane;

namespace {

constexpr int64_t CVN_SEEK_PROBE = 20;  // a position that every seekable file takes
constexpr int CVN_SPLIT_SUFFIXSZ = 30;  // "/" and the longest name in a split directory
constexpr size_t CVN_PATH_MAX = 4096;

// What the footer's numbers say about where its records are, as offsets in the buffer.
struct geometry_t {
    int64_t colstat;   // first column statistics
    int64_t rowgroup;  // first row-group record
    int64_t recordsz;  // bytes of one row-group record
};

}  // namespace

bool colvane::cvn_pread_full(int fd, void* buf, size_t nbyte, int64_t offset) {
    char* p = static_cast<char*>(buf);
    errno = 0;
    while (nbyte > 0) {
        const ssize_t n = pread(fd, p, nbyte, offset);
        if (n < 0 && errno == EINTR) {
            errno = 0;
            continue;
        }
        if (n <= 0) return false;
        // The kernel moves at most 2 GiB at once; only the end of the file makes the sum short.
        p += n;
        nbyte -= static_cast<size_t>(n);
        offset += n;
    }
    return true;
}

bool colvane::cvn_normalise_path(char* buf, size_t bufsz, const char* path) {
    // One byte more than is kept: the last "/" needs its place before it is seen to be the last.
    size_t len = 0;
    for (const char* p = path; *p; p++) {
        if (*p == '/' && len > 0 && buf[len - 1] == '/') continue;
        if (len == bufsz) return false;
        buf[len++] = *p;
    }
    if (len > 0 && buf[len - 1] == '/') len--;
    if (len == bufsz) return false;
    buf[len] = '\0';
    return true;
}

void colvane::cvn_advise_large(char* block, int64_t nbyte) {
    constexpr int64_t PART = CVN_HUGE_PAGE - 1;
    const auto before = static_cast<int64_t>(-reinterpret_cast<uintptr_t>(block) & PART);
    const int64_t whole = (nbyte - before) & ~PART;
    if (whole <= 0) return;
    const int saved = errno;
    (void)madvise(block + before, static_cast<size_t>(whole), MADV_HUGEPAGE);  // a hint
    errno = saved;
}

void colvane::cvn_advise_sparse(char* block, int64_t nbyte) {
    // Outwards to whole pages: large blocks are mappings of their own, and so their neighbours stay alike.
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t before = reinterpret_cast<uintptr_t>(block) & (page - 1);
    const auto whole = (static_cast<uintptr_t>(nbyte) + before + page - 1) & ~(page - 1);
    const int saved = errno;
    (void)madvise(block - before, whole, MADV_NOHUGEPAGE);  // a hint
    errno = saved;
}

// Opening.

static int cvn_scan_open_err(int code, cvn_scan_t* sc) {
    const int saved = errno;
    (void)cvn_scan_close(sc);  // always 0
    errno = saved;
    return code;
}

// Proves that the footer's parts lie inside it. The sizes need not be the regular ones, as long as they add
// up and everything that they lead to is there.
//
// This judges a damaged footer more strictly than finding its row groups would need: their records alone must
// end where the footer does, but definitions and statistics are used as well, and those of a column count
// that the footer does not bear would be read beyond it. To a caller both are footers that do not add up.
static bool footer_geometry(geometry_t* ret, const schema_desc_t* schema, int64_t footersz) {
    geometry_t g{};
    int64_t end = 0, colstatsz = 0, coldefsz = 0;
    if (schema->ncol < 0 || schema->nrowgroup < 0) return false;
    if (!mul_fits(&coldefsz, CVN_COLDEFSZ, schema->ncol) || coldefsz > footersz - CVN_SCHEMASZ) return false;
    g.colstat = CVN_SCHEMASZ + schema->coldefsz;
    if (g.colstat < 0 || g.colstat > footersz) return false;
    if (!mul_fits(&colstatsz, CVN_COLSTATSZ, schema->ncol) || colstatsz > footersz - g.colstat) return false;
    g.rowgroup = g.colstat + schema->colstatsz;
    if (g.rowgroup < 0 || g.rowgroup > footersz) return false;
    g.recordsz = CVN_ROWGROUP_HEADSZ + CVN_COLMETASZ * schema->ncol;
    if (!mul_fits(&end, g.recordsz, schema->nrowgroup) || end != footersz - g.rowgroup) return false;
    *ret = g;
    return true;
}

// Opens the file, or in split mode its meta.cvnx, and sets what depends on which of the two it is.
static int open_source(cvn_scan_t* sc) {
    struct stat st;
    const char* path = sc->fpath;
    if (stat(sc->fpath, &st) == 0 && S_ISDIR(st.st_mode)) {
        const size_t len = strlen(sc->fpath);
        if (len > static_cast<size_t>(INT_MAX) - CVN_SPLIT_SUFFIXSZ) return -1;
        sc->split_pathsz = static_cast<int>(len) + CVN_SPLIT_SUFFIXSZ;
        sc->split_path = static_cast<char*>(mpool_alloc(sc->mpool, static_cast<size_t>(sc->split_pathsz)));
        if (!sc->split_path) return -2;
        if (snprintf(sc->split_path, static_cast<size_t>(sc->split_pathsz), "%s/meta.cvnx", sc->fpath) >=
            sc->split_pathsz)
            return -1;
        path = sc->split_path;
    }
    errno = 0;
    sc->fd = open(path, O_RDONLY | O_CLOEXEC);
    if (sc->fd < 0) {
        sc->os_errno = errno;
        return -3;
    }
    sc->split_mode = sc->split_path != nullptr;
    return 0;
}

// A failed or short read while opening: errno is kept (0 for a short read) and the descriptor closed.
static int read_err(cvn_scan_t* sc) {
    sc->os_errno = errno;
    close(sc->fd);
    sc->fd = -1;
    errno = sc->os_errno;
    return -3;
}

// Reads head, trailer and footer.
static int read_footer(cvn_scan_t* sc) {
    char head[CVN_HEAD_SZ];
    if (!cvn_pread_full(sc->fd, head, sizeof(head), 0)) return read_err(sc);
    if (memcmp(head, CVN_HEAD_MAGIC, sizeof(head)) != 0) return -7;
    if (lseek(sc->fd, 0, SEEK_END) < 0) return -3;
    if (lseek(sc->fd, CVN_SEEK_PROBE, SEEK_SET) < 0) return -7;  // Kept: the position itself is of no use
    const int64_t trailer_offset = lseek(sc->fd, -CVN_TRAILER_SZ, SEEK_END);
    if (trailer_offset < 0) return -3;
    cvn_trailer_t trailer;
    if (!cvn_pread_full(sc->fd, &trailer, sizeof(trailer), trailer_offset)) return read_err(sc);
    if (memcmp(trailer.magic, CVN_TAIL_MAGIC, sizeof(trailer.magic)) != 0) return -7;
    if (trailer.footersz < CVN_HEAD_SZ) return -7;
    sc->schema_bufsz = trailer.footersz;
    sc->schema_hash = trailer.hash;
    // The size is a claim: it must lie in the file, and in a read's length, before it sizes a buffer.
    if (trailer.footersz > trailer_offset || trailer.footersz > INT32_MAX) {
        errno = 0;
        return read_err(sc);
    }
    if (trailer.footersz < CVN_SCHEMASZ) return -7;
    // Placed so that the records of a consistent file are aligned: its statistics lie at 16 k + 8 in the
    // footer when it has an even number of columns, and then its size is 8 modulo 16. The NUL after the
    // footer ends what is taken for a string in a damaged one.
    const int64_t shift = trailer.footersz % 8 == 0 ? trailer.footersz % 16 : 0;
    auto* block =
        static_cast<char*>(mpool_alloc(sc->mpool, static_cast<size_t>(trailer.footersz + shift + 1)));
    if (!block) return -2;
    cvn_advise_large(block, trailer.footersz);
    sc->schema_buf = block + shift;
    sc->schema_buf[trailer.footersz] = '\0';
    if (!cvn_pread_full(sc->fd, sc->schema_buf, static_cast<size_t>(trailer.footersz),
                        trailer_offset - trailer.footersz))
        return read_err(sc);
    return 0;
}

// Points the scan at the footer's records.
static int map_footer(cvn_scan_t* sc) {
    sc->schema = reinterpret_cast<schema_desc_t*>(sc->schema_buf);
    if (sc->schema->version != CVN_FORMAT_VERSION) return -7;
    geometry_t g;
    if (!footer_geometry(&g, sc->schema, sc->schema_bufsz)) return -7;
    sc->coldef = reinterpret_cast<cvn_coldef_t*>(sc->schema_buf + CVN_SCHEMASZ);
    sc->colstat = reinterpret_cast<colstat_t*>(sc->schema_buf + g.colstat);
    const auto nrowgroup = static_cast<size_t>(sc->schema->nrowgroup);
    sc->rowgroup = static_cast<rowgroup_t**>(mpool_alloc(sc->mpool, nrowgroup * sizeof(rowgroup_t*)));
    if (!sc->rowgroup) return -2;
    char* record = sc->schema_buf + g.rowgroup;
    for (size_t r = 0; r < nrowgroup; r++, record += g.recordsz)
        sc->rowgroup[r] = reinterpret_cast<rowgroup_t*>(record);
    return 0;
}

static int alloc_state(cvn_scan_t* sc) {
    const auto ncol = static_cast<size_t>(sc->schema->ncol);
    const auto nrowgroup = static_cast<size_t>(sc->schema->nrowgroup);
    if (sc->split_mode) {
        sc->split_fd = static_cast<int*>(mpool_alloc(sc->mpool, ncol * sizeof(int)));
        if (!sc->split_fd) return -2;
        std::fill_n(sc->split_fd, ncol, -1);
    }
    sc->reqcol = static_cast<int*>(mpool_calloc(sc->mpool, ncol * sizeof(int)));
    sc->page = static_cast<cvn_page_t**>(mpool_calloc(sc->mpool, (ncol + 1) * sizeof(cvn_page_t*)));
    sc->qualify_index = static_cast<int*>(mpool_calloc(sc->mpool, nrowgroup * sizeof(int)));
    if (!sc->reqcol || !sc->page || !sc->qualify_index) return -2;
    sc->per_rowgroup_mpool = mpool_create();
    return sc->per_rowgroup_mpool ? 0 : -2;
}

int cvn_scan_open(cvn_scan_t** ret, const char* orig_fpath) {
    errno = 0;  // what it holds after a failure is this call's
    mpool_t* pool = mpool_create();
    if (!pool) return -2;
    auto* scan = static_cast<cvn_scanner_t*>(mpool_calloc(pool, sizeof(cvn_scanner_t)));
    if (!scan) {
        mpool_destroy(pool);
        return -2;
    }
    cvn_scan_t* sc = &scan->pub;
    sc->mpool = pool;
    sc->fd = -1;
    const size_t fpathsz = strlen(orig_fpath) + 1;
    sc->fpath = static_cast<char*>(mpool_alloc(pool, fpathsz));
    if (!sc->fpath) return cvn_scan_open_err(-2, sc);
    (void)cvn_normalise_path(sc->fpath, fpathsz, orig_fpath);  // what is removed is room enough
    int rc = open_source(sc);
    if (rc == 0) rc = read_footer(sc);
    if (rc == 0) rc = map_footer(sc);
    if (rc == 0) rc = alloc_state(sc);
    if (rc != 0) return cvn_scan_open_err(rc, sc);
    *ret = sc;
    return 0;
}

// Asking and configuring.

int cvn_scan_get_ncol(cvn_scan_t* sc, int* ncol) {
    *ncol = sc->schema->ncol;
    return 0;
}

int cvn_scan_coldef(int* ncol, const cvn_coldef_t** coldef, cvn_scan_t* sc) {
    *ncol = sc->schema->ncol;
    *coldef = sc->coldef;
    return 0;
}

int64_t cvn_scan_get_rowgroup_size(cvn_scan_t* scan, int64_t rg) {
    if (!has_rowgroup(scan, rg)) return -1;
    int32_t nrow;
    load_record(&nrow, scan->rowgroup[rg], offsetof(rowgroup_t, nrow));
    return nrow;
}

int cvn_scan_colstat(cvn_scan_t* scan, int cno, colstat_t* ret_colstat) {
    if (cno < 0 || cno >= scan->schema->ncol) {
        memset(static_cast<void*>(ret_colstat), 0, sizeof(*ret_colstat));
        return -6;
    }
    load_record(ret_colstat, scan->colstat, cno * CVN_COLSTATSZ);
    return 0;
}

int cvn_scan_colmeta(cvn_scan_t* scan, int64_t rg, int cno, colmeta_t* ret_colmeta) {
    if (!has_rowgroup(scan, rg) || cno < 0 || cno >= scan->schema->ncol) {
        memset(static_cast<void*>(ret_colmeta), 0, sizeof(*ret_colmeta));
        return -6;
    }
    load_colmeta(ret_colmeta, scan, rg, cno);
    return 0;
}

int colvane::cvn_scan_find_column(const cvn_scan_t* scan, const char* cname) {
    const size_t len = strlen(cname);
    if (len >= CVN_NAME_SZ) return -1;  // a name that fills its field has no NUL, and equals nothing
    for (int c = 0; c < scan->schema->ncol; c++)
        if (memcmp(scan->coldef[c].name, cname, len + 1) == 0) return c;
    return -1;
}

// Where pages lie.

int colvane::cvn_scan_open_column(cvn_scan_t* scan, int c) {
    if (scan->split_fd[c] >= 0) return 0;
    if (snprintf(scan->split_path, static_cast<size_t>(scan->split_pathsz), "%s/%d.cvnx", scan->fpath, c) >=
        scan->split_pathsz)
        return -1;
    scan->split_fd[c] = open(scan->split_path, O_RDONLY | O_CLOEXEC);
    return scan->split_fd[c] >= 0 ? 0 : -3;
}

int cvn_scan_locate(cvn_scan_t* scan, int64_t rg, int cno, int* ret_fd, colmeta_t* ret_colmeta) {
    *ret_fd = -1;
    memset(static_cast<void*>(ret_colmeta), 0, sizeof(*ret_colmeta));
    colmeta_t meta;
    if (cvn_scan_colmeta(scan, rg, cno, &meta) != 0) return -6;
    errno = 0;
    const int rc = scan->split_mode ? cvn_scan_open_column(scan, cno) : 0;
    if (rc != 0) return rc;
    const int fd = column_fd(scan, cno);
    struct stat st;
    if (fstat(fd, &st) != 0 || !cvn_page_in_file(&meta, st.st_size)) return -3;
    *ret_fd = fd;
    *ret_colmeta = meta;
    return 0;
}

// Closing.

int cvn_scan_close(cvn_scan_t* scan) {
    if (scan->fd >= 0) close(scan->fd);
    if (scan->split_fd)
        for (int c = 0; c < scan->schema->ncol; c++)
            if (scan->split_fd[c] >= 0) close(scan->split_fd[c]);
    if (scan->per_rowgroup_mpool) mpool_destroy(scan->per_rowgroup_mpool);
    if (scan->mpool) mpool_destroy(scan->mpool);
    return 0;
}

// Whole-file questions.

namespace {

struct sums_t {
    uint64_t nbyte;  // unsigned, so that hostile sums wrap rather than overflow
    uint64_t zbyte;
};

}  // namespace

static void add_sizes(sums_t* sums, const char* colmeta) {
    int32_t nbyte, zbyte;
    load_record(&nbyte, colmeta, offsetof(colmeta_t, nbyte));
    load_record(&zbyte, colmeta, offsetof(colmeta_t, zbyte));
    sums->nbyte += static_cast<uint64_t>(int64_t{nbyte});
    sums->zbyte += static_cast<uint64_t>(int64_t{zbyte});
}

// The sums for row groups that claim more columns than the file has. Their records run into those of later
// row groups, so adding them up one by one could take the square of the footer's size. Instead a table holds,
// for every place where a record can begin (multiples of 16 after the first), the sums from there to the end
// in steps of one record; each row group is then the difference of two entries.
static int sum_overlapping(sums_t* ret, cvn_scan_t* scan) {
    const char* base = reinterpret_cast<const char*>(scan->rowgroup[0]);
    const int64_t regionsz = scan->schema_buf + scan->schema_bufsz - base;
    const int64_t nplace = regionsz / CVN_ROWGROUP_HEADSZ + 1;
    constexpr int64_t STEP = CVN_COLMETASZ / CVN_ROWGROUP_HEADSZ;
    static_assert(CVN_COLMETASZ % CVN_ROWGROUP_HEADSZ == 0);
    auto* tail =
        static_cast<sums_t*>(mpool_calloc(scan->mpool, static_cast<size_t>(nplace + STEP) * sizeof(sums_t)));
    if (!tail) return -2;
    for (int64_t i = nplace - 1; i >= 0; i--) {
        if (regionsz - i * CVN_ROWGROUP_HEADSZ < CVN_COLMETASZ) continue;
        tail[i] = tail[i + STEP];
        add_sizes(&tail[i], base + i * CVN_ROWGROUP_HEADSZ);
    }
    for (int64_t r = 0; r < scan->schema->nrowgroup; r++) {
        const char* record = reinterpret_cast<const char*>(scan->rowgroup[r]);
        int32_t ncol;
        load_record(&ncol, record, offsetof(rowgroup_t, ncol));
        if (ncol <= 0) continue;
        const int64_t first = (record - base) / CVN_ROWGROUP_HEADSZ + 1;
        ret->nbyte += tail[first].nbyte - tail[first + ncol * STEP].nbyte;
        ret->zbyte += tail[first].zbyte - tail[first + ncol * STEP].zbyte;
    }
    return 0;
}

// Adds up the sizes of all chunks, each row group by its own column count.
static int sum_sizes(sums_t* ret, cvn_scan_t* scan) {
    const char* end = scan->schema_buf + scan->schema_bufsz;
    bool overlapping = false;
    for (int64_t r = 0; r < scan->schema->nrowgroup; r++) {
        const char* record = reinterpret_cast<const char*>(scan->rowgroup[r]);
        int32_t ncol;
        load_record(&ncol, record, offsetof(rowgroup_t, ncol));
        if (ncol > (end - record - CVN_ROWGROUP_HEADSZ) / CVN_COLMETASZ) return -7;
        if (ncol > scan->schema->ncol) overlapping = true;
    }
    if (overlapping) return sum_overlapping(ret, scan);
    for (int64_t r = 0; r < scan->schema->nrowgroup; r++) {
        const char* record = reinterpret_cast<const char*>(scan->rowgroup[r]);
        int32_t ncol;
        load_record(&ncol, record, offsetof(rowgroup_t, ncol));
        for (int64_t c = 0; c < ncol; c++) add_sizes(ret, record + CVN_ROWGROUP_HEADSZ + c * CVN_COLMETASZ);
    }
    return 0;
}

int cvn_filestat(cvn_filestat_t* fstat, const char* fpath) {
    cvn_scan_t* scan;
    int rc = cvn_scan_open(&scan, fpath);
    if (rc != 0) return rc;
    sums_t sums{};
    rc = sum_sizes(&sums, scan);
    if (rc == 0)
        *fstat = cvn_filestat_t{.chksum = scan->schema_hash,
                                .ncol = scan->schema->ncol,
                                .nrow = scan->schema->nrow,
                                .nrowgroup = scan->schema->nrowgroup,
                                .nbyte = static_cast<int64_t>(sums.nbyte),
                                .zbyte = static_cast<int64_t>(sums.zbyte)};
    (void)cvn_scan_close(scan);  // always 0
    return rc;
}

int cvn_get_hash(int32_t* ret_hash, const char* orig_fpath) {
    *ret_hash = 0;
    char path[CVN_PATH_MAX];
    if (!cvn_normalise_path(path, sizeof(path), orig_fpath)) {
        errno = ENAMETOOLONG;  // as opening it would say
        return -3;
    }
    struct stat st;
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        const size_t at = strlen(path);
        constexpr char META[] = "/meta.cvnx";
        if (sizeof(META) > sizeof(path) - at) return -1;
        memcpy(path + at, META, sizeof(META));
    }
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -3;
    // What cannot be read stays zero, and zero is neither magic. Of the trailer only the hash and the magic
    // are wanted, so a file of 16 bytes has them.
    char head[CVN_HEAD_SZ] = {};
    cvn_trailer_t trailer{};
    constexpr int64_t TAIL = offsetof(cvn_trailer_t, hash);
    constexpr int64_t TAILSZ = CVN_TRAILER_SZ - TAIL;
    (void)cvn_pread_full(fd, head, sizeof(head), 0);
    const int64_t end = lseek(fd, 0, SEEK_END);
    if (end >= TAILSZ)
        (void)cvn_pread_full(fd, reinterpret_cast<char*>(&trailer) + TAIL, TAILSZ, end - TAILSZ);
    close(fd);
    if (memcmp(head, CVN_HEAD_MAGIC, sizeof(head)) != 0 ||
        memcmp(trailer.magic, CVN_TAIL_MAGIC, sizeof(trailer.magic)) != 0)
        return -7;
    *ret_hash = trailer.hash;
    return 0;
}
