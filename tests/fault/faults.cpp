// A fault at every call. Each request to the daemon, and each command of cvn and cvnsamp, is run again and
// again while its n-th system call or allocation fails, for n = 1, 2, ... until it runs without one, in each
// of these ways:
//
//   error      the call does nothing and reports an error that it may report: EIO, ENOSPC, ENOMEM, EMFILE,
//              ...
//   short      a read or write does half of what was asked
//   interrupt  the call reports EINTR once
//   memory     an allocation finds no memory
//
// After each, what is promised must hold:
//
//   a tool     status 0, and then exactly the bytes of a run without faults; or another status with a
//              message, and then the file to be written is absent, or as it was, or whole
//   daemon     the right reply; or an error status that this request may have; or a reply that is cut, which
//              its framing shows. A file is the old one or the new one, the new one for certain after "200
//              OK". The next request is served as ever, the parent has the descriptors that it had, and no
//              process is left
//
// Both must succeed after short counts and interruptions, but for those that is_final names.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <linux/prctl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>

#include "fault/alloc_shim.h"
#include "fault/scene.h"
#include "fault/tracer.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using namespace scene;

namespace {

enum kind_t : uint8_t { ERROR, SHORT, INTERRUPT, MEMORY };
constexpr kind_t KINDS[] = {ERROR, SHORT, INTERRUPT, MEMORY};
const char* const KIND_NAME[] = {"error", "short", "interrupt", "memory"};
constexpr int MANY = 20000;  // more calls than anything here makes

struct options_t {
    std::string kelpd, cvn, cvnsamp, shim, python, package, golden, work;
    int stride = 1;       // every how many-th call of a request fails
    int tool_stride = 1;  // and of a command
    std::string only;
    bool verbose = false;
};

// All files below a directory with their bytes; directories end in a slash.
std::map<std::string, std::string> tree(const std::string& dir) {
    std::map<std::string, std::string> all;
    if (!fs::exists(dir)) return all;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        const std::string name = fs::relative(entry.path(), dir).string();
        if (entry.is_directory())
            all[name + "/"] = "";
        else
            all[name] = read_file(entry.path());
    }
    return all;
}

void lay(const std::string& dir, const std::map<std::string, std::string>& files) {
    fs::remove_all(dir);
    fs::create_directory(dir);
    for (const auto& [name, bytes] : files) {
        if (name.ends_with("/")) {
            fs::create_directory(fs::path(dir) / name.substr(0, name.size() - 1));
        } else {
            write_file(dir + "/" + name, bytes);
        }
    }
}

// Which calls fail, and how.

struct syscall_t {
    long nr;
    const char* name;
    int error;  // a fault that this call may report; 0 for none
    int count;  // the argument that holds a count which may be halved, or -1
    bool interrupts;
};

// Left out is what cannot fail here: signals' masks and actions, clocks, identities, what releases, and the
// calls with which the C library manages threads.
constexpr syscall_t SYSCALL[] = {
    {SYS_read, "read", EIO, 2, true},
    {SYS_write, "write", ENOSPC, 2, true},
    {SYS_readv, "readv", EIO, -1, true},
    {SYS_writev, "writev", ENOSPC, -2, true},
    {SYS_pread64, "pread", EIO, 2, true},
    {SYS_pwrite64, "pwrite", ENOSPC, 2, true},
    {SYS_open, "open", EMFILE, -1, false},
    {SYS_openat, "openat", EMFILE, -1, false},
    {SYS_close, "close", EIO, -1, false},
    {SYS_stat, "stat", EIO, -1, false},
    {SYS_fstat, "fstat", EIO, -1, false},
    {SYS_lstat, "lstat", EIO, -1, false},
    {SYS_newfstatat, "newfstatat", EIO, -1, false},
    {SYS_statx, "statx", EIO, -1, false},
    {SYS_lseek, "lseek", EIO, -1, false},
    {SYS_mmap, "mmap", ENOMEM, -1, false},
    {SYS_mremap, "mremap", ENOMEM, -1, false},
    {SYS_brk, "brk", ENOMEM, -1, false},
    {SYS_ioctl, "ioctl", EIO, -1, false},
    {SYS_access, "access", EIO, -1, false},
    {SYS_faccessat, "faccessat", EIO, -1, false},
    {SYS_pipe2, "pipe2", EMFILE, -1, false},
    {SYS_select, "select", ENOMEM, -1, true},
    {SYS_pselect6, "pselect6", ENOMEM, -1, true},
    {SYS_poll, "poll", ENOMEM, -1, true},
    {SYS_ppoll, "ppoll", ENOMEM, -1, true},
    {SYS_dup, "dup", EMFILE, -1, false},
    {SYS_fcntl, "fcntl", EMFILE, -1, false},
    {SYS_fadvise64, "fadvise64", EINVAL, -1, false},
    {SYS_sendfile, "sendfile", EIO, 3, true},
    {SYS_socket, "socket", EMFILE, -1, false},
    {SYS_socketpair, "socketpair", EMFILE, -1, false},
    {SYS_eventfd2, "eventfd2", EMFILE, -1, false},
    {SYS_connect, "connect", ECONNREFUSED, -1, false},
    {SYS_sendto, "sendto", ECONNRESET, 2, true},
    {SYS_recvfrom, "recvfrom", ECONNRESET, 2, true},
    {SYS_sendmsg, "sendmsg", ECONNRESET, -1, true},
    {SYS_recvmsg, "recvmsg", ECONNRESET, -1, true},
    {SYS_shutdown, "shutdown", ENOTCONN, -1, false},
    {SYS_setsockopt, "setsockopt", ENOMEM, -1, false},
    {SYS_getsockopt, "getsockopt", ENOMEM, -1, false},
    {SYS_getsockname, "getsockname", ENOBUFS, -1, false},
    {SYS_getpeername, "getpeername", ENOTCONN, -1, false},
    {SYS_clone, "clone", EAGAIN, -1, false},
    {SYS_clone3, "clone3", EAGAIN, -1, false},
    {SYS_fork, "fork", EAGAIN, -1, false},
    {SYS_vfork, "vfork", EAGAIN, -1, false},
    {SYS_wait4, "wait4", ECHILD, -1, true},
    {SYS_fsync, "fsync", EIO, -1, false},
    {SYS_fdatasync, "fdatasync", EIO, -1, false},
    {SYS_ftruncate, "ftruncate", EIO, -1, false},
    {SYS_fallocate, "fallocate", ENOSPC, -1, false},
    {SYS_getdents64, "getdents64", EIO, -1, false},
    {SYS_getcwd, "getcwd", ENOENT, -1, false},
    {SYS_chdir, "chdir", EIO, -1, false},
    {SYS_rename, "rename", EIO, -1, false},
    {SYS_renameat, "renameat", EIO, -1, false},
    {SYS_renameat2, "renameat2", EIO, -1, false},
    {SYS_mkdir, "mkdir", ENOSPC, -1, false},
    {SYS_mkdirat, "mkdirat", ENOSPC, -1, false},
    {SYS_rmdir, "rmdir", EIO, -1, false},
    {SYS_unlink, "unlink", EIO, -1, false},
    {SYS_unlinkat, "unlinkat", EIO, -1, false},
    {SYS_readlink, "readlink", EIO, -1, false},
    {SYS_readlinkat, "readlinkat", EIO, -1, false},
    {SYS_chmod, "chmod", EPERM, -1, false},
    {SYS_fchmod, "fchmod", EPERM, -1, false},
    {SYS_getrandom, "getrandom", EIO, 1, true},
    {SYS_umask, "umask", 0, -1, false},
};

