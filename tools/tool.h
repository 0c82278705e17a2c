// What all sources of the tool share: how it fails, how it names things in messages, how it writes its output
// and how it stops when it is told to.
//
// A command reports a failure by throwing tool_error (exit status 1) or tool_usage (exit status 2: the
// command line itself is wrong); main prints "cvn: " and the text, once.
#ifndef KELPD_TOOLS_TOOL_H
#define KELPD_TOOLS_TOOL_H

#include <stdint.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <string_view>

struct tool_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct tool_usage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The reader of the standard output is gone (EPIPE), and output is all that the command is for: it ends
// quietly, with success.
struct tool_pipe_closed {};

// A signal that ends the program arrived: what is unfinished is removed, then the signal takes its course.
struct tool_interrupted {
    int signal;
};

// Returns `text` in single quotes, with control characters as \xNN, cut after `max` bytes.
std::string tool_quote(std::string_view text, size_t max = 60);

// Returns the message of an errno value.
std::string tool_strerror(int err);

// Words a code of the library for `path`: what failed and, where there is something to do, what to do. `err`
// is the errno that belongs to -3.
std::string tool_code_text(int code, int err, const std::string& path);

// Names, values and messages may come from a server or a file, and what they hold must not steer the terminal
// that shows them. All output goes through tool_out_flush, tool_tell or tool_say, which escape what is unfit
// (rows/show.h) where a terminal shows it; files and pipes get every byte as it is.

// Whether `fd` is a terminal.
bool tool_is_terminal(int fd);

// Returns `text` as `fd` is to get it: escaped when that is a terminal. What counts characters calls it
// beforehand.
std::string tool_shown(int fd, const std::string& text);

// Writes text to the standard error. Passwords of URLs in it are hidden, wherever it goes: a log keeps them
// longer than a terminal. Returns false when it could not be written.
bool tool_tell(const std::string& text);

// Prints "cvn: " and the text as a line by tool_tell. That nobody may read it is no failure.
void tool_say(const std::string& text);

// Installs handlers that note SIGINT, SIGTERM, SIGHUP and SIGQUIT, and ignores SIGPIPE.
void tool_catch_signals();

// Throws tool_interrupted when one of them arrived.
void tool_check_signals();

// Becomes true when one of them arrives, for what waits elsewhere.
const std::atomic<bool>* tool_stop_flag();

// Refuses to replace what stands under an output's name unless it is a data file or empty: anything else was
// hardly meant, since arguments are easily swapped. `usage` shows their order. Throws tool_error.
void tool_check_target(const std::string& path, const char* usage);

// Refuses what is neither a regular file nor a directory, since opening a pipe waits for its writer. What
// does not exist passes: opening it tells. Throws tool_error.
void tool_check_source(const std::string& path);

// Raises the limit on open files, as far as that is allowed, so that `n` of them fit beside the usual ones: a
// split has one for each column.
void tool_allow_files(int64_t n);

// Creates a file beside `path` under a name that nobody else uses, which is returned; the umask decides on
// its mode. `*ret_fd` is its descriptor, open for writing. Throws tool_error.
std::string tool_temp_create(const std::string& path, int* ret_fd);

// Output through one buffer. Failures throw tool_pipe_closed (EPIPE) or tool_error.
struct tool_out_t {
    int fd = 1;
    bool optional =
        false;  // the command is not there for its output: on EPIPE text is dropped and it goes on
    std::string buf;
};

// Writes what is buffered: whole characters.
void tool_out_flush(tool_out_t* out);

// Writes when enough is buffered to be worth a system call.
inline void tool_out_spill(tool_out_t* out) {
    if (out->buf.size() >= 65536) tool_out_flush(out);
}

// Returns a byte count as "1.5 MB".
std::string tool_bytes(double n);

// Returns a count with its thousands parted: "1,234,567".
std::string tool_count(int64_t n);

// Returns a count with what it counts: "1 row", "1,234 rows".
std::string tool_counted(int64_t n, const char* one, const char* many);

// Returns a + b, or the limit that the sum goes beyond: counts from outside may be anything. For what only
// describes; a total that is a result is made with tool_add_claim.
int64_t tool_add(int64_t a, int64_t b);

// Adds what the file `path` claims to a total. Throws tool_error with that name when it exceeds 64 bits.
void tool_add_claim(int64_t* sum, int64_t n, const std::string& path);

#endif
