// Batches: up to 32 adds or deletes with one call, atomic if asked for.
//
// An atomic batch keeps what is needed to undo it in a log, which is a store of its own beside the
// first one. What a crash finds, in the order of the stores:
//   1. the log store, empty; no mark: nothing has happened
//   2. the mark in the supernode: the log is live. Undoing a log that is not full yet is harmless,
//      since every key in it still has the value that was saved
//   3. a log record for each key
//   4. the entries, each an ordinary add or delete that readers see as it lands
//   5. the log store gone; the mark still there: the next write open clears it
//   6. the mark cleared
// A crash from 2 to 4 leads back to the state before the batch, at the next write open.
#include "shkv_intf/batch.h"

#include <errno.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/record.h"
#include "shkv_intf/undo.h"
#include "shkv_intf/word.h"

#define BATCH_ATOMIC 0x01u
#define BATCH_DELETE 0x10u
#define BATCH_MAX 32u

struct batch_op {
    int handle;
    shkv_head *head;
    supernode *sn;
    void *ring_p;
    const shkv_buf *keys, *vals;
    uint32_t cnt;
    bool deletes;
    int log; // handle of the log store
};

// A log that an earlier, failed batch has left: what it saved was put back by then, so it is
// dropped and not replayed.
static int drop_old_log(const batch_op *op_p)
{
    supernode *sn = op_p->sn;
    fail(op_p->ring_p, 0xB4, (uint32_t)op_p->handle, 0, "shkv_m_add, the logDB: iodb existing, shkvh:%d",
         op_p->handle);
    char name[SHKV_IODB_NAME_MAX];
    iodb_name(name, sn);
    uint32_t err = 0;
    int log = shkv_open(name, sn->uuid, 0, SHKV_AM_WRITE, &err);
    if (log == 0) {
        fail(op_p->ring_p, 0xBF, err, 0, "shkv_m_add, re-open iodb failed, retv:%d", err);
    } else {
        int result = shkv_destroy(log);
        if (result != 0)
            return fail(op_p->ring_p, 0xC0, (uint32_t)result, result, "shkv_m_add, destroy failed, retv:%d",
                        result);
    }
    put32(&sn->iodb_mark, 0);
    return 0;
}

static int check_batch(const batch_op *op_p)
{
    const shkv_head *head = op_p->head;
    supernode *sn = op_p->sn;
    int shkvh = op_p->handle;
    bool may_write = head->access_mode & (SHKV_AM_WRITE | SHKV_AM_RESHAPE);
    // A handle that may not write maps the supernode read-only: the mark cannot be cleared by it, and
    // a log that only a writer can use stays.
    if (may_write && get32(&sn->iodb_mark) >> 8 == IODB_LIVE) {
        int result = drop_old_log(op_p);
        if (result != 0)
            return result;
    }
    if (!may_write)
        return fail(op_p->ring_p, 0xB5, (uint32_t)shkvh, EINVAL, "shkv_m_add, write is not allowed, shkvh:%d",
                    shkvh);
    if ((get32(&sn->sn_flg) & SN_DBG_WR) && !(head->access_mode & SHKV_AM_DBG))
        return fail_pair(op_p->ring_p, 0xB6, (uint32_t)shkvh, head->access_mode, EINVAL,
                         "shkv_m_add, write dbg is on-going, shkvh:%d", shkvh);
    if (!op_p->keys || (!op_p->vals && !op_p->deletes))
        return fail(op_p->ring_p, 0xB7, (uint32_t)shkvh, EINVAL, "shkv_m_add, has bad pointer, shkvh:%d",
                    shkvh);
    if (op_p->cnt < 1 || op_p->cnt > BATCH_MAX)
        return fail(op_p->ring_p, 0xB8, (uint32_t)shkvh, EINVAL, "shkv_m_add, m_cnt is invalid, shkvh:%d",
                    shkvh);
    return 0;
}

// The entries in order, up to the first failure. A key that is not there to delete is none.
static int apply_entries(const batch_op *op_p)
{
    for (uint32_t i = 0; i < op_p->cnt; i++) {
        int result = op_p->deletes ? shkv_delete(op_p->handle, &op_p->keys[i])
                                   : shkv_add(op_p->handle, &op_p->keys[i], &op_p->vals[i], 0);
        if (result != 0 && result != ENOENT)
            return result;
    }
    return 0;
}

