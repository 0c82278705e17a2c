// The progress bar.
#include "tools/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "tools/tool.h"

namespace {

constexpr int WIDTH = 24;

// Failures to draw are of no interest to anybody.
void draw(const std::string& text) { (void)!write(2, text.data(), text.size()); }

}  // namespace

std::string progress_text(const progress_t& progress, int64_t nbyte, int64_t count, double seconds) {
    const auto rate = [seconds](int64_t n) { return seconds > 0 ? double(n) / seconds : 0; };
    std::string tail = tool_bytes(rate(nbyte)) + "/s";
    if (progress.unit)
        tail = fmt::format("{} {}, {} {}/s", tool_count(count), progress.unit,
                           tool_count(int64_t(rate(count))), progress.unit);
    if (progress.total <= 0) return fmt::format("{}, {}", tool_bytes(double(nbyte)), tail);
    const int64_t done = progress.by_count ? count : nbyte;
    const double part = std::clamp(double(done) / double(progress.total), 0.0, 1.0);
    const int full = int(part * WIDTH);
    const std::string head =
        fmt::format("[{:#<{}}{:.<{}}] {:3.0f}%  {}", "", full, "", WIDTH - full, part * 100,
                    tool_bytes(double(nbyte)));
    if (progress.by_count) return fmt::format("{}, {} of {}", head, tail, tool_count(progress.total));
    return fmt::format("{} of {}, {}", head, tool_bytes(double(progress.total)), tail);
}

void progress_begin(progress_t* progress, int64_t total, const char* unit) {
    *progress = progress_t();
    progress->shown = isatty(2) == 1;
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

void progress_end(progress_t* progress) {
    if (progress->drawn) draw("\r\x1b[K");
    progress->drawn = false;
}
