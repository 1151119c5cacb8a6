// The head table: 32 heads, one per open handle. A handle is the index plus one.
#pragma once
#include <stddef.h>
#include "shkv.h"

#define HEADS 32

// Deals a free slot, round robin, and fills it from local (all but the iterate cursor).
// The handle, 0 when all are taken, -1 on a semaphore failure.
int shkv_set_heads(const shkv_head *local_p);
void shkv_clear_head(int handle);

// What one handle knows of the tables in force, so that a lookup need not ask again: good while
// comm_flg and the two versions are what they were (quick.h). Never changed once it was in force,
// for other threads may go by it. What every look needs lies in one line of the cache.
struct alignas(64) quick_view {
    uint32_t flg;       // the snapshot it was made from,
    uint32_t flg_mask;  // and the bits of it that count
    uint32_t md_ver;    // obj_ver of the table
    uint32_t ud_ver;    // obj_ver of the record space
    uint16_t md_ver_at; // where these two lie in the supernode
    uint16_t ud_ver_at;
    uint8_t link_at;  // where in a record the table's link lies
    uint8_t own_hash; // not the default function
    uint8_t vector;   // the form of the store's records
    uint8_t writes;   // quick writes are served: the one writer of a fixed store
    uint32_t hashsz;
    uint32_t limit; // bytes of the record space that are mapped
    uint64_t recip; // ceil(2^64 / hashsz)
    const mdn *md_base;
    char *ud_base;
    const supernode *sn;
    shkv_hash_fn hash_fn;
};

static_assert(offsetof(quick_view, hash_fn) == 64);
// Of a handle that has none: its words are never what it says, and it has one empty bucket.
extern const quick_view no_view;

// Private state of a handle that is not part of the exported head. A slot's state is reset by
// shkv_set_heads.
struct alignas(64) head_priv {
    const quick_view *view_p = &no_view; // in force, or the last that was
    uint32_t view_busy;                  // a thread makes a view
    uint32_t view_cnt;                   // views made
    uint32_t wprot;                      // non-zero: this process's own UD mapping is read-only now
    uint32_t intrm_put_cnt;              // writes of a reshape since this writer last saw its list empty
    uint32_t resh_end;                   // RESH_*: how far a reshaper's handle has come with its end (mover.h)
};
extern head_priv head_privs[HEADS];

// Takes the handle's view away: behind the exchange of a mapping, and before one goes for good. Pairs with
// publish_view, which looks at the mappings behind its store.
void forget_view(const shkv_head *head);

// Handle of a head in the table, or 0 for a local one.
static inline int handle_of(const shkv_head *head)
{
    return head >= shkv_db_heads && head < shkv_db_heads + HEADS ? (int)(head - shkv_db_heads) + 1 : 0;
}
