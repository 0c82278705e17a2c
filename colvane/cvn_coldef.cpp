// cvn_coldef: column definitions as text, "id int64, name cstr -z".
//
// The text is cut into words first, so that quotes, commas and white space mean the same wherever they stand;
// then the words fill the definitions in order.

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

using namespace colvane;

namespace {

// Words of a column-definition string.
struct wordlist_t {
    char** word;  // owned, each owned
    int nword;
    int max;
};

}  // namespace

static void wordlist_free(wordlist_t* list) {
    for (int i = 0; i < list->nword; i++) free(list->word[i]);
    free(list->word);
    *list = wordlist_t{};
}

static int splitstring_err(int code, wordlist_t* list) {
    wordlist_free(list);
    return code;
}

static int splitstring_add(wordlist_t* list, const char* s, size_t len) {
    if (list->nword == list->max) {
        const int max = list->max ? list->max * 2 : 16;
        auto* bigger = static_cast<char**>(realloc(list->word, static_cast<size_t>(max) * sizeof(char*)));
        if (!bigger) return -2;
        list->word = bigger;
        list->max = max;
    }
    auto* copy = static_cast<char*>(malloc(len + 1));
    if (!copy) return -2;
    memcpy(copy, s, len);
    copy[len] = '\0';
    list->word[list->nword++] = copy;
    return 0;
}

// Cuts `s` into words; a comma is a word of its own, and so is what stands in double quotes.
static int splitstring(wordlist_t* ret, const char* s) {
    wordlist_t list{};
    *ret = wordlist_t{};
    while (*s) {
        if (isspace(static_cast<unsigned char>(*s))) {
            s++;
            continue;
        }
        const char* start = s;
        int rc;
        if (*s == ',') {
            rc = splitstring_add(&list, s++, 1);
        } else if (*s == '"') {
            const char* end = strchr(++s, '"');
            if (!end) return splitstring_err(-6, &list);
            rc = splitstring_add(&list, s, static_cast<size_t>(end - s));
            s = end + 1;
        } else {
            while (*s && *s != ',' && !isspace(static_cast<unsigned char>(*s))) s++;
            rc = splitstring_add(&list, start, static_cast<size_t>(s - start));
        }
        if (rc != 0) return splitstring_err(rc, &list);
    }
    *ret = list;
    return 0;
}

static int cvn_coldef_parse_err(int code, wordlist_t* list, cvn_coldef_t* cdef) {
    wordlist_free(list);
    free(cdef);
    return code;
}

int cvn_coldef_parse(cvn_coldef_t** ret_cdef, int* ret_ncdef, const char* defstr) {
    *ret_cdef = nullptr;
    *ret_ncdef = 0;
    wordlist_t list;
    int rc = splitstring(&list, defstr);
    if (rc != 0) return rc;
    // Kept: a quoted comma parts definitions as well.
    int ncdef = list.nword ? 1 : 0;
    for (int i = 0; i < list.nword; i++) ncdef += strcmp(list.word[i], ",") == 0;
    auto* cdef =
        static_cast<cvn_coldef_t*>(calloc(ncdef ? static_cast<size_t>(ncdef) : 1, sizeof(cvn_coldef_t)));
    if (!cdef) return cvn_coldef_parse_err(-2, &list, nullptr);
    cvn_coldef_t* def = cdef;
    int nword = 0;  // words that the current definition has
    for (int i = 0; i < list.nword; i++) {
        const char* word = list.word[i];
        if (strcmp(word, ",") == 0) {
            if (nword < 2) return cvn_coldef_parse_err(-6, &list, cdef);
            def++;
            nword = 0;
            continue;
        }
        if (nword == 0) {
            const size_t len = strlen(word);
            if (len >= CVN_NAME_SZ) return cvn_coldef_parse_err(-6, &list, cdef);
            memcpy(def->name, word, len + 1);
        } else if (nword == 1) {
            def->typ = cvn_str_typ(word);
            if (def->typ == 0) return cvn_coldef_parse_err(-6, &list, cdef);
        } else if (strcmp(word, "-z") == 0) {
            def->zflag = 1;
        } else if (strcmp(word, "-n") == 0) {
            def->nflag = 1;
        } else {
            return cvn_coldef_parse_err(-6, &list, cdef);
        }
        nword++;
    }
    // Kept: the last definition may lack its type, or everything; declaring it is what fails.
    wordlist_free(&list);
    *ret_cdef = cdef;
    *ret_ncdef = ncdef;
    return 0;
}
