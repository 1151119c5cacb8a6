// The object MD_TXN, and what commit and abort have in common: finding the staged buckets in the
// beginning, taking the object away at the end.
#pragma once
#include "shkv.h"
#include "shkv_intf/word.h"

// Sizes, clears and maps MD_TXN for hashsz buckets. 0; the errno of a failed ftruncate; ENOMEM.
int txn_table_make(shkv_head *head, uint32_t hashsz);

// The end of a transaction that is being applied or dropped.
struct txn_op {
    const char *name; // the operation's, in messages
    shkv_head *head;
    supernode *sn;
    uint32_t flg;        // comm_flg at the start
    bool md1;            // MD1 is in force, so staged chains run through md2_next; else the reverse
    bool shared_map;
    bool closed;         // the record space was write-protected in this process
    active_db db;        // table and record space in force
    void *ud_base;
    mdn *staged;         // MD_TXN
    uint32_t staged_cnt; // buckets
    uint32_t node_cnt;   // records dealt with
};

// Fills op_p. *done when there is nothing to do: no transaction is open, or the result is not 0.
int txn_op_begin(txn_op *op_p, int handle, const char *name, bool *done);

// After comm_flg says that the transaction is over: takes MD_TXN away.
void txn_table_drop(const txn_op *op_p);

// Whether this handle maps the store for writing.
static inline bool txn_may_store(const shkv_head *head)
{
    return head->access_mode & (SHKV_AM_WRITE | SHKV_AM_RESHAPE);
}

// Finishes a table rebuild that is pending, without a time limit, and closes the record space again
// when closed says that it was. 0 also when none is pending.
int txn_finish_rebuild(shkv_head *head, bool closed);

// The same inside an open transaction of which nothing has been applied yet. Finds the tables anew.
int txn_op_rebuild(txn_op *op_p);
