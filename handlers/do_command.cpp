// The two commands of POST. Both answer in the record stream of scans: the sampler's file is streamed as a
// scan of all its columns, and the totals go out as one row of two int64 columns.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "colvane/colvane.h"
#include "common/number.h"
#include "common/verbose.h"
#include "handlers/handlers.h"
#include "store/dir.h"
#include "store/util.h"

static bool send_head(htreply_t* reply) {
    return htreply_status(reply, "200 OK", "Transfer-encoding: chunked",
                          "Content-type: application/octet-stream", nullptr, nullptr);
}

static void send_file_ret(cvn_scan_t* scan) {
    if (scan) cvn_scan_close(scan);
}

// Streams the sampler's output. When it does not open, or its columns cannot be had, the reply ends where it
// stands: the head was sent, and a client reads a body without its end as a failed sample.
static void send_file(htreply_t* reply, const char* tmpfname) {
    cvn_scan_t* scan = nullptr;
    int ncol = 0;
    const cvn_coldef_t* coldef = nullptr;
    if (cvn_scan_open(&scan, tmpfname) != 0 || cvn_scan_coldef(&ncol, &coldef, scan) != 0)
        return send_file_ret(scan);
    for (int i = 0; i < ncol; i++)
        if (cvn_scan_add_required(scan, coldef[i].name) != 0) return send_file_ret(scan);
    // Kept: a row group that cannot be had ends the row groups, and the stream has its end record all the
    // same; a page that cannot be sent only ends its own row group.
    int64_t rg;
    while (cvn_scan_next_rowgroup(scan, &rg) == 0) {
        const stream_t sent = stream_rowgroup(reply, scan, rg, false);
        if (sent == STREAM_NOREAD || sent == STREAM_NOHEADER) break;
        if (sent == STREAM_BADSIZE || sent == STREAM_CUT) return send_file_ret(scan);
    }
    (void)stream_header(reply, 0);  // whoever is still there
    (void)htreply_chunk(reply, nullptr, 0);
    send_file_ret(scan);
}

static const char* do_sample_ret(const char* err, dir_item_t* ls, text_t* argline) {
    dir_free(ls);
    text_free(argline);
    return err;
}

// The pages that one argument of a program takes at most, its NUL included; the system has no name for it.
constexpr size_t MAX_ARGUMENT_PAGES = 32;

// Runs the command line, which writes `tmpfname`. False when the shell cannot be started.
static bool run_sampler(htreply_t* reply, const char* line) {
    // The line is one argument of the shell.
    const size_t max = MAX_ARGUMENT_PAGES * static_cast<size_t>(sysconf(_SC_PAGESIZE)) - 1;
    if (const size_t len = strlen(line); len > max) {
        if (verbose)
            fprintf(stderr, "do_sample: %zu bytes of command line, the shell takes %zu: too many files\n",
                    len, max);
        return false;
    }
    // A sampler that lingers must not keep the client's connection open.
    (void)fcntl(reply->fd, F_SETFD, FD_CLOEXEC);
    FILE* fp = popen(line, "r");
    if (!fp) return false;
    (void)fgetc(fp);   // comes back when the sampler has closed its end
    (void)pclose(fp);  // its exit status says nothing that the output does not
    return true;
}

