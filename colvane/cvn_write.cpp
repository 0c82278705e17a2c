// cvn_write: rows in, a file out.
//
// Every value is encoded once, into its column's buffer. When a row group is full its buffers become chunks:
// values and bitmap are assembled, summarised, compressed if that pays, hashed and written. The records of
// the row groups stay in memory for the footer that cvn_close writes.
//
// The hot path is cvn_append; its rare ways are marked cold, so that they do not stand between its steps.
// What it needs of a column in every row (type, width) stands packed in the writer, and the heads of the
// column buffers are spread over the cache: each buffer head lies in a large block of its own, and without
// the spreading all of them would share one cache set.
//
// A column takes memory as its rows come, since a table may have thousands of columns and few rows: its buffer
// has at first a small part of the capacity that it tells, and its bitmap's pages are not touched before a row
// needs them.

#include <errno.h>
#include <limits.h>
#include <lz4.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

using namespace colvane;

namespace {

constexpr int CVN_CACHE_LINE = 64;
constexpr int CVN_SPREAD_LINES = 64;   // cache sets that buffer heads are spread over
constexpr int CVN_COLBUF_SINGLE = 16;  // columns whose colbuf_t lies in a block of its own
constexpr int CVN_COLBUF_BLOCK = 256;  // columns at most that lie in one

// What an append needs to know of a column.
struct colinfo_t {
    int32_t storage;
    int32_t width;  // of a value; -1 and -2 as from cvn_typlen
    int64_t need;   // bytes that the value of the row under way takes
    int64_t cap;    // bytes that the column's buffer has; `bufmax` is what it may take before it must expand
};

// The handle as callers see it, and what they do not.
struct writer_t {
    cvn_t pub;             // first: a cvn_t* is a writer_t*
    colinfo_t* info;       // one per column; owned by the pool
    int* varcol;           // the columns whose values vary in length; owned by the pool
    int nvarcol;           // how many
    int fixed_room;        // rows, at least, that every fixed-width column's buffer has memory for
    int64_t fixed_nbyte;   // bytes that the fixed-width values of a row take together
    int64_t rowgroup_max;  // capacity of pub.rowgroup
    char* spare;           // where the next columns' colbuf_t go; in a block of the pool
    int nspare;            // how many have room there
};

}  // namespace

static writer_t* writer_of(cvn_t* sp) { return reinterpret_cast<writer_t*>(sp); }

// Output.

// Writes `nb` bytes as one item. On failure the stream is closed, so that nothing more is tried on it.
static int dowrite(cvn_t* sp, const void* ptr, size_t nb) {
    if (!sp->fp) return -3;
    if (nb == 0) return 0;
    errno = 0;
    if (fwrite(ptr, nb, 1, sp->fp) != 1) {
        sp->os_errno = errno;
        (void)fclose(sp->fp);  // the write failed already, and its errno is kept
        sp->fp = nullptr;
        return -3;
    }
    sp->fp_offset += static_cast<int64_t>(nb);
    return 0;
}

static int write_padding(cvn_t* sp) {
    static constexpr char ZERO[8] = {};
    return dowrite(sp, ZERO, static_cast<size_t>(align8(sp->fp_offset) - sp->fp_offset));
}

// Column buffers.

// Gives a column buffer that has no memory its first.
static int colbuf_start(colbuf_t* cp, colinfo_t* info, mpool_t* pool) {
    info->cap = 0;
    cp->buf = static_cast<char*>(mpool_alloc(pool, CVN_COLBUF_STARTSZ + CVN_COLBUF_SLACK));
    if (!cp->buf) return -2;
    info->cap = CVN_COLBUF_STARTSZ;
    return 0;
}

static int colbuf_init(colbuf_t* cp, colinfo_t* info, mpool_t* pool) {
    if (cp->bufmax < 0) return -1;
    if (!cp->buf) {
        const int rc = colbuf_start(cp, info, pool);
        if (rc != 0) return rc;
        cp->bufmax = CVN_COLBUF_INITSZ;
    }
    // Bits are only ever set below nrow, so this clears all of the bitmap.
    memset(cp->nmap, 0, static_cast<size_t>(cvn_nmapsz(cp->nrow)));
    cp->buftop = cp->nrow = cp->nnull = 0;
    cp->imin = cp->imax = -1;
    return 0;
}

