// The quick look: an ordinary hit in one piece of code, of a fixed-mode store without a call.
//
// It serves the common state only: no reshape, no transaction of this handle's own, no mapping in
// chunks, all mappings in step. Whatever else it meets - a bad argument, too little room, a bad checksum, a
// record that does not vouch for its answer - it leaves to the full lookup, which begins anew and
// says what there is to say. So nothing here writes a line or an event.
#pragma once
#include <string.h>
#include "shkv.h"
#include "shkv_hash/checksum.h"
#include "shkv_hash/hash_fn.h"
#include "shkv_intf/head.h"
#include "shkv_intf/record.h"
#include "shkv_intf/walk.h"
#include "shkv_intf/word.h"

#define QUICK_DEPTH 16u // records of one chain; longer ones are the full lookup's
#define QUICK_NO (-1)   // for the full lookup
#define QUICK_MISS (-2) // one walk has met a chain's end
#define QUICK_UNASKED (1ull << 32)
#define QUICK_INLINE static inline __attribute__((always_inline))
#define LIKELY(cond) __builtin_expect(!!(cond), 1)
#define UNLIKELY(cond) __builtin_expect(!!(cond), 0)

// Makes the view of a head anew, when the store is in a state that the quick look serves; else null.
const quick_view *quick_new_view(uint32_t slot) __attribute__((noinline));

// Whether the store is in the state that the view was made from.
QUICK_INLINE bool quick_fits(const quick_view *view_p)
{
    const char *sn = (const char *)view_p->sn;
    return LIKELY(((get32(&view_p->sn->comm_flg) ^ view_p->flg) & view_p->flg_mask) == 0 &&
                  get32((const uint32_t *)(const void *)(sn + view_p->md_ver_at)) == view_p->md_ver &&
                  get32((const uint32_t *)(const void *)(sn + view_p->ud_ver_at)) == view_p->ud_ver);
}

// The view in force of a head, or null: also when no store is open there, for what is closed has lost
// its view. A thread beside this one may put another one in force meanwhile; this one stays as it is
// for as long as it takes.
QUICK_INLINE const quick_view *quick_view_at(uint32_t slot)
{
    const quick_view *view_p = __atomic_load_n(&head_privs[slot].view_p, __ATOMIC_ACQUIRE);
    return quick_fits(view_p) ? view_p : quick_new_view(slot);
}

QUICK_INLINE const quick_view *quick_view_of(int handle)
{
    uint32_t slot = (uint32_t)handle - 1;
    return LIKELY(slot < HEADS) ? quick_view_at(slot) : nullptr;
}

QUICK_INLINE bool quick_key_ok(const shkv_buf *key)
{
    return LIKELY(key && key->ptr && key->len && key->len <= REC_KEY_MAX);
}

QUICK_INLINE bool quick_args_ok(const shkv_buf *key, const shkv_buf *value)
{
    return LIKELY(quick_key_ok(key) && value && (value->ptr || !value->len));
}

// The same of a lookup. A value that is to take its key's place is the full lookup's: a look that starts again
// has copied over the key.
QUICK_INLINE bool quick_room_ok(const shkv_buf *key, const shkv_buf *value)
{
    return quick_args_ok(key, value) && LIKELY(key->ptr != value->ptr);
}

// hash % hashsz without a division: the low half of recip * hash is the fraction that hash leaves,
// in units of 2^-64. Exact for every hash and every hashsz of 32 bits.
QUICK_INLINE uint32_t bucket_by_recip(uint32_t hash, uint64_t recip, uint32_t hashsz)
{
    return (uint32_t)((unsigned __int128)(recip * hash) * hashsz >> 64);
}

// The lengths of most keys get code of their own.
QUICK_INLINE uint32_t quick_hash(const char *key_p, uint32_t key_len)
{
    if (LIKELY(key_len == 16))
        return dekhash16_inline(key_p);
    return key_len == 8 ? dekhash_inline(key_p, 8) : dekhash(key_p, key_len);
}

