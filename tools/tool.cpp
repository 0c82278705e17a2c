// Failures, signals and output: what every command needs and none should do in its own way.
#include "tools/tool.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "colvane/colvane.h"
#include "rows/show.h"

static volatile sig_atomic_t caught_signal = 0;
static std::atomic<bool> caught{false};
static_assert(std::atomic<bool>::is_always_lock_free);  // or a handler could not store to it

static void note_signal(int signal) {
    caught_signal = signal;
    caught.store(true);
}

bool tool_is_terminal(int fd) { return isatty(fd) == 1; }

std::string tool_shown(int fd, const std::string& text) {
    return tool_is_terminal(fd) ? rows::show_escape(text) : text;
}

bool tool_tell(const std::string& text) {
    const std::string shown = tool_shown(2, rows::show_without_passwords(text));
    for (size_t done = 0; done < shown.size();) {
        const ssize_t n = write(2, shown.data() + done, shown.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

void tool_say(const std::string& text) { (void)tool_tell("cvn: " + text + "\n"); }

std::string tool_quote(std::string_view text, size_t max) {
    std::string out = "'";
    if (text.size() > max)  // no character is cut in two
        while (max > 0 && (static_cast<unsigned char>(text[max]) & 0xc0) == 0x80) max--;
    for (const char ch : text.substr(0, max)) {
        const auto byte = static_cast<unsigned char>(ch);
        if (byte < 0x20 || byte == 0x7f)
            out += fmt::format("\\x{:02x}", byte);
        else
            out += ch;
    }
    if (text.size() > max) out += "...";
    return out + "'";
}

std::string tool_strerror(int err) {
    char buf[256];
    return strerror_r(err, buf, sizeof(buf));
}

std::string tool_code_text(int code, int err, const std::string& path) {
    switch (code) {
        case -1: return fmt::format("{}: the path is too long, or the file's sizes disagree", path);
        case -2: return fmt::format("{}: out of memory", path);
        case -3:
            if (err != 0) return fmt::format("{}: {}", path, tool_strerror(err));
            return fmt::format("{}: the file is shorter than it says; was it copied whole?", path);
        case -5: return fmt::format("{}: a column has an unsupported type", path);
        case -6:
            return fmt::format("{}: damaged (a page does not decompress); 'cvn verify' tells where", path);
        case -7: return fmt::format("{}: not a colvane file, or one whose footer is damaged", path);
        default: return fmt::format("{}: unexpected code {} of the library", path, code);
    }
}

void tool_catch_signals() {
    struct sigaction act = {};
    act.sa_handler = note_signal;  // without SA_RESTART: a blocked read returns and the signal is seen
    sigemptyset(&act.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction old = {};
        sigaction(signal, nullptr, &old);
        if (old.sa_handler != SIG_IGN) sigaction(signal, &act, nullptr);
    }
    struct sigaction ign = {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, nullptr);
    sigaction(SIGXFSZ, &ign, nullptr);  // a file-size limit is an ordinary write error then
}

void tool_check_signals() {
    if (caught_signal != 0) throw tool_interrupted{caught_signal};
}

const std::atomic<bool>* tool_stop_flag() { return &caught; }

void tool_check_target(const std::string& path, const char* usage) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return;
    if (!S_ISREG(st.st_mode)) throw tool_error(path + ": exists and is not a regular file");
    if (st.st_size == 0) return;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;  // not readable: renaming will tell
    char head[8] = {};
    const ssize_t n = read(fd, head, sizeof(head));
    close(fd);
    if (n != static_cast<ssize_t>(sizeof(head)) || memcmp(head, CVN_HEAD_MAGIC, sizeof(head)) != 0)
        throw tool_error(
            fmt::format("{}: exists and is not a colvane file; it is not replaced (usage: {})", path, usage));
}

void tool_check_source(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode))
        throw tool_error(path + ": is not a regular file");
}

void tool_allow_files(int64_t n) {
    constexpr int64_t USUAL = 64;
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= static_cast<rlim_t>(n + USUAL)) return;
    limit.rlim_cur = std::min(static_cast<rlim_t>(n + USUAL), limit.rlim_max);
    (void)setrlimit(RLIMIT_NOFILE, &limit);  // opening them tells
}

std::string tool_temp_create(const std::string& path, int* ret_fd) {
    constexpr int TRIES = 1000;  // names that others left are passed over
    for (int i = 0;; i++) {
        std::string temp = fmt::format("{}.{}.{}.tmp", path, getpid(), i);
        *ret_fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (*ret_fd >= 0) return temp;
        if (errno != EEXIST || i == TRIES) throw tool_error(path + ": " + tool_strerror(errno));
    }
}

void tool_out_flush(tool_out_t* out) {
    if (out->buf.empty()) return;
    if (tool_is_terminal(out->fd)) out->buf = rows::show_escape(out->buf);
    size_t done = 0;
    while (done < out->buf.size()) {
        const ssize_t n = write(out->fd, out->buf.data() + done, out->buf.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                tool_check_signals();
                continue;
            }
            const int err = errno;
            out->buf.clear();
            if (err == EPIPE && out->optional) return;
            if (err == EPIPE) throw tool_pipe_closed();
            throw tool_error("writing the output: " + tool_strerror(err));
        }
        done += static_cast<size_t>(n);
    }
    out->buf.clear();
}

std::string tool_bytes(double n) {
    const char* const unit[] = {"B", "kB", "MB", "GB", "TB", "PB"};
    int i = 0;
    while (n >= 999.95 && i < 5) {
        n /= 1000;
        i++;
    }
    return i == 0 ? fmt::format("{:.0f} B", n) : fmt::format("{:.1f} {}", n, unit[i]);
}

std::string tool_count(int64_t n) {
    std::string digits = fmt::format("{}", n);
    const size_t first = n < 0 ? 1 : 0;
    for (size_t at = digits.size(); at > first + 3;) {
        at -= 3;
        digits.insert(at, 1, ',');
    }
    return digits;
}

std::string tool_counted(int64_t n, const char* one, const char* many) {
    return tool_count(n) + ' ' + (n == 1 ? one : many);
}

int64_t tool_add(int64_t a, int64_t b) {
    int64_t sum;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

void tool_add_claim(int64_t* sum, int64_t n, const std::string& path) {
    if (__builtin_add_overflow(*sum, n, sum))
        throw tool_error(path + ": with what it claims the totals exceed 64 bits; 'cvn verify' tells more");
}
