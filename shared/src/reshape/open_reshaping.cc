// Opens a store for a reshape: takes the token, prepares a new table and a new record space in the
// two idle objects, and puts both beside the old ones.
//
// What another process sees, in the order of the stores:
//   1. the token in comm_flg
//   2. obj_sz, hashfn and user_hash of the idle objects; their lengths; the new table, empty; the
//      new space, with its header and an empty interim list. Nobody looks at any of it yet
//   3. obj_ver of both: mappings of the idle objects go stale
//   4. comm_flg with the new objects' bits, which of the two is old, and CF_RESHAPE, in one store:
//      from here on writers go to the interim list and readers search both
// All under wr_ksem, which the writer takes for a write during a reshape and for growth. A write
// that began before 4 holds no lock: it is waited for (quiet.cc) before the lock is given up and
// the first record may move.
//
// Killed, or failed, behind 1 the token stays and keeps later reshapes out; before 4 the store works
// on as it was, from 4 on as in a reshape whose mover has stopped. But where a transaction has begun
// since it was looked for, 4 is not made and the token is given back.
#include "reshape/open_reshaping.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "reshape/interim.h"
#include "reshape/quiet.h"
#include "reshape/token.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/bind.h"
#include "shkv_intf/head.h"
#include "shkv_intf/obj_open.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/word.h"

