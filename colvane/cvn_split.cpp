// cvn_split: one data file as a directory with a file per column.
//
// The pages are copied as they are stored. meta.cvnx is the data file without them: head, footer with the
// pages' new offsets, trailer. It appears last and by rename, so a directory that has it is complete.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

using namespace colvane;

namespace {

constexpr size_t CVNX_SUFFIXSZ = 30;  // "/" and the longest name in the directory, with the NUL
constexpr mode_t CVNX_DIR_MODE = 0700;

}  // namespace

int mkdir_p(const char* dir) {
    char* path = strdup(dir);
    if (!path) return errno == EEXIST ? 0 : -3;
    const size_t len = strlen(path);
    // Kept: "/" alone becomes the empty path, which cannot be made.
    if (len > 0 && path[len - 1] == '/') path[len - 1] = '\0';
    for (char* p = path + 1; len > 0 && *p; p++) {
        if (*p != '/') continue;
        *p = '\0';
        (void)mkdir(path, CVNX_DIR_MODE);  // the last one tells
        *p = '/';
    }
    const int rc = mkdir(path, CVNX_DIR_MODE);
    const int saved = errno;
    free(path);
    errno = saved;
    return rc != 0 && saved != EEXIST ? -3 : 0;
}

int cvnx_split_ret(int ret, cvnx_split_t* sp) {
    const int saved = errno;
    if (sp->fp)
        for (FILE** fp = sp->fp; *fp; fp++) {
            (void)fclose(*fp);  // only a failed split gets here with open streams
            *fp = nullptr;
        }
    if (sp->sc) (void)cvn_scan_close(sp->sc);  // always 0
    free(sp->buf);
    *sp = cvnx_split_t{};
    errno = saved;
    return ret;
}

static int create_columns(cvnx_split_t* sp, const char* dpath, char* path, size_t pathsz) {
    for (int c = 0; c < sp->sc->schema->ncol; c++) {
        if (snprintf(path, pathsz, "%s/%d.cvnx", dpath, c) >= static_cast<int>(pathsz)) return -6;
        sp->fp[c] = fopen(path, "wbe");
        if (!sp->fp[c]) return -3;
    }
    return 0;
}

// Reads one stored page into sp->buf. 0, -2, or -3 when it cannot be read whole.
static int read_stored(cvnx_split_t* sp, const colmeta_t* m, int64_t filesz) {
    if (!cvn_page_in_file(m, filesz)) return -3;
    auto* bigger = static_cast<char*>(realloc(sp->buf, static_cast<size_t>(m->zbyte) + 1));
    if (!bigger) return -2;
    sp->buf = bigger;
    return cvn_pread_full(sp->sc->fd, sp->buf, static_cast<size_t>(m->zbyte), m->file_offset) ? 0 : -3;
}

// Copies all pages and notes their new places in the footer. `*ret_complete` is false when a page could not
// be read.
static int copy_pages(cvnx_split_t* sp, bool* ret_complete) {
    *ret_complete = false;
    cvn_scan_t* sc = sp->sc;
    struct stat st;
    if (fstat(sc->fd, &st) != 0) return 0;
    int64_t copied = 0;
    for (int64_t r = 0; r < sc->schema->nrowgroup; r++) {
        for (int c = 0; c < sc->schema->ncol; c++) {
            colmeta_t m;
            (void)cvn_scan_colmeta(sc, r, c, &m);  // both exist
            int rc = read_stored(sp, &m, st.st_size);
            if (rc == -3) return 0;  // Kept: the split ends here, without an error and without a meta.cvnx
            if (rc != 0) return rc;
            copied += m.zbyte;
            if (!overlap_bearable(copied, st.st_size)) return 0;
            const int64_t offset = ftello(sp->fp[c]);
            if (offset < 0) return -3;
            char* record = reinterpret_cast<char*>(sc->rowgroup[r]);
            memcpy(record + CVN_ROWGROUP_HEADSZ + c * CVN_COLMETASZ + offsetof(colmeta_t, file_offset),
                   &offset, sizeof(offset));
            if (m.zbyte > 0 && fwrite(sp->buf, static_cast<size_t>(m.zbyte), 1, sp->fp[c]) != 1) return -3;
        }
    }
    *ret_complete = true;
    return 0;
}

