// Moves the records of the table in force into the other one, bucket by bucket, in slices.
//
// A record stands in both tables through its two links, so the move copies nothing and the table in
// force stays as it was; readers carry on. Stores for each record, in this order:
//   1. its link for the target := the target bucket's first_ptr
//   2. the target bucket's first_ptr := the record
// Nobody reads either before the flip, one store of comm_flg after the last bucket. A writer that
// dies before it leaves a refill bit set: the next write open clears the target and starts again.
//
// refill_pos divides the table in force: buckets below it have moved, and whoever changes one of
// those changes the target too (rehash.cc).
#include "shkv_intf/refill.h"

#include <errno.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/timer.h"
#include "diag/trace.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/record.h"
#include "shkv_intf/wprot.h"

namespace {

struct refill_op {
    shkv_head *head;
    uint32_t src_hashsz, dst_hashsz;
    shkv_hash_fn fn;
    mdn *src_md, *dst_md;
    void *ud_base;
    bool src_is_md1;
    bool shared_map;
};

// How far ahead of the bucket in hand memory is asked for: records lie all over the space, and
// without this every one of them is waited for by itself.
constexpr uint32_t AHEAD = 16;

void prefetch_record(const refill_op *op_p, uint32_t bucket)
{
    if (bucket >= op_p->src_hashsz)
        return;
    uint32_t off = get32(&op_p->src_md[bucket].first_ptr);
    if (off)
        __builtin_prefetch(ud_addr(op_p->head, op_p->ud_base, off, op_p->shared_map), 1);
}

// New records go to the front of their chain, so a chain comes out reversed; no order is promised.
void move_chain(const refill_op *op_p, uint32_t off)
{
    do {
        udn *udn_p = (udn *)ud_addr(op_p->head, op_p->ud_base, off, op_p->shared_map);
        uint32_t hash = record_hash(op_p->fn, op_p->ud_base, udn_p, op_p->head, op_p->shared_map);
        mdn *mdn_p = &op_p->dst_md[bucket_of(hash, op_p->dst_hashsz)];
        put32(chain_link_p(udn_p, !op_p->src_is_md1), get32(&mdn_p->first_ptr));
        put32(&mdn_p->first_ptr, off);
        off = get32(chain_link_p(udn_p, op_p->src_is_md1));
    } while (off);
}

// The clock is looked at after the 1st, 51st, 101st bucket with records: a call whose time is used
// up already moves one bucket, so every rebuild ends.
bool time_is_up(const refill_op *op_p, uint32_t moved, uint64_t *usec_p)
{
    if (refill_tm_limit == 0 || moved % 50 != 1)
        return false;
    *usec_p = timer_diff_cycle_in_usec(cycles(), refill_tm_start);
    return *usec_p > 999999 || get16(&op_p->head->sn->rz_tm_chk) < *usec_p % 1000000;
}

void pause_at(const refill_op *op_p, uint32_t next, uint32_t moved, uint64_t usec)
{
    shkv_head *head = op_p->head;
    head->refill_pos = next < op_p->src_hashsz ? next : 0;
    LOG("%s: time spent: %lu usec, %lu sec", "shkv_refill_hashtb", (unsigned long)(usec % 1000000),
        (unsigned long)(usec / 1000000));
    if (moved < 2) {
        LOG("shkv_refill_hashtb reach end                             %d", (int)head->refill_pos);
        trace_one(ring_of(head->sn), 0xEB, head->refill_pos);
    }
}

void move_buckets(const refill_op *op_p)
{
    uint32_t moved = 0;
    uint32_t pos = op_p->head->refill_pos;
    for (uint32_t ahead = pos; ahead < pos + AHEAD; ahead++)
        prefetch_record(op_p, ahead);
    for (uint32_t bucket = pos; bucket < op_p->src_hashsz; bucket++) {
        prefetch_record(op_p, bucket + AHEAD);
        uint32_t off = get32(&op_p->src_md[bucket].first_ptr);
        if (!off)
            continue;
        move_chain(op_p, off);
        moved++;
        uint64_t usec;
        if (time_is_up(op_p, moved, &usec))
            return pause_at(op_p, bucket + 1, moved, usec);
    }
    op_p->head->refill_pos = 0;
    LOG("shkv_refill_hashtb reach end and reset pos");
    trace_one(ring_of(op_p->head->sn), 0xEB, 0);
}

// The target is sparse, and its pages are first touched here. Without memory behind one of them the
// rebuild is pending again: refill_pos 0 with the refill bit still set, the target worth nothing.
int move_guarded(const refill_op *op_p)
{
    if (sigsetjmp(sigbus_jmp, 0) != 0) {
        out_of_actual_mem = 1;
        op_p->head->refill_pos = 0;
        return ENOMEM;
    }
    move_buckets(op_p);
    return 0;
}

} // namespace

