// One decision on one row group's statistics, per type.
#include <string.h>

#include "bench/micro/micro.h"

static void qualify_type(benchmark::State& state, cvn_typ_t typ, int op) {
    const char* texts[3] = {"10", "15", "20"};
    if (cvn_storage(typ) == CVN_TYP_INT128) {
        texts[0] = "0x0000000000000000000000000000000a";
        texts[1] = "0x0000000000000000000000000000000f";
        texts[2] = "0x00000000000000000000000000000014";
    }
    cvn_datum_t v[3];
    for (int i = 0; i < 3; i++) must(cvn_datum_from_string(&v[i], texts[i], typ), texts[i]);
    lens_t lens;
    memset(&lens, 0, sizeof(lens));
    lens.op = op;
    switch (cvn_storage(typ)) {
        case CVN_TYP_INT32: lens.val.I = v[1].i; break;
        case CVN_TYP_INT64: lens.val.I = v[1].I; break;
        case CVN_TYP_INT128: lens.val.L = v[1].L; break;
        case CVN_TYP_DOUBLE: lens.val.F = v[1].F; break;
        case CVN_TYP_DEC64: lens.val.dec64 = v[1].dec64; break;
        default:
            lens.val.t = texts[1];
            for (cvn_datum_t& d : v) {  // as in statistics: the text itself
                const char* text = d.t;
                memset(&d, 0, sizeof(d));
                strncpy(d.raw, text, sizeof(d.raw));
            }
            break;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(lens);
        benchmark::DoNotOptimize(qualify(&lens, typ, 100, 0, &v[0], &v[2]));
    }
    must(qualify(&lens, typ, 100, 0, &v[0], &v[2]), "qualify", 1);
    state.SetItemsProcessed(state.iterations());
}

[[maybe_unused]] const bool registered = [] {
    static constexpr cvn_typ_t TYPES[] = {CVN_TYP_INT32,  CVN_TYP_INT64, CVN_TYP_INT128,
                                          CVN_TYP_DOUBLE, CVN_TYP_CSTR,  CVN_TYP_DEC64};
    for (const cvn_typ_t typ : TYPES) {
        const std::string name = std::string("qualify_") + cvn_typ_str(typ);
        benchmark::RegisterBenchmark((name + "_eq").c_str(), qualify_type, typ, static_cast<int>(CVN_OP_EQ));
        benchmark::RegisterBenchmark((name + "_ge").c_str(), qualify_type, typ, static_cast<int>(CVN_OP_GE));
    }
    return true;
}();
