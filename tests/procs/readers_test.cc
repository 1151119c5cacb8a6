// Readers beside a writer at full speed, and through the growth of a store that they opened before it.
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

// Mappings are exchanged under every reader, and in the last two under threads that share a handle, the
// writer's own and a reader's in another process, while the table of a transaction comes and goes.
TEST(readers, find_every_committed_key_while_the_store_grows)
{
    const struct {
        crowd_plan plan;
        uint32_t records;
    } cases[] = {{{"fixed", {16, 32, 1000, CONF_FIXEDMM, 0}, 1000}, 100000},
                 {{"vector", {0, 0, 1000, CONF_VECTORMM, 0}, 1000, 0, 100}, 100000},
                 {{"shmap", {0, 0, 1000, CONF_VECTORMM | CONF_SHMAP, 0}, 1000}, 100000},
                 {{"fixed_threads", {16, 32, 100, CONF_FIXEDMM, 0}, 50, 500, 0, false, BY_THE_SAME}, 40000},
                 {{"vector_threads", {0, 0, 100, CONF_VECTORMM, 0}, 50, 500, 0, false, BY_THE_SAME}, 40000}};
    for (const auto &each : cases) {
        crowd all(each.plan);
        store(&all.shared->grow, 32);
        while (load(&all.shared->growing) < each.records && all.goes_on())
            ;
        EXPECT_LE(each.records, load(&all.shared->growing));
        all.end();
        EXPECT_EQ("", faults_of(each.plan.name));
    }
}
