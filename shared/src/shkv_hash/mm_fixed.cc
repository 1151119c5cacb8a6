// Records of one size: one node each. getnd and putnd take constant time and make no system call;
// nodes come from the free list, then from never-used space at dn_tail.
//
// getnd stores: free_cnt, free_head (or dn_tail), then the node's own words. From free_head on the
// node is on no list, so a writer killed behind that store loses it and nothing else.
#include "shkv_hash/mm_fixed.h"

#include <errno.h>

#include "shkv_hash/sbm.h"
#include "shkv_intf/word.h"

#define HOLD_AT_START 1u  // the hold sentinel counts as held
#define CHK_AT_START 12u
#define UD_FULL_BACK 7u   // of the spare nodes, what ud_full leaves as capacity

static void init_sentinel(sbm *sbm_p, uint32_t off)
{
    udn *node_p = (udn *)((char *)sbm_p + off);
    node_p->unit_next = 0;
    node_p->md1_next = 0;
    node_p->md2_next = 0;
}

// Lays out a fresh header, for both managers. Nobody else looks at the space yet.
void shkv_fixed_mm_init(sbm *sbm_p, uint32_t obj_sz, uint32_t dn_sz, uint32_t maxents)
{
    dn_sz = (dn_sz + 3) & ~3u;
    sbm_p->dn_sz = dn_sz;
    sbm_p->dn_base = sizeof *sbm_p;
    sbm_p->ud_end = obj_sz - (obj_sz - sbm_p->dn_base) % dn_sz;
    sbm_p->ud_full = (int32_t)(sbm_p->ud_end - (shkv_defbuf_sz(maxents) - UD_FULL_BACK) * dn_sz);
    sbm_p->hold_mark = 0;
    sbm_p->mark_tsc = 0;
    sbm_p->free_cnt = 0;
    sbm_p->mark_cnt = 0;
    sbm_p->get_cnt = 0;
    sbm_p->put_cnt = HOLD_AT_START;
    sbm_p->hold_cnt = HOLD_AT_START;
    sbm_p->chk_cnt = CHK_AT_START;
    sbm_p->free_head = sbm_p->free_tail = sbm_p->dn_base;
    init_sentinel(sbm_p, sbm_p->free_head);
    sbm_p->hold_head = sbm_p->hold_tail = sbm_p->dn_base + dn_sz;
    init_sentinel(sbm_p, sbm_p->hold_head);
    put32(&sbm_p->magichead, SHKV_MAGICHEAD);
    put32(&sbm_p->magictail, SHKV_MAGICTAIL);
    put32((uint32_t *)&sbm_p->dn_tail, sbm_p->dn_base + 2 * dn_sz);
}

// A node whose end would fall on ud_end is not given out here, though the vector manager does.
static bool fresh_is_gone(const sbm *sbm_p)
{
    return (uint32_t)sbm_p->dn_tail + sbm_p->dn_sz >= sbm_p->ud_end;
}

static udn *take_free_node(sbm *sbm_p)
{
    if (sbm_p->free_head == sbm_p->free_tail)
        return nullptr;
    udn *node_p = (udn *)((char *)sbm_p + sbm_p->free_head);
    if (sbm_p->free_cnt)
        put32(&sbm_p->free_cnt, sbm_p->free_cnt - 1);
    put32(&sbm_p->free_head, get32(&node_p->unit_next));
    return node_p;
}

static bool is_node(const sbm *sbm_p, uint32_t off)
{
    return off >= sbm_p->dn_base && off < sbm_p->ud_end && sbm_p->ud_end - off >= sbm_p->dn_sz;
}

// Nodes that a reclaimer has listed go behind the free list, uncounted. Its flag in the header goes
// first: killed in between, what is left of the table is lost, and nothing is linked twice. A
// splice that a killed writer left unfinished needs the free list's end as it is; it comes first.
static void take_back_slots(sbm *sbm_p, supernode *sn)
{
    if (!sn || !(get32(&sn->gc_flg) & GC_FLG_TAKE) || !(sbm_p->sbm_flg & SBM_FLG_SLOTS))
        return;
    if (get32(sbm_link_p(sbm_p, nullptr, sbm_p->free_tail, false)))
        return;
    put32(&sbm_p->sbm_flg, sbm_p->sbm_flg & ~SBM_FLG_SLOTS);
    for (const gc_pair &pair : sbm_p->gc_slot) {
        if (pair.busy || !is_node(sbm_p, pair.dn_off))
            continue;
        put32(sbm_link_p(sbm_p, nullptr, pair.dn_off, false), 0);
        put32(sbm_link_p(sbm_p, nullptr, sbm_p->free_tail, false), pair.dn_off);
        put32(&sbm_p->free_tail, pair.dn_off);
    }
    put32(&sn->gc_flg, get32(&sn->gc_flg) & ~GC_FLG_TAKE);
}

// A node that has no memory is abandoned: dn_tail has passed it.
static udn *take_fresh_node(sbm *sbm_p)
{
    if (fresh_is_gone(sbm_p))
        return nullptr;
    udn *node_p = (udn *)((char *)sbm_p + sbm_p->dn_tail);
    sbm_advance(sbm_p, sbm_p->dn_sz);
    return sbm_first_touch(node_p, 0, sbm_p->dn_sz) ? node_p : nullptr;
}

// A reader may still stand on the node: it sees its chain end, and the checksum is off.
static void clear_node(udn *node_p)
{
    put32(&node_p->unit_next, 0);
    put32(&node_p->md1_next, 0);
    put32(&node_p->md2_next, 0);
    put8(&node_p->nd_flg, 0);
}

void *shkv_fixed_getnd(sbm *sbm_p, shkv_head *head, uint32_t, uint32_t *)
{
    check_sbm_sanity(sbm_p);
    if (check_sbm_full(sbm_p))
        return nullptr;
    if (fresh_is_gone(sbm_p) && sbm_p->free_head == sbm_p->free_tail)
        sbm_release_hold(sbm_p, nullptr, 0); // nothing else is left: the wait is cut short
    if (sbm_p->hold_mark == sbm_p->free_tail)
        sbm_release_hold(sbm_p, nullptr, 0); // a killed writer moved nodes over and did not count them
    udn *node_p = take_free_node(sbm_p);
    if (!node_p) {
        take_back_slots(sbm_p, head ? head->sn : nullptr); // for later calls; this one goes on to fresh space
        if (!(node_p = take_fresh_node(sbm_p)))
            return nullptr;
    }
    clear_node(node_p);
    check_sbm_sanity(sbm_p);
    sbm_after_get(sbm_p, nullptr, 0);
    return node_p;
}

void shkv_fixed_putnd(sbm *sbm_p, void *node, shkv_head *, uint32_t)
{
    check_sbm_sanity(sbm_p);
    uint32_t off = (uint32_t)((char *)node - (char *)sbm_p);
    put32(&((udn *)node)->unit_next, 0);
    sbm_hold(sbm_p, nullptr, off, off, 1, false);
    sbm_after_put(sbm_p, nullptr, 0);
}

// Says whether a reclaimer is asked for; getnd does its work.
int shkv_fixed_gc(int, supernode *sn, sbm *sbm_p, uint32_t)
{
    check_sbm_sanity(sbm_p);
    return get32(&sn->gc_flg) & GC_FLG_TAKE ? 0 : EINVAL;
}
