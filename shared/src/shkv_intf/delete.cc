// Delete: takes a key out of a store.
//
// What a reader is promised: the record goes by one put32 into the link before it, and keeps its own
// links, so a reader standing on it finishes its walk. The stores of one delete, in this order:
//   1. the link before the record := the record's own link   it is out of the table in force
//   2. the same in the target of a running rebuild (rehash.cc)
//   3. the record goes to the hold list, and stays readable for 50 ms at least
// A writer that dies between 1 and 3 leaks the record; between 1 and 2 the refill bit is set, and the
// next write open rebuilds the table from nothing.
//
// Most deletes are quick_delete's (quick_write.h), which makes the same stores in the same order.
//
// In a transaction nothing is unlinked: a staged record is marked, a committed one gets a staged
// tombstone. In a reshape the delete is left to it (reshape/replay.cc), under wr_ksem.
#include "shkv_intf/delete.h"

#include <assert.h>
#include <errno.h>
#include <stdio.h>

#include "diag/fail.h"
#include "diag/trace.h"
#include "reshape/replay.h"
#include "shkv_intf/add.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/quick_write.h"
#include "shkv_intf/refill.h"
#include "shkv_intf/rehash.h"
#include "shkv_intf/walk.h"
#include "shkv_intf/wprot.h"
#include "shkv_intf/writer.h"

namespace {

enum : uint32_t {
    DEL_PLAIN = 0,
    DEL_RESHAPE_OLD = 0x66, // the reshaper's, from the old tables
    DEL_RESHAPE_NEW = 0x77, // the reshaper's, from the new ones
};

struct del_op {
    shkv_head *head;
    supernode *sn;
    void *ring_p;
    int handle;
    const shkv_buf *key;
    uint32_t mode;
    bool locked; // wr_ksem is held
    bool done;   // an attempt without the lock has found the key; the reshape beside it may be over by now

    uint32_t flg; // comm_flg, read once; every decision goes by it
    writer_tables tables;

