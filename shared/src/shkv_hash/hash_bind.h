// Binds a head to the hash function that a table was made with.
#pragma once
#include "shkv.h"

// fn_arg: 0 what the store records, 1 to 11 a built-in, else a caller's function, which must give
// user_hash for the test string. 1, or 0 with EINVAL in *err_p.
int set_hdmd_hash(uint64_t fn_arg, uint32_t user_hash, uint16_t hashfn, shkv_hash_fn *fn_out, const char *name,
                  uint32_t *err_p);
