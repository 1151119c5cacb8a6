// shkv_lookup: copies a key's value without a lock and, in the common case, without a system call.
//
// It changes nothing shared. Every decision follows one snapshot of comm_flg, and every answer is
// vouched for after it was taken:
// - what a record says (its value, too little room, a bad checksum, the deleted mark) counts only
//   while the record can still be reached, see walk.cc; else the look starts again;
// - a miss counts only when the tables are still those of the snapshot.
// Starting again is bounded; after that the answer stands as it was found.
#include "shkv_intf/lookup.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "reshape/interim.h"
#include "shkv_hash/checksum.h"
#include "shkv_hash/hash_fn.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/lookup_vector.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/obj_remap.h"
#include "shkv_intf/quick.h"
#include "shkv_intf/record.h"
#include "shkv_intf/walk.h"

#define LOOK_AGAIN (-1)
#define LOOK_MISS (-2)
#define LOOKS_MAX 64u
#define MODE_TABLES_ONLY 0x33u // the reshaper's: past the interim list

struct lookup_op {
    int handle;
    shkv_head *head;
    supernode *sn;
    const shkv_buf *key;
    shkv_buf *value;
    uint32_t mode;
    void *ring_p;
    bool last;    // no look is left: this answer stands
    bool missed;  // a look of a reshape has met nothing
    uint32_t flg; // the snapshot of this look, and what its tables were mapped by
    const md_desc *md_desc_p;
    uint32_t md_ver;
    uint32_t ud_ver;
    bool two_uds; // the secondary has a record space of its own
    active_db prim;
    active_db sec;
};

// ---- Versions -----------------------------------------------------------------------------------

// Before an address is taken: a mapping's version is stored behind its address, so what is mapped
// later than at these versions shows.
static void note_versions(lookup_op *op_p)
{
    const ud_map *ud = op_p->flg & CF_UD1 ? op_p->head->ud1_map : op_p->head->ud2_map;
    op_p->md_desc_p = op_p->prim.desc;
    op_p->md_ver = op_p->prim.rec ? get32(&op_p->prim.rec->ver) : 0;
    op_p->ud_ver = ud ? get32(&ud->ver) : 0;
}

// Whether the tables have changed since the snapshot: then a miss says nothing.
static bool has_moved(const lookup_op *op_p)
{
    return get32(&op_p->sn->comm_flg) != op_p->flg ||
           (op_p->md_desc_p && get32(&op_p->md_desc_p->obj_ver) != op_p->md_ver) ||
           get32(op_p->flg & CF_UD1 ? &op_p->sn->ud1.obj_ver : &op_p->sn->ud2.obj_ver) != op_p->ud_ver;
}

// Whether the table that the answer came from was left behind meanwhile: its records are reused with
// their links standing.
static bool left_behind(const lookup_op *op_p)
{
    return (get32(&op_p->sn->comm_flg) ^ op_p->flg) & (CF_MD1 | CF_MD2 | CF_UD1 | CF_UD2);
}

// No mapping, or a shorter one. Another thread that is about to exchange it is at it under obj_sem,
// where the next look's check waits for it.
static int unmapped(const lookup_op *op_p)
{
    return !op_p->last && has_moved(op_p) ? LOOK_AGAIN : ENOMEM;
}

// ---- The answer of a record ---------------------------------------------------------------------

enum { ANSWER_VALUE, ANSWER_DELETED, ANSWER_NO_ROOM, ANSWER_BAD_CKSUM, ANSWER_BAD_CHAIN };

static int copy_fixed(const chain_walk *walk_p, shkv_buf *value)
{
    const char *data_p = (const char *)walk_p->udn_p + UDN_HEAD_SZ;
    uint32_t val_sz = walk_p->sizes >> 16;
    if (data_cksum_inline(data_p, walk_p->key_len + val_sz) != MARKS_CKSUM(walk_p->marks))
        return ANSWER_BAD_CKSUM;
    if (val_sz)
        memcpy(value->ptr, data_p + walk_p->key_len, val_sz);
    return ANSWER_VALUE;
}

static int copy_vector(const chain_walk *walk_p, shkv_buf *value)
{
    uint8_t cksum = 0;
    if (!shkv_udn_checksum(walk_p->ud_base, walk_p->head, walk_p->udn_p, walk_p->limit, &cksum,
                           walk_p->shared_map))
        return ANSWER_BAD_CHAIN;
    if (cksum != MARKS_CKSUM(walk_p->marks))
        return ANSWER_BAD_CKSUM;
    int ret = dv_read_quiet(value->ptr, value->len, walk_p->ud_base, walk_p->udn_p, REC_VALUE, walk_p->head,
                            walk_p->shared_map, walk_p->limit);
    return ret == 0 ? ANSWER_VALUE : ANSWER_BAD_CHAIN;
}

