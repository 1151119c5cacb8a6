// Add: stores a key and a value, and replaces the record when the key exists.
//
// What a reader is promised: it sees the old record or the new one, each whole. A record is never
// changed in place; the new one is built beside the old one and linked in its stead. The stores of
// one add, in this order:
//   1. payload, sizes, cksum of the new record          nobody looks at it yet
//   2. its own link: that of the old record, or the bucket's first_ptr
//   3. one put32 of its offset into the link before it  the publish
//   4. the same two for the target of a running rebuild (rehash.cc)
//   5. the old record goes to the hold list, and stays readable for 50 ms at least
// A writer that dies before 3 has changed nothing but the allocator's lists: the new record is lost
// space. One that dies between 3 and 5 leaks the old record. Between 3 and 4 the refill bit is set,
// and the next write open rebuilds the table from nothing.
//
// Most adds are quick_add's (quick_write.h), which makes the same stores in the same order; what it
// leaves begins anew here.
//
// A store that is full grows here (add_room.cc), and the add starts over. While a reshape moves the
// tables, the add is left to it (reshape/replay.cc), under wr_ksem.
#include "shkv_intf/add.h"

#include <errno.h>
#include <string.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "reshape/replay.h"
#include "shkv_hash/sbm.h"
#include "shkv_intf/add_room.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/quick_write.h"
#include "shkv_intf/record.h"
#include "shkv_intf/refill.h"
#include "shkv_intf/rehash.h"
#include "shkv_intf/walk.h"
#include "shkv_intf/wprot.h"
#include "shkv_intf/writer.h"

namespace {

enum : uint16_t {
    ADD_PLAIN = 0,
    ADD_TOMBSTONE = 1,   // a staged delete
    ADD_RESHAPE_NEW = 0x88, // the reshaper's, into the new tables
    ADD_RESHAPE_OLD = 0x99, // the reshaper's, into the old ones
};

struct add_op {
    shkv_head *head;
    supernode *sn;
    void *ring_p;
    int handle;
    const shkv_buf *key, *value;
    udn *node; // ready-made record, or null
    uint16_t mode;
    bool shared_map;
    bool locked; // wr_ksem is held

    uint32_t flg; // comm_flg, read once; every decision goes by it
    writer_tables tables;

    const md_desc *desc; // the table and the record space in hand
    md_rec *rec;
    ud_map *ud;
    char *ud_base;
    bool link_md1; // the chain runs through md1_next
    uint32_t idx;
    mdn *bucket;

