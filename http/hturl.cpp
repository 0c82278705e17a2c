// URL cutting. All of it works on copies; nothing but want of memory can fail.
#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include "http/htlib.h"

// The value of a hexadecimal digit, or -1.
static int hexval(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes %XX in place and returns `s`.
static char* decode(char* s) {
    char* out = s;
    for (const char* p = s; *p; out++) {
        int hi, lo;
        if (*p == '%' && (hi = hexval(p[1])) >= 0 && (lo = hexval(p[2])) >= 0) {
            *out = static_cast<char>(hi << 4 | lo);
            p += 3;
        } else {
            *out = *p++;
        }
    }
    *out = '\0';
    return s;
}

static char tohex(int code) { return "0123456789abcdef"[code & 15]; }

char* hturl_path(const char* url) {
    const char* hash = strchr(url, '#');
    const char* q = strchr(url, '?');
    const char* end = url + strlen(url);
    // Kept: a '#' ends the path only before a '?'; alone it belongs to the path.
    const char* stop = hash && q && hash < q ? hash : q ? q : end;
    const char* start = strstr(url, "//");
    start = strchr(start ? start + 2 : url, '/');
    if (!start) start = url;
    if (start > stop) stop = end;  // the "//" lay in the query
    char* path = strndup(start, static_cast<size_t>(stop - start));
    if (!path) return nullptr;
    for (char* p = path; (p = strchr(p, '+'));) *p = ' ';
    return decode(path);
}

char* hturl_query(const char* url) {
    const char* hash = strchr(url, '#');
    const char* q = strchr(url, '?');
    if (!q || (hash && hash < q)) return strdup("");
    q++;
    return strndup(q, hash ? static_cast<size_t>(hash - q) : strlen(q));
}

char* hturl_fragment(const char* url) {
    const char* hash = strchr(url, '#');
    return strdup(hash ? hash + 1 : "");
}

char* hturl_encode(char* str) {
    char* ret = static_cast<char*>(malloc(3 * strlen(str) + 1));
    if (!ret) return nullptr;
    char* out = ret;
    for (const char* p = str; *p; p++) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if ((c < 0x80 && isalnum(c)) || strchr("-._~ ", c)) {
            *out++ = *p;
        } else {
            *out++ = '%';
            *out++ = tohex(c >> 4);
            *out++ = tohex(c);
        }
    }
    *out = '\0';
    return ret;
}

void hturl_test() {
    const char* url = "http://www.example.com:80/path/to/page.html?key1=a&key2=b&key3=c#part";
    free(hturl_path(url));
    free(hturl_query(url));
    free(hturl_fragment(url));
}
