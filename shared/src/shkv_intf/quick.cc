// Makes the view that quick.h works from, and the walks of a miss.
#include "shkv_intf/quick.h"

#include <errno.h>
#include "shkv_intf/addr.h"
#include "shkv_intf/guard.h"

#define QUICK_MIN_SZ 4096u // a mapping that holds any key's offset arithmetic without wrapping

// The states in which one table and one record space say it all, of those bits that tell.
static bool plain_state(uint32_t flg, uint32_t access_mode)
{
    const uint32_t untold = CF_TXN | CF_TXN_COMMIT | CF_REFILL1 | CF_REFILL2 | CF_RESH_TOKEN1 | CF_RESH_TOKEN2;
    if ((flg & CF_TXN) && (access_mode & SHKV_AM_WRITE))
        return false; // the owner sees its own changes first
    switch (flg & ~untold) {
    case CF_MD1 | CF_UD1:
    case CF_MD1 | CF_UD2:
    case CF_MD2 | CF_UD1:
    case CF_MD2 | CF_UD2:
        return true;
    default:
        return false;
    }
}

static uint32_t offset_in(const supernode *sn, const uint32_t *word_p)
{
    return (uint32_t)((const char *)word_p - (const char *)sn);
}

// Without the quick guard there are no views. Nothing is remapped or bound here: that is the full lookup's,
// which comes next.
bool quick_make_view(shkv_head *head, quick_view *view_p)
{
    supernode *sn = head->sn;
    uint32_t flg = get32(&sn->comm_flg);
    put32(&view_p->md_ver_at, 0); // no view, for a thread beside this one, until it is whole again
    if (!guard_quick || !is_fixed(sn) || (sn->conf_flg & CONF_SHMAP) || !plain_state(flg, head->access_mode))
        return false;
    active_db db = {}, none = {};
    get_active_db(&db, &none, head, flg);
    const ud_desc *ud_desc_p = flg & CF_UD1 ? &sn->ud1 : &sn->ud2;
    if (!db.ud || !db.rec->hash_fn)
        return false;
    quick_view view = {};
    view.flg = flg;
    view.md_ver = get32(&db.rec->ver); // stored after what it vouches for
    view.ud_ver = get32(&db.ud->ver);
    view.md_ver_at = offset_in(sn, &db.desc->obj_ver);
    view.ud_ver_at = offset_in(sn, &ud_desc_p->obj_ver);
    view.link_at = flg & CF_MD1 ? offsetof(udn, md1_next) : offsetof(udn, md2_next);
    view.hashsz = get32(&db.desc->hashsz);
    view.limit = db.ud->mapped_sz;
    view.md_base = db.rec->base;
    view.ud_base = (char *)db.ud->map[0];
    view.hash_fn = db.rec->hash_fn == dekhash ? nullptr : db.rec->hash_fn;
    if (!view.md_base || !view.ud_base || view.limit < QUICK_MIN_SZ || view.hashsz == 0 ||
        view.hashsz > db.rec->mapped_sz / sizeof(mdn) || view.md_ver != get32(&db.desc->obj_ver) ||
        view.ud_ver != get32(&ud_desc_p->obj_ver) || get32(&sn->comm_flg) != flg)
        return false;
    view.recip = UINT64_MAX / view.hashsz + 1; // 0 for a single bucket, which gives bucket 0
    uint32_t md_ver_at = view.md_ver_at;
    view.md_ver_at = 0;
    *view_p = view;
    put32(&view_p->md_ver_at, md_ver_at);
    return true;
}

// Whether the store is in the state that the view was made from, and the view still that one: a
// thread beside this one may have made it anew while its fields were read.
static bool still_in_state(const supernode *sn, const quick_view *view_p, const quick_view *then_p)
{
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    const char *base = (const char *)sn;
    return view_p->flg == then_p->flg && view_p->md_ver == then_p->md_ver && view_p->ud_ver == then_p->ud_ver &&
           get32(&view_p->md_ver_at) == then_p->md_ver_at && get32(&sn->comm_flg) == then_p->flg &&
           get32((const uint32_t *)(const void *)(base + then_p->md_ver_at)) == then_p->md_ver &&
           get32((const uint32_t *)(const void *)(base + then_p->ud_ver_at)) == then_p->ud_ver;
}

int quick_miss(const shkv_head *head, const quick_view *view_p, const mdn *bucket, const char *key_p,
               uint32_t key_len)
{
    quick_view then = *view_p;
    uint32_t steps = 0, seen = 0;
    for (uint32_t walks = 1;; walks++) {
        GUARD_ARM(faulted);
        quick_hit hit = quick_find(&then, bucket, key_p, key_len);
        steps += hit.depth + 1;
        if (hit.off != 0 || (walks > 1 && hit.seen != seen))
            return QUICK_NO;
        seen = hit.seen;
        if (walk_enough(walks, steps))
            return still_in_state(head->sn, view_p, &then) ? ENOENT : QUICK_NO;
    }
faulted:
    return QUICK_NO;
}
