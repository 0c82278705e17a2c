/* Writes a file of three rows, scans it with a predicate, splits it and scans the directory. Prints "ok". */
#include <colvane/colvane.h>
#include <colvane/mpool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failed(const char* what, int code) {
    fprintf(stderr, "%s: %d\n", what, code);
    return 1;
}

static int scan(const char* path) {
    cvn_scan_t* sc = NULL;
    cvn_page_t** page = NULL;
    cvn_datum_t arg;
    cvn_coldef_t* def = NULL;
    int npage = 0, ndef = 0, code;
    memset(&arg, 0, sizeof(arg));
    arg.i = 2;
    if ((code = cvn_coldef_parse(&def, &ndef, "n int32")) != 0) return failed("coldef", code);
    if ((code = cvn_scan_open(&sc, path)) != 0) return failed("open", code);
    if ((code = cvn_scan_add_required_ex(sc, def->name, def->typ)) != 0) return failed("required", code);
    free(def);
    if ((code = cvn_scan_add_lens(sc, "n", CVN_OP_GE, 1, &arg)) != 0) return failed("lens", code);
    if ((code = cvn_scan_next(sc, &npage, &page, true)) != 0) return failed("next", code);
    if (npage != 1 || page[0]->nrow != 3 || page[0]->nnull != 1) return failed("page", npage);
    if ((code = cvn_scan_next(sc, &npage, &page, true)) != -4) return failed("end", code);
    return cvn_scan_close(sc);
}

int main(int argc, char** argv) {
    cvn_t* w = NULL;
    cvn_datum_t datum[2];
    bool isnull[2] = {false, false};
    char dir[1000];
    mpool_t* pool = mpool_create();
    int r, code;
    if (argc != 2) return failed("usage: consumer FILE", argc);
    if (!pool || strcmp(mpool_strdup(pool, "x"), "x") != 0) return failed("pool", 0);
    mpool_destroy(pool);
    if ((code = cvn_create(&w, argv[1])) != 0) return failed("create", code);
    if ((code = cvn_create_column(w, "n", CVN_TYP_INT32, false, false)) != 0) return failed("column", code);
    if ((code = cvn_create_column(w, "d", CVN_TYP_DEC64, false, false)) != 0) return failed("column", code);
    for (r = 0; r < 3; r++) {
        memset(datum, 0, sizeof(datum));
        datum[0].i = r;
        isnull[0] = r == 1;
        if ((code = cvn_dec64_from_string(&datum[1].dec64, "1.25")) != 0) return failed("decimal", code);
        if ((code = cvn_append(w, 2, datum, isnull)) != 0) return failed("append", code);
    }
    if ((code = cvn_close(w)) != 0) return failed("close", code);
    if (scan(argv[1]) != 0) return 1;
    snprintf(dir, sizeof(dir), "%s.split", argv[1]);
    if ((code = cvnx_split(dir, argv[1])) != 0) return failed("split", code);
    if (scan(dir) != 0) return 1;
    puts("ok");
    return 0;
}