// Lets a column buffer have memory for `need` more bytes, which `bufmax` allows: twice what it had, or what it
// takes if that is more. Returns false when that was not to be had; the buffer is then as it was.
static bool colbuf_grow(colbuf_t* cb, colinfo_t* info, mpool_t* pool, int bufmax, int64_t need) {
    const int64_t least = cb->buftop + need;
    if (least <= info->cap) return true;
    const int64_t cap = std::min<int64_t>(bufmax, align8(std::max(least, info->cap * 2)));
    auto* bigger =
        static_cast<char*>(mpool_realloc(pool, cb->buf, static_cast<size_t>(cap) + CVN_COLBUF_SLACK));
    if (!bigger) return false;
    cb->buf = bigger;
    info->cap = cap;
    return true;
}

// Writing row groups.

// Takes the smallest and largest value of a column buffer into the chunk's record and merges them into the
// file's.
static int finalize_agg(cvn_t* sp, int cno, colmeta_t* meta) {
    colbuf_t* cb = sp->colbuf[cno];
    colstat_t* stat = &sp->colstat[cno];
    const cvn_typ_t typ = sp->coldef[cno].typ;
    const int storage = cvn_storage(typ);
    const int width = cvn_typlen(typ);
    if (width == 0) return -1;
    stat->nnull += cb->nnull;
    if (!sp->coldef[cno].nflag)
        cvn_find_minmax(&cb->imin, &cb->imax, storage, cb->buf, cb->nrow, cb->nnull, cb->nmap);
    if (cb->imin < 0) return 0;
    // The records were zeroed, and so stay every byte that a value does not use.
    if (storage == CVN_TYP_CSTR) {
        const char* text[2] = {cb->buf + cb->imin, cb->buf + cb->imax};
        memcpy(meta->minval.raw, text[0], strnlen(text[0], CVN_STAT_TEXTSZ));
        memcpy(meta->maxval.raw, text[1], strnlen(text[1], CVN_STAT_TEXTSZ));
    } else {
        memcpy(&meta->minval, cb->buf + int64_t{cb->imin} * width, static_cast<size_t>(width));
        memcpy(&meta->maxval, cb->buf + int64_t{cb->imax} * width, static_cast<size_t>(width));
    }
    meta->hasminmax = 1;
    const bool seed = !stat->hasminmax;
    if (seed || cvn_value_below(storage, meta->minval.raw, stat->minval.raw, CVN_STAT_TEXTSZ))
        memcpy(&stat->minval, &meta->minval, sizeof(cvn_datum_t));
    if (seed || cvn_value_below(storage, stat->maxval.raw, meta->maxval.raw, CVN_STAT_TEXTSZ))
        memcpy(&stat->maxval, &meta->maxval, sizeof(cvn_datum_t));
    stat->hasminmax = 1;
    return 0;
}

// Makes a scratch buffer at least `nbyte` bytes; its contents are not kept.
static int ensure_space(mpool_t* pool, char** buf, int* bufsz, int nbyte) {
    if (*bufsz >= nbyte) return 0;
    if (*buf) mpool_free(pool, *buf);
    *bufsz = 0;
    *buf = static_cast<char*>(mpool_alloc(pool, static_cast<size_t>(nbyte)));
    if (!*buf) return -2;
    *bufsz = nbyte;
    return 0;
}

// Compresses the assembled chunk if that saves enough: a fifth in columns declared with -z, half in all
// others. Returns the stored size in `*ret_zbyte` and the stored bytes in `*ret_stored`.
static int compress_chunk(cvn_t* sp, int nbyte, bool zflag, int* ret_zbyte, const char** ret_stored) {
    *ret_zbyte = nbyte;
    *ret_stored = sp->zbuf.src;
    if (nbyte < CVN_MIN_COMPRESS_NBYTE) return 0;
    const int64_t budget = align8(static_cast<int64_t>((zflag ? 0.8 : 0.5) * nbyte));
    const int rc = ensure_space(sp->mpool, &sp->zbuf.dst, &sp->zbuf.dstsz, static_cast<int>(budget));
    if (rc != 0) return rc;
    const int zbyte = LZ4_compress_default(sp->zbuf.src, sp->zbuf.dst, nbyte, static_cast<int>(budget));
    if (zbyte > 0) {
        *ret_zbyte = zbyte;
        *ret_stored = sp->zbuf.dst;
    }
    return 0;
}

