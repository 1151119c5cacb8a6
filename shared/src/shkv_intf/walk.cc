// The walk. It takes no lock and runs beside the writer, who changes a chain only by single stores
// of offsets. What makes that safe:
//
// - An offset is read once into a local, and a reader checks it against what is mapped before it
//   looks there; a fault behind the mapping comes back to the guard.
// - A record is reachable only when it is complete, and one that is taken out keeps its links: who
//   stands on it reaches the rest of the chain. What may be missed in that moment is found by
//   walking again. A miss counts when enough walks were made and the last two met the same records.
// - A node that was handed out again under a reader leads it astray: into another chain, or (a
//   vector's unit) to bytes that are no link at all. A failure of such a walk is no failure of the
//   store; it counts only while the record that it came from can still be reached.
//
// What walk_holds vouches for. Before a node is handed out again its record is unlinked, by a
// store into first_ptr or into the link of the record before it. The look goes from first_ptr to the
// record anew, after the answer was taken. If it arrives, then the record was in the chain at some
// moment after the answer was complete: each record on the way was in the chain when its link was
// last true, and a record that leaves keeps its link as it was at that moment. A record in the chain
// does not change, so the answer is whole. It suffices that the record is met, by whatever way: keys
// that came or went before it do not matter.
// What it cannot tell: a record that was unlinked, handed out again and linked at the same offset
// into the same chain, all between the walk and the look. For that the reader also compares the
// sizes, the marks and the checksum byte with those that the answer was taken by. A reader that
// sleeps over such a reuse in the middle of its copy is deceived only if all of them came out equal.
#include "shkv_intf/walk.h"

#include <errno.h>
#include <string.h>
#include "diag/fail.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/record.h"

#define WALKS_MAX 64u // of a miss whose walks do not come to agree

enum { KEY_DIFFERS, KEY_EQUAL, KEY_OUTSIDE };
enum {
    WALK_FOUND,
    WALK_END,    // no such key in this chain
    WALK_ASTRAY, // a link led outside, from a record that can no longer be reached
    WALK_FAILED, // err says why
};

void walk_init(chain_walk *walk_p, shkv_head *head, const md_rec *rec, const mdn *bucket, void *ud_base,
               const void *key, uint32_t key_len, uint32_t limit, void *ring_p)
{
    *walk_p = {};
    walk_p->head = head;
    walk_p->rec = rec;
    walk_p->bucket = bucket;
    walk_p->ud_base = (char *)ud_base;
    walk_p->key = key;
    walk_p->key_len = key_len;
    walk_p->limit = limit;
    walk_p->ring_p = ring_p;
    walk_p->vector = is_vector(head->sn);
    walk_p->shared_map = is_shared_map(head);
}

// ---- Offsets and links ------------------------------------------------------------------------

// Whether a record's head (in vector mode its whole first unit) lies in what is mapped.
static bool head_inside(const chain_walk *walk_p, uint32_t off)
{
    uint32_t limit = walk_p->limit;
    if (limit == 0)
        return true;
    if (walk_p->vector)
        return off % unit_step(walk_p->shared_map) == 0 && limit >= VEC_UNIT_SZ && off <= limit - VEC_UNIT_SZ;
    return limit >= UDN_HEAD_SZ && off <= limit - UDN_HEAD_SZ;
}

static udn *udn_at(const chain_walk *walk_p, uint32_t off)
{
    return (udn *)ud_addr(walk_p->head, walk_p->ud_base, off, walk_p->shared_map);
}

// By the table and not by its address, which another thread may exchange under the walk. MD_TXN
// borrows the link of the idle one of MD1 and MD2: comm_flg as it is now, not a snapshot.
static uint32_t next_off(const chain_walk *walk_p, udn *udn_p)
{
    const shkv_head *head = walk_p->head;
    if (walk_p->rec == &head->md_txn)
        return get32(chain_link_p(udn_p, !(get32(&head->sn->comm_flg) & CF_MD1)));
    return get32(chain_link_p(udn_p, walk_p->rec == &head->md1));
}

// A chain has no more records than the space has nodes; more steps are a ring.
static uint32_t most_records(const chain_walk *walk_p)
{
    return walk_p->limit ? walk_p->limit / UDN_HEAD_SZ : UINT32_MAX;
}

