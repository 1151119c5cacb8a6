// The walk along a bucket's chain: finds the record of a key without a lock, beside the writer.
#pragma once
#include "shkv.h"
#include "shkv_intf/word.h"

// 1 when a record with an equal key was found. prev_out given: the writer, one look; null: a
// reader, up to 12 walks of a miss. limit: mapped size of the UD, 0 for no check. err_out: ENOMEM
// on a boundary or SIGBUS (out_of_actual_mem is set then, too).
int bucket_find_udn(shkv_head *head, mdn *md_base, mdn *bucket, udn **udn_out, const void *key,
                    const uint32_t *key_len, void *ud_base, udn **prev_out, uint32_t limit, void *ring_p,
                    uint32_t *off_out, uint32_t *err_out);

// One search of one bucket: what it is given, and where its last walk stands.
struct chain_walk {
    shkv_head *head;
    const md_rec *rec; // the table; tells which link its chains run through
    const mdn *bucket;
    char *ud_base;
    const void *key;
    uint32_t key_len;
    uint32_t limit; // bytes of the UD that are mapped; 0: the writer, who checks no offset
    void *ring_p;
    bool vector;
    bool shared_map;
    bool keep_err; // no err_out was given: a broken key chain reads as an equal key

    udn *udn_p; // the record that the walk stands on; null at a chain's end
    udn *prev_p;
    uint32_t off;   // of udn_p
    uint32_t sizes; // key_sz, and val_sz in the upper half, of udn_p, read once
    uint32_t marks; // unit_cnt, nd_flg and cksum of udn_p, read once
    uint32_t err;
    uint32_t steps; // records and chain ends, over all walks
    uint32_t seen;  // mix of the offsets that the last walk met, to tell two walks apart
};

// Fills in the given half. rec is one of the head's tables; key_len bytes at key.
void walk_init(chain_walk *walk_p, shkv_head *head, const md_rec *rec, const mdn *bucket, void *ud_base,
               const void *key, uint32_t key_len, uint32_t limit, void *ring_p);

// A reader's search. 1: found, 0: a miss, or a failure with ENOMEM in walk_p->err.
int walk_find(chain_walk *walk_p);

// Whether the record that the walk found is reachable now and its head unchanged. Asked after an
// answer was taken, it vouches for the answer: see walk.cc for what it can and cannot tell. Under
// the caller's guard.
bool walk_holds(const chain_walk *walk_p);

// The two words of a record's head that do not change while it is linked.
static inline uint32_t udn_sizes(const udn *udn_p)
{
    return get32((const uint32_t *)(const void *)&udn_p->key_sz);
}

static inline uint32_t udn_marks(const udn *udn_p)
{
    return get32((const uint32_t *)(const void *)&udn_p->unit_cnt);
}
#define MARKS_DELETED (UDN_DELETED << 16) // nd_flg and cksum as they lie in udn_marks
#define MARKS_CKSUM(marks) ((uint8_t)((marks) >> 24))

// How many walks a miss takes at least, and what tells two walks apart.
#define WALKS 12u // of a miss
#define STEPS 12u // more than these, and two walks are enough

static inline bool walk_enough(uint32_t walks, uint32_t steps)
{
    return (walks > 1 && steps > STEPS) || walks >= WALKS;
}

static inline uint32_t walk_mix(uint32_t seen, uint32_t off)
{
    return (seen << 5 | seen >> 27) * 0x9e3779b1u + off;
}
