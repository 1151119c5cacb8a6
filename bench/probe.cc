// The bare probes: a chained table of the store's own shape in a shared mapping, and nothing else.
//
// Buckets of 8 bytes, record heads of 20 with two links, key and value behind them in one node (or
// in a chain of 128-byte units), the default hash, the sampled checksum, a copy of the value. No
// API, no checks of arguments or offsets, no growth, no waiting list for freed nodes. What a store
// takes beyond these is the price of being one.
//
// Both probes work on the same bytes. The plain one is written as one would write it down: the
// hash a byte at a time, a division, memcmp and memcpy of run-time lengths, the checksum's loop as
// it is defined. The tuned one computes the same with better code. A third, for variable values, is
// the plain one with freed units used again in the order in which they were freed, as a store does
// whose freed units have to wait for its readers.
#include "peer.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shkv_format.h"

// First page of the mapping; the buckets follow, then the record space.
struct probe_head {
    uint32_t hashsz;
    uint32_t unit_sz; // node or unit
    uint32_t vector;
    uint32_t tail; // first never-used offset
    uint32_t end;
    uint32_t free_head;
    uint32_t free_tail; // last of the list; only read when freed units queue
    uint32_t fifo;      // they queue; otherwise the last one freed is the first one used
    uint64_t map_sz;
};

struct probe {
    probe_head *head;
    mdn *bkt;
    char *ud;
    uint32_t hashsz;
    uint64_t recip; // of hashsz
    char path[300];
};

// The store's bucket counts; the library's own table is not used, so that the probe stands alone.
static const uint32_t primes[] = {31,     61,     113,     223,     443,     883,     1759,
                                  3517,   7027,   14051,   28099,   56197,   112363,  224717,
                                  449419, 898823, 1797641, 3595271, 7190537, 14381041};

static inline uint32_t get32(const uint32_t *word_p)
{
    return __atomic_load_n(word_p, __ATOMIC_ACQUIRE);
}
static inline void put32(uint32_t *word_p, uint32_t val)
{
    __atomic_store_n(word_p, val, __ATOMIC_RELEASE);
}
static inline udn *rec_at(const probe *p, uint32_t off)
{
    return reinterpret_cast<udn *>(p->ud + off);
}
static inline uint32_t rotl32(uint32_t v, unsigned n)
{
    return v << n | v >> (32 - n);
}

template <class T> static inline T load(const void *at)
{
    T v;
    memcpy(&v, at, sizeof v);
    return v;
}

typedef long long v16 __attribute__((vector_size(16)));

// ---- The steps, plain and tuned -------------------------------------------------------------------

// dekhash of eight bytes from 0. Rotation distributes over exclusive or, so each byte's share can be
// moved to its place on its own: pairs 5 bits apart, then fours, then the two halves.
static inline uint32_t dek8(uint64_t x)
{
    x = (x & 0x00ff00ff00ff00ff) << 5 ^ (x >> 8 & 0x00ff00ff00ff00ff);
    x = (x & 0x0000ffff0000ffff) << 10 ^ (x >> 16 & 0x0000ffff0000ffff);
    return rotl32(static_cast<uint32_t>(x), 20) ^ static_cast<uint32_t>(x >> 32);
}

template <bool tuned> static inline uint32_t hash_key(const void *key_p, uint32_t len)
{
    const uint8_t *key = static_cast<const uint8_t *>(key_p);
    uint32_t h = len;
    if constexpr (tuned)
        for (; len >= 8; len -= 8, key += 8)
            h = rotl32(h, 8) ^ dek8(load<uint64_t>(key));
    for (uint32_t i = 0; i < len; i++)
        h = rotl32(h, 5) ^ key[i];
    return h;
}

template <bool tuned> static inline mdn *bucket_of(const probe *p, uint32_t hash)
{
    if constexpr (!tuned)
        return p->bkt + hash % p->hashsz;
    const uint64_t low = p->recip * hash;
    return p->bkt + static_cast<uint32_t>(static_cast<unsigned __int128>(low) * p->hashsz >> 64);
}

template <bool tuned> static inline bool equal(const void *a_p, const void *b_p, uint32_t len)
{
    const char *a = static_cast<const char *>(a_p), *b = static_cast<const char *>(b_p);
    if constexpr (tuned) {
        if (len >= 8 && len <= 16)
            return ((load<uint64_t>(a) ^ load<uint64_t>(b)) |
                    (load<uint64_t>(a + len - 8) ^ load<uint64_t>(b + len - 8))) == 0;
    }
    return memcmp(a, b, len) == 0;
}

