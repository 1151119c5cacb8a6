// Creates an MD or UD object of a store that is being made. 1, or 0 with the reason in *err_p.
#pragma once
#include "shkv.h"

int shkv_get_mu_obj(const char *path, supernode *sn, shkv_head *head, int obj_t, uint32_t *err_p, void *ring_p);
