// The quick look into a store of variable records: as in quick.h, with a value gathered from units.
//
// A reader that looks up one key after the other is fastest when the processor reaches the next bucket
// while it still waits for this record. A value in units takes more code than one in a piece, so here
// the bucket is asked for before anything else.
#include "shkv_intf/lookup_vector.h"

#include <errno.h>
#include "shkv_intf/guard.h"

#define VEC_KEY_MAX 99u // bytes of a key, so that the value begins in the first unit
#define UNIT_LINK_SZ 4u // unit_next, ahead of the payload of a further unit
#define UNIT_ROOM (VEC_UNIT_SZ - UNIT_LINK_SZ)

// Copies the value, size bytes from at within the first unit, and gives the record's checksum: the
// first and last byte in use of each unit. -1 when a link leads outside. One pass: a unit is asked for
// as soon as its link is known, and with it the one behind it in memory, since units are mostly taken
// from a row and go back as they came.
QUICK_INLINE int vector_take(const quick_view *view_p, const quick_hit *hit_p, uint32_t unit_cnt, uint32_t at,
                             uint32_t size, char *dst_p)
{
    const char *unit_p = (const char *)hit_p->udn_p;
    uint8_t acc = (uint8_t)unit_p[VEC_HEAD_SZ];
    uint32_t part = VEC_UNIT_SZ - at;
    if (unit_cnt > 2) { // what is known of the rest: where it ends
        const char *last_p = view_p->ud_base + ((const vec_udn *)(const void *)unit_p)->last_unit;
        __builtin_prefetch(last_p);
        __builtin_prefetch(last_p + 64);
        __builtin_prefetch(last_p - VEC_UNIT_SZ);
        __builtin_prefetch(last_p - VEC_UNIT_SZ + 64);
    }
    for (; unit_cnt > 1; unit_cnt--) {
        uint32_t off = get32((const uint32_t *)(const void *)unit_p);
        if (UNLIKELY(off == 0 || off > hit_p->off_max))
            return -1;
        const char *next_p = view_p->ud_base + off;
        __builtin_prefetch(next_p);
        __builtin_prefetch(next_p + 64);
        __builtin_prefetch(next_p + VEC_UNIT_SZ);
        __builtin_prefetch(next_p + VEC_UNIT_SZ + 64);
        if (LIKELY(part == UNIT_ROOM))
            memcpy(dst_p, unit_p + UNIT_LINK_SZ, UNIT_ROOM);
        else
            memcpy(dst_p, unit_p + at, part);
        acc ^= (uint8_t)unit_p[VEC_UNIT_SZ - 1] ^ (uint8_t)next_p[UNIT_LINK_SZ];
        dst_p += part;
        size -= part;
        unit_p = next_p;
        at = UNIT_LINK_SZ;
        part = UNIT_ROOM;
    }
    if (size)
        memcpy(dst_p, unit_p + at, size);
    return acc ^ (uint8_t)unit_p[at + size - 1];
}

// Whether so many units are what a stream of that size takes, its last one included.
static bool units_fit(uint32_t unit_cnt, uint32_t stream_sz)
{
    uint32_t room = unit_cnt * UNIT_ROOM + VEC_UNIT_SZ - VEC_HEAD_SZ;
    return unit_cnt != 0 && stream_sz + UNIT_ROOM <= room &&
           (unit_cnt == 1 || stream_sz + 2 * UNIT_ROOM > room);
}

QUICK_INLINE int look_at_vector(const quick_view *view_p, const mdn *bucket, const char *key_p,
                                uint32_t key_len, shkv_buf *value)
{
    quick_hit hit = quick_find(view_p, bucket, key_p, key_len, true);
    if (UNLIKELY(!hit.udn_p))
        return hit.off ? QUICK_NO : QUICK_MISS;
    uint32_t marks = udn_marks(hit.udn_p), unit_cnt = marks & 0xffff, val_sz = hit.sizes >> 16;
    uint32_t val_at = VEC_HEAD_SZ + key_len;
    if (UNLIKELY((marks & MARKS_DELETED) || val_sz > value->len || !units_fit(unit_cnt, key_len + val_sz)))
        return QUICK_NO;
    if (val_sz != 0 && get32(&((const vec_udn *)(const void *)hit.udn_p)->val_off) != hit.off + val_at)
        return QUICK_NO;
    if (UNLIKELY(vector_take(view_p, &hit, unit_cnt, val_at, val_sz, (char *)value->ptr) != MARKS_CKSUM(marks)))
        return QUICK_NO;
    if (UNLIKELY(!quick_holds(view_p, bucket, &hit, marks)))
        return QUICK_NO;
    value->len = val_sz;
    return 0;
}

int lookup_vector(int handle, const shkv_buf *key, shkv_buf *value)
{
    volatile int handle_arg = handle; // for the way back from a fault
    const shkv_buf *volatile key_arg = key;
    shkv_buf *volatile value_arg = value;
    uint64_t asked = quick_ask(handle, key);
    GUARD_ARM(faulted);
    {
        key = key_arg;
        value = value_arg;
        const quick_view *view_p = quick_view_of(handle_arg);
        if (UNLIKELY(!view_p || !view_p->vector || !quick_room_ok(key, value) || key->len > VEC_KEY_MAX))
            return QUICK_NO;
        const char *key_p = (const char *)key->ptr;
        const mdn *bucket = quick_bucket(view_p, key_p, key->len, asked);
        int ret = look_at_vector(view_p, bucket, key_p, key->len, value);
        return LIKELY(ret != QUICK_MISS) ? ret : quick_miss(view_p, bucket, key_p, key->len);
    }
faulted:
    return QUICK_NO;
}
