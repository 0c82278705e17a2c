// The file is read whole, cut into lines in place, and the lines are walked once. A pending entry is one
// whose value ended in a backslash; the next line, whatever it holds, belongs to it.
#include "server/conf.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int readfile_err(int err, FILE* fp, char* buf) {
    if (fp) fclose(fp);
    free(buf);
    return err ? err : EIO;  // without a number the file shrank meanwhile
}

// Reads the file into one allocation, adding a line feed, so that the last line has one, and a NUL. A NUL
// byte in the file hides the lines after it: EINVAL.
static int readfile(char** ret_buf, const char* fname) {
    *ret_buf = nullptr;
    char* buf = nullptr;
    FILE* fp = fopen(fname, "r");
    if (!fp) return readfile_err(errno, fp, buf);
    if (fseek(fp, 0, SEEK_END) != 0) return readfile_err(errno, fp, buf);
    const long end = ftell(fp);
    if (end < 0 || fseek(fp, 0, SEEK_SET) != 0) return readfile_err(errno, fp, buf);
    const size_t sz = static_cast<size_t>(end);
    if (sz >= static_cast<size_t>(LONG_MAX) - 2) return readfile_err(ENOMEM, fp, buf);  // a directory says so
    buf = static_cast<char*>(malloc(sz + 2));
    if (!buf) return readfile_err(ENOMEM, fp, buf);
    errno = 0;
    // An empty file has nothing to read, and reading no item would look like a failure.
    if (sz > 0 && fread(buf, sz, 1, fp) != 1) return readfile_err(errno, fp, buf);
    if (memchr(buf, '\0', sz)) return readfile_err(EINVAL, fp, buf);
    buf[sz] = '\n';
    buf[sz + 1] = '\0';
    fclose(fp);
    *ret_buf = buf;
    return 0;
}

static bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Returns `s` without blanks at its ends; it is cut in place.
static char* strip(char* s) {
    while (is_blank(*s)) s++;
    size_t n = strlen(s);
    while (n > 0 && is_blank(s[n - 1])) n--;
    s[n] = '\0';
    return s;
}

// Decodes the escapes in place and returns `s`. What an escape yields is not looked at again.
static char* unescape(char* s) {
    const char* p = s;
    char* out = s;
    while (*p) {
        if (*p != '\\' || !p[1]) {
            *out++ = *p++;
            continue;
        }
        p++;
        size_t used = 1;
        unsigned code = 0;
        if (*p == 'n') {
            *out++ = '\n';
        } else if (*p == 'r') {
            *out++ = '\r';
        } else if (*p == 't') {
            *out++ = '\t';
        } else if (*p == 'x' ? sscanf(p + 1, "%2x", &code) == 1 : sscanf(p, "%3o", &code) == 1) {
            // Kept: the widths are fixed, so a shorter number swallows the characters after it.
            *out++ = static_cast<char>(code);
            used = 3;
        } else {
            *out++ = *p;
        }
        while (used > 0 && *p) p++, used--;  // a number at the very end swallows no more than there is
    }
    *out = '\0';
    return s;
}

static int conf_parse_err(int err, conf_t* lst) {
    conf_free(lst);
    return err;
}

// Appends `line` to the value. False when memory runs out; the value is then unchanged.
static bool append(char** value, const char* line) {
    const size_t old = strlen(*value), add = strlen(line);
    char* p = static_cast<char*>(realloc(*value, old + add + 1));
    if (!p) return false;
    memcpy(p + old, line, add + 1);
    *value = p;
    return true;
}

// Cuts a backslash off the end of `value` and says whether there was one.
static bool cut_backslash(char* value) {
    const size_t n = strlen(value);
    if (n == 0 || value[n - 1] != '\\') return false;
    value[n - 1] = '\0';
    return true;
}

// Turns trimmed lines into entries.
static int conf_parse(conf_t** ret, char** line, const int nline) {
    *ret = nullptr;
    conf_t* lst = nullptr;
    conf_t** tail = &lst;
    conf_t* pending = nullptr;
    for (int lineno = 1; lineno <= nline; lineno++) {
        char* s = line[lineno - 1];
        if (pending) {
            if (!append(&pending->value, s)) return conf_parse_err(ENOMEM, lst);
            if (cut_backslash(pending->value)) continue;
            unescape(pending->value);
            pending = nullptr;
            continue;
        }
        if (!*s) continue;
        char* sep = strpbrk(s, ":=");
        if (sep) *sep = '\0';
        const char* key = sep ? strip(s) : "";
        if (!*key) {
            fprintf(stderr, "WARNING: conf file invalid line %d ... ignored.", lineno);  // Kept: no line end
            continue;
        }
        conf_t* node = static_cast<conf_t*>(calloc(1, sizeof(*node)));
        if (!node) return conf_parse_err(ENOMEM, lst);
        *tail = node;
        tail = &node->next;
        node->lineno = lineno;
        node->key = strdup(key);
        node->value = strdup(strip(sep + 1));
        if (!node->key || !node->value) return conf_parse_err(ENOMEM, lst);
        if (cut_backslash(node->value))
            pending = node;
        else
            unescape(node->value);
    }
    *ret = lst;  // Kept: a value still pending stays as it is, its escapes not decoded
    return 0;
}

static int conf_load_err(int err, char* buf, char** line) {
    free(buf);
    free(line);
    return err;
}

int conf_load(conf_t** lst, const char* fname) {
    *lst = nullptr;
    char* buf = nullptr;
    char** line = nullptr;
    if (const int err = readfile(&buf, fname)) return conf_load_err(err, buf, line);
    size_t nline = 0;
    for (const char* p = buf; *p; p++) nline += *p == '\n';
    if (nline > INT_MAX) return conf_load_err(ENOMEM, buf, line);
    line = static_cast<char**>(malloc(nline * sizeof(*line)));  // one at least: its line feed was added
    if (!line) return conf_load_err(ENOMEM, buf, line);
    char* p = buf;
    for (size_t i = 0; i < nline; i++) {
        char* const start = p;
        p += strcspn(p, "\n");
        *p++ = '\0';
        line[i] = strip(start);
        if (*line[i] == '#' || *line[i] == '!') *line[i] = '\0';
    }
    return conf_load_err(conf_parse(lst, line, static_cast<int>(nline)), buf, line);
}

void conf_free(conf_t* lst) {
    while (lst) {
        conf_t* next = lst->next;
        free(lst->key);
        free(lst->value);
        free(lst);
        lst = next;
    }
}

conf_t* conf_get(conf_t* lst, const char* key) {
    while (lst && strcmp(lst->key, key) != 0) lst = lst->next;
    return lst;
}
