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

// A failed atomic batch is undone at once; the next write open puts back what its log says, over newer
// writes as well, as if the batch had been cut where it failed; a read open changes nothing.
TEST_P(Batch, failed_atomic_batches_are_undone_by_their_log)
{
    const std::string too_long(65001, 'x'), long_key(2049, 'k');
    const struct {
        contents before;
        strings keys, vals; // no values: deletes
        contents newer; // "-" deletes
        contents failed, reopened;
    } cases[] = {
        {{{"old", "1"}, {"gone", "2"}}, {"new", "old", "bad"}, {"n", "o", too_long}, {},
         {{"old", "1"}, {"gone", "2"}}, {{"old", "1"}, {"gone", "2"}}},
        {{{"old", "1"}}, {"old", "new", "bad"}, {"o", "n", too_long}, {{"old", "2"}, {"new", "3"}},
         {{"old", "1"}}, {{"old", "1"}}},
        // A key with an empty value looks in the log like one that was not there.
        {{{"empty", ""}}, {"empty", "bad"}, {"x", too_long}, {}, {}, {}},
        // A batch of deletes cannot have made a key, so its undo deletes none. The log refuses the last one.
        {{{"a", "1"}}, {"a", "absent", long_key}, {}, {{"a", "-"}, {"absent", "now"}},
         {{"a", "1"}}, {{"a", "1"}, {"absent", "now"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.keys[0]);
        for (const auto &[key, val] : iterate_all(db))
            ASSERT_EQ(0, del(db, key));
        for (const auto &[key, val] : c.before)
            ASSERT_EQ(0, put(db, key, val));
        EXPECT_EQ(EINVAL, batch(db, c.keys, c.vals, c.vals.empty() ? 0x11 : 1));
        EXPECT_TRUE(c.vals.empty() || event_of(db) == (std::pair{0xBDu, 22u}));
        EXPECT_EQ(c.failed, iterate_all(db));
        for (const auto &[key, val] : c.newer)
            EXPECT_EQ(0, val == "-" ? del(db, key) : put(db, key, val));
        shkv_close(db);
        int reader = open_store("b", SHKV_AM_READ);
        EXPECT_EQ(c.vals.empty() ? IODB_DELS : IODB_ADDS, sn_of(reader)->iodb_mark);
        EXPECT_EQ(EINVAL, shkv_start_rollback(reader));
        EXPECT_TRUE(log_exists());
        shkv_close(reader);
        reopen();
        EXPECT_EQ(c.reopened, iterate_all(db));
        EXPECT_TRUE(sn_of(db)->iodb_mark == 0 && !log_exists());
        EXPECT_EQ("", faults_of("b"));
    }
    EXPECT_EQ(EINVAL, batch(db, {"new", "bad"}, {"n", too_long}, 1));
    ASSERT_EQ(0, put(db, "new", "newer")); // the next batch drops the log and does not replay it over this
    ASSERT_EQ(0, batch(db, {"a", "absent"}, {}, 0x11));
    EXPECT_EQ((contents{{"new", "newer"}}), iterate_all(db));
    EXPECT_TRUE(sn_of(db)->iodb_mark == 0 && !log_exists());
    EXPECT_EQ(EINVAL, batch(db, {"a", "b", "c"}, {"1", too_long, "3"}, 0)); // no log: what came before it stays
    EXPECT_EQ(event_of(db), (std::pair{0xB9u, 22u}));
    EXPECT_EQ((contents{{"a", "1"}, {"new", "newer"}}), iterate_all(db));
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
