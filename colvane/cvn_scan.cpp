// cvn_scan: opening files, choosing row groups, reading pages.
//
// The footer is read with one positional read and used in place. Before anything is taken from it, one
// function proves that its parts lie inside the buffer; records are then copied out before use wherever a
// damaged file may have put them off alignment. Pages of a row group are carved from one block that is kept
// between row groups and grows to the largest of them, so a long scan does not return memory to the system
// only to fault it in again.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

namespace {

constexpr int32_t CVN_VERSION = 1;
constexpr int64_t CVN_HEADSZ = 8;
constexpr int64_t CVN_SEEK_PROBE = 20;  // a position that every seekable file takes
constexpr int CVN_SPLIT_SUFFIXSZ = 30;  // "/" and the longest name in a split directory
constexpr int CVN_READ_AHEAD = 4;       // row groups beyond the next one that the kernel is told of
constexpr size_t CVN_PATH_MAX = 4096;
// What a page takes beside its body: the size of cvn_page_t.
constexpr int64_t CVN_PAGE_SLOT = 44;
// A row group's pages may lie over each other in a file that is not ours; but not so that reading a small
// file takes memory without end. All stored pages of a row group together are at most this many times the
// file.
constexpr int64_t CVN_MAX_OVERLAP = 4;
constexpr int64_t CVN_OVERLAP_FREE = 65536;
constexpr int64_t CVN_HUGE_PAGE = 2097152;

// The trailer: int64 footer size, int32 footer hash, 4 bytes tail magic.
struct trailer_t {
    int64_t footersz;
    int32_t hash;
    char magic[4];
};
static_assert(sizeof(trailer_t) == CVN_TRAILER_SZ && offsetof(trailer_t, hash) == 8 &&
              offsetof(trailer_t, magic) == 12);

// The handle that callers see, and what stays behind it.
struct scan_t {
    cvn_scan_t pub;  // first: a cvn_scan_t* is a scan_t*
    char* slab;      // pages of the current row group, in per_rowgroup_mpool; null before the first
    int64_t slabsz;
    char* scratch;  // stored bytes on their way through the decompressor, in per_rowgroup_mpool
    int64_t scratchsz;
};

scan_t* scan_of(cvn_scan_t* sc) { return reinterpret_cast<scan_t*>(sc); }

// What the footer's numbers say about where its records are, as offsets in the buffer.
struct geometry_t {
    int64_t colstat;   // first column statistics
    int64_t rowgroup;  // first row-group record
    int64_t recordsz;  // bytes of one row-group record
};

}  // namespace

bool cvn_pread_full(int fd, void* buf, size_t nbyte, int64_t offset) {
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

void cvn_normalise_path(char* buf, const char* path) {
    char* out = buf;
    for (const char* p = path; *p; p++)
        if (!(*p == '/' && out > buf && out[-1] == '/')) *out++ = *p;
    if (out > buf && out[-1] == '/') out--;
    *out = '\0';
}

// Tells the kernel that a large block will be used whole, so that it is faulted in by large pages.
static void advise_large(char* block, int64_t nbyte) {
    constexpr uintptr_t MASK = ~uintptr_t{CVN_HUGE_PAGE - 1};
    const uintptr_t start = (reinterpret_cast<uintptr_t>(block) + CVN_HUGE_PAGE - 1) & MASK;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + static_cast<uintptr_t>(nbyte)) & MASK;
    if (end <= start) return;
    const int saved = errno;
    (void)madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);  // a hint
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
    char head[CVN_HEADSZ];
    if (!cvn_pread_full(sc->fd, head, sizeof(head), 0)) return read_err(sc);
    if (memcmp(head, CVN_HEAD_MAGIC, sizeof(head)) != 0) return -7;
    if (lseek(sc->fd, 0, SEEK_END) < 0) return -3;
    if (lseek(sc->fd, CVN_SEEK_PROBE, SEEK_SET) < 0) return -7;  // Kept: the position itself is of no use
    const int64_t trailer_offset = lseek(sc->fd, -CVN_TRAILER_SZ, SEEK_END);
    if (trailer_offset < 0) return -3;
    trailer_t trailer;
    if (!cvn_pread_full(sc->fd, &trailer, sizeof(trailer), trailer_offset)) return read_err(sc);
    if (memcmp(trailer.magic, CVN_TAIL_MAGIC, sizeof(trailer.magic)) != 0) return -7;
    if (trailer.footersz < CVN_HEADSZ) return -7;
    sc->schema_bufsz = trailer.footersz;
    sc->schema_hash = trailer.hash;
    // The size is a claim: it must lie in the file, and in a read's length, before it sizes a buffer.
    if (trailer.footersz > trailer_offset || trailer.footersz > INT32_MAX) {
        errno = 0;
        return read_err(sc);
    }
    if (trailer.footersz < CVN_SCHEMASZ) return -7;
    // Placed so that the records of a consistent file are aligned: its statistics lie at 16 k + 8 in the
    // footer when it has an even number of columns, and then its size is 8 modulo 16. The NUL behind the
    // footer ends what is taken for a string in a damaged one.
    const int64_t shift = trailer.footersz % 8 == 0 ? trailer.footersz % 16 : 0;
    auto* block =
        static_cast<char*>(mpool_alloc(sc->mpool, static_cast<size_t>(trailer.footersz + shift + 1)));
    if (!block) return -2;
    advise_large(block, trailer.footersz);
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
    if (sc->schema->version != CVN_VERSION) return -7;
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
    auto* scan = static_cast<scan_t*>(mpool_calloc(pool, sizeof(scan_t)));
    if (!scan) {
        mpool_destroy(pool);
        return -2;
    }
    cvn_scan_t* sc = &scan->pub;
    sc->mpool = pool;
    sc->fd = -1;
    sc->fpath = static_cast<char*>(mpool_alloc(pool, strlen(orig_fpath) + 1));
    if (!sc->fpath) return cvn_scan_open_err(-2, sc);
    cvn_normalise_path(sc->fpath, orig_fpath);
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

