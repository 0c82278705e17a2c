// HTTP/1.1 as far as the daemon speaks it: one request head in, one reply out, then the connection is closed.
//
// Statuses are texts: null is success, otherwise the text says what failed. Nothing here reads a request
// body; what came in with the head stays in the request record, and a handler reads the rest from the socket.
#ifndef KELPD_HTTP_HTLIB_H
#define KELPD_HTTP_HTLIB_H

#include <stdint.h>

constexpr int HTREQ_BUFSZ = 10240;    // one byte is kept for the closing NUL
constexpr int HTREQ_MAXLINE = 100;    // a head with this many lines is refused
constexpr int HTREQ_TIMEOUT_SEC = 5;  // for the whole head
constexpr int HTREPLY_HEADSZ = 1000;  // a head is cut at one byte less
constexpr char RFC1123FMT[] = "%a, %d %b %Y %H:%M:%S GMT";

// A request head. The strings point into `buf` or at a static empty text and live as long as the record,
// which is one block: release it with free().
struct htrequest_t {
    int fd;                // the connection; borrowed
    const char* method;    // first word of the request line
    const char* url;       // second word, as sent
    const char* proto;     // third word, "" when there are two
    bool one_one;          // the protocol was accepted: anything but HTTP/1.0
    const char* referrer;  // Referer or Referrer, "" when absent
    const char* host;      // Host, cut at its first ':'
    const char* contenttype;
    int64_t contentlength;  // -1 when absent; may be any number
    char* body;             // the bytes after the blank line that came with the head; body[bodysz] is a NUL
    int bodysz;             // how many; may exceed contentlength
    char buf[HTREQ_BUFSZ];  // what was read, its lines cut in place
};

// Reads one request head from `fd` and parses it. The connection stays the caller's.
//
// ret_req  the request, owned by the caller. Cleared on entry, set only on success.
//
// Returns null, or a text that is no HTTP status, since no reply is due:
//   "out of memory"                          nothing is printed
//   "clnt timed out"                         no complete head within 5 seconds
//   "select failed"
//   "clnt closed without valid req"
//   "clnt overflowed request buffer"         10239 bytes and no blank line
//   "internal error"
//   "htreq_parse: too many lines in req"     100 lines or more
//   "htreq_parse: invalid req line"          not two or three words
//   "htreq_parse: HTTP/1.0 not supported"
//   "htreq_parse: invalid Host header"       it contains '/' or begins with '.'
//   "htreq_parse: invalid contentlength"
//   "htreq_parse: missing Host header"
// All but the first are also printed to standard error, as "htreq_readbuf failed: %s\n" or "htreq_parse
// failed: %s\n". With `verbose` the request line is printed too.
[[nodiscard]] const char* htreq_create(htrequest_t** ret_req, int fd);

// The reply of a connection. It holds no data: every call writes straight to the socket, once, and retries
// nothing. Release it with free().
struct htreply_t {
    int fd;            // the connection; borrowed
    bool status_sent;  // a head was attempted; never cleared
};

// Makes the reply for a request. `*ret_reply` is cleared on entry and set only on success; owned by the
// caller. Returns null or "out_of_memory".
[[nodiscard]] const char* htreply_create(htreply_t** ret_reply, htrequest_t* req);

// Sends the head, in one write: the status line, the date, "Connection: close", then the given header lines
// (each without its line end) up to the first null, and the blank line. A head longer than 999 bytes is cut
// there, silently. Returns true when all of it was written, or when a head was attempted before: nothing is
// written then.
bool htreply_status(htreply_t* reply, const char* status, const char* hdline1, const char* hdline2,
                    const char* hdline3, const char* hdline4);

// Sends `bufsz` bytes as one chunk, from the caller's buffer, in one writev; the first call sends the head
// "200 OK" of a chunked octet stream before it, and goes no further when that fails. Returns true when all
// was written. With `bufsz` 0 it ends the body, and returns false only when a head was due and failed.
bool htreply_chunk(htreply_t* reply, const void* buf, int bufsz);

// Sends `bufsz` bytes of JSON, in one write, with the head "200 OK" before them; a head sent earlier is not
// repeated, and the bytes then follow bare. Nothing follows a head that fails. Returns true when all was
// written.
bool htreply_json(htreply_t* reply, const char* buf, int bufsz);

// Sends an error reply whose body is the status text, a write of its own. When a head was sent earlier only
// the text is written: in a chunked stream a malformed chunk, by which the client sees the failure. Failures
// to write are ignored.
void htreply_error(htreply_t* reply, const char* status);

// URLs. Each result is a new string that the caller frees, or null when memory runs out. Nothing is printed.

// Returns the path, decoded: from the first '/' after "//", if that occurs anywhere, else from the first
// '/', up to the query; '+' becomes a space, then %XX becomes its byte (a %00 ends the text), and a '%'
// without two digits stays. Kept: without a query a fragment stays in the path.
[[nodiscard]] char* hturl_path(const char* url);

// Returns the text between '?' and '#' or the end, undecoded; "" without a '?' or when a '#' comes before it.
[[nodiscard]] char* hturl_query(const char* url);

// Returns the text after the first '#', undecoded, or "".
[[nodiscard]] char* hturl_fragment(const char* url);

// Returns `str` percent-encoded in lower-case digits. Kept: a space stays as it is, as do letters, digits and
// "-._~".
[[nodiscard]] char* hturl_encode(char* str);

// Runs the three readers over a sample URL. No effect.
void hturl_test();

#endif
