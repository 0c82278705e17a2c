// The progress bar.
#include "tools/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "tools/tool.h"

constexpr int WIDTH = 24;
constexpr double MAX_RATE = 1e18;  // a server's counts may be anything; this still is an integer

// Failures to draw are of no interest to anybody.
static void draw(const std::string& text) { (void)!write(2, text.data(), text.size()); }

std::string progress_text(const progress_t& progress, int64_t nbyte, int64_t count, double seconds) {
    const auto rate = [seconds](int64_t n) {
        return seconds > 0 ? std::clamp(static_cast<double>(n) / seconds, 0.0, MAX_RATE) : 0;
    };
    const std::string unit = progress.unit ? progress.unit : "";
    const std::string speed =
        progress.unit ? fmt::format("{} {}/s", tool_count(static_cast<int64_t>(rate(count))), unit)
                      : tool_bytes(rate(nbyte)) + "/s";
    const std::string tail = progress.unit && !progress.by_count
                                 ? fmt::format("{} {}, {}", tool_count(count), unit, speed)
                                 : speed;
    if (progress.total <= 0) return fmt::format("{}, {}", tool_bytes(static_cast<double>(nbyte)), tail);
    const int64_t done = progress.by_count ? count : nbyte;
    const double part = std::clamp(static_cast<double>(done) / static_cast<double>(progress.total), 0.0, 1.0);
    const int full = static_cast<int>(part * WIDTH);
    const std::string bar = fmt::format("[{:#<{}}{:.<{}}] {:3.0f}%", "", full, "", WIDTH - full, part * 100);
    if (progress.by_count)
        return fmt::format("{}  {} of {} {}, {}, {}", bar, tool_count(count), tool_count(progress.total),
                           unit, tool_bytes(static_cast<double>(nbyte)), tail);
    return fmt::format("{}  {} of {}, {}", bar, tool_bytes(static_cast<double>(nbyte)),
                       tool_bytes(static_cast<double>(progress.total)), tail);
}

void progress_begin(progress_t* progress, int64_t total, const char* unit) {
    progress_end(progress);
    progress->shown = isatty(2) == 1;
    progress->by_count = false;
    progress->total = total;
    progress->unit = unit;
    progress->begin = std::chrono::steady_clock::now();
    progress->next = progress->begin + std::chrono::milliseconds(300);  // short work draws nothing
}

void progress_update(progress_t* progress, int64_t nbyte, int64_t count) {
    if (!progress->shown) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < progress->next) return;
    progress->next = now + std::chrono::milliseconds(100);
    progress->drawn = true;
    const std::chrono::duration<double> spent = now - progress->begin;
    draw(fmt::format("\r{}\x1b[K", progress_text(*progress, nbyte, count, spent.count())));
}

progress_t::~progress_t() { progress_end(this); }

void progress_end(progress_t* progress) {
    if (progress->drawn) draw("\r\x1b[K");
    progress->drawn = false;
}
