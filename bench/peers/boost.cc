// Boost.Interprocess: an unordered map in a managed shared-memory segment behind a sharable mutex.
// Small values lie in the map's node, as one would declare them; others in an allocated string.
#include <string.h>

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/containers/string.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>
#include <string>

#include "peer.h"

namespace ip = boost::interprocess;

namespace
{
using segment = ip::managed_shared_memory;

struct key16 {
    uint64_t word[2];
    bool operator==(const key16 &other) const
    {
        return word[0] == other.word[0] && word[1] == other.word[1];
    }
};
struct key_hash {
    size_t operator()(const key16 &key) const
    {
        uint64_t h = (key.word[0] ^ key.word[1] << 1) * 0x9e3779b97f4a7c15ull;
        return h ^ h >> 32;
    }
};
struct small {
    uint32_t size;
    char bytes[36];
};
using large = ip::basic_string<char, std::char_traits<char>, ip::allocator<char, segment::segment_manager>>;

template <class V>
using map_of = boost::unordered_map<key16, V, key_hash, std::equal_to<key16>,
                                    ip::allocator<std::pair<const key16, V>, segment::segment_manager>>;

struct boost_store {
    segment seg;
    ip::interprocess_sharable_mutex *lock;
    map_of<small> *fixed;
    map_of<large> *var;
    std::string name;
};

key16 key_of(const void *key, uint32_t key_sz)
{
    key16 k = {};
    memcpy(&k, key, key_sz < 16 ? key_sz : 16);
    return k;
}
} // namespace

static void *open_boost(const peer_cfg &cfg, peer_how how)
{
    try {
        boost_store *p = new boost_store{};
        p->name = std::string("boost_") + (strrchr(cfg.dir, '/') + 1);
        if (how == PEER_CREATE) {
            const uint64_t entries = cfg.entries < 100000 ? 1000000 : cfg.entries; // it cannot grow later
            p->seg =
                segment(ip::create_only, p->name.c_str(), (cfg.val_sz + 160ull) * entries * 3 / 2 + (8u << 20));
        } else {
            p->seg = segment(ip::open_only, p->name.c_str());
        }
        p->lock = p->seg.find_or_construct<ip::interprocess_sharable_mutex>("lock")();
        if (cfg.vector)
            p->var = p->seg.find_or_construct<map_of<large>>("var")(
                cfg.entries, key_hash(), std::equal_to<key16>(), p->seg.get_segment_manager());
        else
            p->fixed = p->seg.find_or_construct<map_of<small>>("fixed")(
                cfg.entries, key_hash(), std::equal_to<key16>(), p->seg.get_segment_manager());
        return p;
    } catch (const std::exception &) {
        return nullptr;
    }
}

static void close_boost(void *store, bool drop)
{
    boost_store *p = static_cast<boost_store *>(store);
    if (drop)
        ip::shared_memory_object::remove(p->name.c_str());
    delete p;
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    boost_store *p = static_cast<boost_store *>(store);
    const key16 k = key_of(key, key_sz);
    ip::sharable_lock<ip::interprocess_sharable_mutex> held(*p->lock);
    const char *from;
    uint32_t size;
    if (p->fixed) {
        auto it = p->fixed->find(k);
        if (it == p->fixed->end())
            return -1;
        from = it->second.bytes, size = it->second.size;
    } else {
        auto it = p->var->find(k);
        if (it == p->var->end())
            return -1;
        from = it->second.data(), size = static_cast<uint32_t>(it->second.size());
    }
    if (size > room)
        return -1;
    memcpy(out, from, size);
    return static_cast<int>(size);
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    boost_store *p = static_cast<boost_store *>(store_p);
    const key16 k = key_of(key, key_sz);
    try {
        ip::scoped_lock<ip::interprocess_sharable_mutex> held(*p->lock);
        if (p->fixed) {
            small &v = (*p->fixed)[k];
            v.size = val_sz;
            memcpy(v.bytes, val, val_sz);
        } else {
            auto it = p->var->find(k);
            if (it == p->var->end())
                it = p->var->emplace(k, large(p->var->get_allocator())).first;
            it->second.assign(static_cast<const char *>(val), val_sz);
        }
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    boost_store *p = static_cast<boost_store *>(store_p);
    const key16 k = key_of(key, key_sz);
    ip::scoped_lock<ip::interprocess_sharable_mutex> held(*p->lock);
    return p->fixed ? p->fixed->erase(k) == 1 : p->var->erase(k) == 1;
}

static uint64_t iterate(void *store_p, peer_visit visit, void *arg)
{
    boost_store *p = static_cast<boost_store *>(store_p);
    ip::sharable_lock<ip::interprocess_sharable_mutex> held(*p->lock);
    uint64_t cnt = 0;
    if (p->fixed)
        for (auto &rec : *p->fixed)
            visit(arg, &rec.first, 16, rec.second.bytes, rec.second.size), cnt++;
    else
        for (auto &rec : *p->var)
            visit(arg, &rec.first, 16, rec.second.data(), static_cast<uint32_t>(rec.second.size())), cnt++;
    return cnt;
}

const peer peer_boost = {"boost",    PEER_SHARED | PEER_KEPT | PEER_GROWS,
                         open_boost, close_boost,
                         lookup,     store,
                         erase,      iterate,
                         nullptr,    nullptr,
                         nullptr};
