// Makes the record space longer: whole, at a new address, or in a shared mapping by one more chunk
// behind what is mapped. Records stay where they are and every offset stays valid.
//
// What another process sees, in the order of the stores:
//   1. the object is longer; nothing refers to the new part yet
//   2. ud_end and ud_full of the sbm: the writer may use the new part
//   3. obj_sz, then obj_ver of the descriptor: mappings go stale, and are made anew at this length
// A writer that dies between 2 and 3 leaves a header that promises more than openers map; the next
// write open brings the descriptor up to it before anything uses the space.
#include "shkv_intf/resize_ud.h"

#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/head.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/sizing.h"
#include "shkv_intf/word.h"

namespace {

constexpr uint32_t MB_SHIFT = 20;
constexpr uint32_t DOUBLE_BELOW = 300u << MB_SHIFT; // up to here a step doubles the space,
constexpr uint32_t HALF_BELOW = 600u << MB_SHIFT;   // from there adds a half, from here a third

struct grow_op {
    shkv_head *head;
    supernode *sn;
    void *ring_p;
    ud_desc *desc;
    ud_map *ud;
    uint32_t old_sz, step;
    bool limited; // the service counts against the limit per uuid
};

// By size, not by comm_flg: the object that has one. Both have one behind a reshape that failed
// before it began; then only the one in force has a header that may be read.
int pick_space(grow_op *op_p)
{
    supernode *sn = op_p->sn;
    bool ud1 = get32(&sn->ud1.obj_sz) != 0, ud2 = get32(&sn->ud2.obj_sz) != 0;
    if (ud1 && ud2)
        ud1 = get32(&sn->comm_flg) & CF_UD1;
    if (!ud1 && !ud2)
        return fail(op_p->ring_p, 0xEF, 0, EINVAL, "can not identify ud in shkv_resize_ud");
    LOG(ud1 ? "%s: resize UD1" : "%s: resize UD2", "shkv_resize_ud");
    op_p->desc = ud1 ? &sn->ud1 : &sn->ud2;
    op_p->ud = ud1 ? op_p->head->ud1_map : op_p->head->ud2_map;
    op_p->old_sz = get32(&op_p->desc->obj_sz);
    return op_p->ud ? 0 : ENOMEM;
}

int check_limits(grow_op *op_p)
{
    if (op_p->old_sz >= shkv_max_db_sz)
        return fail(op_p->ring_p, 0xF0, op_p->old_sz, ENOMEM, "Reached MAX database size. Failed to resize.");
    uint32_t uuid = op_p->sn->uuid;
    op_p->limited = uuid != UUID_NONE && uuid != UUID_BIG_A && uuid != UUID_BIG_B;
    if (op_p->limited && uuid_mem_used >= shkv_memory_limit_process)
        return fail(op_p->ring_p, 0xF1, uuid_mem_used, ENOMEM,
                    "%s failed due to memory limit per uuid %lu %lu", "shkv_resize_ud",
                    (unsigned long)uuid_mem_used, (unsigned long)shkv_memory_limit_process);
    return 0;
}

int lengthen(const grow_op *op_p)
{
    if (ftruncate(op_p->ud->fd, (off_t)op_p->old_sz + op_p->step) == 0)
        return 0;
    int err = errno;
    return fail(op_p->ring_p, 0xF4, err, err, "fd:%d, failed to ftruncate obj shm,errno:%d",
                op_p->ud->fd, err);
}

// Bytes by which a whole object grows: in whole megabytes once it is large.
uint32_t whole_step(const grow_op *op_p)
{
    uint32_t old_sz = op_p->old_sz, step = old_sz;
    if (old_sz >= HALF_BELOW)
        step = (old_sz >> MB_SHIFT) / 3 << MB_SHIFT;
    else if (old_sz >= DOUBLE_BELOW)
        step = (old_sz >> MB_SHIFT) / 2 << MB_SHIFT;
    if (step > shkv_max_db_sz - old_sz)
        step = shkv_max_db_sz - old_sz;
    if (op_p->limited && step > shkv_memory_limit_process - uuid_mem_used)
        step = (uint32_t)(shkv_memory_limit_process - uuid_mem_used);
    return step;
}

// Maps the object from byte 0, in the place of what is mapped. False when that fails; map[0] is null
// then.
bool map_whole(const grow_op *op_p, uint32_t sz)
{
    ud_map *ud = op_p->ud;
    return mapping_replace(op_p->head, &ud->map[0], &ud->mapped_sz, ud->fd, sz, PROT_READ | PROT_WRITE);
}

int grow_whole(grow_op *op_p)
{
    ud_map *ud = op_p->ud;
    op_p->step = whole_step(op_p);
    LOG("%s: resize from %d to %d", "shkv_resize_ud", (int)op_p->old_sz, (int)(op_p->old_sz + op_p->step));
    int result = lengthen(op_p);
    if (result != 0) {
        // The space stays unmapped here: this process is done with the store. Intended.
        mapping_give_up(op_p->head, &ud->map[0], &ud->mapped_sz);
        return result;
    }
    if (map_whole(op_p, op_p->old_sz + op_p->step))
        return 0;
    fail(op_p->ring_p, 0xF6, errno, ENOMEM, "fd %d failed to mmap obj shm:%d", ud->fd, errno);
    if (!map_whole(op_p, op_p->old_sz))
        fail(op_p->ring_p, 0xEE, errno, ENOMEM, "shkv_resize_ud, fail to return original space");
    return ENOMEM;
}

// A chunk comes whole or not at all, and only a store without a uuid is held to no limit.
bool chunk_fits(const grow_op *op_p)
{
    if (op_p->step > UINT32_MAX - op_p->old_sz)
        return false;
    return op_p->sn->uuid == UUID_NONE ||
           (op_p->step <= shkv_max_db_sz - op_p->old_sz && uuid_mem_used <= shkv_memory_limit_process &&
            op_p->step <= shkv_memory_limit_process - uuid_mem_used);
}

// No mapping that exists is touched, so addresses handed out earlier stay good.
int grow_chunk(grow_op *op_p)
{
    ud_map *ud = op_p->ud;
    op_p->step = chunk_rest(op_p->old_sz);
    if (!chunk_fits(op_p)) {
        int result = fail(op_p->ring_p, 0xF1, op_p->step, ENOMEM, "%s failed %lu %lu %lu", "shkv_resize_ud",
                          (unsigned long)uuid_mem_used, (unsigned long)op_p->old_sz, (unsigned long)op_p->step);
        op_p->step = 0; // the size that the last line tells is the old one
        return result;
    }
    uint32_t new_sz = op_p->old_sz + op_p->step;
    LOG("%s: sharedmaping DB resize from %d to %d", "shkv_resize_ud", (int)op_p->old_sz, (int)new_sz);
    int result = lengthen(op_p);
    if (result != 0 || ud->mapped_sz >= new_sz) // mapped by a growth that gained nothing
        return result;
    void *piece = ud->map_cnt < UD_MAPS ? map_object(ud->fd, op_p->step, PROT_READ | PROT_WRITE, op_p->old_sz)
                                        : MAP_FAILED;
    if (piece == MAP_FAILED)
        return fail(op_p->ring_p, 0xF6, errno, ENOMEM, "fd %d failed to mmap obj shm:%d", ud->fd, errno);
    // The table may be shared with this process's read handles: the piece, then the count.
    ud->map[ud->map_cnt] = piece;
    ud->map_cnt++;
    put32(&ud->mapped_sz, new_sz);
    return 0;
}

// The space that the writer may use. Growth leaves the reserve of the smallest store behind it,
// whatever the store's size, so a larger store's reserve shrinks.
int raise_header(grow_op *op_p)
{
    sbm *sbm_p = (sbm *)op_p->ud->map[0];
    uint32_t new_sz = op_p->old_sz + op_p->step, dn_sz = sbm_p->dn_sz;
    put32(&sbm_p->ud_end, new_sz - (new_sz - sbm_p->dn_base) % dn_sz);
    int32_t full = (int32_t)(sbm_p->ud_end - GROWN_RESERVE * dn_sz);
    if (full <= sbm_p->ud_full)
        return fail(op_p->ring_p, 0xF6, full, ENOMEM,
                    "shkv_resize_ud ud_full unchanged %d %d %d %d %d %d %d", sbm_p->ud_full, full,
                    (int)sbm_p->ud_end, (int)sbm_p->dn_base, (int)dn_sz, (int)op_p->old_sz, (int)new_sz);
    sbm_p->ud_full = full;
    return 0;
}

void record_growth(grow_op *op_p)
{
    ud_desc *desc = op_p->desc;
    put32(&desc->obj_sz, op_p->old_sz + op_p->step);
    // Publish: the object has this length and its header covers it. Pairs with the compare in
    // check_hdmd_remap; a mapping that is not renewed stays good for the old part.
    put32(&desc->obj_ver, get32(&desc->obj_ver) + 1);
    put32(&op_p->ud->ver, get32(&desc->obj_ver));
    put32(&op_p->head->access_mode, op_p->head->access_mode | SHKV_AM_UD_GREW); // close tells the registry
    if (op_p->sn->uuid != UUID_NONE)
        uuid_mem_used += op_p->step;
}

int grow_locked(grow_op *op_p)
{
    int result = pick_space(op_p);
    if (result != 0 || (result = check_limits(op_p)) != 0)
        return result;
    result = is_shared_map(op_p->head) ? grow_chunk(op_p) : grow_whole(op_p);
    if (result != 0 || (result = raise_header(op_p)) != 0)
        return result;
    record_growth(op_p);
    return 0;
}

} // namespace

int shkv_resize_ud(shkv_head *head, void *ring_p)
{
    grow_op op = {};
    op.head = head;
    op.sn = head->sn;
    op.ring_p = ring_p;
    if (sem_take(&obj_sem) != 0)
        return fail(ring_p, 0xED, errno, EFAULT, "db shkv semaphore wait failed,errno:%d", errno);
    int result = grow_locked(&op);
    if (sem_give(&obj_sem) != 0)
        return fail(ring_p, 0xF6, errno, EFAULT, "db shkv semaphore post failed,errno:%d", errno);
    LOG("shkv_resize_ud with %d", (int)(op.old_sz + op.step));
    return result;
}
