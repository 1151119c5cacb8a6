// What an add does when the allocator has nothing left.
#pragma once
#include "shkv.h"

// Grows the record space and the table behind it. 0: start the add over, from the snapshot. ENOMEM:
// the store is full. flg is the add's snapshot; locked: wr_ksem is held, and is taken otherwise.
int add_make_room(shkv_head *head, uint32_t flg, bool locked, void *ring_p);