static bool has_rowgroup(const cvn_scan_t* scan, int64_t rg) {
    return rg >= 0 && rg < scan->schema->nrowgroup;
}

int64_t cvn_scan_get_rowgroup_size(cvn_scan_t* scan, int64_t rg) {
    if (!has_rowgroup(scan, rg)) return -1;
    int32_t nrow;
    load_record(&nrow, scan->rowgroup[rg], offsetof(rowgroup_t, nrow));
    return nrow;
}

int cvn_scan_colstat(cvn_scan_t* scan, int cno, colstat_t* ret_colstat) {
    if (cno < 0 || cno >= scan->schema->ncol) return -6;
    load_record(ret_colstat, scan->colstat, cno * CVN_COLSTATSZ);
    return 0;
}

// The column's record of a row group; both exist.
static void load_colmeta(colmeta_t* ret, const cvn_scan_t* scan, int64_t rg, int cno) {
    load_record(ret, scan->rowgroup[rg], CVN_ROWGROUP_HEADSZ + cno * CVN_COLMETASZ);
}

int cvn_scan_colmeta(cvn_scan_t* scan, int64_t rg, int cno, colmeta_t* ret_colmeta) {
    if (!has_rowgroup(scan, rg) || cno < 0 || cno >= scan->schema->ncol) return -6;
    load_colmeta(ret_colmeta, scan, rg, cno);
    return 0;
}

int cvn_scan_find_column(const cvn_scan_t* scan, const char* cname) {
    const size_t len = strlen(cname);
    if (len >= CVN_NAME_SZ) return -1;  // a name that fills its field has no NUL, and equals nothing
    for (int c = 0; c < scan->schema->ncol; c++)
        if (memcmp(scan->coldef[c].name, cname, len + 1) == 0) return c;
    return -1;
}

static int add_required(cvn_scan_t* scan, const char* cname, const cvn_typ_t* typ) {
    if (scan->nlens || scan->started) return -6;
    const int c = cvn_scan_find_column(scan, cname);
    if (c < 0 || (typ && scan->coldef[c].typ != *typ)) return -6;
    for (int k = 0; k < scan->nreqcol; k++)
        if (scan->reqcol[k] == c) return -6;
    scan->reqcol[scan->nreqcol++] = c;
    return 0;
}

int cvn_scan_add_required(cvn_scan_t* scan, const char* cname) { return add_required(scan, cname, nullptr); }

int cvn_scan_add_required_ex(cvn_scan_t* scan, const char* cname, cvn_typ_t typ) {
    return add_required(scan, cname, &typ);
}

