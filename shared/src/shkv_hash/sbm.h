// The header of a record space: its lists, its reserve, its clock. For both managers.
#pragma once
#include <assert.h>
#include "shkv.h"
#include "shkv_intf/addr.h"

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

// 1 when only the reserve is left and the held and free nodes do not make up for it.
int check_sbm_full(const sbm *sbm_p);

// Moves the marked part of the hold list to the free list.
void sbm_release_hold(sbm *sbm_p, shkv_head *head, uint32_t shared_map);

// Links a chain of cnt nodes, from first to last (whose own link is 0), behind the hold list.
void sbm_hold(sbm *sbm_p, shkv_head *head, uint32_t first_off, uint32_t last_off, uint32_t cnt, bool shared_map);

// After a putnd has linked its nodes: takes a mark, or looks at the clock when it is time.
void sbm_after_put(sbm *sbm_p, shkv_head *head, uint32_t shared_map);
// After a getnd: now and then looks whether the marked nodes have waited long enough.
void sbm_after_get(sbm *sbm_p, shkv_head *head, uint32_t shared_map);

// Moves the end of the used space on. What lay there is the caller's from then on.
void sbm_advance(sbm *sbm_p, uint32_t by_sz);

// The first store into never-used space: link into the node's first word, and every page that the
// node lies in, under the SIGBUS guard. false, and out_of_actual_mem, when a page has no memory.
bool sbm_first_touch(void *node_p, uint32_t link, uint32_t size);
