// shkv_iterate: all records of a store, one a call, in bucket order. It takes no lock and gives no
// snapshot: each call looks at the table in force. The cursor is three words of the head, so a
// handle has one iteration, and a call that fails leaves it where it is.
//
// The link to the next record is read last, so that a record taken out meanwhile still leads on.
#include "shkv_intf/iterate.h"

#include <assert.h>
#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_hash/checksum.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/quick.h"
#include "shkv_intf/record.h"
#include "shkv_intf/walk.h"

#define ITER_AGAIN (-1)
#define FETCH_AHEAD 8u  // buckets between the scan and the record that it asks for
#define QUICK_AHEAD 16u // the same, where the scan itself takes less time

struct iter_op {
    int handle;
    shkv_head *head;
    supernode *sn;
    shkv_buf *key;
    shkv_buf *val;
    shkv_iter_pos *pos;
    void *ring_p;
    bool shared_map;
    bool fixed;
    bool vector;
    uint32_t flg;
    bool md1; // the table's chains run through md1_next
    const mdn *md_base;
    uint32_t bkts;
    uint32_t mapped_bkts;
    void *ud_base;
    uint32_t limit;               // bytes of the record space that are mapped
    uint32_t ud_ver;              // what that mapping is of,
    const uint32_t *ud_obj_ver_p; // and of what the record space is now
    // the record
    udn *udn_p;
    uint32_t key_sz;
    uint32_t val_sz;
};

// ---- The way in ---------------------------------------------------------------------------------

static int check_args(const iter_op *op_p, int reset)
{
    const shkv_buf *key = op_p->key, *val = op_p->val;
    int shkvh = op_p->handle;
    if (!(op_p->head->access_mode & (SHKV_AM_WRITE | SHKV_AM_ITER | SHKV_AM_RESHAPE)))
        return fail(op_p->ring_p, 0x8A, (uint32_t)shkvh, EINVAL,
                    "shkv_iterate,not opened for SHKV_AM_ITER, shkvh:%d", shkvh);
    if ((!key || !val) && !op_p->pos && reset != 1)
        return fail(op_p->ring_p, 0x8B, (uint32_t)shkvh, EINVAL, "shkv_iterate, all empty buffers, shkvh:%d",
                    shkvh);
    if (key && key->len != 0 && !key->ptr)
        return fail(op_p->ring_p, 0x8C, (uint32_t)shkvh, EINVAL, "shkv_iterate,key buffer is invalid,shkvh:%d",
                    shkvh);
    if (val && val->len != 0 && !val->ptr)
        return fail(op_p->ring_p, 0x8D, (uint32_t)shkvh, EINVAL, "shkv_iterate,val buffer is invalid,shkvh:%d",
                    shkvh);
    return 0;
}

// The old table and the old record space of a reshape; never MD_TXN. False when another thread is
// about to exchange the mapping of the table. A mapping's version is read ahead of the mapping.
static bool choose_tables(iter_op *op_p)
{
    shkv_head *head = op_p->head;
    active_db prim = {}, sec = {};
    get_active_db(&prim, &sec, head, op_p->flg);
    uint32_t md_sz = 0;
    const mdn *md_base = prim.rec ? md_mapped(prim.rec, &md_sz) : nullptr;
    const md_desc *curr_md = prim.desc;
    if (!md_base && prim.rec && get32(&prim.rec->ver) != get32(&curr_md->obj_ver))
        return false;
    assert(md_base);
    assert(curr_md);
    op_p->md_base = md_base;
    op_p->md1 = prim.rec == &head->md1;
    op_p->bkts = get32(&curr_md->hashsz);
    op_p->mapped_bkts = md_sz / (uint32_t)sizeof(mdn);
    op_p->limit = 0;
    op_p->ud_obj_ver_p = prim.ud == head->ud1_map ? &op_p->sn->ud1.obj_ver : &op_p->sn->ud2.obj_ver;
    op_p->ud_ver = prim.ud ? get32(&prim.ud->ver) : get32(op_p->ud_obj_ver_p);
    op_p->ud_base = prim.ud ? ud_mapped(prim.ud, &op_p->limit) : nullptr;
    return true;
}

