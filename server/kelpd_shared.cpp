// The process-wide records and the file-kind tests: apart from main, so that test programs link them.
#include <string_view>

#include "server/kelpd.h"

global_t gl;
int verbose;

int file_is_cvn(const char* path) { return std::string_view(path).ends_with(".cvn"); }

int file_is_cvn_mismatch(const char* path) { return std::string_view(path).ends_with(".cvn.mismatch"); }

int file_is_sql(const char* path) { return std::string_view(path).ends_with(".sql"); }
