// The commit: moves what is staged into the table in force, record by record.
//
// Stores, in this order; each is one aligned word, and a crash between any two of them is finished
// by the next write open, which calls the commit again:
//   1. CF_TXN_COMMIT: what is staged will be applied, whatever happens
//   2. for each staged record, live: its base link, then the one store that puts it into its chain,
//      in the place of the record that it replaces; a deletion mark: the one store that takes the
//      record out of its chain
//   3. the staged bucket moves on to the next record. Staged links are never written, so the walk
//      can go on from wherever it was cut
//   4. the record that was replaced or deleted, and the deletion mark, go to the hold list: behind 3,
//      so that nothing the buckets still lead to is ever handed out
//   5. CF_TXN and CF_TXN_COMMIT go in one store: the transaction is over
//   6. MD_TXN is cut; a table rebuild that is still pending is run
// Readers run beside it and see any prefix of the changes. A rebuild that growth inside the
// transaction has put off is run ahead of 1, while the transaction is open as before.
#include "shkv_intf/txn.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include "diag/log.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/guard.h"
#include "shkv_intf/record.h"
#include "shkv_intf/txn_table.h"
#include "shkv_intf/walk.h"

// Where a staged record's key stands in the table in force.
struct base_spot {
    mdn *bucket;
    udn *found; // null: the key is not there
    udn *prev;  // null: found is the first of its chain
    uint32_t found_off;
};

static udn *udn_at(const txn_op *op_p, uint32_t off)
{
    return (udn *)ud_addr(op_p->head, op_p->ud_base, off, op_p->shared_map);
}

static void release(const txn_op *op_p, udn *udn_p, uint32_t off)
{
    op_p->head->putnd((sbm *)op_p->ud_base, udn_p, op_p->head, off);
}

// A walk that fails reads as a key that is not there.
static base_spot find_base(const txn_op *op_p, const udn *rec)
{
    char gather[REC_KEY_MAX];
    int gathered = 0;
    const void *key = (const char *)rec + UDN_HEAD_SZ;
    uint32_t hash, key_len = rec->key_sz;
    shkv_hash_fn fn = op_p->db.rec->hash_fn;
    if (is_vector(op_p->sn)) {
        hash = shkv_hash_udn_key(fn, op_p->ud_base, rec, op_p->head, op_p->shared_map, gather, &gathered);
        key = gathered ? gather : (const char *)rec + VEC_HEAD_SZ;
    } else {
        hash = fn(key, key_len);
    }
    base_spot spot = {};
    spot.bucket = &op_p->db.rec->base[bucket_of(hash, get32(&op_p->db.desc->hashsz))];
    if (!bucket_find_udn(op_p->head, op_p->db.rec->base, spot.bucket, &spot.found, key, &key_len, op_p->ud_base,
                         &spot.prev, 0, nullptr, &spot.found_off, nullptr))
        spot.found = nullptr;
    if (spot.found && !op_p->shared_map)
        spot.found_off = (uint32_t)((char *)spot.found - (char *)op_p->ud_base);
    return spot;
}

// The word that leads to found, or, for a new key, to the chain's first record.
static uint32_t *way_in(const txn_op *op_p, const base_spot *spot_p)
{
    return spot_p->found && spot_p->prev ? chain_link_p(spot_p->prev, op_p->md1) : &spot_p->bucket->first_ptr;
}

static void link_live(const txn_op *op_p, const base_spot *spot_p, udn *rec, uint32_t off)
{
    uint32_t *way_p = way_in(op_p, spot_p);
    if (spot_p->found)
        LOG("%s: found the base node with same key", op_p->name);
    put32(chain_link_p(rec, op_p->md1),
          spot_p->found ? get32(chain_link_p(spot_p->found, op_p->md1)) : get32(way_p));
    // Publish. The record is whole since it was staged, and its base link is stored above. A reader
    // gets the old chain or the new one; the record replaced keeps its link and stays readable.
    // Pairs with get32 in bucket_find_udn.
    put32(way_p, off);
}

static void unlink_deleted(const txn_op *op_p, const base_spot *spot_p)
{
    if (spot_p->found) {
        LOG("%s: found the base node with same key", op_p->name);
        // One store takes the record out; it keeps its own link for readers that stand on it.
        put32(way_in(op_p, spot_p), get32(chain_link_p(spot_p->found, op_p->md1)));
    }
    LOG("%s: found node marked as deleted", op_p->name);
}

