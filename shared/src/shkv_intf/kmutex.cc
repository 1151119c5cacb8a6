// The robust mutex of a supernode and of its trace ring.
//
// The attribute stays process-private although the mutex lies in shared memory: the C library
// wakes the waiters of a robust mutex across processes either way. Intended.
#include "shkv_intf/kmutex.h"

#include <errno.h>

int kmutex_init(pthread_mutex_t *mutex)
{
    pthread_mutexattr_t attr;
    int error = pthread_mutexattr_init(&attr);
    if (error)
        return error;
    if ((error = pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST)))
        return error;
    error = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return error;
}

// An owner that died leaves the lock to us and the data as they were: whatever it had half done is
// for the caller to judge.
int kmutex_lock(pthread_mutex_t *mutex)
{
    int error = pthread_mutex_lock(mutex);
    return error == EOWNERDEAD ? pthread_mutex_consistent(mutex) : error;
}
