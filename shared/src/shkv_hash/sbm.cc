// The two lists of a record space. The writer alone calls this; what protects the readers that may
// still stand on a freed node is the time it spends on the hold list.
//
// A writer can be killed between any two stores here, and the next one goes on with what it finds.
// So the stores go through put32, in an order that keeps at every point:
//   - a node is reachable from one list head at most, and from neither once it is handed out;
//   - each head leads to its tail, and hold_mark is 0 or lies on the way (a splice cut in the
//     middle is the exception: its stores tell how far it came, and the next one goes on there);
//   - free_cnt and mark_cnt count no more nodes than there are: a count goes down before nodes
//     leave a list and up after they have come. Killed in between, a count stays too low and a few
//     nodes are out of use; no later writer runs off the end of a list.
#include "shkv_hash/sbm.h"

#include "diag/timer.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/word.h"

#define MARK_WAIT_MS 50u
#define CHK_FIRST 12u

// Stamps keep the low 32 bits. When these have wrapped the difference is enormous and the wait
// counts as over. Intended.
bool sbm_wait_is_over(const sbm *sbm_p)
{
    return timer_reached_msec((uint32_t)cycles(), sbm_p->mark_tsc, MARK_WAIT_MS);
}

// Starts the wait of all that is held. hold_mark goes in behind the stamp and the counts, since it
// makes them count; hold_cnt is cleared before it, so that no node is counted twice. put_cnt stays
// above its limit until the end: cut short before hold_mark, the next putnd takes the mark again.
void sbm_take_mark(sbm *sbm_p)
{
    sbm_p->mark_tsc = (uint32_t)cycles();
    put16(&sbm_p->chk_cnt, CHK_FIRST);
    put32(&sbm_p->mark_cnt, sbm_p->hold_cnt);
    put32(&sbm_p->hold_cnt, 0);
    put32(&sbm_p->hold_mark, sbm_p->hold_tail);
    put32(&sbm_p->put_cnt, 0);
}

// The hold list keeps a last node: the first one becomes it. Killed in between, that node is lost.
static void rotate_hold(sbm *sbm_p, shkv_head *head, bool shared_map)
{
    uint32_t off = sbm_p->hold_head;
    uint32_t *link_p = sbm_link_p(sbm_p, head, off, shared_map);
    if (sbm_p->mark_cnt) // 0 only where a killed writer left it too low
        put32(&sbm_p->mark_cnt, sbm_p->mark_cnt - 1);
    put32(&sbm_p->hold_head, get32(link_p)); // first: nothing leads to the node any more
    put32(link_p, 0);
    put32(sbm_link_p(sbm_p, head, sbm_p->hold_tail, shared_map), off);
    put32(&sbm_p->hold_tail, off);
    put32(&sbm_p->hold_cnt, sbm_p->hold_cnt + 1);
}

// Hangs hold_head to hold_mark behind the free list; the old sentinel becomes an ordinary node and
// hold_mark's the new one. A splice that a killed writer began shows in its stores, and only the
// rest is done: the sentinel has a link while hold_head is still its target (begun) or is not
// (hold_head has moved), and hold_mark is the sentinel from then on. mark_cnt is 0 as soon as
// free_cnt may have it, so that it is added once.
static void splice_marked(sbm *sbm_p, shkv_head *head, bool shared_map)
{
    uint32_t mark_off = sbm_p->hold_mark;
    uint32_t *mark_link_p = sbm_link_p(sbm_p, head, mark_off, shared_map);
    if (sbm_p->free_tail != mark_off) {
        uint32_t *end_p = sbm_link_p(sbm_p, head, sbm_p->free_tail, shared_map);
        if (get32(end_p) == 0 || get32(end_p) == sbm_p->hold_head) {
            put32(end_p, sbm_p->hold_head);
            put32(&sbm_p->hold_head, get32(mark_link_p));
        }
        put32(&sbm_p->free_tail, mark_off);
    }
    put32(mark_link_p, 0);
    uint32_t cnt = sbm_p->mark_cnt;
    put32(&sbm_p->mark_cnt, 0);
    put32(&sbm_p->free_cnt, sbm_p->free_cnt + cnt);
    put32(&sbm_p->hold_mark, 0);
}

static void release_marked(sbm *sbm_p, shkv_head *head, bool shared_map)
{
    if (sbm_p->hold_tail == sbm_p->hold_mark) {
        if (sbm_p->hold_head == sbm_p->hold_mark)
            return; // the only node held stays
        rotate_hold(sbm_p, head, shared_map);
    }
    if (sbm_p->hold_mark)
        splice_marked(sbm_p, head, shared_map);
    check_sbm_sanity(sbm_p);
}

void sbm_release_hold(sbm *sbm_p, shkv_head *head, uint32_t shared_map)
{
    check_sbm_sanity(sbm_p);
    release_marked(sbm_p, head, shared_map);
    put32(&sbm_p->mark_cnt, 0);
    put16(&sbm_p->chk_cnt, CHK_FIRST);
    put32(&sbm_p->hold_mark, 0);
    sbm_p->mark_tsc = 0;
    if (sbm_p->put_cnt > MARK_PUTS)
        sbm_take_mark(sbm_p);
}

// Comes back here when a page has no memory behind it. No local changes after the guard is armed.
bool sbm_first_touch(void *node_p, uint32_t link, uint32_t size)
{
    if (sigsetjmp(sigbus_jmp, 0)) {
        out_of_actual_mem = 1;
        return false;
    }
    put32((uint32_t *)node_p, link);
    volatile uint8_t *end_p = (uint8_t *)node_p + size;
    for (volatile uint8_t *page_p = end_p - 1; page_p > node_p; page_p -= SHKV_PAGE_SIZE)
        *page_p = *page_p;
    return true;
}
