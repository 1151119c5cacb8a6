// LMDB: no syncing, a writable map, one read transaction per handle that is renewed for each
// lookup (so that a reader sees what was committed before it), one write transaction per write or,
// in bulk, around many.
#include <lmdb.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>

#include "peer.h"

namespace
{
struct lmdb {
    MDB_env *env;
    MDB_dbi dbi;
    MDB_txn *rd, *wr;
    char dir[300];
};
} // namespace

static MDB_val val_of(const void *ptr, uint32_t len)
{
    return {len, const_cast<void *>(ptr)};
}

static void *open_lmdb(const peer_cfg &cfg, peer_how how)
{
    lmdb *p = new lmdb{};
    snprintf(p->dir, sizeof p->dir, "%s/lmdb", cfg.dir);
    mkdir(p->dir, 0700);
    const unsigned flags = how == PEER_READ ? MDB_RDONLY : MDB_NOSYNC | MDB_NOMETASYNC | MDB_WRITEMAP;
    MDB_txn *txn = nullptr;
    // The map is a sparse file: room for everything, whatever was planned.
    if (mdb_env_create(&p->env) || mdb_env_set_mapsize(p->env, 16ull << 30) ||
        mdb_env_open(p->env, p->dir, flags | MDB_NORDAHEAD | MDB_NOTLS, 0600) ||
        mdb_txn_begin(p->env, nullptr, how == PEER_READ ? MDB_RDONLY : 0, &txn) ||
        mdb_dbi_open(txn, nullptr, 0, &p->dbi) || mdb_txn_commit(txn) ||
        mdb_txn_begin(p->env, nullptr, MDB_RDONLY, &p->rd))
        return nullptr;
    mdb_txn_reset(p->rd);
    return p;
}

static void close_lmdb(void *store, bool drop)
{
    lmdb *p = static_cast<lmdb *>(store);
    mdb_txn_abort(p->rd);
    mdb_env_close(p->env);
    for (const char *name : {"data.mdb", "lock.mdb"}) {
        char path[320];
        snprintf(path, sizeof path, "%s/%s", p->dir, name);
        if (drop)
            unlink(path);
    }
    delete p;
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    lmdb *p = static_cast<lmdb *>(store);
    MDB_val k = val_of(key, key_sz), v;
    int size = -1;
    mdb_txn_renew(p->rd);
    if (mdb_get(p->rd, p->dbi, &k, &v) == 0 && v.mv_size <= room) {
        memcpy(out, v.mv_data, v.mv_size);
        size = static_cast<int>(v.mv_size);
    }
    mdb_txn_reset(p->rd);
    return size;
}

// A group under one snapshot.
static void group(void *store, const char *keys, uint32_t key_sz, char *out, uint32_t room, int *sizes,
                  uint32_t cnt)
{
    lmdb *p = static_cast<lmdb *>(store);
    mdb_txn_renew(p->rd);
    for (uint32_t i = 0; i < cnt; i++) {
        MDB_val k = val_of(keys + i * key_sz, key_sz), v;
        sizes[i] = -1;
        if (mdb_get(p->rd, p->dbi, &k, &v) == 0 && v.mv_size <= room) {
            memcpy(out + i * room, v.mv_data, v.mv_size);
            sizes[i] = static_cast<int>(v.mv_size);
        }
    }
    mdb_txn_reset(p->rd);
}

template <class Op> static bool write_txn(lmdb *p, Op op)
{
    if (p->wr)
        return op(p->wr) == 0;
    MDB_txn *txn;
    if (mdb_txn_begin(p->env, nullptr, 0, &txn))
        return false;
    if (op(txn) != 0) {
        mdb_txn_abort(txn);
        return false;
    }
    return mdb_txn_commit(txn) == 0;
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    lmdb *p = static_cast<lmdb *>(store_p);
    MDB_val k = val_of(key, key_sz), v = val_of(val, val_sz);
    return write_txn(p, [&](MDB_txn *txn) { return mdb_put(txn, p->dbi, &k, &v, 0); });
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    lmdb *p = static_cast<lmdb *>(store_p);
    MDB_val k = val_of(key, key_sz);
    return write_txn(p, [&](MDB_txn *txn) { return mdb_del(txn, p->dbi, &k, nullptr); });
}

static void bulk(void *store_p, bool begin)
{
    lmdb *p = static_cast<lmdb *>(store_p);
    if (begin)
        mdb_txn_begin(p->env, nullptr, 0, &p->wr);
    else
        mdb_txn_commit(p->wr), p->wr = nullptr;
}

static uint64_t iterate(void *store_p, peer_visit visit, void *arg)
{
    lmdb *p = static_cast<lmdb *>(store_p);
    MDB_cursor *cur;
    MDB_val k, v;
    uint64_t cnt = 0;
    char val[4096];
    mdb_txn_renew(p->rd);
    mdb_cursor_open(p->rd, p->dbi, &cur);
    for (; mdb_cursor_get(cur, &k, &v, MDB_NEXT) == 0; cnt++) {
        memcpy(val, v.mv_data, v.mv_size);
        visit(arg, k.mv_data, static_cast<uint32_t>(k.mv_size), val, static_cast<uint32_t>(v.mv_size));
    }
    mdb_cursor_close(cur);
    mdb_txn_reset(p->rd);
    return cnt;
}

const peer peer_lmdb = {"lmdb",    PEER_SHARED | PEER_KEPT | PEER_GROWS,
                        open_lmdb, close_lmdb,
                        lookup,    store,
                        erase,     iterate,
                        nullptr,   group,
                        bulk};