const syscall_t* find_call(long nr) {
    const auto* at =
        std::find_if(std::begin(SYSCALL), std::end(SYSCALL), [&](const syscall_t& s) { return s.nr == nr; });
    return at == std::end(SYSCALL) ? nullptr : at;
}

// The n-th of the calls of one kind.
class injector_t {
 public:
    explicit injector_t(const options_t& options) : path_(options.work + "/alloc") {
        write_file(path_, std::string(4096, '\0'));
        const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
        void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (p == MAP_FAILED) fail("mmap");
        alloc_ = static_cast<alloc_fault_t*>(p);
    }
    void arm(kind_t kind, int nth) {
        const std::lock_guard lock(mutex_);
        kind_ = kind;
        nth_ = nth;
        count_ = 0;
        fired_ = false;
        where_ = kind == MEMORY ? "an allocation" : "";
        is_socket_ = false;
        nr_ = -1;
        crashed_ = 0;
        alloc_->count = alloc_->fired = 0;
        alloc_->nth = kind == MEMORY ? nth : 0;
    }
    bool disarm() {
        const std::lock_guard lock(mutex_);
        nth_ = 0;
        alloc_->nth = 0;
        return kind_ == MEMORY ? alloc_->fired != 0 : fired_;
    }
    void spare(pid_t pid) { alloc_->not_pid = pid; }
    const std::string& path() const { return path_; }
    std::string where() const { return where_; }
    bool is_socket() const { return is_socket_; }
    long nr() const { return nr_; }
    int crashed() const { return crashed_; }  // the signal that ended a process, or 0
    void ended(int status) {
        if (WIFSIGNALED(status)) crashed_ = WTERMSIG(status);
    }

    bool enter(tracer::call_t* c) {
        const std::lock_guard lock(mutex_);
        if (nth_ == 0 || kind_ == MEMORY) return true;
        const syscall_t* call = find_call(c->nr);
        if (!call || !fits(*call, *c)) return true;
        if (++count_ != nth_) return true;
        fired_ = true;
        nr_ = c->nr;
        describe(*call, *c);
        if (kind_ == SHORT) {
            cut(*call, c);
            return true;
        }
        const int error = kind_ == INTERRUPT ? EINTR
                          : is_socket_ && (c->nr == SYS_write || c->nr == SYS_writev || c->nr == SYS_read ||
                                           c->nr == SYS_sendfile)
                              ? ECONNRESET
                              : call->error;
        if (c->nr == SYS_close) {  // it is closed all the same
            c->replace = true;
            c->replacement = -error;
            return true;
        }
        if (kind_ == ERROR && is_transfer(c->nr) && is_connection(*c)) break_connection(*c);
        c->result = c->nr == SYS_brk ? 0 : -error;
        return false;
    }
    void leave(const tracer::call_t& c) {
        if (poked_.pid != c.pid) return;
        poke(c.pid, poked_.address, poked_.was);
        poked_ = {};
    }

