// The quick look's cold half: the view, the walks of a miss, the vectors.
#include "shkv_intf/quick.h"

#include <errno.h>
#include "diag/timer.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_remap.h"

#define UNIT_LINK_SZ 4u // unit_next, ahead of the payload of a further unit
#define UNIT_ROOM (VEC_UNIT_SZ - UNIT_LINK_SZ)

#define QUICK_MIN_SZ 4096u // a mapping that holds any key's offset arithmetic without wrapping

// The bits that tell which table and space to look at. A transaction is its owner's alone, who sees its
// own changes first.
static uint32_t telling_bits(uint32_t access_mode)
{
    const uint32_t txn = CF_TXN | CF_TXN_COMMIT;
    return ~(CF_REFILL1 | CF_REFILL2 | CF_RESH_TOKEN1 | CF_RESH_TOKEN2 | (access_mode & SHKV_AM_WRITE ? 0 : txn));
}

// The states in which one table and one record space say it all.
static bool plain_state(uint32_t flg)
{
    switch (flg) {
    case CF_MD1 | CF_UD1:
    case CF_MD1 | CF_UD2:
    case CF_MD2 | CF_UD1:
    case CF_MD2 | CF_UD2:
        return true;
    default:
        return false;
    }
}

static uint16_t offset_in(const supernode *sn, const uint32_t *word_p)
{
    return (uint16_t)((const char *)word_p - (const char *)sn);
}

// Nothing is remapped or bound here: that is the full lookup's, which comes next.
static bool fill_view(shkv_head *head, quick_view *view_p)
{
    supernode *sn = head->sn;
    uint32_t flg = get32(&sn->comm_flg);
    view_p->flg_mask = telling_bits(head->access_mode);
    if (!(is_fixed(sn) || is_vector(sn)) || is_shared_map(head) || !plain_state(flg & view_p->flg_mask))
        return false;
    active_db db = {}, none = {};
    get_active_db(&db, &none, head, flg);
    const ud_desc *ud_desc_p = flg & CF_UD1 ? &sn->ud1 : &sn->ud2;
    if (!db.ud || !bound_fn(db.rec))
        return false;
    view_p->flg = flg;
    view_p->md_ver = get32(&db.rec->ver); // stored after what it vouches for
    view_p->ud_ver = get32(&db.ud->ver);
    view_p->md_ver_at = offset_in(sn, &db.desc->obj_ver);
    view_p->ud_ver_at = offset_in(sn, &ud_desc_p->obj_ver);
    view_p->link_at = flg & CF_MD1 ? offsetof(udn, md1_next) : offsetof(udn, md2_next);
    view_p->vector = is_vector(sn);
    view_p->writes = is_fixed(sn) && (head->access_mode & SHKV_AM_WRITE) && !(sn->conf_flg & CONF_MULTIWR);
    view_p->hashsz = get32(&db.desc->hashsz);
    uint32_t md_sz;
    view_p->md_base = md_mapped(db.rec, &md_sz);
    view_p->ud_base = ud_mapped(db.ud, &view_p->limit);
    view_p->hash_fn = bound_fn(db.rec) == dekhash ? nullptr : bound_fn(db.rec);
    if (!view_p->md_base || !view_p->ud_base || view_p->limit < QUICK_MIN_SZ || view_p->hashsz == 0 ||
        view_p->hashsz > md_sz / sizeof(mdn))
        return false;
    view_p->recip = UINT64_MAX / view_p->hashsz + 1; // 0 for a single bucket, which gives bucket 0
    return view_p->md_ver == get32(&db.desc->obj_ver) && view_p->ud_ver == get32(&ud_desc_p->obj_ver) &&
           ((get32(&sn->comm_flg) ^ flg) & view_p->flg_mask) == 0;
}

// The views of a handle take turns in these places, so that one that was in force stays as it is for
// as long as a thread may go by it. When they come round too soon there is none for a while.
#define VIEWS 16u
static quick_view views[HEADS][VIEWS];
static uint64_t put_in_force_tsc[HEADS][VIEWS];