// Asks for the bucket by the view as it lies there, in force or not: no harm comes of a wrong one.
// Done first of all, so that what the rest of the way in takes passes while the line comes.
// The key's hash by the default function, or QUICK_UNASKED.
QUICK_INLINE uint64_t quick_ask(int handle, const shkv_buf *key)
{
    uint32_t slot = (uint32_t)handle - 1;
    if (UNLIKELY(slot >= HEADS || !quick_key_ok(key)))
        return QUICK_UNASKED;
    const quick_view *view_p = __atomic_load_n(&head_privs[slot].view_p, __ATOMIC_ACQUIRE);
    if (UNLIKELY(view_p->own_hash))
        return QUICK_UNASKED;
    uint32_t hash = quick_hash((const char *)key->ptr, key->len);
    __builtin_prefetch(view_p->md_base + bucket_by_recip(hash, view_p->recip, view_p->hashsz));
    return hash;
}

// asked: what quick_ask gave; the view may have been made for another function since.
QUICK_INLINE const mdn *quick_bucket(const quick_view *view_p, const char *key_p, uint32_t key_len,
                                     uint64_t asked)
{
    uint32_t hash = (uint32_t)asked;
    if (UNLIKELY(view_p->own_hash))
        hash = view_p->hash_fn(key_p, key_len);
    else if (UNLIKELY(asked == QUICK_UNASKED))
        hash = quick_hash(key_p, key_len);
    return view_p->md_base + bucket_by_recip(hash, view_p->recip, view_p->hashsz);
}

// Where a quick walk stands when it has found the key.
struct quick_hit {
    const udn *udn_p; // null when it has not
    uint32_t off;     // of that record; without one, 0 at a chain's end
    uint32_t off_max; // a record above it has its head or its key outside the mapping
    uint32_t sizes;
    uint32_t depth; // records before it
    uint32_t seen;  // mix of their offsets
};

QUICK_INLINE bool quick_equal(const void *a, const void *b, uint32_t len)
{
    const char *a_p = (const char *)a, *b_p = (const char *)b;
    if (LIKELY(len - 8 <= 8)) // 8 to 16, in two words that may overlap
        return ((load64(a_p) ^ load64(b_p)) | (load64(a_p + len - 8) ^ load64(b_p + len - 8))) == 0;
    return memcmp(a_p, b_p, len) == 0;
}

QUICK_INLINE void quick_copy(void *dst, const void *src, uint32_t len)
{
    typedef long long v16 __attribute__((vector_size(16), aligned(1), may_alias));
    char *dst_p = (char *)dst;
    const char *src_p = (const char *)src;
    if (LIKELY(len - 16 <= 16)) {
        v16 head = *(const v16 *)(const void *)src_p, tail = *(const v16 *)(const void *)(src_p + len - 16);
        *(v16 *)(void *)dst_p = head;
        *(v16 *)(void *)(dst_p + len - 16) = tail;
    } else if (len - 8 <= 8) {
        uint64_t head = load64(src_p), tail = load64(src_p + len - 8);
        memcpy(dst_p, &head, 8);
        memcpy(dst_p + len - 8, &tail, 8);
    } else if (len) {
        memcpy(dst_p, src_p, len);
    }
}

// One walk. A record counts only if its head and a key of this length lie in the mapping (of a vector
// its first unit and one more, so that no offset needs the header's word for it). The key has at most
// REC_KEY_MAX bytes, of a vector so few that it ends in the first unit.
QUICK_INLINE quick_hit quick_find(const quick_view *view_p, const mdn *bucket, const char *key_p,
                                  uint32_t key_len, bool vector)
{
    quick_hit hit = {};
    uint32_t key_at = vector ? VEC_HEAD_SZ : UDN_HEAD_SZ;
    hit.off_max = view_p->limit - (vector ? 2 * VEC_UNIT_SZ : UDN_HEAD_SZ + key_len);
    hit.off = get32(&bucket->first_ptr);
    for (; hit.off != 0 && hit.off <= hit.off_max && hit.depth < QUICK_DEPTH; hit.depth++) {
        const udn *udn_p = (const udn *)(const void *)(view_p->ud_base + hit.off);
        if (vector) { // the rest of the first unit, and most likely the second
            __builtin_prefetch((const char *)udn_p + 64);
            __builtin_prefetch((const char *)udn_p + VEC_UNIT_SZ);
            __builtin_prefetch((const char *)udn_p + VEC_UNIT_SZ + 64);
        }
        hit.sizes = udn_sizes(udn_p);
        if ((hit.sizes & 0xffff) == key_len && quick_equal((const char *)udn_p + key_at, key_p, key_len)) {
            hit.udn_p = udn_p;
            return hit;
        }
        hit.seen = walk_mix(hit.seen, hit.off);
        hit.off = get32((const uint32_t *)(const void *)((const char *)udn_p + view_p->link_at));
    }
    return hit;
}

