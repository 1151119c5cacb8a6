// Sizes the idle table for the record space's capacity and refills it.
//
// What another process sees, in the order of the stores:
//   1. the refill bit: a rebuild is pending. From here on any failure, or the writer's death, leaves
//      the table in force as it is and the rebuild to whoever writes next
//   2. the idle object with its new length, all zero
//   3. its descriptor, obj_ver last: mappings of the idle table go stale
//   4. the records' idle links and the idle table's buckets (refill.cc)
//   5. comm_flg with the MD bits exchanged and the refill bits gone: the flip
// The old table stays mapped and untouched behind the flip until the next rebuild takes it as the
// target, so a reader with an earlier snapshot can finish on it.
#include "shkv_intf/resize_md.h"

#include <assert.h>
#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/refill.h"
#include "shkv_intf/word.h"

namespace {

struct resize_op {
    shkv_head *head;
    supernode *sn;
    void *ring_p;
    uint32_t next_flg; // comm_flg after the flip
    md_desc *active, *target;
    md_rec *from, *to;
    void *ud_base;
    uint32_t new_sz;
};

// Which table is in force, and the refill bit of the other. 0, or EINVAL when neither is.
int pick_tables(resize_op *op_p)
{
    shkv_head *head = op_p->head;
    supernode *sn = op_p->sn;
    uint32_t f = get32(&sn->comm_flg);
    if (!(f & (CF_MD1 | CF_MD2)))
        return EINVAL;
    bool md1 = f & CF_MD1;
    op_p->next_flg = md1 ? (f & ~CF_MD1) | CF_MD2 : (f & ~CF_MD2) | CF_MD1;
    op_p->active = md1 ? &sn->md1 : &sn->md2;
    op_p->target = md1 ? &sn->md2 : &sn->md1;
    op_p->from = md1 ? &head->md1 : &head->md2;
    op_p->to = md1 ? &head->md2 : &head->md1;
    change32(&sn->comm_flg, 0, md1 ? CF_REFILL2 : CF_REFILL1);
    LOG(md1 ? "%s: resize MD2" : "%s: resize MD1", "shkv_resize_md");
    return 0;
}

int pick_space(resize_op *op_p)
{
    uint32_t f = get32(&op_p->sn->comm_flg);
    if (!(f & (CF_UD1 | CF_UD2)))
        return fail(op_p->ring_p, 0xF2, f, EINVAL, "shkv_resize_md can not identify which UD");
    const ud_map *ud = f & CF_UD1 ? op_p->head->ud1_map : op_p->head->ud2_map;
    op_p->ud_base = ud ? ud->map[0] : nullptr;
    // A record space that a failed growth has left unmapped: as out of memory as that was. So is a table or a
    // space that another writer has made longer than what is mapped here.
    const md_rec *from = op_p->from;
    uint32_t ud_sz = get32(f & CF_UD1 ? &op_p->sn->ud1.obj_sz : &op_p->sn->ud2.obj_sz);
    bool whole = op_p->ud_base && ud->mapped_sz >= ud_sz && from->base &&
                 from->mapped_sz / sizeof(mdn) >= get32(&op_p->active->hashsz);
    return whole ? 0 : ENOMEM;
}

// Half of the units that the record space allows, as buckets; a table never shrinks.
void size_target(resize_op *op_p)
{
    const sbm *sbm_p = (const sbm *)op_p->ud_base;
    uint32_t cap = ((uint32_t)sbm_p->ud_full - sbm_p->dn_base) / sbm_p->dn_sz;
    uint32_t want = shkv_get_hash_size(cap * 50 / 100) * 8, now = get32(&op_p->active->obj_sz);
    op_p->new_sz = want > now ? want : now;
    LOG("%s: resize from %d to %d", "shkv_resize_md", (int)now, (int)op_p->new_sz);
}

// A mapping is given back by the length that this process mapped: another process (a reshaper's
// close, say) may have cut the object and its descriptor meanwhile. A thread of this process may
// still read by a snapshot of before the last flip.
void unmap_target(resize_op *op_p)
{
    mapping_give_up(op_p->head, (void **)&op_p->to->base, &op_p->to->mapped_sz);
}

// First touches of sparse pages, so under the guard. 1, or 0 when there is no memory behind them.
int clear_guarded(void *base, size_t sz)
{
    if (sigsetjmp(sigbus_jmp, 0) != 0)
        return 0;
    memset(base, 0, sz);
    return 1;
}

// The object at its new length, all zero, mapped. What ftruncate adds is zero and needs no page yet;
// only what the object held before is cleared by hand. It is not cut to 0 first: readers may still
// walk it in a mapping of earlier days, and would lose the pages under them.
int make_target(resize_op *op_p)
{
    md_rec *to = op_p->to;
    struct stat st;
    size_t old_sz = fstat(to->fd, &st) == 0 && st.st_size < op_p->new_sz ? (size_t)st.st_size : op_p->new_sz;
    if (ftruncate(to->fd, op_p->new_sz) != 0) {
        int err = errno;
        return fail(op_p->ring_p, 0xF3, err, err, "fd:%d, failed to ftruncate obj shm,errno:%d",
                    to->fd, err);
    }
    if (!mapping_replace(op_p->head, (void **)&to->base, &to->mapped_sz, to->fd, op_p->new_sz,
                         PROT_READ | PROT_WRITE))
        return fail(op_p->ring_p, 0xF3, errno, ENOMEM, "fd %d failed to mmap obj shm:%d", to->fd, errno);
    if (clear_guarded(to->base, old_sz))
        return 0;
    unmap_target(op_p);
    return fail(op_p->ring_p, 0xF3, ENOMEM, ENOMEM, "fd %d failed to mmap obj shm:%d", to->fd, ENOMEM);
}

void describe_target(resize_op *op_p)
{
    md_desc *active = op_p->active, *target = op_p->target;
    put32(&target->obj_sz, op_p->new_sz);
    put16(&target->hashfn, get16(&active->hashfn));
    // A mark of 0 fits every caller's function, and stays. The mark of another function, in an object
    // that was the old table of a reshape, would bar the one in use.
    uint32_t mark = get32(&active->user_hash);
    if (mark != 0 && get32(&target->user_hash) != 0)
        put32(&target->user_hash, mark);
    // One bucket less than the object holds; the last mdn is never used. Intended.
    put32(&target->hashsz, op_p->new_sz / 8 - 1);
    // Publish: object and descriptor are complete. Pairs with the compare in check_hdmd_remap,
    // which looks at this table once the flip has made it the one in force.
    put32(&target->obj_ver, get32(&target->obj_ver) + 1);
    LOG("%s: old hashsz: %u new hashsz: %u", "shkv_resize_md", get32(&active->hashsz), get32(&target->hashsz));
    bind_fn(op_p->to, op_p->from->hash_fn);
    put32(&op_p->to->ver, get32(&target->obj_ver));
}

int resize_locked(resize_op *op_p)
{
    int result = pick_tables(op_p);
    if (result == 0)
        result = pick_space(op_p);
    if (result != 0)
        return result;
    size_target(op_p);
    unmap_target(op_p);
    if ((result = make_target(op_p)) != 0)
        return result;
    describe_target(op_p);
    op_p->head->refill_pos = 0;
    return 0;
}

int resize_target(resize_op *op_p)
{
    if (sem_take(&obj_sem) != 0)
        return fail(op_p->ring_p, 0xEC, errno, EFAULT, "db shkv semaphore wait failed,errno:%d", errno);
    int result = resize_locked(op_p);
    if (sem_give(&obj_sem) != 0)
        return fail(op_p->ring_p, 0xF3, errno, EFAULT, "db shkv semaphore post failed,errno:%d", errno);
    return result;
}

// Refills, and flips when that came to its end.
int refill_target(resize_op *op_p)
{
    int result = shkv_refill_hashtb(op_p->head, get32(&op_p->active->hashsz), get32(&op_p->target->hashsz),
                                    op_p->to->hash_fn, op_p->from->base, op_p->to->base, op_p->ud_base,
                                    get32(&op_p->sn->comm_flg));
    out_of_actual_mem = 0; // the result says it; an operation's walk must not take it for its own
    if (result != 0 || op_p->head->refill_pos != 0)
        return result;
    // The flip. The new table holds every record, in whole chains; a reader goes on in the old one
    // or starts in the new one. Pairs with the snapshot that every operation takes.
    const uint32_t mds = CF_MD1 | CF_MD2;
    change32(&op_p->sn->comm_flg, mds | CF_REFILL1 | CF_REFILL2, op_p->next_flg & mds);
    return 0;
}

} // namespace

int shkv_resize_md(shkv_head *shkvh_p)
{
    assert(shkvh_p);
    resize_op op = {};
    op.head = shkvh_p;
    op.sn = shkvh_p->sn;
    op.ring_p = ring_of(op.sn);
    int result = resize_target(&op);
    if (result == 0) {
        LOG("shkv_resize_md succeed and continue %d", (int)op.new_sz);
        result = refill_target(&op);
    }
    // The target of a rebuild that was partly done is gone: pending now, no longer under way.
    if (result != 0)
        shkvh_p->refill_pos = 0;
    return result;
}
