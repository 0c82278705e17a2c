// The same library from C++: writes all 14 types, reads the statistics back. Prints "ok".
#include <colvane/colvane.h>
#include <colvane/mpool.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const cvn_typ_t types[] = {CVN_TYP_BOOL,        CVN_TYP_INT16,           CVN_TYP_INT32,  CVN_TYP_INT64,
                               CVN_TYP_INT128,      CVN_TYP_FLOAT,           CVN_TYP_DOUBLE, CVN_TYP_BYTEA,
                               CVN_TYP_CSTR,        CVN_TYP_DEC64,           CVN_TYP_DEC128, CVN_TYP_DATE,
                               CVN_TYP_TIME_MILLIS, CVN_TYP_TIMESTAMP_MILLIS};
    cvn_t* w = nullptr;
    if (cvn_create(&w, argv[1]) != 0) return 3;
    cvn_datum_t datum[14];
    bool isnull[14] = {};
    for (int c = 0; c < 14; ++c) {
        if (cvn_create_column(w, cvn_typ_str(types[c]), types[c], c % 2 == 0, false) != 0) return 4;
        const char* text = types[c] == CVN_TYP_INT128 ? "0x00000000000000000000000000000005" : "5";
        if (cvn_datum_from_string(&datum[c], text, types[c]) != 0) return 5;
    }
    for (int r = 0; r < 2; ++r)
        if (cvn_append(w, 14, datum, isnull) != 0) return 6;
    if (cvn_close(w) != 0) return 7;

    cvn_scan_t* sc = nullptr;
    if (cvn_scan_open(&sc, argv[1]) != 0) return 8;
    colstat_t stat;
    if (cvn_scan_colstat(sc, 9, &stat) != 0 || !stat.hasminmax) return 9;
    char buf[CVN_DEC64_STRSZ];
    if (cvn_dec64_to_string(buf, stat.minval.dec64) != 0 || std::strcmp(buf, "5") != 0) return 10;
    cvn_scan_close(sc);
    cvn_filestat_t st;
    if (cvn_filestat(&st, argv[1]) != 0 || st.nrow != 2 || st.ncol != 14) return 11;
    std::puts("ok");
    return 0;
}
