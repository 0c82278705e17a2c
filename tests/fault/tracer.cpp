#include "fault/tracer.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace tracer {

static_assert(sizeof(void*) == 8 && __x86_64__, "calls are suppressed through the registers of x86-64");

constexpr long OPTIONS = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                         PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;

[[noreturn]] static void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

std::string read_memory(pid_t pid, uint64_t address, size_t n) {
    std::string buf(n, '\0');
    const iovec to = {buf.data(), n};
    const iovec from = {reinterpret_cast<void*>(address), n};
    if (n > 0 && process_vm_readv(pid, &to, 1, &from, 1, 0) != static_cast<ssize_t>(n))
        fail("process_vm_readv");
    return buf;
}

std::string read_text(pid_t pid, uint64_t address) {
    std::string text;
    for (;;) {
        const size_t n = 256 - address % 256;  // never over the end of a page
        const std::string piece = read_memory(pid, address, n);
        const size_t end = piece.find('\0');
        text += piece.substr(0, end);
        if (end != std::string::npos) return text;
        address += n;
    }
}

static std::string read_link(const std::string& path) {
    char buf[PATH_MAX];
    const ssize_t n = readlink(path.c_str(), buf, sizeof(buf));
    return {buf, n > 0 ? static_cast<size_t>(n) : 0};
}

std::string descriptor(pid_t pid, int fd) {
    return read_link("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd));
}

std::string absolute(pid_t pid, int dirfd, const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    const std::string dir =
        dirfd == AT_FDCWD ? read_link("/proc/" + std::to_string(pid) + "/cwd") : descriptor(pid, dirfd);
    std::string rest = path;
    while (rest.rfind("./", 0) == 0) rest.erase(0, 2);
    if (rest.empty() || rest == ".") return dir;
    return dir + "/" + rest;
}

tracer_t::tracer_t(const program_t& program, hooks_t hooks) : hooks_(std::move(hooks)) {
    thread_ = std::thread([this, program] {
        try {
            run(program);
        } catch (const std::exception& e) {
            failure_ = e.what();
            fprintf(stderr, "tracer: %s\n", e.what());
        }
        const std::lock_guard lock(mutex_);
        done_ = true;
        changed_.notify_all();
    });
}

tracer_t::~tracer_t() {
    kill_all();
    thread_.join();
}

std::vector<pid_t> tracer_t::left() {
    const std::lock_guard lock(mutex_);
    std::vector<pid_t> pids;
    for (const auto& [pid, task] : task_) pids.push_back(pid);
    return pids;
}

int tracer_t::nended() {
    const std::lock_guard lock(mutex_);
    return nended_;
}

void tracer_t::kill_all() {
    const std::lock_guard lock(mutex_);
    for (const auto& [pid, task] : task_) kill(pid, SIGKILL);
}

bool tracer_t::await_left(size_t n, int seconds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(seconds), [&] { return done_ || task_.size() <= n; });
}

int tracer_t::await_first(int seconds) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(seconds), [&] { return done_ || first_status_ != -1; });
    return first_status_;
}

// The child: waits until it is traced, then becomes the program.
[[noreturn]] static void become(const program_t& program, int go) {
    char byte;
    if (read(go, &byte, 1) != 1) _exit(125);
    const int fd[3] = {program.in, program.out, program.err};
    for (int i = 0; i < 3; i++)
        if (fd[i] >= 0 && dup2(fd[i], i) < 0) _exit(125);
    for (int i = 3; i < 256; i++) close(i);
    for (const std::string& v : program.env) putenv(const_cast<char*>(v.c_str()));
    if (!program.dir.empty() && chdir(program.dir.c_str()) != 0) _exit(125);
    std::vector<char*> argv;
    argv.reserve(program.argv.size() + 1);
    for (const std::string& a : program.argv) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(126);
}

