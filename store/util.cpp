// A URL path is decoded first and split afterwards, so nothing that decoding yields can pass for one
// component.
#include "store/util.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "http/htlib.h"

// The empty segment before the leading slash, the version, and the four components.
constexpr int MAX_SEGMENT = 6;

static const char* tblpath_parse_err(const char* err, char* path, tblpath_t* tblpath) {
    free(path);
    tblpath_free(tblpath);
    return err;
}

const char* tblpath_parse(tblpath_t** ret_tblpath, const char* url) {
    static const char NOMEM[] = "500 Internal Server Error - out of memory";
    static const char BADURL[] = "400 Bad Request - invalid url";
    static const char BADVERSION[] = "400 Bad Request - invalid version";
    *ret_tblpath = nullptr;
    char* path = nullptr;
    tblpath_t* t = static_cast<tblpath_t*>(calloc(1, sizeof(*t)));
    if (!t) return tblpath_parse_err(NOMEM, path, t);
    path = hturl_path(url);
    if (!path) return tblpath_parse_err(NOMEM, path, t);

    const char* segment[MAX_SEGMENT];
    int nsegment = 0;
    for (char* p = path; p;) {
        if (nsegment == MAX_SEGMENT) return tblpath_parse_err(BADURL, path, t);
        segment[nsegment++] = p;
        p = strchr(p, '/');
        if (p) *p++ = '\0';
    }
    if (nsegment == 1) return tblpath_parse_err(*segment[0] ? BADURL : BADVERSION, path, t);
    if (!*segment[nsegment - 1]) nsegment--;
    if (*segment[0]) return tblpath_parse_err(BADURL, path, t);
    if (nsegment == 1 || strcmp(segment[1], "v1") != 0) return tblpath_parse_err(BADVERSION, path, t);

    char** const field[MAX_SEGMENT] = {nullptr, nullptr, &t->database, &t->schema, &t->entity, &t->partition};
    for (int i = 2; i < nsegment; i++) {
        *field[i] = strdup(segment[i]);
        if (!*field[i]) return tblpath_parse_err(NOMEM, path, t);
    }
    for (int i = 2; i < nsegment; i++) {
        // This alone keeps ".." out of every path below base/.
        if (!*segment[i] || *segment[i] == '.') return tblpath_parse_err(BADURL, path, t);
    }
    free(path);
    *ret_tblpath = t;
    return nullptr;
}

char* tblpath_join(tblpath_t* t) {
    char* ret = nullptr;
    int n;
    if (t->partition)
        n = asprintf(&ret, "base/%s/%s/%s/%s", t->database, t->schema, t->entity, t->partition);
    else if (t->entity)
        n = asprintf(&ret, "base/%s/%s/%s", t->database, t->schema, t->entity);
    else if (t->schema)
        n = asprintf(&ret, "base/%s/%s", t->database, t->schema);
    else if (t->database)
        n = asprintf(&ret, "base/%s", t->database);
    else
        n = asprintf(&ret, "base/");
    return n < 0 ? nullptr : ret;
}

void tblpath_free(tblpath_t* t) {
    if (!t) return;
    free(t->database);
    free(t->schema);
    free(t->entity);
    free(t->partition);
    free(t);
}

int file_is_cvn(const char* path) { return std::string_view(path).ends_with(".cvn"); }

int file_is_cvn_mismatch(const char* path) { return std::string_view(path).ends_with(".cvn.mismatch"); }

int file_is_sql(const char* path) { return std::string_view(path).ends_with(".sql"); }

bool text_addf(text_t* text, const char* fmt, ...) {
    for (;;) {
        const size_t room = text->cap - text->len;
        va_list ap;
        va_start(ap, fmt);
        const int n = vsnprintf(text->ptr ? text->ptr + text->len : nullptr, room, fmt, ap);
        va_end(ap);
        const size_t need = static_cast<size_t>(n) + 1;
        if (n >= 0 && need <= room) {
            text->len += static_cast<size_t>(n);
            return true;
        }
        if (text->ptr) text->ptr[text->len] = '\0';
        if (n < 0 || text->len + need > INT_MAX) return false;
        size_t cap = text->cap ? 2 * text->cap : 256;
        if (cap - text->len < need) cap = text->len + need;
        char* ptr = static_cast<char*>(realloc(text->ptr, cap));
        if (!ptr) return false;
        text->ptr = ptr;
        text->cap = cap;
    }
}

void text_free(text_t* text) {
    free(text->ptr);
    *text = {};
}
