// The public header included the way that C headers often are: inside a linkage block.
extern "C" {
#include <colvane/colvane.h>
}

int extern_c_compares(void);

// Uses an overload, which must have kept its C++ linkage. Returns -1 for 1 against 2.
int extern_c_compares(void) {
    decDouble one, two;
    if (cvn_dec64_from_string(&one, "1") != 0 || cvn_dec64_from_string(&two, "2") != 0) return 99;
    return cvn_dec64_cmp(one, two);
}
