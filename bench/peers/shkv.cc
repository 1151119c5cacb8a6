// The library itself, through its public header.
#include <stdlib.h>
#include <string.h>

#include "peer.h"
#include "shkv.h"
#include "shkv_format.h"

static inline int handle_of(void *store)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(store));
}
static inline shkv_buf buf(const void *ptr, uint32_t len)
{
    return {const_cast<void *>(ptr), len};
}

static void *open_shkv(const peer_cfg &cfg, peer_how how)
{
    setenv("SYSMGR_MMAP_LIMIT", "2147483648", 0);
    const char *slash = strrchr(cfg.dir, '/'), *uri = slash ? slash + 1 : cfg.dir;
    uint32_t err = 0;
    int handle;
    if (how == PEER_CREATE) {
        shkv_params params = {static_cast<uint16_t>(cfg.key_sz), static_cast<uint16_t>(cfg.val_sz), cfg.entries,
                              cfg.vector ? CONF_VECTORMM : CONF_FIXEDMM, 0};
        // Records of variable size: four entries each, of a quarter of the bytes that its units take. Space as for
        // one, and a table in which few records share a bucket.
        if (cfg.vector) {
            const uint32_t size = cfg.key_sz + cfg.val_sz, first = VEC_UNIT_SZ - VEC_HEAD_SZ;
            const uint32_t units = size <= first ? 1 : 2 + (size - first - 1) / (VEC_UNIT_SZ - 4);
            params.maxvsz = static_cast<uint16_t>(units * VEC_UNIT_SZ / 4 - UDN_HEAD_SZ - cfg.key_sz);
            params.maxents = cfg.entries * 4;
        }
        handle = shkv_create(uri, UUID_BIG_A, &params, 0, &err);
    } else {
        handle =
            shkv_open(uri, UUID_BIG_A, 0, how == PEER_READ ? SHKV_AM_READ | SHKV_AM_ITER : SHKV_AM_WRITE, &err);
    }
    return reinterpret_cast<void *>(static_cast<intptr_t>(handle));
}

static void close_shkv(void *store, bool drop)
{
    drop ? shkv_destroy(handle_of(store)) : shkv_close(handle_of(store));
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    const shkv_buf k = buf(key, key_sz);
    shkv_buf v = buf(out, room);
    return shkv_lookup(handle_of(store), &k, &v) == 0 ? static_cast<int>(v.len) : -1;
}

static const void *lite(void *store, const void *key, uint32_t key_sz, uint32_t *val_sz)
{
    const shkv_buf k = buf(key, key_sz);
    shkv_buf v = {};
    if (shkv_lookup_lite(handle_of(store), &k, &v) != 0)
        return nullptr;
    *val_sz = v.len;
    return v.ptr;
}

static void group(void *store, const char *keys, uint32_t key_sz, char *out, uint32_t room, int *sizes,
                  uint32_t cnt)
{
    shkv_buf k[32], v[32];
    for (uint32_t i = 0; i < cnt; i++) {
        k[i] = buf(keys + i * key_sz, key_sz);
        v[i] = buf(out + i * room, room);
    }
    shkv_m_lookup(handle_of(store), k, v, sizes, static_cast<uint16_t>(cnt));
    for (uint32_t i = 0; i < cnt; i++)
        sizes[i] = sizes[i] == 0 ? static_cast<int>(v[i].len) : -1;
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    const shkv_buf k = buf(key, key_sz), v = buf(val, val_sz);
    return shkv_add(handle_of(store_p), &k, &v, 0) == 0;
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    const shkv_buf k = buf(key, key_sz);
    return shkv_delete(handle_of(store_p), &k) == 0;
}

static uint64_t iterate(void *store_p, peer_visit visit, void *arg)
{
    const int handle = handle_of(store_p);
    char key[2048], val[4096];
    uint64_t cnt = 0;
    shkv_iterate(handle, nullptr, nullptr, nullptr, 1);
    for (;; cnt++) {
        shkv_buf k = buf(key, sizeof key), v = buf(val, sizeof val);
        if (shkv_iterate(handle, &k, &v, nullptr, 0) != 0)
            return cnt;
        visit(arg, key, k.len, val, v.len);
    }
}

const peer peer_shkv = {"shkv",    PEER_SHARED | PEER_KEPT | PEER_GROWS,
                        open_shkv, close_shkv,
                        lookup,    store,
                        erase,     iterate,
                        lite,      group,
                        nullptr};
