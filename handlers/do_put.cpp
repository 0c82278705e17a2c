// An upload is written beside its final name, proved, flushed to disk and renamed into place: readers, and
// whoever looks after a crash, see the old file or the complete new one.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "colvane/colvane.h"
#include "handlers/handlers.h"
#include "store/util.h"

constexpr int PUT_READSZ = 8192;
// An upload is written in aligned pieces of this size, which the page cache keeps in large folios. Half as
// much makes writing a twentieth and reading a later scan a tenth dearer, twice as much gains nothing; and as
// late as one piece may a disk that is full be noticed.
constexpr size_t PUT_WRITESZ = 262144;

static const char* do_put_err(const char* err, char* path, char* tmppath, tblpath_t* tblpath, FILE* fp) {
    if (fp) fclose(fp);
    free(path);
    if (tmppath) unlink(tmppath);
    free(tmppath);
    tblpath_free(tblpath);
    return err;
}

// Opens the temporary file, readable by the daemon alone. A link that somebody has put there is not followed.
static FILE* open_tmp(const char* tmppath) {
    // Stays: a child has one upload, and a daemon that does not fork has one at a time.
    static char* buf;
    const mode_t old = umask(077);
    const int fd = open(tmppath, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    umask(old);
    FILE* fp = fd == -1 ? nullptr : fdopen(fd, "wb");
    if (!fp && fd != -1) close(fd);
    if (!buf) buf = static_cast<char*>(malloc(PUT_WRITESZ));
    if (fp && buf) (void)setvbuf(fp, buf, _IOFBF, PUT_WRITESZ);
    return fp;
}

// Makes the directories above the file. Most exist; what cannot be made shows when the file is opened.
static void descend_mkdir(tblpath_t* t) {
    tblpath_t part = {};
    char** const from[3] = {&t->database, &t->schema, &t->entity};
    char** const to[3] = {&part.database, &part.schema, &part.entity};
    for (int i = 0; i < 3; i++) {
        *to[i] = *from[i];  // borrowed
        char* path = tblpath_join(&part);
        if (path) (void)mkdir(path, 0700);
        free(path);
    }
}

// Flushes the directories above `path`, up to base/. All of them, since any may be as new as the file: made by
// this upload, by one that failed, or by one that is not answered yet. A failure changes nothing: the upload is
// in place.
static void sync_dirs(const char* path) {
    char* dir = strdup(path);
    if (!dir) return;
    for (char* slash; (slash = strrchr(dir, '/'));) {
        *slash = '\0';
        const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) continue;
        (void)fsync(fd);
        close(fd);
    }
    free(dir);
}

// Copies the body, first what came with the head, then what the socket still gives.
static const char* copy_body(htrequest_t* req, FILE* fp) {
    int64_t remain = req->contentlength;
    if (req->bodysz > 0) {
        if (req->contentlength < req->bodysz) req->bodysz = static_cast<int>(req->contentlength);
        // Kept: a length of 0 with bytes after the head writes no item, which is an error.
        if (fwrite(req->body, static_cast<size_t>(req->bodysz), 1, fp) != 1) return STATUS_ERROR;
        remain -= req->bodysz;
    }
    while (remain > 0) {
        char buf[PUT_READSZ];
        const ssize_t n = read(req->fd, buf, sizeof(buf));
        if (n <= 0) return STATUS_BAD;
        const size_t len = remain < n ? static_cast<size_t>(remain) : static_cast<size_t>(n);
        if (fwrite(buf, len, 1, fp) != 1) return STATUS_ERROR;
        remain -= static_cast<int64_t>(len);
    }
    return nullptr;
}

// Whether the file opens as a data file; that is all that an upload is checked for.
static bool check_cvn(const char* path) {
    cvn_scan_t* scan = nullptr;
    if (cvn_scan_open(&scan, path) != 0) return false;
    cvn_scan_close(scan);
    return true;
}

const char* do_put(htrequest_t* req, htreply_t* reply) {
    tblpath_t* tblpath = nullptr;
    char *path = nullptr, *tmppath = nullptr;
    FILE* fp = nullptr;
    if (const char* err = tblpath_parse(&tblpath, req->url))
        return do_put_err(err, path, tmppath, tblpath, fp);
    if (!tblpath->partition) return do_put_err(nullptr, path, tmppath, tblpath, fp);  // Kept: no reply at all
    path = tblpath_join(tblpath);
    if (!path) return do_put_err(STATUS_NOMEM, path, tmppath, tblpath, fp);
    if (req->contentlength < 0) return do_put_err(STATUS_NO_CONTENT, path, tmppath, tblpath, fp);
    if (asprintf(&tmppath, "%s.%ld.tmp", path, static_cast<long>(time(nullptr))) < 0) {
        tmppath = nullptr;
        return do_put_err(STATUS_NOMEM, path, tmppath, tblpath, fp);
    }
    signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is a write that fails, not the end of the process
    fp = open_tmp(tmppath);
    if (!fp) {
        descend_mkdir(tblpath);
        fp = open_tmp(tmppath);
    }
    if (!fp) return do_put_err(STATUS_ERROR, path, tmppath, tblpath, fp);
    if (const char* err = copy_body(req, fp)) return do_put_err(err, path, tmppath, tblpath, fp);
    // The file is closed before it is checked, and flushed after that, so that what is refused never troubles the
    // disk. A second descriptor outlives the close: no failure to write the bytes back is forgotten between them.
    const int syncfd = fcntl(fileno(fp), F_DUPFD_CLOEXEC, 0);
    if (syncfd == -1) return do_put_err(STATUS_ERROR, path, tmppath, tblpath, fp);
    const bool closed = fclose(fp) == 0;  // writes what the buffer holds
    fp = nullptr;
    const char* err = closed ? nullptr : STATUS_ERROR;
    if (!err && (file_is_cvn(path) || file_is_cvn_mismatch(path)) && !check_cvn(tmppath)) err = STATUS_BAD;
    // The bytes are on disk before the name is, so that no crash leaves a name without them.
    if (!err && fdatasync(syncfd) != 0) err = STATUS_ERROR;
    close(syncfd);
    if (err) return do_put_err(err, path, tmppath, tblpath, fp);
    if (rename(tmppath, path) == -1) return do_put_err(STATUS_ERROR, path, tmppath, tblpath, fp);
    sync_dirs(path);
    // Stored, whoever hears of it.
    (void)htreply_status(reply, "200 OK", nullptr, nullptr, nullptr, nullptr);
    free(tmppath);  // renamed: there is nothing to unlink
    tmppath = nullptr;
    return do_put_err(nullptr, path, tmppath, tblpath, fp);
}
