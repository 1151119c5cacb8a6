// Operations that make no system call and no allocation. The program runs each operation 200 times
// between two calls that stand out in a trace of it, and counts allocations itself, those of the
// library and of what it calls included. quiet.sh runs it under strace and reads the trace.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "shkv.h"
#include "support/main.h"

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);

static unsigned allocs;
void *malloc(size_t size)
{
    allocs++;
    return __libc_malloc(size);
}
void *calloc(size_t cnt, size_t size)
{
    allocs++;
    return __libc_calloc(cnt, size);
}
void *realloc(void *old, size_t size)
{
    allocs++;
    return __libc_realloc(old, size);
}
void free(void *mem)
{
    allocs++;
    __libc_free(mem);
}
}

namespace
{
constexpr uint32_t kCnt = 200, kMiss = 9000;
struct Store {
    const char *name;
    uint16_t maxksz, maxvsz;
    uint32_t maxents, conf_flg, val_sz;
    int writer, reader;
} stores[] = {
    {"fixed", 16, 32, 2000, CONF_FIXEDMM, 32, 0, 0},
    {"vector", 16, 500, 2000, CONF_VECTORMM, 500, 0, 0},
    {"txn", 16, 32, 2000, CONF_FIXEDMM, 32, 0, 0}, // a transaction is open: its writer stages
};
char bytes[2048], out[32][2048], names[10000][8];

shkv_buf key_of(uint32_t i)
{
    return {names[i], 7};
}

int lookup(Store &s, uint32_t i)
{
    shkv_buf key = key_of(i), val = {out[0], sizeof out[0]};
    return shkv_lookup(s.reader, &key, &val);
}
int miss(Store &s, uint32_t i)
{
    return lookup(s, kMiss + i) == 2 ? 0 : 1;
}
int lite(Store &s, uint32_t i)
{
    shkv_buf key = key_of(i), val = {};
    return (s.conf_flg & CONF_VECTORMM) ? 0 : shkv_lookup_lite(s.reader, &key, &val);
}
int group(Store &s, uint32_t i)
{
    shkv_buf keys[8], vals[8];
    int results[8];
    for (uint32_t k = 0; k < 8; k++) {
        keys[k] = key_of((i + k) % kCnt);
        vals[k] = {out[k], sizeof out[k]};
    }
    return shkv_m_lookup(s.reader, keys, vals, results, 8);
}
int iterate(Store &s, uint32_t)
{
    shkv_buf key = {out[0], sizeof out[0]}, val = {out[1], sizeof out[1]};
    return shkv_iterate(s.reader, &key, &val, nullptr, 0);
}
int writers_lookup(Store &s, uint32_t i)
{
    shkv_buf key = key_of(i), val = {out[0], sizeof out[0]};
    return shkv_lookup(s.writer, &key, &val);
}
int replace(Store &s, uint32_t i)
{
    shkv_buf key = key_of(i), val = {bytes, s.val_sz};
    return shkv_add(s.writer, &key, &val, 0);
}
int insert(Store &s, uint32_t i)
{
    return replace(s, kCnt + i);
}
int remove(Store &s, uint32_t i)
{
    shkv_buf key = key_of(kCnt + i);
    return shkv_delete(s.writer, &key);
}
// What the trace has to show, or it shows nothing.
int lifecycle(Store &, uint32_t i)
{
    uint32_t err = 0;
    return i ? 0 : !shkv_open("fixed", 0, 0, SHKV_AM_READ, &err);
}

const struct {
    const char *name;
    int (*run)(Store &, uint32_t);
} ops[] = {{"lookup", lookup},      {"miss", miss},       {"lookup_lite", lite},
           {"m_lookup", group},     {"iterate", iterate}, {"lookup_by_writer", writers_lookup},
           {"replace", replace},    {"insert", insert},   {"delete", remove},
           {"lifecycle", lifecycle}};

bool make(Store &s)
{
    uint32_t err = 0;
    const shkv_params params = {s.maxksz, s.maxvsz, s.maxents, s.conf_flg, 0};
    s.writer = shkv_create(s.name, 0, &params, 0, &err);
    s.reader = shkv_open(s.name, 0, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
    if (!s.writer || !s.reader)
        return false;
    for (uint32_t i = 0; i < kCnt; i++)
        if (replace(s, i) != 0)
            return false;
    return strcmp(s.name, "txn") != 0 || shkv_txn_start(s.writer, nullptr) == 0;
}
} // namespace

int main()
{
    if (!private_shm())
        return 77;
    for (uint32_t i = 0; i < 10000; i++)
        snprintf(names[i], sizeof names[i], "k%06u", i);
    bool good = true;
    for (Store &s : stores) {
        if (!make(s))
            return 1;
        shkv_iterate(s.reader, nullptr, nullptr, nullptr, 1);
        for (auto &op : ops) {
            char mark[64];
            snprintf(mark, sizeof mark, "MARK %s.%s", s.name, op.name);
            int failed = 0;
            syscall(SYS_chdir, mark); // fails, and is seen
            unsigned before = allocs;
            for (uint32_t i = 0; i < kCnt; i++)
                failed += op.run(s, i) != 0;
            unsigned after = allocs;
            syscall(SYS_chdir, "MARK end");
            bool quiet = op.run != lifecycle;
            if (failed || (quiet && after != before) || (!quiet && after == before)) {
                fprintf(stderr, "%s: %d failed, %u allocations\n", mark, failed, after - before);
                good = false;
            }
        }
    }
    return good ? 0 : 1;
}
