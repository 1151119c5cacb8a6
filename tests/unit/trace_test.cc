// The trace ring: records, the wrap, strings.
#include <gtest/gtest.h>

#include "diag/fail.h"
#include "diag/trace.h"

struct ring : testing::Test {
    alignas(8) char buf[80 + 4 * 16 + 15]; // room for four records
    trace_ring *head = (trace_ring *)buf;
    trace_rec *recs = (trace_rec *)(buf + 80);

    void make(int size, int locked)
    {
        memset(buf, 0x55, sizeof buf);
        ASSERT_EQ(shtrace_init(buf, size, locked), 1);
    }
    void TearDown() override { shtrace_fini(buf); }
};

TEST_F(ring, keeps_the_last_records_and_no_pair_is_torn_at_the_wrap)
{
    make(sizeof buf, 1);
    EXPECT_EQ(fail(buf, 0x62, 5, 22, nullptr), 22);
    EXPECT_EQ(fail(buf, 0, 6, 9, nullptr), 9); // no event
    EXPECT_EQ(fail(nullptr, 0x62, 7, 9, nullptr), 9);
    EXPECT_EQ(head->index, 1);
    EXPECT_TRUE(recs[0].code == 0x01000062 && recs[0].arg == 5 && recs[0].tsc > head->start_tsc);
    trace_one(buf, 0x10, 1);
    trace_one(buf, 0x11, 2);
    EXPECT_EQ(fail_pair(buf, 0x70, 300, 2048, 12, nullptr), 12);
    EXPECT_EQ(head->index, 1);
    EXPECT_TRUE(recs[3].code == 0x03000070 && recs[3].arg == 300 && recs[3].tsc > recs[2].tsc);
    EXPECT_TRUE(recs[0].code == 0x04000070 && recs[0].arg == 2048 && recs[0].tsc == 0);
    trace_pair(buf, 0x71, 1, 2, 0xfffffff3);
    EXPECT_EQ(recs[2].tsc, 0xfffffff3ull); // a third value takes the first word alone
    make(96, 0);
    trace_pair(buf, 0x70, 1, 2, 0);
    EXPECT_TRUE(head->index == 0 && recs[0].code == 0x04000070);
    head->index = 1; // another process's store, out of range
    trace_one(buf, 0x12, 9);
    EXPECT_TRUE(head->index == 0 && recs[0].code == 0x01000012 && recs[1].code == 0x55555555); // nothing behind the buffer
}

TEST_F(ring, strings_keep_their_last_twelve_bytes)
{
    const struct { const char *text, *want; size_t len; } cases[] = {
        {"0123456789abc", "123456789abc", 12}, {"0123456789ab", "0123456789ab", 12}, {"ab", "ab\0#", 4}, {"", "\0#", 2}};
    for (const auto &each : cases) {
        make(80 + 32, 1);
        memset(recs, '#', 32);
        shtrace_str(buf, 0xabcdef, 7, each.text);
        EXPECT_TRUE(recs[0].code == 0x0babcdef && recs[0].arg == 7 && recs[1].code == 0x0cabcdef);
        EXPECT_EQ(memcmp(&recs[1].arg, each.want, each.len), 0) << each.text;
        EXPECT_EQ(head->index, 0);
    }
    shtrace_str(nullptr, 1, 2, "x");
    EXPECT_EQ(shtrace_init(buf, 95, 1), 0); // no room for one
    EXPECT_EQ(shtrace_init(nullptr, 4096, 1), 0);
}
