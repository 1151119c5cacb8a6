// What one process keeps once, and how the library starts. Nothing here is shared memory.
#include "shkv_intf/proc.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "diag/log.h"
#include "shkv_intf/mapping.h"

#define LIMIT_MIN 0x400000u
#define LIMIT_MAX 0x80000000u

sem_t hd_sem, obj_sem, open_sem;
uint16_t shkv_sem_inited;
uint32_t SHKV_PAGE_SIZE = 4096;
uint32_t shkv_memory_limit_process = SHKV_DEF_LIMIT;
uint32_t shkv_max_db_sz = SHKV_DEF_LIMIT;
uint32_t limit_inited;
uint64_t uuid_mem_used;
uint32_t refill_tm_limit;
uint64_t refill_tm_start;

// One target and one flag for the whole process, not per thread: the last guard that was armed
// is the one that a fault reaches.
sigjmp_buf sigbus_jmp;
uint32_t out_of_actual_mem;

int sem_take(sem_t *sem_p)
{
    int result;
    while ((result = sem_wait(sem_p)) == -1 && errno == EINTR) {
    }
    return result;
}

int sem_give(sem_t *sem_p)
{
    return sem_post(sem_p);
}

uint32_t my_tid()
{
    return (uint32_t)syscall(SYS_gettid);
}

// The guards are armed without the signal mask, so the handler itself makes SIGBUS deliverable
// again before it leaves.
void shkv_sigbus_handler(int sig)
{
    if (sig != SIGBUS)
        return;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGBUS);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    siglongjmp(sigbus_jmp, 1);
}

// A fork copies what other threads hold, and no thread that would give it back.
static void before_fork()
{
    sem_take(&open_sem);
    sem_take(&obj_sem);
    sem_take(&hd_sem);
    mapping_hold();
}

static void behind_fork() // in parent and child
{
    mapping_let_go();
    sem_give(&hd_sem);
    sem_give(&obj_sem);
    sem_give(&open_sem);
}

__attribute__((constructor)) void shkv_init(void)
{
    if (init_cpu_hz() != 1)
        puts("timer lib: could not get cpu_hz");
    if (!shkv_sem_inited) {
        if (sem_init(&hd_sem, 0, 1) == -1 || sem_init(&obj_sem, 0, 1) == -1 || sem_init(&open_sem, 0, 1) == -1) {
            LOG("sem init failed,errno:%d", errno);
            return;
        }
        shkv_sem_inited = 1;
        pthread_atfork(before_fork, behind_fork, behind_fork);
    }
    SHKV_PAGE_SIZE = (uint32_t)sysconf(_SC_PAGESIZE);
    signal(SIGBUS, shkv_sigbus_handler);
}

static void set_limits(uint64_t limit)
{
    uint32_t held = limit < LIMIT_MIN ? LIMIT_MIN : limit > LIMIT_MAX ? LIMIT_MAX : (uint32_t)limit;
    shkv_memory_limit_process = held;
    shkv_max_db_sz = held;
}

static rlim_t raised(rlim_t limit, uint64_t by)
{
    return by < RLIM_INFINITY - limit ? limit + by : RLIM_INFINITY;
}

// Stores come on top of what the service was allowed to map for itself.
static void raise_address_space(uint64_t by)
{
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0)
        return;
    rlim_t old_soft = limit.rlim_cur;
    limit.rlim_cur = raised(limit.rlim_cur, by);
    limit.rlim_max = raised(limit.rlim_max, by);
    LOG("increase rlim %lu to %lu", (unsigned long)old_soft, (unsigned long)limit.rlim_cur);
    setrlimit(RLIMIT_AS, &limit); // a refusal changes nothing for the store
}

static void work_out_limits()
{
    if (sysmgr_mmap_limit_get) {
        uint32_t limit = sysmgr_mmap_limit_get();
        set_limits(limit ? limit : SHKV_DEF_LIMIT);
        return;
    }
    const char *env_p = getenv("SYSMGR_MMAP_LIMIT");
    if (!env_p)
        return;
    uint64_t limit = strtoull(env_p, nullptr, 10);
    if (limit == 0)
        limit = SHKV_DEF_LIMIT;
    raise_address_space(limit);
    set_limits(limit);
}

// Two threads may make their first stores at the same time; the address space is raised once.
void init_process_limits()
{
    static pthread_mutex_t once = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&once);
    if (!limit_inited) {
        work_out_limits();
        limit_inited = 1;
    }
    pthread_mutex_unlock(&once);
}