// 0, also when the time was up. EINVAL or ENOMEM when the records cannot be stored to, or the
// target has no memory (out_of_actual_mem is set then); refill_pos is 0 in both cases.
int shkv_refill_hashtb(shkv_head *head, uint32_t src_hashsz, uint32_t dst_hashsz, shkv_hash_fn fn, mdn *src_md,
                       mdn *dst_md, void *ud_base, uint32_t flags)
{
    refill_op op = {head, src_hashsz, dst_hashsz, fn, src_md, dst_md, ud_base, (flags & CF_MD1) != 0,
                    is_shared_map(head)};
    // The records' links lie in the record space, which the last write may have closed. The write
    // that is under way restores the protection at its end.
    const ud_map *ud = head->ud1_map && head->ud1_map->map[0] == ud_base ? head->ud1_map : head->ud2_map;
    if (wprot_closed(head) && wprot_lift(head, ud) != 0) {
        head->refill_pos = 0;
        return EINVAL;
    }
    return move_guarded(&op);
}

namespace {

// A rebuild that this handle has begun can be gone on with only as long as nobody else has worked on
// the store's tables: a debug writer may have, meanwhile. Then it is no longer ours.
bool in_step(const shkv_head *head, const ud_map *ud, uint32_t ud_ver)
{
    const supernode *sn = head->sn;
    return get32(&sn->md1.obj_ver) == head->md1.ver && get32(&sn->md2.obj_ver) == head->md2.ver && ud &&
           ud_ver == ud->ver && ud->map[0];
}

} // namespace

// A reshaper's close clears the refill bits with its token, those of a rebuild that began in its last
// second, too. The bit comes back here; unless the next reshaper has its token by then, and its hand on
// the target.
void refill_drop_if_lost(shkv_head *head)
{
    if (head->refill_pos == 0)
        return;
    supernode *sn = head->sn;
    uint32_t flg = get32(&sn->comm_flg);
    bool ud1 = flg & CF_UD1;
    const ud_map *ud = ud1 ? head->ud1_map : head->ud2_map;
    if (!in_step(head, ud, get32(ud1 ? &sn->ud1.obj_ver : &sn->ud2.obj_ver)) ||
        (!(flg & (CF_REFILL1 | CF_REFILL2)) &&
         !set32_unless(&sn->comm_flg, CF_RESH_TOKEN1 | CF_RESH_TOKEN2, flg & CF_MD1 ? CF_REFILL2 : CF_REFILL1)))
        head->refill_pos = 0;
}

int shkv_continue_refill_md(shkv_head *head, int handle, void *ring_p)
{
    supernode *sn = head->sn;
    refill_tm_start = cycles();
    uint32_t f = get32(&sn->comm_flg);
    LOG("%s: comm_flg:0x%x", "shkv_continue_refill_md", f);
    if (!(f & (CF_MD1 | CF_MD2)))
        return fail(ring_p, 0xED, handle, EINVAL, "shkv_continue_refill_md can not identify MD");
    bool md1 = f & CF_MD1;
    if (!(f & (CF_UD1 | CF_UD2)))
        return fail(ring_p, 0xED, handle, EINVAL, "shkv_continue_refill_md can not identify UD");
    ud_map *ud = f & CF_UD1 ? head->ud1_map : head->ud2_map;
    refill_drop_if_lost(head);
    if (head->refill_pos == 0)
        return 0;
    const md_desc *src = md1 ? &sn->md1 : &sn->md2, *dst = md1 ? &sn->md2 : &sn->md1;
    const md_rec *from = md1 ? &head->md1 : &head->md2, *to = md1 ? &head->md2 : &head->md1;
    int result = shkv_refill_hashtb(head, get32(&src->hashsz), get32(&dst->hashsz), from->hash_fn, from->base,
                                    to->base, ud->map[0], f);
    if (result != 0)
        return result;
    // The flip. Every record of the old table stands in the new one, whole chains of it; a reader
    // goes on in the old table or starts in the new one. Pairs with the snapshot of every operation.
    if (head->refill_pos == 0)
        change32(&sn->comm_flg, (md1 ? CF_MD1 : CF_MD2) | CF_REFILL1 | CF_REFILL2, md1 ? CF_MD2 : CF_MD1);
    return 0;
}
