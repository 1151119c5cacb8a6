// The quick write: an ordinary add or delete in a fixed store in one piece of code. It stores what
// add.cc and delete.cc store, in their order.
//
// A write is mostly a wait for the bucket and for the record. So the bucket is asked for first of
// all, and the code is short: then the processor reaches the next write's wait while it stands in
// this one's.
//
// It serves a handle whose view is in force (quick.h): one writer, no transaction, no rebuild, no
// reshape, no protection of the record space, no log of calls, no fault that is still to be told. Up
// to the first store everything is only read, under the caller's guard, and what could fault later is
// met there: the words of the chain, and every page of a node that was never used. On QUICK_NO nothing
// is done, or it is to be done again under wr_ksem; the full write begins anew, and says what there is
// to say.
#pragma once
#include "shkv_hash/sbm.h"
#include "shkv_intf/quick.h"

struct quick_write {
    shkv_head *head;
    supernode *sn;
    const quick_view *view_p; // stays as it is, whatever view is made meanwhile
    sbm *sbm_p;
    uint64_t asked;    // what quick_ask gave
    uint32_t *first_p; // the bucket
    uint32_t *link_p;  // leads to old, or ends the chain
    udn *old;          // the record of the same key, or null
    uint32_t old_off;
};

QUICK_INLINE udn *quick_node(const quick_write *op_p, uint32_t off)
{
    return (udn *)(void *)((char *)op_p->sbm_p + off);
}

QUICK_INLINE uint32_t *quick_link(const quick_write *op_p, udn *udn_p)
{
    return (uint32_t *)(void *)((char *)udn_p + op_p->view_p->link_at);
}

// False when the handle or the store is in a state that asks for the full write.
QUICK_INLINE bool quick_write_begin(quick_write *op_p, int handle)
{
    op_p->view_p = quick_view_of(handle);
    if (UNLIKELY(!op_p->view_p || !op_p->view_p->writes))
        return false;
    op_p->head = &shkv_db_heads[handle - 1];
    op_p->sn = op_p->head->sn;
    op_p->sbm_p = (sbm *)(void *)op_p->view_p->ud_base;
    return LIKELY(op_p->head->refill_pos == 0 && !(get32(&op_p->sn->sn_flg) & (SN_DBG_WR | SN_WPROT)) &&
                  !head_privs[handle - 1].wprot && !(shkv_dbg_en | out_of_actual_mem));
}

// Walks to the record of the key, or to the chain's end. False when the walk is too long for here.
QUICK_INLINE bool quick_write_find(quick_write *op_p, const shkv_buf *key)
{
    const quick_view *view_p = op_p->view_p;
    const char *key_p = (const char *)key->ptr;
    uint32_t key_len = key->len, off_max = view_p->limit - UDN_HEAD_SZ - key_len;
    op_p->first_p = op_p->link_p =
        const_cast<uint32_t *>(&quick_bucket(view_p, key_p, key_len, op_p->asked)->first_ptr);
    op_p->old = nullptr;
    for (uint32_t depth = 0; depth < QUICK_DEPTH; depth++) {
        uint32_t off = op_p->old_off = get32(op_p->link_p);
        if (off == 0)
            return true;
        if (UNLIKELY(off > off_max))
            return false;
        udn *udn_p = quick_node(op_p, off);
        if ((udn_sizes(udn_p) & 0xffff) == key_len &&
            quick_equal((const char *)udn_p + UDN_HEAD_SZ, key_p, key_len)) {
            op_p->old = udn_p;
            return true;
        }
        op_p->link_p = quick_link(op_p, udn_p);
    }
    return false;
}

// A node off the free list. The one behind it is asked for: it has most likely left the cache while
// it waited there.
QUICK_INLINE udn *quick_take_free(const quick_write *op_p)
{
    sbm *sbm_p = op_p->sbm_p;
    udn *node_p = quick_node(op_p, sbm_p->free_head);
    if (LIKELY(sbm_p->free_cnt))
        put32(&sbm_p->free_cnt, sbm_p->free_cnt - 1);
    uint32_t next = get32(&node_p->unit_next);
    put32(&sbm_p->free_head, next);
    __builtin_prefetch((char *)sbm_p + next, 1);
    __builtin_prefetch((char *)sbm_p + next + 64, 1);
    return node_p;
}

