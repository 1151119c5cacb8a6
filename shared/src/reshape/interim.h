// The interim list: the writes of a reshape, in the order in which they came, until someone applies
// them to the tables (replay.h). Exported functions are declared in shkv.h. The list knows no
// reshape; it lies in a record space, between two words of its sbm.
#pragma once
#include "shkv.h"
#include "shkv_intf/word.h"

// What the first word of a node tells: a node on the list has one of three odd or half-odd kinds.
// Off it the word is 0 or a list link, and links are multiples of 4.
static inline bool intrm_listed(uint32_t kind)
{
    return kind == INTRM_ADD || kind == INTRM_DEL || kind == INTRM_DEAD;
}

static inline intrm_rec *intrm_at(void *ud, uint32_t off)
{
    return (intrm_rec *)((char *)ud + off);
}

// Key and value of a record of the list, as they lie there.
static inline shkv_buf intrm_key(intrm_rec *rec)
{
    return {(char *)rec + UDN_HEAD_SZ, rec->key_sz};
}

static inline shkv_buf intrm_value(intrm_rec *rec)
{
    return {(char *)rec + UDN_HEAD_SZ + rec->key_sz, rec->val_sz};
}

// shkv_interimlst_lookup by a reader who has limit bytes of the space mapped.
udn *interim_find(supernode *sn, const shkv_buf *key, void *ud, uint32_t limit);

// The rest is for the holder of wr_ksem.

// True without a list, and for one that holds its dead node alone.
bool interim_empty(void *ud);
// The oldest record, or null when the list is empty.
intrm_rec *interim_oldest(void *ud);
// Takes the oldest record off: the tables have it, or whoever calls drops it.
void interim_pop(shkv_head *head, void *ud);
// Drops what is left of an earlier reshape.
void interim_discard(shkv_head *head, void *ud);