    const md_desc *desc; // the table and the record space in hand
    md_rec *rec;
    ud_map *ud;
    char *ud_base;
    uint32_t idx;
    mdn *bucket;
    udn *found, *prev;
    uint32_t found_off;
};

int check_args(const del_op *op_p)
{
    void *ring_p = op_p->ring_p;
    const shkv_buf *key = op_p->key;
    int shkvh = op_p->handle;
    uint32_t am = op_p->head->access_mode, sn_flg = get32(&op_p->sn->sn_flg);
    if (!(am & (SHKV_AM_WRITE | SHKV_AM_RESHAPE)))
        return fail(ring_p, 0x78, shkvh, EINVAL, "shkv_del, write is not allowed, shkvh:%d", shkvh);
    // The line names add. Intended, as below where the protection is restored.
    if ((sn_flg & SN_DBG_WR) && !(am & SHKV_AM_DBG))
        return fail_pair(ring_p, 0x79, shkvh, sn_flg, EINVAL, "shkv_add, write dbg is on-going, shkvh:%d",
                         shkvh);
    if (!key)
        return fail(ring_p, 0x7A, shkvh, EINVAL, "shkv_delete, has bad buffer, shkvh:%d", shkvh);
    if (key->len == 0 || !key->ptr)
        return fail(ring_p, 0x7B, shkvh, EINVAL, "shkv_delete, key buffer size is 0, shkvh:%d", shkvh);
    return 0;
}

int take_snapshot(del_op *op_p)
{
    op_p->flg = get32(&op_p->sn->comm_flg);
    if (op_p->flg & CF_DESTROYED)
        return fail(op_p->ring_p, 0x7C, op_p->handle, EBADF,
                    "shkv_del, the db has been destroyed, shkvh:%d", op_p->handle);
    if ((op_p->flg & CF_RESHAPE) && !op_p->locked)
        return WRITE_BEHIND_LOCK; // the snapshot is taken anew there
    int result = check_hdmd_remap(op_p->head, op_p->flg, op_p->handle, 3, op_p->ring_p);
    if (result != 0)
        return fail(op_p->ring_p, 0x7D, result, result, "shkv_delete, check_hdmd_remap failed %d", result);
    tables_of(&op_p->tables, op_p->head, op_p->flg);
    if (op_p->flg & CF_TXN)
        use_txn_table(&op_p->tables.pri, op_p->head);
    return 0;
}

// While a reshape moves the tables, writes are only noted, for the reshaper to replay.
bool goes_to_interim(const del_op *op_p)
{
    if (!(op_p->flg & CF_RESHAPE) || op_p->mode == DEL_RESHAPE_OLD || op_p->mode == DEL_RESHAPE_NEW)
        return false;
    // What is no mode is refused with the table.
    return op_p->mode == DEL_PLAIN || !(op_p->flg & CF_RESHAPE_DRAIN);
}

int put_interim(const del_op *op_p)
{
    shkv_buf none = {nullptr, 0};
    return reshape_write(op_p->head, op_p->flg, op_p->key, &none, INTRM_DEL);
}

int choose_table(del_op *op_p)
{
    const writer_tables *tables_p = &op_p->tables;
    bool primary = op_p->mode == DEL_PLAIN || op_p->mode == DEL_RESHAPE_OLD;
    if (!primary && !(op_p->mode == DEL_RESHAPE_NEW && (op_p->flg & CF_RESHAPE_DRAIN)))
        return fail(op_p->ring_p, 0x7E, op_p->handle, EBADF,
                    "shkv_del, reshaping new db available, shkvh:%d", op_p->handle);
    const active_db *db_p = primary ? &tables_p->pri : &tables_p->sec;
    op_p->desc = db_p->desc;
    op_p->rec = db_p->rec;
    op_p->ud = primary ? tables_p->pri.ud : second_ud(tables_p);
    op_p->ud_base = (char *)base_of(op_p->ud);
    if (!op_p->rec || !op_p->rec->hash_fn)
        return fail(op_p->ring_p, 0x7F, op_p->handle, EINVAL, "shkv_del, hashfunc is not inited, shkvh:%d",
                    op_p->handle);
    op_p->idx = bucket_of(op_p->rec->hash_fn(op_p->key->ptr, op_p->key->len), get32(&op_p->desc->hashsz));
    op_p->bucket = bucket_at(op_p->rec, op_p->idx);
    // Mapping out of step, or lost in a failed growth.
    return op_p->bucket && op_p->ud_base ? 0 : ENOMEM;
}

int lift_protection(const del_op *op_p)
{
    if ((wprot_asked(op_p->head) || wprot_closed(op_p->head)) && wprot_lift(op_p->head, op_p->ud) != 0)
        return fail(op_p->ring_p, 0x80, errno, EINVAL, "shkv_delete, write protect failed, errno:%d",
                    errno);
    return 0;
}

int restore_protection(const del_op *op_p)
{
    if (wprot_asked(op_p->head) && wprot_restore(op_p->head, op_p->ud) != 0)
        return fail(op_p->ring_p, 0x81, errno, EINVAL, "shkv_add, write protect failed, errno:%d", errno);
    return 0;
}

// As the writer: one look, no check of offsets. The walk reads under the SIGBUS guard every word
// that is stored to afterwards.
bool find_record(del_op *op_p)
{
    op_p->found = op_p->prev = nullptr;
    op_p->found_off = 0;
    if (!bucket_find_udn(op_p->head, op_p->rec->base, op_p->bucket, &op_p->found, op_p->key->ptr,
                         &op_p->key->len, op_p->ud_base, &op_p->prev, 0, nullptr, &op_p->found_off, nullptr))
        return false;
    udn *udn_p = op_p->found;
    assert(udn_p);
    if (!is_shared_map(op_p->head))
        op_p->found_off = (uint32_t)((char *)udn_p - op_p->ud_base);
    return true;
}

// The committed table is left alone until the commit: readers still find the key.
int delete_in_txn(const del_op *op_p)
{
    if (op_p->rec != &op_p->head->md_txn)
        return add_tombstone(op_p->handle, op_p->key, op_p->locked);
    put8(&op_p->found->nd_flg, get8(&op_p->found->nd_flg) | UDN_DELETED);
    return 0;
}

void unlink_record(const del_op *op_p)
{
    bool md1 = op_p->rec == &op_p->head->md1;
    // Publish. A reader before it finds the record, one behind it the rest of the chain; one that
    // stands on the record goes on by the record's own link. Pairs with get32 in bucket_find_udn.
    put32(op_p->prev ? chain_link_p(op_p->prev, md1) : &op_p->bucket->first_ptr,
          get32(chain_link_p(op_p->found, md1)));
    if (op_p->head->refill_pos > op_p->idx)
        shkv_rehash_del_node(op_p->head, op_p->flg, op_p->ud_base, op_p->found, op_p->found_off);
    op_p->head->putnd((sbm *)op_p->ud_base, op_p->found, op_p->head, op_p->found_off);
}

int wrap_up(const del_op *op_p, int result)
{
    if (!(op_p->flg & (CF_RESHAPE | CF_RESHAPE_DRAIN)))
        shkv_fixed_gc(op_p->handle, op_p->sn, (sbm *)op_p->ud_base, 2);
    int failed = restore_protection(op_p);
    return failed ? failed : result;
}

// A miss in MD_TXN goes on in the committed table; a miss there is a miss.
bool leave_txn_table(del_op *op_p)
{
    if (op_p->rec != &op_p->head->md_txn)
        return false;
    tables_of(&op_p->tables, op_p->head, op_p->flg);
    return true;
}

// The write begins behind the snapshot and ends with wrap_up, or before it where a result is
// returned from the middle; nothing else may change the store's tables in between: the one writer,
// or wr_ksem in a CONF_MULTIWR store and in a reshape.
int delete_locked(del_op *op_p)
{
    refill_drop_if_lost(op_p->head);
    int result = take_snapshot(op_p);
    if (result != 0)
        return result;
    if (goes_to_interim(op_p))
        return put_interim(op_p);
    do {
        if ((result = choose_table(op_p)) != 0 || (result = lift_protection(op_p)) != 0)
            return result;
        // These exits leave the record space writable until the next write. Intended.
        if (find_record(op_p)) {
            if (op_p->flg & CF_TXN)
                return delete_in_txn(op_p);
            unlink_record(op_p);
            return wrap_up(op_p, 0);
        }
        if (out_of_actual_mem) {
            out_of_actual_mem = 0;
            return fail(nullptr, 0, 0, ENOMEM, "shkv_delete out of actual mem ");
        }
    } while (leave_txn_table(op_p));
    if (op_p->done)
        return wrap_up(op_p, 0);
    puts("key not found"); // whatever the debug log's state
    return wrap_up(op_p, ENOENT);
}

// With several writers, and beside a reshaper, one at a time.
int delete_multi(del_op *op_p)
{
    pthread_mutex_t *ksem_p = &op_p->sn->wr_ksem;
    op_p->locked = true;
    if (kmutex_lock(ksem_p) == -1)
        return fail(nullptr, 0, 0, EFAULT, "%s,fail to get write ksem ", "__shkv_delete");
    int result = delete_locked(op_p);
    if (pthread_mutex_unlock(ksem_p) == -1)
        return fail(nullptr, 0, 0, EFAULT, "%s,fail to post writer ksem ", "__shkv_delete");
    return result;
}

// As with an add: a lock in a reshape and during a rebuild, and once more when a reshape has begun.
int delete_single(del_op *op_p)
{
    op_p->locked = false;
    if (op_p->head->refill_pos != 0)
        refill_drop_if_lost(op_p->head); // ahead of the lock: a tombstone's add takes it by itself
    if (op_p->head->refill_pos != 0)
        return delete_multi(op_p);
    int result = delete_locked(op_p);
    if (!write_goes_on_locked(op_p->sn, result))
        return result;
    op_p->done |= result == 0;
    return delete_multi(op_p);
}

int delete_record(int handle, const shkv_buf *key, uint32_t mode, bool done)
{
    shkv_head *head = writer_head(handle);
    if (!head)
        return EBADF;
    del_op op;
    op.head = head;
    op.sn = head->sn;
    op.ring_p = ring_of(op.sn);
    op.handle = handle;
    op.key = key;
    op.mode = mode;
    op.done = done;
    int result = check_args(&op);
    if (result != 0)
        return result;
    return op.sn->conf_flg & CONF_MULTIWR ? delete_multi(&op) : delete_single(&op);
}

} // namespace

int __shkv_delete(int handle, const shkv_buf *key, uint32_t mode)
{
    return delete_record(handle, key, mode, false);
}

int shkv_delete(int handle, const shkv_buf *key)
{
    volatile int handle_arg = handle; // for the way back from a fault
    const shkv_buf *volatile key_arg = key;
    uint64_t asked = quick_ask(handle, key);
    GUARD_ARM(in_full);
    {
        int result = quick_delete(handle_arg, key_arg, asked);
        if (result == 0)
            return 0;
        if (result == QUICK_ONCE_MORE)
            return delete_record(handle_arg, key_arg, 0, true);
    }
in_full:
    return delete_record(handle_arg, key_arg, 0, false);
}
