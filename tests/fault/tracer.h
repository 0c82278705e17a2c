// System calls of a program and of all that it starts, seen from outside and under the tests' control,
// through the kernel's tracing: calls that the C library makes for itself are seen like the program's own, in
// static programs and between fork and exec as well. x86-64 alone, since a call is suppressed through its
// registers.
#ifndef KELPD_TESTS_FAULT_TRACER_H
#define KELPD_TESTS_FAULT_TRACER_H

#include <stdint.h>
#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tracer {

struct call_t {
    pid_t pid = 0;     // the thread that calls
    pid_t parent = 0;  // the process that started it; 0 for the first
    long nr = 0;
    uint64_t arg[6] = {};
    int64_t result = 0;    // of leave: what the caller gets, an error as its negative number
    bool changed = false;  // for the hooks' own use
    bool replace = false;  // set by enter: the call happens, but the caller gets `replacement`
    int64_t replacement = 0;
};

// Both are called in the tracer's thread, one at a time, while the caller stands still.
struct hooks_t {
    // Before a call. True lets it happen, with `arg` as it is afterwards; false suppresses it, and the caller
    // gets `result`.
    std::function<bool(call_t*)> enter;
    // After it, suppressed or not.
    std::function<void(const call_t&)> leave;
    // A process or thread has ended, with this wait status.
    std::function<void(pid_t pid, pid_t parent, int status)> ended;
};

struct program_t {
    std::vector<std::string> argv;
    std::vector<std::string> env;  // further variables, NAME=VALUE
    int in = -1, out = -1, err = -1;
    std::string dir;
};

// Runs a program until it and all that it started have ended.
class tracer_t {
 public:
    tracer_t(const program_t& program, hooks_t hooks);
    tracer_t(const tracer_t&) = delete;
    tracer_t& operator=(const tracer_t&) = delete;
    ~tracer_t();  // kills what is left

    // Waits until `n` processes or fewer are left, without those that are about to be started; false after
    // `seconds`.
    [[nodiscard]] bool await_left(size_t n, int seconds = 60);
    // Waits until the first program has ended. Its wait status, or -1 after `seconds`.
    [[nodiscard]] int await_first(int seconds = 60);
    [[nodiscard]] std::vector<pid_t> left();
    // Processes that were started by others than the first, since the start.
    [[nodiscard]] int nended();
    void kill_all();

 private:
    struct task_t {
        pid_t parent = 0;
        bool held = false;    // stopped at its start until its parent is known
        bool inside = false;  // in a call
        bool suppressed = false;
        call_t call;
    };
    void run(const program_t& program);
    void stop_at_call(pid_t pid, task_t* task);

    hooks_t hooks_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<pid_t, task_t> task_;
    pid_t first_ = 0;
    int first_status_ = -1;
    int nended_ = 0;
    bool done_ = false;
    std::string failure_;
    std::thread thread_;
};

// Memory of a process that stands still. Both throw when it cannot be had.
std::string read_memory(pid_t pid, uint64_t address, size_t n);
std::string read_text(pid_t pid, uint64_t address);

// What the descriptor of a process refers to, or "".
std::string descriptor(pid_t pid, int fd);
// The path that a call names: `path` as it stands when absolute, otherwise below the directory `dirfd`.
std::string absolute(pid_t pid, int dirfd, const std::string& path);

}  // namespace tracer
#endif
