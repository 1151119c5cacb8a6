// The robust mutex of wr_ksem and the trace ring: kmutex_init and kmutex_lock are exported and
// declared in shkv.h. Unlocking is plain pthread_mutex_unlock.
#pragma once
#include "shkv.h"

// True while a thread sleeps on the lock that the caller holds. The first word of a robust mutex is
// the kernel's futex word, which has a bit for this. A wrong answer costs fairness, nothing else.
static inline bool kmutex_wanted(const pthread_mutex_t *mutex)
{
    return (uint32_t)__atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED) & 0x80000000u;
}
