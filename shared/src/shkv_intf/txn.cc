// Transactions: start, abort. (commit has a file of its own.)
//
// While CF_TXN is set the writer's adds and deletes go to the buckets of MD_TXN instead of the table
// in force; the staged records themselves lie in the ordinary record space, so a commit copies
// nothing. MD_TXN owns no link: it borrows the one of the idle table, md2_next while MD1 is in
// force. So a record can stand in a staged chain and in the table in force at once. A table rebuild
// writes the idle link and its flip exchanges the two: growth inside a transaction puts it off to the
// commit or the abort.
//
// A transaction is held in shared objects alone. It survives its handle and its writer; the next
// writer finds itself inside it. Nothing here takes a lock: there is one writer.
//
// Stores of a start: md_txn.hashsz, md_txn.obj_sz, the object's length, md_txn.hashfn, and last
// CF_TXN, until which no process looks at any of them.
// Stores of an abort, for each staged record: its bucket moves on to the next one, then the record
// is released; last CF_TXN goes. Cut short anywhere, the buckets hold what is still staged.
#include "shkv_intf/txn.h"

#include <errno.h>
#include <sys/mman.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/txn_table.h"
#include "shkv_intf/wprot.h"

#define TXN_DEF_BUCKETS 256u

// Half of the keys expected, in 32 bits; the product may wrap. The floor is that of every new table.
static uint32_t wanted_buckets(const uint32_t *est_ents)
{
    uint32_t want = est_ents ? *est_ents * 50 / 100 : TXN_DEF_BUCKETS;
    uint32_t least = SHKV_PAGE_SIZE / 16;
    return want > least ? want : least;
}

// With the hash of the table in force, but a number of buckets of its own.
static void bind_hash(shkv_head *head, uint32_t flg)
{
    supernode *sn = head->sn;
    bool md1 = flg & CF_MD1;
    put16(&sn->md_txn.hashfn, get16(md1 ? &sn->md1.hashfn : &sn->md2.hashfn));
    md_rec *rec = &head->md_txn;
    bind_fn(rec, md1 ? head->md1.hash_fn : head->md2.hash_fn);
    put32(&rec->ver, get32(&sn->md_txn.obj_ver));
    put32(&rec->mapped_sz, get32(&sn->md_txn.obj_sz));
}

// After a failed growth a handle has no record space any more, and could neither stage nor end what it starts.
static bool space_mapped(shkv_head *head, uint32_t flg)
{
    active_db db = {}, other = {};
    get_active_db(&db, &other, head, flg);
    return db.rec && db.rec->base && db.ud && db.ud->map[0];
}

int shkv_txn_start(int handle, const uint32_t *est_ents)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return fail(nullptr, 0, 0, EBADF, "The head handle is not valid, err:%d", EBADF);
    supernode *sn = head->sn;
    if (sn->conf_flg & CONF_MULTIWR)
        return fail(nullptr, 0, 0, EBADF, "%s: cannot support multi-writer SHKV", "shkv_txn_start");

    // A rebuild that is pending comes first; but one that growth inside an open transaction has put
    // off waits for that one's end, since the flip would exchange the links under its staged chains.
    uint32_t flg = get32(&sn->comm_flg);
    if (!(flg & CF_TXN) && (flg & (CF_REFILL1 | CF_REFILL2))) {
        if (!txn_may_store(head))
            return EINVAL;
        // It may be another writer's, who has grown the store since this handle looked.
        int result = check_hdmd_remap(head, flg, handle, PROT_READ | PROT_WRITE, nullptr);
        if (result == 0)
            result = txn_finish_rebuild(head, wprot_closed(head));
        if (result != 0)
            return result;
        flg = get32(&sn->comm_flg);
    }
    if (flg & CF_TXN)
        return fail(nullptr, 0, 0, EEXIST, "%s: db already in txn mode", "shkv_txn_start");
    if (!txn_may_store(head))
        return EINVAL; // everything from here on would meet a read-only mapping

    int result = check_hdmd_remap(head, flg, handle, PROT_READ | PROT_WRITE, nullptr); // no events here
    if (result == 0 && !space_mapped(head, flg))
        result = ENOMEM;
    if (result == 0)
        result = txn_table_make(head, shkv_get_hash_size(wanted_buckets(est_ents)));
    if (result != 0)
        return result;
    bind_hash(head, flg);
    head->refill_pos = 0; // not 0 only when a reshaper's close has cleared the refill bit: that rebuild is given up
    // Publish: the table is empty, in its full length and described. Pairs with the snapshot of
    // every operation of the writer, this one or the next.
    change32(&sn->comm_flg, 0, CF_TXN);
    LOG("%s: md txn obj_sz:%d hashsz:%d", "shkv_txn_start", get32(&sn->md_txn.obj_sz),
        get32(&sn->md_txn.hashsz));
    return 0;
}

static void drop_staged(txn_op *op_p, mdn *bucket)
{
    uint32_t off;
    while ((off = get32(&bucket->first_ptr)) != 0) {
        udn *udn_p = (udn *)ud_addr(op_p->head, op_p->ud_base, off, op_p->shared_map);
        // The bucket leaves the record before the manager gets it: an abort that is cut short here
        // loses one node and never finds a released one staged.
        put32(&bucket->first_ptr, get32(chain_link_p(udn_p, !op_p->md1)));
        op_p->head->putnd((sbm *)op_p->ud_base, udn_p, op_p->head, off);
        op_p->node_cnt++;
    }
}

int shkv_txn_abort(int handle)
{
    txn_op op = {};
    bool done;
    int result = txn_op_begin(&op, handle, "shkv_txn_abort", &done);
    if (done)
        return result;
    for (uint32_t i = 0; i < op.staged_cnt; i++)
        drop_staged(&op, &op.staged[i]);
    // Over. MD_TXN is taken away behind this store, so no one ever takes a cut table for staged.
    change32(&op.sn->comm_flg, CF_TXN, 0);
    txn_table_drop(&op);
    LOG("%s: aborted %d nodes", op.name, op.node_cnt);
    txn_finish_rebuild(op.head, op.closed); // its failure leaves it pending
    return 0;
}

int shkv_txn_is_active(int handle)
{
    const shkv_head *head = check_shkv_hdl(handle);
    return head && (get32(&head->sn->comm_flg) & CF_TXN);
}
