// The catalogue as JSON. Each reply is built whole and sent once. Names are written as they are: clients that
// store names with quotes or backslashes get a text that is no JSON.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "colvane/colvane.h"
#include "common/verbose.h"
#include "handlers/handlers.h"
#include "store/dir.h"
#include "store/util.h"

static bool istmp(const char* name) { return std::string_view(name).ends_with(".tmp"); }

// Hidden names ("." and ".." among them) and uploads in progress are not part of the catalogue.
static bool islisted(const char* name) { return name[0] != '.' && !istmp(name); }

static const char* get_list_err(const char* err, dir_item_t* ls, char* text) {
    dir_free(ls);
    free(text);
    return err;
}

static const char* get_list(htreply_t* reply, const char* path) {
    dir_item_t* ls = nullptr;
    char* text = nullptr;
    if (const char* err = dir_list(&ls, path)) return get_list_err(err, ls, text);
    size_t sz = 2;
    for (const dir_item_t* p = ls; p; p = p->next)
        if (islisted(p->name)) sz += strlen(p->name) + 3;
    text = static_cast<char*>(malloc(sz + 8));
    if (!text) return get_list_err(STATUS_NOMEM, ls, text);
    char* end = text;
    *end++ = '[';
    for (const dir_item_t* p = ls; p; p = p->next) {
        char* sub = nullptr;
        if (!islisted(p->name) || asprintf(&sub, "%s/%s", path, p->name) < 0) continue;
        if (dir_exists(sub)) {
            if (end[-1] != '[') *end++ = ',';
            *end++ = '"';
            end = stpcpy(end, p->name);
            *end++ = '"';
        }
        free(sub);
    }
    *end++ = ']';
    const ptrdiff_t len = end - text;
    if (len > INT32_MAX) return get_list_err(STATUS_NOMEM, ls, text);
    (void)htreply_json(reply, text, static_cast<int>(len));  // the client has gone: nobody to tell
    return get_list_err(nullptr, ls, text);
}

static const char* get_entity_err(const char* err, dir_item_t* ls, text_t* text) {
    dir_free(ls);
    text_free(text);
    return err;
}

static const char* get_entity(htreply_t* reply, const char* path) {
    dir_item_t* ls = nullptr;
    text_t text = {};
    if (const char* err = dir_list(&ls, path)) return get_entity_err(err, ls, &text);
    if (!text_addf(&text, "[")) return get_entity_err(STATUS_NOMEM, ls, &text);
    const char* sep = "";
    for (const dir_item_t* p = ls; p; p = p->next) {
        if (!islisted(p->name)) continue;
        char fpath[4096];
        const int n = snprintf(fpath, sizeof(fpath), "%s/%s", path, p->name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(fpath)) return get_entity_err(STATUS_ERROR, ls, &text);
        // Kept: whatever opens as data is listed under its name, a split directory inside the entity too.
        cvn_filestat_t st;
        if (cvn_filestat(&st, fpath) != 0) continue;
        if (!text_addf(
                &text,
                "%s {\"name\": \"%s\", \"chksum\": %d, \"ncol\": %d, \"nrow\": %ld, \"nrowgroup\": %ld,"
                "\"nbyte\": %ld, \"zbyte\": %ld}",
                sep, p->name, st.chksum, st.ncol, st.nrow, st.nrowgroup, st.nbyte, st.zbyte))
            return get_entity_err(STATUS_NOMEM, ls, &text);
        sep = ",";
    }
    if (!text_addf(&text, "]\n")) return get_entity_err(STATUS_NOMEM, ls, &text);
    (void)htreply_json(reply, text.ptr, static_cast<int>(text.len));  // the client has gone: nobody to tell
    return get_entity_err(nullptr, ls, &text);
}

static const char* get_partition_err(const char* err, cvn_scan_t* scan, text_t* text) {
    if (scan) cvn_scan_close(scan);
    text_free(text);
    return err;
}

static const char* get_partition(htreply_t* reply, const char* path) {
    cvn_scan_t* scan = nullptr;
    text_t text = {};
    cvn_filestat_t st;
    errno = 0;
    if (const int code = cvn_filestat(&st, path))
        return get_partition_err(code == -3 && errno == ENOENT ? STATUS_NOT_FOUND : STATUS_ERROR, scan,
                                 &text);
    int ncol = 0;
    const cvn_coldef_t* coldef = nullptr;
    if (cvn_scan_open(&scan, path) != 0 || cvn_scan_coldef(&ncol, &coldef, scan) != 0)
        return get_partition_err(STATUS_ERROR, scan, &text);
    if (!text_addf(&text, "{\"column\":[")) return get_partition_err(STATUS_NOMEM, scan, &text);
    for (int i = 0; i < ncol; i++) {
        char line[1000];
        // A damaged file's name may fill its field without a NUL.
        const int n =
            snprintf(line, sizeof(line), "%s{\"cno\": %d, \"typ\": \"%s\", \"name\": \"%.*s\"}",
                     i > 0 ? "," : "", i, cvn_typ_str(coldef[i].typ), CVN_NAME_SZ - 1, coldef[i].name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(line))
            return get_partition_err(STATUS_ERROR, scan, &text);
        if (!text_addf(&text, "%s", line)) return get_partition_err(STATUS_NOMEM, scan, &text);
    }
    if (!text_addf(&text, "], \"chksum\": %d}", st.chksum))
        return get_partition_err(STATUS_NOMEM, scan, &text);
    (void)htreply_json(reply, text.ptr, static_cast<int>(text.len));  // the client has gone: nobody to tell
    return get_partition_err(nullptr, scan, &text);
}

static const char* do_get_ret(const char* err, char* path, tblpath_t* tblpath) {
    free(path);
    tblpath_free(tblpath);
    return err;
}

const char* do_get(htrequest_t* req, htreply_t* reply) {
    tblpath_t* tblpath = nullptr;
    char* path = nullptr;
    if (const char* err = tblpath_parse(&tblpath, req->url)) return do_get_ret(err, path, tblpath);
    path = tblpath_join(tblpath);
    if (!path) return do_get_ret(STATUS_NOMEM, path, tblpath);
    if (verbose) fprintf(stderr, "  do_get: %s\n", path);
    const char* err;
    if (tblpath->partition)
        err = get_partition(reply, path);
    else if (tblpath->entity)
        err = get_entity(reply, path);
    else
        err = get_list(reply, path);
    return do_get_ret(err, path, tblpath);
}
