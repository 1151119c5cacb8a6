// Finishes the growth of a record space that a writer died in.
#pragma once
#include "shkv.h"

// Makes every process map the record space in force anew: a dead writer's last size may have come
// without its version.
void raise_version(supernode *sn);

// For the writer that has just taken the place of a dead one; head is mapped and not yet in use.
// flg: the snapshot of comm_flg. 1, or 0 with the reason in *err_p.
int recover_growth(shkv_head *head, supernode *sn, uint32_t flg, uint32_t *err_p);