int cvn_scan_add_fragment(cvn_scan_t* scan, int id, int nfrag) {
    if (nfrag < 0 || id < 0 || id >= nfrag) return -6;
    scan->fragid = id;
    scan->nfrag = nfrag;
    return 0;
}

// Reading one row group.

// Split mode: opens a column's file unless it is open.
static int open_split_column(cvn_scan_t* scan, int c) {
    if (scan->split_fd[c] >= 0) return 0;
    if (snprintf(scan->split_path, static_cast<size_t>(scan->split_pathsz), "%s/%d.cvnx", scan->fpath, c) >=
        scan->split_pathsz)
        return -1;
    scan->split_fd[c] = open(scan->split_path, O_RDONLY | O_CLOEXEC);
    return scan->split_fd[c] >= 0 ? 0 : -3;
}

static int column_fd(const cvn_scan_t* scan, int c) {
    return scan->split_mode ? scan->split_fd[c] : scan->fd;
}

// Whether `zbyte` bytes at the page's offset are in a file of `filesz` bytes.
static bool page_in_file(const colmeta_t* m, int64_t filesz) {
    return m->zbyte >= 0 && m->file_offset >= 0 && m->file_offset <= filesz &&
           m->zbyte <= filesz - m->file_offset;
}

// What the body of a page takes in memory.
static int64_t body_size(const colmeta_t* m, bool uncompress) {
    return uncompress ? std::max(m->nbyte, m->zbyte) : m->zbyte;
}

// Pages lie 8 behind a multiple of 16, so that bodies, 40 bytes on, lie on one.
static int64_t slot_size(int64_t bodysz) { return (CVN_PAGE_SLOT + bodysz + 15) & ~int64_t{15}; }

// What the pages of a row group take.
struct plan_t {
    int npage;          // pages to read, all of them unless one is refused
    int code;           // why the page behind them is refused; 0 when none is
    int64_t slabsz;     // bytes of the pages
    int64_t largest;    // bytes of the largest of them
    int64_t scratchsz;  // stored bytes of the largest compressed one
};

// Goes through the pages of the required columns [first, end) before any memory is taken for them: every
// number must be borne out by the file. A page that is not ends the plan, after those before it, so that the
// first trouble in column order is the one reported.
static plan_t plan_pages(cvn_scan_t* scan, int64_t rg, int first, int end, bool uncompress) {
    plan_t plan{.slabsz = 8};
    struct stat st;
    int64_t stored = 0;
    for (int k = first; k < end; k++) {
        const int c = scan->reqcol[k];
        colmeta_t m;
        load_colmeta(&m, scan, rg, c);
        if (scan->split_mode && (plan.code = open_split_column(scan, c)) != 0) return plan;
        if ((k == first || scan->split_mode) && fstat(column_fd(scan, c), &st) != 0) {
            plan.code = -3;
            return plan;
        }
        if (!page_in_file(&m, st.st_size)) {
            plan.code = -3;
            return plan;
        }
        stored = scan->split_mode ? m.zbyte : stored + m.zbyte;
        if (stored > CVN_OVERLAP_FREE && stored / CVN_MAX_OVERLAP > st.st_size) {
            plan.code = -3;
            return plan;
        }
        if (uncompress && m.nbyte > m.zbyte) {
            if (m.nbyte / CVN_LZ4_MAX_RATIO > m.zbyte) {
                plan.code = -6;
                return plan;
            }
            plan.scratchsz = std::max<int64_t>(plan.scratchsz, m.zbyte);
        }
        const int64_t slotsz = slot_size(body_size(&m, uncompress));
        plan.slabsz += slotsz;
        plan.largest = std::max(plan.largest, slotsz);
        plan.npage++;
    }
    return plan;
}

// Allocates room for at least `*sz` bytes. Large room is whole huge pages, so that it takes few faults to
// fill and serves later row groups that are a little larger; `*sz` is then raised to what there is.
static char* alloc_room(mpool_t* pool, int64_t* sz) {
    if (*sz < CVN_HUGE_PAGE / 2) return static_cast<char*>(mpool_alloc(pool, static_cast<size_t>(*sz)));
    const int64_t whole = (*sz + CVN_HUGE_PAGE - 1) / CVN_HUGE_PAGE * CVN_HUGE_PAGE;
    auto* block = static_cast<char*>(mpool_alloc(pool, static_cast<size_t>(whole + CVN_HUGE_PAGE)));
    if (!block) return nullptr;
    block += -reinterpret_cast<uintptr_t>(block) & (CVN_HUGE_PAGE - 1);
    advise_large(block, whole);
    *sz = whole;
    return block;
}

