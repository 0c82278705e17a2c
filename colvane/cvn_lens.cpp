// cvn_lens: predicates, which look at statistics only and decide what need not be read.

#include <string.h>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

using namespace colvane;

namespace {

// How many characters of a text comparison count when the constant is longer than that.
constexpr size_t LENS_TEXTMAX = 39;

}  // namespace

template <typename T>
static T load(const void* p) {
    T v;
    memcpy(&v, p, sizeof(T));
    return v;
}

// Registering.

static bool is_required(const cvn_scan_t* sc, int cno) {
    for (int k = 0; k < sc->nreqcol; k++)
        if (sc->reqcol[k] == cno) return true;
    return false;
}

// Copies what a byte string or a text points at into the scan's pool. `datum` then borrows the copy.
static int keep_argument(cvn_scan_t* sc, cvn_datum_t* datum, int storage) {
    if (storage == CVN_TYP_BYTEA) {
        if (datum->a.len < 0) return -10;
        const auto len = static_cast<size_t>(datum->a.len);
        auto* copy = static_cast<char*>(mpool_alloc(sc->mpool, len));
        if (!copy) return -2;
        if (len) memcpy(copy, datum->a.ptr, len);
        datum->a.ptr = copy;
    } else if (storage == CVN_TYP_CSTR) {
        datum->t = mpool_strdup(sc->mpool, datum->t);
        if (!datum->t) return -2;
    }
    return 0;
}

static int store_value(lensval_t* val, const cvn_datum_t* datum, int storage) {
    switch (storage) {
        case CVN_TYP_BOOL: val->I = load<uint8_t>(datum); return 0;
        case CVN_TYP_INT16: val->I = datum->s; return 0;
        case CVN_TYP_INT32: val->I = datum->i; return 0;
        case CVN_TYP_INT64: val->I = datum->I; return 0;
        case CVN_TYP_INT128: val->L = datum->L; return 0;
        case CVN_TYP_FLOAT: val->F = datum->f; return 0;
        case CVN_TYP_DOUBLE: val->F = datum->F; return 0;
        case CVN_TYP_BYTEA:
            val->a.ptr = datum->a.ptr;
            val->a.len = datum->a.len;
            return 0;
        case CVN_TYP_CSTR: val->t = datum->t; return 0;
        case CVN_TYP_DEC64: val->dec64 = datum->dec64; return 0;
        case CVN_TYP_DEC128: val->dec128 = datum->dec128; return 0;
        default: return -6;
    }
}

int cvn_scan_add_lens(cvn_scan_t* sc, const char* cname, int op, int narg, cvn_datum_t* arg) {
    if (op == CVN_OP_IN) return add_in(sc, cname, narg, arg);
    const int cno = cvn_scan_find_column(sc, cname);
    if (cno < 0) return -6;
    if (!is_required(sc, cno)) return -10;
    if (op < CVN_OP_EQ || op > CVN_OP_ISNOTNULL) return -10;
    const bool compares = op <= CVN_OP_LE;
    if (narg != (compares ? 1 : 0)) return -10;
    const int storage = cvn_storage(sc->coldef[cno].typ);
    cvn_datum_t datum;
    memset(&datum, 0, sizeof(datum));
    if (compares) {
        memcpy(&datum, &arg[0], sizeof(datum));
        const int rc = keep_argument(sc, &datum, storage);
        if (rc != 0) return rc;
    }
    auto* lens = static_cast<lens_t*>(
        mpool_realloc(sc->mpool, sc->lens, (static_cast<size_t>(sc->nlens) + 1) * sizeof(lens_t)));
    if (!lens) return -2;
    sc->lens = lens;
    lens_t* entry = &lens[sc->nlens++];
    memset(static_cast<void*>(entry), 0, sizeof(*entry));
    entry->cno = cno;
    entry->op = op;
    return store_value(&entry->val, &datum, storage);  // Kept: the entry counts even when its type is refused
}

