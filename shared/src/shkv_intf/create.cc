// shkv_create: brings a store into being. A store is no store until its two magic words are there:
//   1. the supernode's name, all bytes zero: a second creator is refused from here on, and an
//      opener finds an incomplete store
//   2. everything else, in no order that anyone could see
//   3. magichead, then magictail: the store is there for every process
//   4. its record in the registry
// A failure takes all names back; a page without memory the supernode's, so that the name is free.
// A creator that dies before 3 leaves a name that can be neither opened nor created; one that dies
// before 4 a store that the registry does not list.
#include "shkv_intf/create.h"

#include <errno.h>
#include <setjmp.h>
#include <string.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_hash/hash_bind.h"
#include "shkv_hash/hash_fn.h"
#include "shkv_intf/create_op.h"
#include "shkv_intf/head.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/registry.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/word.h"

#define KEY_MAX 256u
#define VAL_MAX 2048u
#define L3_MAX 0x20000u
#define RZ_TM_CHK 300u // microseconds

// Checks, before anything is made -------------------------------------------------------------------

static int check_config(create_op *op_p)
{
    const shkv_params *conf_p = &op_p->conf;
    int uuid = (int)op_p->uuid;
    if (conf_p->maxksz == 0 && (conf_p->conf_flg & CONF_FIXEDMM))
        return fail_err(op_p->ring_p, 0x17, op_p->uuid, op_p->errptr, EINVAL, "uuid:%d, the key size is 0",
                        uuid);
    *op_p->errptr = 0;
    op_p->ud_sz = GET_USER_SIZE(conf_p->maxents, conf_p->maxksz, conf_p->maxvsz);
    if (op_p->ud_sz > shkv_max_db_sz)
        return fail_err(op_p->ring_p, 0x18, conf_p->maxents, op_p->errptr, EINVAL,
                        "The shkvdb is too big, maxksz=%d, maxvsz=%d, maxents=%d ", conf_p->maxksz,
                        conf_p->maxvsz, (int)conf_p->maxents);
    if (!op_p->uri)
        return fail_err(op_p->ring_p, 0x19, op_p->uuid, op_p->errptr, EINVAL, "uuid:%d, the uri is NULL", uuid);
    // Strips up to a second ':', too; opening a store does not. Intended.
    shkv_uri2dbname(op_p->uri, op_p->dbname, SHKV_NAME_MAX);
    if (strlen(op_p->dbname) == SHKV_NAME_MAX)
        return fail_err(op_p->ring_p, 0x1a, op_p->uuid, op_p->errptr, EINVAL, "uuid:%d, the uri is too long",
                        uuid);
    if (conf_p->maxksz > KEY_MAX)
        return fail_err(op_p->ring_p, 0x1b, op_p->uuid, op_p->errptr, EINVAL,
                        "uuid:%d, the key size is too large", uuid);
    if (conf_p->maxvsz > VAL_MAX)
        return fail_err(op_p->ring_p, 0x1c, op_p->uuid, op_p->errptr, EINVAL,
                        "uuid:%d, the value size is too large", uuid);
    return 1;
}

// Filling the supernode -----------------------------------------------------------------------------

static void fill_record(create_op *op_p)
{
    supernode *sn = op_p->sn;
    memcpy(sn->dbname, op_p->dbname, strlen(op_p->dbname));
    for (const char *at_p = op_p->dbname; *at_p; at_p++)
        sn->dbname_xor ^= (uint8_t)*at_p;
    sn->uuid = op_p->uuid;
    sn->wr_tid[0] = my_tid();
    sn->maxksz = op_p->conf.maxksz;
    sn->maxvsz = op_p->conf.maxvsz;
    sn->maxents = op_p->conf.maxents;
    sn->conf_arg = op_p->conf.conf_arg;
    sn->rz_tm_chk = RZ_TM_CHK;
    strncpy(sn->uri, op_p->uri, sizeof sn->uri - 1); // the object is all zero: the last byte stays so
    shtrace_init(ring_of(sn), (int)SHKV_PAGE_SIZE, 1);
}

