// Redis over a Unix socket, without persistence. A group is one pipeline of GETs, a bulk one of SETs.
#include <hiredis/hiredis.h>
#include <stdio.h>
#include <string.h>

#include "peer.h"
#include "server.h"

namespace
{
struct redis {
    redisContext *ctx;
    pid_t server;
    uint32_t queued; // replies outstanding, while in bulk
    bool bulk;
};
} // namespace

static void *open_redis(const peer_cfg &cfg, peer_how how)
{
    char path[300];
    snprintf(path, sizeof path, "%s/redis.sock", cfg.dir);
    redis *p = new redis{};
    if (how == PEER_CREATE) {
        const char *argv[] = {"redis-server", "--port", "0",     "--unixsocket", path,   "--save", "",
                              "--appendonly", "no",     "--dir", cfg.dir,        nullptr};
        p->server = server_start(argv, cfg.shared);
    }
    const bool up = server_wait([&] {
        p->ctx = redisConnectUnix(path);
        if (p->ctx && !p->ctx->err)
            return true;
        redisFree(p->ctx);
        return false;
    });
    if (up)
        return p;
    server_stop(p->server);
    delete p;
    return nullptr;
}

static void close_redis(void *store, bool)
{
    redis *p = static_cast<redis *>(store);
    redisFree(p->ctx);
    server_stop(p->server);
    delete p;
}

static void ask(redis *p, const char *cmd, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    const char *argv[] = {cmd, static_cast<const char *>(key), static_cast<const char *>(val)};
    const size_t lens[] = {strlen(cmd), key_sz, val_sz};
    redisAppendCommandArgv(p->ctx, val ? 3 : 2, argv, lens);
}

static int answer(redis *p, void *out, uint32_t room)
{
    redisReply *reply = nullptr;
    if (redisGetReply(p->ctx, reinterpret_cast<void **>(&reply)) != REDIS_OK)
        return -1;
    int size = -1;
    if (reply->type == REDIS_REPLY_STRING && out && reply->len <= room) {
        memcpy(out, reply->str, reply->len);
        size = static_cast<int>(reply->len);
    } else if (reply->type == REDIS_REPLY_INTEGER) {
        size = static_cast<int>(reply->integer);
    } else if (reply->type == REDIS_REPLY_STATUS) {
        size = 0;
    }
    freeReplyObject(reply);
    return size;
}

static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    redis *p = static_cast<redis *>(store);
    ask(p, "GET", key, key_sz, nullptr, 0);
    return answer(p, out, room);
}

static void group(void *store, const char *keys, uint32_t key_sz, char *out, uint32_t room, int *sizes,
                  uint32_t cnt)
{
    redis *p = static_cast<redis *>(store);
    for (uint32_t i = 0; i < cnt; i++)
        ask(p, "GET", keys + i * key_sz, key_sz, nullptr, 0);
    for (uint32_t i = 0; i < cnt; i++)
        sizes[i] = answer(p, out + i * room, room);
}

static void drain(redis *p)
{
    for (; p->queued; p->queued--)
        answer(p, nullptr, 0);
}

static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    redis *p = static_cast<redis *>(store_p);
    ask(p, "SET", key, key_sz, val, val_sz);
    if (!p->bulk)
        return answer(p, nullptr, 0) == 0;
    if (++p->queued == 256)
        drain(p);
    return true;
}

static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    redis *p = static_cast<redis *>(store_p);
    ask(p, "DEL", key, key_sz, nullptr, 0);
    return answer(p, nullptr, 0) == 1;
}

static void bulk(void *store_p, bool begin)
{
    redis *p = static_cast<redis *>(store_p);
    drain(p);
    p->bulk = begin;
}

const peer peer_redis = {"redis",    PEER_SHARED | PEER_REMOTE | PEER_GROWS,
                         open_redis, close_redis,
                         lookup,     store,
                         erase,      nullptr,
                         nullptr,    group,
                         bulk};