// Makes room for a row group's pages. What is large enough is kept; the rest goes before anything larger
// comes.
static int make_slab(scan_t* scan, const plan_t* plan) {
    cvn_scan_t* sc = &scan->pub;
    if (plan->slabsz > scan->slabsz || plan->scratchsz > scan->scratchsz) {
        int64_t slabsz = std::max(plan->slabsz, scan->slabsz);
        int64_t scratchsz = std::max(plan->scratchsz, scan->scratchsz);
        mpool_reset(sc->per_rowgroup_mpool);
        scan->slabsz = scan->scratchsz = 0;
        scan->slab = alloc_room(sc->per_rowgroup_mpool, &slabsz);
        if (!scan->slab) return -2;
        scan->slabsz = slabsz;
        scan->scratch = alloc_room(sc->per_rowgroup_mpool, &scratchsz);
        if (!scan->scratch) return -2;
        scan->scratchsz = scratchsz;
    }
    return 0;
}

static int read_page(scan_t* scan, cvn_page_t* page, const colmeta_t* m, int fd, bool uncompress) {
    const auto zbyte = static_cast<size_t>(m->zbyte);
    char* body = reinterpret_cast<char*>(page) + CVN_PAGE_HEADSZ;
    if (!uncompress || m->nbyte <= m->zbyte) {
        if (!cvn_pread_full(fd, body, zbyte, m->file_offset)) return -3;
        return uncompress && m->nbyte != m->zbyte ? -1 : 0;
    }
    if (!cvn_pread_full(fd, scan->scratch, zbyte, m->file_offset)) return -3;
    const int rc = cvn_lz4_decode(body, m->nbyte, scan->scratch, m->zbyte);
    if (rc == 0) page->zbyte = page->nbyte;
    return rc;
}

// Reads the pages of the required columns [first, end) into scan->page[first...].
static int read_pages(cvn_scan_t* scan, int64_t rg, int first, int end, bool uncompress) {
    const plan_t plan = plan_pages(scan, rg, first, end, uncompress);
    scan_t* s = scan_of(scan);
    int rc = make_slab(s, &plan);
    if (rc != 0) return rc;
    char* slot = s->slab + 8;
    for (int k = first; k < first + plan.npage; k++) {
        const int c = scan->reqcol[k];
        colmeta_t m;
        load_colmeta(&m, scan, rg, c);
        auto* page = reinterpret_cast<cvn_page_t*>(slot);
        const cvn_page_t head{.magic = CVN_PAGE_MAGIC,
                              .cno = c,
                              .typ = scan->coldef[c].typ,
                              .nrow = m.nrow,
                              .nnull = m.nnull,
                              .nmapoff = m.nmapoff,
                              .nbyte = m.nbyte,
                              .zbyte = m.zbyte,
                              .hash = m.hash};
        memcpy(page, &head, CVN_PAGE_HEADSZ);
        scan->page[k] = page;
        rc = read_page(s, page, &m, column_fd(scan, c), uncompress);
        if (rc != 0) return rc;
        slot += slot_size(body_size(&m, uncompress));
    }
    return plan.code;
}

int cvn_scan_rowgroup(cvn_scan_t* scan, int64_t rg, int* ret_ncol, cvn_page_t*** ret_page, bool uncompress) {
    *ret_ncol = 0;
    *ret_page = nullptr;
    if (!has_rowgroup(scan, rg)) return -6;
    const int rc = read_pages(scan, rg, 0, scan->nreqcol, uncompress);
    if (rc != 0) return rc;
    *ret_ncol = scan->nreqcol;
    *ret_page = scan->page;
    return 0;
}

int cvn_scan_page(cvn_scan_t* scan, int64_t rg, int k, cvn_page_t** ret_page, bool uncompress) {
    *ret_page = nullptr;
    if (!has_rowgroup(scan, rg) || k < 0 || k >= scan->nreqcol) return -6;
    const int rc = read_pages(scan, rg, k, k + 1, uncompress);
    if (rc == 0) *ret_page = scan->page[k];
    return rc;
}

// Scanning.

