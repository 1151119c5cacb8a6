// shkv_close: ends one handle of one process. The store's objects stay, with all that is in them.
//
// What other processes see: wr_tid, SN_DBG_WR, the registry's size of a store that grew, and at a
// reshaper's close the end of the reshape. The four locks are taken one at a time, in this order:
// wr_ksem, obj_sem, resh_sem, hd_sem.
#include "shkv_intf/close.h"

#include <errno.h>
#include <sys/mman.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "reshape/reshape_end.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/head.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_drop.h"
#include "shkv_intf/open_read.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/registry.h"
#include "shkv_intf/word.h"

// A single writer's slot is cleared whoever is in it; of several writers, this thread's.
static int leave_place(shkv_head *head)
{
    supernode *sn = head->sn;
    if (kmutex_lock(&sn->wr_ksem) != 0)
        return fail(nullptr, 0, 0, EFAULT, "%s,fail to get write ksem ", sn->dbname);
    if (!(sn->conf_flg & CONF_MULTIWR)) {
        put32(&sn->wr_tid[0], 0);
    } else {
        uint32_t tid = my_tid();
        for (uint32_t &slot : sn->wr_tid)
            if (get32(&slot) == tid)
                put32(&slot, 0);
    }
    if (pthread_mutex_unlock(&sn->wr_ksem) != 0)
        return fail(nullptr, 0, 0, EFAULT, "%s,fail to post write ksem ", sn->dbname);
    return 0;
}

// CONF_REG_1 hides CONF_REG_2 here, unlike at creation. Intended.
static void report_growth(shkv_head *head)
{
    supernode *sn = head->sn;
    uint32_t size = get32(get32(&sn->comm_flg) & CF_UD1 ? &sn->ud1.obj_sz : &sn->ud2.obj_sz);
    uint32_t flags = REG_UPDATE;
    if (sn->conf_flg & CONF_REG_1)
        flags |= 0x10000;
    else if (sn->conf_flg & CONF_REG_2)
        flags |= 0x20000;
    shkv_register(sn->uri, sn->uuid, flags, size); // a refusal leaves the old size in the registry
    head->access_mode &= ~SHKV_AM_UD_GREW;
}

// Two heads without a table of UD2 count as sharing it. Intended.
static bool shares_maps(const shkv_head *head)
{
    if (ud_map_in_use(head->ud1_map, head))
        return true;
    for (const shkv_head &other : shkv_db_heads)
        if (&other != head && other.access_mode != 0 && other.ud2_map == head->ud2_map)
            return true;
    return false;
}

// A table that another head uses is left to it. UD2's own mappings stay until the process ends, and
// the second release finds UD1's gone. Intended.
static void release_maps(shkv_head *head)
{
    if (shares_maps(head)) {
        head->ud1_map = nullptr;
        head->ud2_map = nullptr;
        return;
    }
    bool shared_map = is_shared_map(head);
    if (head->ud1_map)
        release_ud_maps(head, head->ud1_map, shared_map);
    if (head->ud1_map && head->ud2_map)
        release_ud_maps(head, head->ud1_map, shared_map);
    free_ud_map(&head->ud1_map);
    free_ud_map(&head->ud2_map);
}

static int release_locked(int handle)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head) // another thread has closed it meanwhile
        return EBADF;
    forget_view(head);
    unmap_mds(head);
    release_maps(head);
    mapping_drop_old(head);
    close_mds(head);
    supernode *sn = head->sn;
    put32(&head->access_mode, 0);
    head->refill_pos = 0;
    head->sn = nullptr;
    munmap(sn, sn_map_sz());
    return 0;
}

static int release_head(int handle)
{
    if (sem_take(&hd_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "fail to get header sem shkv_close\n");
    int result = release_locked(handle);
    if (sem_give(&hd_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "fail to post header sem shkv_close\n");
    return result;
}

int shkv_close(int handle)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    int result = 0;
    if ((head->access_mode & SHKV_AM_WRITE) && (result = leave_place(head)) != 0)
        return result;
    if ((head->access_mode & SHKV_AM_RESHAPE) && (result = reshape_end(head, handle)) != 0)
        return result;
    uint32_t mode = head->access_mode;
    if (mode & SHKV_AM_DBG)
        put32(&head->sn->sn_flg, get32(&head->sn->sn_flg) & ~SN_DBG_WR);
    if (mode & SHKV_AM_UD_GREW)
        report_growth(head);
    if (mode & SHKV_AM_RESHAPE)
        reshape_release_token(head);
    return release_head(handle);
}
