// A value from text: the first two bytes are the type's low 16 bits, the rest is the text. What decimals and
// 128-bit integers accept must come back from their own text.
#include <string.h>

#include <string>

#include "colvane/colvane.h"
#include "fuzz/fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static void check_texts(const char* s) {
    decDouble d;
    if (cvn_dec64_from_string(&d, s) == 0) {
        char buf[CVN_DEC64_STRSZ];
        cvn_dec64_to_string(buf, &d);
        decDouble back;
        if (cvn_dec64_from_string(&back, buf) != 0 || cvn_dec64_cmp(&d, &back) != 0)
            fuzz::demand_null("a dec64 that does not come back");
    }
    decQuad q;
    if (cvn_dec128_from_string(&q, s) == 0) {
        char buf[CVN_DEC128_STRSZ];
        cvn_dec128_to_string(buf, &q);
        decQuad back;
        if (cvn_dec128_from_string(&back, buf) != 0 || cvn_dec128_cmp(&q, &back) != 0)
            fuzz::demand_null("a dec128 that does not come back");
    }
    cvn_int128_t v;
    if (cvn_int128_from_string(&v, s) == 0) {
        char buf[CVN_INT128_STRSZ];
        cvn_int128_to_string(buf, v);
        cvn_int128_t back;
        if (cvn_int128_from_string(&back, buf) != 0 || v != back)
            fuzz::demand_null("an int128 that does not come back");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const cvn_typ_t typ = data[0] | data[1] << 8;
    const std::string s(reinterpret_cast<const char*>(data) + 2, size - 2);
    cvn_datum_t d, before;
    memset(&d, 0x5a, sizeof(d));
    memcpy(&before, &d, sizeof(d));
    const int code = cvn_datum_from_string(&d, s.c_str(), typ);
    if (code != 0 && code != -6 && code != -1) fuzz::demand_null("an unknown code");
    if (code != 0 && memcmp(&d, &before, sizeof(d)) != 0) fuzz::demand_null("a failure writes its result");
    if (cvn_typlen(typ) == 0 && code != -6) fuzz::demand_null("a value of no type");
    if (code == 0 && typ == CVN_TYP_BYTEA && d.a.len != static_cast<int32_t>(strlen(s.c_str())) + 1)
        fuzz::demand_null("a byte string of another length");
    check_texts(s.c_str());
    return 0;
}
