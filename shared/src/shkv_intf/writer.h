// What add and delete do alike on their way in: the handle, and the tables that a snapshot names.
#pragma once
#include "shkv.h"
#include "shkv_intf/head.h"

// The head of an open handle, or null after check_shkv_hdl has told why.
static inline shkv_head *writer_head(int handle)
{
    if (handle >= 1 && handle <= HEADS) {
        shkv_head *head = &shkv_db_heads[handle - 1];
        if (head->sn && head->access_mode)
            return head;
    }
    return check_shkv_hdl(handle);
}

// The tables that comm_flg, read once, puts in force. Outside a reshape there is no second one.
struct writer_tables {
    active_db pri, sec;
    bool two_ud; // the second table has a record space of its own
};

static inline void tables_of(writer_tables *to, shkv_head *head, uint32_t flg)
{
    *to = {};
    to->two_ud = get_active_db(&to->pri, &to->sec, head, flg);
}

// The record space behind the second table.
static inline ud_map *second_ud(const writer_tables *tables_p)
{
    return tables_p->two_ud ? tables_p->sec.ud : tables_p->pri.ud;
}

// No result of a caller's: the store is in a reshape, and the write has to hold wr_ksem.
enum { WRITE_BEHIND_LOCK = -1 };

// After a write without a lock, whatever it came to: true when it was put off for the lock, or done
// while a reshape began and may have moved the record that it looked for.
static inline bool write_goes_on_locked(const supernode *sn, int result)
{
    return result == WRITE_BEHIND_LOCK || (get32(&sn->comm_flg) & CF_RESHAPE);
}

// Null for a space that this process has not got, or lost in a failed growth.
static inline void *base_of(const ud_map *ud)
{
    return ud ? ud->map[0] : nullptr;
}

// The bucket, or null when this process's mapping of the table does not reach it.
static inline mdn *bucket_at(const md_rec *rec, uint32_t idx)
{
    return rec->base && idx < rec->mapped_sz / sizeof(mdn) ? rec->base + idx : nullptr;
}
