// A thousand of each operation, each in a function of its own. instructions.sh runs them under the instruction
// counter, which zeroes its counts on the way into a perf_ function and writes them down on the way
// out; nothing here depends on time, addresses or chance, so the counts are the same in every run.
// quiet.sh runs "ops quiet" under strace: these operations and more of them, between two calls that stand
// out in the trace, make no system call, and the program sees that nobody allocates.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "shkv.h"
#include "shkv.hpp"
#include "support/main.h"

static constexpr uint32_t kCnt = 1000;
static char keys[2 * kCnt][16];
static int fixed, vector, txn; // in txn a transaction is open: its writer stages
static int fixed_reader, vector_reader;
static uint32_t wrong, allocs;

#define COUNTED(type, name, params, args)       \
    extern "C" type __libc_##name params;       \
    extern "C" type name params                 \
    {                                           \
        allocs++;                               \
        return __libc_##name args;              \
    }
COUNTED(void *, malloc, (size_t size), (size))
COUNTED(void *, calloc, (size_t cnt, size_t size), (cnt, size))
COUNTED(void *, realloc, (void *old, size_t size), (old, size))
COUNTED(void, free, (void *mem), (mem))

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

static void groups(int handle)
{
    static char out[16][2048];
    for (uint32_t i = 0; i + 16 <= kCnt; i += 16) {
        shkv_buf key[16], val[16];
        int results[16];
        for (uint32_t k = 0; k < 16; k++) {
            key[k] = {keys[i + k], 16};
            val[k] = {out[k], sizeof out[k]};
        }
        wrong += shkv_m_lookup(handle, key, val, results, 16) != 0;
    }
}

static void iterations(int handle)
{
    static char key_bytes[64], val_bytes[2048];
    shkv_iterate(handle, nullptr, nullptr, nullptr, 1);
    for (uint32_t i = 0; i < kCnt; i++) {
        shkv_buf key = {key_bytes, sizeof key_bytes}, val = {val_bytes, sizeof val_bytes};
        wrong += shkv_iterate(handle, &key, &val, nullptr, 0) != 0;
    }
}

static void deletes(int handle, uint32_t from)
{
    for (uint32_t i = 0; i < kCnt; i++) {
        const shkv_buf key = {keys[from + i], 16};
        wrong += shkv_delete(handle, &key) != 0;
    }
}

static void lites(int handle)
{
    for (uint32_t i = 0; i < kCnt; i++) {
        const shkv_buf key = {keys[i], 16};
        shkv_buf val = {};
        wrong += shkv_lookup_lite(handle, &key, &val) != 0;
    }
}

#define PERF(name, work)                                                             \
    extern "C" __attribute__((noinline, visibility("default"))) void perf_##name()   \
    {                                                                                \
        work;                                                                        \
    }
PERF(lookup_hit, lookups(fixed, 0, 0))
// The same by the C++ layer: the same work, so the same count but for the loop.
static void cpp_lookups()
{
    static char out[2048];
    shkv::store db(fixed);
    for (uint32_t i = 0; i < kCnt; i++)
        wrong += !db.get({keys[i], 16}, out);
    db.release();
}
PERF(cpp_lookup_hit, cpp_lookups())
PERF(lookup_miss, lookups(fixed, kCnt, 2))
PERF(lookup_lite, lites(fixed))
PERF(m_lookup_16, groups(fixed))
PERF(iterate, iterations(fixed))
PERF(add_replace, adds(fixed, 0, 32))
PERF(add_insert, adds(fixed, kCnt, 32))
PERF(delete, deletes(fixed, kCnt))
PERF(vector_lookup_500, lookups(vector, 0, 0))
PERF(vector_replace_500, adds(vector, 0, 500))

static const struct {
    const char *name;
    void (*run)();
} ops[] = {
    {"lookup_hit", perf_lookup_hit},
    {"cpp_lookup_hit", perf_cpp_lookup_hit},
    {"lookup_miss", perf_lookup_miss},
    {"lookup_lite", perf_lookup_lite},
    {"m_lookup_16", perf_m_lookup_16},
    {"iterate", perf_iterate},
    {"add_replace", perf_add_replace},
    {"add_insert", perf_add_insert},
    {"delete", perf_delete},
    {"vector_lookup_500", perf_vector_lookup_500},
    {"vector_replace_500", perf_vector_replace_500},
    // These are not counted.
    {"reader_lookup", [] { lookups(fixed_reader, 0, 0); }},
    {"reader_miss", [] { lookups(fixed_reader, kCnt, 2); }},
    {"reader_lite", [] { lites(fixed_reader); }},
    {"reader_group", [] { groups(fixed_reader); }},
    {"reader_iterate", [] { iterations(fixed_reader); }},
    {"vector_reader_lookup", [] { lookups(vector_reader, 0, 0); }},
    {"vector_reader_group", [] { groups(vector_reader); }},
    {"vector_reader_iterate", [] { iterations(vector_reader); }},
    {"vector_insert", [] { adds(vector, kCnt, 500); }},
    {"vector_delete", [] { deletes(vector, kCnt); }},
    {"staged_replace", [] { adds(txn, 0, 32); }},
    {"staged_insert", [] { adds(txn, kCnt, 32); }},
    {"staged_lookup", [] { lookups(txn, 0, 0); }},
    {"staged_delete", [] { deletes(txn, kCnt); }},
};
static constexpr int kMeasured = 11;

static int create(const char *name, uint32_t entries, uint32_t conf_flg)
{
    const bool fix = conf_flg == CONF_FIXEDMM;
    const shkv_params params = {static_cast<uint16_t>(fix ? 16 : 0), static_cast<uint16_t>(fix ? 32 : 0),
                                entries, conf_flg, 0};
    uint32_t err = 0;
    return shkv_create(name, UUID_BIG_A, &params, 0, &err);
}

static int open_reader(const char *name)
{
    uint32_t err = 0;
    return shkv_open(name, UUID_BIG_A, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
}

// What makes system calls and allocates, or the trace shows nothing.
static void loud()
{
    wrong += open_reader("perf_fixed") == 0;
}

static void run_quietly(const char *name, void (*run)(), bool quiet)
{
    char mark[64];
    snprintf(mark, sizeof mark, "MARK %s", name);
    syscall(SYS_chdir, mark); // fails, and is seen
    const uint32_t before = allocs;
    run();
    const uint32_t after = allocs;
    syscall(SYS_chdir, "MARK end");
    if (quiet != (after == before))
        wrong++, fprintf(stderr, "%s: %u allocations\n", name, after - before);
}

int main(int argc, char **)
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
    if (argc == 1)
        for (int i = 0; i < kMeasured; i++)
            ops[i].run();
    else {
        txn = create("perf_txn", 6 * kCnt, CONF_FIXEDMM);
        adds(txn, 0, 32);
        wrong += shkv_txn_start(txn, nullptr) != 0;
        fixed_reader = open_reader("perf_fixed");
        vector_reader = open_reader("perf_vector");
        for (const auto &op : ops)
            run_quietly(op.name, op.run, true);
        run_quietly("loud", loud, false);
    }
    if (wrong)
        fprintf(stderr, "%u operations went wrong\n", wrong);
    return wrong ? 1 : 0;
}
