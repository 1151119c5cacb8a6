// The reshape token of a store: two bits of comm_flg that keep all but one reshaper out.
#pragma once
#include "shkv.h"

// Waits for resh_sem, two seconds at most. 0, or -1 with errno.
int resh_sem_take(supernode *sn);
int resh_sem_give(supernode *sn);

// Takes the token of the service. 1, or 0 with the reason in *err_p.
int token_take(supernode *sn, uint32_t uuid, uint32_t *err_p);
// Gives both tokens back; a failure is reported only.
void token_give(supernode *sn);
