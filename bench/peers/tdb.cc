// TDB: the better hash, one bucket a record, no syncing, and the fastest locks that it has, robust
// mutexes. It also takes part without any lock, as one that nobody else may open meanwhile.
#include <fcntl.h>
#include <stdio.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <signal.h>
#include <stdbool.h>
extern "C" {
#include <tdb.h>
}

#include "peer.h"

static TDB_DATA data_of(const void *ptr, uint32_t len)
{
    return {static_cast<unsigned char *>(const_cast<void *>(ptr)), len};
}

static void *open_tdb(const peer_cfg &cfg, peer_how how, int locks)
{
    char path[300];
    snprintf(path, sizeof path, "%s/tdb", cfg.dir);
    const int buckets = static_cast<int>(cfg.entries < 1000 ? 1000 : cfg.entries);
    return tdb_open_ex(path, buckets, TDB_NOSYNC | TDB_INCOMPATIBLE_HASH | TDB_VOLATILE | locks,
                       (how == PEER_CREATE ? O_CREAT : 0) | O_RDWR, 0600, nullptr, nullptr);
}

// Mutexes go with a store that its first opener clears, and so with none that outlives its process.
static void *open_mutex(const peer_cfg &cfg, peer_how how)
{
    return open_tdb(cfg, how, TDB_MUTEX_LOCKING | TDB_CLEAR_IF_FIRST);
}

static void *open_nolock(const peer_cfg &cfg, peer_how how)
{
    return open_tdb(cfg, how, TDB_NOLOCK);
}

static void close_tdb(void *store, bool drop)
{
    char path[300];
    snprintf(path, sizeof path, "%s", tdb_name(static_cast<tdb_context *>(store)));
    tdb_close(static_cast<tdb_context *>(store));
    if (drop)
        unlink(path);
}

namespace
{
struct taker {
    void *out;
    uint32_t room;
    int size;
};
struct walker {
    peer_visit visit;
    void *arg;
};
} // namespace

static int take(TDB_DATA, TDB_DATA val, void *arg)
{
    taker *t = static_cast<taker *>(arg);
    if (val.dsize > t->room)
        return -1;
    memcpy(t->out, val.dptr, val.dsize);
    t->size = static_cast<int>(val.dsize);
    return 0;
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    taker t = {out, room, -1};
    tdb_parse_record(static_cast<tdb_context *>(store), data_of(key, key_sz), take, &t);
    return t.size;
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    return tdb_store(static_cast<tdb_context *>(store_p), data_of(key, key_sz), data_of(val, val_sz),
                     TDB_REPLACE) == 0;
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    return tdb_delete(static_cast<tdb_context *>(store_p), data_of(key, key_sz)) == 0;
}

static int walk(tdb_context *, TDB_DATA key, TDB_DATA val, void *arg)
{
    const walker *w = static_cast<walker *>(arg);
    w->visit(w->arg, key.dptr, static_cast<uint32_t>(key.dsize), val.dptr, static_cast<uint32_t>(val.dsize));
    return 0;
}

static uint64_t iterate(void *store_p, peer_visit visit, void *arg)
{
    walker w = {visit, arg};
    const int cnt = tdb_traverse_read(static_cast<tdb_context *>(store_p), walk, &w);
    return cnt < 0 ? 0 : static_cast<uint64_t>(cnt);
}

const peer peer_tdb = {"tdb", PEER_SHARED, open_mutex, close_tdb, lookup, store,
                       erase, iterate,     nullptr,    nullptr,   nullptr};
const peer peer_tdb_nolock = {"tdb_nolock", PEER_KEPT, open_nolock, close_tdb, lookup, store,
                              erase,        iterate,   nullptr,     nullptr,   nullptr};