// The place that comes next, or null while the view there was in force a short time ago: that it is
// not since the next one is.
static quick_view *free_place(uint32_t slot, uint32_t view_cnt)
{
    uint64_t since = put_in_force_tsc[slot][(view_cnt + 1) % VIEWS];
    if (view_cnt >= VIEWS && timer_diff_cycle_in_msec(cycles(), since) < STAND_MS)
        return nullptr;
    return &views[slot][view_cnt % VIEWS];
}

// A growth that fails exchanges a mapping, but no version: it takes the view away behind that, and
// whoever has put one in force over it, or is about to, finds another mapping here.
static bool publish_view(shkv_head *head, head_priv *priv_p, const quick_view *view_p)
{
    __atomic_store_n(&priv_p->view_p, view_p, __ATOMIC_SEQ_CST);
    active_db db = {}, none = {};
    get_active_db(&db, &none, head, view_p->flg);
    uint32_t size;
    if (md_mapped(db.rec, &size) == view_p->md_base && ud_mapped(db.ud, &size) == view_p->ud_base)
        return true;
    __atomic_store_n(&priv_p->view_p, &no_view, __ATOMIC_SEQ_CST);
    return false;
}

// One thread at a time; another one does without. Without the quick guard there is none at all.
bool quick_make_view(shkv_head *head, head_priv *priv_p)
{
    if (!guard_quick || __atomic_exchange_n(&priv_p->view_busy, 1, __ATOMIC_ACQUIRE))
        return false;
    uint32_t slot = (uint32_t)(priv_p - head_privs), cnt = priv_p->view_cnt;
    quick_view *view_p = free_place(slot, cnt);
    bool made = view_p && fill_view(head, view_p);
    if (made) {
        priv_p->view_cnt++;
        put_in_force_tsc[slot][cnt % VIEWS] = cycles();
        made = publish_view(head, priv_p, view_p);
    }
    put32(&priv_p->view_busy, 0);
    return made;
}

// ---- Misses -------------------------------------------------------------------------------------

// Whether the store is in the state that the view was made from.
static bool still_in_state(const supernode *sn, const quick_view *view_p)
{
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    const char *base = (const char *)sn;
    return ((get32(&sn->comm_flg) ^ view_p->flg) & view_p->flg_mask) == 0 &&
           get32((const uint32_t *)(const void *)(base + view_p->md_ver_at)) == view_p->md_ver &&
           get32((const uint32_t *)(const void *)(base + view_p->ud_ver_at)) == view_p->ud_ver;
}

int quick_miss(const shkv_head *head, const quick_view *view_p, const mdn *bucket, const char *key_p,
               uint32_t key_len)
{
    uint32_t steps = 0, seen = 0;
    for (uint32_t walks = 1;; walks++) {
        GUARD_ARM(faulted);
        quick_hit hit = view_p->vector ? quick_find(view_p, bucket, key_p, key_len, true)
                                       : quick_find(view_p, bucket, key_p, key_len, false);
        steps += hit.depth + 1;
        if (hit.off != 0 || (walks > 1 && hit.seen != seen))
            return QUICK_NO;
        seen = hit.seen;
        if (walk_enough(walks, steps))
            return still_in_state(head->sn, view_p) ? ENOENT : QUICK_NO;
    }
faulted:
    return QUICK_NO;
}

// ---- Vectors ------------------------------------------------------------------------------------

// Copies the value, size bytes from at within the first unit, and gives the record's checksum: the
// first and last byte in use of each unit. -1 when a link leads outside. One pass: a unit is asked for
// as soon as its link is known, and with it the one behind it in memory, since units are mostly taken
// from a row and go back as they came.
static int vector_take(const quick_view *view_p, const quick_hit *hit_p, uint32_t unit_cnt, uint32_t at,
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
        if (next_p == unit_p + VEC_UNIT_SZ) {
            __builtin_prefetch(next_p + VEC_UNIT_SZ);
            __builtin_prefetch(next_p + VEC_UNIT_SZ + 64);
        }
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
    return unit_cnt != 0 && stream_sz + UNIT_ROOM <= room && (unit_cnt == 1 || stream_sz + 2 * UNIT_ROOM > room);
}

int quick_look_vector(const shkv_head *head, const quick_view *view_p, const mdn *bucket, const char *key_p,
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
    if (UNLIKELY(!quick_holds(head, view_p, bucket, &hit, marks)))
        return QUICK_NO;
    value->len = val_sz;
    return 0;
}