// What walk_holds asks, along the way that the walk took, and that the table is still in force: a
// record of a table that was left behind is reused with its links standing.
QUICK_INLINE bool quick_holds(const quick_view *view_p, const mdn *bucket, const quick_hit *hit_p,
                              uint32_t marks)
{
    // The loads that gave the answer stay ahead of those that vouch for it.
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    uint32_t off = get32(&bucket->first_ptr);
    for (uint32_t left = hit_p->depth; left; left--) {
        if (UNLIKELY(off == 0 || off > hit_p->off_max))
            return false;
        off = get32((const uint32_t *)(const void *)(view_p->ud_base + off + view_p->link_at));
    }
    uint32_t changed = (off ^ hit_p->off) | (udn_sizes(hit_p->udn_p) ^ hit_p->sizes) |
                       (udn_marks(hit_p->udn_p) ^ marks) |
                       ((get32(&view_p->sn->comm_flg) ^ view_p->flg) & view_p->flg_mask);
    return LIKELY(changed == 0);
}

// The whole hit: 0, QUICK_NO or QUICK_MISS.
QUICK_INLINE int quick_look(const quick_view *view_p, const mdn *bucket, const char *key_p, uint32_t key_len,
                            shkv_buf *value)
{
    quick_hit hit = quick_find(view_p, bucket, key_p, key_len, false);
    if (UNLIKELY(!hit.udn_p))
        return hit.off ? QUICK_NO : QUICK_MISS;
    uint32_t marks = udn_marks(hit.udn_p), val_sz = hit.sizes >> 16, size = key_len + val_sz;
    const char *data_p = (const char *)hit.udn_p + UDN_HEAD_SZ;
    uint64_t end = (uint64_t)hit.off + UDN_HEAD_SZ + size;
    if (UNLIKELY((marks & MARKS_DELETED) || val_sz > value->len || end > view_p->limit))
        return QUICK_NO;
    if (UNLIKELY(data_cksum_inline(data_p, size) != MARKS_CKSUM(marks)))
        return QUICK_NO;
    quick_copy(value->ptr, data_p + key_len, val_sz);
    if (UNLIKELY(!quick_holds(view_p, bucket, &hit, marks)))
        return QUICK_NO;
    value->len = val_sz;
    return 0;
}

// The same without a copy and a checksum, whatever mark the record bears.
QUICK_INLINE int quick_look_lite(const quick_view *view_p, const mdn *bucket, const char *key_p,
                                 uint32_t key_len, shkv_buf *value)
{
    quick_hit hit = quick_find(view_p, bucket, key_p, key_len, false);
    if (UNLIKELY(!hit.udn_p))
        return hit.off ? QUICK_NO : QUICK_MISS;
    uint32_t marks = udn_marks(hit.udn_p), val_sz = hit.sizes >> 16;
    uint64_t end = (uint64_t)hit.off + UDN_HEAD_SZ + key_len + val_sz;
    if (UNLIKELY(end > view_p->limit || !quick_holds(view_p, bucket, &hit, marks)))
        return QUICK_NO;
    value->ptr = const_cast<char *>((const char *)hit.udn_p) + UDN_HEAD_SZ + key_len;
    value->len = val_sz;
    return 0;
}

// The walks of a miss, as many as there must be: ENOENT, or QUICK_NO when they do not agree, meet the
// key after all, or end in another state than they began.
int quick_miss(const quick_view *view_p, const mdn *bucket, const char *key_p,
               uint32_t key_len) __attribute__((noinline)); // arms the guard anew
