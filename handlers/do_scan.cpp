// Scans: the stored pages of the qualifying row groups, one file after the other. Before a record's head is
// sent all of its pages are known to be readable; then each is read and sent before the next is read into its
// place, so a child holds one page and sends it while the cache does too. Nothing is decompressed, checked or
// looked at here but the sizes.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "colvane/colvane.h"
#include "common/verbose.h"
#include "handlers/handlers.h"
#include "store/dir.h"
#include "store/util.h"

constexpr int64_t SEGMENT_NROW = 0x100000;  // rows that one count record can stand for
constexpr size_t COUNT_PAGESZ = 131115;     // a page with a bit for every row of a segment

bool stream_header(htreply_t* reply, int32_t nbyte) {
    const payloadhdr_t hdr = {.magic = PAYLOAD_MAGIC, .nbyte = nbyte};
    return htreply_chunk(reply, &hdr, sizeof(hdr));
}

bool stream_page(htreply_t* reply, const cvn_page_t* page) {
    int sz;
    if (page->zbyte < 0 || __builtin_add_overflow(page->zbyte, CVN_PAGE_HEADSZ, &sz)) return false;
    return htreply_chunk(reply, page, sz);
}

stream_t stream_rowgroup(htreply_t* reply, cvn_scan_t* scan, int64_t rg, bool check_typ) {
    // A page is at most 2 GB, so 64 bits hold any sum; a record's size has 32.
    int64_t nbyte = 0;
    for (int k = 0; k < scan->nreqcol; k++) {
        colmeta_t meta;
        if (cvn_scan_colmeta(scan, rg, scan->reqcol[k], &meta) != 0 || meta.zbyte < 0) return STREAM_BADSIZE;
        nbyte += CVN_PAGE_HEADSZ + int64_t{meta.zbyte};
    }
    // Kept: more than a record's size can say, 2 GiB with the heads, is refused; nothing is sent of such a
    // row group.
    if (nbyte > INT32_MAX) return STREAM_BADSIZE;
    // Once the head has left, a page that cannot be read breaks the record. So the pages after the first are
    // proved readable, and the first is read, while a failure can still be told as one.
    cvn_page_t* page = nullptr;
    if (cvn_scan_prove(scan, rg, 1) != 0) return STREAM_NOREAD;
    if (scan->nreqcol > 0 && cvn_scan_page(scan, rg, 0, &page, false) != 0) return STREAM_NOREAD;
    if (!stream_header(reply, static_cast<int32_t>(nbyte))) return STREAM_NOHEADER;
    for (int k = 0; k < scan->nreqcol; k++) {
        if (k > 0 && cvn_scan_page(scan, rg, k, &page, false) != 0) return STREAM_CUT;
        if (verbose > 1) {
            if (page->zbyte != page->nbyte)
                fprintf(stderr, "  page[%d]: %d %d\n", k + 1, page->zbyte, page->nbyte);
            else
                fprintf(stderr, "  page[%d]: %d\n", k + 1, page->zbyte);
        }
        if (check_typ && page->typ == 0)
            fprintf(stderr, "\n *** invalid typ %d detected *** \n\n", page->typ);
        if (!stream_page(reply, page)) return STREAM_NOPAGE;
    }
    return STREAM_OK;
}

// The predicate code of an operator, or 0. The words are taken in any case, the signs exactly.
static int op_code(const char* op) {
    static const char* const sign[] = {"==", "!=", ">", ">=", "<", "<="};
    for (int i = 0; i < 6; i++)
        if (strcmp(op, sign[i]) == 0) return CVN_OP_EQ + i;
    if (strcasecmp(op, "isnull") == 0) return CVN_OP_ISNULL;
    if (strcasecmp(op, "isnotnull") == 0) return CVN_OP_ISNOTNULL;
    if (strcasecmp(op, "in") == 0) return CVN_OP_IN;
    return 0;
}

// The definition of a column, or null. A damaged file's names may lack their NUL.
static const cvn_coldef_t* find_column(const cvn_coldef_t* coldef, int ncol, const char* name) {
    const size_t len = strlen(name);
    for (int i = 0; i < ncol && len < CVN_NAME_SZ; i++)
        if (memcmp(coldef[i].name, name, len + 1) == 0) return &coldef[i];
    return nullptr;
}

// Adds one condition to a scan. The datums borrow the request's texts; the scanner copies what it keeps.
static const char* add_cond(cvn_scan_t* scan, const cvn_coldef_t* coldef, int ncol, const cond_t* cond) {
    const int op = op_code(cond->op);
    if (op == 0) return STATUS_BAD;
    const cvn_coldef_t* def = find_column(coldef, ncol, cond->colname);
    if (!def) return STATUS_BAD;
    cvn_datum_t* datum = nullptr;
    if (cond->narg > 0) {
        datum = static_cast<cvn_datum_t*>(malloc(static_cast<size_t>(cond->narg) * sizeof(*datum)));
        if (!datum) return STATUS_BAD;
    }
    const char* err = nullptr;
    for (int i = 0; i < cond->narg && !err; i++)
        if (cvn_datum_from_string(&datum[i], cond->arg[i], def->typ) != 0) err = STATUS_BAD;
    if (!err && cvn_scan_add_lens(scan, cond->colname, op, cond->narg, datum) != 0) err = STATUS_BAD;
    free(datum);
    return err;
}