static int choose_hash(create_op *op_p)
{
    md_desc *desc_p = &op_p->sn->md1;
    if (op_p->hashfn <= HASH_FN_CNT) {
        desc_p->hashfn = op_p->hashfn ? (uint16_t)(op_p->hashfn - 1) : HASH_FN_DEFAULT;
    } else {
        desc_p->user_hash = ((shkv_hash_fn)op_p->hashfn)(SHKV_HASH_TEST, SHKV_HASH_TEST_LEN);
        desc_p->hashfn = SHKV_USER_HASHFN;
    }
    if (set_hdmd_hash(op_p->hashfn, desc_p->user_hash, desc_p->hashfn, &op_p->head.md1.hash_fn, op_p->dbname,
                      op_p->errptr))
        return 1;
    return fail_err(op_p->ring_p, 0x27, EINVAL, op_p->errptr, EINVAL, "set_hdmd_hash fail %s %d", op_p->dbname,
                    EINVAL);
}

static int set_flags(create_op *op_p)
{
    supernode *sn = op_p->sn;
    uint32_t conf_flg = op_p->conf.conf_flg & 0xffffu;
    sn->conf_flg = (uint16_t)conf_flg;
    if ((conf_flg & CONF_SHMAP) && (conf_flg & CONF_FIXEDMM))
        return fail_err(op_p->ring_p, 0x30, conf_flg, op_p->errptr, EINVAL,
                        "SHKV shared mapping do not support FIXEDMM");
    sn->auto_rz = conf_flg & CONF_MULTIWR ? 0 : 1;
    return 1;
}

static int check_l3(create_op *op_p)
{
    const shkv_params *conf_p = &op_p->conf;
    uint32_t bytes = ((uint32_t)conf_p->maxksz + conf_p->maxvsz) * conf_p->maxents; // may wrap
    if (!(conf_p->conf_flg & CONF_L3) || bytes <= L3_MAX)
        return 1;
    return fail_err(op_p->ring_p, 0x2f, op_p->uuid, op_p->errptr, EINVAL, "uuid:%d, L3 database is too big",
                    (int)op_p->uuid);
}

static int lay_out_space(create_op *op_p)
{
    const shkv_params *conf_p = &op_p->conf;
    shkv_head *head = &op_p->head;
    uint32_t mode = op_p->sn->conf_flg & CONF_MM_MASK;
    LOG("%s: MM mode is set to 0x%x", "shkv_create", mode);
    if (mode != CONF_FIXEDMM && mode != CONF_VECTORMM)
        return fail_err(op_p->ring_p, 0x2f, op_p->uuid, op_p->errptr, ENOMEM,
                        "uuid:%d, the dbconf mode is not supported", (int)op_p->uuid);
    uint32_t dn_sz = mode == CONF_FIXEDMM ? conf_p->maxksz + UDN_HEAD_SZ + conf_p->maxvsz : VEC_UNIT_SZ;
    shkv_fixed_mm_init((sbm *)head->ud1_map->map[0], op_p->sn->ud1.obj_sz, dn_sz, conf_p->maxents);
    head->mm_init = shkv_fixed_mm_init; // it serves both
    head->getnd = mode == CONF_FIXEDMM ? shkv_fixed_getnd : shkv_vector_getnd;
    head->putnd = mode == CONF_FIXEDMM ? shkv_fixed_putnd : shkv_vector_putnd;
    return 1;
}

static int set_state(create_op *op_p)
{
    supernode *sn = op_p->sn;
    sn->comm_flg = CF_MD1 | CF_UD1;
    sn->sn_flg = op_p->conf.conf_flg & CONF_L3 ? SN_WPROT : 0;
    // Used by other processes, too, with a process-shared argument of 0. Intended.
    if (sem_init(&sn->resh_sem, 0, 1) != 0)
        return fail_err(op_p->ring_p, 0x2f, (uint32_t)errno, op_p->errptr, EFAULT, "init resh_sem fail %s",
                        op_p->dbname);
    if (kmutex_init(&sn->wr_ksem) != 0)
        return fail_err(op_p->ring_p, 0x2f, op_p->uuid, op_p->errptr, EFAULT, "init sn kmutex fail %s",
                        op_p->dbname);
    return 1;
}

