// Takes objects of a store away: names, mappings, descriptors.
#pragma once
#include "shkv.h"

// An MD object or the supernode: closes, unlinks, unmaps. Under obj_sem, taken inside.
void shkv_del_shm_obj(shkv_head *head, int obj_t);

// Unmaps what a ud_map holds: every entry of a shared mapping, else entry 0 with its mapped_sz.
// Entries are cleared, so a second release finds nothing.
void release_ud_maps(shkv_head *head, ud_map *map_p, bool shared_map);

// Closes the descriptor of a ud_map and frees it; *map_pp becomes null.
void free_ud_map(ud_map **map_pp);

// Unmaps the three MD objects and closes their descriptors.
void unmap_mds(shkv_head *head);
void close_mds(const shkv_head *head);
