// shkv_add and its kin are exported and declared in shkv.h.
#pragma once
#include "shkv.h"

// A delete that is staged in a transaction: __shkv_add of mode 1. locked: the caller holds wr_ksem.
int add_tombstone(int handle, const shkv_buf *key, bool locked);
