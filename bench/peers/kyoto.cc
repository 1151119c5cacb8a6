// Kyoto Cabinet: the file hash (all of it mapped, two buckets a record, linear chains, small
// addresses) and the two in-process maps. The file hash lets nobody in beside its writer.
#include <kccachedb.h>
#include <kchashdb.h>
#include <kcprotodb.h>
#include <unistd.h>

#include <string>

#include "peer.h"

using kyotocabinet::BasicDB;

static void *opened(BasicDB *db, const std::string &path, peer_how how)
{
    const uint32_t mode = how == PEER_READ ? BasicDB::OREADER | BasicDB::ONOLOCK
                          : how == PEER_WRITE
                              ? BasicDB::OWRITER | BasicDB::ONOLOCK
                              : BasicDB::OWRITER | BasicDB::OCREATE | BasicDB::OTRUNCATE | BasicDB::ONOLOCK;
    if (db->open(path, mode))
        return db;
    delete db;
    return nullptr;
}

static void *open_hash(const peer_cfg &cfg, peer_how how)
{
    kyotocabinet::HashDB *db = new kyotocabinet::HashDB();
    db->tune_map(4ll << 30);
    db->tune_buckets(static_cast<int64_t>(cfg.entries) * 2);
    db->tune_options(kyotocabinet::HashDB::TSMALL | kyotocabinet::HashDB::TLINEAR);
    return opened(db, std::string(cfg.dir) + "/kyoto.kch", how);
}

static void *open_proto(const peer_cfg &, peer_how how)
{
    return opened(new kyotocabinet::ProtoHashDB(), "-", how);
}

static void *open_cache(const peer_cfg &cfg, peer_how how)
{
    kyotocabinet::CacheDB *db = new kyotocabinet::CacheDB();
    db->tune_buckets(static_cast<int64_t>(cfg.entries) * 2);
    return opened(db, "*", how);
}

static void close_kyoto(void *store, bool drop)
{
    BasicDB *db = static_cast<BasicDB *>(store);
    const std::string path = db->path();
    db->close();
    if (drop && path[0] == '/')
        unlink(path.c_str());
    delete db;
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    return static_cast<BasicDB *>(store)->get(static_cast<const char *>(key), key_sz, static_cast<char *>(out),
                                              room);
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    return static_cast<BasicDB *>(store_p)->set(static_cast<const char *>(key), key_sz,
                                                static_cast<const char *>(val), val_sz);
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    return static_cast<BasicDB *>(store_p)->remove(static_cast<const char *>(key), key_sz);
}

namespace
{
struct walker : kyotocabinet::DB::Visitor {
    peer_visit visit;
    void *arg;
    uint64_t cnt = 0;
    const char *visit_full(const char *key, size_t key_sz, const char *val, size_t val_sz, size_t *) override
    {
        visit(arg, key, static_cast<uint32_t>(key_sz), val, static_cast<uint32_t>(val_sz));
        cnt++;
        return NOP;
    }
};
} // namespace

static uint64_t iterate(void *store_p, peer_visit visit, void *arg)
{
    walker w;
    w.visit = visit, w.arg = arg;
    return static_cast<BasicDB *>(store_p)->iterate(&w, false) ? w.cnt : 0;
}

const peer peer_kyoto_hash = {"kyoto_hash", PEER_KEPT, open_hash, close_kyoto, lookup, store,
                              erase,        iterate,   nullptr,   nullptr,     nullptr};
const peer peer_kyoto_proto = {"kyoto_proto", PEER_GROWS, open_proto, close_kyoto, lookup, store,
                               erase,         iterate,    nullptr,    nullptr,     nullptr};
const peer peer_kyoto_cache = {"kyoto_cache", 0,       open_cache, close_kyoto, lookup, store,
                               erase,         iterate, nullptr,    nullptr,     nullptr};
