// Any text as a URL: no path that it is mapped to leaves base/, and what was encoded decodes to itself.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "http/htlib.h"
#include "store/util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string url(reinterpret_cast<const char*>(data), size);
    url.resize(strlen(url.c_str()));
    char* path = hturl_path(url.c_str());
    char* query = hturl_query(url.c_str());
    char* fragment = hturl_fragment(url.c_str());
    if (!path || !query || !fragment) abort();
    if (strlen(path) > url.size() || strlen(query) > url.size() || strlen(fragment) > url.size()) abort();
    if (strchr(query, '#')) abort();
    free(path);
    free(query);
    free(fragment);

    char* encoded = hturl_encode(url.data());
    if (!encoded) abort();
    char* decoded = hturl_path(("/" + std::string(encoded)).c_str());
    if (!decoded || "/" + url != decoded) abort();
    free(encoded);
    free(decoded);

    tblpath_t* t = nullptr;
    const char* err = tblpath_parse(&t, url.c_str());
    if ((err == nullptr) != (t != nullptr)) abort();
    if (!t) return 0;
    const char* field[] = {t->database, t->schema, t->entity, t->partition};
    for (int i = 0; i < 4; i++) {
        if (!field[i]) continue;
        if ((i > 0 && !field[i - 1]) || !*field[i] || *field[i] == '.' || strchr(field[i], '/')) abort();
    }
    char* joined = tblpath_join(t);
    if (!joined || strncmp(joined, "base/", 5) != 0 || strstr(joined, "/.")) abort();
    free(joined);
    tblpath_free(t);
    return 0;
}
