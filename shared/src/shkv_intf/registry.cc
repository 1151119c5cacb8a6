// The registry: one store, shared by all services, with a record for every store of the machine.
//
// It is an ordinary store with several writers, so each record is written under its wr_ksem and
// read without a lock. A store enters after its own magic words are in place and leaves in its
// destruction; a record may thus be missing for a moment, and one outlives a store that was
// removed by other means. Nothing repairs that.
#include "shkv_intf/registry.h"

#include <assert.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"

#define REG_ALWAYS 9u          // in every reg_flags
#define REG_CALLER 0x30000u    // the bits that a caller may add
#define REG_RACE_US 10000      // how long the loser of a creation race waits for the winner

// Two processes may come here at once; O_EXCL lets one of them create. 1, or 0 with *err_p.
static int create_registry(uint32_t *err_p)
{
    const shkv_params conf = {SHKV_NAME_MAX, sizeof(reg_rec), 3000, CONF_FIXEDMM | CONF_MULTIWR, 0};
    mode_t mask = umask(0);
    int reg = shkv_create(SHKV_REGISTRY_NAME, UUID_REGISTRY, &conf, 0, err_p);
    umask(mask);
    if (reg == 0 && *err_p != EEXIST) {
        LOG("shkv registery created failed, err:%d", *err_p);
        return 0;
    }
    if (*err_p == EEXIST)
        usleep(REG_RACE_US);
    if (reg != 0)
        shkv_close(reg);
    return 1;
}

int shkv_reg_open(uint32_t *err_p)
{
    char path[SHKV_PATH_MAX];
    struct stat st;
    snprintf(path, sizeof path, "%s/%s", SHKV_DB_DIR, SHKV_REGISTRY_NAME);
    if (stat(path, &st) != 0) {
        if (errno != ENOENT)
            return fail_err(nullptr, 0, 0, err_p, EFAULT, "check shkv reg stat failed,errno:%d", errno);
        if (!create_registry(err_p))
            return 0;
    }
    int reg = shkv_open(SHKV_REGISTRY_NAME, UUID_REGISTRY, 0, SHKV_AM_READ, err_p);
    if (reg == 0)
        LOG("shkv registery lpt opened failed, err:%d", *err_p);
    return reg;
}

static reg_rec make_rec(uint32_t uuid, uint32_t flags, uint32_t size)
{
    const char *vdc = getenv("SYSMGR_VDC_ID");
    return {REG_ALWAYS | (flags & REG_CALLER), uuid, size, vdc ? (uint32_t)strtol(vdc, nullptr, 10) : 0};
}

// Writes the record through a handle of its own. After a refusal the handle stays open: the next
// call in this thread finds it.
static int write_record(const char *uri, uint32_t uuid, uint32_t flags, uint32_t size)
{
    uint32_t err = 0;
    int reg = shkv_open(SHKV_REGISTRY_NAME, UUID_REGISTRY, 0, SHKV_AM_WRITE, &err);
    if (reg == 0)
        return fail(nullptr, 0, 0, (int)err, "%s: shkv registery open failed, err:%d mode %d", "shkv_register",
                    err, flags);
    shkv_head *head = check_shkv_hdl(reg);
    if (!head)
        return EBADF;

    reg_rec rec = make_rec(uuid, flags, size);
    const shkv_buf key = {(void *)(uintptr_t)uri, (uint32_t)strlen(uri)};
    const shkv_buf val = {&rec, sizeof rec};
    int result = flags & REG_DELETE ? shkv_delete(reg, &key) : shkv_add(reg, &key, &val, 0);
    if (result != 0)
        return fail(ring_of(head->sn), 0x0E, (uint32_t)result, result,
                    "shkv registery operate reg failed, retv:%d", result);
    shkv_close(reg);
    return 0;
}

// Takes a store's size off the usage. One larger than the usage leaves it alone.
static int give_back(uint32_t uuid, uint32_t size)
{
    if (sem_take(&obj_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "db shkv semaphore wait failed,errno:%d", errno);
    if (uuid != UUID_NONE && size <= uuid_mem_used)
        uuid_mem_used -= size;
    if (sem_give(&obj_sem) == -1)
        return fail(nullptr, 0, 0, EFAULT, "db shkv semaphore post failed,errno:%d", errno);
    return 0;
}

int shkv_register(const char *uri, uint32_t uuid, uint32_t flags, uint32_t size)
{
    if (!(flags & (REG_DELETE | REG_UPDATE)) && uuid != UUID_REGISTRY && uuid != UUID_NONE) {
        int result = shkv_check_memsz_per_uuid(size, uuid); // reserves
        if (result != 0)
            return fail(nullptr, 0, 0, result, "shkv_register failed memory exhausted %s, uuid:%d", uri, uuid);
    }
    int result = write_record(uri, uuid, flags, size);
    // A delete gives back when it succeeded, an add or update when it failed.
    bool gives_back = flags & REG_DELETE ? result == 0 : result != 0;
    int locked = gives_back ? give_back(uuid, size) : 0;
    return locked != 0 ? locked : result;
}

int check_shkv_uri(const char *uri, reg_rec *regp)
{
    assert(regp);
    const char *name = uri_name(uri);
    uint32_t err = 0;
    int reg = shkv_open(SHKV_REGISTRY_NAME, UUID_REGISTRY, 0, SHKV_AM_READ, &err);
    if (reg == 0)
        return (int)err;
    char room[sizeof(reg_rec) + 1];
    const shkv_buf key = {(void *)(uintptr_t)name, (uint32_t)strlen(name)};
    shkv_buf val = {room, sizeof room};
    int result = shkv_lookup(reg, &key, &val);
    if (result != 0)
        return result;
    memcpy(regp, room, sizeof *regp);
    return 0; // the handle stays open: every later call finds it
}
