// A reshape beside a writer and readers that opened the store before it. SHKV_RESHAPE_RECORDS makes the first
// test one of so many records.
#include <fcntl.h>
#include <stdlib.h>

#include "procs/crowd.h"

namespace {

constexpr uint32_t KEYS = 20000, CHURN = 3000;
constexpr crowd_plan PLAN = {"moved", {16, 32, KEYS + KEYS / 8 + 2 * CHURN, CONF_FIXEDMM, 0}, KEYS, CHURN};
constexpr crowd_plan MAY_BE_FULL = {PLAN.name, PLAN.params, KEYS, CHURN, 0, true};

// A descriptor's words and comm_flg, without a look at the rest.
uint32_t word_now(size_t at)
{
    uint32_t word = 0;
    int fd = open(object_path(PLAN.name, OBJ_SN).c_str(), O_RDONLY);
    bool read_it = fd >= 0 && pread(fd, &word, sizeof word, (off_t)at) == sizeof word;
    close(fd);
    return read_it ? word : 0;
}
uint32_t flags_now()
{
    return word_now(offsetof(supernode, comm_flg));
}

// The writer or the reshaper is killed at some moment of a reshape. True when that was in the middle.
bool kill_in_reshape(crowd *all_p, bool writer, int round)
{
    static uint32_t state = 3;
    pid_t reshaper = start_child([=] { return shkv_reshaping(PLAN.name, 0, round % 3 ? 1 : 0, 0, 3); });
    while (!(flags_now() & CF_RESHAPE))
        usleep(100);
    all_p->wait_for_writes(round || writer ? next_random(&state) % (KEYS / 10) : 0);
    writer ? all_p->kill_writer() : (void)kill(reshaper, SIGKILL);
    int end = writer ? 0 : end_of(reshaper);
    bool in_middle = flags_now() & CF_RESHAPE;
    EXPECT_TRUE(writer ? end_of(reshaper) == 0 : end == 0 || end == -SIGKILL) << end;
    EXPECT_TRUE(all_p->goes_on());
    return in_middle;
}

} // namespace

TEST(reshape, nothing_is_lost_or_missed_beside_a_writer_and_readers)
{
    const char *records = getenv("SHKV_RESHAPE_RECORDS");
    uint32_t keys = records ? (uint32_t)atoi(records) : KEYS;
    crowd all({PLAN.name, {16, 32, keys + keys / 8 + 2 * CHURN, CONF_FIXEDMM, 0}, keys, CHURN});
    const struct {
        uint32_t md_sz, ud_sz, new_hash, flg;
    } rounds[] = {{0, 1, 0, CF_MD2 | CF_UD2}, {keys * 6, 1, 5, CF_MD1 | CF_UD1}, {keys * 10, 0, 11, CF_MD2 | CF_UD1},
                  {0, 1, 8, CF_MD1 | CF_UD2}};
    for (const auto &round : rounds) {
        ASSERT_EQ(shkv_reshaping(PLAN.name, round.md_sz, round.ud_sz, 0, round.new_hash), 0);
        EXPECT_EQ(flags_now(), round.flg);
        ASSERT_TRUE(all.goes_on());
        if (records)
            printf("%s records, reshape to 0x%x: %u writes, %u and %u lookups so far\n", records, round.flg,
                   load(&all.shared->writes), load(&all.shared->lookups[0]), load(&all.shared->lookups[1]));
    }
    // Growth of the space that the last one made, seen by the same processes.
    size_t sz_at = offsetof(supernode, ud2) + offsetof(ud_desc, obj_sz);
    uint32_t was_sz = word_now(sz_at);
    store(&all.shared->grow, 1);
    for (int i = 0; i < 30000 && was_sz == word_now(sz_at); i++)
        usleep(10000);
    ASSERT_TRUE(all.goes_on());
    all.end();
    EXPECT_GT(word_now(sz_at), was_sz);
    EXPECT_EQ(faults_of(PLAN.name, false), "");
    EXPECT_EQ(shkv_destroy(open_kv(PLAN.name, SHKV_AM_WRITE).handle), 0);
}

// Writer and readers go on for good, in the state that it left.
TEST(reshape, a_killed_reshaper_takes_nobody_along)
{
    int in_middle = 0;
    for (int round = 0; round < 8 && !HasFailure(); round++) {
        SCOPED_TRACE(round);
        crowd all(MAY_BE_FULL);
        in_middle += kill_in_reshape(&all, false, round);
        usleep(200000);
        ASSERT_TRUE(all.goes_on());
        all.end();
        EXPECT_EQ(shkv_reshaping(PLAN.name, 0, 1, 0, 3), EINVAL); // its token stays
        for (int obj_t : {OBJ_SN, OBJ_MD1, OBJ_MD2, OBJ_UD1, OBJ_UD2, OBJ_MD_TXN})
            unlink(object_path(PLAN.name, obj_t).c_str());
        kv reg = open_kv(SHKV_REGISTRY_NAME, SHKV_AM_WRITE);
        reg.del(PLAN.name);
        shkv_close(reg.handle);
    }
    EXPECT_GT(in_middle, 4);
}

