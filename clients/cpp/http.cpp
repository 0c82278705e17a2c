// http: one request and its reply, through libcurl.
//
// The daemon closes the connection after every reply, so each request has a connection of its own. The
// transfer runs under a multi handle rather than by curl_easy_perform, because that lets a cancellation from
// another thread end a wait at once. libcurl passes chunked bodies on as they come; chunk_feed undoes them.

#include <errno.h>
#include <linux/sockios.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "clients/cpp/client_int.h"

using namespace kelp;

namespace {

constexpr long RECEIVE_BUFSZ = 512L << 10;  // the most that libcurl takes
constexpr size_t ERROR_BODY_MAX = 1000;     // of a reply that is no 200, what is kept for the message
constexpr size_t UNREAD_MAX = 64u << 10;    // of a reply with status 200 that nobody waits for
constexpr size_t HEADER_MAX = 64u << 10;    // a longer head is not believed
constexpr size_t TRAILER_MAX = 8u << 10;    // nor more after the last chunk
constexpr int64_t POLL_MS = 100;            // how late the caller's cancel flag may be seen
constexpr char REACH_HINT[] = "check that kelpd runs there and that the port is the one in its kelpd.conf";
constexpr char NO_KELPD_HINT[] = "check host and port: what answers there does not seem to be kelpd";

// The state of one transfer, given to the callbacks.
struct transfer_t {
    http_t* http;
    kelp_error_t* err;
    CURL* easy;
    int code = 0;  // what a callback failed with
    bool chunked = false;
    bool enough = false;  // what else comes of the reply changes nothing
    chunk_t chunk;
    size_t headersz = 0;                     // bytes of the head so far
    size_t unreadsz = 0;                     // of a body that has no sink
    int64_t active_ms = 0;                   // when a byte last moved that is of use
    int64_t sent = 0;                        // PUT: bytes read from the file
    curl_socket_t socket = CURL_SOCKET_BAD;  // PUT: the last that was opened, to look at only
    int64_t uploaded = 0;                    // PUT, POST: bytes that the peer has taken
};

}  // namespace

int64_t kelp::now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Chunks.

// Reads a chunk's size line: hexadecimal digits, then the end or an extension. Words that stand in its place
// (an error text) are refused even when they begin with a digit.
static bool parse_chunk_line(uint64_t* ret, std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.remove_suffix(1);
    uint64_t size = 0;
    size_t n = 0;
    for (; n < line.size(); n++) {
        const char c = line[n];
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0) break;
        if (size >> 44) return false;
        size = size << 4 | static_cast<uint64_t>(digit);
    }
    if (n == 0) return false;
    while (n < line.size() && (line[n] == ' ' || line[n] == '\t')) n++;
    *ret = size;
    return n == line.size() || line[n] == ';';
}

static int bad_chunk(const chunk_t* ck, kelp_error_t* err) {
    const std::string_view line(ck->line, ck->linesz);
    const int code =
        kelp_fail(err, KELP_ECUT, "look into the server's log, and try again",
                  "the server broke off its reply%s%.*s", ck->linesz ? ": " : "",
                  static_cast<int>(std::min<size_t>(line.find_first_of("\r\n"), ck->linesz)), ck->line);
    kelp_said(err, line);
    return code;
}

