// What all sources of the tool share: how it fails, how it names things in messages, how it writes its output
// and how it stops when it is told to.
//
// A command reports a failure by throwing tool_error (exit status 1) or tool_usage (exit status 2: the
// command line itself is wrong); main prints "cvn: " and the text, once.
#ifndef KELPD_TOOLS_TOOL_H
#define KELPD_TOOLS_TOOL_H

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

struct tool_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct tool_usage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The reader of the standard output is gone (EPIPE): the command ends quietly.
struct tool_pipe_closed {};

// SIGINT or SIGTERM arrived: what is unfinished is removed, then the signal takes its course.
struct tool_interrupted {
    int signal;
};

// Returns `text` in single quotes, with control characters as \xNN, cut behind `max` bytes.
std::string tool_quote(std::string_view text, size_t max = 60);

// Returns the message of an errno value.
std::string tool_strerror(int err);

// Words a code of the library for `path`: what failed and, where there is something to do, what to do. `err`
// is the errno that belongs to -3.
std::string tool_code_text(int code, int err, const std::string& path);

// Installs handlers that note SIGINT and SIGTERM, and ignores SIGPIPE.
void tool_catch_signals();

// Throws tool_interrupted when one of them arrived.
void tool_check_signals();

// Becomes true when one of them arrives, for what waits elsewhere.
const std::atomic<bool>* tool_stop_flag();

// Refuses to replace what stands under an output's name unless it is a data file or empty: anything else was
// hardly meant, since arguments are easily swapped. `usage` shows their order. Throws tool_error.
void tool_check_target(const std::string& path, const char* usage);

// Output through one buffer. Failures throw tool_pipe_closed (EPIPE) or tool_error.
struct tool_out_t {
    int fd = 1;
    std::string buf;
};

// Writes what is buffered.
void tool_out_flush(tool_out_t* out);

// Writes when enough is buffered to be worth a system call.
inline void tool_out_spill(tool_out_t* out) {
    if (out->buf.size() >= 65536) tool_out_flush(out);
}

// Returns a byte count as "1.5 MB".
std::string tool_bytes(double n);

// Returns a count with its thousands parted: "1,234,567".
std::string tool_count(int64_t n);

#endif
