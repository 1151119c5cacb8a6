// The write open: takes the writer's place and settles what a dead writer left behind.
//
// Under wr_ksem, so that of two that want the place one gets it:
//   1. is the writer of record still alive? Its thread id lasts in wr_tid after its death
//   2. map, finish a growth, bind
//   3. the place: this thread's id goes into wr_tid
// Then, with a handle and without the lock, since wr_tid keeps other writers out:
//   4. an atomic batch that died half-way is rolled back
//   5. sn_flg follows the access mode
//   6. a commit that died half-way is finished
//   7. a table rebuild that is pending is done, outside a transaction
// A store that a writer died in stays usable at every step: each of them can be cut and begun anew.
#include "shkv_intf/open_write.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <sys/mman.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/bind.h"
#include "shkv_intf/head.h"
#include "shkv_intf/obj_open.h"
#include "shkv_intf/open_read.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/resize_md.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/ud_recover.h"
#include "shkv_intf/word.h"

struct write_op {
    const char *dbname;
    uint32_t uuid;
    uint64_t hashfn;
    uint32_t access_mode;
    uint32_t *errptr;
    supernode *sn;
    void *ring_p;
    uint32_t flg;       // comm_flg as it was when the place was ours
    uint32_t *place_p;  // the word of wr_tid that we took; null: none
    uint32_t place_was;
    shkv_head head;     // becomes the slot
};

// The writer's place --------------------------------------------------------------------------------

static bool is_multiwr(const write_op *op_p)
{
    return op_p->sn->conf_flg & CONF_MULTIWR;
}

static bool wants_place(const write_op *op_p)
{
    return (op_p->access_mode & SHKV_AM_WRITE) && !is_multiwr(op_p) && !(op_p->access_mode & SHKV_AM_DBG);
}

