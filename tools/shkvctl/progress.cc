// A progress bar on standard error, drawn only when that is a terminal.
#include "shkvctl/progress.h"

#include <unistd.h>

#include <algorithm>

using std::chrono::steady_clock;

Progress::Progress(const Context &ctx, std::string what, uint64_t total)
    : what_(std::move(what)), total_(total), on_(!ctx.quiet && !ctx.json && isatty(STDERR_FILENO)),
      start_(steady_clock::now()), next_(start_ + std::chrono::milliseconds(150))
{
}

void Progress::update(uint64_t done, const std::string &note)
{
    steady_clock::time_point now;
    if (!on_ || (now = steady_clock::now()) < next_)
        return;
    next_ = now + std::chrono::milliseconds(100);
    drawn_ = true;
    double seconds = std::chrono::duration<double>(now - start_).count();
    if (total_ == 0) {
        fmt::print(stderr, "\r\033[K{}  {}  {:.0f}s", what_, note, seconds);
        return;
    }
    constexpr uint64_t cells = 30;
    uint64_t full = std::min(done, total_) * cells / total_;
    std::string bar(full, '#');
    bar.resize(cells, '.');
    std::string left;
    if (done > 0 && seconds > 1)
        left =
            fmt::format("  {:.0f}s left", seconds / (double)done * (double)(total_ - std::min(done, total_)));
    fmt::print(stderr, "\r\033[K{} [{}] {:>3}%  {}{}", what_, bar, std::min(done, total_) * 100 / total_, note,
               left);
}

void Progress::finish()
{
    if (drawn_)
        fmt::print(stderr, "\r\033[K");
    drawn_ = false;
    on_ = false;
}
