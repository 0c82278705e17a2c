// Removal of whatever a URL names, the whole catalogue included.
#include <stdio.h>
#include <stdlib.h>

#include "common/verbose.h"
#include "handlers/handlers.h"
#include "store/dir.h"
#include "store/util.h"

static const char* do_delete_err(const char* err, char* path, tblpath_t* tblpath) {
    free(path);
    tblpath_free(tblpath);
    return err;
}

const char* do_delete(htrequest_t* req, htreply_t* reply) {
    tblpath_t* tblpath = nullptr;
    char* path = nullptr;
    // Kept: whatever the parser found wrong, clients of DELETE are told of the URL.
    if (tblpath_parse(&tblpath, req->url)) return do_delete_err(STATUS_BAD_URL, path, tblpath);
    path = tblpath_join(tblpath);
    if (!path) return do_delete_err(STATUS_NOMEM, path, tblpath);
    if (verbose) fprintf(stderr, "  do_delete: %s\n", path);
    if (!*path) return do_delete_err(STATUS_BAD_URL, path, tblpath);  // never: removing "" must not be tried
    if (dir_rmrf(path)) return do_delete_err(STATUS_ERROR, path, tblpath);
    // Removed, whoever hears of it.
    (void)htreply_status(reply, "200 OK", nullptr, nullptr, nullptr, nullptr);
    return do_delete_err(nullptr, path, tblpath);
}
