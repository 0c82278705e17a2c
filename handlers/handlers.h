// The request handlers, one per method, and the records of a parsed query.
//
// A handler is given a request whose head was read and a reply to which nothing was written. It returns null
// when it wrote its whole reply (or, in the cases stated below, deliberately none), otherwise an HTTP status
// text, which the caller sends as an error reply; every text is a constant. It writes to the client only
// through the reply, and frees all that it acquires. Paths are relative to the data directory, the working
// directory of the process.
#ifndef KELPD_HANDLERS_HANDLERS_H
#define KELPD_HANDLERS_HANDLERS_H

#include <stddef.h>
#include <stdint.h>

#include "colvane/colvane.h"
#include "http/htlib.h"

// The statuses that handlers return.
constexpr char STATUS_BAD[] = "400 Bad Request";
constexpr char STATUS_BAD_URL[] = "400 Bad Request - invalid url";
constexpr char STATUS_BAD_CONTENT[] = "400 Bad Request - invalid content";
constexpr char STATUS_NO_CONTENT[] = "400 Bad Request - no content";
constexpr char STATUS_NOT_FOUND[] = "404 Not Found";
constexpr char STATUS_ERROR[] = "500 Internal Server Error";
constexpr char STATUS_NOMEM[] = "500 Internal Server Error - out of memory";

// Requested columns, in request order.
struct colname_t {
    char* name;       // owned
    colname_t* next;  // owned
};

// Conditions, in request order.
struct cond_t {
    char* colname;  // owned
    char* op;       // "==", "in", ... as sent; owned
    int32_t narg;
    char** arg;    // narg texts, all owned; null when narg is 0
    cond_t* next;  // owned
};

// A command with its arguments. argv[0] is its name; texts from argc on are null.
constexpr int COMMAND_MAXARG = 50;
struct command_t {
    int32_t argc;
    char* argv[COMMAND_MAXARG];  // owned; at most 49 are filled
};

// The share of a parallel scan: row groups r with r mod nfrag = id. nfrag 0: all of them.
struct fragment_t {
    int32_t id;
    int32_t nfrag;
};

// Every record of a scan reply, little-endian:
//   0  4  magic  PAYLOAD_MAGIC
//   4  4  nbyte  bytes of the pages that follow; 0 ends the stream
struct payloadhdr_t {
    int32_t magic;
    int32_t nbyte;
};
constexpr int32_t PAYLOAD_MAGIC = 0x71727374;
static_assert(sizeof(payloadhdr_t) == 8 && offsetof(payloadhdr_t, magic) == 0 &&
              offsetof(payloadhdr_t, nbyte) == 4);

// GET: the catalogue as JSON.
//   above the entity  names of the sub-directories
//   at the entity     statistics of all that opens as data: files, and split directories as well
//   at the partition  its columns
[[nodiscard]] const char* do_get(htrequest_t* req, htreply_t* reply);

// PUT: stores the body as one file, durable before the reply. A data file (".cvn", ".cvn.mismatch") must open
// as one. With fewer than four components: null, and no reply.
[[nodiscard]] const char* do_put(htrequest_t* req, htreply_t* reply);

// DELETE: removes the file or tree.
[[nodiscard]] const char* do_delete(htrequest_t* req, htreply_t* reply);

// POST: a query or command on an entity. Above the entity, and for a command together with columns or
// conditions: null, and no reply.
[[nodiscard]] const char* do_post(htrequest_t* req, htreply_t* reply);

// Parses the JSON text of a query.
//
// ret_colname, ret_cond  owned by the caller (colname_free, cond_free); cleared on entry, set only on success
// cmd                    cleared on entry; its texts are the caller's (command_free), also after a failure
// frag                   cleared on entry
// text                   `len` bytes, at most 32768, with a NUL after them; not kept
//
// Returns null, "400 Bad Request - invalid content" or "500 Internal Server Error - out of memory".
[[nodiscard]] const char* parse_entity_request(colname_t** ret_colname, cond_t** ret_cond, command_t* cmd,
                                               fragment_t* frag, const char* text, int len);

// Release the records of a query; null lists are accepted.
void colname_free(colname_t* lst);
void cond_free(cond_t* lst);
void command_free(command_t* cmd);

// Streams the stored pages of every qualifying row group of every data file in the directory `dpath`, or row
// counts when neither columns nor conditions are given. Nothing is written before the first record, so an
// early failure is an ordinary error reply; a later one cuts the stream without its end record.
[[nodiscard]] const char* do_scan(htreply_t* reply, const char* dpath, colname_t* colname, cond_t* cond,
                                  fragment_t* frag);

// Streams what the external sampler makes of the directory's data files. `argv` is "sample" and a positive
// row count. After the head the handler only ever returns null: a failed sample shows as a head without a
// body, or as one whose row groups end early.
[[nodiscard]] const char* do_sample(htreply_t* reply, const char* dpath, int argc, char** argv);

// Streams one row of two int64 columns: the rows and the row groups of the directory's data files. `argv` is
// "meta".
[[nodiscard]] const char* do_meta(htreply_t* reply, const char* dpath, int argc, char** argv);

// The record stream that scans, samples and counts share.
enum stream_t : int {
    STREAM_OK = 0,
    STREAM_BADSIZE,   // the pages do not add up to a record's size; nothing was sent
    STREAM_NOREAD,    // a page cannot be read; nothing was sent
    STREAM_NOHEADER,  // the record header could not be sent
    STREAM_CUT,       // a page could not be read any more, though it could before the header was sent
    STREAM_NOPAGE,    // a page could not be sent
};

// Sends a record header with `nbyte`, 0 for the end of the stream, as one chunk. Returns true when it was
// written.
bool stream_header(htreply_t* reply, int32_t nbyte);

// Sends one page, header and body, as one chunk out of its own buffer. Returns true when it was written.
bool stream_page(htreply_t* reply, const cvn_page_t* page);

// Sends the required columns of one row group as a record: its header, once all pages are known to be
// readable, then page by page, up to the first failure.
//
// rg         comes from cvn_scan_next_rowgroup
// check_typ  a page without a type is printed to standard error, at any verbosity
//
// With `verbose` above 1 each page is printed to standard error before it goes. A row group whose pages pass
// what a record's 32 bits can say, 2 GiB, is refused.
[[nodiscard]] stream_t stream_rowgroup(htreply_t* reply, cvn_scan_t* scan, int64_t rg, bool check_typ);

#endif