// Whether the record at off can be reached from the bucket now.
static bool leads_to(const chain_walk *walk_p, uint32_t off)
{
    uint32_t left = most_records(walk_p);
    uint32_t at_off = get32(&walk_p->bucket->first_ptr);
    for (; at_off != off && left; left--) {
        if (at_off == 0 || !head_inside(walk_p, at_off))
            return false;
        at_off = next_off(walk_p, udn_at(walk_p, at_off));
    }
    return at_off == off;
}

bool walk_holds(const chain_walk *walk_p)
{
    // The loads that gave the answer stay ahead of those that vouch for it.
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return leads_to(walk_p, walk_p->off) && udn_sizes(walk_p->udn_p) == walk_p->sizes &&
           udn_marks(walk_p->udn_p) == walk_p->marks;
}

// ---- Failures ---------------------------------------------------------------------------------

static int first_outside(chain_walk *walk_p, uint32_t off)
{
    walk_p->err = (uint32_t)fail_pair(walk_p->ring_p, 0xE5, walk_p->limit, off, ENOMEM,
                                      "bucket_find_udn out of memory boundary 1                 %d %d",
                                      (int)walk_p->limit, (int)off);
    return WALK_FAILED;
}

// off: a link, or a record whose payload reaches outside.
static int link_outside(chain_walk *walk_p, uint32_t off)
{
    if (walk_p->limit && !leads_to(walk_p, walk_p->off))
        return WALK_ASTRAY;
    walk_p->err = (uint32_t)fail_pair(walk_p->ring_p, 0xE6, walk_p->limit, off, ENOMEM,
                                      "bucket_find_udn out of memory boundary 2                     %d %d",
                                      (int)walk_p->limit, (int)off);
    return WALK_FAILED;
}

static int key_outside(chain_walk *walk_p, uint32_t unit_off)
{
    if (walk_p->limit && !leads_to(walk_p, walk_p->off))
        return WALK_ASTRAY;
    uint32_t ud_end = get32(&((const sbm *)(const void *)walk_p->ud_base)->ud_end), next = unit_off + 4;
    walk_p->err = (uint32_t)fail_pair(
        walk_p->ring_p, 0xE9, ud_end, next, ENOMEM,
        "shkv_dv_key_cmp out of memory boundary                                 %d %d", (int)ud_end, (int)next);
    return WALK_FAILED;
}

// ---- Keys -------------------------------------------------------------------------------------

// The key of a vector record, unit by unit. *unit_p: the unit that led outside.
static int shkv_dv_key_cmp(const chain_walk *walk_p, const udn *udn_p, uint32_t *unit_off_p)
{
    const char *key_p = (const char *)walk_p->key, *at_p = (const char *)udn_p + VEC_HEAD_SZ;
    uint32_t left = walk_p->key_len, avail = VEC_UNIT_SZ - VEC_HEAD_SZ;
    while (left > avail) {
        if (memcmp(at_p, key_p, avail) != 0)
            return KEY_DIFFERS;
        key_p += avail;
        left -= avail;
        uint32_t next = get32(&udn_p->unit_next);
        if (!dv_unit_ok(walk_p->ud_base, next, walk_p->limit, walk_p->shared_map)) {
            *unit_off_p = next;
            return KEY_OUTSIDE;
        }
        udn_p = udn_at(walk_p, next);
        at_p = (const char *)udn_p + 4;
        avail = VEC_UNIT_SZ - 4;
    }
    return memcmp(at_p, key_p, left) == 0 ? KEY_EQUAL : KEY_DIFFERS;
}

// A fixed record whose payload would reach past the mapping is none.
static int look_at_fixed(chain_walk *walk_p)
{
    uint64_t end = (uint64_t)walk_p->off + UDN_HEAD_SZ + walk_p->key_len;
    if (walk_p->limit && end > walk_p->limit)
        return link_outside(walk_p, walk_p->off);
    if (memcmp((const char *)walk_p->udn_p + UDN_HEAD_SZ, walk_p->key, walk_p->key_len) != 0)
        return WALK_END;
    end += walk_p->sizes >> 16;
    return walk_p->limit && end > walk_p->limit ? link_outside(walk_p, walk_p->off) : WALK_FOUND;
}

