#include "work.h"

#include <math.h>
#include <stdarg.h>

#include "support/main.h"

void die(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
    fflush(nullptr);
    _exit(1);
}

void make_key(uint64_t i, char key[kKey])
{
    static const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
    uint64_t half[2] = {mix64(i), mix64(~i)};
    for (uint32_t at = 0; at < kKey; at++, half[at / 8] >>= 6)
        key[at] = digits[half[at / 8] & 63];
}

static uint64_t seal(uint32_t key, uint32_t seq, uint32_t word)
{
    return mix64(static_cast<uint64_t>(key) << 32 | seq) + word;
}

void seal_value(char *val, uint32_t size, uint32_t key, uint32_t seq)
{
    memcpy(val, &key, 4);
    memcpy(val + 4, &seq, 4);
    for (uint32_t at = 8; at < size; at += 8) {
        const uint64_t word = seal(key, seq, at);
        memcpy(val + at, &word, size - at < 8 ? size - at : 8);
    }
}

bool value_sealed(const char *val, uint32_t size, uint32_t key)
{
    uint32_t stored, seq;
    memcpy(&stored, val, 4);
    memcpy(&seq, val + 4, 4);
    bool good = stored == key;
    for (uint32_t at = 8; at < size; at += 8) {
        const uint64_t word = seal(key, seq, at);
        good &= memcmp(val + at, &word, size - at < 8 ? size - at : 8) == 0;
    }
    return good;
}

std::vector<uint32_t> uniform_numbers(uint32_t n, uint32_t cnt, uint64_t seed)
{
    rng r = {seed};
    std::vector<uint32_t> out(cnt);
    for (uint32_t &number : out)
        number = r.below(n);
    return out;
}

std::vector<uint32_t> zipf_numbers(uint32_t n, uint32_t cnt, uint64_t seed)
{
    const double theta = 0.99, alpha = 1 / (1 - theta);
    double zeta = 0;
    for (uint32_t i = 1; i <= n; i++)
        zeta += 1 / pow(i, theta);
    const double eta = (1 - pow(2.0 / n, 1 - theta)) / (1 - (1 + pow(0.5, theta)) / zeta);
    rng r = {seed};
    std::vector<uint32_t> out(cnt);
    for (uint32_t &number : out) {
        const double u = static_cast<double>(r.next() >> 11) * 0x1p-53, uz = u * zeta;
        const double rank = uz < 1 ? 0 : uz < 1 + pow(0.5, theta) ? 1 : n * pow(eta * u - eta + 1, alpha);
        number = static_cast<uint32_t>(mix64(static_cast<uint64_t>(rank)) % n);
    }
    return out;
}

std::vector<char> keys_of(const std::vector<uint32_t> &numbers, uint64_t base)
{
    std::vector<char> out(numbers.size() * kKey);
    for (size_t i = 0; i < numbers.size(); i++)
        make_key(base + numbers[i], &out[i * kKey]);
    return out;
}

double ns_per_tick()
{
    static double ratio;
    if (ratio == 0) {
        const double begin = wall_s();
        const uint64_t tick = __rdtsc();
        while (wall_s() < begin + 0.05) {
        }
        ratio = (wall_s() - begin) * 1e9 / static_cast<double>(__rdtsc() - tick);
    }
    return ratio;
}

double hist::percentile_ns(double share) const
{
    const double wanted = share * static_cast<double>(total);
    double seen = 0;
    for (unsigned i = 0; i < 64 * 16; i++) {
        seen += static_cast<double>(cnt[i]);
        if (cnt[i] && seen >= wanted) {
            const unsigned top = i / 16; // the middle of the step
            return (ldexp(1, static_cast<int>(top)) + (i % 16 + 0.5) * ldexp(1, static_cast<int>(top) - 4)) *
                   ns_per_tick();
        }
    }
    return static_cast<double>(max) * ns_per_tick();
}

void use_own_shm(bool huge)
{
    if (!private_shm() || !remount_shm(huge ? "90%,huge=always" : "90%"))
        die("cannot make a /dev/shm for the run");
}
