// Which link of a record a table's chain runs through, and which bucket a hash falls into.
#pragma once
#include "shkv.h"
#include "shkv_intf/head.h"
#include "shkv_intf/word.h"

static inline uint32_t *chain_link_p(udn *udn_p, bool md1)
{
    return md1 ? &udn_p->md1_next : &udn_p->md2_next;
}

// hash % hashsz. hashsz is read from shared memory: 0 (a damaged store) gives bucket 0.
static inline uint32_t bucket_of(uint32_t hash, uint32_t hashsz)
{
    return hashsz ? hash % hashsz : 0;
}