static int take_answer(const chain_walk *walk_p, shkv_buf *value)
{
    if (walk_p->marks & MARKS_DELETED)
        return ANSWER_DELETED;
    if (walk_p->sizes >> 16 > value->len)
        return ANSWER_NO_ROOM;
    if (walk_p->vector)
        return copy_vector(walk_p, value);
    if (is_fixed(walk_p->head->sn))
        return copy_fixed(walk_p, value);
    return MARKS_CKSUM(walk_p->marks) == 0 ? ANSWER_VALUE : ANSWER_BAD_CKSUM; // neither mode: no payload
}

// The answer, and whether the record vouches for it. False when the memory behind it was gone.
static __attribute__((noinline)) bool take_guarded(const chain_walk *walk_p, shkv_buf *value, int *answer_p,
                                                   bool *holds_p)
{
    GUARD(faulted);
    *answer_p = take_answer(walk_p, value);
    *holds_p = walk_holds(walk_p);
    return true;
faulted:
    return false;
}

static int no_room(const lookup_op *op_p, uint32_t val_sz)
{
    op_p->value->len = val_sz;
    return fail(op_p->ring_p, 0x75, (uint32_t)op_p->handle, EINVAL, "shkv_lookup,val buf too small, shkvh:%d",
                op_p->handle);
}

static int bad_cksum(const lookup_op *op_p)
{
    return fail(op_p->ring_p, 0x13, (uint32_t)op_p->handle, EINVAL, "shkv_lookup,bad checksum, shkvh:%d",
                op_p->handle);
}

static int no_memory(const lookup_op *op_p)
{
    out_of_actual_mem = 0;
    return fail(op_p->ring_p, 0x76, (uint32_t)op_p->handle, ENOMEM, "shkv out of actual me in shkv_lookup");
}

// Reads a chain that ended too soon once more, for the message that says where. False when the
// memory behind it was gone.
static __attribute__((noinline)) bool read_aloud(const lookup_op *op_p, const chain_walk *walk_p, int *ret_p)
{
    GUARD(faulted);
    *ret_p = shkv_dv_read(op_p->value->ptr, op_p->value->len, walk_p->ud_base, walk_p->udn_p, REC_VALUE,
                          walk_p->head, walk_p->shared_map, walk_p->limit, op_p->ring_p);
    return true;
faulted:
    return false;
}

static int answer_of_record(const lookup_op *op_p, const chain_walk *walk_p)
{
    int answer = 0;
    bool holds = false;
    if (!take_guarded(walk_p, op_p->value, &answer, &holds))
        return no_memory(op_p);
    if ((!holds || left_behind(op_p)) && !op_p->last)
        return LOOK_AGAIN;
    switch (answer) {
    case ANSWER_DELETED:
        return ENOENT;
    case ANSWER_NO_ROOM:
        return no_room(op_p, walk_p->sizes >> 16);
    case ANSWER_BAD_CKSUM:
        return bad_cksum(op_p);
    case ANSWER_BAD_CHAIN: {
        int ret = 0;
        if (!read_aloud(op_p, walk_p, &ret))
            return no_memory(op_p);
        return ret ? ret : bad_cksum(op_p);
    }
    default:
        op_p->value->len = walk_p->sizes >> 16;
        return 0;
    }
}

// ---- The interim list ---------------------------------------------------------------------------

struct interim_answer {
    uint32_t kind, val_sz;
    int answer; // of a record of kind INTRM_ADD
};

// What a record of the list, off bytes into its space of limit bytes, says of the key.
static void take_interim(const lookup_op *op_p, const udn *rec_p, uint32_t off, uint32_t limit,
                         interim_answer *out_p)
{
    const char *data_p = (const char *)rec_p + UDN_HEAD_SZ;
    uint32_t val_sz = udn_sizes(rec_p) >> 16, size = op_p->key->len + val_sz;
    *out_p = {get32(&rec_p->unit_next), val_sz, ANSWER_DELETED};
    if (out_p->kind != INTRM_ADD)
        return;
    uint8_t cksum = MARKS_CKSUM(udn_marks(rec_p));
    if (val_sz > op_p->value->len)
        out_p->answer = ANSWER_NO_ROOM;
    else if ((uint64_t)off + UDN_HEAD_SZ + size > limit)
        out_p->answer = ANSWER_BAD_CHAIN;
    else if (cksum != 0 && cksum != data_cksum_inline(data_p, size)) // 0 passes unverified
        out_p->answer = ANSWER_BAD_CKSUM;
    else {
        out_p->answer = ANSWER_VALUE;
        if (val_sz)
            memcpy(op_p->value->ptr, data_p + op_p->key->len, val_sz);
    }
}