// Opens what the scan needs and settles which row groups it returns.
static int start_scan(cvn_scan_t* scan) {
    if (scan->split_mode)
        for (int k = 0; k < scan->nreqcol; k++) {
            const int rc = open_split_column(scan, scan->reqcol[k]);
            if (rc != 0) return rc;
        }
    scan->qualify_top = 0;
    const int64_t first = scan->nfrag ? scan->fragid : 0;
    const int64_t step = scan->nfrag ? scan->nfrag : 1;
    for (int64_t r = first; r < scan->schema->nrowgroup; r += step) {
        const int rc = qualify_rowgroup(scan, static_cast<int>(r));
        if (rc < 0) return rc;
        if (rc > 0) scan->qualify_index[scan->qualify_top++] = static_cast<int>(r);
    }
    scan->started = true;
    return 0;
}

// Tells the kernel which pages will be wanted a few row groups on.
static void read_ahead(cvn_scan_t* scan) {
    if (scan->qualify_cur + CVN_READ_AHEAD >= scan->qualify_top) return;
    const int rg = scan->qualify_index[scan->qualify_cur + CVN_READ_AHEAD];
    for (int k = 0; k < scan->nreqcol; k++) {
        const int c = scan->reqcol[k];
        colmeta_t m;
        load_colmeta(&m, scan, rg, c);
        fadvise(column_fd(scan, c), m.file_offset, m.zbyte);
    }
}

// Advances to the next row group that qualifies.
static int advance(cvn_scan_t* scan, int* ret_rg) {
    if (!scan->started) {
        if (scan->disqualify_file) return -4;
        int rc = qualify_file(scan);
        if (rc < 0) return rc;
        if (rc == 0) return -4;
        rc = start_scan(scan);
        if (rc != 0) return rc;
    }
    if (scan->qualify_cur >= scan->qualify_top) return -4;
    *ret_rg = scan->qualify_index[scan->qualify_cur++];
    return 0;
}

int cvn_scan_next(cvn_scan_t* scan, int* ret_ncol, cvn_page_t*** ret_page, bool uncompress) {
    *ret_ncol = 0;
    *ret_page = nullptr;
    int rg;
    int rc = advance(scan, &rg);
    if (rc == 0) rc = cvn_scan_rowgroup(scan, rg, ret_ncol, ret_page, uncompress);
    if (rc == 0) read_ahead(scan);
    return rc;
}

int cvn_scan_next_rowgroup(cvn_scan_t* scan, int64_t* ret_rg) {
    *ret_rg = -1;
    int rg;
    int rc = advance(scan, &rg);
    if (rc != 0) return rc;
    plan_t plan = plan_pages(scan, rg, 0, scan->nreqcol, false);
    if (plan.code != 0) return plan.code;
    // Memory for any one of the pages is had now, so that only reading them can fail later.
    plan.slabsz = 8 + plan.largest;
    rc = make_slab(scan_of(scan), &plan);
    if (rc != 0) return rc;
    *ret_rg = rg;
    read_ahead(scan);
    return 0;
}

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
// for every place where a record can begin (multiples of 16 behind the first), the sums from there to the end
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
    char path[CVN_PATH_MAX];
    const size_t len = strlen(orig_fpath);
    if (len >= sizeof(path)) return -1;
    cvn_normalise_path(path, orig_fpath);
    struct stat st;
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        const size_t at = strlen(path);
        constexpr char META[] = "/meta.cvnx";
        if (sizeof(META) > sizeof(path) - at) return -1;
        memcpy(path + at, META, sizeof(META));
    }
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -3;
    // What cannot be read stays zero, and zero is neither magic.
    char head[CVN_HEADSZ] = {};
    struct {
        int32_t hash;
        char magic[4];
    } tail = {};
    (void)cvn_pread_full(fd, head, sizeof(head), 0);
    const int64_t end = lseek(fd, 0, SEEK_END);
    if (end >= static_cast<int64_t>(sizeof(tail)))
        (void)cvn_pread_full(fd, &tail, sizeof(tail), end - static_cast<int64_t>(sizeof(tail)));
    close(fd);
    if (memcmp(head, CVN_HEAD_MAGIC, sizeof(head)) != 0 ||
        memcmp(tail.magic, CVN_TAIL_MAGIC, sizeof(tail.magic)) != 0)
        return -7;
    *ret_hash = tail.hash;
    return 0;
}
