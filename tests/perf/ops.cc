// A thousand of each operation. instructions.sh runs them under the instruction counter, which is told to zero
// its counts ahead of each and to write them down behind it; nothing here depends on time, addresses or
// chance, so the counts are the same in every run.
// "ops quiet" runs these operations and more of them, each in a process that may make no system call but its
// exit and that counts allocations; an operation that does both must end otherwise, or it proved nothing.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/syscall.h>
#include <valgrind/callgrind.h>

#include "shkv.h"
#include "shkv.hpp"
#include "support/plain.h"

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

// By the C++ layer: the same work as lookup_hit, so the same count but for the loop.
static void cpp_lookups()
{
    static char out[2048];
    shkv::store db(fixed);
    for (uint32_t i = 0; i < kCnt; i++)
        wrong += !db.get({keys[i], 16}, out);
    db.release();
}

static const struct {
    const char *name;
    void (*run)();
} ops[] = {
    {"lookup_hit", [] { lookups(fixed, 0, 0); }},
    {"cpp_lookup_hit", cpp_lookups},
    {"lookup_miss", [] { lookups(fixed, kCnt, 2); }},
    {"lookup_lite", [] { lites(fixed); }},
    {"m_lookup_16", [] { groups(fixed); }},
    {"iterate", [] { iterations(fixed); }},
    {"add_replace", [] { adds(fixed, 0, 32); }},
    {"add_insert", [] { adds(fixed, kCnt, 32); }},
    {"delete", [] { deletes(fixed, kCnt); }},
    {"vector_lookup_500", [] { lookups(vector, 0, 0); }},
    {"vector_replace_500", [] { adds(vector, 0, 500); }},
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

// From here on any system call but an exit ends the process by SIGSYS.
static bool forbid_calls()
{
    sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
    sock_fprog program = {4, filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// How a process ends that does no more than run: 0 when it was quiet, 1 when it allocated.
static int end_alone(void (*run)())
{
    return end_of(start_process([=] {
        if (!forbid_calls())
            return 77;
        const uint32_t before = allocs;
        run();
        syscall(SYS_exit_group, wrong ? 2 : allocs != before);
        return 0;
    }));
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
    ops[0].run(); // binds symbols and touches pages
    if (argc == 1)
        for (int i = 0; i < kMeasured; i++) {
            CALLGRIND_ZERO_STATS;
            ops[i].run();
            CALLGRIND_DUMP_STATS_AT(ops[i].name);
        }
    else {
        txn = create("perf_txn", 6 * kCnt, CONF_FIXEDMM);
        adds(txn, 0, 32);
        wrong += shkv_txn_start(txn, nullptr) != 0;
        fixed_reader = open_reader("perf_fixed");
        vector_reader = open_reader("perf_vector");
        if (end_alone([] {}) == 77)
            return 77;
        for (const auto &op : ops)
            if (int end = end_alone(op.run))
                wrong++, fprintf(stderr, "%s: ends with %d\n", op.name, end);
        wrong += end_alone([] { open_reader("perf_fixed"); }) != -SIGSYS;
        wrong += end_alone([] { free(malloc(1)); }) != 1;
    }
    if (wrong)
        fprintf(stderr, "%u operations went wrong\n", wrong);
    return wrong ? 1 : 0;
}
