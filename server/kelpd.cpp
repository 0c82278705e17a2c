// The daemon: start-up, one forked child per connection, and the exchange that a child serves. The parent
// does nothing per connection but fork and close; all state is the directory tree. What a child would have to
// do each time, such as reading the time zone, the parent does once before it forks.
#include "server/kelpd.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "handlers/handlers.h"
#include "http/htlib.h"
#include "kelpd_build.h"
#include "server/conf.h"
#include "server/confine.h"
#include "server/prefault.h"
#include "store/dir.h"

constexpr int BACKLOG = 20;
// A peer that is gone without a word is noticed 10 minutes after it was last heard: 5 of silence, then 5 questions
// without an answer. Else it would keep a process, and an upload its temporary file, until the next boot.
constexpr int KEEPALIVE_IDLE = 300, KEEPALIVE_INTERVAL = 60, KEEPALIVE_COUNT = 5;
constexpr int LOG_BUFSZ = 40960;  // holds a request's body and more, so that its line reaches the log whole

[[noreturn]] static void usage(const char* msg) {
    if (msg) fprintf(stderr, "%s\n", msg);
    fprintf(stderr, "Usage: %s [-hn] -D datadir\n\n", gl.progname);
    fprintf(stderr, "\t-h: print this message\n");
    fprintf(stderr, "\t-n: do not fork (for debug sessions only)\n");
    fprintf(stderr, "\t-v: verbose mode\n\n");
    fprintf(stderr, "\tbuild %s on %s\n\n", KELPD_REVISION, KELPD_BUILD_DATE);
    exit(msg ? 1 : 0);
}

static void parse_arg(int argc, char** argv) {
    for (int opt; (opt = getopt(argc, argv, "hvnD:")) != -1;) {
        switch (opt) {
            case 'h': usage(nullptr);
            case 'D': gl.datadir = optarg; break;
            case 'n': gl.donotfork = 1; break;
            case 'v': verbose++; break;
            default: usage("Illegal option");
        }
    }
    if (!gl.datadir) usage("ERROR: -D datadir is missing");
    if (optind != argc) usage("ERROR: extra arguments");
}

static void unknown_conf_value(const conf_t* entry) {
    fprintf(stderr, "WARNING: unknown key (%s) in config file on line %d ... ignored.\n", entry->key,
            entry->lineno);
}

[[noreturn]] static void bad_conf_value(const conf_t* entry) {
    fprintf(stderr, "ERROR: invalid value in config file for key %s on line %d\n", entry->key, entry->lineno);
    exit(1);
}

static void parse_conf() {
    for (const conf_t* p = gl.conf.lst; p; p = p->next) {
        if (strcmp(p->key, "port") != 0) {
            unknown_conf_value(p);
            continue;
        }
        errno = 0;
        const long port = strtol(p->value, nullptr, number_base(p->value));
        gl.conf.port = static_cast<int>(port);  // Kept: any base, no upper bound
        if (errno != 0 || gl.conf.port < 1) bad_conf_value(p);
    }
}

static void mkdir_or_exit(const char* path) {
    if (dir_exists(path) || dir_create(path, 0700)) return;
    fprintf(stderr, "cannot create dir %s\n", path);
    exit(1);
}

static void mkdir_base() { mkdir_or_exit("./base"); }
static void mkdir_tmp() { mkdir_or_exit("./tmp"); }

// Brings the entry of base/ to disk, which uploads flush no further than to itself.
static void sync_datadir() {
    const int fd = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) return;
    (void)fsync(fd);  // whoever cannot flush it has no crash to fear, or a disk to look after
    close(fd);
}

// Formats the stamp of a log file's name into `buf` and returns it; 20 bytes hold it.
static char* strtimestamp(time_t t, char* buf, int buflen) {
    struct tm tm;
    if (!localtime_r(&t, &tm) || strftime(buf, static_cast<size_t>(buflen), "%Y-%m-%d_%H%M%S", &tm) == 0)
        *buf = '\0';
    return buf;
}

[[noreturn]] static void die_perror(const char* what) {
    perror(what);
    exit(1);
}

static void logf_open() {
    static char logbuf[LOG_BUFSZ];
    (void)mkdir("log", 0755);  // it usually exists
    char stamp[20];
    (void)snprintf(gl.log.fname, sizeof(gl.log.fname), "log/kelpd-%s.log",
                   strtimestamp(time(nullptr), stamp, sizeof(stamp)));
    fprintf(stderr, "logfile name %s\n", gl.log.fname);
    // A failed freopen leaves no stream to report on, so the file is opened once before; and made by this, since
    // the umask is 0 and what clients ask for is not for everybody to read.
    const int fd = open(gl.log.fname, O_WRONLY | O_APPEND | O_CREAT, 0640);
    if (fd == -1) die_perror("fopen");
    gl.log.fp = freopen(gl.log.fname, "a", stderr);
    close(fd);
    if (!gl.log.fp) die_perror("fopen");
    setvbuf(gl.log.fp, logbuf, _IOLBF, sizeof(logbuf));
}

static void daemonize() {
    const pid_t pid = fork();
    if (pid == -1) die_perror("fork");
    if (pid > 0) exit(0);
    umask(0);
    logf_open();
    if (setsid() == -1) die_perror("setsid");
    for (int fd = 0; fd <= 2; fd++) close(fd);
    logf_open();
    if (signal(SIGCHLD, SIG_IGN) == SIG_ERR) die_perror("signal(SIGCHLD, SIG_IGN)");
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) die_perror("signal(SIGPIPE, SIG_IGN");  // Kept: unbalanced
}

