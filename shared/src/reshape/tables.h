// The two tables of a reshape, as the holder of wr_ksem changes them.
//
// Every key stands in one of the two, or for the length of one step in both; then the new table's
// record is the same or the newer. So the new table is stored to first and the old one second, and
// a reader, which looks in the old one first, finds a record at every moment.
#pragma once
#include "shkv.h"

struct resh_side {
    const md_desc *desc;
    md_rec *rec;
    ud_map *ud;
};

struct resh_tables {
    shkv_head *head;
    resh_side from, to;
    bool one_space; // both tables lie over the same record space
};

// What the snapshot names. False while this head cannot use both: not mapped, or a hash function of
// the caller's that it does not know.
bool resh_tables_of(resh_tables *out_p, shkv_head *head, uint32_t flg);
// The space that holds the interim list.
void *resh_list_space(const resh_tables *t_p);

// All: 0, ENOMEM without space or memory (nothing has changed), EINVAL for sizes that no record has.
// Stores the record in the new table and takes its key out of the old one.
int resh_store(const resh_tables *t_p, const shkv_buf *key, const shkv_buf *value);
// Takes the key out of both; ENOENT when neither had it.
int resh_remove(const resh_tables *t_p, const shkv_buf *key);
// Brings the old table's record into the new one. What the new one has already is newer and stays.
// ENOENT when the old table does not lead to the key.
int resh_move(const resh_tables *t_p, const shkv_buf *key, const shkv_buf *value);

// For a reshape that is given up: the old table is made whole again beside the new one, which is
// left as it is.
int resh_restore_all(const resh_tables *t_p);
int resh_restore(const resh_tables *t_p, const shkv_buf *key, const shkv_buf *value);
int resh_restore_removal(const resh_tables *t_p, const shkv_buf *key);