    udn *old, *prev; // the record of the same key and its predecessor, or null
    uint32_t old_off;
    udn *fresh;
    uint32_t fresh_off;
};

sbm *sbm_of(const add_op *op_p)
{
    return (sbm *)op_p->ud_base;
}

int check_store(const add_op *op_p)
{
    int shkvh = op_p->handle;
    uint32_t am = op_p->head->access_mode, sn_flg = get32(&op_p->sn->sn_flg);
    if (!(am & (SHKV_AM_WRITE | SHKV_AM_RESHAPE)))
        return fail(op_p->ring_p, 0x62, shkvh, EINVAL, "shkv_add, write is not allowed, shkvh:%d", shkvh);
    if ((sn_flg & SN_DBG_WR) && !(am & SHKV_AM_DBG))
        return fail_pair(op_p->ring_p, 0x63, shkvh, sn_flg, EINVAL,
                         "shkv_add, write dbg is on-going, shkvh:%d", shkvh);
    return 0;
}

int check_buffers(const add_op *op_p)
{
    void *ring_p = op_p->ring_p;
    const shkv_buf *key = op_p->key, *value = op_p->value;
    int shkvh = op_p->handle;
    if (!key || !value)
        return fail(ring_p, 0x64, shkvh, EINVAL, "shkv_add, has bad buffer, shkvh:%d", shkvh);
    if (key->len == 0 || !key->ptr)
        return fail(ring_p, 0x65, shkvh, EINVAL, "shkv_add, key buffer size is 0, shkvh:%d", shkvh);
    if (value->len != 0 && !value->ptr)
        return fail(ring_p, 0x66, shkvh, EINVAL, "shkv_add, value buffer is invalid, shkvh:%d", shkvh);
    return 0;
}

// A fixed store's own limits, then those of every store.
int check_sizes(const add_op *op_p)
{
    void *ring_p = op_p->ring_p;
    const supernode *sn = op_p->sn;
    uint32_t klen = op_p->key->len, vlen = op_p->value->len;
    int shkvh = op_p->handle;
    bool fixed = sn->conf_flg & CONF_FIXEDMM;
    if (fixed && klen > sn->maxksz)
        return fail_pair(ring_p, 0x67, shkvh, klen, EINVAL,
                         "shkv_add, key buffer size is too big, shkvh:%d", shkvh);
    if (fixed && vlen > sn->maxvsz)
        return fail_pair(ring_p, 0x68, shkvh, vlen, EINVAL,
                         "shkv_add, value buffer is too big, shkvh:%d", shkvh);
    if (klen > REC_KEY_MAX)
        return fail_pair(ring_p, 0x70, klen, REC_KEY_MAX, EINVAL, "shkv_add, key size is too big:%d",
                         (int)klen);
    if (vlen > REC_VALUE_MAX)
        return fail_pair(ring_p, 0x71, vlen, REC_VALUE_MAX, EINVAL, "shkv_add, value size is too big:%d",
                         (int)vlen);
    return 0;
}

// The store as it is now: state, mappings in step with it, tables in force. Under a reshape that is
// read anew with wr_ksem held.
int take_snapshot(add_op *op_p)
{
    op_p->flg = get32(&op_p->sn->comm_flg);
    if (op_p->flg & CF_DESTROYED)
        return fail(op_p->ring_p, 0x69, op_p->handle, EBADF,
                    "shkv_add, the db has been destroyed, shkvh:%d", op_p->handle);
    if ((op_p->flg & CF_RESHAPE) && !op_p->locked)
        return WRITE_BEHIND_LOCK;
    int result = check_hdmd_remap(op_p->head, op_p->flg, op_p->handle, 3, op_p->ring_p);
    if (result != 0)
        return fail(op_p->ring_p, 0x6A, result, result, "shkv_add failed in check_hdmd_remap %d", result);
    tables_of(&op_p->tables, op_p->head, op_p->flg);
    if (op_p->flg & CF_TXN)
        use_txn_table(&op_p->tables.pri, op_p->head);
    return 0;
}

// While a reshape moves the tables, writes are only noted, for the reshaper to replay.
bool goes_to_interim(const add_op *op_p)
{
    return (op_p->flg & CF_RESHAPE) && op_p->mode != ADD_RESHAPE_OLD && op_p->mode != ADD_RESHAPE_NEW;
}

int choose_table(add_op *op_p)
{
    const writer_tables *tables_p = &op_p->tables;
    bool primary = op_p->mode == ADD_RESHAPE_OLD || op_p->mode <= ADD_TOMBSTONE;
    if (!primary && !(op_p->flg & CF_RESHAPE_DRAIN) && op_p->mode != ADD_RESHAPE_NEW)
        return fail(op_p->ring_p, 0x6B, op_p->handle, EINVAL, "shkv_add, bad mode config, shkvh:%d",
                    op_p->handle);
    const active_db *db_p = primary ? &tables_p->pri : &tables_p->sec;
    op_p->desc = db_p->desc;
    op_p->rec = db_p->rec;
    op_p->ud = primary ? tables_p->pri.ud : second_ud(tables_p);
    op_p->ud_base = (char *)base_of(op_p->ud);
    if (!op_p->rec || !op_p->rec->hash_fn)
        return fail(op_p->ring_p, 0x6C, op_p->handle, EINVAL, "shkv_add, hashfunc is not inited, shkvh:%d",
                    op_p->handle);
    // By CF_MD1 and by whether the table is MD_TXN, not by which of MD1 and MD2 is in hand. In a
    // reshape both bits are set, so MD2 takes md1_next here too; the walk does not. Intended; what
    // the walk follows is threaded beside it.
    bool txn = op_p->rec == &op_p->head->md_txn;
    op_p->link_md1 = (op_p->flg & CF_MD1 ? true : false) != txn;
    return 0;
}

// Finds the record of the same key. The walk reads the bucket under the SIGBUS guard. Tables are
// sparse, but a read of a page in a shared mapping of a memory file allocates it as a store does, so
// the publish into this bucket, later and without a guard, cannot fault.
int find_old(add_op *op_p)
{
    op_p->idx = bucket_of(op_p->rec->hash_fn(op_p->key->ptr, op_p->key->len), get32(&op_p->desc->hashsz));
    op_p->bucket = bucket_at(op_p->rec, op_p->idx);
    if (!op_p->bucket || !op_p->ud_base)
        return ENOMEM; // mapping out of step, or lost in a failed growth
    op_p->old = op_p->prev = nullptr;
    op_p->old_off = 0;
    if (!bucket_find_udn(op_p->head, op_p->rec->base, op_p->bucket, &op_p->old, op_p->key->ptr, &op_p->key->len,
                         op_p->ud_base, &op_p->prev, 0, nullptr, &op_p->old_off, nullptr)) {
        op_p->old = nullptr;
        if (!out_of_actual_mem)
            return 0;
        out_of_actual_mem = 0;
        return fail(nullptr, 0, 0, ENOMEM, "shkv_add out of actual mem bucket_find_udn");
    }
    if (!op_p->shared_map)
        op_p->old_off = (uint32_t)((char *)op_p->old - op_p->ud_base);
    LOG("%s: found existing node with the same key (size:%d)\n", "__shkv_add",
        op_p->old->key_sz + op_p->old->val_sz);
    return 0;
}

int lift_protection(const add_op *op_p)
{
    if ((wprot_asked(op_p->head) || wprot_closed(op_p->head)) && wprot_lift(op_p->head, op_p->ud) != 0)
        return fail(op_p->ring_p, 0x6D, errno, EINVAL, "shkv_add, write protect failed, errno:%d", errno);
    return 0;
}

int restore_protection(const add_op *op_p)
{
    if (wprot_asked(op_p->head) && wprot_restore(op_p->head, op_p->ud) != 0)
        return fail(op_p->ring_p, 0x72, errno, EINVAL, "shkv_add, write protect failed, errno:%d", errno);
    return 0;
}

// True with the record in hand: the caller's, or a new one.
bool take_record(add_op *op_p)
{
    op_p->fresh = op_p->node;
    if (!op_p->fresh)
        op_p->fresh = (udn *)op_p->head->getnd(sbm_of(op_p), op_p->head, op_p->key->len + op_p->value->len,
                                               &op_p->fresh_off);
    if (op_p->fresh && (op_p->node || !op_p->shared_map))
        op_p->fresh_off = (uint32_t)((char *)op_p->fresh - op_p->ud_base);
    return op_p->fresh != nullptr;
}

void fill_fixed(const add_op *op_p)
{
    udn *udn_p = op_p->fresh;
    char *data = (char *)udn_p + UDN_HEAD_SZ;
    uint32_t klen = op_p->key->len, vlen = op_p->value->len;
    memcpy(data, op_p->key->ptr, klen);
    udn_p->key_sz = (uint16_t)klen;
    if (vlen)
        memcpy(data + klen, op_p->value->ptr, vlen);
    udn_p->val_sz = (uint16_t)vlen;
}

// Units of a failed write are lost to the store; nothing has been published.
int fill_vector(const add_op *op_p)
{
    udn *udn_p = op_p->fresh;
    int klen = (int)op_p->key->len, vlen = (int)op_p->value->len;
    int err = shkv_dv_write(op_p->ud_base, udn_p, REC_KEY, op_p->key->ptr, klen, op_p->head, op_p->shared_map,
                            op_p->fresh_off);
    if (err != 0)
        return fail(op_p->ring_p, 0x6E, err, err, "failed to write key: err 0x%x, key size %d",
                    (unsigned)err, klen);
    udn_p->key_sz = (uint16_t)klen;
    err = shkv_dv_write(op_p->ud_base, udn_p, REC_VALUE, op_p->value->ptr, vlen, op_p->head,
                        op_p->shared_map, 0);
    if (err != 0)
        return fail(op_p->ring_p, 0x6F, err, err, "failed to write value: err 0x%x, val sz %d",
                    (unsigned)err, vlen);
    udn_p->val_sz = (uint16_t)vlen;
    return 0;
}

// Plain stores throughout: no other process can reach the record yet.
int fill_record(const add_op *op_p)
{
    udn *udn_p = op_p->fresh;
    if (is_fixed(op_p->sn)) {
        fill_fixed(op_p);
    } else if (is_vector(op_p->sn)) {
        int result = fill_vector(op_p);
        if (result != 0)
            return result;
    } else {
        udn_p->key_sz = (uint16_t)op_p->key->len;
        udn_p->val_sz = (uint16_t)op_p->value->len;
    }
    udn_p->cksum = record_cksum(op_p->ud_base, udn_p, op_p->head, op_p->shared_map);
    return 0;
}

// In a reshape, for the walk of MD2. Of a record in the middle of its chain this is the publish.
void thread_md2(const add_op *op_p)
{
    put32(&op_p->fresh->md2_next, get32(op_p->old ? &op_p->old->md2_next : &op_p->bucket->first_ptr));
    if (op_p->old && op_p->prev)
        put32(&op_p->prev->md2_next, op_p->fresh_off);
}

void publish(const add_op *op_p)
{
    udn *fresh = op_p->fresh;
    if (op_p->mode == ADD_TOMBSTONE)
        fresh->nd_flg |= UDN_DELETED;
    uint32_t *before_p = op_p->old && op_p->prev ? chain_link_p(op_p->prev, op_p->link_md1)
                                                 : &op_p->bucket->first_ptr;
    uint32_t next = get32(op_p->old ? chain_link_p(op_p->old, op_p->link_md1) : &op_p->bucket->first_ptr);
    put32(chain_link_p(fresh, op_p->link_md1), next);
    if (__builtin_expect((op_p->flg & CF_RESHAPE) && op_p->rec == &op_p->head->md2, 0))
        thread_md2(op_p);
    // Publish. Payload, sizes, cksum and the record's own link are stored above. A reader gets the
    // old chain or the new one, each whole; a replaced record keeps its link, so a reader on it
    // goes on into the same rest. Pairs with get32 in bucket_find_udn.
    put32(before_p, op_p->fresh_off);
}

void keep_rebuild_true(const add_op *op_p)
{
    if (op_p->idx < op_p->head->refill_pos)
        shkv_rehash_add_node(op_p->head, op_p->flg, op_p->ud_base, op_p->fresh, op_p->fresh_off, op_p->old,
                             op_p->old_off);
}

int wrap_up(const add_op *op_p)
{
    if (op_p->old)
        op_p->head->putnd(sbm_of(op_p), op_p->old, op_p->head, op_p->old_off);
    if (!(op_p->flg & (CF_RESHAPE | CF_RESHAPE_DRAIN)))
        shkv_fixed_gc(op_p->handle, op_p->sn, sbm_of(op_p), 2);
    return restore_protection(op_p);
}

// A slice of the rebuild that this writer is in the middle of. Without memory for the target the
// rebuild is pending again, and this add alone pays for it; the next one goes on in the old table.
int continue_rebuild(const add_op *op_p)
{
    int result = shkv_continue_refill_md(op_p->head, op_p->handle, op_p->ring_p);
    if (!out_of_actual_mem || result == 0)
        return result;
    out_of_actual_mem = 0;
    return fail(nullptr, 0, 0, ENOMEM, "shkv_add out of actual mem.");
}

int make_room(const add_op *op_p)
{
    return add_make_room(op_p->head, op_p->flg, op_p->locked, op_p->ring_p);
}

// From the snapshot to the restored protection nothing else may change the store's tables: the one
// writer, or wr_ksem in a CONF_MULTIWR store and in a reshape.
int add_locked(add_op *op_p)
{
    int result;
    if (op_p->head->refill_pos != 0 && (result = continue_rebuild(op_p)) != 0)
        return result;
    for (;;) {
        if ((result = take_snapshot(op_p)) != 0)
            return result;
        if (goes_to_interim(op_p))
            return reshape_write(op_p->head, op_p->flg, op_p->key, op_p->value, INTRM_ADD);
        if ((result = choose_table(op_p)) != 0 || (result = find_old(op_p)) != 0 ||
            (result = lift_protection(op_p)) != 0)
            return result;
        if (take_record(op_p))
            break;
        if ((result = make_room(op_p)) != 0) // tables may be others now
            return result;
    }
    if (!op_p->node && (result = fill_record(op_p)) != 0)
        return result;
    publish(op_p);
    keep_rebuild_true(op_p);
    return wrap_up(op_p);
}

// With several writers, and beside a reshaper, one at a time.
int add_multi(add_op *op_p)
{
    pthread_mutex_t *ksem_p = &op_p->sn->wr_ksem;
    op_p->locked = true;
    if (kmutex_lock(ksem_p) == -1)
        return fail(nullptr, 0, 0, EFAULT, "%s,fail to get writer ksem ", "__shkv_add");
    int result = add_locked(op_p);
    if (pthread_mutex_unlock(ksem_p) == -1)
        return fail(nullptr, 0, 0, EFAULT, "%s,fail to get ksem ", "__shkv_add");
    return result;
}

// The one writer needs no lock, but in a reshape, and while it carries a rebuild: a reshaper must
// not lay hands on the same table. When a reshape has begun beside this add, its mover may have
// passed the bucket by: the add is made once more, for it to see.
int add_single(add_op *op_p)
{
    op_p->locked = false;
    if (op_p->head->refill_pos != 0)
        return add_multi(op_p);
    int result = add_locked(op_p);
    // A ready-made record is linked once.
    if (op_p->node ? result == WRITE_BEHIND_LOCK : write_goes_on_locked(op_p->sn, result))
        return add_multi(op_p);
    return result;
}

int add_record(int handle, const shkv_buf *key, const shkv_buf *value, udn *node, uint16_t mode, bool locked)
{
    shkv_head *head = writer_head(handle);
    if (!head)
        return EBADF;
    add_op op;
    op.head = head;
    op.sn = head->sn;
    op.ring_p = ring_of(op.sn);
    op.handle = handle;
    op.key = key;
    op.value = value;
    op.node = node;
    op.mode = mode;
    int result;
    if ((result = check_store(&op)) != 0 || (result = check_buffers(&op)) != 0 ||
        (result = check_sizes(&op)) != 0)
        return result;
    op.shared_map = is_shared_map(head);
    op.locked = locked;
    if (locked)
        return add_locked(&op);
    return op.sn->conf_flg & CONF_MULTIWR ? add_multi(&op) : add_single(&op);
}

} // namespace

int __shkv_add(int handle, const shkv_buf *key, const shkv_buf *value, udn *node, uint16_t mode)
{
    return add_record(handle, key, value, node, mode, false);
}

int add_tombstone(int handle, const shkv_buf *key, bool locked)
{
    const shkv_buf none = {nullptr, 0};
    return add_record(handle, key, &none, nullptr, ADD_TOMBSTONE, locked);
}

int shkv_add(int handle, const shkv_buf *key, const shkv_buf *value, uint32_t mode)
{
    // For the way back from a fault, which finds no other local as it was.
    volatile int handle_arg = handle;
    const shkv_buf *volatile key_arg = key, *volatile value_arg = value;
    volatile uint32_t mode_arg = mode;
    uint64_t asked = quick_ask(handle, key);
    GUARD_ARM(in_full); // without the quick guard there is no view
    if ((uint16_t)mode_arg == ADD_PLAIN && quick_add(handle_arg, key_arg, value_arg, asked) == 0)
        return 0;
in_full:
    return add_record(handle_arg, key_arg, value_arg, nullptr, (uint16_t)mode_arg, false);
}
