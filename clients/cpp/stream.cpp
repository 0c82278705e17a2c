// stream: cuts a reply body into records and pages.
//
//   record   8 bytes: magic, bytes of the pages after it (0: the end of the stream)
//   page     40 bytes of head (cvn_page_t), then `zbyte` bytes of body
//
// The bytes arrive in pieces of any size; nothing depends on where one ends. A body goes straight to where
// its user wants it, so that it is copied once.

#include <string.h>

#include <algorithm>

#include "clients/cpp/client_int.h"

using namespace kelp;

static constexpr char STREAM_HINT[] =
    "check host and port; if that is kelpd, one of its files or the connection is damaged";

// Collects a head that may come in pieces. True once `headsz` bytes are there.
static bool collect(stream_t* st, size_t headsz, const char** p, size_t* n) {
    const size_t take = std::min(headsz - st->headsz, *n);
    memcpy(st->head + st->headsz, *p, take);
    st->headsz += take;
    *p += take;
    *n -= take;
    return st->headsz == headsz;
}

static int begin_record(stream_t* st, kelp_error_t* err) {
    int32_t magic, nbyte;
    memcpy(&magic, st->head, sizeof(magic));
    memcpy(&nbyte, st->head + sizeof(magic), sizeof(nbyte));
    if (magic != RECORD_MAGIC)
        return kelp_fail(err, KELP_EPROTO, STREAM_HINT, "record %lld of the reply has the wrong magic number",
                         static_cast<long long>(st->nrecord));
    if (nbyte == 0) {
        st->state = stream_t::ENDED;
        return 0;
    }
    if (nbyte < CVN_PAGE_HEADSZ)
        return kelp_fail(err, KELP_EPROTO, STREAM_HINT, "record %lld of the reply claims %d bytes",
                         static_cast<long long>(st->nrecord), nbyte);
    if (nbyte > st->max_record_nbyte)
        return kelp_fail(err, KELP_EPROTO, "raise the limit if the table really has such rows",
                         "record %lld of the reply claims %d bytes, above the limit of %lld",
                         static_cast<long long>(st->nrecord), nbyte,
                         static_cast<long long>(st->max_record_nbyte));
    st->record_left = nbyte;
    st->npage = 0;
    st->state = stream_t::PAGE;
    return st->user.record_begin(st->user.arg, nbyte, err);
}

// A page, and perhaps with it the record, is complete.
static int end_page(stream_t* st, kelp_error_t* err) {
    if (const int code = st->user.page_end(st->user.arg, st->npage, st->page, err)) return code;
    st->npage++;
    st->state = stream_t::PAGE;
    if (st->record_left > 0) return 0;
    st->nrecord++;
    st->state = stream_t::RECORD;
    return st->user.record_end(st->user.arg, st->npage, err);
}

static int begin_page(stream_t* st, kelp_error_t* err) {
    cvn_page_t* page = &st->page;
    memcpy(page, st->head, CVN_PAGE_HEADSZ);
    st->record_left -= CVN_PAGE_HEADSZ;
    if (page->magic != CVN_PAGE_MAGIC)
        return kelp_fail(err, KELP_EPROTO, STREAM_HINT, "page %d of record %lld has the wrong magic number",
                         st->npage, static_cast<long long>(st->nrecord));
    if (page->zbyte < 0 || page->zbyte > st->record_left)
        return kelp_fail(err, KELP_EPROTO, STREAM_HINT, "page %d of record %lld claims %d bytes of %d",
                         st->npage, static_cast<long long>(st->nrecord), page->zbyte, st->record_left);
    st->dst = nullptr;
    st->body_left = page->zbyte;
    if (const int code = st->user.page_begin(st->user.arg, st->npage, *page, &st->dst, err)) return code;
    st->state = stream_t::BODY;
    return st->body_left == 0 ? end_page(st, err) : 0;
}

int kelp::stream_feed(stream_t* st, const char* p, size_t n, kelp_error_t* err) {
    while (n > 0) {
        int code = 0;
        switch (st->state) {
            case stream_t::BODY: {
                const size_t take = std::min(n, static_cast<size_t>(st->body_left));
                memcpy(st->dst, p, take);
                st->dst += take;
                p += take;
                n -= take;
                st->body_left -= static_cast<int32_t>(take);
                st->record_left -= static_cast<int32_t>(take);
                if (st->body_left == 0) code = end_page(st, err);
                break;
            }
            case stream_t::RECORD:
                if (!collect(st, RECORD_HEADSZ, &p, &n)) break;
                st->headsz = 0;
                code = begin_record(st, err);
                break;
            case stream_t::PAGE:
                if (st->record_left < CVN_PAGE_HEADSZ) {
                    code = kelp_fail(err, KELP_EPROTO, STREAM_HINT,
                                     "record %lld has %d bytes after its last page, too few for another",
                                     static_cast<long long>(st->nrecord), st->record_left);
                    break;
                }
                if (!collect(st, CVN_PAGE_HEADSZ, &p, &n)) break;
                st->headsz = 0;
                code = begin_page(st, err);
                break;
            case stream_t::ENDED:
                code = kelp_fail(err, KELP_EPROTO, STREAM_HINT, "the reply goes on after its end record");
                break;
        }
        if (code) return code;
    }
    return 0;
}

int kelp::stream_end(const stream_t* st, kelp_error_t* err) {
    if (st->state == stream_t::ENDED) return 0;
    return kelp_fail(err, KELP_ECUT, "look into the server's log, and try again",
                     "the reply ends without its end record");
}