int kelp::chunk_feed(chunk_t* ck, const char* p, size_t n,
                     int (*sink)(void* arg, const char* p, size_t n, kelp_error_t* err), void* sink_arg,
                     kelp_error_t* err) {
    while (n > 0) {
        switch (ck->state) {
            case chunk_t::DATA: {
                const auto take = static_cast<size_t>(std::min<uint64_t>(n, ck->left));
                if (const int code = sink(sink_arg, p, take, err)) return code;
                p += take;
                n -= take;
                ck->left -= take;
                if (ck->left == 0) ck->state = chunk_t::DATA_CR;
                break;
            }
            case chunk_t::DATA_CR:
            case chunk_t::DATA_LF:
                if (*p != (ck->state == chunk_t::DATA_CR ? '\r' : '\n')) return bad_chunk(ck, err);
                ck->state = ck->state == chunk_t::DATA_CR ? chunk_t::DATA_LF : chunk_t::SIZE_LINE;
                p++;
                n--;
                break;
            case chunk_t::SIZE_LINE:
            case chunk_t::TRAILER: {
                const auto* lf = static_cast<const char*>(memchr(p, '\n', n));
                const size_t take = lf ? static_cast<size_t>(lf - p) + 1 : n;
                const size_t keep = std::min(take, sizeof(ck->line) - ck->linesz);
                memcpy(ck->line + ck->linesz, p, keep);
                ck->linesz += keep;
                if (keep < take) return bad_chunk(ck, err);
                p += take;
                n -= take;
                if (!lf) break;
                if (ck->state == chunk_t::TRAILER) {
                    ck->trailersz += ck->linesz;
                    if (ck->trailersz > TRAILER_MAX)
                        return kelp_fail(err, KELP_EPROTO, NO_KELPD_HINT,
                                         "the reply goes on and on after its end");
                    const bool blank = ck->linesz == 1 || (ck->linesz == 2 && ck->line[0] == '\r');
                    if (blank) ck->state = chunk_t::DONE;
                } else {
                    if (!parse_chunk_line(&ck->left, {ck->line, ck->linesz - 1})) return bad_chunk(ck, err);
                    ck->state = ck->left ? chunk_t::DATA : chunk_t::TRAILER;
                }
                ck->linesz = 0;
                break;
            }
            case chunk_t::DONE:
                return kelp_fail(err, KELP_EPROTO, NO_KELPD_HINT, "the reply goes on after its end");
        }
    }
    return 0;
}

int kelp::chunk_end(const chunk_t* ck, kelp_error_t* err) {
    if (ck->state == chunk_t::DONE) return 0;
    if (ck->state == chunk_t::SIZE_LINE && ck->linesz > 0) return bad_chunk(ck, err);
    return kelp_fail(err, KELP_ECUT, "look into the server's log, and try again",
                     "the server closed the connection in the middle of its reply");
}

// The transfer.

// Of what a server may send without end (lines of its head, a body that nobody waits for, what stands around
// chunks), nothing counts as activity, so that none of it keeps a transfer alive.

static size_t on_header(char* p, size_t size, size_t n, void* arg) {
    auto* t = static_cast<transfer_t*>(arg);
    n *= size;
    t->headersz += n;
    if (t->headersz > HEADER_MAX) {
        t->code = kelp_fail(t->err, KELP_EPROTO, NO_KELPD_HINT, "the head of the reply exceeds %zu bytes",
                            HEADER_MAX);
        return 0;
    }
    if (n <= 2 && (p[0] == '\r' || p[0] == '\n')) {
        long status = 0;
        curl_easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
        if (status >= 200) t->active_ms = now_ms();  // the body may take its time from here on
    }
    constexpr char NAME[] = "transfer-encoding:";
    constexpr size_t NAMESZ = sizeof(NAME) - 1;
    if (n > NAMESZ && strncasecmp(p, NAME, NAMESZ) == 0) {
        std::string_view value(p + NAMESZ, n - NAMESZ);
        const size_t from = value.find_first_not_of(" \t");
        value.remove_prefix(std::min(from, value.size()));
        if (value.size() >= 7 && strncasecmp(value.data(), "chunked", 7) == 0) t->chunked = true;
    }
    return n;
}

// Takes bytes of a body whose transfer encoding is undone.
static int sink_body(void* arg, const char* p, size_t n, kelp_error_t* err) {
    auto* t = static_cast<transfer_t*>(arg);
    http_t* http = t->http;
    if (http->status == 200 && http->sink) {
        const int code = http->sink(http->sink_arg, p, n, err);
        // After the sink: time that it spends waiting for its reader is not the server's.
        t->active_ms = now_ms();
        return code;
    }
    if (http->status == 200) {
        t->unreadsz += n;
        if (t->unreadsz <= UNREAD_MAX) return 0;
        return kelp_fail(err, KELP_EPROTO, NO_KELPD_HINT, "the reply has a long text where kelpd sends none");
    }
    http->error_body.append(p, std::min(n, ERROR_BODY_MAX - http->error_body.size()));
    t->enough = http->error_body.size() == ERROR_BODY_MAX;
    return 0;
}

