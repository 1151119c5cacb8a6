// Batches: what is applied, what a failure or a crash leaves, and what becomes of the log.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "support/kv.h"

namespace {

using strings = std::vector<std::string>;

int batch(int handle, const strings &keys, const strings &vals, uint16_t opflg)
{
    std::vector<shkv_buf> key_bufs, val_bufs;
    for (const std::string &key : keys)
        key_bufs.push_back(buf_of(key));
    for (const std::string &val : vals)
        val_bufs.push_back(buf_of(val));
    return shkv_m_add(handle, key_bufs.data(), vals.empty() ? nullptr : val_bufs.data(), (uint16_t)keys.size(), opflg);
}

supernode *sn_of(int handle)
{
    return shkv_db_heads[handle - 1].sn;
}

bool log_exists()
{
    struct stat st;
    return stat(SHKV_DB_DIR "/b" SHKV_IODB_SUFFIX, &st) == 0;
}

// The newest event of the store's ring: its id, and its value.
std::pair<uint32_t, uint32_t> event_of(int handle)
{
    last_event event(sn_of(handle));
    return {event.code & 0xffffff, event.arg};
}

struct Batch : testing::TestWithParam<uint32_t> {
    int db = make_store("b", GetParam(), 100);
    ~Batch()
    {
        shkv_destroy(db); // a log that was left goes with nobody
        if (int log = open_store("b" SHKV_IODB_SUFFIX, SHKV_AM_WRITE))
            shkv_destroy(log);
    }
    void reopen()
    {
        shkv_close(db);
        db = open_store("b", SHKV_AM_WRITE);
        ASSERT_NE(0, db);
    }
};
INSTANTIATE_TEST_SUITE_P(, Batch, testing::Values(CONF_FIXEDMM, CONF_VECTORMM), [](const auto &info) {
    return info.param == CONF_FIXEDMM ? "fixed" : "vector";
});

TEST_P(Batch, whole_batches_leave_no_log)
{
    strings keys, vals;
    for (int i = 0; i < 32; i++) {
        keys.push_back("key" + std::to_string(i));
        vals.push_back(std::to_string(i));
    }
    ASSERT_EQ(0, put(db, "key3", "old"));
    contents all;
    for (uint16_t atomic : {0, 1}) {
        ASSERT_EQ(0, batch(db, keys, vals, atomic));
        EXPECT_EQ(32u, iterate_all(db).size());
        EXPECT_EQ("3", iterate_all(db)["key3"]);
        ASSERT_EQ(0, batch(db, {"key1"}, {"one"}, atomic));
        ASSERT_EQ(0, batch(db, {"key0", "absent", "key1", "key0"}, {}, (uint16_t)(atomic | 0x10)));
        EXPECT_EQ(30u, iterate_all(db).size());
        EXPECT_EQ(0u, sn_of(db)->iodb_mark);
        EXPECT_FALSE(log_exists());
    }
    reg_rec rec;
    EXPECT_EQ(ENOENT, check_shkv_uri("b" SHKV_IODB_SUFFIX, &rec));
    EXPECT_EQ("", faults_of("b"));
}

TEST(BatchArguments, each_refusal_has_its_value_and_its_event)
{
    const shkv_buf keys[33] = {{(void *)"k", 1}}, vals[33] = {};
    int db = make_store("b", CONF_FIXEDMM, 100), multi = make_store("m", CONF_FIXEDMM | CONF_MULTIWR, 100);
    int reader = open_store("b", SHKV_AM_READ);
    const struct {
        int handle;
        const shkv_buf *keys, *vals;
        uint16_t cnt, opflg;
        int result;
        uint32_t event; // 0: none
    } cases[] = {
        {0, keys, vals, 1, 0, EBADF, 0},          {multi, keys, vals, 1, 0, EINVAL, 0},
        {reader, keys, vals, 1, 0, EINVAL, 0xB5}, {db, nullptr, vals, 1, 0, EINVAL, 0xB7},
        {db, keys, nullptr, 1, 0, EINVAL, 0xB7},  {db, keys, nullptr, 1, 1, EINVAL, 0xB7},
        {db, keys, vals, 0, 0, EINVAL, 0xB8},     {db, keys, vals, 33, 1, EINVAL, 0xB8},
        {db, keys, vals, 1, 2, EINVAL, 0},        {db, keys, vals, 1, 0x31, EINVAL, 0},
        {db, keys, nullptr, 1, 0x10, 0, 0},       {db, keys, nullptr, 1, 0x11, 0, 0},
    };
    for (const auto &c : cases) {
        trace_ring *ring = (trace_ring *)shkv_get_trbuf(sn_of(db));
        uint16_t before = ring->index;
        EXPECT_EQ(c.result, shkv_m_add(c.handle, c.keys, c.vals, c.cnt, c.opflg));
        if (c.event)
            EXPECT_EQ(event_of(db), (std::pair{c.event, (uint32_t)c.handle}));
        else
            EXPECT_EQ(before, ring->index);
    }
    sn_of(db)->sn_flg |= SN_DBG_WR;
    EXPECT_EQ(EINVAL, shkv_m_delete(db, keys, 1, 0));
    EXPECT_EQ(0xB6u, event_of(db).first);
    EXPECT_EQ(EBADF, shkv_start_rollback(33));
    EXPECT_EQ(EINVAL, shkv_start_rollback(reader));
    shkv_close(reader);
    shkv_destroy(db);
    shkv_destroy(multi);
}

TEST_P(Batch, plain_batch_keeps_what_came_before_the_failure)
{
    std::string too_long(65001, 'x');
    EXPECT_EQ(EINVAL, batch(db, {"a", "b", "c"}, {"1", too_long, "3"}, 0));
    EXPECT_EQ(event_of(db), (std::pair{0xB9u, 22u}));
    EXPECT_EQ((contents{{"a", "1"}}), iterate_all(db));
    EXPECT_EQ(0u, sn_of(db)->iodb_mark);
}

TEST_P(Batch, failed_atomic_batch_is_undone_and_its_log_dropped_by_the_next)
{
    const contents before = {{"old", "1"}, {"gone", "2"}};
    for (const auto &[key, val] : before)
        ASSERT_EQ(0, put(db, key, val));
    std::string too_long(65001, 'x');
    EXPECT_EQ(EINVAL, batch(db, {"new", "old", "bad"}, {"n", "o", too_long}, 1));
    EXPECT_EQ(event_of(db), (std::pair{0xBDu, 22u}));
    EXPECT_EQ(before, iterate_all(db));
    EXPECT_EQ(IODB_ADDS, sn_of(db)->iodb_mark);
    EXPECT_TRUE(log_exists());

    ASSERT_EQ(0, put(db, "old", "newer")); // the next batch does not replay the log over this
    ASSERT_EQ(0, batch(db, {"gone"}, {}, 0x11));
    EXPECT_EQ((contents{{"old", "newer"}}), iterate_all(db));
    EXPECT_EQ(0u, sn_of(db)->iodb_mark);
    EXPECT_FALSE(log_exists());
    EXPECT_EQ("", faults_of("b"));
}

// A key with an empty value looks in the log like one that was not there.
TEST_P(Batch, undo_of_adds_deletes_a_key_whose_old_value_was_empty)
{
    ASSERT_EQ(0, put(db, "empty", ""));
    EXPECT_EQ(EINVAL, batch(db, {"empty", "bad"}, {"x", std::string(65001, 'x')}, 1));
    EXPECT_EQ(contents(), iterate_all(db));
}

// The next write open puts back what the log says, over newer writes as well; a read open nothing.
TEST_P(Batch, left_over_log_is_replayed_by_the_next_write_open)
{
    ASSERT_EQ(0, put(db, "old", "1"));
    EXPECT_EQ(EINVAL, batch(db, {"old", "new", "bad"}, {"o", "n", std::string(65001, 'x')}, 1));
    ASSERT_EQ(0, put(db, "old", "2")); // as if the batch had been cut here
    ASSERT_EQ(0, put(db, "new", "3"));
    shkv_close(db);
    int reader = open_store("b", SHKV_AM_READ);
    EXPECT_EQ(IODB_ADDS, sn_of(reader)->iodb_mark);
    EXPECT_EQ(EINVAL, shkv_start_rollback(reader));
    EXPECT_EQ(EINVAL, batch(reader, {"k"}, {"v"}, 1));
    EXPECT_TRUE(log_exists());
    shkv_close(reader);
    db = open_store("b", SHKV_AM_WRITE);
    EXPECT_EQ((contents{{"old", "1"}}), iterate_all(db));
    EXPECT_EQ(0u, sn_of(db)->iodb_mark);
    EXPECT_FALSE(log_exists());
    EXPECT_EQ("", faults_of("b"));
}

// A batch of deletes cannot have made a key, so its undo deletes none.
TEST_P(Batch, undo_of_deletes_restores_and_never_deletes)
{
    ASSERT_EQ(0, put(db, "a", "1"));
    EXPECT_EQ(EINVAL, batch(db, {"a", "absent", std::string(2049, 'k')}, {}, 0x11)); // the log refuses the last
    EXPECT_EQ(IODB_DELS, sn_of(db)->iodb_mark);
    ASSERT_EQ(0, del(db, "a")); // as if the batch had gone on and been cut
    ASSERT_EQ(0, put(db, "absent", "now"));
    reopen();
    EXPECT_EQ((contents{{"a", "1"}, {"absent", "now"}}), iterate_all(db));
}

TEST_P(Batch, mark_without_a_log_is_cleared_and_a_log_without_a_mark_is_in_the_way)
{
    sn_of(db)->iodb_mark = IODB_ADDS;
    reopen();
    EXPECT_EQ(0u, sn_of(db)->iodb_mark);
    sn_of(db)->iodb_mark = IODB_DELS; // the batch meets it itself
    EXPECT_EQ(0, batch(db, {"a"}, {"1"}, 1));
    EXPECT_EQ(0u, sn_of(db)->iodb_mark);

    int log = make_store("b" SHKV_IODB_SUFFIX, GetParam(), 32);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(EEXIST, batch(db, {"a"}, {"2"}, 1));
        EXPECT_EQ(event_of(db), (std::pair{0xBAu, (uint32_t)EEXIST}));
        EXPECT_EQ(0u, sn_of(db)->iodb_mark);
    }
    EXPECT_EQ((contents{{"a", "1"}}), iterate_all(db));
    shkv_destroy(log);
}