static int take_snapshot(iter_op *op_p)
{
    int shkvh = op_p->handle;
    op_p->flg = get32(&op_p->sn->comm_flg);
    if (op_p->flg & CF_DESTROYED)
        return fail(op_p->ring_p, 0x8E, (uint32_t)shkvh, EBADF,
                    "shkv_iter, the db has been destroyed, shkvh:%d", shkvh);
    // The truth is split between the tables and the interim list, which an iterator cannot merge.
    if ((op_p->flg & CF_RESHAPE) && !(op_p->head->access_mode & SHKV_AM_RESHAPE))
        return fail(op_p->ring_p, 0x8F, (uint32_t)shkvh, EINVAL,
                    "shkv_iter, slow path forbid iterate, shkvh:%d", shkvh);
    int ret = check_hdmd_remap(op_p->head, op_p->flg, shkvh, PROT_READ, op_p->ring_p);
    if (ret != 0)
        return fail(op_p->ring_p, 0x90, (uint32_t)ret, ret, "shkv_iter, check_hdmd_remap fail %d", ret);
    return choose_tables(op_p) ? 0 : ITER_AGAIN;
}

// ---- Buckets ------------------------------------------------------------------------------------

static void *record_at(const iter_op *op_p, uint32_t off)
{
    return ud_addr(op_p->head, op_p->ud_base, off, op_p->shared_map);
}

// Asks for the first record of a bucket some way ahead. Its entry is read only on a page that the
// scan has reached, so that this meets no fault of its own; asking for a line never faults.
static inline void fetch_ahead(const iter_op *op_p, uint32_t bkt)
{
    const mdn *at_p = op_p->md_base + bkt, *ahead_p = at_p + FETCH_AHEAD;
    if (bkt + FETCH_AHEAD >= op_p->mapped_bkts || ((uintptr_t)at_p ^ (uintptr_t)ahead_p) >= SHKV_PAGE_SIZE)
        return;
    uint32_t off = get32(&ahead_p->first_ptr);
    if (off == 0 || off >= op_p->limit || op_p->shared_map)
        return;
    __builtin_prefetch((const char *)op_p->ud_base + off);
    __builtin_prefetch((const char *)op_p->ud_base + off + 64);
}

// Puts the cursor on the first record of the next bucket that has one. 0, ENOENT at the end of the
// table, ENOMEM when there is no memory behind the table; iter_bkt has moved then.
static __attribute__((noinline)) int next_bucket(const iter_op *op_p)
{
    GUARD(faulted);
    for (shkv_head *head = op_p->head;;) {
        uint32_t bkt = ++head->iter_bkt;
        __atomic_signal_fence(__ATOMIC_SEQ_CST); // a fault below finds the cursor moved
        if (bkt >= op_p->bkts)
            return ENOENT;
        if (bkt >= op_p->mapped_bkts)
            return ENOMEM; // a mapping that is out of step
        fetch_ahead(op_p, bkt);
        uint32_t off = get32(&op_p->md_base[bkt].first_ptr);
        if (off == 0)
            continue;
        head->iter_off = off;
        head->iter_cnt = 0;
        return 0;
    }
faulted:
    return ENOMEM;
}

static __attribute__((noinline)) int reset_cursor(const iter_op *op_p)
{
    op_p->head->iter_bkt = 0;
    GUARD(faulted);
    if (op_p->mapped_bkts != 0) {
        op_p->head->iter_off = get32(&op_p->md_base[0].first_ptr);
        op_p->head->iter_cnt = 0;
        return 0;
    }
faulted:
    return ENOMEM;
}

// ---- The record ---------------------------------------------------------------------------------

static int outside(const iter_op *op_p, int value)
{
    uint32_t off = op_p->head->iter_off;
    return fail_pair(op_p->ring_p, 0xE7, op_p->limit, off, value, "shkv_iter mem out of boundary 3 %d %d",
                     (int)op_p->limit, (int)off);
}

// Whether the record's head lies in what is mapped; of a vector its whole first unit.
static bool head_inside(const iter_op *op_p, uint32_t off)
{
    uint32_t need = op_p->vector ? VEC_UNIT_SZ : UDN_HEAD_SZ;
    return op_p->limit >= need && off <= op_p->limit - need &&
           !(op_p->vector && off % unit_step(op_p->shared_map) != 0);
}

// A record that does not fit into the mapping: the next round has a longer one, or it never fits.
static int partly_outside(const iter_op *op_p)
{
    return outside(op_p, get32(op_p->ud_obj_ver_p) != op_p->ud_ver ? ITER_AGAIN : ENOMEM);
}

