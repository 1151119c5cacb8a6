// The read open: maps a store read-only, but for the ring's page, and changes nothing in it.
//
// Whole read opens of a process run one at a time, so that the second reader of a store that grows
// by chunks sees the first one's finished head and takes over its table of mappings.
#include "shkv_intf/open_read.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/bind.h"
#include "shkv_intf/head.h"
#include "shkv_intf/obj_drop.h"
#include "shkv_intf/obj_open.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/word.h"

// The search for a head ---------------------------------------------------------------------------

// The tables that the read open in progress takes over. Set and read under hd_sem. open_sem makes it
// one at a time.
static const ud_map *pinned_maps[2]; // of UD1 and UD2

bool ud_map_in_use(const ud_map *map_p, const shkv_head *except_p)
{
    for (const ud_map *const &pinned : pinned_maps)
        if (map_p && map_p == __atomic_load_n(&pinned, __ATOMIC_ACQUIRE))
            return true;
    for (const shkv_head &other : shkv_db_heads)
        if (&other != except_p && other.access_mode != 0 &&
            (other.ud1_map == map_p || (map_p && other.ud2_map == map_p)))
            return true;
    return false;
}

static void pin_shared_maps(const ud_map *ud1_map, const ud_map *ud2_map)
{
    __atomic_store_n(&pinned_maps[0], ud1_map, __ATOMIC_RELEASE);
    __atomic_store_n(&pinned_maps[1], ud2_map, __ATOMIC_RELEASE);
}

void unpin_shared_maps()
{
    pin_shared_maps(nullptr, nullptr);
}

// Slots of this store. One that was marked destroyed is another store of the same name, and a slot
// whose access mode has gone may point at a supernode that has gone, too.
static bool is_of_store(const shkv_head *head, const char *dbname)
{
    return head->sn && head->access_mode != 0 && !(get32(&head->sn->comm_flg) & CF_DESTROYED) &&
           strncmp(head->sn->dbname, dbname, sizeof head->sn->dbname) == 0;
}

static bool can_share(const shkv_head *head, const char *dbname, uint32_t mode)
{
    return strcmp(dbname, SHKV_REGISTRY_NAME) != 0 && (mode & SHKV_AM_READ) && !(mode & SHKV_AM_WRITE) &&
           !(head->access_mode & SHKV_AM_RESHAPE) && (head->sn->conf_flg & CONF_SHMAP);
}

static bool iterates_only(uint32_t mode)
{
    return (mode & SHKV_AM_ITER) && !(mode & SHKV_AM_WRITE);
}

// A writer's own thread gets its handle again, and readers of the registry the one that is there.
static bool can_reuse(const shkv_head *head, uint32_t mode)
{
    const supernode *sn = head->sn;
    uint32_t old_mode = head->access_mode;
    if (iterates_only(old_mode) || iterates_only(mode) || ((old_mode | mode) & (SHKV_AM_DBG | SHKV_AM_RESHAPE)))
        return false;
    if (mode & SHKV_AM_WRITE) {
        if (!(old_mode & SHKV_AM_WRITE))
            return false;
        return my_tid() == (sn->conf_flg & CONF_MULTIWR ? head->open_tid : get32(&sn->wr_tid[0]));
    }
    return strncmp(sn->uri, SHKV_REGISTRY_NAME, strlen(SHKV_REGISTRY_NAME)) == 0 && (old_mode & SHKV_AM_READ) &&
           !(old_mode & SHKV_AM_WRITE) && (mode & SHKV_AM_READ);
}

static int search_locked(const char *dbname, uint32_t mode, shkv_head *share_out)
{
    for (shkv_head &head : shkv_db_heads) {
        if (!is_of_store(&head, dbname))
            continue;
        if (can_share(&head, dbname, mode)) {
            LOG("%s: use shared mapping from (shkvh:%d)                         access_mode %d uri %s",
                "shkv_open_check_existing_heads", handle_of(&head), head.access_mode, head.sn->uri);
            pin_shared_maps(head.ud1_map, head.ud2_map);
            *share_out = head; // as it is now: it may be closed before the maps are taken over
            return 0;
        }
        if (can_reuse(&head, mode)) {
            LOG("%s: same mode already opened (shkvh:%d)                     access_mode %d",
                "shkv_open_check_existing_heads", handle_of(&head), head.access_mode);
            return handle_of(&head);
        }
    }
    return 0;
}