// Assembles the chunk of a column buffer that holds rows, and decides how it is stored: the sizes go into its
// record, and `*ret_stored` is what to write.
static int make_chunk(cvn_t* sp, int cno, colmeta_t* meta, const char** ret_stored) {
    const colbuf_t* cb = sp->colbuf[cno];
    const int n = cb->nrow;
    if (n > CVN_MAX_ROWGROUP_NROW) return -1;
    const int nmapsz = cvn_nmapsz(n);
    meta->nrow = n;
    meta->nmapoff = cb->buftop;
    // Fits: column buffers are never larger than INT_MAX - CVN_MAX_ROWGROUP_NROW.
    meta->nbyte = cb->buftop + nmapsz;
    meta->nflag = static_cast<char>(sp->coldef[cno].nflag);
    meta->nnull = cb->nnull;
    int rc = ensure_space(sp->mpool, &sp->zbuf.src, &sp->zbuf.srcsz, meta->nbyte);
    if (rc != 0) return rc;
    memcpy(sp->zbuf.src, cb->buf, static_cast<size_t>(cb->buftop));
    memcpy(sp->zbuf.src + cb->buftop, cb->nmap, static_cast<size_t>(nmapsz));
    rc = compress_chunk(sp, meta->nbyte, sp->coldef[cno].zflag, &meta->zbyte, ret_stored);
    if (rc != 0) return rc;
    if (meta->zbyte < 0 || meta->zbyte > meta->nbyte) return -1;
    meta->zflag = *ret_stored == sp->zbuf.dst && sp->zbuf.dst ? 1 : 0;
    return 0;
}

static int flush_column(cvn_t* sp, int cno, colmeta_t* meta) {
    meta->file_offset = sp->fp_offset;
    int rc = finalize_agg(sp, cno, meta);
    const char* stored;
    if (rc == 0) rc = make_chunk(sp, cno, meta, &stored);
    if (rc != 0) return rc;
    const auto zbyte = static_cast<size_t>(meta->zbyte);
    meta->hash = static_cast<int32_t>(XXH32(stored, zbyte, 0));
    rc = dowrite(sp, stored, zbyte);
    if (rc == 0) rc = colbuf_init(sp->colbuf[cno], &writer_of(sp)->info[cno], sp->mpool);
    if (rc == 0) rc = write_padding(sp);
    return rc;
}

// Whether the row group under way can be described at all: its record has 32 bits for its size in the file.
// Returns 0, -1 when it is too large, or -2. Hardly any row group is so large that its chunks must be made to
// tell; those are made twice, so that nothing of one that is refused has been written.
static int check_rowgroup_size(cvn_t* sp) {
    int64_t raw = 0;
    for (int c = 0; c < sp->ncol; c++)
        raw += align8(int64_t{sp->colbuf[c]->buftop} + cvn_nmapsz(sp->colbuf[c]->nrow));
    if (raw <= INT32_MAX) return 0;
    int64_t stored = 0;
    for (int c = 0; c < sp->ncol; c++) {
        colmeta_t meta{};
        const char* unused;
        const int rc = make_chunk(sp, c, &meta, &unused);
        if (rc != 0) return rc;
        stored += align8(meta.zbyte);
        if (stored > INT32_MAX) return -1;
    }
    return 0;
}

// Keeps the record of a written row group.
static int keep_rowgroup(writer_t* w, rowgroup_t* rg) {
    if (w->pub.nrowgroup == w->rowgroup_max) {
        const int64_t max = w->rowgroup_max ? w->rowgroup_max * 2 : 8;
        auto* bigger = static_cast<rowgroup_t**>(
            mpool_realloc(w->pub.mpool, w->pub.rowgroup, static_cast<size_t>(max) * sizeof(rowgroup_t*)));
        if (!bigger) return -2;
        w->pub.rowgroup = bigger;
        w->rowgroup_max = max;
    }
    w->pub.rowgroup[w->pub.nrowgroup++] = rg;
    return 0;
}

static int64_t rowgroup_recordsz(int ncol) { return CVN_ROWGROUP_HEADSZ + CVN_COLMETASZ * ncol; }

