#include <fstream>
#include <random>
#include <unistd.h>

#include "support/kv.h"

namespace {

const shkv_params LOCKED = {16, 32, 100, CONF_FIXEDMM | CONF_L3, 0};
const shkv_params LOCKED_CHUNKS = {16, 32, 100, CONF_VECTORMM | CONF_SHMAP | CONF_L3, 0};

// Protection of the page at base, as the system sees it.
std::string protection_of(const void *base)
{
    std::ifstream maps("/proc/self/maps");
    unsigned long from, to;
    std::string perms, rest;
    while (maps >> std::hex >> from && maps.ignore() >> to >> perms && std::getline(maps, rest))
        if (from <= (unsigned long)base && (unsigned long)base < to)
            return perms;
    return "none";
}

} // namespace

TEST(add_delete, a_protected_space_is_open_only_for_the_length_of_a_write)
{
    for (const shkv_params &params : {LOCKED, LOCKED_CHUNKS}) {
        kv store = make_kv("locked", params);
        auto protection = [&] { return protection_of(store.head()->ud1_map->map[0]); };
        ASSERT_EQ(store.add("a", "1"), 0);
        EXPECT_EQ(protection(), "r--s");
        testing::internal::CaptureStdout();
        EXPECT_EQ(store.del("none"), ENOENT);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "key not found\n");
        EXPECT_EQ(protection(), "r--s");
        EXPECT_EQ(store.del("a"), 0);
        EXPECT_EQ(protection(), "r--s");
        // Another process takes the protection off the store: our own mapping is closed all the same.
        store.sn()->sn_flg &= ~SN_WPROT;
        EXPECT_EQ(store.add("b", "2"), 0);
        EXPECT_EQ(protection(), "rw-s");
        store.sn()->sn_flg |= SN_WPROT;
        EXPECT_EQ(store.del("b"), 0);
        // Growth, a rebuild in slices and further adds, each of which begins on a closed space.
        store.sn()->rz_tm_chk = 1;
        for (unsigned i = 0; i < 2000; i++)
            ASSERT_EQ(store.add(key_no(i), "v"), 0) << i;
        EXPECT_GT(store.sn()->ud1.obj_ver, 1u);
        EXPECT_EQ(protection(), "r--s");
        EXPECT_EQ(store.all().size(), 2000u);
        EXPECT_EQ(faults_of("locked"), "");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

// A debug writer may have ended our rebuild and left its transaction open. The tombstones take their
// space by growth, which wants the lock that a delete holds in a rebuild.
TEST(add_delete, a_delete_after_a_lost_rebuild_stages_without_the_lock)
{
    kv store = make_kv("lost_lock", {16, 32, 100, CONF_FIXEDMM, 0});
    unsigned cnt = 0;
    for (store.sn()->auto_rz = 0; store.add(key_no(cnt), "v") == 0;)
        cnt++;
    store.sn()->auto_rz = 1;
    ASSERT_EQ(shkv_txn_start(store.handle, nullptr), 0);
    uint32_t size = store.sn()->ud1.obj_sz;
    alarm(20);
    for (unsigned i = 0; i < cnt; i++) {
        store.head()->refill_pos = 1;
        store.head()->md2.ver = store.sn()->md2.obj_ver - 1;
        ASSERT_EQ(store.del(key_no(i)), 0) << i;
    }
    EXPECT_GT(store.sn()->ud1.obj_sz, size);
    ASSERT_EQ(shkv_txn_commit(store.handle, nullptr), 0);
    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(faults_of("lost_lock"), "");
}

// Any order of adds, replacements and deletes against a std::map: through growths, with a rebuild
// under way most of the time, seen by the writer and by a handle that was opened before all of it.
TEST(add_delete, a_random_run_agrees_with_a_map_on_both_handles)
{
    const struct {
        const char *name;
        shkv_params params;
        unsigned keys, value_sz, growths;
    } kinds[] = {{"run_fixed", {16, 32, 1000, CONF_FIXEDMM, 0}, 8000, 32, 2},
                 {"run_vector", {0, 0, 2000, CONF_VECTORMM, 0}, 3000, 700, 2},
                 {"run_shmap", {0, 0, 2000, CONF_VECTORMM | CONF_SHMAP, 0}, 3000, 700, 1}}; // a chunk at once
    for (const auto &kind : kinds) {
        kv store = make_kv(kind.name, kind.params), reader = open_kv(kind.name, SHKV_AM_READ | SHKV_AM_ITER);
        store.sn()->rz_tm_chk = 1;
        std::mt19937 rng(7);
        contents want;
        int partial = 0;
        for (unsigned step = 0; step < 20000; step++) {
            // The keys in use grow with the steps, so that the store does.
            std::string key = key_no(rng() % (kind.keys * (step / 2000 + 1) / 10));
            if (rng() % 3) {
                std::string value(rng() % (kind.value_sz + 1), (char)('a' + rng() % 26));
                ASSERT_EQ(store.add(key, want[key] = value), 0) << step;
            } else {
                ASSERT_EQ(store.del(key), want.erase(key) ? 0 : ENOENT) << step << key;
            }
            partial += store.head()->refill_pos != 0;
            std::string probe = key_no(rng() % kind.keys);
            for (const kv *who : {&store, &reader}) {
                ASSERT_EQ(who->at(probe), want.count(probe) ? want[probe] : "#2") << step;
                ASSERT_TRUE(step % 400 != 0 || who->all() == want) << step;
            }
        }
        EXPECT_GT(partial, 2) << kind.name;
        EXPECT_GE(store.sn()->ud1.obj_ver, 1 + kind.growths) << kind.name;
        EXPECT_EQ(faults_of(kind.name), "");
    }
}
