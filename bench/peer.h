// One contestant of the benchmark, as a table of functions: the library, the bare probes and the
// peers all answer to it, so that every operation is driven by the same loop.
#pragma once
#include <stdint.h>

struct peer_cfg {
    const char *dir;  // a folder of its own on tmpfs; its last part serves as a name
    uint32_t entries; // records planned for; a store that grows may be given fewer
    uint32_t key_sz;  // largest
    uint32_t val_sz;  // largest
    bool vector;      // values of many sizes
    bool shared;      // other processes use the store at the same time
};

enum peer_trait : unsigned {
    PEER_SHARED = 1,  // readers in other processes work beside a writer
    PEER_KEPT = 2,    // outlives the process, so that one can attach
    PEER_REMOTE = 4,  // a server does the work: wall time counts, not this thread's CPU time
    PEER_GROWS = 8,   // a store planned too small stays usable
    PEER_FLOOR = 16,  // a bare probe: no checks, no API
    PEER_VECTOR = 32, // takes part with variable values only
};

enum peer_how { PEER_CREATE, PEER_READ, PEER_WRITE };

typedef void (*peer_visit)(void *arg, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz);

struct peer {
    const char *name;
    unsigned traits;
    void *(*open)(const peer_cfg &cfg, peer_how how); // null when it fails
    void (*close)(void *store, bool drop);
    // Bytes of the value, -1 for none; a copy, so that it stays good.
    int (*lookup)(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room);
    bool (*store)(void *store, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz);
    bool (*erase)(void *store, const void *key, uint32_t key_sz);
    // The rest is optional.
    uint64_t (*iterate)(void *store, peer_visit visit, void *arg);
    const void *(*lite)(void *store, const void *key, uint32_t key_sz, uint32_t *val_sz);
    // cnt (at most 32) keys of key_sz bytes in a row; value i goes to out + i * room.
    void (*group)(void *store, const char *keys, uint32_t key_sz, char *out, uint32_t room, int *sizes,
                  uint32_t cnt);
    void (*bulk)(void *store, bool begin); // writes in between are taken together
};

extern const peer peer_shkv, peer_probe_plain, peer_probe_tuned, peer_probe_fifo, peer_lmdb, peer_tdb,
    peer_tdb_nolock, peer_tkrzw_hash, peer_tkrzw_tiny, peer_tkrzw_cache, peer_kyoto_hash, peer_kyoto_proto,
    peer_kyoto_cache, peer_boost, peer_redis, peer_memcached;

// All that this build has, ended by a null.
extern const peer *const peers[];