 private:
    bool fits(const syscall_t& call, const tracer::call_t& c) const {
        if (kind_ == INTERRUPT) return call.interrupts && !is_file(call, c);
        if (kind_ == ERROR) return call.error != 0;
        if (call.count == -2) return true;  // a list of pieces
        return call.count >= 0 && c.arg[call.count] > 1;
    }
    // A connection that has failed stays so: nothing comes from it any more, and nothing can be sent.
    static bool is_transfer(long nr) {
        return nr == SYS_read || nr == SYS_write || nr == SYS_writev || nr == SYS_sendfile ||
               nr == SYS_sendto || nr == SYS_recvfrom || nr == SYS_sendmsg || nr == SYS_recvmsg;
    }
    static bool is_connection(const tracer::call_t& c) {
        return tracer::descriptor(c.pid, static_cast<int>(c.arg[0])).rfind("socket:", 0) == 0;
    }
    static void break_connection(const tracer::call_t& c) {
        // Descriptors belong to the process, and a thread may call.
        std::ifstream in("/proc/" + std::to_string(c.pid) + "/status");
        std::string word;
        pid_t pid = c.pid;
        while (in >> word)
            if (word == "Tgid:" && in >> pid) break;
        const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        const int fd = static_cast<int>(syscall(SYS_pidfd_getfd, process, c.arg[0], 0));
        if (process < 0 || fd < 0) fail("cannot break a connection");
        (void)shutdown(fd, SHUT_RDWR);  // one that is not connected yet is as good as broken
        close(fd);
        close(process);
    }
    // Calls on files are not interrupted: the kernel waits for the disk.
    static bool is_file(const syscall_t& call, const tracer::call_t& c) {
        if (call.count < 0 && c.nr != SYS_writev && c.nr != SYS_readv) return false;
        if (c.nr == SYS_getrandom) return false;
        return tracer::descriptor(c.pid, static_cast<int>(c.arg[0])).rfind('/', 0) == 0 &&
               c.nr != SYS_sendfile;
    }
    void describe(const syscall_t& call, const tracer::call_t& c) {
        where_ = call.name;
        std::string what;
        if (c.nr == SYS_open || c.nr == SYS_mkdir || c.nr == SYS_rename || c.nr == SYS_unlink ||
            c.nr == SYS_rmdir || c.nr == SYS_stat || c.nr == SYS_lstat || c.nr == SYS_access)
            what = tracer::read_text(c.pid, c.arg[0]);
        else if (c.nr == SYS_openat || c.nr == SYS_newfstatat || c.nr == SYS_unlinkat || c.nr == SYS_mkdirat)
            what = tracer::read_text(c.pid, c.arg[1]);
        else if (c.nr != SYS_mmap && c.nr != SYS_brk && c.nr != SYS_clone && c.nr != SYS_clone3)
            what = tracer::descriptor(c.pid, static_cast<int>(c.arg[0]));
        is_socket_ = what.rfind("socket:", 0) == 0 || c.nr == SYS_select || c.nr == SYS_pselect6;
        if (!what.empty()) where_ += " " + (is_socket_ ? "of the connection" : what);
    }
    static void poke(pid_t pid, uint64_t address, uint64_t value) {
        const iovec from = {&value, sizeof(value)};
        const iovec to = {reinterpret_cast<void*>(address), sizeof(value)};
        (void)process_vm_writev(pid, &from, 1, &to, 1, 0);
    }
    void cut(const syscall_t& call, tracer::call_t* c) {
        if (call.count >= 0) {
            c->arg[call.count] = (c->arg[call.count] + 1) / 2;
            return;
        }
        if (c->arg[2] > 1) {
            c->arg[2]--;
            return;
        }
        const uint64_t at = c->arg[1] + offsetof(iovec, iov_len);
        uint64_t len;
        memcpy(&len, tracer::read_memory(c->pid, at, sizeof(len)).data(), sizeof(len));
        poked_ = {c->pid, at, len};
        poke(c->pid, at, (len + 1) / 2);
    }

    const std::string path_;
    std::mutex mutex_;
    alloc_fault_t* alloc_ = nullptr;
    kind_t kind_ = ERROR;
    int nth_ = 0, count_ = 0;
    bool fired_ = false, is_socket_ = false;
    long nr_ = -1;
    std::atomic<int> crashed_ = 0;
    std::string where_;
    struct {
        pid_t pid = 0;
        uint64_t address = 0, was = 0;
    } poked_;
};

// What came of them.
struct tally_t {
    int nfault = 0, nsame = 0, nerror = 0, ncut = 0;
};
int nfault_of[4], nproblem;

void problem(const std::string& what, kind_t kind, int n, const std::string& where, const std::string& why) {
    nproblem++;
    printf("PROBLEM: %s, %s %d (%s): %s\n", what.c_str(), KIND_NAME[kind], n, where.c_str(), why.c_str());
    fflush(stdout);
}

std::string shown(const std::string& s) {
    std::string text;
    for (const char c : s.substr(0, 200)) {
        char buf[8];
        snprintf(buf, sizeof(buf), isprint(static_cast<unsigned char>(c)) ? "%c" : "\\x%02x",
                 static_cast<unsigned char>(c));
        text += buf;
    }
    return text;
}

// The tools.

struct command_t {
    std::string name;
    std::vector<std::string> argv;
    std::string in;             // standard input
    std::string out;            // the file or directory that it writes, below "out/"
    bool socket_calls = false;  // only what it does with sockets fails
    bool python = false;
    std::vector<kind_t> kinds = {ERROR, SHORT, INTERRUPT, MEMORY};
};

struct outcome_t {
    int status = -1;
    std::string out, err;
    std::map<std::string, std::string> made;
};

class tools_t {
 public:
    tools_t(const options_t& options, injector_t* injector, int port)
        : options_(options), injector_(injector), url_("http://127.0.0.1:" + std::to_string(port)) {
        fs::create_directory(options_.work + "/tools");
    }

    std::function<void()> reset;  // makes the server's tree what it was

