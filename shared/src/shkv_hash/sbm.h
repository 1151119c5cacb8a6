// The header of a record space: its lists, its reserve, its clock. For both managers.
#pragma once
#include <assert.h>
#include "shkv.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/word.h"

#define MARK_PUTS 9u // putnd calls after which a mark is taken
#define CHK_STEP 5u
#define GET_MARKED 30u // marked nodes from which getnd looks at the clock
#define GET_STEP 24u

// A corrupted header is not handled: the process ends.
static inline void check_sbm_sanity(const sbm *sbm_p)
{
    assert(sbm_p->magichead == (~sbm_p->magictail));
}

// The list link of a node: its first word, unit_next of a record.
static inline uint32_t *sbm_link_p(sbm *sbm_p, shkv_head *head, uint32_t off, bool shared_map)
{
    return (uint32_t *)ud_addr(head, sbm_p, off, shared_map);
}

// True when only the reserve is left and the held and free nodes do not make up for it. The reserve
// beyond ud_full is room for nodes that wait, not capacity.
static inline bool check_sbm_full(const sbm *sbm_p)
{
    if (sbm_p->dn_tail <= sbm_p->ud_full)
        return false;
    // As many nodes, less one, as lie whole beyond ud_full; of none at all that is far more.
    uint32_t cnt = sbm_p->mark_cnt + sbm_p->hold_cnt + sbm_p->free_cnt - 1;
    return ((uint64_t)cnt + 1) * sbm_p->dn_sz <= (uint32_t)(sbm_p->dn_tail - sbm_p->ud_full);
}

// The two that are needed now and then: starts the wait of all that is held; whether it is over.
void sbm_take_mark(sbm *sbm_p) __attribute__((cold));
bool sbm_wait_is_over(const sbm *sbm_p);

// Moves the marked part of the hold list to the free list.
void sbm_release_hold(sbm *sbm_p, shkv_head *head, uint32_t shared_map);

// Links a chain of cnt nodes, from first to last (whose own link is 0), behind the hold list. Link
// first, tail second: a chain that was linked and is not the tail yet is overwritten by the next one,
// and lost. The other way round the list would end before its tail.
static inline void sbm_hold(sbm *sbm_p, shkv_head *head, uint32_t first_off, uint32_t last_off, uint32_t cnt,
                            bool shared_map)
{
    put32(sbm_link_p(sbm_p, head, sbm_p->hold_tail, shared_map), first_off);
    put32(&sbm_p->hold_tail, last_off);
    put32(&sbm_p->hold_cnt, sbm_p->hold_cnt + cnt);
    put32(&sbm_p->put_cnt, sbm_p->put_cnt + 1);
}

// After a putnd has linked its nodes: takes a mark, or looks at the clock when it is time.
static inline void sbm_after_put(sbm *sbm_p, shkv_head *head, uint32_t shared_map)
{
    if (sbm_p->put_cnt > MARK_PUTS && sbm_p->hold_mark == 0) {
        sbm_take_mark(sbm_p);
        return;
    }
    if (sbm_p->put_cnt < sbm_p->chk_cnt)
        return;
    if (sbm_wait_is_over(sbm_p))
        sbm_release_hold(sbm_p, head, shared_map);
    else
        sbm_p->chk_cnt += CHK_STEP;
}

// After a getnd: now and then looks whether the marked nodes have waited long enough.
static inline void sbm_after_get(sbm *sbm_p, shkv_head *head, uint32_t shared_map)
{
    if (sbm_p->mark_cnt < GET_MARKED)
        return;
    sbm_p->get_cnt++;
    if (sbm_p->get_cnt % GET_STEP == 0 && sbm_wait_is_over(sbm_p)) {
        sbm_release_hold(sbm_p, head, shared_map);
        sbm_p->get_cnt = 0;
    }
}

// Moves the end of the used space on. What lay there is the caller's from then on.
static inline void sbm_advance(sbm *sbm_p, uint32_t by_sz)
{
    put32((uint32_t *)&sbm_p->dn_tail, (uint32_t)sbm_p->dn_tail + by_sz);
}

// The first store into never-used space: link into the node's first word, and every page that the
// node lies in, under the SIGBUS guard. false, and out_of_actual_mem, when a page has no memory.
bool sbm_first_touch(void *node_p, uint32_t link, uint32_t size);
