// When a write that holds no lock is over.
#pragma once
#include "shkv.h"

// Returns when no thread of the writer's process can still be in a write that began before the call.
// The caller has published what makes later ones take wr_ksem, and holds it.
void wait_for_writes_to_end(const supernode *sn);