// A node from never-used space, whose pages are there before it is taken.
QUICK_INLINE udn *quick_take_fresh(const quick_write *op_p)
{
    sbm *sbm_p = op_p->sbm_p;
    uint32_t size = sbm_p->dn_sz;
    if ((uint32_t)sbm_p->dn_tail + size >= sbm_p->ud_end || size > SHKV_PAGE_SIZE ||
        (get32(&op_p->sn->gc_flg) & GC_FLG_TAKE))
        return nullptr;
    udn *node_p = quick_node(op_p, (uint32_t)sbm_p->dn_tail);
    (void)*(volatile char *)node_p;
    (void)((volatile char *)node_p)[size - 1];
    sbm_advance(sbm_p, size);
    return node_p;
}

// Null when the allocator has to look around.
QUICK_INLINE udn *quick_take(const quick_write *op_p)
{
    sbm *sbm_p = op_p->sbm_p;
    check_sbm_sanity(sbm_p);
    if (UNLIKELY(check_sbm_full(sbm_p) || sbm_p->hold_mark == sbm_p->free_tail))
        return nullptr;
    udn *node_p = LIKELY(sbm_p->free_head != sbm_p->free_tail) ? quick_take_free(op_p) : quick_take_fresh(op_p);
    if (UNLIKELY(!node_p))
        return nullptr;
    put32(&node_p->unit_next, 0);
    put32(&node_p->md1_next, 0);
    put32(&node_p->md2_next, 0);
    put8(&node_p->nd_flg, 0);
    sbm_after_get(sbm_p, nullptr, 0);
    return node_p;
}

QUICK_INLINE void quick_hold_old(const quick_write *op_p)
{
    put32(&op_p->old->unit_next, 0);
    sbm_hold(op_p->sbm_p, nullptr, op_p->old_off, op_p->old_off, 1, false);
    sbm_after_put(op_p->sbm_p, nullptr, 0);
}

// Nobody can reach the record yet.
QUICK_INLINE void quick_fill(udn *udn_p, const shkv_buf *key, const shkv_buf *value)
{
    char *data_p = (char *)udn_p + UDN_HEAD_SZ;
    uint32_t key_len = key->len, val_len = value->len;
    quick_copy(data_p, key->ptr, key_len);
    quick_copy(data_p + key_len, value->ptr, val_len);
    udn_p->key_sz = (uint16_t)key_len;
    udn_p->val_sz = (uint16_t)val_len;
    udn_p->cksum = data_cksum_inline(data_p, key_len + val_len);
}

#define QUICK_ONCE_MORE (-4) // the key was there and has gone; the delete is to be made once more

// A write that a reshape began beside is made once more, for it to see.
QUICK_INLINE int quick_write_end(const quick_write *op_p)
{
    return UNLIKELY(get32(&op_p->sn->comm_flg) & CF_RESHAPE) ? QUICK_NO : 0;
}

QUICK_INLINE int quick_add(int handle, const shkv_buf *key, const shkv_buf *value, uint64_t asked)
{
    quick_write op;
    op.asked = asked;
    if (!quick_write_begin(&op, handle) || !quick_args_ok(key, value) || UNLIKELY(key->len > op.sn->maxksz) ||
        UNLIKELY(value->len > op.sn->maxvsz) || !quick_write_find(&op, key))
        return QUICK_NO;
    udn *udn_p = quick_take(&op);
    if (UNLIKELY(!udn_p))
        return QUICK_NO;
    quick_fill(udn_p, key, value);
    uint32_t next = get32(op.old ? quick_link(&op, op.old) : op.first_p);
    put32(quick_link(&op, udn_p), next);
    // Publish. Payload, sizes, cksum and the record's own link are stored above. A reader gets the old
    // chain or the new one, each whole; a replaced record keeps its link, so a reader on it goes on
    // into the same rest. Pairs with get32 in quick_find and walk_chain.
    put32(op.old ? op.link_p : op.first_p, (uint32_t)((char *)udn_p - (char *)op.sbm_p));
    if (op.old)
        quick_hold_old(&op);
    return quick_write_end(&op);
}

QUICK_INLINE int quick_delete(int handle, const shkv_buf *key, uint64_t asked)
{
    quick_write op;
    op.asked = asked;
    if (!quick_write_begin(&op, handle) || !quick_key_ok(key) || !quick_write_find(&op, key) ||
        UNLIKELY(!op.old))
        return QUICK_NO;
    check_sbm_sanity(op.sbm_p);
    // Publish. Readers ahead of the record meet the rest of the chain; one that stands on the record
    // goes on by the record's own link. Pairs with get32 in quick_find and walk_chain.
    put32(op.link_p, get32(quick_link(&op, op.old)));
    quick_hold_old(&op);
    return quick_write_end(&op) ? QUICK_ONCE_MORE : 0;
}