template <bool tuned> static inline void copy(void *dst_p, const void *src_p, uint32_t len)
{
    char *dst = static_cast<char *>(dst_p);
    const char *src = static_cast<const char *>(src_p);
    if constexpr (tuned) {
        if (len >= 16 && len <= 32) {
            const v16 first = load<v16>(src), last = load<v16>(src + len - 16);
            memcpy(dst, &first, 16);
            memcpy(dst + len - 16, &last, 16);
            return;
        }
    }
    memcpy(dst, src, len);
}

// Every len / 8th byte, always with the last one.
template <bool tuned> static inline uint8_t checksum(const void *data, uint32_t len)
{
    const uint8_t *p = static_cast<const uint8_t *>(data);
    uint8_t acc = 0;
    if (len == 0)
        return 0;
    if constexpr (tuned) {
        if (len > 8) {
            const uint32_t step = len / 8;
            acc = p[0] ^ p[step] ^ p[2 * step] ^ p[3 * step] ^ p[4 * step] ^ p[5 * step] ^ p[6 * step] ^
                  p[len - 1];
            for (uint32_t at = 7 * step; at + step < len; at += step)
                acc ^= p[at];
            return acc;
        }
    }
    const uint32_t step = len <= 8 ? 1 : len / 8;
    uint32_t rem = len;
    for (uint32_t done = 0; done < len; done += step, rem -= step, p += step) {
        if (step >= rem)
            p += rem - 1;
        acc ^= *p;
    }
    return acc;
}

// First and last byte in use of each unit.
static uint8_t vec_checksum(const probe *p, const udn *rec)
{
    const uint8_t *unit = reinterpret_cast<const uint8_t *>(rec);
    uint8_t acc = 0;
    for (uint32_t i = 0, cnt = rec->unit_cnt; i < cnt; i++) {
        const uint32_t used = (rec->key_sz + rec->val_sz + VEC_HEAD_SZ + 4 * i) & (VEC_UNIT_SZ - 1);
        const uint32_t last = i + 1 < cnt || used == 0 ? VEC_UNIT_SZ - 1 : used - 1;
        acc ^= unit[i ? 4 : VEC_HEAD_SZ] ^ unit[last];
        const uint32_t next = get32(reinterpret_cast<const uint32_t *>(unit));
        if (next)
            unit = reinterpret_cast<const uint8_t *>(p->ud + next);
    }
    return acc;
}

// The stream from byte `from` on, len bytes of it, in or out of the units. Keys fit the first unit.
template <bool in> static void vec_copy(const probe *p, udn *rec, uint32_t from, char *buf, uint32_t len)
{
    char *unit = reinterpret_cast<char *>(rec);
    uint32_t at = VEC_HEAD_SZ + from;
    while (len) {
        if (at == VEC_UNIT_SZ) {
            unit = p->ud + get32(reinterpret_cast<uint32_t *>(unit));
            at = 4;
        }
        const uint32_t part = len < VEC_UNIT_SZ - at ? len : VEC_UNIT_SZ - at;
        in ? memcpy(unit + at, buf, part) : memcpy(buf, unit + at, part);
        buf += part, len -= part, at += part;
    }
}

// Copy and checksum in one pass: a unit is touched once, and its successor asked for before.
static uint8_t vec_take(const probe *p, const udn *rec, uint32_t from, char *buf, uint32_t len)
{
    const char *unit = reinterpret_cast<const char *>(rec);
    uint32_t at = VEC_HEAD_SZ + from;
    uint8_t acc = unit[VEC_HEAD_SZ];
    for (;;) {
        const uint32_t next = get32(reinterpret_cast<const uint32_t *>(unit));
        if (len <= VEC_UNIT_SZ - at)
            break;
        const char *next_unit = p->ud + next;
        __builtin_prefetch(next_unit);
        __builtin_prefetch(next_unit + 64);
        const uint32_t part = VEC_UNIT_SZ - at;
        memcpy(buf, unit + at, part);
        acc ^= unit[VEC_UNIT_SZ - 1] ^ next_unit[4];
        buf += part, len -= part, at = 4, unit = next_unit;
    }
    memcpy(buf, unit + at, len);
    return acc ^ unit[at + len - 1];
}