// Looks at the record that the walk stands on: WALK_FOUND, WALK_END to go on, or how the walk ends.
static int look_at_record(chain_walk *walk_p)
{
    udn *udn_p = walk_p->udn_p;
    walk_p->sizes = udn_sizes(udn_p);
    if ((walk_p->sizes & 0xffff) != walk_p->key_len)
        return WALK_END;
    walk_p->marks = udn_marks(udn_p);
    if (!walk_p->vector)
        return look_at_fixed(walk_p);
    uint32_t unit_off = 0;
    int cmp = shkv_dv_key_cmp(walk_p, udn_p, &unit_off);
    if (cmp == KEY_OUTSIDE) {
        int end = key_outside(walk_p, unit_off);
        // Only the writer's walk keeps no error: there a broken key chain reads as the key being
        // present. Intended.
        return end == WALK_FAILED && walk_p->keep_err ? WALK_FOUND : end;
    }
    walk_p->err = 0;
    return cmp == KEY_EQUAL ? WALK_FOUND : WALK_END;
}

// ---- Walks ------------------------------------------------------------------------------------

static int walk_chain(chain_walk *walk_p)
{
    uint32_t off = get32(&walk_p->bucket->first_ptr);
    walk_p->udn_p = walk_p->prev_p = nullptr;
    walk_p->seen = 0;
    if (off != 0 && !head_inside(walk_p, off))
        return first_outside(walk_p, off);
    for (uint32_t left = most_records(walk_p); off != 0; left--) {
        walk_p->steps++;
        walk_p->udn_p = udn_at(walk_p, off);
        walk_p->off = off;
        int end = look_at_record(walk_p);
        if (end != WALK_END)
            return end;
        walk_p->prev_p = walk_p->udn_p;
        walk_p->seen = walk_mix(walk_p->seen, off);
        uint32_t next = next_off(walk_p, walk_p->udn_p);
        if (next != 0 && (left == 0 || !head_inside(walk_p, next)))
            return link_outside(walk_p, next);
        off = next;
    }
    walk_p->steps++;
    walk_p->udn_p = nullptr;
    return WALK_END;
}

// No memory behind a page of the mapping.
static int walk_faulted(chain_walk *walk_p)
{
    walk_p->udn_p = nullptr;
    walk_p->err = ENOMEM;
    out_of_actual_mem = 1;
    return WALK_FAILED;
}

static __attribute__((noinline)) int walk_guarded(chain_walk *walk_p)
{
    chain_walk *volatile walk_arg = walk_p;
    GUARD(faulted);
    {
        int end = walk_chain(walk_arg);
        GUARD_HELD();
        return end;
    }
faulted:
    return walk_faulted(walk_arg);
}

int walk_find(chain_walk *walk_p)
{
    walk_p->steps = 0;
    int last_end = WALK_ASTRAY;
    for (uint32_t walks = 1;; walks++) {
        uint32_t last_seen = walk_p->seen;
        int end = walk_guarded(walk_p);
        if (end == WALK_FOUND || end == WALK_FAILED)
            return end == WALK_FOUND;
        bool agreed = end == WALK_END && last_end == WALK_END && walk_p->seen == last_seen;
        if ((walk_enough(walks, walk_p->steps) && agreed) || walks >= WALKS_MAX)
            return 0;
        last_end = end;
    }
}

int bucket_find_udn(shkv_head *head, mdn *md_base, mdn *bucket, udn **udn_out, const void *key,
                    const uint32_t *key_len, void *ud_base, udn **prev_out, uint32_t limit, void *ring_p,
                    uint32_t *off_out, uint32_t *err_out)
{
    chain_walk walk;
    const md_rec *rec = md_base == head->md_txn.base ? &head->md_txn : md_base == head->md1.base ? &head->md1
                                                                                                 : &head->md2;
    walk_init(&walk, head, rec, bucket, ud_base, key, *key_len, limit, ring_p);
    walk.keep_err = !err_out;
    walk.err = err_out ? *err_out : 0;
    // A writer holds the store: what its one look does not meet is not there.
    int found = prev_out ? walk_guarded(&walk) == WALK_FOUND : walk_find(&walk);
    *udn_out = walk.udn_p;
    if (prev_out)
        *prev_out = walk.prev_p;
    if (off_out && walk.udn_p)
        *off_out = walk.off;
    if (err_out)
        *err_out = walk.err;
    return found;
}
