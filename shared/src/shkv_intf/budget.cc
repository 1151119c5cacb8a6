// The memory budget of a service, and two questions about a store's size by its name.
//
// uuid_mem_used is counted once per process, from the registry, and kept up from then on by this
// process alone; what other processes of the same uuid do later is not seen. It is 0 until it has
// been counted, so a service that owns nothing is counted again each time.
#include "shkv_intf/budget.h"

#include <errno.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/word.h"

// Sums the sizes of the stores that the registry lists for uuid. Without obj_sem, which the iteration's
// remap step takes when the registry was reshaped meanwhile.
static int count_usage(int reg, uint32_t uuid, uint64_t *sum_p)
{
    int result = shkv_iterate(reg, nullptr, nullptr, nullptr, 1);
    if (result != 0) {
        if (result != ENOENT)
            LOG("failed to iterate registry db. ");
        return result;
    }
    for (;;) {
        char uri[SHKV_NAME_MAX];
        reg_rec rec;
        shkv_buf key = {uri, sizeof uri}, val = {&rec, sizeof rec};
        shkv_iter_pos pos;
        result = shkv_iterate(reg, &key, &val, &pos, 0);
        if (result == ENOENT)
            break;
        if (result != 0)
            return fail(nullptr, 0, 0, result, "shkv_register failed to get memory usage, uuid:%d", uuid);
        if (rec.reg_uuid == uuid)
            *sum_p += rec.reg_size;
    }
    return 0;
}

// Under obj_sem: two stores that two threads create pass here in turn.
static int reserve_locked(uint64_t counted, uint32_t size, uint32_t uuid)
{
    if (uuid_mem_used == 0)
        uuid_mem_used = counted;
    if (size == 0)
        return 0;
    if (uuid == UUID_BIG_A || uuid == UUID_BIG_B) { // bounded per store, not together
        if (size > shkv_max_db_sz)
            return fail(nullptr, 0, 0, ENOMEM, "skvhelper attempting large DB uuid:%d", uuid);
    } else if (size + uuid_mem_used > shkv_memory_limit_process) {
        // 32MB stands in the text whatever the limit is.
        return fail(nullptr, 0, 0, ENOMEM, "per process memory usage (32MB) exhausted, uuid:%d", uuid);
    }
    uuid_mem_used += size;
    return 0;
}

// What another thread has counted or taken since this one counted stands.
static int reserve(int reg, uint32_t size, uint32_t uuid)
{
    uint64_t counted = 0;
    int result = __atomic_load_n(&uuid_mem_used, __ATOMIC_RELAXED) == 0 ? count_usage(reg, uuid, &counted) : 0;
    if (result != 0)
        return result;
    if (sem_take(&obj_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "db shkv semaphore wait failed,errno:%d", errno);
    result = reserve_locked(counted, size, uuid);
    if (sem_give(&obj_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "db shkv semaphore post failed,errno:%d", errno);
    return result;
}

int shkv_check_memsz_per_uuid(uint32_t size, uint32_t uuid)
{
    uint32_t err = 0;
    int reg = shkv_open(SHKV_REGISTRY_NAME, UUID_INTERNAL, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
    if (reg == 0)
        return fail(nullptr, 0, 0, (int)err, "%s,shkv registry open failed,errcode=0x%x",
                    "shkv_check_memsz_per_uuid", err);
    int result = reserve(reg, size, uuid);
    shkv_close(reg);
    return result;
}

uint32_t shkv_get_db_size(const char *uri)
{
    uint32_t err = 0;
    int handle = shkv_open(uri, UUID_INTERNAL, 0, SHKV_AM_READ, &err);
    if (handle == 0)
        return 0;
    shkv_head *head = check_shkv_hdl(handle);
    if (!head) {
        LOG("%s: handle error %d", "shkv_get_db_size", handle);
        return 0;
    }
    const supernode *sn = head->sn;
    uint32_t size = get32(get32(&sn->comm_flg) & CF_UD1 ? &sn->ud1.obj_sz : &sn->ud2.obj_sz);
    shkv_close(handle);
    return size;
}

// Units, in a vector store. By which record space is not empty, not by which is in force.
static uint32_t capacity(const shkv_head *head)
{
    if (!head) {
        LOG("The head handle is not valid, err:%d", EBADF);
        return 0;
    }
    const ud_map *map_p = nullptr;
    if (get32(&head->sn->ud1.obj_sz) != 0)
        map_p = head->ud1_map;
    else if (get32(&head->sn->ud2.obj_sz) != 0)
        map_p = head->ud2_map;
    const sbm *sbm_p = map_p ? (const sbm *)map_p->map[0] : nullptr;
    if (!sbm_p || sbm_p->dn_sz == 0) {
        LOG("Can't find out which ud to use, err:%d", EINVAL);
        return 0;
    }
    return ((uint32_t)sbm_p->ud_full - sbm_p->dn_base) / sbm_p->dn_sz - 1;
}

uint32_t shkv_get_exact_max_entries_from_db(const char *uri)
{
    uint32_t err = 0;
    int handle = shkv_open(uri, UUID_NONE, 0, SHKV_AM_READ, &err);
    uint32_t cnt = 0;
    if (handle == 0)
        LOG("Can't get the handle, shkv open failed, err:%d", err);
    else
        cnt = capacity(check_shkv_hdl(handle));
    shkv_close(handle); // of handle 0 too: EBADF and no more
    return cnt;
}
