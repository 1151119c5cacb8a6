// The robust mutex of wr_ksem and the trace ring: kmutex_init and kmutex_lock are exported and
// declared in shkv.h. Unlocking is plain pthread_mutex_unlock.
#pragma once
#include "shkv.h"
