// Batches: what is applied, what a failure or a crash leaves, and what becomes of the log.
#include <sys/resource.h>

#include "support/kv.h"

namespace {

using strings = std::vector<std::string>;

struct Batch : testing::TestWithParam<uint32_t> {
    kv db = {make_store("b", GetParam(), 100)};

    int batch(const strings &keys, const strings &vals, uint16_t opflg)
    {
        return shkv_m_add(db.handle, bufs_of(keys).data(), vals.empty() ? nullptr : bufs_of(vals).data(),
                          (uint16_t)keys.size(), opflg);
    }
    void reopen()
    {
        shkv_close(db.handle);
        db = open_kv("b", SHKV_AM_WRITE);
    }
    // The log is there, and the store says so.
    void expect_log(uint32_t mark)
    {
        EXPECT_EQ(db.sn()->iodb_mark, mark);
        EXPECT_EQ(all_objects().count(SHKV_DB_DIR "/b" SHKV_IODB_SUFFIX), mark != 0);
    }
    void expect_event(uint32_t code, int value)
    {
        last_event event(db.sn());
        EXPECT_TRUE((event.code & 0xffffff) == code && event.arg == (uint32_t)value) << std::hex << event.code;
    }
};
INSTANTIATE_TEST_SUITE_P(, Batch, testing::Values(CONF_FIXEDMM, CONF_VECTORMM), [](const auto &info) {
    return info.param == CONF_FIXEDMM ? "fixed" : "vector";
});

// Without descriptors for the log it is there all the same, and the batch is put back later.
TEST_P(Batch, a_rollback_without_descriptors_is_made_by_a_later_open)
{
    ASSERT_EQ(0, db.add("a", "old"));
    EXPECT_EQ(EINVAL, batch({"a", "bad"}, {"new", std::string(65001, 'x')}, 1));
    ASSERT_EQ(0, db.add("a", "cut"));
    shkv_close(db.handle);
    for (int left = 1; left < 12; left++) // the store itself takes five
        in_child([=] {
            const int next = dup(0);
            close(next);
            const rlimit few = {(rlim_t)(next + left), 1024};
            EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
            open_store("b", SHKV_AM_WRITE);
            return 0;
        });
    db = open_kv("b", SHKV_AM_WRITE);
    EXPECT_EQ("old", db.at("a"));
    EXPECT_EQ(0u, db.sn()->iodb_mark);
}

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
        {{{"old", "1"}, {"kept", "2"}}, {"old", "new", "bad"}, {"o", "n", too_long}, {{"old", "2"}, {"new", "3"}},
         {{"old", "1"}, {"kept", "2"}}, {{"old", "1"}, {"kept", "2"}}},
        // A key with an empty value looks in the log like one that was not there.
        {{{"empty", ""}}, {"empty", "bad"}, {"x", too_long}, {}, {}, {}},
        // A batch of deletes cannot have made a key, so its undo deletes none. The log refuses the last one.
        {{{"a", "1"}}, {"a", "absent", long_key}, {}, {{"a", "-"}, {"absent", "now"}},
         {{"a", "1"}}, {{"a", "1"}, {"absent", "now"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.keys[0]);
        for (const auto &[key, val] : db.all())
            ASSERT_EQ(0, db.del(key));
        for (const auto &[key, val] : c.before)
            ASSERT_EQ(0, db.add(key, val));
        EXPECT_EQ(EINVAL, batch(c.keys, c.vals, c.vals.empty() ? 0x11 : 1));
        if (!c.vals.empty())
            expect_event(0xBD, EINVAL);
        EXPECT_EQ(c.failed, db.all());
        for (const auto &[key, val] : c.newer)
            EXPECT_EQ(0, val == "-" ? db.del(key) : db.add(key, val));
        shkv_close(db.handle);
        db = open_kv("b", SHKV_AM_READ);
        EXPECT_EQ(EINVAL, shkv_start_rollback(db.handle));
        expect_log(c.vals.empty() ? IODB_DELS : IODB_ADDS);
        reopen();
        EXPECT_EQ(c.reopened, db.all());
        expect_log(0);
        EXPECT_EQ("", faults_of("b"));
    }
    EXPECT_EQ(EINVAL, batch({"new", "bad"}, {"n", too_long}, 1));
    ASSERT_EQ(0, db.add("new", "newer")); // the next batch drops the log and does not replay it over this
    ASSERT_EQ(0, batch({"a", "absent"}, {}, 0x11));
    EXPECT_EQ((contents{{"new", "newer"}}), db.all());
    expect_log(0);
    EXPECT_EQ(EINVAL, batch({"a", "b", "c"}, {"1", too_long, "3"}, 0)); // no log: what came before it stays
    expect_event(0xB9, EINVAL);
    EXPECT_EQ((contents{{"a", "1"}, {"new", "newer"}}), db.all());
}

TEST_P(Batch, mark_without_a_log_is_cleared_and_a_log_without_a_mark_is_in_the_way)
{
    db.sn()->iodb_mark = IODB_ADDS;
    reopen();
    expect_log(0);
    db.sn()->iodb_mark = IODB_DELS; // the batch meets it itself
    EXPECT_EQ(0, batch({"a"}, {"1"}, 1));
    expect_log(0);
    make_store("b" SHKV_IODB_SUFFIX, GetParam(), 32);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(EEXIST, batch({"a"}, {"2"}, 1));
        expect_event(0xBA, EEXIST);
        EXPECT_EQ(0u, db.sn()->iodb_mark);
    }
    EXPECT_EQ((contents{{"a", "1"}}), db.all());
}

TEST_P(Batch, unreadable_old_value_stops_it_before_any_change)
{
    ASSERT_EQ(0, db.add("a", "1"));
    db.first_of("a")->cksum ^= 0xff;
    EXPECT_EQ(EINVAL, batch({"b", "a"}, {"2", "2"}, 1));
    expect_event(0xBB, EINVAL);
    expect_log(IODB_ADDS);
    EXPECT_EQ("#2", db.at("b"));
}

// Of 32 log records 31 are replayed: the last one in the log's bucket order stays undone.
TEST_P(Batch, undo_stops_after_31_records)
{
    strings keys, vals(31, "v");
    for (int i = 0; i < 31; i++)
        keys.push_back(key_no(i));
    keys.push_back("bad");
    vals.push_back(std::string(65001, 'x'));
    EXPECT_EQ(EINVAL, batch(keys, vals, 1));
    int log = open_kv("b" SHKV_IODB_SUFFIX, SHKV_AM_WRITE).handle;
    char room[16];
    std::string last;
    shkv_iter_pos pos;
    ASSERT_EQ(0, shkv_iterate(log, nullptr, nullptr, nullptr, 1));
    for (int i = 0; i < 32; i++) {
        shkv_buf key = {room, sizeof room};
        ASSERT_EQ(0, shkv_iterate(log, &key, nullptr, &pos, 0));
        last.assign(room, key.len);
    }
    EXPECT_EQ(last == "bad" ? contents() : (contents{{last, "v"}}), db.all());
}

} // namespace