// Gives the memory of the empty column buffers back when it is more than any one row group takes: each column
// may have been the large one of some row group, and together they would take that many times the space.
static int release_excess(writer_t* w) {
    cvn_t* sp = &w->pub;
    int64_t held = 0;
    for (int c = 0; c < sp->ncol; c++) held += w->info[c].cap;
    if (held <= CVN_COLBUF_KEEPSZ) return 0;
    w->fixed_room = 0;
    for (int c = 0; c < sp->ncol; c++) {
        if (w->info[c].cap <= CVN_COLBUF_STARTSZ) continue;
        mpool_free(sp->mpool, sp->colbuf[c]->buf);
        sp->colbuf[c]->buf = nullptr;
        const int rc = colbuf_start(sp->colbuf[c], &w->info[c], sp->mpool);
        if (rc != 0) return rc;
    }
    return 0;
}

// Writes the row group under way, if it has rows.
static int cv_flush(cvn_t* sp) {
    if (sp->ncol < 1) return -6;
    const int n = sp->colbuf[0]->nrow;
    if (n == 0) return 0;
    auto* rg =
        static_cast<rowgroup_t*>(mpool_calloc(sp->mpool, static_cast<size_t>(rowgroup_recordsz(sp->ncol))));
    if (!rg) return -2;
    const int64_t start = sp->fp_offset;
    if (start % 8 != 0) return -1;
    rg->nrow = n;
    rg->ncol = sp->ncol;
    int rc = check_rowgroup_size(sp);
    if (rc != 0) return rc;
    for (int c = 0; c < sp->ncol; c++) {
        if (sp->colbuf[c]->nrow != n) return -1;
        rc = flush_column(sp, c, &rg->colmeta[c]);
        if (rc != 0) return rc;
    }
    rg->nbyte = static_cast<int32_t>(sp->fp_offset - start);
    rc = keep_rowgroup(writer_of(sp), rg);
    if (rc != 0) return rc;
    sp->rgcur_nbyte = 0;
    return release_excess(writer_of(sp));
}

// Creating.

// The way out of a failed creation: what was opened is closed, and the file removed.
static int reterr(int code, mpool_t* pool, FILE* fp, const char* fpath) {
    const int saved = errno;
    if (fp) (void)fclose(fp);  // nothing of worth was written
    if (fpath) (void)remove(fpath);
    if (pool) mpool_destroy(pool);
    errno = saved;
    return code;
}

static cvn_t* writer_new(mpool_t* pool, FILE* fp) {
    auto* w = static_cast<writer_t*>(mpool_calloc(pool, sizeof(writer_t)));
    if (!w) return nullptr;
    w->pub.mpool = pool;
    w->pub.fp = fp;
    return &w->pub;
}

int cvn_create_stream(cvn_t** ret, FILE* fp) {
    *ret = nullptr;
    mpool_t* pool = mpool_create();
    if (!pool) return -2;
    cvn_t* sp = writer_new(pool, fp);
    if (!sp) return reterr(-2, pool, nullptr, nullptr);
    *ret = sp;
    return 0;
}

int cvn_create(cvn_t** ret, const char* fpath) {
    *ret = nullptr;
    FILE* fp = fopen(fpath, "wbe");
    if (!fp) return -3;
    mpool_t* pool = mpool_create();
    if (!pool) return reterr(-2, nullptr, fp, fpath);
    cvn_t* sp = writer_new(pool, fp);
    if (!sp) return reterr(-2, pool, fp, fpath);
    sp->fpath = mpool_strdup(pool, fpath);
    if (!sp->fpath) return reterr(-2, pool, fp, fpath);
    if (dowrite(sp, CVN_HEAD_MAGIC, CVN_HEAD_SZ) != 0) return reterr(-3, pool, sp->fp, fpath);
    *ret = sp;
    return 0;
}

// Lets one of the arrays that have an entry per column grow to `n` entries, the new one zeroed. Their room is
// a power of two: the columns' buffers lie between the blocks that are given up, which so could not be used
// again, and these would add up to gigabytes at ten thousand columns.
template <typename T>
static bool grow_array(mpool_t* pool, T** array, size_t n) {
    constexpr size_t ENTRYSZ = sizeof(T);  // NOLINT(bugprone-sizeof-expression): one T is a pointer
    auto* bigger = static_cast<T*>(mpool_realloc(pool, *array, std::bit_ceil(n) * ENTRYSZ));
    if (!bigger) return false;
    *array = bigger;
    memset(static_cast<void*>(bigger + n - 1), 0, ENTRYSZ);
    return true;
}

