// Everything a reader may do with a file that nobody vouches for. Shared by the fuzz targets and the tests on
// hostile bytes: what comes back is null, or the sentence on the promise that was broken.
#ifndef KELPD_FUZZ_EXERCISE_H
#define KELPD_FUZZ_EXERCISE_H

#include <string.h>

#include <string>

#include "colvane/colvane.h"

namespace exercise {

// At most so many row groups are read per pass: a small footer can describe very many.
inline constexpr int64_t MAX_GROUPS = 32;
inline constexpr int MAX_COLUMNS = 64;

inline bool one_of(int code, std::initializer_list<int> codes) {
    for (const int c : codes)
        if (c == code) return true;
    return false;
}

// Reads every byte that a page promises, so that a sanitizer sees one that is not there.
inline unsigned touch(const cvn_page_t* page, bool uncompress) {
    unsigned sum = 0;
    const char* body = reinterpret_cast<const char*>(page) + CVN_PAGE_HEADSZ;
    const int32_t n = uncompress ? page->nbyte : page->zbyte;
    for (int32_t i = 0; i < n; i++) sum += static_cast<unsigned char>(body[i]);
    return sum;
}

inline const char* check_pages(int code, int npage, cvn_page_t** page, const cvn_scan_t* sc,
                               bool uncompress) {
    static volatile unsigned sink;
    if (code != 0) {
        if (npage != 0 || page) return "a row group that failed hands out pages";
        return one_of(code, {-1, -2, -3, -4, -6}) ? nullptr : "an unknown code of a row group";
    }
    if (npage != sc->nreqcol) return "a row group with a wrong number of pages";
    for (int k = 0; k < npage; k++) {
        if (page[k]->magic != CVN_PAGE_MAGIC || page[k]->unused != 0) return "a page without its head";
        if (page[k]->cno != sc->reqcol[k]) return "a page of another column";
        if (uncompress && page[k]->zbyte != page[k]->nbyte) return "a page that was not decompressed";
        sink = sink + touch(page[k], uncompress);
    }
    return nullptr;
}

// One predicate of every kind on one column; values that any type can be given.
inline const char* add_predicates(cvn_scan_t* sc, const char* name, cvn_typ_t typ) {
    static constexpr char TEXT[] = "0x00000000000000000000000000000007";
    cvn_datum_t arg[3];
    memset(arg, 0, sizeof(arg));
    if (cvn_datum_from_string(&arg[0], cvn_storage(typ) == CVN_TYP_INT128 ? TEXT : "7", typ) != 0)
        return nullptr;
    arg[2] = arg[1] = arg[0];
    for (const int op : {CVN_OP_NE + 0, CVN_OP_GE + 0, CVN_OP_ISNOTNULL + 0, CVN_OP_IN + 0}) {
        const int narg = op == CVN_OP_ISNOTNULL ? 0 : op == CVN_OP_IN ? 3 : 1;
        if (!one_of(cvn_scan_add_lens(sc, name, op, narg, arg), {0, -2, -6}))
            return "an unknown code of a predicate";
    }
    return nullptr;
}

inline const char* scan_once(const char* path, bool uncompress, bool predicates, int* ret_open) {
    cvn_scan_t* sc = nullptr;
    const int code = cvn_scan_open(&sc, path);
    *ret_open = code;
    if (code != 0) {
        if (sc) return "an open that failed sets its result";
        return one_of(code, {-1, -2, -3, -7}) ? nullptr : "an unknown code of opening";
    }
    const char* bad = nullptr;
    int ncol = -1;
    const cvn_coldef_t* def = nullptr;
    (void)cvn_scan_coldef(&ncol, &def, sc);
    if (ncol < 0) bad = "a negative number of columns";
    for (int c = 0; c < ncol && c < MAX_COLUMNS && !bad; c++) {
        char name[CVN_NAME_SZ + 1] = {};
        memcpy(name, def[c].name, CVN_NAME_SZ);
        const int e = cvn_scan_add_required(sc, name);
        if (!one_of(e, {0, -6})) bad = "an unknown code of a column";
        if (strlen(name) == CVN_NAME_SZ && e == 0) bad = "a column without a name is found";
        colstat_t stat;
        if (cvn_scan_colstat(sc, c, &stat) != 0) bad = "a column without statistics";
    }
    for (int k = 0; k < sc->nreqcol && predicates && !bad; k++) {
        char name[CVN_NAME_SZ + 1] = {};
        memcpy(name, def[sc->reqcol[k]].name, CVN_NAME_SZ);
        bad = add_predicates(sc, name, def[sc->reqcol[k]].typ);
    }
    for (int64_t g = 0; g < MAX_GROUPS && !bad; g++) {
        int npage = 77;
        cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
        const int e = cvn_scan_next(sc, &npage, &page, uncompress);
        bad = check_pages(e, npage, page, sc, uncompress);
        if (e == -4) break;
    }
    for (int64_t g = -1; g <= MAX_GROUPS && g <= sc->schema->nrowgroup && !bad; g++) {
        const bool there = g >= 0 && g < sc->schema->nrowgroup;
        if (!there && cvn_scan_get_rowgroup_size(sc, g) != -1)
            bad = "the size of a row group that is not there";
        int npage = 77;
        cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
        const int e = cvn_scan_rowgroup(sc, g, &npage, &page, uncompress);
        if (!there && e != -6) bad = "a row group that is not there";
        if (!bad) bad = check_pages(e, npage, page, sc, uncompress);
    }
    (void)cvn_scan_close(sc);
    return bad;
}

// Opens, asks and scans, once without predicates and once with.
inline const char* scan(const char* path, bool uncompress) {
    int plain, pruned;
    const char* bad = scan_once(path, uncompress, false, &plain);
    if (!bad) bad = scan_once(path, uncompress, true, &pruned);
    if (bad) return bad;
    cvn_filestat_t st;
    memset(&st, 0x55, sizeof(st));
    const int code = cvn_filestat(&st, path);
    if (plain != 0 && code != plain) return "filestat does not pass on the code of opening";
    if (plain == 0 && !one_of(code, {0, -2, -7})) return "an unknown code of filestat";
    if (code != 0 && st.ncol != 0x55555555) return "a filestat that failed sets its result";
    int32_t hash = 0x55555555;
    const int tell = cvn_get_hash(&hash, path);
    if (!one_of(tell, {0, -1, -3, -7})) return "an unknown code of the hash";
    if (tell != 0 && hash != 0) return "a hash that is not told is not cleared";
    if (plain == 0 && tell != 0) return "a file that opens does not tell its hash";
    if (code == 0 && hash != st.chksum) return "two different hashes";
    return nullptr;
}

// Splits `path` into the folder `out`; what results must open when the metadata is there.
inline const char* split(const char* path, const char* out) {
    const int code = cvnx_split(out, path);
    if (!one_of(code, {0, -2, -3, -6, -7})) return "an unknown code of a split";
    const std::string meta = std::string(out) + "/meta.cvnx";
    FILE* fp = fopen(meta.c_str(), "rb");
    if (!fp) return nullptr;
    fclose(fp);
    if (code != 0) return "a split that failed leaves its metadata";
    cvn_scan_t* sc = nullptr;
    if (cvn_scan_open(&sc, out) != 0) return "a split that cannot be opened";
    (void)cvn_scan_close(sc);
    return scan(out, true);
}

}  // namespace exercise
#endif