static const char* start_scan_file_err(const char* err, cvn_scan_t* scan) {
    if (scan) cvn_scan_close(scan);
    return err;
}

// Opens one file and configures its scan. The library's codes become statuses here: a file that cannot be
// opened is the server's fault, whatever the scanner refuses afterwards is the request's.
static const char* start_scan_file(cvn_scan_t** ret_scan, const char* path, const colname_t* colname,
                                   const cond_t* cond, const fragment_t* frag) {
    *ret_scan = nullptr;
    cvn_scan_t* scan = nullptr;
    int ncol = 0;
    const cvn_coldef_t* coldef = nullptr;
    if (cvn_scan_open(&scan, path) != 0 || cvn_scan_coldef(&ncol, &coldef, scan) != 0)
        return start_scan_file_err(STATUS_ERROR, scan);
    for (; colname; colname = colname->next)
        if (cvn_scan_add_required(scan, colname->name) != 0) return start_scan_file_err(STATUS_BAD, scan);
    for (; cond; cond = cond->next)
        if (const char* err = add_cond(scan, coldef, ncol, cond)) return start_scan_file_err(err, scan);
    if (frag->nfrag != 0 && cvn_scan_add_fragment(scan, frag->id, frag->nfrag) != 0)
        return start_scan_file_err(STATUS_BAD, scan);
    *ret_scan = scan;
    return nullptr;
}

static const char* scan_file(htreply_t* reply, cvn_scan_t* scan) {
    for (;;) {
        int64_t rg;
        const int code = cvn_scan_next_rowgroup(scan, &rg);
        if (code == -4) return nullptr;
        // Kept: a failed read or send has the status of bad input.
        if (code != 0 || stream_rowgroup(reply, scan, rg, true) != STREAM_OK) return STATUS_BAD;
    }
}

// Sends the row count of one file: a page per segment of rows, with a body of zeros.
static const char* scan_count(htreply_t* reply, const char* path) {
    cvn_filestat_t st;
    if (cvn_filestat(&st, path) != 0) return STATUS_ERROR;
    cvn_page_t* page = static_cast<cvn_page_t*>(calloc(1, COUNT_PAGESZ));
    if (!page) return STATUS_ERROR;
    page->magic = CVN_PAGE_MAGIC;
    page->cno = -1;
    for (int64_t off = 0; off < st.nrow;) {
        const int64_t n = st.nrow - off < SEGMENT_NROW ? st.nrow - off : SEGMENT_NROW;
        page->nrow = static_cast<int32_t>(n);
        page->nbyte = page->zbyte = static_cast<int32_t>((n - 1) / 8 / 8 + 1);
        // Kept: a failed send ends this file alone.
        if (!stream_header(reply, CVN_PAGE_HEADSZ + page->zbyte) || !stream_page(reply, page)) break;
        off += n;
    }
    free(page);
    return nullptr;
}

static const char* do_scan_err(const char* err, cvn_scan_t* scan, dir_item_t* ls, char* path) {
    if (scan) cvn_scan_close(scan);
    dir_free(ls);
    free(path);
    return err;
}

const char* do_scan(htreply_t* reply, const char* dpath, colname_t* colname, cond_t* cond, fragment_t* frag) {
    dir_item_t* ls = nullptr;
    cvn_scan_t* scan = nullptr;
    char* path = nullptr;
    if (const char* err = dir_list(&ls, dpath)) return do_scan_err(err, scan, ls, path);
    for (const dir_item_t* p = ls; p; p = p->next) {
        if (p->name[0] == '.' || !file_is_cvn(p->name)) continue;
        if (verbose) fprintf(stderr, "  do_scan: scanning %s/%s\n", dpath, p->name);
        if (asprintf(&path, "%s/%s", dpath, p->name) < 0) return do_scan_err(STATUS_NOMEM, scan, ls, nullptr);
        const char* err;
        if (!colname && !cond) {
            err = scan_count(reply, path);
        } else {
            err = start_scan_file(&scan, path, colname, cond, frag);
            if (!err) err = scan_file(reply, scan);
        }
        if (err) return do_scan_err(err, scan, ls, path);
        (void)do_scan_err(nullptr, scan, nullptr, path);  // this file is done
        scan = nullptr;
        path = nullptr;
    }
    (void)stream_header(reply, 0);  // whoever is still there
    (void)htreply_chunk(reply, nullptr, 0);
    return do_scan_err(nullptr, scan, ls, path);
}