static int grow_columns(writer_t* w) {
    cvn_t* sp = &w->pub;
    const auto n = static_cast<size_t>(sp->ncol) + 1;
    const bool grown = grow_array(sp->mpool, &sp->coldef, n) && grow_array(sp->mpool, &sp->colstat, n) &&
                       grow_array(sp->mpool, &sp->colbuf, n) && grow_array(sp->mpool, &w->info, n) &&
                       grow_array(sp->mpool, &w->varcol, n);
    return grown ? 0 : -2;
}

// Takes a zeroed colbuf_t from the block under way, or from a new one. Hardly any of its bitmap is touched if few
// rows come, but only of blocks beyond 32 MiB is it certain that the memory allocator leaves them to the system to
// clear page by page; so those of many columns lie together.
static colbuf_t* colbuf_new(writer_t* w) {
    constexpr size_t STRIDE = (sizeof(colbuf_t) + CVN_CACHE_LINE - 1) / CVN_CACHE_LINE * CVN_CACHE_LINE;
    static_assert(STRIDE % 4096 == CVN_CACHE_LINE, "heads of one block lie in cache sets of their own");
    static_assert(CVN_COLBUF_BLOCK * STRIDE > size_t{32} << 20);
    if (w->nspare == 0) {
        const int ncol = w->pub.ncol;
        const int n = ncol < CVN_COLBUF_SINGLE ? 1 : std::min(ncol, CVN_COLBUF_BLOCK);
        // Blocks start at the same offset of a page, so the first heads are moved apart by hand.
        const size_t spread = static_cast<size_t>(ncol % CVN_SPREAD_LINES) * CVN_CACHE_LINE;
        const size_t nbyte = static_cast<size_t>(n) * STRIDE + spread;
        auto* block = static_cast<char*>(mpool_calloc(w->pub.mpool, nbyte));
        if (!block) return nullptr;
        cvn_advise_sparse(block, static_cast<int64_t>(nbyte));
        w->spare = block + spread;
        w->nspare = n;
    }
    auto* cb = reinterpret_cast<colbuf_t*>(w->spare);
    w->spare += STRIDE;
    w->nspare--;
    return cb;
}

static int create_column(cvn_t* sp, const char* name, cvn_typ_t typ, bool zflag, bool nflag) {
    const int width = cvn_typlen(typ);
    if (width == 0) return -5;
    if (sp->nrow != 0) return -6;
    writer_t* w = writer_of(sp);
    if (grow_columns(w) != 0) return -2;
    const size_t len = strlen(name);
    if (len >= CVN_NAME_SZ) return -6;
    cvn_coldef_t* def = &sp->coldef[sp->ncol];
    memcpy(def->name, name, len);
    def->typ = typ;
    def->zflag = zflag;
    def->nflag = nflag;
    colbuf_t* cb = colbuf_new(w);
    if (!cb) return -2;
    colinfo_t* info = &w->info[sp->ncol];
    *info = colinfo_t{.storage = cvn_storage(typ), .width = width, .need = width, .cap = 0};
    const int rc = colbuf_init(cb, info, sp->mpool);
    if (rc != 0) return rc;
    sp->colbuf[sp->ncol] = cb;
    if (width > 0)
        w->fixed_nbyte += width;
    else
        w->varcol[w->nvarcol++] = sp->ncol;
    sp->ncol++;
    return 0;
}

int cvn_create_column(cvn_t* sp, const char* name, cvn_typ_t typ, bool zflag, bool nflag) {
    const int rc = create_column(sp, name, typ, zflag, nflag);
    if (rc != 0) mpool_destroy(sp->mpool);  // Kept: the stream stays open and the file where it is
    return rc;
}

// Appending.

// Marks the output for discarding.
static int cv_reterr(int code, cvn_t* sp) {
    sp->drop_file = 1;
    return code;
}

