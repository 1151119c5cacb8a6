// Makes the view that quick.h works from.
#include "shkv_intf/quick.h"

#include "shkv_intf/addr.h"

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

// Nothing is remapped or bound here: that is the full lookup's, which comes next.
bool quick_make_view(shkv_head *head, quick_view *view_p)
{
    supernode *sn = head->sn;
    uint32_t flg = get32(&sn->comm_flg);
    put32(&view_p->md_ver_at, 0); // no view, for a thread beside this one, until it is whole again
    if (!is_fixed(sn) || (sn->conf_flg & CONF_SHMAP) || !plain_state(flg, head->access_mode))
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