static int take_body(transfer_t* t, const char* p, size_t n) {
    if (t->http->status == 0) {
        long status = 0;
        curl_easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
        t->http->status = static_cast<int>(status);
    }
    if (!t->chunked) return sink_body(t, p, n, t->err);
    if (t->http->status == 200) return chunk_feed(&t->chunk, p, n, sink_body, t, t->err);
    // The status says what is wrong; chunks that are wrong as well add nothing.
    if (!t->enough && chunk_feed(&t->chunk, p, n, sink_body, t, nullptr) != 0) t->enough = true;
    return 0;
}

static size_t on_body(char* p, size_t size, size_t n, void* arg) {
    auto* t = static_cast<transfer_t*>(arg);
    t->code = kelp_guard(t->err, [&] { return take_body(t, p, size * n); });
    return t->code ? 0 : size * n;
}

static size_t on_upload(char* p, size_t size, size_t n, void* arg) {
    auto* t = static_cast<transfer_t*>(arg);
    t->active_ms = now_ms();
    // No more than was announced, should the file grow meanwhile.
    const auto want =
        static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(size * n), t->http->filesz - t->sent));
    ssize_t got;
    do {
        got = pread(t->http->fd, p, want, t->sent);
    } while (got < 0 && errno == EINTR);
    if (got < 0 || (got == 0 && t->sent < t->http->filesz)) {
        t->code = kelp_fail(t->err, KELP_EFILE, nullptr, "cannot read the file to upload: %s",
                            got < 0 ? strerror(errno) : "it became shorter meanwhile");
        return CURL_READFUNC_ABORT;
    }
    t->sent += got;
    if (t->http->progress && !t->http->progress(t->http->progress_arg, t->sent, t->http->filesz)) {
        t->code = kelp_fail(t->err, KELP_ECANCEL, nullptr, "the upload was cancelled");
        return CURL_READFUNC_ABORT;
    }
    return static_cast<size_t>(got);
}

static int on_socket(void* arg, curl_socket_t socket, curlsocktype) {
    static_cast<transfer_t*>(arg)->socket = socket;
    return CURL_SOCKOPT_OK;
}

// "host:port" of a URL, for messages.
static std::string host_of(const std::string& url) {
    const size_t from = url.find("://");
    std::string s = url.substr(from == url.npos ? 0 : from + 3);
    s = s.substr(0, s.find('/'));
    const size_t at = s.rfind('@');
    return at == s.npos ? s : s.substr(at + 1);
}

