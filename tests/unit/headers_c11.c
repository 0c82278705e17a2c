/* The public headers as C11: they compile without a warning, and a C program can use every function. */
#include <colvane/colvane.h>
#include <colvane/mpool.h>
#include <string.h>

int c11_round_trip(const char* path);
size_t c11_sizes(int which);

/* Writes one row and reads it back. Returns 0, or the line that failed. */
int c11_round_trip(const char* path) {
    cvn_t* w = NULL;
    cvn_scan_t* sc = NULL;
    cvn_page_t** page = NULL;
    colmeta_t meta;
    cvn_datum_t datum[2];
    const bool isnull[2] = {false, false};
    int32_t n = 0;
    int ncol = 0, fd = -1;
    memset(datum, 0, sizeof(datum));
    datum[0].i = 42;
    datum[1].t = "forty-two";
    if (cvn_create(&w, path) != 0) return __LINE__;
    if (cvn_create_column(w, "n", CVN_TYP_INT32, false, false) != 0) return __LINE__;
    if (cvn_create_column(w, "t", CVN_TYP_CSTR, true, false) != 0) return __LINE__;
    if (cvn_append(w, 2, datum, isnull) != 0) return __LINE__;
    if (cvn_close(w) != 0) return __LINE__;
    if (cvn_scan_open(&sc, path) != 0) return __LINE__;
    if (cvn_scan_locate(sc, 0, 0, &fd, &meta) != 0 || fd != sc->fd) return __LINE__;
    if (!cvn_page_in_file(&meta, meta.file_offset + 5) || cvn_page_in_file(&meta, meta.file_offset + 4))
        return __LINE__;
    if (cvn_storage(CVN_TYP_DATE) != CVN_TYP_INT32) return __LINE__;
    if (cvn_scan_add_required(sc, "n") != 0) return __LINE__;
    if (cvn_scan_next(sc, &ncol, &page, true) != 0) return __LINE__;
    memcpy(&n, page[0]->buf, sizeof(n));
    if (ncol != 1 || n != 42) return __LINE__;
    return cvn_scan_close(sc) == 0 ? 0 : __LINE__;
}

/* Sizes as this dialect sees them. */
size_t c11_sizes(int which) {
    switch (which) {
        case 0: return sizeof(cvn_datum_t);
        case 1: return sizeof(colstat_t);
        case 2: return sizeof(colmeta_t);
        case 3: return sizeof(schema_desc_t);
        case 4: return sizeof(cvn_coldef_t);
        case 5: return sizeof(cvn_t);
        case 6: return sizeof(cvn_scan_t);
        case 7: return sizeof(cvn_filestat_t);
        case 8: return sizeof(lens_t);
        case 9: return sizeof(mpool_item_t);
        case 10: return sizeof(cvnx_split_t);
        case 11: return sizeof(colbuf_t);
        case 12: return sizeof(cvn_page_t);
        case 13: return sizeof(cvn_trailer_t);
        case 14: return sizeof(cvn_dec_parts_t);
        default: return 0;
    }
}
