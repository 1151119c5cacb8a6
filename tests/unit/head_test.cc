// The head table, the process's limits, a wait.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include "shkv_intf/head.h"
#include "shkv_intf/proc.h"

static supernode some_sn;

static shkv_head open_head(uint32_t mode)
{
    shkv_head head = {};
    head.sn = &some_sn, head.access_mode = mode, head.iter_off = 99, head.map0_sz = 5;
    return head;
}

TEST(head, slots_are_dealt_round_robin)
{
    shkv_db_pos_gbl = 30;
    const shkv_head local = open_head(SHKV_AM_READ);
    shkv_db_heads[30].iter_off = 7;
    head_privs[30].wprot = 1;
    EXPECT_EQ(shkv_set_heads(&local), 31);
    EXPECT_EQ(shkv_db_heads[30].iter_off, 7u); // the cursor is iterate's
    EXPECT_EQ(shkv_db_heads[30].open_tid, (uint32_t)gettid());
    EXPECT_EQ(head_privs[30].wprot, 0u);
    EXPECT_EQ(shkv_set_heads(&local), 32);
    EXPECT_EQ(shkv_db_pos_gbl, 0);
    for (int handle = 1; handle <= 30; handle++)
        EXPECT_EQ(shkv_set_heads(&local), handle);
    EXPECT_EQ(shkv_set_heads(&local), 0); // all taken
    shkv_clear_head(5);
    shkv_clear_head(3);
    shkv_db_pos_gbl = 3;
    EXPECT_EQ(shkv_set_heads(&local), 5);
    EXPECT_EQ(shkv_set_heads(&local), 3); // the search walks all the way round
    for (int handle = -1; handle <= 33; handle++) {
        EXPECT_EQ(check_shkv_hdl(handle), handle >= 1 && handle <= 32 ? &shkv_db_heads[handle - 1] : nullptr);
        shkv_clear_head(handle);
        EXPECT_EQ(check_shkv_hdl(handle), nullptr);
    }
    EXPECT_EQ(shkv_db_heads[4].map0_sz, 0u);
    EXPECT_EQ(handle_of(&shkv_db_heads[31]), 32);
    EXPECT_EQ(handle_of(&local), 0);
}

// Stands in for the C library's, so that a post can be refused.
static bool refuse_post;
extern "C" int sem_post(sem_t *sem_p) noexcept
{
    static const auto real = (int (*)(sem_t *))dlsym(RTLD_NEXT, "sem_post");
    return refuse_post ? -1 : real(sem_p);
}

TEST(head, a_failed_post_takes_the_slot_back_but_at_the_wrap_slot_30)
{
    const struct { int at, freed, pos; } cases[] = {{10, 10, 10}, {31, 30, 30}};
    for (const auto &each : cases) {
        shkv_db_pos_gbl = (uint16_t)each.at;
        shkv_db_heads[30].access_mode = SHKV_AM_READ;
        const shkv_head local = open_head(SHKV_AM_READ);
        const quick_view in_force = {};
        head_privs[each.freed].view_p = &in_force;
        refuse_post = true;
        EXPECT_EQ(shkv_set_heads(&local), -1);
        refuse_post = false;
        sem_post(&hd_sem);
        EXPECT_EQ(shkv_db_pos_gbl, each.pos);
        EXPECT_EQ(shkv_db_heads[each.freed].access_mode, 0u);
        EXPECT_EQ(head_privs[each.freed].view_p, &no_view);
        EXPECT_EQ(shkv_db_heads[each.at].access_mode, each.at == each.freed ? 0u : SHKV_AM_READ);
        for (int handle : {each.at + 1, 31})
            shkv_clear_head(handle);
    }
}

TEST(proc, limits_come_from_the_environment_once)
{
    const rlim_t soft = 1ull << 46; // far beyond what a sanitizer maps
    const struct { const char *env; uint32_t limit; rlim_t more; } cases[] = {
        {nullptr, 0x2000000, 0}, {"0", 0x2000000, 0x2000000}, {"1", 0x400000, 1}, {"2147483649", 0x80000000, 0x80000001}};
    for (const auto &each : cases) {
        rlimit limit = {soft, RLIM_INFINITY};
        setrlimit(RLIMIT_AS, &limit);
        limit_inited = 0;
        each.env ? setenv("SYSMGR_MMAP_LIMIT", each.env, 1) : unsetenv("SYSMGR_MMAP_LIMIT");
        init_process_limits();
        setenv("SYSMGR_MMAP_LIMIT", "9999999", 1);
        init_process_limits();
        getrlimit(RLIMIT_AS, &limit);
        EXPECT_TRUE(shkv_memory_limit_process == each.limit && shkv_max_db_sz == each.limit) << each.limit;
        EXPECT_TRUE(limit.rlim_cur == soft + each.more && limit.rlim_max == RLIM_INFINITY) << each.limit;
    }
}

TEST(proc, a_wait_goes_on_after_a_signal)
{
    static sem_t sem;
    static volatile int ticks;
    sem_init(&sem, 0, 0);
    struct sigaction act = {}; // no SA_RESTART
    act.sa_handler = [](int) {
        ticks = ticks + 1;
        if (ticks == 2)
            sem_post(&sem);
    };
    sigaction(SIGALRM, &act, nullptr);
    const itimerval every = {{0, 20000}, {0, 20000}}, off = {};
    setitimer(ITIMER_REAL, &every, nullptr);
    EXPECT_EQ(sem_take(&sem), 0);
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GE(ticks, 2);
}
