#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/kv.h"

namespace {

std::string key_no(unsigned i)
{
    return "k" + std::to_string(i);
}

// What the processes of a test tell one another.
struct board {
    volatile uint32_t committed; // keys 0 to this less one are in the store
    volatile uint32_t started, done;
};

board *make_board()
{
    return (board *)mmap(nullptr, sizeof(board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
}

template <typename F> pid_t start_child(F what)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0)
        _exit(what());
    return pid;
}

int end_of(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

uint32_t next_random(uint32_t *state_p)
{
    *state_p ^= *state_p << 13;
    *state_p ^= *state_p >> 17;
    return *state_p ^= *state_p << 5;
}

} // namespace

// Readers that opened the store before its first growth look for keys that are committed, all the
// while: no miss and no error, through every growth, rebuild and flip.
TEST(growth, readers_find_every_committed_key_while_the_store_grows)
{
    const struct {
        const char *name;
        shkv_params params;
        uint32_t to;
    } kinds[] = {{"grow_fixed", {16, 16, 1000, CONF_FIXEDMM, 0}, 300000},
                 {"grow_vector", {0, 0, 1000, CONF_VECTORMM, 0}, 100000},
                 {"grow_shmap", {0, 0, 1000, CONF_VECTORMM | CONF_SHMAP, 0}, 100000}};
    for (const auto &kind : kinds) {
        SCOPED_TRACE(kind.name);
        kv store = make_kv(kind.name, kind.params);
        shkv_max_db_sz = shkv_memory_limit_process = 0x40000000u;
        board *shared = make_board();
        for (uint32_t at = 0; at < 1000; at++)
            ASSERT_EQ(store.add(key_no(at), key_no(at)), 0);
        shared->committed = 1000;
        pid_t readers[2];
        for (uint32_t i = 0; i < 2; i++)
            readers[i] = start_child([&] {
                kv reader = open_kv(kind.name, SHKV_AM_READ);
                uint32_t state = i + 1, lookups = 0;
                for (; !shared->done; lookups++) {
                    uint32_t last = shared->committed;
                    // The newest, whose flip is the youngest, and any of the others.
                    std::string key = key_no(lookups % 4 ? next_random(&state) % last : last - 1);
                    std::string found = reader.at(key);
                    if (found != key) {
                        fprintf(stderr, "%s: lookup %u of %s gives %s\n", kind.name, lookups, key.c_str(),
                                found.c_str());
                        return 1;
                    }
                }
                return lookups > 1000 ? 0 : 2;
            });
        for (uint32_t at = 1000; at < kind.to; at++) {
            std::string key = key_no(at);
            ASSERT_EQ(store.add(key, key), 0) << at;
            shared->committed = at + 1;
        }
        shared->done = 1;
        for (pid_t reader : readers)
            EXPECT_EQ(end_of(reader), 0);
        EXPECT_EQ(store.all().size(), kind.to);
        EXPECT_EQ(faults_of(kind.name), "");
        munmap(shared, sizeof *shared);
    }
}

// Looks for the first 50 keys until the writer is done. 0, or 1 with a line when one is not as it was.
static int read_on(const kv &store, const volatile uint32_t *done_p, bool lite)
{
    char room[64];
    for (uint32_t at = 0; !*done_p; at = (at + 1) % 50) {
        std::string key = key_no(at);
        shkv_buf key_buf = buf_of(key), found = {room, sizeof room};
        int result = lite ? shkv_lookup_lite(store.handle, &key_buf, &found)
                          : shkv_lookup(store.handle, &key_buf, &found);
        if (result != 0 || std::string((const char *)found.ptr, found.len) != key) {
            fprintf(stderr, "lookup of %s gives %d\n", key.c_str(), result);
            return 1;
        }
    }
    return 0;
}

// Mappings are exchanged under threads that share a handle, the writer's own and a reader's in another
// process, and the table of a transaction comes and goes: none of them is killed, and none misses a key.
TEST(growth, threads_that_share_a_handle_stand_through_it)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x40000000u;
    for (uint32_t conf : {CONF_FIXEDMM, CONF_VECTORMM}) {
        kv store = make_kv("threads", {16, 16, 100, conf, 0});
        board *shared = make_board();
        for (uint32_t at = 0; at < 50; at++)
            ASSERT_EQ(store.add(key_no(at), key_no(at)), 0);
        auto read_in_threads = [&](const kv &handle) {
            int failed = 0;
            std::vector<std::thread> threads;
            for (int i = 0; i < 3; i++)
                threads.emplace_back([&, i] {
                    __atomic_fetch_or(&failed, read_on(handle, &shared->done, i == 0 && conf == CONF_FIXEDMM),
                                      __ATOMIC_RELAXED);
                });
            shared->started = 1;
            for (std::thread &thread : threads)
                thread.join();
            return failed;
        };
        pid_t reader = start_child([&] { return read_in_threads(open_kv("threads", SHKV_AM_READ)); });
        while (shared->started == 0)
            usleep(100);
        std::thread own([&] { EXPECT_EQ(read_in_threads(store), 0); });
        for (uint32_t at = 50; at < 40000; at++)
            ASSERT_EQ(store.add(key_no(at), key_no(at)), 0) << at;
        for (int no = 0; no < 1000; no++) {
            ASSERT_EQ(shkv_txn_start(store.handle, nullptr), 0);
            ASSERT_EQ(store.add(key_no(no % 50), key_no(no % 50)), 0);
            ASSERT_EQ(no % 3 ? shkv_txn_commit(store.handle, nullptr) : shkv_txn_abort(store.handle), 0);
        }
        shared->done = 1;
        own.join();
        EXPECT_EQ(end_of(reader), 0);
        EXPECT_EQ(faults_of("threads"), "");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
        munmap(shared, sizeof *shared);
    }
}

