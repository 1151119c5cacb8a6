#include <set>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/kv.h"

namespace
{

int reset(const kv &store)
{
    return shkv_iterate(store.handle, nullptr, nullptr, nullptr, 1);
}

// The next key and value, or the result.
std::string next(const kv &store)
{
    char key_room[64], val_room[64];
    shkv_buf key = {key_room, sizeof key_room}, val = {val_room, sizeof val_room};
    int result = shkv_iterate(store.handle, &key, &val, nullptr, 0);
    return result ? "#" + std::to_string(result)
                  : std::string(key_room, key.len) + "=" + std::string(val_room, val.len);
}

} // namespace

TEST(iterate, positions_tell_bucket_ordinal_and_offset_without_reading_a_payload)
{
    kv store = {make_store("it_pos", CONF_FIXEDMM, 100)};
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(store.add(std::to_string(i), "value"), 0);
    std::set<uint32_t> offsets;
    shkv_iter_pos pos, last = {0, 0, UINT32_MAX, 0};
    EXPECT_EQ(reset(store), 0);
    while (shkv_iterate(store.handle, nullptr, nullptr, &pos, 0) == 0) {
        udn *rec = (udn *)(store.ud() + pos.off);
        rec->cksum ^= 1; // nothing looks at it
        EXPECT_EQ(pos.flags, (uint32_t)CF_MD1 | CF_UD1);
        EXPECT_EQ(store.head()->md1.hash_fn(rec + 1, rec->key_sz) % store.sn()->md1.hashsz, pos.bkt);
        EXPECT_EQ(pos.cnt, pos.bkt == last.bkt ? last.cnt + 1 : 1);
        offsets.insert(pos.off);
        last = pos;
    }
    EXPECT_EQ(offsets.size(), 100u);
    uint32_t bkt = store.head()->iter_bkt;
    EXPECT_EQ(bkt, store.sn()->md1.hashsz);
    EXPECT_EQ(next(store), "#2"); // for good
    EXPECT_EQ(store.head()->iter_bkt, bkt + 1);
}

TEST(iterate, without_a_reset_bucket_0_is_left_out)
{
    kv store = {make_store("it_zero", CONF_FIXEDMM, 100)};
    std::string zero = store.keys_in(0)[0], one = store.keys_in(1)[0];
    ASSERT_EQ(store.add(zero, "0") + store.add(one, "1"), 0);
    store.head()->iter_off = store.head()->iter_bkt = store.head()->iter_cnt = 0;
    EXPECT_EQ(next(store), one + "=1");
    EXPECT_EQ(reset(store), 0);
    EXPECT_EQ(next(store), zero + "=0");
}

TEST(iterate, what_cannot_be_given_stays_under_the_cursor)
{
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM}) {
        kv store = {make_store("it_stay", conf_flg, 400)};
        std::string three = store.keys_in(3)[0], nine = store.keys_in(9)[0],
                    on = std::to_string(store.handle);
        ASSERT_EQ(store.add(three, "value") + store.add(nine, "value"), 0);
        char key_room[16], val_room[16];
        shkv_buf key = {key_room, 0}, val = {val_room, 4};
        log_catcher log;
        EXPECT_EQ(reset(store), 0);
        EXPECT_EQ(shkv_iterate(store.handle, &key, &val, nullptr, 0), EINVAL);
        EXPECT_EQ(log.last(), "shkv_iterate,key buf too small, shkvh:" + on);
        EXPECT_TRUE(key.len == three.size() && val.len == 4);
        EXPECT_EQ(shkv_iterate(store.handle, &key, &val, nullptr, 0), EINVAL);
        EXPECT_EQ(log.last(), "shkv_lookup,val buf too small, shkvh:" + on);
        EXPECT_EQ(std::string(key_room, key.len) + std::to_string(val.len), three + "5"); // the key is there

        udn *rec = store.first_of(three);
        rec->cksum ^= 1;
        shkv_iter_pos pos;
        for (bool with_key : {false, true}) { // by the value's check and by the key's
            EXPECT_EQ(shkv_iterate(store.handle, with_key ? &key : nullptr, with_key ? nullptr : &val, &pos, 0),
                      EINVAL);
            EXPECT_EQ(log.last(), "shkv_lookup,bad checksum, shkvh:" + on);
            EXPECT_EQ(last_event(store.sn()).code, TRACE_ONE | (with_key ? 0x91u : 0x92u));
        }
        EXPECT_EQ(reset(store), 0);
        EXPECT_EQ(shkv_iterate(store.handle, nullptr, nullptr, &pos, 0), 0); // no payload, no check
        EXPECT_EQ(next(store), nine + "=value");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

// A record taken out under the cursor still leads on to the rest of its chain.
TEST(iterate, a_deleted_record_under_the_cursor_leads_on)
{
    kv store = {make_store("it_del", CONF_FIXEDMM, 100)};
    for (const std::string &key : store.keys_in(5, 4))
        ASSERT_EQ(store.add(key, "v"), 0);
    EXPECT_EQ(reset(store), 0);
    int seen = 0;
    for (; next(store) != "#2"; seen++) {
        udn *rec = (udn *)(store.ud() + store.head()->iter_off);
        if (store.head()->iter_off && seen % 2 == 0) {
            EXPECT_EQ(store.del(std::string((char *)(rec + 1), rec->key_sz)), 0);
        }
    }
    EXPECT_EQ(seen, 4);
    EXPECT_EQ(faults_of("it_del"), "");
}

// A record that begins ahead of the mapping's end, and a space that a failed growth has left unmapped.
TEST(iterate, what_the_mapping_does_not_hold_is_refused)
{
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM})
        in_child([=] {
            kv store = {make_store(("it_out" + std::to_string(conf_flg)).c_str(), conf_flg, 100)};
            uint32_t *chain_p = store.chain_of(store.keys_in(1)[0]), limit = store.head()->ud1_map->mapped_sz;
            *chain_p = limit - 16;
            EXPECT_EQ(reset(store), 0);
            EXPECT_EQ(next(store), "#12");
            EXPECT_EQ(last_event(store.sn()).code, TRACE_PAIR1 | 0xE7u);
            *chain_p = 0;
            signal(SIGXFSZ, SIG_IGN);
            const rlimit as_it_is = {limit, RLIM_INFINITY};
            EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &as_it_is), 0);
            for (size_t i = 0; store.add(key_no(i), "value") == 0; i++)
                ;
            EXPECT_EQ(store.ud(), nullptr);
            EXPECT_EQ(shkv_txn_start(store.handle, nullptr), ENOMEM); // it could not be ended
            EXPECT_EQ(reset(store), 0);
            EXPECT_EQ(next(store), "#12");
            return 0;
        });
}
