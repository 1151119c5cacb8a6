// Keeps a process's mappings in step with what other processes have done to the store.
#pragma once
#include "shkv.h"
#include "shkv_intf/word.h"

int shkv_remap_mdobj(shkv_head *head, int obj_t, int prot, uint32_t *err_p);

// The slow part: remaps what differs from the snapshot's objects. 0, or an errno-style value.
int remap_stale(shkv_head *head, uint32_t flg, int handle, int prot, void *ring_p);

// The check on the way into every operation: four compares when all is in step.
int check_hdmd_remap(shkv_head *head, uint32_t flg, int handle, int prot, void *ring_p);
