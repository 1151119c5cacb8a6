// Tkrzw: the file hash (updates in place, one bucket a record, the file mapped) and the two
// in-process caches. The file hash lets nobody in beside its writer.
#include <string.h>
#include <tkrzw_dbm_cache.h>
#include <tkrzw_dbm_hash.h>
#include <tkrzw_dbm_tiny.h>
#include <unistd.h>

#include <string>

#include "peer.h"

using tkrzw::DBM;

namespace
{
// Copies the value out while the record is held, without a string in between.
struct taker : DBM::RecordProcessor {
    void *out;
    uint32_t room;
    int size = -1;
    std::string_view ProcessFull(std::string_view, std::string_view value) override
    {
        if (value.size() <= room) {
            memcpy(out, value.data(), value.size());
            size = static_cast<int>(value.size());
        }
        return NOOP;
    }
};
struct walker : DBM::RecordProcessor {
    peer_visit visit;
    void *arg;
    uint64_t cnt = 0;
    std::string_view ProcessFull(std::string_view key, std::string_view value) override
    {
        visit(arg, key.data(), static_cast<uint32_t>(key.size()), value.data(),
              static_cast<uint32_t>(value.size()));
        cnt++;
        return NOOP;
    }
};
} // namespace

// As a DBM, which is what every other function here takes it for.
static void *open_hash(const peer_cfg &cfg, peer_how how)
{
    tkrzw::HashDBM *db = new tkrzw::HashDBM();
    tkrzw::HashDBM::TuningParameters tuning;
    tuning.update_mode = tkrzw::HashDBM::UPDATE_IN_PLACE;
    tuning.offset_width = 4;
    tuning.num_buckets = cfg.entries;
    const std::string path = std::string(cfg.dir) + "/tkrzw";
    const bool writable = how != PEER_READ;
    const int options = tkrzw::File::OPEN_NO_LOCK | (how == PEER_CREATE ? tkrzw::File::OPEN_TRUNCATE : 0);
    return db->OpenAdvanced(path, writable, options, tuning).IsOK() ? static_cast<DBM *>(db) : nullptr;
}

static void *open_tiny(const peer_cfg &cfg, peer_how)
{
    return static_cast<DBM *>(new tkrzw::TinyDBM(static_cast<int64_t>(cfg.entries) * 2)); // needs no opening
}

static void *open_cache(const peer_cfg &cfg, peer_how)
{
    return static_cast<DBM *>(new tkrzw::CacheDBM(static_cast<int64_t>(cfg.entries) * 2, INT64_MAX));
}

static void close_tkrzw(void *store, bool drop)
{
    DBM *db = static_cast<DBM *>(store);
    std::string path = db->GetFilePathSimple();
    db->Close();
    if (drop && !path.empty())
        unlink(path.c_str());
    delete db;
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    taker t;
    t.out = out, t.room = room;
    static_cast<DBM *>(store)->Process({static_cast<const char *>(key), key_sz}, &t, false);
    return t.size;
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    return static_cast<DBM *>(store_p)
        ->Set({static_cast<const char *>(key), key_sz}, {static_cast<const char *>(val), val_sz})
        .IsOK();
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    return static_cast<DBM *>(store_p)->Remove({static_cast<const char *>(key), key_sz}).IsOK();
}

static uint64_t iterate(void *store_p, peer_visit visit, void *arg)
{
    walker w;
    w.visit = visit, w.arg = arg;
    // Called for the empty start and end too, as ProcessEmpty, which does nothing.
    return static_cast<DBM *>(store_p)->ProcessEach(&w, false).IsOK() ? w.cnt : 0;
}

const peer peer_tkrzw_hash = {"tkrzw_hash", PEER_KEPT, open_hash, close_tkrzw, lookup, store,
                              erase,        iterate,   nullptr,   nullptr,     nullptr};
const peer peer_tkrzw_tiny = {"tkrzw_tiny", 0,       open_tiny, close_tkrzw, lookup, store,
                              erase,        iterate, nullptr,   nullptr,     nullptr};
const peer peer_tkrzw_cache = {"tkrzw_cache", 0,       open_cache, close_tkrzw, lookup, store,
                               erase,         iterate, nullptr,    nullptr,     nullptr};
