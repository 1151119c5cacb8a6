// While a rebuild is under way, a record of a bucket that has moved stands in both tables: these
// keep the second one true.
#pragma once
#include "shkv.h"

// A new record new_p at new_off, in the place of old_p at old_off (null and 0 for a new key).
void shkv_rehash_add_node(shkv_head *head, uint32_t flg, void *ud_base, udn *new_p, uint32_t new_off, udn *old_p,
                          uint32_t old_off);
void shkv_rehash_del_node(shkv_head *head, uint32_t flg, void *ud_base, udn *found_p, uint32_t found_off);
