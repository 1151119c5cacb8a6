#include <set>
#include <unistd.h>

#include "support/kv.h"

namespace
{

const shkv_params FIXED = {16, 40, 100, CONF_FIXEDMM, 0};
const shkv_params VECTOR = {0, 0, 400, CONF_VECTORMM, 0};

int reset(const kv &store)
{
    return shkv_iterate(store.handle, nullptr, nullptr, nullptr, 1);
}

// A key whose record stands in that bucket, alone there.
std::string key_in(const kv &store, uint32_t bucket)
{
    for (unsigned i = 0;; i++) {
        std::string key = std::to_string(i);
        if (store.head()->md1.hash_fn(key.data(), (uint32_t)key.size()) % store.sn()->md1.hashsz == bucket)
            return key;
    }
}

} // namespace

TEST(iterate, refusals_have_their_value_line_and_event)
{
    kv store = make_kv("it_args", FIXED), plain = open_kv("it_args", SHKV_AM_READ);
    char bytes[64];
    shkv_buf buf = {bytes, 64}, no_ptr = {nullptr, 4};
    shkv_iter_pos pos;
    const struct {
        kv on;
        shkv_buf *key, *val;
        shkv_iter_pos *pos;
        int reset;
        uint32_t flg;
        int value;
        const char *line;
        uint32_t event;
    } cases[] = {
        {plain, &buf, &buf, &pos, 1, 0, EINVAL, "shkv_iterate,not opened for SHKV_AM_ITER, shkvh:%d", 0x8A},
        {store, &buf, nullptr, nullptr, 0, 0, EINVAL, "shkv_iterate, all empty buffers, shkvh:%d", 0x8B},
        {store, nullptr, &buf, nullptr, 2, 0, EINVAL, "shkv_iterate, all empty buffers, shkvh:%d", 0x8B},
        {store, &no_ptr, &buf, nullptr, 0, 0, EINVAL, "shkv_iterate,key buffer is invalid,shkvh:%d", 0x8C},
        {store, &buf, &no_ptr, nullptr, 1, 0, EINVAL, "shkv_iterate,val buffer is invalid,shkvh:%d", 0x8D},
        {store, &buf, &buf, &pos, 1, CF_DESTROYED, EBADF, "shkv_iter, the db has been destroyed, shkvh:%d",
         0x8E},
        {store, &buf, &buf, &pos, 0, CF_RESHAPE, EINVAL, "shkv_iter, slow path forbid iterate, shkvh:%d", 0x8F},
    };
    for (const auto &one : cases) {
        store.sn()->comm_flg |= one.flg;
        log_catcher log;
        char line[128];
        snprintf(line, sizeof line, one.line, one.on.handle);
        EXPECT_EQ(shkv_iterate(one.on.handle, one.key, one.val, one.pos, one.reset), one.value) << line;
        EXPECT_EQ(log.last(), line);
        last_event event(store.sn());
        EXPECT_EQ(event.code, TRACE_ONE | one.event) << line;
        EXPECT_EQ(event.arg, (uint32_t)one.on.handle);
        store.sn()->comm_flg &= ~one.flg;
    }
    for (int handle : {0, 33, -1, 32})
        EXPECT_EQ(shkv_iterate(handle, &buf, &buf, &pos, 0), EBADF);
}

TEST(iterate, every_record_once_then_the_end_for_good)
{
    for (const shkv_params &params : {FIXED, VECTOR, shkv_params{0, 0, 400, CONF_VECTORMM | CONF_SHMAP, 0}}) {
        kv store = make_kv("it_all", params), reader = open_kv("it_all", SHKV_AM_READ | SHKV_AM_ITER);
        contents want;
        shkv_iter_pos pos;
        EXPECT_EQ(reset(store), 0);
        EXPECT_EQ(shkv_iterate(store.handle, nullptr, nullptr, &pos, 0), ENOENT); // an empty store
        for (int i = 0; i < 1200; i++) {
            std::string key = std::to_string(i), value((size_t)(i % 41), (char)i);
            ASSERT_EQ(store.add(key, value), 0);
            want[key] = value;
        }
        EXPECT_EQ(reader.all(), want);
        EXPECT_EQ(store.all(), want);
        uint32_t hashsz = store.sn()->md1.hashsz, bkt = store.head()->iter_bkt;
        if (store.md1()) {
            EXPECT_EQ(bkt, hashsz);
        }
        EXPECT_EQ(shkv_iterate(store.handle, nullptr, nullptr, &pos, 0), ENOENT);
        EXPECT_EQ(store.head()->iter_bkt, bkt + 1);
        EXPECT_EQ(shkv_close(reader.handle) + shkv_destroy(store.handle), 0);
    }
}

