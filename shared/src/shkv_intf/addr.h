// Offsets to addresses, and the tables in force (exported parts are declared in shkv.h).
#pragma once
#include "shkv.h"
#include "shkv_intf/word.h"

// True when a record space is mapped in chunks, so that an offset needs shkv_ud_offset_to_addr. It
// goes by the mapping that was made, not by what the store's flags say by now: a byte that somebody
// damages there must not change how offsets are taken.
static inline bool is_shared_map(const shkv_head *head)
{
    return head->map0_sz != 0 && !(head->access_mode & SHKV_AM_RESHAPE);
}

static inline void *ud_addr(shkv_head *head, void *ud_base, uint32_t off, bool shared_map)
{
    return shared_map ? shkv_ud_offset_to_addr(head, off) : (char *)ud_base + off;
}

// What a vector record's offsets are multiples of, at least: in chunks the unit, so that one lies in one
// chunk; else its words.
static inline uint32_t unit_step(bool shared_map)
{
    return shared_map ? VEC_UNIT_SZ : (uint32_t)sizeof(uint32_t);
}

static inline bool is_fixed(const supernode *sn)
{
    return (sn->conf_flg & CONF_MM_MASK) == CONF_FIXEDMM;
}

static inline bool is_vector(const supernode *sn)
{
    return (sn->conf_flg & CONF_MM_MASK) == CONF_VECTORMM;
}

// Maps with the transaction's table in the primary's place when the snapshot has CF_TXN.
static inline void use_txn_table(active_db *db_p, shkv_head *head)
{
    db_p->desc = &head->sn->md_txn;
    db_p->rec = &head->md_txn;
}