static int enter_head(create_op *op_p)
{
    op_p->head.access_mode = SHKV_AM_WRITE;
    op_p->head.sn = op_p->sn;
    int handle = shkv_set_heads(&op_p->head);
    if (handle == 0)
        return fail_err(op_p->ring_p, 0x2f, op_p->uuid, op_p->errptr, EINVAL,
                        "%s uuid:%d, opened too many database", "shkv_create", (int)op_p->uuid);
    if (handle < 0)
        return fail_err(op_p->ring_p, 0x2f, op_p->uuid, op_p->errptr, EFAULT, "uuid:%d, opened database failed",
                        (int)op_p->uuid);
    op_p->handle = handle;
    return 1;
}

static void publish(supernode *sn)
{
    // Publish. Everything is stored above. An opener takes the store for complete when it finds
    // both words, so one that comes between the two is refused. Pairs with get32 in sn_complete.
    put32(&sn->magichead, SHKV_MAGICHEAD);
    put32(&sn->magictail, SHKV_MAGICTAIL);
}

// The flow --------------------------------------------------------------------------------------------

static int build(create_op *op_p)
{
    fill_record(op_p);
    if (!choose_hash(op_p) ||
        !create_dir(op_p, SHKV_MU_DIR, 0x28, "uuid:%d, can not create MU_DIR,errno:%d") ||
        !create_tables(op_p) ||
        !set_flags(op_p) ||
        !create_spaces(op_p) ||
        !check_l3(op_p) ||
        !lay_out_space(op_p) ||
        !set_state(op_p) ||
        !enter_head(op_p))
        return 0;
    publish(op_p->sn);
    return 1;
}

// The objects are sparse: any first touch may find no memory, and the jump comes back here.
static int build_guarded(create_op *op_p)
{
    if (sigsetjmp(sigbus_jmp, 0)) {
        *op_p->errptr = ENOMEM;
        op_p->faulted = true;
        return 0;
    }
    return build(op_p);
}

static int enter_registry(create_op *op_p)
{
    uint32_t flags = 0;
    if (op_p->has_conf && (op_p->conf.conf_flg & CONF_REG_1))
        flags |= 0x10000;
    if (op_p->has_conf && (op_p->conf.conf_flg & CONF_REG_2))
        flags |= 0x20000;
    *op_p->errptr = (uint32_t)shkv_register(op_p->uri, op_p->uuid, flags, op_p->ud_sz);
    if (*op_p->errptr == 0)
        return 1;
    fail(op_p->ring_p, 0x2f, *op_p->errptr, 0, "uuid:%d, resgister database failed %d", (int)op_p->uuid,
         (int)*op_p->errptr);
    return 0;
}

static int create(create_op *op_p)
{
    if (!check_config(op_p) ||
        !create_dir(op_p, SHKV_DB_DIR, 0x1d, "uuid:%d, can not create DB_DIR,errno:%d") ||
        !create_sn(op_p))
        return 0;
    // From here on the name is ours.
    if (build_guarded(op_p) && enter_registry(op_p))
        return op_p->handle;
    if (op_p->handle)
        shkv_clear_head(op_p->handle);
    return create_undo(op_p);
}

int shkv_create(const char *srcuri, uint32_t uuid, const shkv_params *confparams, uint64_t hashfn,
                uint32_t *errptr)
{
    static const shkv_params defaults = {16, 32, 2000, CONF_FIXEDMM, 0};
    if (!errptr)
        return fail(nullptr, 0, 0, 0, "uuid:%d, errptr is empty, internal error!", (int)uuid);
    if (!srcuri)
        return fail_err(nullptr, 0, 0, errptr, EINVAL, "uuid:%d, the srcuri is NULL", (int)uuid);
    init_process_limits();

    create_op op = {};
    op.uri = uri_name(srcuri);
    op.uuid = uuid;
    op.conf = confparams ? *confparams : defaults;
    op.has_conf = confparams;
    op.hashfn = hashfn;
    op.errptr = errptr;
    if (uuid != UUID_REGISTRY) {
        int reg_h = shkv_reg_open(errptr);
        if (reg_h == 0)
            return 0;
        shkv_head *reg_p = check_shkv_hdl(reg_h);
        if (!reg_p)
            return EBADF; // reads as a handle. Intended
        op.ring_p = ring_of(reg_p->sn);
    }
    return create(&op);
}