TEST(iterate, positions_tell_bucket_ordinal_and_offset_without_reading_a_payload)
{
    kv store = make_kv("it_pos", FIXED);
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(store.add(std::to_string(i), "value"), 0);
    std::set<uint32_t> offsets;
    shkv_iter_pos pos, last = {0, 0, UINT32_MAX, 0};
    EXPECT_EQ(reset(store), 0);
    while (shkv_iterate(store.handle, nullptr, nullptr, &pos, 0) == 0) {
        udn *rec = (udn *)((char *)store.head()->ud1_map->map[0] + pos.off);
        rec->cksum ^= 1; // nothing looks at it
        EXPECT_EQ(pos.flags, (uint32_t)CF_MD1 | CF_UD1);
        EXPECT_EQ(store.head()->md1.hash_fn(rec + 1, rec->key_sz) % store.sn()->md1.hashsz, pos.bkt);
        EXPECT_EQ(pos.cnt, pos.bkt == last.bkt ? last.cnt + 1 : 1);
        EXPECT_TRUE(offsets.insert(pos.off).second);
        last = pos;
    }
    EXPECT_EQ(offsets.size(), 100u);
}

TEST(iterate, without_a_reset_bucket_0_is_left_out)
{
    kv store = make_kv("it_zero", FIXED);
    ASSERT_EQ(store.add(key_in(store, 0), "zero") + store.add(key_in(store, 1), "one"), 0);
    store.head()->iter_off = store.head()->iter_bkt = store.head()->iter_cnt = 0;
    char bytes[64];
    shkv_iter_pos pos;
    for (const char *want : {"one", "zero", "one"}) {
        shkv_buf val = {bytes, sizeof bytes};
        EXPECT_EQ(shkv_iterate(store.handle, nullptr, &val, &pos, 0), 0);
        EXPECT_EQ(std::string(bytes, val.len), want);
        EXPECT_EQ(strcmp(want, "one") ? 0 : reset(store), 0);
    }
}