// Whether the element at `i` becomes the least (compared with the one at `lo`) or the greatest (at `hi`) of
// an IN list: -1, 1, or 0 for neither.
static int in_list_place(int storage, const cvn_datum_t* arg, int i, int lo, int hi) {
    const cvn_datum_t &x = arg[i], &l = arg[lo], &h = arg[hi];
    switch (storage) {
        case CVN_TYP_BOOL: {
            const auto v = load<uint8_t>(&x);
            return v < load<uint8_t>(&l) ? -1 : v > load<uint8_t>(&h);
        }
        case CVN_TYP_INT16:
            // Kept: the greatest so far counts with its low byte only, unsigned.
            return x.s < l.s ? -1 : x.s > load<uint8_t>(&h);
        case CVN_TYP_INT32: return x.i < l.i ? -1 : x.i > h.i;
        case CVN_TYP_INT64: return x.I < l.I ? -1 : x.I > h.I;
        case CVN_TYP_INT128: return x.L < l.L ? -1 : x.L > h.L;
        case CVN_TYP_FLOAT: return x.f < l.f ? -1 : x.f > h.f;
        case CVN_TYP_DOUBLE: return x.F < l.F ? -1 : x.F > h.F;
        case CVN_TYP_CSTR: return strcmp(x.t, l.t) < 0 ? -1 : strcmp(x.t, h.t) > 0;
        // Kept: the upper end of a list of decimals moves down, not up.
        case CVN_TYP_DEC64:
            return cvn_dec64_cmp(&x.dec64, &l.dec64) < 0 ? -1 : cvn_dec64_cmp(&x.dec64, &h.dec64) < 0;
        default:
            return cvn_dec128_cmp(&x.dec128, &l.dec128) < 0 ? -1 : cvn_dec128_cmp(&x.dec128, &h.dec128) < 0;
    }
}

int add_in(cvn_scan_t* sc, const char* cname, int narg, cvn_datum_t* arg) {
    if (narg == 0) {
        sc->disqualify_file = true;
        return 0;
    }
    if (narg < 0) return -10;
    const int cno = cvn_scan_find_column(sc, cname);
    if (cno < 0) return -6;
    int lo = 0, hi = 0;
    if (narg > 1) {
        const int storage = cvn_storage(sc->coldef[cno].typ);
        if (storage == 0 || storage > CVN_STORAGE_MAX) return -6;
        if (storage == CVN_TYP_BYTEA) return 0;  // Kept: such a list filters nothing
        for (int i = 1; i < narg; i++) {
            const int place = in_list_place(storage, arg, i, lo, hi);
            if (place < 0)
                lo = i;
            else if (place > 0)
                hi = i;
        }
    }
    const int rc = cvn_scan_add_lens(sc, cname, CVN_OP_GE, 1, &arg[lo]);
    if (rc != 0) return rc;
    return cvn_scan_add_lens(sc, cname, CVN_OP_LE, 1, &arg[hi]);
}

// Qualifying.

// By the operators of T, so that a NaN among the operands makes every comparison false and "not equal" true.
template <typename T>
static int qualify_ordered(int op, T lo, T hi, T v) {
    switch (op) {
        case CVN_OP_EQ: return lo <= v && v <= hi;
        case CVN_OP_NE: return !(lo == v && hi == v);
        case CVN_OP_GT: return hi > v;
        case CVN_OP_GE: return hi >= v;
        case CVN_OP_LT: return lo < v;
        default: return lo <= v;
    }
}

// The same for orders that are functions, by the signs of comparing each bound with the value.
static int qualify_signs(int op, int lo, int hi) { return qualify_ordered(op, lo, hi, 0); }

// Texts: the bounds are cut images, so a constant that is longer than they can be told from is cut as well.
static int qualify_text(int op, const char* v, const cvn_datum_t* minval, const cvn_datum_t* maxval) {
    // A damaged image may lack its NUL; an intact one has it at byte 40 at the latest.
    char lo[sizeof(cvn_datum_t) + 1] = {}, hi[sizeof(cvn_datum_t) + 1] = {};
    memcpy(lo, minval, sizeof(cvn_datum_t));
    memcpy(hi, maxval, sizeof(cvn_datum_t));
    if (strlen(v) <= LENS_TEXTMAX) return qualify_signs(op, strcmp(lo, v), strcmp(hi, v));
    const int below = strncmp(lo, v, LENS_TEXTMAX), above = strncmp(hi, v, LENS_TEXTMAX);
    switch (op) {
        case CVN_OP_EQ: return below <= 0 && above >= 0;
        case CVN_OP_NE: return 1;
        case CVN_OP_GT:
        case CVN_OP_GE: return above >= 0;
        default: return below <= 0;
    }
}

