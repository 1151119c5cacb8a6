// The read open, and the search for a head that can be used again.
#pragma once
#include "shkv.h"

int shkv_open_read(const char *dbname, uint32_t uuid, uint64_t hashfn, uint32_t access_mode, uint32_t head_mode,
                   uint32_t *errptr);
// A handle to use again, or 0; *share_out may become the copy of a head whose ud_maps a read handle is
// to use (its sn stays null otherwise). That head's tables are then kept, whatever is closed, until
// unpin_shared_maps.
int shkv_open_check_existing_heads(const char *dbname, uint32_t access_mode, shkv_head *share_out,
                                   uint32_t *errptr);
void unpin_shared_maps();

// True when another head of this process uses map_p, or a read open is about to. Under hd_sem.
bool ud_map_in_use(const ud_map *map_p, const shkv_head *except_p);
