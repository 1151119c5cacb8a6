// memcached over a Unix socket, binary protocol. A group is one multi-get, a bulk is buffered sets.
#include <libmemcached/memcached.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "peer.h"
#include "server.h"

namespace
{
struct mc {
    memcached_st *ctx;
    memcached_result_st result; // ours: one that the library made it would free after a group
    pid_t server;
};
} // namespace

static void *open_mc(const peer_cfg &cfg, peer_how how)
{
    char path[300];
    snprintf(path, sizeof path, "%s/mc.sock", cfg.dir);
    mc *p = new mc{};
    if (how == PEER_CREATE) {
        const char *argv[] = {"memcached", "-s", path, "-u", "root",         "-m",
                              "4096",      "-t", "1",  "-o", "hashpower=20", nullptr};
        p->server = server_start(argv, cfg.shared);
    }
    const bool up = server_wait([&] {
        p->ctx = memcached_create(nullptr);
        memcached_behavior_set(p->ctx, MEMCACHED_BEHAVIOR_BINARY_PROTOCOL, 1);
        memcached_behavior_set(p->ctx, MEMCACHED_BEHAVIOR_NO_BLOCK, 0);
        memcached_server_add_unix_socket(p->ctx, path);
        if (memcached_success(memcached_set(p->ctx, "up", 2, "1", 1, 0, 0)))
            return true;
        memcached_free(p->ctx);
        return false;
    });
    if (up) {
        memcached_result_create(p->ctx, &p->result);
        return p;
    }
    server_stop(p->server);
    delete p;
    return nullptr;
}

static void close_mc(void *store, bool)
{
    mc *p = static_cast<mc *>(store);
    memcached_result_free(&p->result);
    memcached_free(p->ctx);
    server_stop(p->server);
    delete p;
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    size_t size = 0;
    uint32_t flags;
    memcached_return_t err;
    char *val = memcached_get(static_cast<mc *>(store)->ctx, static_cast<const char *>(key), key_sz, &size,
                              &flags, &err);
    const bool good = val && size <= room;
    if (good)
        memcpy(out, val, size);
    free(val);
    return good ? static_cast<int>(size) : -1;
}

// Answers come in the order of the questions, without those that missed.
static void group(void *store, const char *keys, uint32_t key_sz, char *out, uint32_t room, int *sizes,
                  uint32_t cnt)
{
    mc *p = static_cast<mc *>(store);
    const char *ptr[32];
    size_t len[32];
    for (uint32_t i = 0; i < cnt; i++) {
        ptr[i] = keys + i * key_sz, len[i] = key_sz;
        sizes[i] = -1;
    }
    memcached_mget(p->ctx, ptr, len, cnt);
    memcached_return_t err;
    for (uint32_t i = 0; memcached_fetch_result(p->ctx, &p->result, &err);) {
        while (i < cnt && memcmp(memcached_result_key_value(&p->result), ptr[i], key_sz) != 0)
            i++;
        const size_t size = memcached_result_length(&p->result);
        if (i < cnt && size <= room) {
            memcpy(out + i * room, memcached_result_value(&p->result), size);
            sizes[i++] = static_cast<int>(size);
        }
    }
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    const memcached_return_t err =
        memcached_set(static_cast<mc *>(store_p)->ctx, static_cast<const char *>(key), key_sz,
                      static_cast<const char *>(val), val_sz, 0, 0);
    return err == MEMCACHED_SUCCESS || err == MEMCACHED_BUFFERED;
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    return memcached_delete(static_cast<mc *>(store_p)->ctx, static_cast<const char *>(key), key_sz, 0) ==
           MEMCACHED_SUCCESS;
}

static void bulk(void *store_p, bool begin)
{
    mc *p = static_cast<mc *>(store_p);
    if (!begin)
        memcached_flush_buffers(p->ctx);
    memcached_behavior_set(p->ctx, MEMCACHED_BEHAVIOR_BUFFER_REQUESTS, begin);
    memcached_behavior_set(p->ctx, MEMCACHED_BEHAVIOR_NOREPLY, begin);
}

const peer peer_memcached = {"memcached", PEER_SHARED | PEER_REMOTE | PEER_GROWS,
                             open_mc,     close_mc,
                             lookup,      store,
                             erase,       nullptr,
                             nullptr,     group,
                             bulk};