// The list's space is cut when its reshape is given up: false when that has happened.
static __attribute__((noinline)) bool take_interim_guarded(const lookup_op *op_p, const udn *rec_p,
                                                           uint32_t off, uint32_t limit, interim_answer *out_p)
{
    GUARD(faulted);
    take_interim(op_p, rec_p, off, limit, out_p);
    return true;
faulted:
    return false;
}

// While a reshape moves the tables, what the writer does stands on the interim list. A record of
// the list vouches for its answer by still ruling on the key. LOOK_MISS: the tables rule.
static int look_at_interim(const lookup_op *op_p)
{
    const ud_map *ud = op_p->two_uds ? op_p->sec.ud : op_p->prim.ud;
    uint32_t limit = 0;
    char *base = ud ? ud_mapped(ud, &limit) : nullptr;
    if (!base)
        return unmapped(op_p);
    const udn *rec_p = interim_find(op_p->sn, op_p->key, base, limit);
    if (!rec_p)
        return LOOK_MISS;
    interim_answer said = {};
    if (!take_interim_guarded(op_p, rec_p, (uint32_t)((const char *)rec_p - base), limit, &said))
        return no_memory(op_p);
    if (said.kind != INTRM_ADD && said.kind != INTRM_DEL)
        return LOOK_MISS;
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (!op_p->last && interim_find(op_p->sn, op_p->key, base, limit) != rec_p)
        return LOOK_AGAIN;
    switch (said.answer) {
    case ANSWER_DELETED:
        LOG("shkv_lookup, no such key");
        return ENOENT;
    case ANSWER_NO_ROOM:
        return no_room(op_p, said.val_sz);
    case ANSWER_BAD_CKSUM:
        return bad_cksum(op_p);
    case ANSWER_BAD_CHAIN:
        return ENOMEM;
    default:
        op_p->value->len = said.val_sz;
        return 0;
    }
}

// ---- The tables ---------------------------------------------------------------------------------

// One table over one record space. LOOK_MISS: no such key there.
static int look_at_table(const lookup_op *op_p, const active_db *db_p, const ud_map *ud)
{
    const md_rec *rec = db_p->rec;
    shkv_hash_fn hash_fn = rec ? bound_fn(rec) : nullptr;
    if (!hash_fn)
        return fail(op_p->ring_p, 0x74, (uint32_t)op_p->handle, EINVAL,
                    "shkv_lookup, hashfunc is not inited, shkvh:%d", op_p->handle);
    uint32_t md_sz, limit = 0;
    const mdn *md_base = md_mapped(rec, &md_sz);
    char *ud_base = ud ? ud_mapped(ud, &limit) : nullptr;
    if (!md_base || !ud_base)
        return unmapped(op_p);
    uint32_t bkt = bucket_of(hash_fn(op_p->key->ptr, op_p->key->len), get32(&db_p->desc->hashsz));
    if (bkt >= md_sz / sizeof(mdn))
        return unmapped(op_p); // a mapping that is out of step
    chain_walk walk;
    walk_init(&walk, op_p->head, rec, md_base + bkt, ud_base, op_p->key->ptr, op_p->key->len, limit,
              op_p->ring_p);
    if (walk_find(&walk))
        return answer_of_record(op_p, &walk);
    if (out_of_actual_mem)
        return no_memory(op_p);
    return walk.err == ENOMEM ? ENOMEM : LOOK_MISS;
}

// The primary, and in a reshape the secondary. The owner of a transaction looks into MD_TXN first:
// a record there is the answer, a deleted one too; only a miss goes on to the committed table.
static int look_at_tables(lookup_op *op_p)
{
    int ret = look_at_table(op_p, &op_p->prim, op_p->prim.ud);
    if (ret == LOOK_MISS && op_p->prim.rec == &op_p->head->md_txn) {
        get_active_db(&op_p->prim, &op_p->sec, op_p->head, op_p->flg);
        ret = look_at_table(op_p, &op_p->prim, op_p->prim.ud);
    }
    if (ret == LOOK_MISS && (op_p->flg & CF_RESHAPE))
        ret = look_at_table(op_p, &op_p->sec, op_p->two_uds ? op_p->sec.ud : op_p->prim.ud);
    return ret;
}

// A reshape moves records from where this look has not been yet to where it was: one look that
// meets nothing is not enough.
static int answer_of_miss(lookup_op *op_p)
{
    bool first_of_reshape = (op_p->flg & CF_RESHAPE) && !op_p->missed;
    op_p->missed = true;
    if (!op_p->last && (has_moved(op_p) || first_of_reshape))
        return LOOK_AGAIN;
    return ENOENT;
}

// ---- The flow -----------------------------------------------------------------------------------