// Enlarges a column buffer that holds values. Returns false when that was not to be had; the buffer is then
// as it was.
static bool colbuf_expand(colbuf_t* cb, colinfo_t* info, mpool_t* pool, int64_t need) {
    const double wanted = static_cast<double>(need + cb->bufmax) * 1.2;
    if (wanted > INT_MAX - CVN_MAX_ROWGROUP_NROW) return false;
    const int64_t bufmax = align8(static_cast<int64_t>(wanted));
    if (cb->buftop == 0 || bufmax <= cb->bufmax) return false;
    // Where even the larger capacity is too small for the value there is nothing to get memory for.
    if (!colbuf_grow(cb, info, pool, static_cast<int>(bufmax), std::min(need, bufmax - cb->buftop)))
        return false;
    cb->bufmax = static_cast<int>(bufmax);
    return true;
}

// Replaces the buffer of an empty column by one of at least `need` bytes.
static int colbuf_free_and_resize(colbuf_t* cb, colinfo_t* info, mpool_t* pool, int64_t need) {
    if (need > INT_MAX - CVN_MAX_ROWGROUP_NROW) return -2;
    mpool_free(pool, cb->buf);
    cb->bufmax = 0;
    info->cap = 0;
    cb->buf = static_cast<char*>(mpool_alloc(pool, static_cast<size_t>(align8(need)) + CVN_COLBUF_SLACK));
    if (!cb->buf) return -2;
    cb->bufmax = static_cast<int>(align8(need));
    info->cap = cb->bufmax;
    return 0;
}

// Makes room for `need` more bytes in a column buffer that lacks it, writing the row group out if nothing
// else helps. Sets drop_file on failure, except for the inconsistencies that cannot be.
static int make_room(cvn_t* sp, colbuf_t* cb, colinfo_t* info) {
    const int64_t need = info->need;
    if (colbuf_expand(cb, info, sp->mpool, need)) return cb->bufmax - cb->buftop >= need ? 0 : -1;
    if (cb->buftop != 0) {
        const int rc = cv_flush(sp);
        if (rc != 0) return cv_reterr(rc, sp);
        if (cb->buftop != 0) return -1;
    }
    if (need > cb->bufmax) {
        const int rc = colbuf_free_and_resize(cb, info, sp->mpool, need);
        if (rc != 0) return cv_reterr(rc, sp);
    }
    return 0;
}

// The bytes that the values take whose length varies, into w->info, and those of the whole row. Returns the
// first column whose length is negative, with those before it measured, or -1 when there is none.
static int measure_row(writer_t* w, const cvn_datum_t* datum, const bool* isnull, int64_t* ret_total) {
    int64_t total = w->fixed_nbyte;
    for (int i = 0; i < w->nvarcol; i++) {
        const int c = w->varcol[i];
        colinfo_t* info = &w->info[c];
        if (info->storage == CVN_TYP_CSTR)
            info->need = isnull[c] ? 1 : static_cast<int64_t>(strlen(datum[c].t)) + 1;
        else if (isnull[c])
            info->need = 4;
        else if (datum[c].a.len < 0)
            return c;
        else
            info->need = int64_t{datum[c].a.len} + 4;
        total += info->need;
    }
    *ret_total = total;
    return -1;
}

static int64_t room_of(const colbuf_t* cb) { return cb->bufmax - cb->buftop; }

// Reserves the first `ncol` values of the row one by one, cutting the row group before the first one that
// does not fit in.
[[gnu::cold]] static int reserve_slowly(writer_t* w, int ncol) {
    cvn_t* sp = &w->pub;
    w->fixed_room = 0;  // buffers may change
    for (int c = 0; c < ncol; c++) {
        const int64_t need = w->info[c].need;
        const int64_t sum = sp->rgcur_nbyte + need;
        sp->rgcur_nbyte = static_cast<int>(std::min<int64_t>(sum, INT_MAX));
        if (sum > CVN_MAX_ROWGROUP_NBYTE) {
            // Kept: writing a row group sets the count to 0, so what this row had reserved so far is
            // forgotten, this value included; and without rows to write the count stays, so the next row
            // cuts.
            const int rc = cv_flush(sp);
            if (rc != 0) return cv_reterr(rc, sp);
        }
        colbuf_t* cb = sp->colbuf[c];
        if (room_of(cb) < need) {
            const int rc = make_room(sp, cb, &w->info[c]);
            if (rc != 0) return rc;
        }
    }
    // Only now, since a row group that is cut on the way takes memory from the columns before as well.
    for (int c = 0; c < ncol; c++) {
        colbuf_t* cb = sp->colbuf[c];
        if (!colbuf_grow(cb, &w->info[c], sp->mpool, cb->bufmax, w->info[c].need)) return cv_reterr(-2, sp);
    }
    return 0;
}