static int plain_batch(const batch_op *op_p)
{
    int result = apply_entries(op_p);
    if (result != 0)
        return fail(op_p->ring_p, 0xB9, (uint32_t)result, result, "shkv_m_add, non_atomic failed, retv:%d",
                    result);
    return 0;
}

// The mark comes before the first record of the log: from here on a crash finds it.
static int create_log(batch_op *op_p)
{
    supernode *sn = op_p->sn;
    const shkv_params conf = {sn->maxksz, sn->maxvsz, BATCH_MAX, sn->conf_flg & CONF_MM_MASK, 0};
    char name[SHKV_IODB_NAME_MAX];
    iodb_name(name, sn);
    uint32_t err = 0;
    op_p->log = shkv_create(name, sn->uuid, &conf, 0, &err);
    if (op_p->log == 0 && err == 0)
        err = ENOMEM; // heap exhausted half-way through the create
    if (err != 0)
        return fail(op_p->ring_p, 0xBA, err, (int)err, "shkv_m_add, iodb creation failed, err:%d", err);
    put32(&sn->iodb_mark, op_p->deletes ? IODB_DELS : IODB_ADDS);
    return 0;
}

// A key that is repeated in the batch is saved twice, with the same value.
static int save_old_values(const batch_op *op_p)
{
    char room[REC_VALUE_MAX];
    for (uint32_t i = 0; i < op_p->cnt; i++) {
        shkv_buf old = {room, sizeof room};
        int result = shkv_lookup(op_p->handle, &op_p->keys[i], &old);
        if (result == ENOENT)
            old.len = 0;
        else if (result != 0)
            return fail(op_p->ring_p, 0xBB, (uint32_t)result, result, "shkv_m_add, odb lookup failed, retv:%d",
                        result);
        result = shkv_add(op_p->log, &op_p->keys[i], &old, 0);
        if (result != 0)
            return fail(op_p->ring_p, 0xBC, (uint32_t)result, result, "shkv_m_add, iodb adding failed, retv:%d",
                        result);
    }
    return 0;
}

// A failure on the way leaves the log and the mark behind, whether the store had been changed (and
// was put back here) or not: the next batch drops them, the next write open replays them.
static int atomic_batch(batch_op *op_p)
{
    int result = create_log(op_p);
    if (result == 0)
        result = save_old_values(op_p);
    if (result != 0)
        return result;
    result = apply_entries(op_p);
    if (result != 0) {
        fail(op_p->ring_p, 0xBD, (uint32_t)result, 0, "shkv_m_add, atomic failed, retv:%d", result);
        shkv_iodb_rollbk(op_p->handle, op_p->log);
        return result;
    }
    LOG("added %d keys\n", op_p->cnt);
    result = shkv_destroy(op_p->log);
    if (result != 0)
        return fail(op_p->ring_p, 0xBE, (uint32_t)result, result, "shkv_m_add, destroy failed, retv:%d",
                    result);
    put32(&op_p->sn->iodb_mark, 0);
    return 0;
}

int shkv_m_add(int handle, const shkv_buf *keys, const shkv_buf *vals, uint16_t m_cnt, uint16_t opflg)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    supernode *sn = head->sn;
    if (sn->conf_flg & CONF_MULTIWR)
        return fail(nullptr, 0, 0, EINVAL, "%s: m_add m_delete is not supported for multi writer", sn->dbname);
    batch_op op = {handle, head, sn, ring_of(sn), keys, vals, m_cnt, (opflg & BATCH_DELETE) != 0, 0};
    int result = check_batch(&op);
    if (result != 0)
        return result;
    switch (opflg & ~BATCH_DELETE) {
    case 0:
        return plain_batch(&op);
    case BATCH_ATOMIC:
        return atomic_batch(&op);
    default:
        return EINVAL;
    }
}

int shkv_m_delete(int handle, const shkv_buf *keys, uint16_t m_cnt, uint16_t opflg)
{
    return shkv_m_add(handle, keys, nullptr, m_cnt, opflg | BATCH_DELETE);
}