static int fail_curl(const transfer_t* t, CURLcode rc, const char* detail) {
    const std::string host = host_of(t->http->url);
    const char* why = detail[0] ? detail : curl_easy_strerror(rc);
    switch (rc) {
        case CURLE_OUT_OF_MEMORY: return kelp_nomem(t->err);
        case CURLE_COULDNT_RESOLVE_HOST:
            return kelp_fail(t->err, KELP_ECONNECT, "check the host name", "cannot find the host of %s",
                             host.c_str());
        case CURLE_COULDNT_CONNECT: {
            long os = 0;
            curl_easy_getinfo(t->easy, CURLINFO_OS_ERRNO, &os);
            return kelp_fail(t->err, KELP_ECONNECT, REACH_HINT, "cannot connect to %s: %s", host.c_str(),
                             os ? strerror(static_cast<int>(os)) : why);
        }
        case CURLE_OPERATION_TIMEDOUT:
            return kelp_fail(t->err, KELP_ETIMEOUT, REACH_HINT, "no connection to %s in time", host.c_str());
        case CURLE_GOT_NOTHING:
            return kelp_fail(
                t->err, KELP_EPROTO,
                "check that the URL names what the request is for, and look into the server's log",
                "%s closed the connection without a reply", host.c_str());
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
            return kelp_fail(t->err, KELP_EPROTO, NO_KELPD_HINT, "%s does not speak HTTP/1.1", host.c_str());
        case CURLE_URL_MALFORMAT:
            return kelp_fail(t->err, KELP_EARG, nullptr, "%s is no host and port", host.c_str());
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
            return kelp_fail(t->err, KELP_ECUT, "look into the server's log, and try again",
                             "%s closed the connection in the middle of its reply", host.c_str());
        case CURLE_SEND_ERROR:
            return kelp_fail(t->err, KELP_ECUT,
                             "look into the server's log (a full disk, perhaps), and try again",
                             "%s closed the connection in the middle of the request", host.c_str());
        case CURLE_PEER_FAILED_VERIFICATION:
            return kelp_fail(
                t->err, KELP_ECONNECT,
                "use the host name that is in the certificate, and name the file of the authority "
                "that signed it (ca_file; cvn: --cacert)",
                "the certificate of %s is not to be trusted: %s", host.c_str(), why);
        case CURLE_SSL_CACERT_BADFILE:
            return kelp_fail(t->err, KELP_EFILE, "name a file of certificates in PEM form",
                             "cannot read certificates from %.300s", t->http->opt->ca_file.c_str());
        case CURLE_SSL_CONNECT_ERROR:
            return kelp_fail(t->err, KELP_ECONNECT,
                             "check that the port is one for https; without it, write http:// or kelp://",
                             "no secure connection to %s: %s", host.c_str(), why);
        case CURLE_BAD_CONTENT_ENCODING:
            return kelp_fail(t->err, KELP_EPROTO, NO_KELPD_HINT, "%s encodes its reply in an unknown way",
                             host.c_str());
        default: break;
    }
    // Whatever libcurl calls it: once the head of a reply has begun, the reply is at fault.
    long headsz = 0;
    curl_easy_getinfo(t->easy, CURLINFO_HEADER_SIZE, &headsz);
    if (headsz > 0)
        return kelp_fail(t->err, KELP_EPROTO, NO_KELPD_HINT, "the reply of %s is no HTTP/1.1: %s",
                         host.c_str(), why);
    return kelp_fail(t->err, KELP_ECONNECT, nullptr, "%s: %s", host.c_str(), why);
}

// Turns a reply with another status than 200 into an error.
static int fail_status(const transfer_t* t) {
    const http_t* http = t->http;
    std::string said = http->error_body.substr(0, http->error_body.find_first_of("\r\n"));
    const std::string number = std::to_string(http->status);
    // kelpd's body is its status text; a page of markup is somebody else's.
    if (said.empty() || said[0] == '<') said = number;
    const char* hint = "look into the server's log";
    int code = KELP_EREFUSED;
    switch (http->status) {
        case 404:
            code = KELP_ENOTFOUND;
            hint = "list what the server has, and check the names in the URL";
            break;
        case 400:
            hint = "check the names in the URL and that all files of the table have these columns";
            break;
        case 401:
        case 403:
            hint = "give a user name and password in the URL, in front of the host as user:password@";
            break;
        case 413: hint = "a proxy in front of the server limits the size of uploads"; break;
        default:
            if (http->status < 400) hint = NO_KELPD_HINT;
    }
    kelp_fail(t->err, code, hint, "%s answered: %s", host_of(http->url).c_str(), said.c_str());
    kelp_said(t->err, said);
    if (t->err) t->err->http_status = http->status;
    return code;
}

static bool is_stopped(const http_t* http) {
    return (http->stop && http->stop->load(std::memory_order_relaxed)) ||
           (http->opt->cancel && http->opt->cancel->load(std::memory_order_relaxed));
}

