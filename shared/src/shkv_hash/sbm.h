// The header of a record space: its lists, its reserve, its clock. For both managers.
#pragma once
#include <assert.h>
#include "shkv.h"

// A corrupted header is not handled: the process ends.
static inline void check_sbm_sanity(const sbm *sbm_p)
{
    assert(sbm_p->magichead == (~sbm_p->magictail));
}

// 1 when only the reserve is left and the held and free nodes do not make up for it.
int check_sbm_full(const sbm *sbm_p);

// Moves the marked part of the hold list to the free list.
void sbm_release_hold(sbm *sbm_p, shkv_head *head, uint32_t shared_map);

// After a putnd has linked its nodes: takes a mark, or looks at the clock when it is time.
void sbm_after_put(sbm *sbm_p, shkv_head *head, uint32_t shared_map);
// After a getnd: now and then looks whether the marked nodes have waited long enough.
void sbm_after_get(sbm *sbm_p, shkv_head *head, uint32_t shared_map);