int qualify(lens_t* ln, cvn_typ_t typ, int64_t nrow, int64_t nnull, cvn_datum_t* minval,
            cvn_datum_t* maxval) {
    if (ln->op == CVN_OP_ISNULL) return nnull != 0;
    if (ln->op == CVN_OP_ISNOTNULL) return nnull != nrow;
    if (!minval) return 1;
    const int storage = cvn_storage(typ);
    if (storage == 0 || storage == CVN_TYP_BYTEA || storage > CVN_STORAGE_MAX) return -6;
    if (ln->op > CVN_OP_LE) return 1;
    const lensval_t& v = ln->val;
    const int op = ln->op;
    switch (storage) {
        case CVN_TYP_BOOL:
            return qualify_ordered<int64_t>(op, load<uint8_t>(minval), load<uint8_t>(maxval), v.I);
        case CVN_TYP_INT16:
            return qualify_ordered<int64_t>(op, load<int16_t>(minval), load<int16_t>(maxval), v.I);
        case CVN_TYP_INT32:
            return qualify_ordered<int64_t>(op, load<int32_t>(minval), load<int32_t>(maxval), v.I);
        case CVN_TYP_INT64: return qualify_ordered(op, load<int64_t>(minval), load<int64_t>(maxval), v.I);
        case CVN_TYP_INT128:
            return qualify_ordered(op, load<cvn_int128_t>(minval), load<cvn_int128_t>(maxval), v.L);
        case CVN_TYP_FLOAT: return qualify_ordered<double>(op, load<float>(minval), load<float>(maxval), v.F);
        case CVN_TYP_DOUBLE: return qualify_ordered(op, load<double>(minval), load<double>(maxval), v.F);
        case CVN_TYP_CSTR: return qualify_text(op, v.t, minval, maxval);
        case CVN_TYP_DEC64: {
            const auto lo = load<decDouble>(minval), hi = load<decDouble>(maxval);
            return qualify_signs(op, cvn_dec64_cmp(&lo, &v.dec64), cvn_dec64_cmp(&hi, &v.dec64));
        }
        default: {
            const auto lo = load<decQuad>(minval), hi = load<decQuad>(maxval);
            return qualify_signs(op, cvn_dec128_cmp(&lo, &v.dec128), cvn_dec128_cmp(&hi, &v.dec128));
        }
    }
}

int colvane::qualify_file(cvn_scan_t* scan) {
    for (int i = 0; i < scan->nlens; i++) {
        const int cno = scan->lens[i].cno;
        colstat_t stat;
        int rc = cvn_scan_colstat(scan, cno, &stat);
        if (rc != 0) return rc;
        rc = qualify(&scan->lens[i], scan->coldef[cno].typ, scan->schema->nrow, stat.nnull,
                     stat.hasminmax ? &stat.minval : nullptr, stat.hasminmax ? &stat.maxval : nullptr);
        if (rc <= 0) return rc;
    }
    return 1;
}

int colvane::qualify_rowgroup(cvn_scan_t* scan, int rg) {
    for (int i = 0; i < scan->nlens; i++) {
        const int cno = scan->lens[i].cno;
        colmeta_t meta;
        int rc = cvn_scan_colmeta(scan, rg, cno, &meta);
        if (rc != 0) return rc;
        rc = qualify(&scan->lens[i], scan->coldef[cno].typ, meta.nrow, meta.nnull,
                     meta.hasminmax ? &meta.minval : nullptr, meta.hasminmax ? &meta.maxval : nullptr);
        if (rc <= 0) return rc;
    }
    return 1;
}