// Writes the access line in one call, so that the lines of children never mix, and unformatted, since every
// request pays for it.
static void log_access(const htrequest_t* request, const char* status) {
    const char* const part[] = {request->method, " ", request->url, " -> ", status, "\n"};
    struct iovec iov[6];
    for (int i = 0; i < 6; i++) iov[i] = {const_cast<char*>(part[i]), strlen(part[i])};
    if (writev(STDERR_FILENO, iov, 6) == -1) return;  // a full disk costs log lines, no replies
}

static const char* do_work_cleanup(const char* err, htrequest_t* request, htreply_t* reply) {
    if (reply) {
        if (err) htreply_error(reply, err);
        free(reply);
    }
    if (request) {
        log_access(request, err ? err : "200 OK");
        free(request);
    }
    return err;
}

// Serves the one request of a connection. Returns the status, null for success; the descriptor stays open.
static const char* do_work(int fd) {
    htrequest_t* req = nullptr;
    htreply_t* reply = nullptr;
    if (const char* err = htreq_create(&req, fd)) return do_work_cleanup(err, nullptr, nullptr);
    if (const char* err = htreply_create(&reply, req)) return do_work_cleanup(err, req, nullptr);
    const char* err = STATUS_NOT_FOUND;
    if (strcmp(req->method, "POST") == 0)
        err = do_post(req, reply);
    else if (strcmp(req->method, "GET") == 0)
        err = do_get(req, reply);
    else if (strcmp(req->method, "PUT") == 0) {
        if (!gl.donotfork) confine_upload();  // with one process, what comes next may need more
        err = do_put(req, reply);
    } else if (strcmp(req->method, "DELETE") == 0)
        err = do_delete(req, reply);
    return do_work_cleanup(err, req, reply);
}

[[noreturn]] static void die_errno(const char* call) {
    fprintf(stderr, "ERROR: %s failed - %s\n", call, strerror(errno));
    exit(1);
}

// Accepted sockets have these options of the listening one. None is worth ending for.
static void set_keepalive(int sock) {
    const struct {
        int level, name, value;
    } option[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                  {IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_IDLE},
                  {IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_INTERVAL},
                  {IPPROTO_TCP, TCP_KEEPCNT, KEEPALIVE_COUNT}};
    for (const auto& o : option) (void)setsockopt(sock, o.level, o.name, &o.value, sizeof(o.value));
}

[[noreturn]] static void main_loop() {
    tzset();
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock == -1) die_errno("socket()");
    const int one = 1;
    (void)setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));  // bind tells when it mattered
    (void)fcntl(sock, F_SETFD, FD_CLOEXEC);  // with one process, the sampler would hold the port
    set_keepalive(sock);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(gl.conf.port));
    if (bind(sock, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == -1) die_errno("bind()");
    if (listen(sock, BACKLOG) == -1) die_errno("listen()");
    const int mem = gl.donotfork ? -1 : prefault_open();
    confine_process();
    if (mem != -1) prefault_program(mem);
    for (;;) {
        struct sockaddr_in peer;
        socklen_t peerlen = sizeof(peer);
        const int fd = accept(sock, reinterpret_cast<struct sockaddr*>(&peer), &peerlen);
        if (fd == -1) break;
        if (gl.donotfork) {
            if (const char* err = do_work(fd)) fprintf(stderr, "ERROR: %s\n", err);
            close(fd);
            continue;
        }
        // With one thread there are no locks to make anew in the child, which is all that fork() would add,
        // at the price of three pages written.
        const pid_t pid = _Fork();
        if (pid == -1) die_errno("fork()");
        if (pid == 0) {
            close(sock);
            signal(SIGCHLD, SIG_DFL);  // what this child starts itself is waited for
            // What fills no segment is held back to leave with what follows, at the latest with the end:
            // fewer segments, and fewer times that the client wakes; the system holds it for 200 ms at most.
            // The end is said before the close, which would drop what is held back when the client has sent
            // more than was read.
            const int cork = 1;
            (void)setsockopt(fd, IPPROTO_TCP, TCP_CORK, &cork, sizeof(cork));
            (void)do_work(fd);
            (void)shutdown(fd, SHUT_WR);
            _exit(0);  // nothing is left to flush: log lines go out as they end, replies at once
        }
        close(fd);
    }
    fprintf(stderr, "ERROR: accept() failed - %s\n", strerror(errno));
    exit(1);
}

int main(int argc, char** argv) {
    hturl_test();
    gl.progname = argv[0];
    parse_arg(argc, argv);
    if (chdir(gl.datadir) == -1) {
        fprintf(stderr, "ERROR: cannot chdir to '%s' - %s\n", gl.datadir, strerror(errno));
        exit(1);
    }
    if (const int err = conf_load(&gl.conf.lst, "kelpd.conf")) {
        fprintf(stderr, "ERROR: cannot load %s/kelpd.conf - %s\n", gl.datadir, strerror(err));
        exit(1);
    }
    parse_conf();
    mkdir_base();
    mkdir_tmp();
    sync_datadir();
    if (!gl.donotfork) daemonize();
    main_loop();
}
