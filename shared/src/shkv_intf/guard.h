// The SIGBUS guard on a reader's path. A shared object is a sparse file: a page that the system
// cannot supply, or one that was cut off, faults at the first touch, and the handler jumps to the
// place that was armed last in this process.
//
// A function that arms the guard is small, and what it does after coming back looks only at its
// parameters, at memory behind them and at globals: registers and spilled locals are those of the
// moment of arming. The armed place dies with the function, so all guarded loads lie inside it.
#pragma once
#include "shkv.h"

// False when armed, true when a fault has come back here.
#define GUARD_FAULTED() (sigsetjmp(sigbus_jmp, 0) != 0)
