// A column-definition string. What it yields must be well-formed and must yield itself again when it is
// written out.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "colvane/colvane.h"
#include "fuzz/fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string s(reinterpret_cast<const char*>(data), size);
    cvn_coldef_t* def = reinterpret_cast<cvn_coldef_t*>(1);  // not null, so that the clearing is seen
    int ndef = -1;
    const int code = cvn_coldef_parse(&def, &ndef, s.c_str());
    if (code != 0) {
        if (code != -6) fuzz::demand_null("a code other than bad syntax");
        if (def || ndef != 0) fuzz::demand_null("a failure does not clear its results");
        return 0;
    }
    std::string again;
    bool quotable = true;
    for (int i = 0; i < ndef; i++) {
        if (!memchr(def[i].name, 0, sizeof(def[i].name))) fuzz::demand_null("a name without its NUL");
        if (def[i].zflag > 1 || def[i].nflag > 1) fuzz::demand_null("a flag that is neither 0 nor 1");
        if (i + 1 < ndef && def[i].typ == 0) fuzz::demand_null("an incomplete definition before the last");
        if (def[i].typ != 0 && strcmp(cvn_typ_str(def[i].typ), "unknown") == 0)
            fuzz::demand_null("an unknown type");
        // A name with a quote in it cannot be quoted, and one that is a comma cannot be written at all.
        quotable = quotable && !strchr(def[i].name, '"') && strcmp(def[i].name, ",") != 0 && def[i].typ != 0;
        if (i > 0) again += ",";
        again += std::string("\"") + def[i].name + "\" " + cvn_typ_str(def[i].typ);
        if (def[i].zflag) again += " -z";
        if (def[i].nflag) again += " -n";
    }
    if (quotable && ndef > 0) {
        cvn_coldef_t* second = nullptr;
        int nsecond = -1;
        if (cvn_coldef_parse(&second, &nsecond, again.c_str()) != 0 || nsecond != ndef ||
            memcmp(def, second, static_cast<size_t>(ndef) * sizeof(*def)) != 0)
            fuzz::demand_null("definitions that do not come back from their own text");
        free(second);
    }
    free(def);
    return 0;
}