// What a column's buffer has memory for; never more than it has room for.
static int64_t memory_of(const writer_t* w, int c) { return w->info[c].cap - w->pub.colbuf[c]->buftop; }

// Rows that every fixed-width column's buffer has memory for.
static int count_fixed_room(const writer_t* w) {
    int64_t room = CVN_MAX_ROWGROUP_NROW;
    for (int c = 0; c < w->pub.ncol; c++)
        if (w->info[c].width > 0) room = std::min(room, memory_of(w, c) / w->info[c].width);
    return static_cast<int>(room);
}

// Whether the whole row fits in without a cut and without a larger buffer. Buffers of fixed-width columns
// fill up row by row, so their room is counted down rather than looked at.
static bool fits_at_once(writer_t* w, int64_t total) {
    const cvn_t* sp = &w->pub;
    if (sp->rgcur_nbyte + total > CVN_MAX_ROWGROUP_NBYTE) return false;
    for (int i = 0; i < w->nvarcol; i++) {
        const int c = w->varcol[i];
        if (memory_of(w, c) < w->info[c].need) return false;
    }
    if (w->fixed_room == 0) w->fixed_room = count_fixed_room(w);
    if (w->fixed_room == 0) return false;
    w->fixed_room--;
    return true;
}

// The bytes of a NULL: zeros, or the decimal zero.
static void encode_null(char* p, const colinfo_t& info) {
    switch (info.storage) {
        case CVN_TYP_DEC64: cvn_dec64_zero(p); break;
        case CVN_TYP_DEC128: cvn_dec128_zero(p); break;
        case CVN_TYP_BYTEA: memset(p, 0, 4); break;
        case CVN_TYP_CSTR: *p = '\0'; break;
        default: memset(p, 0, static_cast<size_t>(info.width)); break;
    }
}

// The bytes of a value, info.need in all.
static inline void encode_value(char* p, const colinfo_t& info, const cvn_datum_t* datum) {
    switch (info.storage) {
        case CVN_TYP_BOOL: {
            uint8_t image;
            memcpy(&image, datum, 1);
            *p = image != 0 ? 1 : 0;
            break;
        }
        case CVN_TYP_INT16: memcpy(p, datum, 2); break;
        case CVN_TYP_INT32:
        case CVN_TYP_FLOAT: memcpy(p, datum, 4); break;
        case CVN_TYP_INT64:
        case CVN_TYP_DOUBLE:
        case CVN_TYP_DEC64: memcpy(p, datum, 8); break;
        case CVN_TYP_INT128:
        case CVN_TYP_DEC128: memcpy(p, datum, 16); break;
        case CVN_TYP_CSTR: memcpy(p, datum->t, static_cast<size_t>(info.need)); break;
        default:  // bytea
            memcpy(p, &datum->a.len, 4);
            if (info.need > 4) memcpy(p + 4, datum->a.ptr, static_cast<size_t>(info.need - 4));
            break;
    }
}

// Adds one value to a column buffer that has room for it. Where the smallest and the largest value are is
// found when the row group is written, for all rows at once.
static inline void colbuf_add(colbuf_t* cb, const colinfo_t& info, const cvn_datum_t* datum, bool isnull) {
    char* p = cb->buf + cb->buftop;
    cb->buftop += static_cast<int>(info.need);
    const int row = cb->nrow++;
    if (isnull) {
        encode_null(p, info);
        cb->nmap[row >> 3] = static_cast<char>(cb->nmap[row >> 3] | 0x80 >> (row & 7));
        cb->nnull++;
    } else {
        encode_value(p, info, datum);
    }
}

static void add_row(writer_t* w, const cvn_datum_t* datum, const bool* isnull) {
    cvn_t* sp = &w->pub;
    const int ncol = sp->ncol;
    for (int c = 0; c < ncol; c++) colbuf_add(sp->colbuf[c], w->info[c], &datum[c], isnull[c]);
    sp->nrow++;
}

