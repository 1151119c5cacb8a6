// Maps the objects of an existing store for a head. prot is the mmap value: 1 reader, 3 writer.
#pragma once
#include "shkv.h"

supernode *shkv_open_sn(const char *path, uint32_t uuid, int prot, uint32_t *err_p);
int shkv_reopen_mdobj(supernode *sn, shkv_head *head, int obj_t, int prot, shkv_head *share_p, uint32_t *err_p,
                      void *ring_p);
int shkv_open_mdudobj(supernode *sn, shkv_head *head, int prot, shkv_head *share_p, uint32_t *err_p,
                      void *ring_p);
