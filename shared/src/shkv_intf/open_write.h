// The write open: takes the writer's place and settles what a dead writer left behind.
#pragma once
#include "shkv.h"

int shkv_open_write(const char *dbname, uint32_t uuid, uint64_t hashfn, uint32_t access_mode,
                    uint32_t head_mode, uint32_t *errptr);