void tracer_t::stop_at_call(pid_t pid, task_t* task) {
    __ptrace_syscall_info info;
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info) <= 0) return;  // killed meanwhile
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
        task->call = {.pid = pid, .parent = task->parent, .nr = static_cast<long>(info.entry.nr)};
        for (int i = 0; i < 6; i++) task->call.arg[i] = info.entry.args[i];
        task->inside = true;
        const call_t before = task->call;
        task->suppressed = hooks_.enter && !hooks_.enter(&task->call);
        if (!task->suppressed && memcmp(before.arg, task->call.arg, sizeof(before.arg)) == 0) return;
        user_regs_struct regs;
        if (ptrace(PTRACE_GETREGS, pid, nullptr, &regs) != 0) return;
        if (task->suppressed) {
            regs.orig_rax = static_cast<unsigned long long>(-1);
        } else {
            regs.rdi = task->call.arg[0];
            regs.rsi = task->call.arg[1];
            regs.rdx = task->call.arg[2];
            regs.r10 = task->call.arg[3];
            regs.r8 = task->call.arg[4];
            regs.r9 = task->call.arg[5];
        }
        (void)ptrace(PTRACE_SETREGS, pid, nullptr, &regs);  // killed meanwhile: nothing to set
    } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && task->inside) {
        task->inside = false;
        if (task->suppressed) {
            user_regs_struct regs;
            if (ptrace(PTRACE_GETREGS, pid, nullptr, &regs) != 0) return;
            regs.rax = static_cast<unsigned long long>(task->call.result);
            (void)ptrace(PTRACE_SETREGS, pid, nullptr, &regs);
        } else {
            task->call.result = info.exit.rval;
            user_regs_struct regs;
            if (task->call.replace && ptrace(PTRACE_GETREGS, pid, nullptr, &regs) == 0) {
                regs.rax = static_cast<unsigned long long>(task->call.replacement);
                (void)ptrace(PTRACE_SETREGS, pid, nullptr, &regs);
            }
        }
        if (hooks_.leave) hooks_.leave(task->call);
    }
}

void tracer_t::run(const program_t& program) {
    int go[2];
    if (pipe2(go, O_CLOEXEC) != 0) fail("pipe2");
    const pid_t first = fork();
    if (first == -1) fail("fork");
    if (first == 0) become(program, go[0]);
    close(go[0]);
    if (ptrace(PTRACE_SEIZE, first, nullptr, OPTIONS) != 0) {
        close(go[1]);
        fail("PTRACE_SEIZE");
    }
    {
        const std::lock_guard lock(mutex_);
        first_ = first;
        task_[first] = {};
    }
    if (write(go[1], "g", 1) != 1) fail("write");
    close(go[1]);
    for (;;) {
        {
            const std::lock_guard lock(mutex_);
            if (task_.empty()) return;
        }
        int status;
        // Of this thread's alone: the tests' other children are none of its business.
        const pid_t pid = waitpid(-1, &status, __WALL | __WNOTHREAD);
        if (pid == -1) {
            if (errno == EINTR) continue;
            fail("waitpid");
        }
        std::unique_lock lock(mutex_);
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
            if (pid == first_) first_status_ = status;
            const auto gone = task_.find(pid);
            if (gone != task_.end()) {
                if (hooks_.ended) hooks_.ended(pid, gone->second.parent, status);
                task_.erase(gone);
                nended_++;
            }
            changed_.notify_all();
            continue;
        }
        const auto at = task_.find(pid);
        if (at == task_.end()) {
            // A new process may stop before its parent's call has: it goes on when that says whose it is.
            task_[pid].held = true;
            continue;
        }
        task_t* task = &at->second;
        const int signal = WSTOPSIG(status);
        const int event = status >> 16;
        lock.unlock();
        long give = 0;
        if (signal == (SIGTRAP | 0x80)) {
            stop_at_call(pid, task);
        } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
            unsigned long child = 0;
            if (ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &child) == 0) {
                lock.lock();
                task_t* started = &task_[static_cast<pid_t>(child)];
                started->parent = pid;
                const bool held = started->held;
                started->held = false;
                lock.unlock();
                if (held) (void)ptrace(PTRACE_SYSCALL, static_cast<pid_t>(child), nullptr, 0);
            }
        } else if (event == PTRACE_EVENT_STOP && signal != SIGTRAP) {
            (void)ptrace(PTRACE_LISTEN, pid, nullptr, 0);  // stopped by a signal: it stays so
            continue;
        } else if (event == 0) {
            give = signal;
        }
        (void)ptrace(PTRACE_SYSCALL, pid, nullptr, give);  // killed meanwhile: its end comes next
    }
}

}  // namespace tracer