// The id is compared as it stands: one that the system has given to another thread reads as alive. This
// thread's own is that of a dead writer, too, when no handle of it was found; the system gives ids again.
static int check_writer(write_op *op_p)
{
    uint32_t tid = get32(&op_p->sn->wr_tid[0]);
    if (!wants_place(op_p) || tid == 0)
        return 1;
    if (tid == my_tid()) {
        if (!(op_p->access_mode & SHKV_AM_WPROT)) // with it no handle was looked for
            raise_version(op_p->sn);
        return 1;
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/%d", (int)tid);
    DIR *dir_p = opendir(path);
    if (dir_p) {
        closedir(dir_p);
        return fail_err(op_p->ring_p, 0x4d, tid, op_p->errptr, EINVAL,
                        "uuid:%d, the write is not permitted:                            %d %d",
                        (int)op_p->uuid, (int)op_p->access_mode, (int)tid);
    }
    if (errno != ENOENT)
        return fail_err(op_p->ring_p, 0x4d, (uint32_t)errno, op_p->errptr, EINVAL,
                        "uuid:%d, WR not permitted, errno=%d", (int)op_p->uuid, errno);
    raise_version(op_p->sn);
    return 1;
}

// With several writers the first free slot; with none free the open goes on without one. A debug
// writer works beside the writer of record.
static void take_place(write_op *op_p)
{
    uint32_t *slot_p = nullptr;
    if (is_multiwr(op_p)) {
        for (uint32_t &slot : op_p->sn->wr_tid)
            if (!slot_p && get32(&slot) == 0)
                slot_p = &slot;
    } else if (!(op_p->access_mode & SHKV_AM_DBG)) {
        slot_p = &op_p->sn->wr_tid[0];
    }
    if (!slot_p)
        return;
    op_p->place_p = slot_p;
    op_p->place_was = get32(slot_p);
    put32(slot_p, my_tid());
}

// A refused open leaves the place as it found it: this thread lives, and would bar every other.
static void give_place_back(write_op *op_p)
{
    if (op_p->place_p)
        put32(op_p->place_p, op_p->place_was);
}

// Up to the handle ----------------------------------------------------------------------------------

static int check_state(write_op *op_p)
{
    // Before the magic check. Intended.
    if (get32(&op_p->sn->comm_flg) & (MDO1N2 | MDN1O2))
        return fail_err(op_p->ring_p, 0x4c, op_p->uuid, op_p->errptr, EINVAL,
                        "temporrily disable WRITE MODE when reshaping ");
    if (!sn_complete(op_p->sn))
        return fail_err(op_p->ring_p, 0x4b, op_p->uuid, op_p->errptr, EINVAL, "uuid:%d, the db is insane.",
                        (int)op_p->uuid);
    return 1;
}

static int claim_locked(write_op *op_p)
{
    supernode *sn = op_p->sn;
    if (!check_writer(op_p))
        return 0;
    op_p->flg = get32(&sn->comm_flg);
    if (!shkv_open_mdudobj(sn, &op_p->head, PROT_READ | PROT_WRITE, nullptr, op_p->errptr, op_p->ring_p))
        return 0;
    if (wants_place(op_p) && !recover_growth(&op_p->head, sn, op_p->flg, op_p->errptr))
        return 0;
    if (!set_hdmd_hashes(op_p->flg, op_p->access_mode, sn, op_p->hashfn, 0, 0, op_p->ring_p, &op_p->head,
                         op_p->dbname, op_p->errptr))
        return 0;
    LOG("%s: MM mode is set to 0x%x", "shkv_open", sn->conf_flg & CONF_MM_MASK);
    if (!set_hdmd_mm(&op_p->head, sn, op_p->ring_p, op_p->errptr))
        return 0;
    op_p->head.sn = sn;
    take_place(op_p);
    return 1;
}

// Only an ordinary write open takes the lock; one for debugging or protection alone does not.
static int claim(write_op *op_p)
{
    if (!(op_p->access_mode & SHKV_AM_WRITE))
        return claim_locked(op_p);
    if (kmutex_lock(&op_p->sn->wr_ksem) != 0)
        return fail_err(op_p->ring_p, 0x4d, op_p->uuid, op_p->errptr, EFAULT, "%s,fail to get writer ksem ",
                        "shkv_open");
    int result = claim_locked(op_p);
    if (pthread_mutex_unlock(&op_p->sn->wr_ksem) != 0)
        LOG("%s,fail to post writer ksem ", "shkv_open");
    return result;
}

static int enter_head(write_op *op_p)
{
    int handle = shkv_set_heads(&op_p->head);
    if (handle >= 1)
        return handle;
    give_place_back(op_p);
    return fail_err(op_p->ring_p, 0x5c, (uint32_t)handle, op_p->errptr, EINVAL,
                    "%s uuid:%d, shkv_set_heads fail %d", "shkv_open", (int)op_p->uuid, handle);
}

// What a dead writer left ---------------------------------------------------------------------------

// The slot stays taken after a failure, without its supernode, which goes.
static int settle_batch(write_op *op_p, int handle)
{
    if (get32(&op_p->sn->iodb_mark) >> 8 != IODB_LIVE)
        return 1;
    *op_p->errptr = (uint32_t)shkv_start_rollback(handle);
    if (*op_p->errptr == 0)
        return 1;
    fail(op_p->ring_p, 0x5e, op_p->uuid, 0, "uuid:%d, rollback failed when shkv open", (int)op_p->uuid);
    give_place_back(op_p);
    bool locked = sem_take(&hd_sem) == 0; // who scans the heads is not looking at it now
    shkv_db_heads[handle - 1].sn = nullptr;
    forget_view(&shkv_db_heads[handle - 1]); // of the writes that were rolled back
    if (locked)
        sem_give(&hd_sem);
    return 0;
}

// Every write open sets the protection to what it asks for, so it also switches it off.
static void settle_flags(write_op *op_p)
{
    uint32_t sn_flg = get32(&op_p->sn->sn_flg) & ~SN_WPROT;
    if (op_p->access_mode & SHKV_AM_DBG)
        sn_flg |= SN_DBG_WR;
    if (op_p->access_mode & SHKV_AM_WPROT)
        sn_flg |= SN_WPROT;
    put32(&op_p->sn->sn_flg, sn_flg);
}

// Results are not looked at: the store can be used as it is, and the next add or open tries again.
static void settle_tables(write_op *op_p, int handle)
{
    if (op_p->flg & CF_TXN_COMMIT)
        shkv_txn_commit(handle, nullptr);
    if ((op_p->flg & CF_TXN) || !(op_p->flg & (CF_REFILL1 | CF_REFILL2)))
        return;
    shkv_head *head = check_shkv_hdl(handle);
    refill_tm_limit = 0;
    if (head)
        shkv_resize_md(head);
}

static int check_budget(write_op *op_p, int handle)
{
    uint32_t owner = op_p->sn->uuid;
    if (!(op_p->access_mode & SHKV_AM_WRITE) || owner == UUID_NONE || owner == UUID_REGISTRY)
        return 1;
    *op_p->errptr = (uint32_t)shkv_check_memsz_per_uuid(0, owner);
    if (*op_p->errptr == 0)
        return 1;
    fail(op_p->ring_p, 0x5e, *op_p->errptr, 0,
         "uuid:%d, shkv_check_memsz_per_uuid failed in shkv_open, err = %d", (int)op_p->uuid,
         (int)*op_p->errptr);
    give_place_back(op_p);
    shkv_clear_head(handle);
    return 0;
}

static int settle(write_op *op_p, int handle)
{
    if (!settle_batch(op_p, handle))
        return 0;
    settle_flags(op_p);
    settle_tables(op_p, handle);
    return check_budget(op_p, handle) ? handle : 0;
}

// The flow. After a refusal the objects that were mapped by then stay mapped. Intended.
int shkv_open_write(const char *dbname, uint32_t uuid, uint64_t hashfn, uint32_t access_mode,
                    uint32_t head_mode, uint32_t *errptr)
{
    if (!(access_mode & (SHKV_AM_DBG | SHKV_AM_RESHAPE | SHKV_AM_WPROT))) {
        shkv_head unused = {};
        int open_already = shkv_open_check_existing_heads(dbname, access_mode, &unused, errptr);
        if (open_already || *errptr)
            return *errptr ? 0 : open_already;
    }
    write_op op = {};
    op.dbname = dbname;
    op.uuid = uuid;
    op.hashfn = hashfn;
    op.access_mode = access_mode;
    op.errptr = errptr;
    op.head.access_mode = head_mode;

    char path[SHKV_PATH_MAX];
    obj_path(path, dbname, OBJ_SN);
    op.sn = shkv_open_sn(path, uuid, PROT_READ | PROT_WRITE, errptr);
    if (!op.sn)
        return 0;
    op.ring_p = ring_of(op.sn);
    int handle = check_state(&op) && claim(&op) ? enter_head(&op) : 0;
    if (handle)
        handle = settle(&op, handle);
    if (!handle)
        munmap(op.sn, sn_map_sz());
    return handle;
}
