// A thousand of each operation, each in a function of its own, for the instruction counter: it
// zeroes its counts on the way into a perf_ function and writes them down on the way out. Nothing
// here depends on time, addresses or chance, so the counts are the same in every run.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "shkv.h"
#include "shkv.hpp"
#include "support/main.h"

static constexpr uint32_t kCnt = 1000;
static char keys[2 * kCnt][16];
static int fixed, vector;
static uint32_t wrong;

static void lookups(int handle, uint32_t from, int expected)
{
    static char out[2048];
    for (uint32_t i = 0; i < kCnt; i++) {
        const shkv_buf key = {keys[from + i], 16};
        shkv_buf val = {out, sizeof out};
        wrong += shkv_lookup(handle, &key, &val) != expected;
    }
}

static void adds(int handle, uint32_t from, uint32_t val_sz)
{
    static char in[2048];
    for (uint32_t i = 0; i < kCnt; i++) {
        const shkv_buf key = {keys[from + i], 16}, val = {in, val_sz};
        wrong += shkv_add(handle, &key, &val, 0) != 0;
    }
}

#define PERF extern "C" __attribute__((noinline, visibility("default"))) void
PERF perf_lookup_hit()
{
    lookups(fixed, 0, 0);
}
// The same by the C++ layer: the same work, so the same count but for the loop.
PERF perf_cpp_lookup_hit()
{
    static char out[2048];
    shkv::store db(fixed);
    for (uint32_t i = 0; i < kCnt; i++)
        wrong += !db.get({keys[i], 16}, out);
    db.release();
}
PERF perf_lookup_miss()
{
    lookups(fixed, kCnt, 2);
}
PERF perf_lookup_lite()
{
    for (uint32_t i = 0; i < kCnt; i++) {
        const shkv_buf key = {keys[i], 16};
        shkv_buf val = {};
        wrong += shkv_lookup_lite(fixed, &key, &val) != 0;
    }
}
PERF perf_m_lookup_16()
{
    static char out[16][64];
    for (uint32_t i = 0; i + 16 <= kCnt; i += 16) {
        shkv_buf key[16], val[16];
        int results[16];
        for (uint32_t k = 0; k < 16; k++) {
            key[k] = {keys[i + k], 16};
            val[k] = {out[k], 64};
        }
        wrong += shkv_m_lookup(fixed, key, val, results, 16) != 0;
    }
}
PERF perf_iterate()
{
    char key_bytes[64], val_bytes[64];
    shkv_iterate(fixed, nullptr, nullptr, nullptr, 1);
    for (uint32_t i = 0; i < kCnt; i++) {
        shkv_buf key = {key_bytes, 64}, val = {val_bytes, 64};
        wrong += shkv_iterate(fixed, &key, &val, nullptr, 0) != 0;
    }
}
PERF perf_add_replace()
{
    adds(fixed, 0, 32);
}
PERF perf_add_insert()
{
    adds(fixed, kCnt, 32);
}
PERF perf_delete()
{
    for (uint32_t i = 0; i < kCnt; i++) {
        const shkv_buf key = {keys[kCnt + i], 16};
        wrong += shkv_delete(fixed, &key) != 0;
    }
}
PERF perf_vector_lookup_500()
{
    lookups(vector, 0, 0);
}
PERF perf_vector_replace_500()
{
    adds(vector, 0, 500);
}

static int create(const char *name, uint32_t entries, uint32_t conf_flg)
{
    const bool fix = conf_flg == CONF_FIXEDMM;
    const shkv_params params = {static_cast<uint16_t>(fix ? 16 : 0), static_cast<uint16_t>(fix ? 32 : 0),
                                entries, conf_flg, 0};
    uint32_t err = 0;
    return shkv_create(name, UUID_BIG_A, &params, 0, &err);
}

int main()
{
    if (!private_shm())
        return 77;
    for (uint32_t i = 0; i < 2 * kCnt; i++) {
        uint64_t x = (i + 1) * 0x9e3779b97f4a7c15ull;
        for (char &c : keys[i]) {
            x = (x ^ x >> 29) * 0xbf58476d1ce4e5b9ull;
            c = static_cast<char>('a' + (x >> 40) % 26);
        }
    }
    fixed = create("perf_fixed", 3 * kCnt, CONF_FIXEDMM);
    vector = create("perf_vector", 15 * kCnt, CONF_VECTORMM);
    if (!fixed || !vector)
        return 1;
    adds(fixed, 0, 32);
    adds(vector, 0, 500);
    perf_lookup_hit(); // once to bind symbols and touch pages; the last count of a name holds
    void (*const measured[])() = {perf_lookup_hit,        perf_cpp_lookup_hit,    perf_lookup_miss,
                                  perf_lookup_lite,       perf_m_lookup_16,       perf_iterate,
                                  perf_add_replace,       perf_add_insert,        perf_delete,
                                  perf_vector_lookup_500, perf_vector_replace_500};
    for (auto *op : measured)
        op();
    if (wrong)
        fprintf(stderr, "%u operations went wrong\n", wrong);
    return wrong ? 1 : 0;
}