namespace {

constexpr uint32_t HASH_ARGS = 11;     // selectors of built-in functions
constexpr uint32_t HASH_DEFAULT = 7;
constexpr uint32_t TXN_BITS = CF_TXN | CF_TXN_COMMIT;
constexpr const char *UNDER_TXN = "disable reshaping when DB is under txn. ";
constexpr uint32_t NODES_LEAST = 4; // a record beside two sentinels and the list's dead node

struct open_op {
    const char *dbname;
    uint32_t uuid;
    uint64_t hashfn;
    const shkv_rscf *rscf;
    uint32_t *err_p;
    shkv_head head; // local until it is whole
    supernode *sn;
    void *ring_p;
    uint32_t flg; // comm_flg as it will be, CF_RESHAPE apart
    md_desc *new_md;
    md_rec *new_rec;
    ud_desc *new_ud; // null when the record space stays
};

int refuse_state(const open_op *op_p, const char *text)
{
    return fail_err(op_p->ring_p, 0x4E, op_p->uuid, op_p->err_p, EINVAL, "%s", text);
}

int check_store(const open_op *op_p)
{
    supernode *sn = op_p->sn;
    uint32_t flg = get32(&sn->comm_flg);
    if (is_vector(sn) || (sn->conf_flg & CONF_SHMAP))
        return refuse_state(op_p, "reshaping failed: dvmm mode currently not             support shrink.");
    if (flg & (CF_REFILL1 | CF_REFILL2))
        return refuse_state(op_p, "disable reshaping when DB is under resizing. ");
    if (flg & TXN_BITS)
        return refuse_state(op_p, UNDER_TXN);
    if (!sn_complete(sn))
        return fail_err(op_p->ring_p, 0x4B, op_p->uuid, op_p->err_p, EINVAL, "uuid:%d, the db is insane.",
                        op_p->uuid);
    return 1;
}

uint32_t node_sz(const supernode *sn)
{
    return (sn->maxksz + sn->maxvsz + UDN_HEAD_SZ + 3) & ~3u;
}

// Objects that could not even hold an empty table or list are refused before the token is taken.
int check_sizes(const open_op *op_p)
{
    const shkv_rscf *rscf = op_p->rscf;
    if (!rscf)
        return 1;
    const supernode *sn = op_p->sn;
    uint64_t least = sizeof(sbm) + (uint64_t)(shkv_defbuf_sz(sn->maxents) + NODES_LEAST) * node_sz(sn);
    bool md_ok = rscf->md_sz == 0 || rscf->md_sz >= 2 * sizeof(mdn);
    bool ud_ok = rscf->ud_sz <= 1 || (rscf->ud_sz >= least && rscf->ud_sz <= INT32_MAX);
    if (md_ok && ud_ok)
        return 1;
    return fail_err(op_p->ring_p, 0x50, op_p->uuid, op_p->err_p, EINVAL,
                    "bad object sizes for reshaping, md:%u ud:%u", rscf->md_sz, rscf->ud_sz);
}

void plan_md(open_op *op_p, bool md1_is_old)
{
    supernode *sn = op_p->sn;
    const shkv_rscf *rscf = op_p->rscf;
    const md_desc *old_md = md1_is_old ? &sn->md1 : &sn->md2;
    md_desc *new_md = md1_is_old ? &sn->md2 : &sn->md1;
    put32(&new_md->obj_sz, rscf->md_sz ? rscf->md_sz : get32(&old_md->obj_sz));
    op_p->flg |= CF_MD1 | CF_MD2 | (md1_is_old ? MDO1N2 : MDN1O2);
    uint64_t fn = rscf->new_hash;
    bool user = fn > HASH_ARGS;
    put32(&new_md->user_hash, user ? ((shkv_hash_fn)fn)(SHKV_HASH_TEST, SHKV_HASH_TEST_LEN) : 0);
    put16(&new_md->hashfn, (uint16_t)(user ? SHKV_USER_HASHFN : fn ? fn - 1 : HASH_DEFAULT));
    op_p->new_md = new_md;
    op_p->new_rec = md1_is_old ? &op_p->head.md2 : &op_p->head.md1;
}

void plan_ud(open_op *op_p, bool ud1_is_old)
{
    supernode *sn = op_p->sn;
    uint32_t ud_sz = op_p->rscf->ud_sz;
    const ud_desc *old_ud = ud1_is_old ? &sn->ud1 : &sn->ud2;
    if (!ud_sz)
        return;
    op_p->new_ud = ud1_is_old ? &sn->ud2 : &sn->ud1;
    put32(&op_p->new_ud->obj_sz, ud_sz == 1 ? get32(&old_ud->obj_sz) : ud_sz);
    op_p->flg |= CF_UD1 | CF_UD2 | (ud1_is_old ? UDO1N2 : UDN1O2);
}

int plan_objects(open_op *op_p)
{
    const char *text = "DB is not sanity dbname:%s,comm_flg:%d";
    uint32_t flg = op_p->flg = get32(&op_p->sn->comm_flg);
    uint32_t md = flg & (CF_MD1 | CF_MD2), ud = flg & (CF_UD1 | CF_UD2);
    if (md != CF_MD1 && md != CF_MD2)
        return fail_err(op_p->ring_p, 0x50, flg, op_p->err_p, EINVAL, text, op_p->dbname, flg);
    plan_md(op_p, md == CF_MD1);
    if (ud != CF_UD1 && ud != CF_UD2)
        return fail_err(op_p->ring_p, 0x51, op_p->flg, op_p->err_p, EINVAL, text, op_p->dbname, op_p->flg);
    plan_ud(op_p, ud == CF_UD1);
    return 1;
}

int map_objects(open_op *op_p)
{
    const shkv_rscf *rscf = op_p->rscf;
    return shkv_open_mdudobj(op_p->sn, &op_p->head, 3, nullptr, op_p->err_p, op_p->ring_p) &&
           set_hdmd_hashes(op_p->flg, op_p->head.access_mode, op_p->sn, op_p->hashfn, rscf->old_hash,
                           rscf->new_hash, op_p->ring_p, &op_p->head, op_p->dbname, op_p->err_p);
}

ud_map *new_ud_map(const open_op *op_p)
{
    if (!op_p->new_ud)
        return nullptr;
    return op_p->new_ud == &op_p->sn->ud1 ? op_p->head.ud1_map : op_p->head.ud2_map;
}

// An idle object may be longer than it is to be, a table after its last rebuild for one. Nobody
// needs the rest.
void cut_to_size(const open_op *op_p)
{
    const ud_map *ud = new_ud_map(op_p);
    if (ftruncate(op_p->new_rec->fd, get32(&op_p->new_md->obj_sz)) != 0 ||
        (ud && ftruncate(ud->fd, get32(&op_p->new_ud->obj_sz)) != 0))
        LOG("shkv_open_reshaping, ftruncate failed %d", errno);
}

int make_table(const open_op *op_p)
{
    uint32_t hashsz = get32(&op_p->new_md->obj_sz) / sizeof(mdn) - 1; // no prime, and the last is not used
    put32(&op_p->new_md->hashsz, hashsz);
    memset(op_p->new_rec->base, 0, hashsz * sizeof(mdn));
    return 1;
}

int make_space(open_op *op_p)
{
    if (!op_p->new_ud)
        return 1;
    const supernode *sn = op_p->sn;
    bool ud2 = op_p->new_ud == &op_p->sn->ud2;
    if (!is_fixed(sn))
        return fail_err(op_p->ring_p, ud2 ? 0x5A : 0x5B, sn->conf_flg & CONF_MM_MASK, op_p->err_p, ENOMEM,
                        ud2 ? "UDO1N2 wrong MM in __shkv_open                  %d"
                            : "UDN1O2 wrong MM in __shkv_open                  %d",
                        sn->conf_flg & CONF_MM_MASK);
    sbm *sbm_p = (sbm *)new_ud_map(op_p)->map[0];
    op_p->head.mm_init(sbm_p, get32(&op_p->new_ud->obj_sz), sn->maxksz + sn->maxvsz + UDN_HEAD_SZ, sn->maxents);
    put32(&sbm_p->intrm_head, 0);
    shkv_interimlst_init(&op_p->head, sbm_p);
    if (get32(&sbm_p->intrm_head))
        return 1;
    return fail_err(op_p->ring_p, ud2 ? 0x5A : 0x5B, 0, op_p->err_p, ENOMEM, "intrm_put, out of memory ");
}

// The objects are sparse, and every page of the table and the first of the space are touched here.
// Without memory behind one of them nothing has been published.
int fill_objects(open_op *op_p)
{
    if (sigsetjmp(sigbus_jmp, 0) != 0) {
        *op_p->err_p = ENOMEM;
        return 0;
    }
    if (!make_table(op_p))
        return 0;
    LOG("%s: MM mode is set to 0x%x", "shkv_open_reshaping", op_p->sn->conf_flg & CONF_MM_MASK);
    return set_hdmd_mm(&op_p->head, op_p->sn, op_p->ring_p, op_p->err_p) && make_space(op_p);
}

// Without the rest of its memory what was touched of the new objects would be nobody's, and missing to all
// stores of the machine.
void give_memory_back(const open_op *op_p)
{
    put32(&op_p->new_md->obj_sz, 0);
    if (op_p->new_ud)
        put32(&op_p->new_ud->obj_sz, 0);
    cut_to_size(op_p);
}

int publish(open_op *op_p)
{
    const char *text = "shkv_open for reshaping sem fail,errno:%d";
    supernode *sn = op_p->sn;
    if (!(op_p->head.access_mode & SHKV_AM_RESHAPE))
        return 1;
    if (sem_take(&obj_sem) == -1)
        return fail_err(op_p->ring_p, 0x5F, (uint32_t)errno, op_p->err_p, EFAULT, text, errno);
    put32(&op_p->new_md->obj_ver, get32(&op_p->new_md->obj_ver) + 1);
    op_p->new_rec->ver = get32(&op_p->new_md->obj_ver);
    if (op_p->new_ud) {
        put32(&op_p->new_ud->obj_ver, get32(&op_p->new_ud->obj_ver) + 1);
        new_ud_map(op_p)->ver = get32(&op_p->new_ud->obj_ver);
    }
    // Publish. The new table is empty and the new space holds an empty list. Every snapshot from
    // here on names old and new; pairs with the first load of every operation.
    const uint32_t tables = CF_MD1 | CF_MD2 | CF_UD1 | CF_UD2 | MDO1N2 | MDN1O2 | UDO1N2 | UDN1O2;
    bool published = set32_unless(&sn->comm_flg, TXN_BITS, (op_p->flg & tables) | CF_RESHAPE);
    if (sem_give(&obj_sem) == -1)
        return fail_err(op_p->ring_p, 0x60, (uint32_t)errno, op_p->err_p, EFAULT, text, errno);
    if (published)
        return 1;
    // A transaction has begun since: its commit would change the old table without the lock.
    token_give(sn);
    return refuse_state(op_p, UNDER_TXN);
}

// Over one space the list of an earlier reshape may not have been emptied.
void begin(open_op *op_p)
{
    wait_for_writes_to_end(op_p->sn);
    if (!op_p->new_ud) {
        const ud_map *ud = op_p->flg & CF_UD1 ? op_p->head.ud1_map : op_p->head.ud2_map;
        interim_discard(&op_p->head, ud->map[0]);
    }
}

int prepare_locked(open_op *op_p)
{
    if (!token_take(op_p->sn, op_p->uuid, op_p->err_p))
        return 0;
    if (!op_p->rscf) {
        LOG("NULL shkv_rscf_p for __shkv_open");
        trace_one(op_p->ring_p, 0x4F, op_p->uuid);
        return 0; // *err stays 0, and the token taken. Intended
    }
    if (!plan_objects(op_p) || !map_objects(op_p))
        return 0;
    cut_to_size(op_p);
    if (!fill_objects(op_p)) {
        give_memory_back(op_p);
        return 0;
    }
    if (!publish(op_p))
        return 0;
    begin(op_p);
    return 1;
}

int prepare(open_op *op_p)
{
    if (!check_store(op_p) || !check_sizes(op_p))
        return 0;
    if (kmutex_lock(&op_p->sn->wr_ksem) != 0)
        return fail_err(op_p->ring_p, 0x3F, op_p->uuid, op_p->err_p, EFAULT, "%s,fail to get writer ksem ",
                        op_p->dbname);
    int prepared = prepare_locked(op_p);
    pthread_mutex_unlock(&op_p->sn->wr_ksem);
    return prepared;
}

int take_handle(open_op *op_p)
{
    int handle = shkv_set_heads(&op_p->head);
    if (handle > 0)
        return handle;
    return fail_err(op_p->ring_p, 0x5C, (uint32_t)handle, op_p->err_p, EINVAL, "%s uuid:%d, shkv_set_heads fail %d",
                    "shkv_open_reshaping", op_p->uuid, handle);
}

} // namespace

int shkv_open_reshaping(const char *dbname, uint32_t uuid, uint64_t hashfn, const shkv_rscf *rscf,
                        uint32_t access_mode, uint32_t *err)
{
    uint32_t unused;
    if (!err)
        err = &unused;
    *err = 0;
    open_op op = {};
    op.dbname = dbname;
    op.uuid = uuid;
    op.hashfn = hashfn;
    op.rscf = rscf;
    op.err_p = err;
    op.head.access_mode = access_mode;
    char path[SHKV_PATH_MAX];
    obj_path(path, dbname, OBJ_SN);
    op.sn = shkv_open_sn(path, uuid, 3, err);
    if (!op.sn)
        return 0;
    op.head.sn = op.sn;
    op.ring_p = ring_of(op.sn);
    int handle = prepare(&op) ? take_handle(&op) : 0;
    if (!handle)
        munmap(op.sn, sn_map_sz());
    return handle;
}
