// The read open, and the search for a head that can be used again.
#pragma once
#include "shkv.h"

int shkv_open_read(const char *dbname, uint32_t uuid, uint64_t hashfn, uint32_t access_mode, uint32_t head_mode,
                   uint32_t *errptr);
int shkv_open_check_existing_heads(const char *dbname, uint32_t access_mode, shkv_head **share_out,
                                   uint32_t *errptr);
