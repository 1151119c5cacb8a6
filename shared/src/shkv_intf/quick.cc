// The quick look's cold half: the view and the walks of a miss.
#include "shkv_intf/quick.h"

#include <errno.h>
#include "diag/timer.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_remap.h"

#define QUICK_MIN_SZ 4096u // a mapping that holds any key's offset arithmetic without wrapping

// The bits that tell which table and space to look at. A transaction is its owner's alone, who sees its
// own changes first.
static uint32_t telling_bits(uint32_t access_mode)
{
    const uint32_t txn = CF_TXN | CF_TXN_COMMIT;
    return ~(CF_REFILL1 | CF_REFILL2 | CF_RESH_TOKEN1 | CF_RESH_TOKEN2 |
             (access_mode & SHKV_AM_WRITE ? 0 : txn));
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
    view_p->sn = sn;
    view_p->vector = is_vector(sn);
    view_p->writes = is_fixed(sn) && (head->access_mode & SHKV_AM_WRITE) && !(sn->conf_flg & CONF_MULTIWR);
    view_p->hashsz = get32(&db.desc->hashsz);
    uint32_t md_sz;
    view_p->md_base = md_mapped(db.rec, &md_sz);
    view_p->ud_base = ud_mapped(db.ud, &view_p->limit);
    view_p->hash_fn = bound_fn(db.rec);
    view_p->own_hash = view_p->hash_fn != dekhash;
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

// Who exchanges a mapping takes the view away behind that (mapping.cc), and whoever has put one in force over
// it, or is about to, finds another mapping here.
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

static bool make_view(shkv_head *head, uint32_t slot)
{
    head_priv *priv_p = &head_privs[slot];
    uint32_t cnt = priv_p->view_cnt;
    quick_view *view_p = free_place(slot, cnt);
    if (!view_p || !fill_view(head, view_p))
        return false;
    priv_p->view_cnt++;
    put_in_force_tsc[slot][cnt % VIEWS] = cycles();
    return publish_view(head, priv_p, view_p);
}

// One thread at a time; another one does without. Without the quick guard there is none at all. The
// head's check is that of check_shkv_hdl.
const quick_view *quick_new_view(uint32_t slot)
{
    shkv_head *head = &shkv_db_heads[slot];
    head_priv *priv_p = &head_privs[slot];
    if (!head->sn || !head->access_mode || !guard_quick ||
        __atomic_exchange_n(&priv_p->view_busy, 1, __ATOMIC_ACQUIRE))
        return nullptr;
    bool made = make_view(head, slot);
    put32(&priv_p->view_busy, 0);
    if (!made)
        return nullptr;
    const quick_view *view_p = __atomic_load_n(&priv_p->view_p, __ATOMIC_ACQUIRE);
    return quick_fits(view_p) ? view_p : nullptr;
}

// ---- Misses -------------------------------------------------------------------------------------

int quick_miss(const quick_view *view_p, const mdn *bucket, const char *key_p, uint32_t key_len)
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
        if (walk_enough(walks, steps)) {
            __atomic_thread_fence(__ATOMIC_ACQUIRE); // the walks stay ahead of this last look
            return !out_of_actual_mem && quick_fits(view_p) ? ENOENT : QUICK_NO;
        }
    }
faulted:
    return QUICK_NO;
}
