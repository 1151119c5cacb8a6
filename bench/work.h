// What every benchmark shares: keys and values that check themselves, clocks, a histogram of
// latencies, child processes, a /dev/shm of the run's own.
#pragma once
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <x86intrin.h>

#include <string>
#include <vector>

constexpr uint32_t kKey = 16; // bytes of every key

static inline uint64_t mix64(uint64_t x)
{
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ x >> 27) * 0x94d049bb133111ebull;
    return x ^ x >> 31;
}

struct rng {
    uint64_t state;
    uint64_t next()
    {
        return mix64(state++);
    }
    uint32_t below(uint32_t n)
    {
        return static_cast<uint32_t>((next() >> 32) * n >> 32);
    }
};

// Key i: 16 printable characters (memcached takes no others), no two alike, in no order.
void make_key(uint64_t i, char key[kKey]);

// A value of size bytes for a key: its first 8 bytes are the key's, so that a wrong answer shows.
static inline void stamp_value(char *val, const char *key)
{
    memcpy(val, key, 8);
}
static inline bool value_fits(const char *val, const char *key)
{
    return memcmp(val, key, 8) == 0;
}

// A value of which every byte is checked: key number, sequence number and a mix of the two.
void seal_value(char *val, uint32_t size, uint32_t key, uint32_t seq);
bool value_sealed(const char *val, uint32_t size, uint32_t key);

// cnt key numbers below n: uniform, or Zipf with exponent 0.99, scattered over the key space.
std::vector<uint32_t> uniform_numbers(uint32_t n, uint32_t cnt, uint64_t seed);
std::vector<uint32_t> zipf_numbers(uint32_t n, uint32_t cnt, uint64_t seed);
std::vector<char> keys_of(const std::vector<uint32_t> &numbers, uint64_t base = 0);

static inline double clock_s(clockid_t id)
{
    timespec ts;
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
static inline double wall_s()
{
    return clock_s(CLOCK_MONOTONIC);
}
static inline double cpu_s()
{
    return clock_s(CLOCK_THREAD_CPUTIME_ID);
}
double ns_per_tick(); // of the cycle counter, measured once

// Latencies in ticks: 16 steps for each power of two.
struct hist {
    uint64_t cnt[64 * 16];
    uint64_t total, max;
    void add(uint64_t ticks)
    {
        const unsigned top = 63 - static_cast<unsigned>(__builtin_clzll(ticks | 16));
        cnt[top * 16 + (ticks >> (top - 4) & 15)]++;
        total++;
        if (ticks > max)
            max = ticks;
    }
    double percentile_ns(double share) const;
};

// Memory that children share with their parent, zeroed, never given back.
template <class T> static T *shared_memory()
{
    void *at = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return at == MAP_FAILED ? nullptr : static_cast<T *>(at);
}

// An empty /dev/shm of the run's own: it meets no store and leaves none. huge asks for huge pages.
void use_own_shm(bool huge);

void die(const char *fmt, ...) __attribute__((format(printf, 1, 2), noreturn));

// A child that ends with its parent.
template <class Fn> static pid_t child(Fn fn)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        die("fork failed");
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const bool good = fn();
        fflush(nullptr);
        _exit(good ? 0 : 1);
    }
    return pid;
}

static inline bool child_good(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Runs fn in a child and waits for it; the child's verdict.
template <class Fn> static bool in_child(Fn fn)
{
    return child_good(child(fn));
}
