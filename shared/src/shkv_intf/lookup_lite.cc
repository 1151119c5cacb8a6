// shkv_lookup_lite: a pointer to the value where it lies, for a fixed-mode store that is read at a
// high rate. No copy and no checksum; it knows no deleted mark, no reshape, no transaction and no
// UD2. The bytes can change under the caller. All that is meant.
#include "shkv_intf/lookup_lite.h"

#include <errno.h>
#include <sys/mman.h>
#include "diag/fail.h"
#include "diag/trace.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/quick.h"
#include "shkv_intf/walk.h"

#define LOOK_AGAIN (-1)

static __attribute__((noinline)) bool holds_guarded(const chain_walk *walk_p)
{
    GUARD(faulted);
    {
        bool holds = walk_holds(walk_p);
        GUARD_HELD();
        return holds;
    }
faulted:
    return false;
}

static int look(shkv_head *head, int shkvh, const shkv_buf *key, shkv_buf *value)
{
    supernode *sn = head->sn;
    void *ring_p = ring_of(sn);
    uint32_t flg = get32(&sn->comm_flg);
    if (flg & CF_DESTROYED) // the message names add; intended
        return fail(ring_p, 0x10, (uint32_t)shkvh, EBADF, "shkv_add, the db has been destroyed, shkvh:%d",
                    shkvh);
    int ret = check_hdmd_remap(head, flg, shkvh, PROT_READ, ring_p);
    if (ret != 0)
        return fail(ring_p, 0x74, (uint32_t)ret, ret, "shkv_lookup, check_hdmd_remap failed %d", ret);
    const md_desc *desc = flg & CF_MD1 ? &sn->md1 : &sn->md2;
    const md_rec *rec = flg & CF_MD1 ? &head->md1 : &head->md2;
    const ud_map *ud = head->ud1_map;
    shkv_hash_fn hash_fn = bound_fn(rec);
    if (!hash_fn)
        return fail(ring_p, 0x75, (uint32_t)shkvh, EINVAL, "shkv_lookup, hashfunc is not inited, shkvh:%d\n",
                    shkvh);
    uint32_t md_ver = get32(&rec->ver), md_sz, limit = 0; // the version, then what it says is mapped
    const mdn *md_base = md_mapped(rec, &md_sz);
    char *ud_base = ud ? ud_mapped(ud, &limit) : nullptr;
    if (!md_base || !ud_base)
        return get32(&desc->obj_ver) != md_ver || (ud && get32(&sn->ud1.obj_ver) != get32(&ud->ver))
                   ? LOOK_AGAIN
                   : ENOMEM;
    uint32_t bkt = bucket_of(hash_fn(key->ptr, key->len), get32(&desc->hashsz));
    if (bkt >= md_sz / sizeof(mdn))
        return LOOK_AGAIN; // a mapping that is out of step
    chain_walk walk;
    walk_init(&walk, head, rec, md_base + bkt, ud_base, key->ptr, key->len, limit, ring_p);
    if (!walk_find(&walk)) {
        if (out_of_actual_mem) { // no other mapping brings that memory
            out_of_actual_mem = 0;
            return ENOMEM;
        }
        bool moved = get32(&sn->comm_flg) != flg || get32(&desc->obj_ver) != md_ver;
        return walk.err == ENOMEM || moved ? LOOK_AGAIN : ENOENT;
    }
    if (!holds_guarded(&walk))
        return LOOK_AGAIN;
    value->ptr = (char *)walk.udn_p + UDN_HEAD_SZ + key->len;
    value->len = walk.sizes >> 16;
    return 0;
}

static __attribute__((noinline)) int lite_in_full(int handle, const shkv_buf *key, shkv_buf *value)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    void *ring_p = ring_of(head->sn);
    uint32_t arg = (uint32_t)handle;
    if (!is_fixed(head->sn)) // only there can a pointer stand for a value
        return fail(ring_p, 0x11, arg, ENOMEM, nullptr);
    if (!key || !value)
        return fail(ring_p, 0x12, arg, EINVAL, "shkv_lookup, has bad buffer, shkvh:%d\n", handle);
    if (key->len == 0 || !key->ptr)
        return fail(ring_p, 0x15, arg, EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d\n", handle);
    // No limit: round it goes until the remap succeeds, the key is found or missed, or the store
    // is destroyed.
    for (;;) {
        int ret = look(head, handle, key, value);
        if (ret != LOOK_AGAIN)
            return ret;
    }
}

// The hit of a store in the common state, as in shkv_lookup.
int shkv_lookup_lite(int handle, const shkv_buf *key, shkv_buf *value)
{
    volatile int handle_arg = handle;
    const shkv_buf *volatile key_arg = key;
    shkv_buf *volatile value_arg = value;
    GUARD_ARM(in_full);
    {
        key = key_arg;
        value = value_arg;
        const quick_view *view_p = quick_view_of(handle_arg);
        if (LIKELY(view_p && (view_p->flg & CF_UD1) && !view_p->vector && value && quick_key_ok(key))) {
            const char *key_p = (const char *)key->ptr;
            uint32_t key_len = key->len;
            const mdn *bucket = quick_bucket(view_p, key_p, key_len, QUICK_UNASKED);
            int ret = quick_look_lite(view_p, bucket, key_p, key_len, value);
            if (LIKELY(ret == 0))
                return 0;
            if (ret == QUICK_MISS && quick_miss(view_p, bucket, key_p, key_len) == ENOENT)
                return ENOENT;
        }
    }
in_full:
    return lite_in_full(handle_arg, key_arg, value_arg);
}
