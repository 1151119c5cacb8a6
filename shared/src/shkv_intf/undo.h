// Replay of a batch's undo log into its store. (shkv_start_rollback is in shkv.h.)
#pragma once
#include "shkv.h"

int shkv_iodb_rollbk(int handle, int iodb_handle);
