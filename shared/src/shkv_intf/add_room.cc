// Out of space: the record space grows, then the table is rebuilt for it, or the rebuild is put off
// to the end of a transaction. Nothing of the add itself has been published yet.
//
// All under wr_ksem. A reshaper prepares the idle table and space under it: without it, growth and
// the reshaper could both take the same object for theirs. In a reshape nothing grows.
#include "shkv_intf/add_room.h"

#include <errno.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/timer.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/resize_md.h"
#include "shkv_intf/resize_ud.h"
#include "shkv_intf/word.h"

// MD_TXN borrows the very link that a rebuild would write. The pairing is the reverse of
// shkv_resize_md's; only "either bit" is ever tested. Intended.
static void postpone_rebuild(supernode *sn, uint32_t flg)
{
    change32(&sn->comm_flg, 0, flg & CF_MD1 ? CF_REFILL1 : CF_REFILL2);
    LOG("postpone resizing MD as we are in txn\n");
}

static int grow_space(shkv_head *head, void *ring_p)
{
    refill_tm_limit = get16(&head->sn->rz_tm_chk);
    refill_tm_start = cycles();
    int result = shkv_resize_ud(head, ring_p);
    if (result == ENOMEM)
        return fail(nullptr, 0, 0, ENOMEM,
                    "failed to resize UD because it hits the memory limit per uuid: 0x%x", (unsigned)result);
    if (result != 0)
        return fail(nullptr, 0, 0, ENOMEM, "failed to resize UD: 0x%x", (unsigned)result);
    LOG("successfully resized UD");
    return 0;
}

static int grow_locked(shkv_head *head, uint32_t flg, void *ring_p)
{
    int result = grow_space(head, ring_p);
    if (result != 0)
        return result;
    if (flg & CF_TXN)
        postpone_rebuild(head->sn, flg);
    else if (shkv_resize_md(head) != 0)
        LOG("shkv_add: fail resize md but succeed                             resize ud, ignore and continue");
    return 0;
}

// A reshape may have begun while the lock was waited for.
static int grow_under_lock(shkv_head *head, uint32_t flg, void *ring_p)
{
    pthread_mutex_t *ksem_p = &head->sn->wr_ksem;
    if (kmutex_lock(ksem_p) != 0)
        return fail(nullptr, 0, 0, EFAULT, "%s,fail to get writer ksem ", "__shkv_add");
    int result = get32(&head->sn->comm_flg) == flg ? grow_locked(head, flg, ring_p) : 0;
    pthread_mutex_unlock(ksem_p);
    return result;
}

int add_make_room(shkv_head *head, uint32_t flg, bool locked, void *ring_p)
{
    if (out_of_actual_mem) {
        out_of_actual_mem = 0;
        return fail(nullptr, 0, 0, ENOMEM, "shkv_add out of actual mem.");
    }
    if (get32(&head->sn->auto_rz) == 0 || (head->access_mode & SHKV_AM_RESHAPE) || (flg & CF_RESHAPE))
        return ENOMEM;
    return locked ? grow_locked(head, flg, ring_p) : grow_under_lock(head, flg, ring_p);
}
