// Replay of a batch's undo log into its store. (shkv_start_rollback is in shkv.h.)
#pragma once
#include "shkv.h"

// Replays the log; leaves it and the store's mark alone. 0 or an error.
int shkv_iodb_rollbk(int handle, int iodb_handle);

#define SHKV_IODB_NAME_MAX 242u
// Name of the log store. out holds SHKV_IODB_NAME_MAX bytes.
void iodb_name(char *out, const supernode *sn);
