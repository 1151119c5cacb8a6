// What the demo's processes tell one another, beside the store: a page of shared counters, and a
// line of text for each event.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

constexpr int READERS_MAX = 16;

struct alignas(64) ReaderCount {
    std::atomic<uint64_t> right, not_yet; // found and whole; not there, and not acknowledged either
    std::atomic<uint64_t> missing;        // acknowledged before the lookup began, and not there
    std::atomic<uint64_t> wrong;          // found, and not whole
    std::atomic<uint64_t> refused;        // any other answer
    std::atomic<int> last_err;
    uint64_t lookups() const
    {
        return right + not_yet + missing + wrong + refused;
    }
};

struct Shared {
    std::atomic<uint32_t> acked;  // records whose add has returned 0
    std::atomic<bool> stop;       // readers end
    std::atomic<uint64_t> add_ns; // time spent in adds, pauses left out
    ReaderCount reader[READERS_MAX];
};

inline std::chrono::steady_clock::time_point demo_start;

inline std::string thousands(uint64_t n)
{
    std::string digits = std::to_string(n), text;
    for (size_t i = 0; i < digits.size(); i++) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text;
}

// One line in one write, so that the processes' lines never mix.
template <typename... Args> void event(fmt::format_string<Args...> text, Args &&...args)
{
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - demo_start).count();
    std::string line = fmt::format("{:7.2f}s  {}\n", seconds, fmt::format(text, std::forward<Args>(args)...));
    if (write(STDOUT_FILENO, line.data(), line.size()) < 0)
        return; // nobody watches; the demo goes on to its clean end
}
