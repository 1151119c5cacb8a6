// The walk along a bucket's chain.
#pragma once
#include "shkv.h"

// 1 when a record with an equal key was found. prev_out given: the writer, one look; null: a
// reader, up to 12 walks of a miss. limit: mapped size of the UD, 0 for no check. err_out: ENOMEM
// on a boundary or SIGBUS (out_of_actual_mem is set then, too).
int bucket_find_udn(shkv_head *head, mdn *md_base, mdn *bucket, udn **udn_out, const void *key,
                    const uint32_t *key_len, void *ud_base, udn **prev_out, uint32_t limit, void *ring_p,
                    uint32_t *off_out, uint32_t *err_out);