// Adds some thousand new keys, replaces and deletes others, and lingers until it dies; every other
// time by its own hand, between two adds of a rebuild.
static int write_on(int round, board *shared)
{
    kv store = open_kv("killed", SHKV_AM_WRITE);
    store.sn()->rz_tm_chk = (uint16_t)(round % 3 == 0 ? 300 : 1);
    shared->started = 1;
    for (uint32_t at = shared->committed, end = at + 6000; at < end; at++) {
        std::string other = "other" + std::to_string(at % 50);
        if (store.add(key_no(at), key_no(at)) != 0)
            return 1;
        shared->committed = at + 1;
        if (store.add(other, key_no(at)) != 0 || (at % 3 == 0 && store.del(other) != 0))
            return 2;
        if (round % 2 && store.head()->refill_pos != 0 && at % 5 == (uint32_t)round % 5)
            raise(SIGKILL);
    }
    for (;;)
        pause();
}

// What the next writer finds: no rebuild left over, every key that was committed, and at most the
// one that was under way besides. It works on.
static void expect_taken_over(int round, uint32_t committed)
{
    kv next = open_kv("killed", SHKV_AM_WRITE);
    ASSERT_EQ(next.sn()->comm_flg & (CF_REFILL1 | CF_REFILL2), 0u);
    for (uint32_t at = 0; at < committed; at++)
        ASSERT_EQ(next.at(key_no(at)), key_no(at)) << "round " << round;
    uint32_t numbered = 0;
    for (const auto &pair : next.all())
        numbered += pair.first[0] == 'k';
    ASSERT_LE(numbered - committed, 1u);
    ASSERT_EQ(next.add("round", std::to_string(round)), 0);
    ASSERT_EQ(next.at("round"), std::to_string(round));
    ASSERT_EQ(faults_of("killed", false), "");
    ASSERT_EQ(shkv_close(next.handle), 0);
}

TEST(growth, a_killed_writer_leaves_a_store_for_the_next)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x40000000u;
    board *shared = make_board();
    uint32_t state = 99;
    int in_rebuild = 0;
    for (int round = 0; round < 100 && !HasFatalFailure(); round++) {
        if (round % 4 == 0) {
            kv first = make_kv("killed", {16, 16, 200, CONF_FIXEDMM, 0});
            ASSERT_EQ(shkv_close(first.handle), 0);
            shared->committed = 0;
        }
        kv watch = open_kv("killed", SHKV_AM_READ);
        uint32_t *flg_p = &watch.sn()->comm_flg;
        shared->started = 0;
        pid_t writer = start_child([&] { return write_on(round, shared); });
        while (!shared->started)
            usleep(100);
        usleep(round % 2 ? 30000 : next_random(&state) % 4000);
        kill(writer, SIGKILL);
        ASSERT_EQ(end_of(writer), -SIGKILL);
        in_rebuild += (*flg_p & (CF_REFILL1 | CF_REFILL2)) != 0;
        ASSERT_EQ(shkv_close(watch.handle), 0);
        expect_taken_over(round, shared->committed);
        if (round % 4 == 3) {
            ASSERT_EQ(shkv_destroy(open_kv("killed", SHKV_AM_WRITE).handle), 0);
        }
    }
    EXPECT_GT(in_rebuild, 20);
    munmap(shared, sizeof *shared);
}
