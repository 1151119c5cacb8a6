// The trace ring of a store: 16-byte records that outlive the process that wrote them.
// A null ring is skipped. Nothing here takes another lock than the ring's own.
#pragma once
#include "shkv.h"

void trace_one(void *ring_p, uint32_t event, uint32_t arg) __attribute__((cold));
// A pair under one lock; the second record carries arg2, and word3 in its third word.
void trace_pair(void *ring_p, uint32_t event, uint32_t arg, uint32_t arg2, uint32_t word3) __attribute__((cold));

// The ring of a mapped supernode.
static inline void *ring_of(supernode *sn)
{
    return (char *)sn + SHKV_PAGE_SIZE;
}