TEST_P(Batch, unreadable_old_value_stops_it_before_any_change)
{
    ASSERT_EQ(0, put(db, "a", "1"));
    ud_map *map = shkv_db_heads[db - 1].ud1_map;
    for (uint32_t i = 2; i < 4; i++) // behind the two sentinels
        ((udn *)((char *)map->map[0] + 256 + i * ((sbm *)map->map[0])->dn_sz))->cksum ^= 0xff;
    EXPECT_EQ(EINVAL, batch(db, {"b", "a"}, {"2", "2"}, 1));
    EXPECT_EQ(event_of(db), (std::pair{0xBBu, 22u}));
    EXPECT_EQ(IODB_ADDS, sn_of(db)->iodb_mark);
    std::string got;
    EXPECT_EQ(ENOENT, get(db, "b", &got));
}

// Of 32 log records 31 are replayed: the last one in the log's bucket order stays undone.
TEST_P(Batch, undo_stops_after_31_records)
{
    strings keys, vals(31, "v");
    for (int i = 0; i < 31; i++)
        keys.push_back("key" + std::to_string(i));
    keys.push_back("bad");
    vals.push_back(std::string(65001, 'x'));
    EXPECT_EQ(EINVAL, batch(db, keys, vals, 1));
    int log = open_store("b" SHKV_IODB_SUFFIX, SHKV_AM_WRITE);
    std::string last;
    char room[16], val_room[40];
    ASSERT_EQ(0, shkv_iterate(log, nullptr, nullptr, nullptr, 1));
    for (int i = 0; i < 32; i++) {
        shkv_buf key = {room, sizeof room}, val = {val_room, sizeof val_room};
        ASSERT_EQ(0, shkv_iterate(log, &key, &val, nullptr, 0));
        last.assign(room, key.len);
    }
    EXPECT_EQ(last == "bad" ? contents() : (contents{{last, "v"}}), iterate_all(db));
}

} // namespace
