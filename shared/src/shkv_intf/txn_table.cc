// The object MD_TXN over the life of a transaction.
//
// Between transactions it has length 0. A start gives it its length, a commit or an abort takes it
// away again, each outside the span in which comm_flg says that a transaction is open; so a crash
// leaves at most an object that the next start cuts and sizes anew. obj_ver stays as it is: no
// process but the writer looks at this table.
#include "shkv_intf/txn_table.h"

#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/resize_md.h"
#include "shkv_intf/wprot.h"

// By the length that was mapped: another process may have set the descriptor's obj_sz since. Another
// thread may look a key up in it.
static void unmap_table(shkv_head *head)
{
    mapping_blank(head, (void **)&head->md_txn.base, &head->md_txn.mapped_sz);
}

// First touches of sparse pages: 0 when there is no memory behind one of them.
static int __attribute__((noinline)) touch_guarded(char *base, uint32_t sz)
{
    if (sigsetjmp(sigbus_jmp, 0) != 0)
        return 0;
    for (uint32_t at = 0; at < sz; at += SHKV_PAGE_SIZE)
        *(volatile char *)(base + at) = 0;
    return 1;
}

// A staged add stores into a bucket wherever its key falls, with no guard around that store; a full
// /dev/shm would end the writer there, in the middle of a transaction. So all of the table's memory
// is asked for now, while giving up is still free.
static int claim_memory(shkv_head *head)
{
    md_rec *rec = &head->md_txn;
    if (touch_guarded((char *)rec->base, rec->mapped_sz))
        return 0;
    unmap_table(head);
    if (ftruncate(rec->fd, 0) == -1)
        LOG("%s: fd:%d, failed to ftruncate obj shm,errno:%d", "shkv_txn_start", rec->fd, errno);
    put32(&head->sn->md_txn.obj_sz, 0);
    return fail(nullptr, 0, 0, ENOMEM, "fd %d failed to mmap obj shm:%d", rec->fd, ENOMEM);
}

int txn_table_make(shkv_head *head, uint32_t hashsz)
{
    md_rec *rec = &head->md_txn;
    md_desc *desc = &head->sn->md_txn;
    uint32_t sz = hashsz * (uint32_t)sizeof(mdn);
    unmap_table(head);
    put32(&desc->hashsz, hashsz);
    put32(&desc->obj_sz, sz);
    // The cut to 0 is what clears the table.
    if (ftruncate(rec->fd, 0) == -1 || ftruncate(rec->fd, sz) == -1) {
        int err = errno;
        return fail(nullptr, 0, 0, err, "%s: fd:%d, failed to ftruncate obj shm,errno:%d", "shkv_txn_start",
                    rec->fd, err);
    }
    void **base_pp = (void **)&rec->base;
    if (!mapping_unblank(head, base_pp, &rec->mapped_sz, rec->fd, sz, PROT_READ | PROT_WRITE) &&
        !mapping_replace(head, base_pp, &rec->mapped_sz, rec->fd, sz, PROT_READ | PROT_WRITE)) {
        rec->base = (mdn *)MAP_FAILED; // with a size of 0: no table. Intended
        return fail(nullptr, 0, 0, ENOMEM, "fd %d failed to mmap obj shm:%d", rec->fd, errno);
    }
    return claim_memory(head);
}

// Both tables as far as their buckets are mapped here, the record space, a hash function. A handle
// that missed the start of the transaction, or whose remap has failed, has less than that.
static int check_mapped(const txn_op *op_p)
{
    const md_rec *txn = &op_p->head->md_txn, *act = op_p->db.rec;
    if (!act || !act->base || act->mapped_sz / sizeof(mdn) < get32(&op_p->db.desc->hashsz) || !op_p->db.ud ||
        !op_p->db.ud->map[0])
        return ENOMEM;
    if (!txn->base || txn->base == MAP_FAILED || txn->mapped_sz / sizeof(mdn) < get32(&op_p->sn->md_txn.hashsz))
        return ENOMEM;
    return act->hash_fn ? 0 : EINVAL;
}

// The tables in force by op_p->flg.
static int bind_tables(txn_op *op_p)
{
    shkv_head *head = op_p->head;
    active_db other = {};
    op_p->db = {};
    get_active_db(&op_p->db, &other, head, op_p->flg);
    int result = check_mapped(op_p);
    if (result != 0)
        return result;
    op_p->md1 = op_p->flg & CF_MD1;
    op_p->shared_map = is_shared_map(head);
    op_p->ud_base = op_p->db.ud->map[0];
    op_p->staged = head->md_txn.base;
    op_p->staged_cnt = get32(&op_p->sn->md_txn.hashsz);
    return 0;
}

static int begin_mapped(txn_op *op_p, int handle)
{
    shkv_head *head = op_p->head;
    int result = check_hdmd_remap(head, op_p->flg, handle, PROT_READ | PROT_WRITE, nullptr); // no events here
    if (result == 0)
        result = bind_tables(op_p);
    if (result != 0)
        return result;
    op_p->closed = wprot_closed(head);
    return op_p->closed && wprot_lift(head, op_p->db.ud) != 0 ? EINVAL : 0;
}

int txn_op_begin(txn_op *op_p, int handle, const char *name, bool *done)
{
    *done = true;
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return fail(nullptr, 0, 0, EBADF, "%s: The head handle is not valid, err:%d", name, EBADF);
    op_p->name = name;
    op_p->head = head;
    op_p->sn = head->sn;
    op_p->flg = get32(&head->sn->comm_flg);
    if (!(op_p->flg & CF_TXN)) {
        LOG("%s: not in txn mode anyway.", name);
        return 0;
    }
    if (!txn_may_store(head)) // every store below would meet a read-only mapping
        return EINVAL;
    int result = begin_mapped(op_p, handle);
    *done = result != 0;
    return result;
}

void txn_table_drop(const txn_op *op_p)
{
    md_rec *rec = &op_p->head->md_txn;
    unmap_table(op_p->head);
    if (!rec->fd)
        return;
    if (ftruncate(rec->fd, 0) == -1)
        LOG("%s: fd:%d, failed to ftruncate md txn, errno:%d", op_p->name, rec->fd, errno);
    put32(&op_p->sn->md_txn.obj_sz, 0);
}

int txn_finish_rebuild(shkv_head *head, bool closed)
{
    int result = 0;
    if (get32(&head->sn->comm_flg) & (CF_REFILL1 | CF_REFILL2)) {
        refill_tm_limit = 0;
        result = shkv_resize_md(head); // opens the record space by itself
    }
    if (closed && !wprot_closed(head) && wprot_asked(head))
        wprot_restore(head, get32(&head->sn->comm_flg) & CF_UD1 ? head->ud1_map : head->ud2_map);
    return result;
}

// The staged records are in no table yet, so their links for the table in force are free, and take a
// copy of the staged ones; the rebuild writes the idle links of the others. Its flip exchanges the
// two links for both at once. Cut short before the flip, the copies mean nothing.
int txn_op_rebuild(txn_op *op_p)
{
    for (uint32_t i = 0; i < op_p->staged_cnt; i++) {
        uint32_t off = get32(&op_p->staged[i].first_ptr);
        while (off) {
            udn *udn_p = (udn *)ud_addr(op_p->head, op_p->ud_base, off, op_p->shared_map);
            off = get32(chain_link_p(udn_p, !op_p->md1));
            put32(chain_link_p(udn_p, op_p->md1), off);
        }
    }
    txn_finish_rebuild(op_p->head, false); // after a failure the old table is in force, as before
    op_p->flg = get32(&op_p->sn->comm_flg);
    return bind_tables(op_p);
}