static int check_args(const lookup_op *op_p)
{
    const shkv_buf *key = op_p->key, *value = op_p->value;
    int shkvh = op_p->handle;
    if (!key || !value)
        return fail(op_p->ring_p, 0x11, (uint32_t)shkvh, EINVAL, "shkv_lookup, has bad buffer, shkvh:%d",
                    shkvh);
    if (key->len == 0 || !key->ptr)
        return fail(op_p->ring_p, 0x12, (uint32_t)shkvh, EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d",
                    shkvh);
    if (value->len != 0 && !value->ptr)
        return fail(op_p->ring_p, 0x15, (uint32_t)shkvh, EINVAL,
                    "shkv_lookup, value buffer is invalid, shkvh:%d", shkvh);
    return 0;
}

// One snapshot, brought in step, and what it says of the key.
static int look(lookup_op *op_p)
{
    op_p->flg = get32(&op_p->sn->comm_flg);
    if (op_p->flg & CF_DESTROYED)
        return fail(op_p->ring_p, 0x10, (uint32_t)op_p->handle, EBADF,
                    "shkv_lookup, the db has been destroyed, shkvh:%d", op_p->handle);
    int ret = check_hdmd_remap(op_p->head, op_p->flg, op_p->handle, PROT_READ, op_p->ring_p);
    if (ret != 0)
        return fail(op_p->ring_p, 0x16, (uint32_t)ret, ret, "shkv_lookup, check_hdmd_remap failed %d", ret);
    op_p->prim = op_p->sec = {};
    op_p->two_uds = get_active_db(&op_p->prim, &op_p->sec, op_p->head, op_p->flg) == 1;
    note_versions(op_p);
    if ((get32(&op_p->head->access_mode) & SHKV_AM_WRITE) && (op_p->flg & CF_TXN))
        use_txn_table(&op_p->prim, op_p->head);
    ret = LOOK_MISS;
    if ((op_p->flg & CF_RESHAPE) && op_p->mode != MODE_TABLES_ONLY)
        ret = look_at_interim(op_p);
    if (ret == LOOK_MISS)
        ret = look_at_tables(op_p);
    return ret == LOOK_MISS ? answer_of_miss(op_p) : ret;
}

int __shkv_lookup(int handle, const shkv_buf *key, shkv_buf *value, uint32_t mode)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    lookup_op op = {};
    op.handle = handle;
    op.head = head;
    op.sn = head->sn;
    op.key = key;
    op.value = value;
    op.mode = mode;
    op.ring_p = ring_of(head->sn);
    int ret = check_args(&op);
    if (ret != 0)
        return ret;
    for (uint32_t left = LOOKS_MAX;; left--) {
        op.last = left == 1;
        ret = look(&op);
        if (ret != LOOK_AGAIN)
            return ret;
    }
}

// A stale mapping or a fault costs one retry, whose look brings the mapping in step. Nothing else
// is tried again. A key whose place the value is to take is put aside: a look that starts again has copied
// over it.
static __attribute__((noinline)) int lookup_in_full(int handle, const shkv_buf *key, shkv_buf *value)
{
    char key_room[REC_KEY_MAX];
    shkv_buf moved = {key_room, 0};
    if (key && value && key->ptr && key->ptr == value->ptr && key->len <= REC_KEY_MAX) {
        moved.len = key->len;
        memcpy(key_room, key->ptr, key->len);
        key = &moved;
    }
    int ret = __shkv_lookup(handle, key, value, 0);
    return ret == ENOMEM ? __shkv_lookup(handle, key, value, 0) : ret;
}

int shkv_lookup(int handle, const shkv_buf *key, shkv_buf *value)
{
    uint32_t slot = (uint32_t)handle - 1;
    if (UNLIKELY(slot >= HEADS))
        return lookup_in_full(handle, key, value);
    if (UNLIKELY(quick_vector(slot))) {
        int ret = lookup_vector(handle, key, value);
        return LIKELY(ret >= 0) ? ret : lookup_in_full(handle, key, value);
    }
    // For the way back from a fault, which finds no other local as it was.
    volatile uint32_t slot_arg = slot;
    const shkv_buf *volatile key_arg = key;
    shkv_buf *volatile value_arg = value;
    GUARD_ARM(in_full); // for what a view leads to; without one nothing is looked at under it
    {
        key = key_arg;
        value = value_arg;
        const quick_view *view_p = quick_view_at(slot_arg);
        if (LIKELY(view_p && quick_room_ok(key, value))) {
            const char *key_p = (const char *)key->ptr;
            uint32_t key_len = key->len;
            const mdn *bucket = quick_bucket(view_p, key_p, key_len, QUICK_UNASKED);
            int ret = LIKELY(!view_p->vector) ? quick_look(view_p, bucket, key_p, key_len, value) : QUICK_NO;
            if (LIKELY(ret == 0))
                return 0;
            if (ret == QUICK_MISS && quick_miss(view_p, bucket, key_p, key_len) == ENOENT)
                return ENOENT;
        }
    }
in_full:
    return lookup_in_full((int)slot_arg + 1, key_arg, value_arg);
}
