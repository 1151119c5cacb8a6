// The head table, names, the process's limits and start, the robust mutex.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "shkv_intf/head.h"
#include "shkv_intf/kmutex.h"
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
        refuse_post = true;
        EXPECT_EQ(shkv_set_heads(&local), -1);
        refuse_post = false;
        sem_post(&hd_sem);
        EXPECT_EQ(shkv_db_pos_gbl, each.pos);
        EXPECT_EQ(shkv_db_heads[each.freed].access_mode, 0u);
        EXPECT_EQ(shkv_db_heads[each.at].access_mode, each.at == each.freed ? 0u : SHKV_AM_READ);
        for (int handle : {each.at + 1, 31})
            shkv_clear_head(handle);
    }
}

TEST(head, names_are_what_follows_the_first_colon)
{
    const struct { const char *uri; uint32_t max; const char *want; } cases[] = {
        {"a:b/c", 220, "b_c"}, {"/a/b", 220, "_a_b"}, {"a:b:c", 220, "b:c"}, {"x:abcdef", 3, "abc"}, {"", 4, ""}};
    for (const auto &each : cases) {
        char out[224];
        memset(out, '#', sizeof out);
        shkv_uri2dbname(each.uri, out, each.max);
        EXPECT_STREQ(out, each.want);
        EXPECT_EQ(out[each.max + 1], '#');
    }
}

// Runs what in a child; true when it returned true.
template <typename F> static bool in_child(F what)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(what() ? 0 : 1);
    int status = 1;
    waitpid(pid, &status, 0);
    return status == 0;
}

TEST(proc, limits_come_from_the_environment_once)
{
    const rlim_t soft = 1ull << 46; // far beyond what a sanitizer maps
    const struct { const char *env; uint32_t limit; rlim_t more; } cases[] = {
        {nullptr, 0x2000000, 0},         {"0", 0x2000000, 0x2000000},        {"1", 0x400000, 1},
        {"4194305", 0x400001, 0x400001}, {"2147483649", 0x80000000, 0x80000001},
        {"4294967295", 0x80000000, 0xffffffff}};
    for (const auto &each : cases)
        EXPECT_TRUE(in_child([&] {
            rlimit limit = {soft, RLIM_INFINITY};
            setrlimit(RLIMIT_AS, &limit);
            each.env ? setenv("SYSMGR_MMAP_LIMIT", each.env, 1) : unsetenv("SYSMGR_MMAP_LIMIT");
            init_process_limits();
            setenv("SYSMGR_MMAP_LIMIT", "9999999", 1);
            init_process_limits();
            getrlimit(RLIMIT_AS, &limit);
            return shkv_memory_limit_process == each.limit && shkv_max_db_sz == each.limit && limit_inited == 1 &&
                   limit.rlim_cur == soft + each.more && limit.rlim_max == RLIM_INFINITY;
        })) << (each.env ? each.env : "unset");
}

TEST(proc, start_leaves_semaphores_page_size_and_handler)
{
    EXPECT_EQ(shkv_sem_inited, 1);
    EXPECT_EQ(SHKV_PAGE_SIZE, (uint32_t)sysconf(_SC_PAGESIZE));
    EXPECT_EQ(sn_map_sz(), SHKV_PAGE_SIZE + 720u);
    for (const char *round : {"first", "second"}) { // delivered again: the handler unblocks it
        if (sigsetjmp(sigbus_jmp, 0) == 0) {
            shkv_sigbus_handler(SIGUSR1); // not its signal
            raise(SIGBUS);
            FAIL() << round;
        }
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

// The attribute is process-private, and yet the mutex works between processes.
TEST(kmutex, is_handed_on_by_processes_that_live_and_by_those_that_die)
{
    struct shared { pthread_mutex_t mutex; volatile int held; };
    auto *mem = (shared *)mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_EQ(kmutex_init(&mem->mutex), 0);
    for (bool dies : {false, true}) {
        mem->held = 0;
        pid_t pid = fork();
        if (pid == 0) {
            int result = kmutex_lock(&mem->mutex);
            mem->held = 1;
            usleep(50000);
            if (!dies)
                pthread_mutex_unlock(&mem->mutex);
            _exit(result);
        }
        while (!mem->held)
            usleep(1000);
        EXPECT_EQ(kmutex_lock(&mem->mutex), 0); // waits for it
        EXPECT_EQ(pthread_mutex_unlock(&mem->mutex), 0);
        waitpid(pid, nullptr, 0);
    }
    munmap(mem, 4096);
}
