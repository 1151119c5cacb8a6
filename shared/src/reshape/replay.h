// Applies the interim list to the tables.
#pragma once
#include "shkv.h"

void shkv_interimlst_replay(int handle, shkv_head *head, void *ud);