static int close_columns(cvnx_split_t* sp) {
    for (int c = sp->sc->schema->ncol - 1; c >= 0; c--) {
        FILE* fp = sp->fp[c];
        sp->fp[c] = nullptr;
        if (fclose(fp) != 0) return -3;
    }
    return 0;
}

static bool write_item(FILE* fp, const void* ptr, size_t nb) { return fwrite(ptr, nb, 1, fp) == 1; }

static int write_meta(cvnx_split_t* sp, const char* tmppath, const char* path) {
    cvn_scan_t* sc = sp->sc;
    FILE* fp = sp->fp[0] = fopen(tmppath, "wbe");
    if (!fp) return -3;
    if (!write_item(fp, CVN_HEAD_MAGIC, CVN_HEAD_SZ) ||
        !write_item(fp, sc->schema_buf, static_cast<size_t>(sc->schema_bufsz)) ||
        !write_item(fp, &sc->schema_bufsz, sizeof(sc->schema_bufsz)) ||
        !write_item(fp, &sc->schema_hash, sizeof(sc->schema_hash)) ||
        !write_item(fp, CVN_TAIL_MAGIC, strlen(CVN_TAIL_MAGIC)))
        return -3;
    sp->fp[0] = nullptr;
    if (fclose(fp) != 0) return -3;
    return rename(tmppath, path) == 0 ? 0 : -3;
}

int cvnx_split(const char* dpath, const char* fname) {
    cvnx_split_t split{};
    int rc = mkdir_p(dpath);
    if (rc != 0) return cvnx_split_ret(rc, &split);
    rc = cvn_scan_open(&split.sc, fname);
    if (rc != 0) return cvnx_split_ret(rc, &split);
    int ncol;
    (void)cvn_scan_coldef(&ncol, &split.coldef, split.sc);  // always 0
    for (int c = 0; c < ncol; c++) {
        char name[CVN_NAME_SZ + 1] = {};  // a damaged name may lack its NUL
        memcpy(name, split.coldef[c].name, CVN_NAME_SZ);
        rc = cvn_scan_add_required(split.sc, name);
        if (rc != 0) return cvnx_split_ret(rc, &split);
    }
    mpool_t* pool = split.sc->mpool;
    const size_t pathsz = strlen(dpath) + CVNX_SUFFIXSZ;
    // The metadata takes the first slot while it is written, also where there is no column.
    const size_t nslot = static_cast<size_t>(std::max(ncol, 1)) + 1;
    split.fp = static_cast<FILE**>(mpool_calloc(pool, nslot * sizeof(FILE*)));
    auto* path = static_cast<char*>(mpool_alloc(pool, pathsz));
    auto* tmppath = static_cast<char*>(mpool_alloc(pool, pathsz));
    if (!split.fp || !path || !tmppath) return cvnx_split_ret(-2, &split);
    rc = create_columns(&split, dpath, path, pathsz);
    if (rc != 0) return cvnx_split_ret(rc, &split);
    bool complete;
    rc = copy_pages(&split, &complete);
    if (rc != 0 || !complete) return cvnx_split_ret(rc, &split);
    rc = close_columns(&split);
    if (rc != 0) return cvnx_split_ret(rc, &split);
    if (snprintf(tmppath, pathsz, "%s/meta.cvnx.tmp", dpath) >= static_cast<int>(pathsz) ||
        snprintf(path, pathsz, "%s/meta.cvnx", dpath) >= static_cast<int>(pathsz))
        return cvnx_split_ret(-6, &split);
    return cvnx_split_ret(write_meta(&split, tmppath, path), &split);
}
