// What a store was configured with, and the one setting that can change later.
//
// All reads are unlocked loads of fields that creation wrote and nothing rewrites (but auto_rz and
// rz_tm_chk, which only the writer's own thread stores). Nothing here writes a trace event.
#include "shkv_intf/params.h"

#include <errno.h>
#include <string.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "shkv_intf/head.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/word.h"

// The check of check_shkv_hdl without its lines: the accessors are silent.
static const supernode *quiet_sn(int handle)
{
    if (handle < 1 || handle > HEADS || shkv_db_heads[handle - 1].access_mode == 0)
        return nullptr;
    return shkv_db_heads[handle - 1].sn;
}

int shkv_get_params(int handle, shkv_params *params)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    if (!params)
        return fail(nullptr, 0, 0, EINVAL, "shkv_get_params,confparams buf is empty, shkvh:%d", handle);
    const supernode *sn = head->sn;
    params->maxksz = sn->maxksz;
    params->maxvsz = sn->maxvsz;
    params->maxents = sn->maxents;
    params->conf_flg = sn->conf_flg;
    params->conf_arg = sn->conf_arg;
    return 0;
}

int shkv_uri2handle(const char *uri, uint32_t am_mask, uint32_t *err)
{
    if (!err) {
        LOG("the errptr is empty, internal error!");
        return 0;
    }
    *err = 0;
    char name[SHKV_NAME_MAX + 1];
    shkv_uri2dbname(uri, name, SHKV_NAME_MAX);
    bool locked = sem_take(&hd_sem) == 0; // a supernode that a close takes away is not looked at meanwhile
    int handle = 0;
    for (int i = 0; i < HEADS && !handle; i++) {
        const shkv_head *head = &shkv_db_heads[i];
        const supernode *sn = head->access_mode & am_mask & 0xff ? head->sn : nullptr;
        if (sn && strcmp(sn->dbname, name) == 0)
            handle = i + 1;
    }
    if (locked)
        sem_give(&hd_sem);
    if (!handle)
        *err = EBADF;
    return handle;
}

// Readers of the pair may see one new value and one old.
static int set_auto_resize_opts(int handle, const void *opts)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return fail(nullptr, 0, 0, EBADF, "%s: shkv handle error %d", "shkv_set_auto_resize_opts", handle);
    if (!(head->access_mode & SHKV_AM_WRITE))
        return fail(nullptr, 0, 0, EINVAL, "%s: not allowed, shkvh:%d", "shkv_set_auto_resize_opts", handle);
    supernode *sn = head->sn;
    if (sn->conf_flg & CONF_MULTIWR)
        return fail(nullptr, 0, 0, EINVAL, "%s: auto resizing is not supported for multi writer",
                    "shkv_set_auto_resize_opts");
    uint32_t wr_tid = get32(&sn->wr_tid[0]), tid = my_tid();
    if (wr_tid != tid)
        return fail(nullptr, 0, 0, EINVAL, "%s: thread id does not match (wr_tid:%d, tid:%d)",
                    "shkv_set_auto_resize_opts", wr_tid, tid);
    const shkv_opts *opts_p = (const shkv_opts *)opts;
    put16(&sn->rz_tm_chk, (uint16_t)opts_p->rz_tm_chk);
    put32(&sn->auto_rz, opts_p->auto_rz);
    LOG("%s.%d: rz_tm_chk set to %d, auto_rz set to %d", "shkv_set_auto_resize_opts", __LINE__,
        get16(&sn->rz_tm_chk), get32(&sn->auto_rz));
    return 0;
}

// opts_type is the place in this table, from 1.
static int (*const set_opts[])(int handle, const void *opts) = {set_auto_resize_opts};

int shkv_db_set_opts(int handle, int32_t opts_type, void *opts)
{
    if (opts_type < 1 || opts_type > (int32_t)(sizeof set_opts / sizeof set_opts[0]))
        return fail(nullptr, 0, 0, EINVAL, "%s.%d: opts_type %d not recognized", "shkv_db_set_opts", __LINE__,
                    opts_type);
    if (!opts)
        return fail(nullptr, 0, 0, EINVAL, "%s.%d: opts memory no allocated yet ", "shkv_db_set_opts",
                    __LINE__);
    return set_opts[opts_type - 1](handle, opts);
}

// Of MD1 whichever table is in force: after a flip this is not the function in use. Intended.
uint32_t shkv_get_hashfn(int handle)
{
    const supernode *sn = quiet_sn(handle);
    return sn ? get16(&sn->md1.hashfn) : 0;
}

uint32_t shkv_get_smode(int handle)
{
    const supernode *sn = quiet_sn(handle);
    return sn ? sn->conf_flg : 0;
}

uint32_t shkv_get_uuid(int handle)
{
    const supernode *sn = quiet_sn(handle);
    return sn ? sn->uuid : 0;
}

const char *shkv_get_dbname(int handle)
{
    const supernode *sn = quiet_sn(handle);
    return sn ? sn->dbname : nullptr;
}

static uint32_t node_sz(uint16_t ksz, uint16_t vsz, uint32_t mode)
{
    if (mode == CONF_FIXEDMM)
        return (ksz + vsz + 23u) & ~3u;
    if (mode == CONF_VECTORMM)
        return VEC_UNIT_SZ;
    return (ksz + vsz + 3u) & ~3u; // payload alone, no record header
}

// The inverse of GET_USER_SIZE, in 32 bits as there: what fits, less the spare nodes.
uint32_t shkv_max_num_entries(uint32_t size, uint16_t ksz, uint16_t vsz, uint32_t mode)
{
    uint32_t node = node_sz(ksz, vsz, mode);
    if (node == 0)
        return 0;
    uint32_t rounded = (size + SHKV_PAGE_SIZE - 1) / SHKV_PAGE_SIZE * SHKV_PAGE_SIZE;
    uint32_t n = (rounded - (uint32_t)sizeof(sbm)) / node;
    if (n <= 100)
        return 0;
    uint32_t q = n * 100 / 105;
    if (q * 5 <= 10099)
        return n - 100;
    if (q * 5 > 49999)
        return n - 500;
    return q;
}

uint32_t shkv_get_process_max_db_sz(void)
{
    return shkv_max_db_sz;
}

uint32_t shkv_get_page_sz(void)
{
    return SHKV_PAGE_SIZE;
}
