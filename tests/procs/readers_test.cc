// Readers beside a writer at full speed, and through the growth of a store that they opened before it.
#include <thread>

#include "procs/crowd.h"

// The smallest record space, so that what is replaced is handed out again at once; few keys, so that a
// reader meets the reuse.
TEST(readers, never_see_a_torn_or_old_value_or_miss_a_key)
{
    const crowd_plan plans[] = {
        {"fixed", {16, 64, 1000, CONF_FIXEDMM, 0}, 1000, 0, 64},
        {"fixed_hot", {16, 64, 100, CONF_FIXEDMM, 0}, 2, 0, 64},
        {"vector", {0, 0, 3000, CONF_VECTORMM, 0}, 1000, 0, 400},
        {"vector_hot", {0, 0, 400, CONF_VECTORMM, 0}, 3, 0, 2000},
    };
    for (const crowd_plan &plan : plans) {
        crowd all(plan);
        usleep(2500000);
        EXPECT_TRUE(all.goes_on());
        all.end();
        EXPECT_EQ("", faults_of(plan.name));
    }
}

TEST(readers, find_every_committed_key_while_the_store_grows)
{
    const crowd_plan plans[] = {{"grow_fixed", {16, 32, 1000, CONF_FIXEDMM, 0}, 1000},
                                {"grow_vector", {0, 0, 1000, CONF_VECTORMM, 0}, 1000, 100},
                                {"grow_shmap", {0, 0, 1000, CONF_VECTORMM | CONF_SHMAP, 0}, 1000}};
    for (const crowd_plan &plan : plans) {
        crowd all(plan);
        store(&all.shared->grow, 32);
        while (load(&all.shared->growing) < 100000 && all.goes_on())
            ;
        EXPECT_LE(100000u, load(&all.shared->growing));
        all.end();
        EXPECT_EQ("", faults_of(plan.name));
    }
}

// Looks for the first 50 keys until the writer is done. 0, or 1 with a line when one is not as it was.
static int read_on(const kv &store, const uint32_t *done_p, bool lite)
{
    char room[64];
    for (uint32_t at = 0; !load(done_p); at = (at + 1) % 50) {
        std::string key = "k" + std::to_string(at);
        shkv_buf key_buf = buf_of(key), found = {room, sizeof room};
        int result = lite ? shkv_lookup_lite(store.handle, &key_buf, &found)
                          : shkv_lookup(store.handle, &key_buf, &found);
        if (result != 0 || std::string((const char *)found.ptr, found.len) != key)
            return fprintf(stderr, "lookup of %s gives %d\n", key.c_str(), result), 1;
    }
    return 0;
}

// Mappings are exchanged under threads that share a handle, the writer's own and a reader's in another
// process, and the table of a transaction comes and goes: none of them is killed, and none misses a key.
TEST(readers, that_share_a_handle_stand_through_growth_and_transactions)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x40000000u;
    uint32_t *words = (uint32_t *)mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    for (uint32_t conf : {CONF_FIXEDMM, CONF_VECTORMM}) {
        uint32_t *started = &words[0], *done = &words[1];
        *started = *done = 0;
        kv store = make_kv("threads", {16, 16, 100, conf, 0});
        auto put_no = [&](uint32_t at) {
            std::string key = "k" + std::to_string(at);
            ASSERT_EQ(store.add(key, key), 0) << at;
        };
        for (uint32_t at = 0; at < 50; at++)
            put_no(at);
        auto read_in_threads = [&](const kv &handle) {
            int failed = 0;
            std::vector<std::thread> threads;
            for (int i = 0; i < 3; i++)
                threads.emplace_back([&, i] {
                    __atomic_fetch_or(&failed, read_on(handle, done, i == 0 && conf == CONF_FIXEDMM), __ATOMIC_RELAXED);
                });
            *started = 1;
            for (std::thread &thread : threads)
                thread.join();
            return failed;
        };
        pid_t reader = start_child([&] { return read_in_threads(open_kv("threads", SHKV_AM_READ)); });
        while (load(started) == 0)
            usleep(100);
        std::thread own([&] { EXPECT_EQ(read_in_threads(store), 0); });
        for (uint32_t at = 50; at < 40000; at++)
            put_no(at);
        for (uint32_t no = 0; no < 1000; no++) {
            ASSERT_EQ(shkv_txn_start(store.handle, nullptr), 0);
            put_no(no % 50);
            ASSERT_EQ(no % 3 ? shkv_txn_commit(store.handle, nullptr) : shkv_txn_abort(store.handle), 0);
        }
        *done = 1;
        own.join();
        EXPECT_EQ(end_of(reader), 0);
        EXPECT_EQ(faults_of("threads"), "");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}
