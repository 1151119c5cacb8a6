// What one process keeps once: semaphores, limits, page size, the refill clock, the SIGBUS guard.
// (The exported words, shkv_init and shkv_sigbus_handler are declared in shkv.h.)
#pragma once
#include <semaphore.h>
#include <stddef.h>
#include "shkv.h"

extern sem_t hd_sem;   // guards the head table; "header sem" in messages
extern sem_t obj_sem;  // all object work of this process, and uuid_mem_used; "db shkv semaphore"
extern sem_t open_sem; // whole read opens; taken before the other two
// hd_sem and obj_sem are never held together.

extern uint32_t limit_inited;    // 1 once the limits are worked out
extern uint64_t uuid_mem_used;   // bytes that this process's service holds in stores; obj_sem
extern uint32_t refill_tm_limit; // non-zero: a refill looks at the clock
extern uint64_t refill_tm_start; // cycles at the start of the timed work

#define SHKV_DEF_LIMIT 0x2000000u

// Wait and post. A wait that a signal cut short goes on. 0, or -1 with errno.
int sem_take(sem_t *sem_p);
int sem_give(sem_t *sem_p);

uint32_t my_tid(); // kernel thread id

// Works out shkv_memory_limit_process and shkv_max_db_sz at the first create of a process.
void init_process_limits();

// What a mapping of a supernode covers: the record, then the ring's page as far as the file goes.
static inline size_t sn_map_sz()
{
    return (size_t)SHKV_PAGE_SIZE + SHKV_SN_SIZE;
}
