// shkv_destroy: takes a store away from everyone.
//
//   1. CF_DESTROYED goes into comm_flg, before the first name goes: from then on every operation of
//      every process refuses, and nobody maps anything of the store anew
//   2. the names: MD1, MD2, MD_TXN, UD1, UD2
//   3. the registry's record
//   4. the supernode's name. Its pages last as long as somebody has them mapped
// A crash on the way leaves a store that is marked and partly there.
#include "shkv_intf/destroy.h"

#include <errno.h>

#include "diag/fail.h"
#include "diag/trace.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/head.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_drop.h"
#include "shkv_intf/open_read.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/registry.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/word.h"

static void remove_tables(shkv_head *head)
{
    const struct { int obj_t; md_rec *rec_p; } tables[] = {
        {OBJ_MD1, &head->md1}, {OBJ_MD2, &head->md2}, {OBJ_MD_TXN, &head->md_txn}};
    for (const auto &table : tables) {
        if (table.rec_p->fd == 0)
            continue;
        shkv_del_shm_obj(head, table.obj_t);
        table.rec_p->base = nullptr;
    }
}

// Another head of this process may use the same table; the last one to close frees it then.
static bool is_shared(const shkv_head *head, const ud_map *map_p)
{
    if (sem_take(&hd_sem) == -1)
        return true; // rather kept than freed under somebody
    bool shared = ud_map_in_use(map_p, head);
    sem_give(&hd_sem);
    return shared;
}

static int remove_ud(shkv_head *head, int obj_t, ud_map **map_pp)
{
    char path[SHKV_PATH_MAX];
    obj_path(path, head->sn->dbname, obj_t);
    shkv_shm_unlink(path);
    if (!*map_pp)
        return 0;
    if (is_shared(head, *map_pp)) {
        *map_pp = nullptr;
        return 0;
    }
    if (sem_take(&obj_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "db shkv semaphore wait failed,errno:%d", errno);
    release_ud_maps(head, *map_pp, is_shared_map(head));
    free_ud_map(map_pp);
    if (sem_give(&obj_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "db shkv semaphore wait failed,errno:%d", errno);
    return 0;
}

// Threads that scan the heads must not meet a supernode that is unmapped, so the slot goes first.
static void remove_sn(shkv_head *head, int handle)
{
    shkv_head last = *head;
    mapping_drop_old(head);
    head->sn = nullptr;
    shkv_clear_head(handle);
    shkv_del_shm_obj(&last, OBJ_SN);
}

static int remove_objects(shkv_head *head, int handle, uint32_t size)
{
    remove_tables(head);
    int result = remove_ud(head, OBJ_UD1, &head->ud1_map);
    if (result == 0)
        result = remove_ud(head, OBJ_UD2, &head->ud2_map);
    if (result != 0)
        return result;
    shkv_register(head->sn->uri, head->sn->uuid, REG_DELETE, size); // a refusal leaves the record there
    remove_sn(head, handle);
    return 0;
}

int shkv_destroy(int handle)
{
    uint32_t err = 0;
    int reg_h = shkv_reg_open(&err);
    if (reg_h == 0)
        return err ? (int)err : EFAULT;
    if (!check_shkv_hdl(reg_h))
        return fail(nullptr, 0, 0, EBADF, "shkv_destroy, check reg_h handle fail %d", reg_h);
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return fail(nullptr, 0, 0, EBADF, "shkv_destroy, check shkv handle fail %d", handle);

    supernode *sn = head->sn;
    uint32_t flg = get32(&sn->comm_flg);
    uint32_t size = get32(flg & CF_UD1 ? &sn->ud1.obj_sz : &sn->ud2.obj_sz);
    if (!(head->access_mode & SHKV_AM_WRITE))
        return fail(ring_of(sn), 0x87, (uint32_t)handle, EINVAL,
                    "shkv_destroy, destroy is not allowed, shkvh:%d", handle);
    flg = get32(&sn->comm_flg);
    if (flg & CF_DESTROYED)
        return fail(ring_of(sn), 0x88, (uint32_t)handle, 0, "shkv_destroy, DB is already destroyed");
    change32(&sn->comm_flg, 0, CF_DESTROYED);
    return remove_objects(head, handle, size);
}