TEST(iterate, a_buffer_that_is_too_small_learns_its_size_and_loses_no_record)
{
    for (const shkv_params &params : {FIXED, VECTOR}) {
        kv store = make_kv("it_small", params);
        ASSERT_EQ(store.add("twelve bytes", "value"), 0);
        char key_room[16], val_room[16];
        shkv_buf key = {key_room, 11}, val = {val_room, 4};
        log_catcher log;
        EXPECT_EQ(reset(store), 0);
        EXPECT_EQ(shkv_iterate(store.handle, &key, &val, nullptr, 0), EINVAL);
        EXPECT_EQ(log.last(), "shkv_iterate,key buf too small, shkvh:" + std::to_string(store.handle));
        EXPECT_EQ(key.len, 12u);
        EXPECT_EQ(val.len, 4u);
        key_room[0] = 0;
        EXPECT_EQ(shkv_iterate(store.handle, &key, &val, nullptr, 0), EINVAL);
        EXPECT_EQ(log.last(), "shkv_lookup,val buf too small, shkvh:" + std::to_string(store.handle));
        EXPECT_EQ(std::string(key_room, key.len) + std::to_string(val.len),
                  "twelve bytes5"); // the key is there
        EXPECT_EQ(shkv_iterate(store.handle, &key, &val, nullptr, 0), 0);
        EXPECT_EQ(std::string(val_room, val.len), "value");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

TEST(iterate, a_bad_checksum_blocks_until_a_reset)
{
    for (const shkv_params &params : {FIXED, VECTOR}) {
        kv store = make_kv("it_sum", params);
        ASSERT_EQ(store.add(key_in(store, 3), "three") + store.add(key_in(store, 9), "nine"), 0);
        char *ud_base = (char *)store.head()->ud1_map->map[0];
        ((udn *)(ud_base + store.head()->md1.base[3].first_ptr))->cksum ^= 1;
        EXPECT_EQ(reset(store), 0);
        char bytes[64];
        shkv_iter_pos pos;
        for (int i = 0; i < 4; i++) { // by the key's check and by the value's
            shkv_buf key = {bytes, sizeof bytes}, val = {bytes, sizeof bytes};
            log_catcher log;
            EXPECT_EQ(shkv_iterate(store.handle, i % 2 ? &key : nullptr, i % 2 ? nullptr : &val, &pos, 0),
                      EINVAL);
            EXPECT_EQ(log.last(), "shkv_lookup,bad checksum, shkvh:" + std::to_string(store.handle));
            EXPECT_EQ(last_event(store.sn()).code, TRACE_ONE | (i % 2 ? 0x91u : 0x92u));
        }
        EXPECT_EQ(reset(store), 0);
        EXPECT_EQ(shkv_iterate(store.handle, nullptr, nullptr, &pos, 0), 0);
        shkv_buf val = {bytes, sizeof bytes};
        EXPECT_EQ(shkv_iterate(store.handle, nullptr, &val, &pos, 0), 0);
        EXPECT_EQ(std::string(bytes, val.len), "nine");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

TEST(iterate, a_transaction_shows_committed_records_only)
{
    kv store = make_kv("it_txn", FIXED);
    ASSERT_EQ(store.add("old", "1") + store.add("gone", "2"), 0);
    ASSERT_EQ(shkv_txn_start(store.handle, nullptr), 0);
    ASSERT_EQ(store.add("new", "3") + store.del("gone"), 0);
    EXPECT_EQ(store.all(), (contents{{"old", "1"}, {"gone", "2"}}));
    ASSERT_EQ(shkv_txn_commit(store.handle, nullptr), 0);
    EXPECT_EQ(store.all(), (contents{{"old", "1"}, {"new", "3"}}));
}

// A record taken out under the cursor still leads on to the rest of its chain.
TEST(iterate, a_deleted_record_under_the_cursor_leads_on)
{
    kv store = make_kv("it_del", FIXED);
    std::set<std::string> chain;
    for (unsigned i = 0; chain.size() < 4; i++)
        if (store.head()->md1.hash_fn(std::to_string(i).data(), (uint32_t)std::to_string(i).size()) %
                store.sn()->md1.hashsz ==
            5)
            chain.insert(std::to_string(i));
    for (const std::string &key : chain)
        ASSERT_EQ(store.add(key, "v"), 0);
    EXPECT_EQ(reset(store), 0);
    size_t seen = 0;
    char bytes[16];
    shkv_iter_pos pos;
    for (;; seen++) {
        shkv_buf key = {bytes, sizeof bytes};
        if (shkv_iterate(store.handle, &key, nullptr, &pos, 0) != 0)
            break;
        udn *next = (udn *)((char *)store.head()->ud1_map->map[0] + store.head()->iter_off);
        if (store.head()->iter_off && seen % 2 == 0) {
            EXPECT_EQ(store.del(std::string((char *)(next + 1), next->key_sz)), 0);
        }
    }
    EXPECT_EQ(seen, 4u);
    EXPECT_EQ(faults_of("it_del"), "");
}

TEST(iterate, no_memory_behind_the_table_or_the_records_is_a_result)
{
    for (bool table : {false, true}) {
        kv store = make_kv("it_cut", {16, 40, 4000, CONF_FIXEDMM, 0});
        for (int i = 0; i < 4000; i++)
            ASSERT_EQ(store.add(std::to_string(i), "value"), 0);
        ASSERT_EQ(truncate(table ? "/dev/shm/shkvmu/it_cut_md1" : "/dev/shm/shkvmu/it_cut_ud1", 4096), 0);
        EXPECT_EQ(reset(store), 0);
        shkv_iter_pos pos;
        int ret = 0, given = -1;
        for (; ret == 0; given++)
            ret = shkv_iterate(store.handle, nullptr, nullptr, &pos, 0);
        EXPECT_EQ(ret, ENOMEM);
        EXPECT_EQ(out_of_actual_mem, 0u);
        if (table) { // a page of buckets, each with what stands in it; the cursor is past them
            EXPECT_GT(given, 400);
            EXPECT_EQ(store.head()->iter_bkt, 512u);
        }
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}
