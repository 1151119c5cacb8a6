// Applies the interim list to the tables, and takes the writes of a reshape. For the holder of
// wr_ksem.
#pragma once
#include "shkv.h"
#include "reshape/tables.h"

// Until the list holds its dead node alone. 0, or the value of the record that could not be applied:
// it and all behind it stay on the list.
int shkv_interimlst_replay(const resh_tables *t_p);

// An ordinary write during a reshape: op is INTRM_ADD or INTRM_DEL. flg: comm_flg, read under
// wr_ksem.
int reshape_write(shkv_head *head, uint32_t flg, const shkv_buf *key, const shkv_buf *value, uint32_t op);