// A row of no values, or of more or fewer than there are columns, or one after a failure.
[[gnu::cold]] static int append_other(cvn_t* sp, int ndatum) {
    if (ndatum != sp->ncol || sp->drop_file) return cv_reterr(-6, sp);
    // Kept: without columns a row of no values is a row; closing such a writer is what fails.
    sp->nrow++;
    return 0;
}

// A row whose value `cno` is refused. Those before it take their room all the same, whatever that writes.
[[gnu::cold]] static int append_refused(writer_t* w, int cno) {
    const int rc = reserve_slowly(w, cno);
    return rc != 0 ? rc : cv_reterr(-6, &w->pub);
}

int cvn_append(cvn_t* sp, int ndatum, const cvn_datum_t* datum, const bool* isnull) {
    if (ndatum != sp->ncol || ndatum < 1 || sp->drop_file) return append_other(sp, ndatum);
    writer_t* w = writer_of(sp);
    if (sp->colbuf[0]->nrow >= CVN_MAX_ROWGROUP_NROW) {
        const int rc = cv_flush(sp);
        if (rc != 0) return cv_reterr(rc, sp);
    }
    int64_t total = 0;
    const int refused = measure_row(w, datum, isnull, &total);
    if (refused >= 0) return append_refused(w, refused);
    if (fits_at_once(w, total)) {
        sp->rgcur_nbyte += static_cast<int>(total);
    } else {
        const int rc = reserve_slowly(w, ndatum);
        if (rc != 0) return rc;
    }
    add_row(w, datum, isnull);
    return 0;
}

// Closing.

// Lays the footer down in `buf`, if there is one, and returns its size.
static int64_t make_footer(cvn_t* sp, char* buf) {
    const schema_desc_t schema{
        .version = CVN_FORMAT_VERSION,
        .ncol = sp->ncol,
        .nrow = sp->nrow,
        .nrowgroup = sp->nrowgroup,
        .coldefsz = static_cast<int32_t>(CVN_COLDEFSZ * sp->ncol),
        .colstatsz = static_cast<int32_t>(CVN_COLSTATSZ * sp->ncol),
        .rowgroupsz = sp->nrowgroup * rowgroup_recordsz(sp->ncol),
    };
    int64_t at = 0;
    const auto put = [buf, &at](const void* ptr, int64_t nb) {
        if (buf) memcpy(buf + at, ptr, static_cast<size_t>(nb));
        at += nb;
    };
    put(&schema, CVN_SCHEMASZ);
    put(sp->coldef, schema.coldefsz);
    put(sp->colstat, schema.colstatsz);
    for (int64_t r = 0; r < sp->nrowgroup; r++) put(sp->rowgroup[r], rowgroup_recordsz(sp->ncol));
    return at;
}

static int dofooter(cvn_t* sp) {
    const int64_t footersz = make_footer(sp, nullptr);
    auto* buf = static_cast<char*>(mpool_calloc(sp->mpool, static_cast<size_t>(footersz)));
    if (!buf) return -2;
    (void)make_footer(sp, buf);  // the same size
    const uint32_t hash = XXH32(buf, static_cast<size_t>(footersz), 0);
    int rc = dowrite(sp, buf, static_cast<size_t>(footersz));
    if (rc == 0) rc = dowrite(sp, &footersz, sizeof(footersz));
    if (rc == 0) rc = dowrite(sp, &hash, sizeof(hash));
    if (rc == 0) rc = dowrite(sp, CVN_TAIL_MAGIC, strlen(CVN_TAIL_MAGIC));
    return rc;
}

int cvn_close(cvn_t* sp) {
    int rc = 0;
    if (!sp->drop_file) {
        if (sp->ncol < 1) {
            rc = cv_reterr(-6, sp);
        } else {
            rc = cv_flush(sp);
            if (rc == 0 && sp->fpath) rc = dofooter(sp);
        }
    }
    if (sp->fp) {
        // The last bytes reach the system only here, so a full disk may show here first.
        errno = 0;
        if (fclose(sp->fp) != 0 && !sp->drop_file && rc == 0) {
            sp->os_errno = errno;
            rc = -3;
        }
    }
    if (sp->drop_file && sp->fpath) (void)remove(sp->fpath);
    const int saved = sp->os_errno;
    mpool_destroy(sp->mpool);
    if (rc == -3) errno = saved;
    return rc;
}