// ---- Operations -------------------------------------------------------------------------------------

static inline const char *key_of(const probe_head *head, const udn *rec)
{
    return reinterpret_cast<const char *>(rec) + (head->vector ? VEC_HEAD_SZ : UDN_HEAD_SZ);
}

template <bool tuned, bool vector>
static inline udn *find(const probe *p, const mdn *bkt, const void *key, uint32_t key_sz, udn **prev)
{
    *prev = nullptr;
    for (uint32_t off = get32(&bkt->first_ptr); off; off = get32(&(*prev)->md1_next)) {
        udn *rec = rec_at(p, off);
        if (rec->key_sz == key_sz &&
            equal<tuned>(reinterpret_cast<char *>(rec) + (vector ? VEC_HEAD_SZ : UDN_HEAD_SZ), key, key_sz))
            return rec;
        *prev = rec;
    }
    return nullptr;
}

template <bool tuned>
static inline int take_value(const probe *p, udn *rec, uint32_t key_sz, void *out, uint32_t room)
{
    const uint32_t val_sz = rec->val_sz;
    if (val_sz > room)
        return -1;
    if (!p->head->vector) {
        const char *data = reinterpret_cast<char *>(rec) + UDN_HEAD_SZ;
        if (checksum<tuned>(data, key_sz + val_sz) != rec->cksum)
            return -1;
        copy<tuned>(out, data + key_sz, val_sz);
    } else if constexpr (tuned) {
        if (vec_take(p, rec, key_sz, static_cast<char *>(out), val_sz) != rec->cksum)
            return -1;
    } else {
        if (vec_checksum(p, rec) != rec->cksum)
            return -1;
        vec_copy<false>(p, rec, key_sz, static_cast<char *>(out), val_sz);
    }
    return static_cast<int>(val_sz);
}

template <bool tuned> static int lookup(void *store, const void *key, uint32_t key_sz, void *out, uint32_t room)
{
    const probe *p = static_cast<probe *>(store);
    const mdn *bkt = bucket_of<tuned>(p, hash_key<tuned>(key, key_sz));
    udn *prev, *rec = p->head->vector ? find<tuned, true>(p, bkt, key, key_sz, &prev)
                                      : find<tuned, false>(p, bkt, key, key_sz, &prev);
    return rec ? take_value<tuned>(p, rec, key_sz, out, room) : -1;
}

template <bool tuned> static const void *lite(void *store, const void *key, uint32_t key_sz, uint32_t *val_sz)
{
    const probe *p = static_cast<probe *>(store);
    udn *prev,
        *rec = find<tuned, false>(p, bucket_of<tuned>(p, hash_key<tuned>(key, key_sz)), key, key_sz, &prev);
    if (!rec)
        return nullptr;
    *val_sz = rec->val_sz;
    return reinterpret_cast<char *>(rec) + UDN_HEAD_SZ + key_sz;
}

// All buckets asked for, then all first records, then the walks: the misses of a group overlap.
static void group(void *store, const char *keys, uint32_t key_sz, char *out, uint32_t room, int *sizes,
                  uint32_t cnt)
{
    const probe *p = static_cast<probe *>(store);
    const mdn *bkt[32];
    for (uint32_t i = 0; i < cnt; i++) {
        bkt[i] = bucket_of<true>(p, hash_key<true>(keys + i * key_sz, key_sz));
        __builtin_prefetch(bkt[i]);
    }
    for (uint32_t i = 0; i < cnt; i++) {
        const char *rec = p->ud + get32(&bkt[i]->first_ptr);
        __builtin_prefetch(rec);
        __builtin_prefetch(rec + 64);
    }
    for (uint32_t i = 0; i < cnt; i++) {
        udn *prev, *rec = find<true, false>(p, bkt[i], keys + i * key_sz, key_sz, &prev);
        sizes[i] = rec ? take_value<true>(p, rec, key_sz, out + i * room, room) : -1;
    }
}

