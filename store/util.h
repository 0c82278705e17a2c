// Table paths, the kinds of files, and the text buffer that replies and command lines grow in.
#ifndef KELPD_STORE_UTIL_H
#define KELPD_STORE_UTIL_H

#include <stddef.h>

// The place in the catalogue that a URL path names. Each field is null or an owned, decoded, non-empty text
// that does not begin with '.' and contains no '/'; a field is set only when all before it are.
struct tblpath_t {
    char* database;
    char* schema;
    char* entity;
    char* partition;
};

// Parses the path of `url`: /v1/<database>/<schema>/<entity>/<partition>, cut at any depth. A '/' at the end
// is accepted down to the entity; an encoded '/' parts components as a plain one does.
//
// ret_tblpath  the record, owned by the caller, release with tblpath_free(). Cleared on entry, set only on
//              success.
//
// Returns null or "400 Bad Request - invalid url", "400 Bad Request - invalid version" or
// "500 Internal Server Error - out of memory". Prints nothing.
[[nodiscard]] const char* tblpath_parse(tblpath_t** ret_tblpath, const char* url);

// Returns the path below the data directory: "base/database/schema/entity/partition" as far as the fields are
// set, or "base/" when none is. The caller frees it; null when memory runs out.
[[nodiscard]] char* tblpath_join(tblpath_t* tblpath);

// Releases the record and its fields; null is accepted.
void tblpath_free(tblpath_t* tblpath);

// Return 1 when the name ends in ".cvn", ".cvn.mismatch" or ".sql", else 0. The bare suffix counts; case
// matters.
[[nodiscard]] int file_is_cvn(const char* path);
[[nodiscard]] int file_is_cvn_mismatch(const char* path);
[[nodiscard]] int file_is_sql(const char* path);

// A text that grows at its end. All zero is the empty text; release it with text_free().
struct text_t {
    char* ptr;   // NUL-terminated; null while nothing was added; owned
    size_t len;  // without the NUL
    size_t cap;  // bytes allocated
};

// Appends formatted text; adding n bytes costs O(n) over the text's life. Returns false, with the text as it
// was, when memory runs out or the text would pass INT_MAX bytes.
[[nodiscard]] bool text_addf(text_t* text, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Releases the bytes and makes the text empty.
void text_free(text_t* text);

#endif