static int fail_idle(const transfer_t* t) {
    const std::string host = host_of(t->http->url);
    const char* what = t->http->fd < 0                 ? "sent nothing"
                       : t->uploaded < t->http->filesz ? "taken nothing of the file"
                                                       : "not answered the upload";
    return kelp_fail(t->err, KELP_ETIMEOUT, "try again, or allow more time", "%s has %s for %d ms",
                     host.c_str(), what, t->http->opt->idle_timeout_ms);
}

// The bytes of a body that the peer's system has taken. Nothing else shows whether a slow upload goes on: of
// the file, libcurl holds half a megabyte at a time, and the socket perhaps as much again.
static int64_t uploaded_nbyte(const transfer_t* t) {
    curl_off_t uploaded = 0;
    curl_easy_getinfo(t->easy, CURLINFO_SIZE_UPLOAD_T, &uploaded);
    int queued = 0;
    if (uploaded > 0 && t->socket != CURL_SOCKET_BAD && ioctl(t->socket, SIOCOUTQ, &queued) == 0)
        uploaded = std::max<curl_off_t>(uploaded - queued, 0);
    return uploaded;
}

// Lets the transfer go on until libcurl is done with it, with `*ret_rc` as its result, or until what is there
// of the reply is enough.
static int drive(transfer_t* t, CURLM* multi, CURLcode* ret_rc) {
    const http_t* http = t->http;
    const kelp_opt_t* opt = http->opt;
    t->active_ms = now_ms();
    const int64_t start = http->start_ms ? http->start_ms : t->active_ms;
    for (;;) {
        int running = 0;
        if (curl_multi_perform(multi, &running) != CURLM_OK) return kelp_nomem(t->err);
        if (t->code) return t->code;
        if (!running) break;
        // A proxy may leave the connection open after the last chunk.
        if (t->enough || (t->chunked && t->chunk.state == chunk_t::DONE)) return 0;
        if (is_stopped(http)) return kelp_fail(t->err, KELP_ECANCEL, nullptr, "the request was cancelled");
        const int64_t now = now_ms();
        const int64_t uploaded = uploaded_nbyte(t);
        if (uploaded != t->uploaded) t->active_ms = now;
        t->uploaded = uploaded;
        if (opt->total_timeout_ms > 0 && now - start >= opt->total_timeout_ms)
            return kelp_fail(t->err, KELP_ETIMEOUT, "allow more time", "%s did not finish in %lld ms",
                             host_of(http->url).c_str(), static_cast<long long>(opt->total_timeout_ms));
        if (opt->idle_timeout_ms > 0 && now - t->active_ms >= opt->idle_timeout_ms)
            return http->status > 0 && http->status != 200 ? 0 : fail_idle(t);
        int64_t wait = POLL_MS;
        if (opt->total_timeout_ms > 0) wait = std::min(wait, start + opt->total_timeout_ms - now);
        if (opt->idle_timeout_ms > 0) wait = std::min(wait, t->active_ms + opt->idle_timeout_ms - now);
        curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::max<int64_t>(wait, 1)), nullptr);
    }
    int left = 0;
    while (const CURLMsg* msg = curl_multi_info_read(multi, &left))
        if (msg->msg == CURLMSG_DONE && msg->easy_handle == t->easy) *ret_rc = msg->data.result;
    return 0;
}

// Runs the prepared transfer to its end.
static int finish(transfer_t* t, CURLM* multi, const char* detail) {
    CURLcode rc = CURLE_OK;
    if (const int code = drive(t, multi, &rc)) return code;
    long status = 0;
    curl_easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
    t->http->status = static_cast<int>(status);
    // A status other than 200 says more than the way in which the connection ended.
    if (status > 200) return fail_status(t);
    // So does what stands in place of a chunk.
    if (t->chunked && (rc == CURLE_OK || rc == CURLE_RECV_ERROR || rc == CURLE_PARTIAL_FILE)) {
        if (const int code = chunk_end(&t->chunk, t->err)) return code;
    } else if (rc != CURLE_OK) {
        return fail_curl(t, rc, detail);
    }
    return status == 200 ? 0 : fail_status(t);
}