    // Runs it with the fault that is armed.
    outcome_t run(const command_t& command) {
        const std::string dir = options_.work + "/tools";
        if (reset) reset();
        lay(dir + "/out", {});
        write_file(dir + "/stdin", command.in);
        const int in = open((dir + "/stdin").c_str(), O_RDONLY | O_CLOEXEC);
        const int out = open((dir + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int err = open((dir + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        std::atomic<bool> marked = false;
        tracer::hooks_t hooks;
        hooks.enter = [&](tracer::call_t* c) {
            if (c->nr == SYS_getpriority && c->arg[0] == static_cast<uint64_t>(MARK_MAIN)) marked = true;
            if (!marked) return true;
            if (command.socket_calls && !about_sockets(*c)) return true;
            return injector_->enter(c);
        };
        hooks.leave = [&](const tracer::call_t& c) { injector_->leave(c); };
        outcome_t result;
        {
            std::vector<std::string> env = {"LD_PRELOAD=" + options_.shim,
                                            "FAULT_ALLOC=" + injector_->path(),
                                            "KELPD_URL=" + url_,
                                            "CVNSAMP_SEED=7",
                                            "LC_ALL=C",
                                            "TMPDIR=" + dir + "/out",
                                            "PYTHONDONTWRITEBYTECODE=1",
                                            "PYTHONPATH=" + options_.package};
            tracer::tracer_t tracer(
                {.argv = command.argv, .env = env, .in = in, .out = out, .err = err, .dir = dir}, hooks);
            result.status = tracer.await_first(120);
            if (result.status == -1) fail(command.name + " does not end");
            if (!tracer.await_left(0)) fail(command.name + " leaves processes");
        }
        for (const int fd : {in, out, err}) close(fd);
        result.out = read_file(dir + "/stdout");
        result.err = read_file(dir + "/stderr");
        result.made = tree(dir + "/out");
        return result;
    }

    void each_fault(const command_t& command) {
        if (!options_.only.empty() && command.name.find(options_.only) == std::string::npos) return;
        injector_->arm(ERROR, 0);
        const outcome_t right = run(command);
        if (right.status != 0) fail(command.name + " fails without a fault: " + right.err);
        tally_t tally;
        for (const kind_t kind : command.kinds) {
            for (int n = 1;; n += options_.tool_stride) {
                if (n > MANY) fail(command.name + " never runs without a fault");
                injector_->arm(kind, n);
                const outcome_t got = run(command);
                if (!injector_->disarm()) break;
                tally.nfault++;
                nfault_of[kind]++;
                judge(command, kind, n, right, got, &tally);
            }
        }
        printf("%-44s %5d faults: %5d without effect, %5d told\n", command.name.c_str(), tally.nfault,
               tally.nsame, tally.nerror);
        fflush(stdout);
    }

 private:
    static bool about_sockets(const tracer::call_t& c) {
        if (c.nr == SYS_socket) return true;
        if (c.nr == SYS_poll || c.nr == SYS_ppoll || c.nr == SYS_select || c.nr == SYS_pselect6) return true;
        if (c.nr == SYS_openat || c.nr == SYS_open || c.nr == SYS_mmap || c.nr == SYS_brk) return false;
        return tracer::descriptor(c.pid, static_cast<int>(c.arg[0])).rfind("socket:", 0) == 0;
    }
    // A count cut short is final where the kernel only does so at the end of a file.
    bool is_final(kind_t kind) const { return kind == SHORT && injector_->nr() == SYS_pread64; }

    void judge(const command_t& command, kind_t kind, int n, const outcome_t& right, const outcome_t& got,
               tally_t* tally) {
        const auto bad = [&](const std::string& why) {
            problem(command.name, kind, n, injector_->where(),
                    why + " [status " + std::to_string(got.status) + "; " + shown(got.err) + "]");
        };
        if (!WIFEXITED(got.status)) return bad("ended by signal " + std::to_string(WTERMSIG(got.status)));
        // Where removing what is half done, or was needed for a while, fails itself, it stays.
        const bool removal =
            injector_->nr() == SYS_unlink || injector_->nr() == SYS_unlinkat || injector_->nr() == SYS_rmdir;
        if (got.status == 0) {
            tally->nsame++;
            if (got.out != right.out) return bad("success, and other bytes: " + shown(got.out));
            if (got.made != right.made && !removal) return bad("success, and another file");
            return;
        }
        tally->nerror++;
        if ((kind == SHORT || kind == INTERRUPT) && !is_final(kind))
            bad("a count or an interruption is fatal");
        // What verify finds goes to its standard output.
        if (got.err.empty() && (got.out.empty() || got.out == right.out)) bad("fails without a word");
        if (got.err.find("terminate called") != std::string::npos) bad("ends without handling it");
        for (const auto& [name, bytes] : got.made) {
            const auto it = right.made.find(name);
            if (removal) continue;
            if (command.out.ends_with("/") && name.rfind(command.out, 0) == 0)
                continue;  // no meta.cvnx, no split
            if (it == right.made.end())
                bad("leaves " + name);
            else if (it->second != bytes)
                bad("leaves half of " + name);
        }
        if (command.out.ends_with("/") && got.made.contains(command.out + "meta.cvnx") &&
            got.made != right.made)
            bad("leaves a split that looks whole");
    }

    const options_t& options_;
    injector_t* injector_;
    const std::string url_;
};

// The daemon.

constexpr char HEAD_OK[] = "HTTP/1.1 200 OK\r\n";

struct request_t {
    std::string name;
    std::string bytes;
    std::string put;           // below base/: the file that it uploads, or ""
    std::string removed;       // below base/: what it removes, with a slash for a directory, or ""
    bool skips_files = false;  // what cannot be read is left out, and the reply is good
    bool ends_early = false;   // a row group that cannot be had ends the stream as if it were the last
};

std::string mask_date(std::string s) {
    const size_t at = s.find("\r\nDate: ");
    const size_t end = at == std::string::npos ? at : s.find("\r\n", at + 2);
    if (end != std::string::npos) s.replace(at, end - at, "\r\nDate: *");
    return s;
}

class daemon_t {
 public:
    daemon_t(const options_t& options, injector_t* injector, int port)
        : options_(options), injector_(injector), port_(port), dir_(options.work + "/data") {
        fs::create_directory(dir_);
        write_file(dir_ + "/kelpd.conf", "port = " + std::to_string(port_) + "\n");
    }
    daemon_t(const daemon_t&) = delete;
    daemon_t& operator=(const daemon_t&) = delete;
    ~daemon_t() { stop(); }

    // With `is_server` it only serves: nothing of its own fails.
    void start(bool preload, bool is_server = false) {
        stop();
        is_server_ = is_server;
        listening_ = 0;
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        tracer::hooks_t hooks;
        hooks.enter = [this](tracer::call_t* c) {
            return is_server_ || c->parent != daemon_ || injector_->enter(c);
        };
        hooks.leave = [this](const tracer::call_t& c) {
            if (c.nr == SYS_listen) listening_ = c.pid;
            if (!is_server_) injector_->leave(c);
        };
        hooks.ended = [this](pid_t, pid_t parent, int status) {
            if (parent == daemon_ && daemon_ != 0) injector_->ended(status);
        };
        daemon_ = 0;
        std::vector<std::string> env = {
            "PATH=" + fs::path(options_.cvnsamp).parent_path().string() + ":/usr/bin:/bin", "CVNSAMP_SEED=7",
            "TMPDIR=" + dir_ + "/tmp", "LC_ALL=C"};
        if (preload) {
            env.push_back("LD_PRELOAD=" + options_.shim);
            env.push_back("FAULT_ALLOC=" + injector_->path());
        }
        injector_->arm(ERROR, 0);
        tracer_ = std::make_unique<tracer::tracer_t>(
            tracer::program_t{
                .argv = {options_.kelpd, "-D", dir_}, .env = env, .in = null, .out = null, .err = null},
            hooks);
        for (int wait = 0; !listening_; wait++) {
            if (wait > 60000) fail("the daemon does not listen");
            usleep(1000);
        }
        if (!tracer_->await_left(1)) fail("the daemon does not let go of its terminal");
        daemon_ = listening_.load();
        injector_->spare(daemon_);
        (void)ask("GET /none HTTP/1.1\r\n\r\n");
        if (!tracer_->await_left(1)) fail("a request does not end");
        // The parent closes its side of that connection when it comes to it.
        descriptors_ = descriptors();
        for (int wait = 0; wait < 100; wait++) {
            usleep(1000);
            descriptors_ = std::min(descriptors_, descriptors());
        }
    }
    void stop() {
        daemon_ = 0;
        tracer_.reset();
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
    int descriptors() const {
        int n = 0;
        for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(daemon_) + "/fd"))
            n += !entry.path().empty();
        return n;
    }
    std::string ask(const std::string& bytes) const {
        try {
            const client_t client(port_);
            client.send(bytes);
            client.end();
            return mask_date(client.receive());
        } catch (const std::runtime_error& e) {
            return e.what();  // the daemon is gone: a wrong reply
        }
    }

    // The tree that each request finds, and the reply of the control.
    std::map<std::string, std::string> initial;
    std::string control = "POST /v1/d/s/e HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}";

    void prepare() const {
        lay(dir_ + "/base", initial);
        lay(dir_ + "/tmp", {});
    }

    void each_fault(const request_t& request, bool memory) {
        if (!options_.only.empty() && request.name.find(options_.only) == std::string::npos) return;
        tally_t tally;
        prepare();
        injector_->arm(ERROR, 0);
        const std::string right = ask(request.bytes);
        if (!tracer_->await_left(1)) fail("a request does not end");
        const auto after = tree(dir_ + "/base");
        prepare();
        const std::string healthy = ask(control);
        if (!tracer_->await_left(1)) fail("a request does not end");
        for (const kind_t kind : KINDS) {
            if ((kind == MEMORY) != memory) continue;
            for (int n = 1;; n += options_.stride) {
                if (n > MANY) fail(request.name + " never runs without a fault");
                prepare();
                injector_->arm(kind, n);
                const std::string got = ask(request.bytes);
                if (!tracer_->await_left(1)) fail(request.name + ": a process is left");
                if (!injector_->disarm()) break;
                tally.nfault++;
                nfault_of[kind]++;
                judge(request, kind, n, right, got, after, &tally);
                if (ask(control) != healthy && unchanged())
                    problem(request.name, kind, n, injector_->where(), "the next request differs");
                if (!tracer_->await_left(1)) fail("a request does not end");
                // The parent closes its side of a connection when it comes to it.
                for (int wait = 0; wait < 5000 && descriptors() != descriptors_; wait++) usleep(1000);
                if (descriptors() != descriptors_)
                    problem(request.name, kind, n, injector_->where(), "the parent leaks");
            }
        }
        printf("%-44s %5d faults: %5d without effect, %5d told, %5d cut\n", request.name.c_str(),
               tally.nfault, tally.nsame, tally.nerror, tally.ncut);
        fflush(stdout);
    }

 private:
    bool unchanged() const { return tree(dir_ + "/base") == initial; }

    // To a connection each write is done once, and no read or wait is tried again; a file that ends early is
    // damaged.
    bool is_final(kind_t kind) const {
        if (injector_->is_socket()) return kind == INTERRUPT || injector_->nr() != SYS_read;
        return kind == SHORT && injector_->nr() == SYS_pread64;
    }
    // Whether a good reply without some of its entries.
    static bool is_part(const std::string& right, const std::string& got) {
        if (got.rfind(HEAD_OK, 0) != 0) return false;
        if (got.size() == right.size())
            return got.find("application/octet-stream") != std::string::npos;  // totals
        const size_t body = got.find("\r\n\r\n");
        if (body == std::string::npos) return false;
        // Each entry of the listing is one of the right ones.
        std::string text = got.substr(body + 4);
        while (!text.empty() && (text.back() == '\n' || text.back() == ']')) text.pop_back();
        size_t at = 1;
        while (at < text.size()) {
            size_t end = text.find(text.find('{') == std::string::npos ? "," : "},", at);
            end = end == std::string::npos ? text.size() : end + (text[end] == '}');
            if (right.find(text.substr(at, end - at)) == std::string::npos) return false;
            at = end + 1;
        }
        return true;
    }

    void judge(const request_t& request, kind_t kind, int n, const std::string& right, const std::string& got,
               const std::map<std::string, std::string>& after, tally_t* tally) {
        const auto bad = [&](const std::string& why) {
            problem(request.name, kind, n, injector_->where(), why + " [" + shown(got) + "]");
        };
        if (injector_->crashed()) bad("a child ended by signal " + std::to_string(injector_->crashed()));
        const bool same = got == right;
        const bool good = got.rfind(HEAD_OK, 0) == 0;
        const size_t body = got.find("\r\n\r\n");
        const bool error = !good && got.rfind("HTTP/1.1 ", 0) == 0 && body != std::string::npos &&
                           got.substr(9, got.find('\r') - 9) == got.substr(body + 4);
        // A reply that is cut is the beginning of the right one; a stream's may be followed by the words that
        // say why.
        const size_t common = static_cast<size_t>(
            std::mismatch(got.begin(), got.end(), right.begin(), right.end()).first - got.begin());
        const std::string rest = got.substr(common);
        const bool stream = right.find("chunked") != std::string::npos && right.rfind(HEAD_OK, 0) == 0;
        const bool cut =
            !same && (rest.empty() || (stream && common > body &&
                                       (rest.rfind("400 ", 0) == 0 || rest.rfind("500 ", 0) == 0)));
        // Each write to a connection is done once, and nothing is tried again: it neither ends early nor is
        // interrupted in a process without handlers, and what follows then is not judged.
        const bool unjudged = (kind == SHORT || kind == INTERRUPT) && injector_->is_socket() &&
                              (injector_->nr() == SYS_write || injector_->nr() == SYS_writev ||
                               injector_->nr() == SYS_sendfile);
        if (same) {
            tally->nsame++;
        } else if (error) {
            tally->nerror++;
        } else if (cut) {
            tally->ncut++;
            // Beside the connection's own failures, what breaks a reply off is a page that cannot be had any
            // more, a sample that fails, which ends after its head, and want of memory before there is
            // anything to reply with.
            const bool silent =
                got.empty() && (kind == MEMORY || injector_->nr() == SYS_brk || injector_->nr() == SYS_mmap);
            if (!injector_->is_socket() && !stream && !silent) bad("a reply is cut");
        } else if (unjudged) {
            tally->ncut++;
        } else if (request.skips_files && is_part(right, got) && injector_->nr() != SYS_getdents64) {
            tally->nerror++;
        } else if (request.ends_early && good && got.ends_with(right.substr(right.size() - 25))) {
            tally->ncut++;
        } else {
            bad("a wrong reply");
        }
        if ((kind == SHORT || kind == INTERRUPT) && !same && !is_final(kind))
            bad("a count or an interruption is fatal");
        judge_tree(request, kind, n, good && got == right, after);
    }
    void judge_tree(const request_t& request, kind_t kind, int n, bool done,
                    const std::map<std::string, std::string>& after) const {
        const auto bad = [&](const std::string& why) {
            problem(request.name, kind, n, injector_->where(), why);
        };
        const auto now = tree(dir_ + "/base");
        const bool removal = injector_->nr() == SYS_unlink || injector_->nr() == SYS_unlinkat;
        if (done && !request.put.empty() &&
            (!now.contains(request.put) || now.at(request.put) != after.at(request.put)))
            bad("acknowledged, but not there");
        if (done && !request.removed.empty())
            for (const auto& [name, bytes] : now)
                if (name.rfind(request.removed, 0) == 0) bad("removed, but there: " + name);
        for (const auto& [name, bytes] : now) {
            const auto was = initial.find(name), will = after.find(name);
            if (was != initial.end() && was->second == bytes) continue;
            if (will != after.end() && will->second == bytes) continue;
            if (name.ends_with("/")) continue;  // directories that an upload made stay
            if (name.ends_with(".tmp") && removal) continue;
            bad("left in base/: " + name);
        }
        for (const auto& [name, bytes] : initial) {
            if (now.contains(name)) continue;
            if (!request.removed.empty() && name.rfind(request.removed, 0) == 0) continue;
            bad("gone: " + name);
        }
        // A sample's file stays where the head cannot be sent, and where it cannot be removed.
        for (const auto& [name, bytes] : tree(dir_ + "/tmp"))
            if (!removal && !injector_->is_socket()) bad("left in tmp/: " + name);
    }

    const options_t& options_;
    injector_t* injector_;
    const int port_;
    const std::string dir_;
    std::atomic<pid_t> daemon_ = 0, listening_ = 0;
    int descriptors_ = 0;
    bool is_server_ = false;
    std::unique_ptr<tracer::tracer_t> tracer_;
};

std::string request(const std::string& line, const std::string& body) {
    return line + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::vector<request_t> requests(const std::string& file, const std::string& damaged) {
    const std::string large = file + std::string(300000 - file.size(), 'x');
    const auto get = [](const std::string& url) { return "GET " + url + " HTTP/1.1\r\n\r\n"; };
    const auto post = [](const std::string& body) { return request("POST /v1/d/s/e", body); };
    return {
        {.name = "GET of the databases", .bytes = get("/v1"), .skips_files = true},
        {.name = "GET of a database", .bytes = get("/v1/d"), .skips_files = true},
        {.name = "GET of a schema", .bytes = get("/v1/d/s"), .skips_files = true},
        {.name = "GET of an entity", .bytes = get("/v1/d/s/e"), .skips_files = true},
        {.name = "GET of a file", .bytes = get("/v1/d/s/e/p.cvn")},
        {.name = "GET of what is not there", .bytes = get("/v1/d/s/e/none.cvn")},
        {.name = "PUT that replaces", .bytes = request("PUT /v1/d/s/e/p.cvn", file), .put = "d/s/e/p.cvn"},
        {.name = "PUT of a new file",
         .bytes = request("PUT /v1/d/s/e/new.cvn", file),
         .put = "d/s/e/new.cvn"},
        {.name = "PUT into new directories",
         .bytes = request("PUT /v1/x/y/z/p.cvn", file),
         .put = "x/y/z/p.cvn"},
        {.name = "PUT of a file that is no data",
         .bytes = request("PUT /v1/d/s/e/n.sql", "select 1;\n"),
         .put = "d/s/e/n.sql"},
        {.name = "PUT in pieces",
         .bytes = request("PUT /v1/d/s/e/large.sql", large),
         .put = "d/s/e/large.sql"},
        {.name = "PUT of a damaged file", .bytes = request("PUT /v1/d/s/e/p.cvn", damaged)},
        {.name = "PUT that breaks off",
         .bytes = "PUT /v1/d/s/e/p.cvn HTTP/1.1\r\nContent-Length: 5000\r\n\r\n" + file.substr(0, 300)},
        {.name = "PUT without a length", .bytes = "PUT /v1/d/s/e/p.cvn HTTP/1.1\r\n\r\n"},
        {.name = "DELETE of a file",
         .bytes = "DELETE /v1/d/s/e/p.cvn HTTP/1.1\r\n\r\n",
         .removed = "d/s/e/p.cvn"},
        {.name = "DELETE of a database", .bytes = "DELETE /v1/d HTTP/1.1\r\n\r\n", .removed = "d/"},
        {.name = "DELETE of what is not there",
         .bytes = "DELETE /v1/none HTTP/1.1\r\n\r\n",
         .removed = "none"},
        {.name = "POST for the count", .bytes = post("{}")},
        {.name = "POST for a column", .bytes = post(R"({"column":["n"]})")},
        {.name = "POST with conditions",
         .bytes =
             post(R"({"column":["n"],"condition":[["n",">=","2"],["n","in",["1","4"]]],"fragment":[0,1]})")},
        {.name = "POST for a sample", .bytes = post(R"({"command":["sample","3"]})"), .ends_early = true},
        {.name = "POST for the totals", .bytes = post(R"({"command":["meta"]})"), .skips_files = true},
        {.name = "POST that is no JSON", .bytes = post("{]")},
        {.name = "POST to what is not there", .bytes = request("POST /v1/d/s/none", "{}")},
        {.name = "a method that there is not", .bytes = "HEAD /v1 HTTP/1.1\r\n\r\n"},
        {.name = "a request without a method", .bytes = "x\r\n\r\n"},
    };
}

constexpr char PYTHON_READ[] =
    "import kelp, sys\n"
    "t = kelp.connect().table('d.s.e')\n"
    "print(t.count())\n"
    "print(sorted(t.scan(columns=['n'], where='n > 1').read().rows()))\n";
constexpr char PYTHON_WRITE[] =
    "import kelp\n"
    "s = kelp.connect()\n"
    "t = s.table('d.s.up')\n"
    "t.upload('small.cvn', progress=lambda sent, whole: None)\n"
    "print(t.count())\n";

std::vector<command_t> commands(const options_t& options) {
    const std::string& cvn = options.cvn;
    std::vector<command_t> lst = {
        {.name = "cvn create", .argv = {cvn, "create", "out/made.cvn", "-"}, .in = "id,note\n1,a\n2,\n3,c\n"},
        {.name = "cvn create --rows",
         .argv = {cvn, "create", "--schema", "id int64, note cstr -z", "--rows", "2", "out/made.cvn",
                  "rows.csv"}},
        {.name = "cvn info", .argv = {cvn, "info", "groups.cvn"}},
        {.name = "cvn cat", .argv = {cvn, "cat", "groups.cvn", "--where", "n > 1"}},
        {.name = "cvn cat of all types", .argv = {cvn, "cat", "types.cvn", "--format", "jsonl"}},
        {.name = "cvn verify", .argv = {cvn, "verify", "compressed.cvn"}},
        {.name = "cvn split", .argv = {cvn, "split", "groups.cvn", "out/split"}, .out = "split/"},
        {.name = "cvn ls", .argv = {cvn, "ls", "d/s/e"}},
        {.name = "cvn put", .argv = {cvn, "put", "small.cvn", "d/s/up"}},
        {.name = "cvn rm", .argv = {cvn, "rm", "--yes", "d/s/e/q.cvn"}},
        {.name = "cvn meta", .argv = {cvn, "meta", "d/s/e"}},
        {.name = "cvn count", .argv = {cvn, "count", "d/s/e"}},
        {.name = "cvn query", .argv = {cvn, "query", "d/s/e", "--where", "n > 1", "--jobs", "1"}},
        {.name = "cvn query -o", .argv = {cvn, "query", "d/s/e", "--jobs", "1", "-o", "out/rows.csv"}},
        {.name = "cvn get", .argv = {cvn, "get", "d/s/e", "out/got.cvn", "--jobs", "1"}},
        {.name = "cvn sample", .argv = {cvn, "sample", "d/s/e", "3"}},
        {.name = "cvnsamp", .argv = {options.cvnsamp, "3", "groups.cvn"}},
    };
    if (!options.python.empty()) {
        for (const auto& [name, script] :
             {std::pair{"python read", PYTHON_READ}, {"python upload", PYTHON_WRITE}})
            lst.push_back({.name = name,
                           .argv = {options.python, "-W", "ignore", "-c", script},
                           .socket_calls = true,
                           .python = true,
                           .kinds = {ERROR, SHORT, INTERRUPT}});
    }
    return lst;
}

int run(const options_t& options, int port) {
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) fail("prctl");
    const auto begin = std::chrono::steady_clock::now();
    injector_t injector(options);
    const std::string groups = read_file(options.golden + "/groups.cvn");
    std::string damaged = groups;
    damaged[damaged.size() - 1] ^= 1;
    if (groups.size() < 100) fail("no golden files");
    {
        daemon_t daemon(options, &injector, port);
        daemon.initial = {
            {"d/", ""},     {"d/s/", ""},  {"d/s/e/", ""}, {"d/s/e/p.cvn", groups}, {"d/s/e/q.cvn", groups},
            {"d/s/f/", ""}, {"other/", ""}};
        daemon.prepare();
        for (const bool memory : {false, true}) {
            daemon.start(memory);
            for (const request_t& r : requests(groups, damaged)) daemon.each_fault(r, memory);
        }
        daemon.prepare();
        daemon.start(false, true);
        tools_t tools(options, &injector, port);
        tools.reset = [&] { daemon.prepare(); };
        const std::string dir = options.work + "/tools";
        for (const char* name : {"groups.cvn", "types.cvn", "compressed.cvn"})
            fs::copy_file(options.golden + "/" + name, dir + "/" + name);
        write_file(dir + "/small.cvn", groups);
        write_file(dir + "/rows.csv", "id,note\n1,a\n2,\n3,c\n");
        for (const command_t& c : commands(options)) tools.each_fault(c);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    printf("%d faults: %d errors, %d short counts, %d interruptions, %d allocations; %d problems; %.0f s\n",
           nfault_of[0] + nfault_of[1] + nfault_of[2] + nfault_of[3], nfault_of[ERROR], nfault_of[SHORT],
           nfault_of[INTERRUPT], nfault_of[MEMORY], nproblem, took.count());
    return nproblem == 0 ? 0 : 1;
}

constexpr char HELP[] =
    "Usage: faults --kelpd PROGRAM --cvn PROGRAM --cvnsamp PROGRAM --shim LIBRARY --golden DIR [options]\n"
    "\n"
    "Runs every request and every command with each of its system calls and allocations failing in turn. "
    "PROGRAMs are\n"
    "linked dynamically, so that the shim is loaded with them.\n"
    "\n"
    "  --python PROGRAM    a Python with numpy, to try the Python client with\n"
    "  --package DIR       where the Python client lies\n"
    "  --stride N          only every N-th call of a request fails (default 1)\n"
    "  --tool-stride N     and of a command (default 1)\n"
    "  --only TEXT         only requests and commands with this in their names\n"
    "  --work DIR          where to work (default below /dev/shm or /tmp)\n";

int main_(int argc, char** argv) {
    options_t options;
    const option lst[] = {{"kelpd", 1, nullptr, 'k'},
                          {"cvn", 1, nullptr, 'c'},
                          {"cvnsamp", 1, nullptr, 's'},
                          {"shim", 1, nullptr, 'l'},
                          {"golden", 1, nullptr, 'g'},
                          {"python", 1, nullptr, 'p'},
                          {"package", 1, nullptr, 'm'},
                          {"stride", 1, nullptr, 'n'},
                          {"tool-stride", 1, nullptr, 't'},
                          {"only", 1, nullptr, 'o'},
                          {"work", 1, nullptr, 'w'},
                          {"help", 0, nullptr, 'h'},
                          {}};
    for (int c; (c = getopt_long(argc, argv, "h", lst, nullptr)) != -1;) {
        switch (c) {
            case 'k': options.kelpd = fs::absolute(optarg); break;
            case 'c': options.cvn = fs::absolute(optarg); break;
            case 's': options.cvnsamp = fs::absolute(optarg); break;
            case 'l': options.shim = fs::absolute(optarg); break;
            case 'g': options.golden = fs::absolute(optarg); break;
            case 'p': options.python = optarg; break;
            case 'm': options.package = fs::absolute(optarg); break;
            case 'n': options.stride = atoi(optarg); break;
            case 't': options.tool_stride = atoi(optarg); break;
            case 'o': options.only = optarg; break;
            case 'w': options.work = optarg; break;
            case 'h': fputs(HELP, stdout); return 0;
            default: fputs(HELP, stderr); return 2;
        }
    }
    if (options.kelpd.empty() || options.cvn.empty() || options.cvnsamp.empty() || options.shim.empty() ||
        options.golden.empty() || options.stride < 1 || options.tool_stride < 1 || optind != argc) {
        fputs(HELP, stderr);
        return 2;
    }
    return in_work_folder(&options.work, "kelpd-faults",
                          [&] { return run(options, 2049 + 2 * (getpid() % 4000)); });
}

}  // namespace

int main(int argc, char** argv) { return main_(argc, argv); }