// Whether a record's units are to be had without a growth and without the manager's complaint.
static bool units_left(const txn_op *op_p, const udn *rec)
{
    if (!is_vector(op_p->sn))
        return true; // the fixed manager refuses silently
    const sbm *sbm_p = (const sbm *)op_p->ud_base;
    int32_t fresh = (sbm_p->ud_full - sbm_p->dn_tail) / (int32_t)sbm_p->dn_sz;
    return fresh + (int32_t)sbm_p->free_cnt >= (int32_t)rec->unit_cnt;
}

// Key, value, sizes and checksum. false when the units do not hold it, which cannot be.
static bool __attribute__((noinline)) fill_copy(const txn_op *op_p, udn *copy, uint32_t off, const udn *rec)
{
    shkv_head *head = op_p->head;
    void *ud_base = op_p->ud_base;
    bool shared_map = op_p->shared_map;
    copy->key_sz = rec->key_sz;
    copy->val_sz = rec->val_sz;
    if (!is_vector(op_p->sn)) {
        uint32_t len = (uint32_t)rec->key_sz + rec->val_sz;
        memcpy((char *)copy + UDN_HEAD_SZ, (const char *)rec + UDN_HEAD_SZ, len);
    } else {
        char room[REC_VALUE_MAX];
        if (dv_read_quiet(room, REC_KEY_MAX, ud_base, rec, REC_KEY, head, shared_map, 0) != 0 ||
            shkv_dv_write(ud_base, copy, REC_KEY, room, rec->key_sz, head, shared_map, off) != 0 ||
            dv_read_quiet(room, sizeof room, ud_base, rec, REC_VALUE, head, shared_map, 0) != 0 ||
            shkv_dv_write(ud_base, copy, REC_VALUE, room, rec->val_sz, head, shared_map, off) != 0)
            return false;
    }
    copy->cksum = record_cksum(ud_base, copy, head, shared_map);
    return true;
}

// A commit that was cut between 2 and 3 finds the staged record in its chain already, and step 4 will
// put it on the hold list like any record found. So that this does not release a record that is still
// linked, a copy takes its place in the chain first. Cut again, the next resumption finds the copy as
// an ordinary record of the same key, and replaces it. Without space for a copy (false) the record
// stays where it is, in use.
static bool supplant(const txn_op *op_p, const base_spot *spot_p)
{
    udn *rec = spot_p->found;
    if (!units_left(op_p, rec))
        return false;
    sbm *sbm_p = (sbm *)op_p->ud_base;
    uint32_t off = 0;
    udn *copy = (udn *)op_p->head->getnd(sbm_p, op_p->head, (uint32_t)rec->key_sz + rec->val_sz, &off);
    if (!copy) {
        out_of_actual_mem = 0;
        return false;
    }
    if (is_fixed(op_p->sn))
        off = (uint32_t)((char *)copy - (char *)sbm_p);
    if (!fill_copy(op_p, copy, off, rec)) {
        release(op_p, copy, off);
        return false;
    }
    put32(chain_link_p(copy, op_p->md1), get32(chain_link_p(rec, op_p->md1)));
    // Publish: the copy is whole, its link stored above; a reader gets either of two equal records.
    put32(way_in(op_p, spot_p), off);
    return true;
}

// One staged record, the first of its bucket.
static void apply_first(txn_op *op_p, mdn *bucket, uint32_t off)
{
    udn *rec = udn_at(op_p, off);
    uint32_t next = get32(chain_link_p(rec, !op_p->md1));
    if (next)
        __builtin_prefetch(udn_at(op_p, next), 1);
    bool deleted = get8(&rec->nd_flg) & UDN_DELETED;
    base_spot spot = find_base(op_p, rec);
    if (spot.found == rec) { // a resumed commit alone can meet this
        LOG("%s: found the same node", op_p->name);
        if (!deleted && !supplant(op_p, &spot))
            spot.found = nullptr; // nothing has left its chain
    } else if (deleted) {
        unlink_deleted(op_p, &spot);
    } else {
        link_live(op_p, &spot, rec, off);
    }
    put32(&bucket->first_ptr, next);
    if (spot.found)
        release(op_p, spot.found, spot.found_off);
    if (deleted && spot.found != rec) // never one node twice
        release(op_p, rec, off);
    op_p->node_cnt++;
    if (next)
        LOG("%s: go to the next node", op_p->name);
}

// Staged records lie in the order of their adds, buckets in that of their hashes, and what they
// replace anywhere: each would be a miss of its own. So all three are asked for ahead, one after the
// other: the staged record, the bucket of its key in the table in force, the first record there.
#define AHEAD 8u
struct fetch {
    const mdn *buckets[AHEAD]; // of the staged buckets AHEAD to 2 * AHEAD from here on
};

