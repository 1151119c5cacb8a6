// Binds a head to a store's hash functions and record allocator.
#pragma once
#include "shkv.h"

// old_fn and new_fn: hash arguments for the old and the new table of a reshape; else not read.
int set_hdmd_hashes(uint32_t flg, uint32_t access_mode, supernode *sn, uint64_t hashfn, uint64_t old_fn,
                    uint64_t new_fn, void *ring_p, shkv_head *head, const char *name, uint32_t *err_p);
int set_hdmd_mm(shkv_head *head, supernode *sn, void *ring_p, uint32_t *err_p);