// The words are those of lookup; intended.
static int check_cksum(const iter_op *op_p, uint32_t event)
{
    uint8_t cksum = 0;
    bool good = true;
    if (op_p->fixed)
        cksum = data_cksum_inline((const char *)op_p->udn_p + UDN_HEAD_SZ, op_p->key_sz + op_p->val_sz);
    else if (op_p->vector)
        good = shkv_udn_checksum(op_p->ud_base, op_p->head, op_p->udn_p, op_p->limit, &cksum, op_p->shared_map);
    if (good && cksum == get8(&op_p->udn_p->cksum))
        return 0;
    return fail(op_p->ring_p, event, (uint32_t)op_p->handle, EINVAL, "shkv_lookup,bad checksum, shkvh:%d",
                op_p->handle);
}

static int copy_part(const iter_op *op_p, shkv_buf *buf, int which)
{
    uint32_t size = which == REC_KEY ? op_p->key_sz : op_p->val_sz;
    if (op_p->vector) {
        int ret = shkv_dv_read(buf->ptr, buf->len, op_p->ud_base, op_p->udn_p, which, op_p->head,
                               op_p->shared_map, op_p->limit, op_p->ring_p);
        if (ret != 0)
            return ret;
    } else if (op_p->fixed) {
        quick_copy(buf->ptr, (const char *)op_p->udn_p + UDN_HEAD_SZ + (which == REC_KEY ? 0 : op_p->key_sz),
                   size);
    }
    buf->len = size;
    return 0;
}

static int give_key(const iter_op *op_p)
{
    shkv_buf *key = op_p->key;
    if (key->len < op_p->key_sz) {
        key->len = op_p->key_sz;
        return fail(nullptr, 0, 0, EINVAL, "shkv_iterate,key buf too small, shkvh:%d", op_p->handle);
    }
    int ret = check_cksum(op_p, 0x91);
    return ret ? ret : copy_part(op_p, key, REC_KEY);
}

static int give_value(const iter_op *op_p)
{
    shkv_buf *val = op_p->val;
    if (val->len < op_p->val_sz) { // the words of lookup; intended
        val->len = op_p->val_sz;
        return fail(nullptr, 0, 0, EINVAL, "shkv_lookup,val buf too small, shkvh:%d", op_p->handle);
    }
    int ret = op_p->key ? 0 : check_cksum(op_p, 0x92); // once a record
    return ret ? ret : copy_part(op_p, val, REC_VALUE);
}

static int give_record(iter_op *op_p)
{
    shkv_head *head = op_p->head;
    udn *udn_p = op_p->udn_p;
    uint32_t sizes = udn_sizes(udn_p);
    op_p->key_sz = sizes & 0xffff;
    op_p->val_sz = sizes >> 16;
    uint64_t end = (uint64_t)head->iter_off + UDN_HEAD_SZ + op_p->key_sz + op_p->val_sz;
    if (op_p->fixed && (op_p->key || op_p->val) && end > op_p->limit)
        return partly_outside(op_p);
    int ret = op_p->key ? give_key(op_p) : 0;
    if (ret == 0 && op_p->val)
        ret = give_value(op_p);
    if (ret != 0)
        return ret;
    uint32_t ordinal = head->iter_cnt + 1;
    if (op_p->pos)
        *op_p->pos = {op_p->flg, head->iter_off, head->iter_bkt, ordinal};
    head->iter_off = get32(chain_link_p(udn_p, op_p->md1));
    head->iter_cnt = ordinal;
    return 0;
}

static __attribute__((noinline)) int give_guarded(iter_op *op_p)
{
    GUARD(faulted);
    {
        int ret = give_record(op_p);
        GUARD_HELD();
        return ret;
    }
faulted:
    return ENOMEM;
}

// ---- The flow -----------------------------------------------------------------------------------

static int iterate_once(iter_op *op_p, int reset)
{
    shkv_head *head = op_p->head;
    int ret = check_args(op_p, reset);
    if (ret != 0)
        return ret;
    ret = take_snapshot(op_p);
    if (ret != 0)
        return ret;
    if (reset == 1)
        return reset_cursor(op_p);
    if (head->iter_off == 0 && (ret = next_bucket(op_p)) != 0)
        return ret;
    if (!op_p->ud_base) // after a failed growth, or while another thread exchanges it
        return partly_outside(op_p);
    if (head->iter_off >= op_p->limit)
        return outside(op_p, ITER_AGAIN); // the mapping may be stale; the next round sees to it
    if (!head_inside(op_p, head->iter_off))
        return partly_outside(op_p);
    op_p->udn_p = (udn *)record_at(op_p, head->iter_off);
    return give_guarded(op_p);
}