const char* do_sample(htreply_t* reply, const char* dpath, int argc, char** argv) {
    dir_item_t* ls = nullptr;
    text_t argline = {};
    if (argc != 2 || strcmp(argv[0], "sample") != 0) return do_sample_ret(STATUS_BAD_CONTENT, ls, &argline);
    errno = 0;
    const long wanted = strtol(argv[1], nullptr, number_base(argv[1]));
    const int32_t nrow = static_cast<int32_t>(wanted);  // Kept: cut to 32 bits
    if (errno || nrow <= 0) return do_sample_ret(STATUS_BAD_CONTENT, ls, &argline);
    if (const char* err = dir_list(&ls, dpath)) return do_sample_ret(err, ls, &argline);

    // Names stand in single quotes, where the shell leaves all characters alone but that quote itself: with
    // one in a path the shell is not started, and the client gets what a failed sampler gives.
    bool quotable = !strchr(dpath, '\'');
    if (!text_addf(&argline, "cvnsamp %d", nrow)) return do_sample_ret(STATUS_NOMEM, ls, &argline);
    for (const dir_item_t* p = ls; p; p = p->next) {
        if (p->name[0] == '.' || !file_is_cvn(p->name)) continue;
        if (strchr(p->name, '\'')) quotable = false;
        if (!text_addf(&argline, " '%s/%s'", dpath, p->name))
            return do_sample_ret(STATUS_NOMEM, ls, &argline);
    }
    char tmpfname[100];  // three numbers of at most 8 digits: always fits
    (void)snprintf(tmpfname, sizeof(tmpfname), "tmp/%x-%x-%x.tmp", static_cast<unsigned>(getpid()),
                   static_cast<unsigned>(clock()), static_cast<unsigned>(random()));
    if (!text_addf(&argline, " > %s", tmpfname)) return do_sample_ret(STATUS_NOMEM, ls, &argline);
    if (!quotable) {
        (void)send_head(reply);
        return do_sample_ret(nullptr, ls, &argline);
    }
    if (verbose) fprintf(stderr, "do_sample: %s\n", argline.ptr);
    if (!run_sampler(reply, argline.ptr)) {
        fprintf(stderr, "popen failed\n");
        unlink(tmpfname);
        return do_sample_ret(STATUS_ERROR, ls, &argline);
    }
    if (!send_head(reply)) return do_sample_ret(nullptr, ls, &argline);  // Kept: the output stays in tmp/
    send_file(reply, tmpfname);
    unlink(tmpfname);
    return do_sample_ret(nullptr, ls, &argline);
}

// A page of one int64 that is not NULL, as it is sent:
//    0 40  header  cvn_page_t up to its body
//   40  8  value   int64
//   48  1  nmap    0, the null bitmap of one row
constexpr int TOTAL_PAGESZ = 49;
constexpr int TOTAL_BODYSZ = 9;
static_assert(CVN_PAGE_HEADSZ + TOTAL_BODYSZ == TOTAL_PAGESZ);

static bool send_total(htreply_t* reply, int cno, int64_t value) {
    cvn_page_t page;
    memset(&page, 0, sizeof(page));
    page.magic = CVN_PAGE_MAGIC;
    page.cno = cno;
    page.typ = CVN_TYP_INT64;
    page.nrow = 1;
    page.nmapoff = sizeof(value);
    page.nbyte = page.zbyte = TOTAL_BODYSZ;
    char buf[TOTAL_PAGESZ] = {};
    memcpy(buf, &page, CVN_PAGE_HEADSZ);
    memcpy(buf + CVN_PAGE_HEADSZ, &value, sizeof(value));
    return htreply_chunk(reply, buf, sizeof(buf));
}

static const char* do_meta_ret(const char* err, dir_item_t* ls) {
    dir_free(ls);
    return err;
}

const char* do_meta(htreply_t* reply, const char* dpath, int argc, char** argv) {
    dir_item_t* ls = nullptr;
    if (argc != 1 || strcmp(argv[0], "meta") != 0) return do_meta_ret(STATUS_BAD_CONTENT, ls);
    if (const char* err = dir_list(&ls, dpath)) return do_meta_ret(err, ls);
    uint64_t nrow = 0, nrowgroup = 0;  // unsigned: what damaged files claim may wrap
    for (const dir_item_t* p = ls; p; p = p->next) {
        if (p->name[0] == '.' || (!file_is_cvn(p->name) && !file_is_cvn_mismatch(p->name))) continue;
        char* path = nullptr;
        if (asprintf(&path, "%s/%s", dpath, p->name) < 0) return do_meta_ret(STATUS_NOMEM, ls);
        cvn_filestat_t st;
        if (cvn_filestat(&st, path) == 0) {
            nrow += static_cast<uint64_t>(st.nrow);
            nrowgroup += static_cast<uint64_t>(st.nrowgroup);
        }
        free(path);
    }
    if (!send_head(reply)) return do_meta_ret(nullptr, ls);
    if (!stream_header(reply, 2 * TOTAL_PAGESZ) || !send_total(reply, 0, static_cast<int64_t>(nrow)) ||
        !send_total(reply, 1, static_cast<int64_t>(nrowgroup)) || !stream_header(reply, 0))
        return do_meta_ret(STATUS_BAD, ls);
    (void)htreply_chunk(reply, nullptr, 0);
    return do_meta_ret(nullptr, ls);
}