static uint32_t staged_off(const txn_op *op_p, uint32_t bucket)
{
    return bucket < op_p->staged_cnt ? get32(&op_p->staged[bucket].first_ptr) : 0;
}

static void fetch_ahead(const txn_op *op_p, fetch *fetch_p, uint32_t bucket)
{
    const mdn **slot_p = &fetch_p->buckets[bucket % AHEAD];
    uint32_t off;
    if (*slot_p && (off = get32(&(*slot_p)->first_ptr)) != 0)
        __builtin_prefetch(udn_at(op_p, off), 1);
    *slot_p = nullptr;
    if (is_fixed(op_p->sn) && (off = staged_off(op_p, bucket + 2 * AHEAD)) != 0) {
        uint32_t hash = record_hash(op_p->db.rec->hash_fn, op_p->ud_base, udn_at(op_p, off), op_p->head,
                                    op_p->shared_map);
        *slot_p = &op_p->db.rec->base[bucket_of(hash, get32(&op_p->db.desc->hashsz))];
        __builtin_prefetch(*slot_p, 1);
    }
    if ((off = staged_off(op_p, bucket + 3 * AHEAD)) != 0)
        __builtin_prefetch(udn_at(op_p, off), 1);
}

// Whether memory lies behind every page of the table in force.
static bool table_resident(const txn_op *op_p)
{
    unsigned char pages[2048];
    const char *base = (const char *)op_p->db.rec->base;
    for (size_t at = 0, sz = op_p->db.rec->mapped_sz; at < sz; at += sizeof pages * SHKV_PAGE_SIZE) {
        size_t len = sz - at < sizeof pages * SHKV_PAGE_SIZE ? sz - at : sizeof pages * SHKV_PAGE_SIZE;
        if (mincore(const_cast<char *>(base) + at, len, pages) != 0)
            return false;
        for (size_t i = 0; i < (len + SHKV_PAGE_SIZE - 1) / SHKV_PAGE_SIZE; i++)
            if (!(pages[i] & 1))
                return false;
    }
    return true;
}

// Looks at the bucket of every staged key in the table in force, so that its page is there. False when there
// is no memory behind one.
static __attribute__((noinline)) bool touch_buckets(const txn_op *op_p)
{
    GUARD(faulted);
    for (uint32_t i = 0; i < op_p->staged_cnt; i++)
        for (uint32_t off = staged_off(op_p, i); off;) {
            udn *rec = udn_at(op_p, off);
            uint32_t hash = record_hash(op_p->db.rec->hash_fn, op_p->ud_base, rec, op_p->head, op_p->shared_map);
            get32(&op_p->db.rec->base[bucket_of(hash, get32(&op_p->db.desc->hashsz))].first_ptr);
            off = get32(chain_link_p(rec, !op_p->md1));
        }
    return true;
faulted:
    return false;
}

int shkv_txn_commit(int handle, void *)
{
    txn_op op = {};
    bool done;
    int result = txn_op_begin(&op, handle, "shkv_txn_commit", &done);
    if (done)
        return result;
    if (!(op.flg & CF_TXN_COMMIT)) {
        // The rebuild comes first, because the table is too small for the space by now and every
        // record would walk a long chain. A resumed commit has records linked already and leaves it
        // to the end.
        if ((op.flg & (CF_REFILL1 | CF_REFILL2)) && (result = txn_op_rebuild(&op)) != 0)
            return result;
    }
    // Tables are sparse. A page that a full /dev/shm cannot give is met here, where nothing is applied yet, or
    // what a dead writer has begun waits on.
    if (!table_resident(&op) && !touch_buckets(&op))
        return ENOMEM;
    if (!(op.flg & CF_TXN_COMMIT)) {
        // From this store on the transaction will be applied: a write open that finds it goes on here.
        change32(&op.sn->comm_flg, 0, CF_TXN_COMMIT);
    }
    fetch ahead = {};
    for (uint32_t i = 0; i < op.staged_cnt; i++) {
        fetch_ahead(&op, &ahead, i);
        uint32_t off;
        while ((off = get32(&op.staged[i].first_ptr)) != 0)
            apply_first(&op, &op.staged[i], off);
    }
    // Over, with both bits in one store: nobody finds a commit to resume without a transaction.
    change32(&op.sn->comm_flg, CF_TXN | CF_TXN_COMMIT, 0);
    txn_table_drop(&op);
    LOG("%s: committed %d nodes (hashsz:%d)", op.name, op.node_cnt, op.staged_cnt);
    txn_finish_rebuild(op.head, op.closed); // its failure leaves it pending
    return 0;
}
