// A progress bar on the standard error: bytes of the total and rows per second, redrawn a few times a second.
// It is silent when the standard error is no terminal, so pipes and logs stay clean.
#ifndef KELPD_TOOLS_PROGRESS_H
#define KELPD_TOOLS_PROGRESS_H

#include <stdint.h>

#include <chrono>
#include <string>

struct progress_t {
    bool shown = false;         // the standard error is a terminal
    bool drawn = false;         // a line is on it
    int64_t total = 0;          // bytes to do; 0 when that is not known
    bool by_count = false;      // the total is in units, not in bytes
    const char* unit = "rows";  // null: bytes are all that is counted
    std::chrono::steady_clock::time_point begin, next;

    progress_t() = default;
    progress_t(const progress_t&) = delete;
    progress_t& operator=(const progress_t&) = delete;
    ~progress_t();  // wipes the line out: a message that follows it begins a line of its own
};

// Starts the clock. `total` is 0 when the end is not known.
void progress_begin(progress_t* progress, int64_t total, const char* unit);

// Draws the line when it is time to: `nbyte` bytes and `count` units are done.
void progress_update(progress_t* progress, int64_t nbyte, int64_t count);

// Wipes the line out.
void progress_end(progress_t* progress);

// Returns the line itself, for `seconds` since the beginning.
std::string progress_text(const progress_t& progress, int64_t nbyte, int64_t count, double seconds);

#endif