// The next record of an ordinary iteration, both buffers given: of a fixed store whose handle has a view
// in force (quick.h), in one piece of code. 0, or QUICK_NO with nothing done, the cursor where it was.
QUICK_INLINE int quick_iterate(int handle, shkv_buf *key, shkv_buf *val, shkv_iter_pos *pos)
{
    const quick_view *view_p = quick_view_of(handle);
    if (!view_p || view_p->vector || !key || !key->ptr || !val || !val->ptr || key == val)
        return QUICK_NO;
    shkv_head *head = &shkv_db_heads[handle - 1];
    if (!(head->access_mode & (SHKV_AM_WRITE | SHKV_AM_ITER)))
        return QUICK_NO;
    uint32_t off = head->iter_off, bkt = head->iter_bkt, ordinal = off ? head->iter_cnt + 1 : 1;
    while (off == 0) {
        if (++bkt >= view_p->hashsz)
            return QUICK_NO;
        if (LIKELY(bkt + QUICK_AHEAD < view_p->hashsz)) {
            const char *ahead_p = view_p->ud_base + get32(&view_p->md_base[bkt + QUICK_AHEAD].first_ptr);
            __builtin_prefetch(ahead_p);
            __builtin_prefetch(ahead_p + 64);
        }
        off = get32(&view_p->md_base[bkt].first_ptr);
    }
    if (UNLIKELY(off > view_p->limit - UDN_HEAD_SZ))
        return QUICK_NO;
    const udn *udn_p = (const udn *)(const void *)(view_p->ud_base + off);
    const char *data_p = (const char *)udn_p + UDN_HEAD_SZ;
    uint32_t sizes = udn_sizes(udn_p), key_sz = sizes & 0xffff, val_sz = sizes >> 16;
    if (UNLIKELY(key_sz > key->len || val_sz > val->len ||
                 (uint64_t)off + UDN_HEAD_SZ + key_sz + val_sz > view_p->limit ||
                 data_cksum_inline(data_p, key_sz + val_sz) != get8(&udn_p->cksum)))
        return QUICK_NO;
    quick_copy(key->ptr, data_p, key_sz);
    quick_copy(val->ptr, data_p + key_sz, val_sz);
    uint32_t next = get32((const uint32_t *)(const void *)((const char *)udn_p + view_p->link_at));
    key->len = key_sz;
    val->len = val_sz;
    if (pos)
        *pos = {(view_p->flg & view_p->flg_mask) | (get32(&head->sn->comm_flg) & ~view_p->flg_mask), off, bkt,
                ordinal}; // the bits that count as this call went by them
    head->iter_off = next;
    head->iter_bkt = bkt;
    head->iter_cnt = ordinal;
    return 0;
}

static __attribute__((noinline)) int iterate_in_full(int handle, shkv_buf *key, shkv_buf *val,
                                                     shkv_iter_pos *pos, int reset)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    iter_op op = {};
    op.handle = handle;
    op.head = head;
    op.sn = head->sn;
    op.key = key;
    op.val = val;
    op.pos = pos;
    op.ring_p = ring_of(head->sn);
    op.shared_map = is_shared_map(head);
    op.fixed = is_fixed(head->sn);
    op.vector = is_vector(head->sn);
    for (;;) { // a cursor that stays out of bounds keeps the call here; intended
        int ret = iterate_once(&op, reset);
        if (ret != ITER_AGAIN)
            return ret;
    }
}

int shkv_iterate(int handle, shkv_buf *key, shkv_buf *val, shkv_iter_pos *pos, int reset)
{
    volatile int handle_arg = handle, reset_arg = reset; // for the way back from a fault
    shkv_buf *volatile key_arg = key, *volatile val_arg = val;
    shkv_iter_pos *volatile pos_arg = pos;
    GUARD_ARM(in_full);
    if (reset_arg != 1 && quick_iterate(handle_arg, key_arg, val_arg, pos_arg) == 0)
        return 0;
in_full:
    return iterate_in_full(handle_arg, key_arg, val_arg, pos_arg, reset_arg);
}