int shkv_open_check_existing_heads(const char *dbname, uint32_t access_mode, shkv_head *share_out,
                                   uint32_t *errptr)
{
    if (sem_take(&hd_sem) == -1)
        return fail_err(nullptr, 0, 0, errptr, EFAULT, "%s,fail to get header sem ",
                        "shkv_open_check_existing_heads");
    int handle = search_locked(dbname, access_mode, share_out);
    if (sem_give(&hd_sem) == -1)
        return fail_err(nullptr, 0, 0, errptr, EFAULT, "%s,fail to post header sem ",
                        "shkv_open_check_existing_heads");
    return handle;
}

// The open ----------------------------------------------------------------------------------------

struct read_op {
    const char *dbname;
    uint32_t uuid;
    uint64_t hashfn;
    uint32_t access_mode;
    uint32_t *errptr;
    shkv_head share;    // whose ud_maps to use; without a supernode: nobody's
    supernode *sn;
    shkv_head head;     // becomes the slot
};

static int map_and_bind(read_op *op_p)
{
    void *ring_p = ring_of(op_p->sn);
    if (!sn_complete(op_p->sn))
        return fail_err(ring_p, 0x4b, op_p->uuid, op_p->errptr, EINVAL, "uuid:%d, the db is insane.",
                        (int)op_p->uuid);
    uint32_t flg = get32(&op_p->sn->comm_flg);
    shkv_head *share_p = op_p->share.sn ? &op_p->share : nullptr;
    if (!shkv_open_mdudobj(op_p->sn, &op_p->head, PROT_READ, share_p, op_p->errptr, ring_p))
        return 0;
    if (!set_hdmd_hashes(flg, op_p->access_mode, op_p->sn, op_p->hashfn, 0, 0, ring_p, &op_p->head,
                         op_p->dbname, op_p->errptr))
        return 0;
    LOG("%s: MM mode is set to 0x%x", "shkv_open", op_p->sn->conf_flg & CONF_MM_MASK);
    return set_hdmd_mm(&op_p->head, op_p->sn, ring_p, op_p->errptr);
}

static int enter_head(read_op *op_p)
{
    op_p->head.sn = op_p->sn;
    int handle = shkv_set_heads(&op_p->head);
    if (handle < 1)
        return fail_err(ring_of(op_p->sn), 0x5c, (uint32_t)handle, op_p->errptr, EINVAL,
                        "%s uuid:%d, shkv_set_heads fail %d", "shkv_open", (int)op_p->uuid, handle);
    return handle;
}

// A refused open keeps nothing of the store but a shared table, which is another head's.
static void let_go(read_op *op_p)
{
    unmap_mds(&op_p->head);
    close_mds(&op_p->head);
    if (!op_p->share.sn) {
        if (op_p->head.ud1_map)
            release_ud_maps(&op_p->head, op_p->head.ud1_map, false);
        if (op_p->head.ud2_map)
            release_ud_maps(&op_p->head, op_p->head.ud2_map, false);
        free_ud_map(&op_p->head.ud1_map);
        free_ud_map(&op_p->head.ud2_map);
    }
    munmap(op_p->sn, sn_map_sz());
}

static int open_read_locked(read_op *op_p)
{
    int handle = shkv_open_check_existing_heads(op_p->dbname, op_p->access_mode, &op_p->share, op_p->errptr);
    if (handle || *op_p->errptr)
        return *op_p->errptr ? 0 : handle;
    char path[SHKV_PATH_MAX];
    obj_path(path, op_p->dbname, OBJ_SN);
    op_p->sn = shkv_open_sn(path, op_p->uuid, PROT_READ, op_p->errptr);
    if (!op_p->sn)
        return 0;
    handle = map_and_bind(op_p) ? enter_head(op_p) : 0;
    if (handle == 0)
        let_go(op_p);
    return handle;
}

int shkv_open_read(const char *dbname, uint32_t uuid, uint64_t hashfn, uint32_t access_mode, uint32_t head_mode,
                   uint32_t *errptr)
{
    if (sem_take(&open_sem) == -1) // the error word stays as it is
        return fail(nullptr, 0, 0, 0, "db shkv semaphore wait failed,errno:%d", errno);
    read_op op = {};
    op.dbname = dbname;
    op.uuid = uuid;
    op.hashfn = hashfn;
    op.access_mode = access_mode;
    op.errptr = errptr;
    op.head.access_mode = head_mode;
    int handle = open_read_locked(&op);
    unpin_shared_maps(); // the head in the table keeps the maps from here on
    if (sem_give(&open_sem) == -1) // the head stays in its place
        return fail(nullptr, 0, 0, 0, "db shkv semaphore post failed,errno:%d", errno);
    return handle;
}