// Some time it has wr_ksem in its hand: the reshape ends, and the next writer finds what was committed.
TEST(reshape, a_killed_writer_does_not_hold_it_up)
{
    int in_middle = 0;
    for (int round = 0; round < 8 && !HasFailure(); round++) {
        SCOPED_TRACE(round);
        crowd all(PLAN);
        in_middle += kill_in_reshape(&all, true, round);
        all.end();
        kv next = open_kv(PLAN.name, SHKV_AM_WRITE);
        all.expect_all(next);
        EXPECT_EQ(next.add("k1", "next"), 0);
        EXPECT_EQ(faults_of(PLAN.name, false), "");
        EXPECT_EQ(shkv_destroy(next.handle), 0);
        shkv_close(next.handle);
    }
    EXPECT_GT(in_middle, 0); // how often depends on what else the machine does
}

// Into a space that cannot hold the records: refused at the first that does not fit, and nothing is
// lost, also of what the writer did meanwhile.
TEST(reshape, a_space_too_small_leaves_the_old_one_in_force)
{
    crowd all(MAY_BE_FULL);
    uint32_t small_sz = GET_USER_SIZE(KEYS / 2 + 1000, 16, 32);
    for (uint32_t ud_sz : {small_sz, small_sz + 40960})
        EXPECT_EQ(shkv_reshaping(PLAN.name, 0, ud_sz, 0, 4), EINVAL);
    EXPECT_EQ(flags_now(), CF_MD1 | CF_UD1);
    ASSERT_TRUE(all.goes_on());
    EXPECT_EQ(shkv_reshaping(PLAN.name, 0, 1, 0, 4), 0);
    ASSERT_TRUE(all.goes_on());
    all.end();
    EXPECT_EQ(flags_now(), CF_MD2 | CF_UD2);
    EXPECT_EQ(faults_of(PLAN.name, false), "");
    EXPECT_EQ(shkv_destroy(open_kv(PLAN.name, SHKV_AM_WRITE).handle), 0);
}

// Behind the switch the reshaper waits a second before it cuts what was old. A writer that grows meanwhile
// takes the old table for its new one: then it is not cut, nor is a rebuild forgotten whose flag the
// reshaper clears with its token.
static void grow_behind_the_switch(const char *name, uint16_t slice_us, bool txn)
{
    kv store = make_kv(name, {16, 32, 2000, CONF_FIXEDMM, 0});
    const supernode *sn = store.sn();
    shkv_opts opts = {0, 1, slice_us};
    EXPECT_EQ(shkv_db_set_opts(store.handle, 1, &opts), 0);
    contents want;
    auto add = [&](size_t no) { return store.add("k" + std::to_string(no), want["k" + std::to_string(no)] = "v"); };
    while (want.size() < 900)
        ASSERT_EQ(add(want.size()), 0);
    pid_t reshaper = start_child([=] { return shkv_reshaping(name, 0, GET_USER_SIZE(950, 16, 32), 0, 3); });
    while (!(load(&sn->comm_flg) & CF_UD2) || (load(&sn->comm_flg) & CF_RESHAPE))
        usleep(100);
    for (uint32_t ud_sz = sn->ud2.obj_sz; sn->ud2.obj_sz == ud_sz;)
        ASSERT_EQ(add(want.size()), 0);
    EXPECT_TRUE(sn->comm_flg & (slice_us ? CF_REFILL1 : CF_MD1)) << sn->comm_flg;
    EXPECT_EQ(end_of(reshaper), 0);
    EXPECT_EQ(txn ? shkv_txn_start(store.handle, nullptr) : 0, 0);
    for (size_t end = want.size() + 100; want.size() < end;)
        ASSERT_EQ(add(want.size()), 0);
    EXPECT_EQ(txn ? shkv_txn_commit(store.handle, nullptr) : 0, 0);
    while (store.head()->refill_pos)
        ASSERT_EQ(add(want.size()), 0);
    EXPECT_EQ(store.all(), want);
    EXPECT_EQ(faults_of(name), "");
    EXPECT_EQ(shkv_reshaping(name, 0, 1, 0, 0), 0);
    EXPECT_EQ(store.all(), want);
}

TEST(reshape, growth_right_behind_the_switch_keeps_its_table)
{
    make_kv("registry", {16, 16, 10, CONF_FIXEDMM, 0});
    const struct {
        const char *name;
        uint16_t slice_us;
        bool txn;
    } cases[] = {{"at once", 0, false}, {"at once, txn", 0, true}, {"in slices", 1, false}, {"in slices, txn", 1, true}};
    pid_t pids[4];
    for (int i = 0; i < 4; i++)
        pids[i] = start_child([&] {
            SCOPED_TRACE(cases[i].name);
            grow_behind_the_switch(cases[i].name, cases[i].slice_us, cases[i].txn);
            return testing::Test::HasFailure();
        });
    for (pid_t pid : pids)
        EXPECT_EQ(end_of(pid), 0);
}
