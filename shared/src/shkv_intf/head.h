// The head table: 32 heads, one per open handle. A handle is the index plus one.
#pragma once
#include "shkv.h"

#define HEADS 32

// Deals a free slot, round robin, and fills it from local (all but the iterate cursor).
// The handle, 0 when all are taken, -1 on a semaphore failure.
int shkv_set_heads(const shkv_head *local_p);
void shkv_clear_head(int handle);

// Private state of a handle that is not part of the exported head. Words with a table's name
// belong to that md_rec; a slot's state is reset by shkv_set_heads.
struct head_priv {
    uint64_t recip[3];        // for MD1, MD2, MD_TXN: ceil(2^64 / hashsz), see bucket_of
    uint32_t recip_hashsz[3]; // the hashsz that recip was made for; 0 when not made
    uint32_t wprot;           // non-zero: this process's own UD mapping is read-only now
    uint32_t intrm_put_cnt;   // writes of a reshape since this writer last saw its list empty
    uint32_t resh_end;        // RESH_*: how far a reshaper's handle has come with its end (mover.h)
};
extern head_priv head_privs[HEADS];

// Handle of a head in the table, or 0 for a local one.
static inline int handle_of(const shkv_head *head)
{
    return head >= shkv_db_heads && head < shkv_db_heads + HEADS ? (int)(head - shkv_db_heads) + 1 : 0;
}
