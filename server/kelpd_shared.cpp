// The process-wide records and the file-kind tests: apart from main, so that test programs link them.
#include <string.h>

#include <string_view>

#include "server/kelpd.h"

global_t gl;
int verbose;

int number_base(const char* text) {
    const char* p = text + strspn(text, " \t\n\v\f\r");
    if (*p == '+' || *p == '-') p++;
    return p[0] == '0' && (p[1] == 'b' || p[1] == 'B') ? 8 : 0;
}

int file_is_cvn(const char* path) { return std::string_view(path).ends_with(".cvn"); }

int file_is_cvn_mismatch(const char* path) { return std::string_view(path).ends_with(".cvn.mismatch"); }

int file_is_sql(const char* path) { return std::string_view(path).ends_with(".sql"); }
