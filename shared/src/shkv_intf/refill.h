// Moves the records of the table in force into the other one, in slices.
#pragma once
#include "shkv.h"

int shkv_refill_hashtb(shkv_head *head, uint32_t src_hashsz, uint32_t dst_hashsz, shkv_hash_fn fn, mdn *src_md,
                       mdn *dst_md, void *ud_base, uint32_t flags);
// Before a write while refill_pos is not 0: forgets a rebuild whose tables are others by now.
void refill_drop_if_lost(shkv_head *head);
// At the start of an add while refill_pos is not 0. 0, or the value that ends the add.
int shkv_continue_refill_md(shkv_head *head, int handle, void *ring_p);
