// shkv_m_lookup: several keys in one call, each with the result that shkv_lookup would give it.
//
// A lookup is mostly a wait for memory: for the bucket, then for the record. Here the lines of all
// keys are asked for before the first is looked at, so that the waits overlap. What the quick look
// does not serve is left to lookups of their own.
#include "shkv_intf/m_lookup.h"

#include <errno.h>
#include "diag/fail.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/quick.h"

#define M_LOOKUP_MAX 32u

struct group_op {
    int handle;
    const shkv_buf *keys;
    shkv_buf *vals;
    int *results; // QUICK_NO where a lookup has to follow
    uint32_t cnt;
};

// Asks for both lines of a record, if its head may be looked at. False when there is none.
QUICK_INLINE bool fetch_record(const quick_view *view_p, uint32_t off)
{
    if (off == 0 || off > view_p->limit - UDN_HEAD_SZ)
        return false;
    __builtin_prefetch(view_p->ud_base + off);
    __builtin_prefetch(view_p->ud_base + off + 64);
    return true;
}

// All buckets, then all first records, then what follows those that are another key's.
QUICK_INLINE void fetch_group(const group_op *op_p, const quick_view *view_p, const mdn **buckets)
{
    uint32_t firsts[M_LOOKUP_MAX];
    for (uint32_t i = 0; i < op_p->cnt; i++) {
        const shkv_buf *key = &op_p->keys[i];
        const char *key_p = quick_room_ok(key, &op_p->vals[i]) ? (const char *)key->ptr : nullptr;
        buckets[i] = key_p ? quick_bucket(view_p, key_p, key->len, QUICK_UNASKED) : nullptr;
        __builtin_prefetch(buckets[i]);
    }
    for (uint32_t i = 0; i < op_p->cnt; i++) {
        firsts[i] = buckets[i] ? get32(&buckets[i]->first_ptr) : 0;
        if (!fetch_record(view_p, firsts[i]))
            firsts[i] = 0;
    }
    for (uint32_t i = 0; i < op_p->cnt; i++) {
        const char *rec_p = view_p->ud_base + firsts[i];
        if (firsts[i] && op_p->keys[i].len >= 8 && firsts[i] <= view_p->limit - UDN_HEAD_SZ - 8 &&
            load64(rec_p + UDN_HEAD_SZ) != load64(op_p->keys[i].ptr))
            fetch_record(view_p, get32((const uint32_t *)(const void *)(rec_p + view_p->link_at)));
    }
}

// Fills in the results that the quick look gives. A fault leaves the rest as it is.
static __attribute__((noinline)) void look_at_group(const group_op *op_p)
{
    const mdn *buckets[M_LOOKUP_MAX];
    GUARD_ARM(faulted);
    {
        const quick_view *view_p = quick_view_of(op_p->handle);
        if (!view_p || view_p->vector)
            return;
        fetch_group(op_p, view_p, buckets);
        for (uint32_t i = 0; i < op_p->cnt; i++) {
            const shkv_buf *key = &op_p->keys[i];
            if (!buckets[i])
                continue;
            op_p->results[i] = quick_look(view_p, buckets[i], (const char *)key->ptr, key->len, &op_p->vals[i]);
            GUARD_HELD(); // a result stands before a later key can fault
        }
    }
faulted:
    return;
}

int shkv_m_lookup(int handle, const shkv_buf *keys, shkv_buf *vals, int *results, uint16_t m_cnt)
{
    if (m_cnt == 0 || m_cnt > M_LOOKUP_MAX || !keys || !vals || !results)
        return fail(nullptr, 0, 0, EINVAL, "shkv_m_lookup, has bad buffer, shkvh:%d", handle);
    group_op op = {handle, keys, vals, results, m_cnt};
    for (uint32_t i = 0; i < m_cnt; i++)
        results[i] = QUICK_NO;
    look_at_group(&op);
    int ret = 0;
    for (uint32_t i = 0; i < m_cnt; i++) {
        if (results[i] < 0)
            results[i] = shkv_lookup(handle, &keys[i], &vals[i]);
        if (ret == 0 && results[i] != 0 && results[i] != ENOENT)
            ret = results[i];
    }
    return ret;
}