// Takes units off the free list, then from the never-used space, chained through unit_next.
static uint32_t take_units(probe *p, uint32_t cnt)
{
    probe_head *head = p->head;
    uint32_t first = 0, last = 0;
    for (uint32_t i = 0; i < cnt; i++) {
        uint32_t off = head->free_head;
        if (off)
            head->free_head = rec_at(p, off)->unit_next;
        else if (head->tail + head->unit_sz > head->end)
            return 0;
        else
            off = head->tail, head->tail += head->unit_sz;
        rec_at(p, off)->unit_next = 0;
        last ? rec_at(p, last)->unit_next = off : first = off;
        last = off;
    }
    reinterpret_cast<vec_udn *>(rec_at(p, first))->head.unit_cnt = static_cast<uint16_t>(cnt);
    if (head->vector)
        reinterpret_cast<vec_udn *>(rec_at(p, first))->last_unit = last;
    return first;
}

static void give_units(probe *p, udn *rec)
{
    probe_head *head = p->head;
    const uint32_t off = static_cast<uint32_t>(reinterpret_cast<char *>(rec) - p->ud);
    const uint32_t last = head->vector ? reinterpret_cast<vec_udn *>(rec)->last_unit : off;
    if (!head->fifo) {
        put32(&rec_at(p, last)->unit_next, head->free_head);
        head->free_head = off;
        return;
    }
    put32(&rec_at(p, last)->unit_next, 0);
    put32(head->free_head ? &rec_at(p, head->free_tail)->unit_next : &head->free_head, off);
    head->free_tail = last;
}

template <bool tuned>
static bool store(void *store_p, const void *key, uint32_t key_sz, const void *val, uint32_t val_sz)
{
    probe *p = static_cast<probe *>(store_p);
    const bool vector = p->head->vector;
    mdn *bkt = bucket_of<tuned>(p, hash_key<tuned>(key, key_sz));
    udn *prev, *old = vector ? find<tuned, true>(p, bkt, key, key_sz, &prev)
                             : find<tuned, false>(p, bkt, key, key_sz, &prev);
    const uint32_t size = key_sz + val_sz, first_room = VEC_UNIT_SZ - VEC_HEAD_SZ;
    const uint32_t units =
        !vector || size <= first_room ? 1 : 1 + (size - first_room + VEC_UNIT_SZ - 5) / (VEC_UNIT_SZ - 4);
    const uint32_t off = take_units(p, units);
    if (!off)
        return false;
    udn *rec = rec_at(p, off);
    rec->key_sz = static_cast<uint16_t>(key_sz);
    rec->val_sz = static_cast<uint16_t>(val_sz);
    rec->nd_flg = 0;
    if (vector) {
        memcpy(reinterpret_cast<char *>(rec) + VEC_HEAD_SZ, key, key_sz);
        vec_copy<true>(p, rec, key_sz, const_cast<char *>(static_cast<const char *>(val)), val_sz);
        rec->cksum = vec_checksum(p, rec);
    } else {
        char *data = reinterpret_cast<char *>(rec) + UDN_HEAD_SZ;
        copy<tuned>(data, key, key_sz);
        copy<tuned>(data + key_sz, val, val_sz);
        rec->cksum = checksum<tuned>(data, size);
    }
    rec->md1_next = old ? old->md1_next : bkt->first_ptr;
    put32(old && prev ? &prev->md1_next : &bkt->first_ptr, off);
    if (old)
        give_units(p, old);
    return true;
}

template <bool tuned> static bool erase(void *store_p, const void *key, uint32_t key_sz)
{
    probe *p = static_cast<probe *>(store_p);
    mdn *bkt = bucket_of<tuned>(p, hash_key<tuned>(key, key_sz));
    udn *prev, *old = p->head->vector ? find<tuned, true>(p, bkt, key, key_sz, &prev)
                                      : find<tuned, false>(p, bkt, key, key_sz, &prev);
    if (!old)
        return false;
    put32(prev ? &prev->md1_next : &bkt->first_ptr, old->md1_next);
    give_units(p, old);
    return true;
}