static int http_run_ret(int code, CURL* easy, CURLM* multi, CURLM* own, curl_slist* header) {
    if (easy && multi) curl_multi_remove_handle(multi, easy);
    if (easy) curl_easy_cleanup(easy);
    if (own) curl_multi_cleanup(own);
    curl_slist_free_all(header);
    return code;
}

int kelp::http_run(http_t* http, kelp_error_t* err) {
    static const CURLcode global = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (global != CURLE_OK) return kelp_nomem(err);
    http->status = 0;
    http->error_body.clear();
    CURL* easy = curl_easy_init();
    CURLM* own = http->multi ? nullptr : curl_multi_init();
    CURLM* multi = http->multi ? http->multi : own;
    curl_slist* header = nullptr;
    // Neither an interim reply nor a kept connection is anything that the daemon knows.
    for (const char* line : {"Expect:", "Connection: close", "Accept:"}) {
        curl_slist* longer = curl_slist_append(header, line);
        if (!longer) return http_run_ret(kelp_nomem(err), easy, nullptr, own, header);
        header = longer;
    }
    if (!easy || !multi) return http_run_ret(kelp_nomem(err), easy, nullptr, own, header);

    transfer_t t{.http = http, .err = err, .easy = easy};
    char detail[CURL_ERROR_SIZE] = "";
    bool set = true;
    const auto opt = [&](CURLoption option, auto value) {
        set = curl_easy_setopt(easy, option, value) == CURLE_OK && set;
    };
    opt(CURLOPT_URL, http->url.c_str());
    opt(CURLOPT_PROTOCOLS_STR, "http,https");
    opt(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    opt(CURLOPT_HTTP_TRANSFER_DECODING, 0L);
    opt(CURLOPT_NOPROXY, "*");
    opt(CURLOPT_NOSIGNAL, 1L);
    if (!http->opt->ca_file.empty()) {
        opt(CURLOPT_CAINFO, http->opt->ca_file.c_str());
        opt(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
    opt(CURLOPT_BUFFERSIZE, RECEIVE_BUFSZ);
    opt(CURLOPT_UPLOAD_BUFFERSIZE, RECEIVE_BUFSZ);
    opt(CURLOPT_FORBID_REUSE, 1L);
    opt(CURLOPT_ERRORBUFFER, detail);
    opt(CURLOPT_HTTPHEADER, header);
    opt(CURLOPT_HEADERFUNCTION, &on_header);
    opt(CURLOPT_HEADERDATA, &t);
    opt(CURLOPT_WRITEFUNCTION, &on_body);
    opt(CURLOPT_WRITEDATA, &t);
    if (http->opt->connect_timeout_ms > 0)
        opt(CURLOPT_CONNECTTIMEOUT_MS, long{http->opt->connect_timeout_ms});
#if LIBCURL_VERSION_NUM >= 0x075700
    // A host name that is still being looked up is left to its thread instead of being waited for. An older
    // libcurl at run time does not know the option, and waits.
    (void)curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
#endif
    const std::string_view method = http->method;
    if (method == "POST") {
        opt(CURLOPT_POST, 1L);
        opt(CURLOPT_POSTFIELDS, http->body.c_str());
        opt(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(http->body.size()));
    } else if (method == "PUT") {
        opt(CURLOPT_UPLOAD, 1L);
        opt(CURLOPT_READFUNCTION, &on_upload);
        opt(CURLOPT_READDATA, &t);
        opt(CURLOPT_SOCKOPTFUNCTION, &on_socket);
        opt(CURLOPT_SOCKOPTDATA, &t);
        opt(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(http->filesz));
    } else if (method != "GET") {
        opt(CURLOPT_CUSTOMREQUEST, http->method);
    }
    if (!set || curl_multi_add_handle(multi, easy) != CURLM_OK)
        return http_run_ret(kelp_fail(err, KELP_EARG, nullptr, "libcurl refuses the request: %s", detail),
                            easy, nullptr, own, header);
    return http_run_ret(finish(&t, multi, detail), easy, multi, own, header);
}
