// The end of a reshape, carried out by the close of the reshaper's handle.
#pragma once
#include "shkv.h"

// Switches to the new tables, waits a second for readers, cuts the old objects. 0 or the value.
int reshape_end(shkv_head *head, int handle);
// Gives the reshape tokens back; a failure is reported only.
void reshape_release_token(shkv_head *head);