template <bool tuned> static uint64_t iterate(void *store_p, peer_visit visit, void *arg)
{
    const uint32_t ahead = 16;
    const probe *p = static_cast<probe *>(store_p);
    char key[2048], val[4096];
    uint64_t cnt = 0;
    for (uint32_t b = 0; b < p->hashsz; b++) {
        if (tuned && b + ahead < p->hashsz) {
            const char *rec = p->ud + p->bkt[b + ahead].first_ptr;
            __builtin_prefetch(rec);
            __builtin_prefetch(rec + 64);
        }
        for (uint32_t off = get32(&p->bkt[b].first_ptr); off; cnt++) {
            udn *rec = rec_at(p, off);
            copy<tuned>(key, key_of(p->head, rec), rec->key_sz);
            const int val_sz = take_value<tuned>(p, rec, rec->key_sz, val, sizeof val);
            if (val_sz < 0)
                return 0;
            visit(arg, key, rec->key_sz, val, static_cast<uint32_t>(val_sz));
            off = get32(&rec->md1_next);
        }
    }
    return cnt;
}

// ---- Life -------------------------------------------------------------------------------------------

static bool map_probe(probe *p, int fd, uint64_t size)
{
    void *map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    p->head = static_cast<probe_head *>(map);
    return map != MAP_FAILED;
}

static void *open_probe(const peer_cfg &cfg, peer_how how, const char *kind, bool fifo)
{
    probe *p = new probe{};
    snprintf(p->path, sizeof p->path, "%s/%s", cfg.dir, kind);
    const int fd = open(p->path, how == PEER_CREATE ? O_RDWR | O_CREAT | O_TRUNC : O_RDWR, 0600);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0)
        return nullptr;
    uint64_t size = static_cast<uint64_t>(st.st_size), end = 0;
    uint32_t hashsz = 0, unit_sz = 0;
    if (how == PEER_CREATE) {
        for (uint32_t prime : primes) {
            hashsz = prime;
            if (prime > (cfg.entries / 2 > 256 ? cfg.entries / 2 : 256))
                break;
        }
        unit_sz = cfg.vector ? VEC_UNIT_SZ : (cfg.key_sz + cfg.val_sz + 23) & ~3u;
        // The store's own spare: 5%, 100 to 500 units. A vector store is planned by its records' units.
        const uint64_t units =
            cfg.vector ? cfg.entries * (2 + (cfg.key_sz + cfg.val_sz) / 124ull) : cfg.entries;
        end = 256 + (units + 500) * unit_sz;
        size = 4096 + ((hashsz * 8ull + 4095) & ~4095ull) + end;
        if (ftruncate(fd, static_cast<off_t>(size)) != 0)
            return nullptr;
    }
    if (!map_probe(p, fd, size))
        return nullptr;
    close(fd);
    if (how == PEER_CREATE)
        *p->head = {hashsz, unit_sz, cfg.vector, 256, static_cast<uint32_t>(end), 0, 0, fifo, size};
    p->hashsz = p->head->hashsz;
    p->recip = UINT64_MAX / p->hashsz + 1;
    p->bkt = reinterpret_cast<mdn *>(reinterpret_cast<char *>(p->head) + 4096);
    p->ud = reinterpret_cast<char *>(p->bkt) + ((p->hashsz * 8ull + 4095) & ~4095ull);
    return p;
}

static void *open_plain(const peer_cfg &cfg, peer_how how)
{
    return open_probe(cfg, how, "plain", false);
}
static void *open_tuned(const peer_cfg &cfg, peer_how how)
{
    return open_probe(cfg, how, "tuned", false);
}
static void *open_fifo(const peer_cfg &cfg, peer_how how)
{
    return open_probe(cfg, how, "fifo", true);
}

static void close_probe(void *store_p, bool drop)
{
    probe *p = static_cast<probe *>(store_p);
    munmap(p->head, p->head->map_sz);
    if (drop)
        unlink(p->path);
    delete p;
}

const peer peer_probe_plain = {"probe_plain", PEER_SHARED | PEER_KEPT | PEER_FLOOR,
                               open_plain,    close_probe,
                               lookup<false>, store<false>,
                               erase<false>,  iterate<false>,
                               lite<false>,   nullptr,
                               nullptr};
const peer peer_probe_tuned = {"probe_tuned", PEER_SHARED | PEER_KEPT | PEER_FLOOR,
                               open_tuned,    close_probe,
                               lookup<true>,  store<true>,
                               erase<true>,   iterate<true>,
                               lite<true>,    group,
                               nullptr};
const peer peer_probe_fifo = {"probe_fifo",  PEER_FLOOR | PEER_VECTOR,
                              open_fifo,     close_probe,
                              lookup<false>, store<false>,
                              erase<false>,  nullptr,
                              nullptr,       nullptr,
                              nullptr};
