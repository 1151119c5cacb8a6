// The end of a reshape, carried out by the close of the reshaper's handle.
#pragma once
#include "shkv.h"

// Moves what is left, switches to the new tables, waits a second for readers, cuts the old objects.
// When something cannot be moved, the same the other way round: the old tables are made whole, and
// the new objects are cut. 0, or the value with which the close returns, the handle still open:
// EINVAL also when neither table can take everything; the reshape then goes on standing.
int reshape_end(shkv_head *head, int handle);
// Gives the reshape tokens back; a failure is reported only.
void reshape_release_token(shkv_head *head);
