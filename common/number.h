// Whole numbers in texts from outside: in requests, the configuration and conditions they are read by one
// rule.
#ifndef KELPD_COMMON_NUMBER_H
#define KELPD_COMMON_NUMBER_H

#include <string.h>

// The base to give to strtol and its kin for a number in decimal, "0x" hexadecimal or leading-"0" octal: 0,
// which finds these, or 8 for "0b", which newer C libraries would read as binary and which is a zero here.
[[nodiscard]] inline int number_base(const char* text) {
    const char* p = text + strspn(text, " \t\n\v\f\r");
    if (*p == '+' || *p == '-') p++;
    return p[0] == '0' && (p[1] == 'b' || p[1] == 'B') ? 8 : 0;
}

#endif
