// Transactions in one process: what the writer sees, what everyone else sees, and what is left.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/store.h"

namespace {

struct form {
    const char *name;
    uint32_t conf_flg;
};
const form FORMS[] = {{"fixed", CONF_FIXEDMM},
                      {"vector", CONF_VECTORMM},
                      {"shmap", CONF_VECTORMM | CONF_SHMAP},
                      {"protected", CONF_FIXEDMM | CONF_L3}};

uint32_t flags_of(int handle)
{
    return shkv_db_heads[handle - 1].sn->comm_flg;
}

class Txn : public testing::TestWithParam<form> {
};
INSTANTIATE_TEST_SUITE_P(, Txn, testing::ValuesIn(FORMS), [](const auto &info) { return info.param.name; });

void expect_same(int handle, const contents &want, int keys)
{
    for (int i = 0; i < keys; i++) {
        std::string key = "key" + std::to_string(i), got;
        auto it = want.find(key);
        ASSERT_EQ(it == want.end() ? ENOENT : 0, get(handle, key, &got)) << key;
        ASSERT_EQ(it == want.end() ? "" : it->second, got) << key;
    }
}

// a, b: add K with that value; d: delete K. K is "old" before it, or absent.
const struct sequence {
    const char *what, *ops, *before, *after; // null: absent
} SEQUENCES[] = {
    {"add", "a", nullptr, "a"},          {"add twice", "ab", nullptr, "b"},
    {"add, delete", "ad", nullptr, nullptr}, {"add, delete twice", "add", nullptr, nullptr},
    {"add, delete, add", "adb", nullptr, "b"}, {"replace", "a", "old", "a"},
    {"delete", "d", "old", nullptr},     {"delete, add", "da", "old", "a"},
    {"replace, delete", "ad", "old", nullptr}, {"delete twice", "dd", "old", nullptr},
    {"nothing", "", "old", "old"},
};

TEST_P(Txn, commit_and_abort_leave_one_record_or_none)
{
    int writer = make_store("seq", GetParam().conf_flg, 100);
    for (bool commit : {true, false})
        for (const sequence &seq : SEQUENCES) {
            SCOPED_TRACE(seq.what);
            ASSERT_TRUE(seq.before ? put(writer, "K", seq.before) == 0 : del(writer, "K") >= 0);
            ASSERT_EQ(0, shkv_txn_start(writer, nullptr));
            for (const char *op = seq.ops; *op; op++)
                ASSERT_EQ(0, *op == 'd' ? del(writer, "K") : put(writer, "K", std::string(1, *op)));
            ASSERT_EQ(0, commit ? shkv_txn_commit(writer, nullptr) : shkv_txn_abort(writer));
            const char *want = commit ? seq.after : seq.before;
            EXPECT_EQ(want ? (contents{{"K", want}}) : contents(), iterate_all(writer));
            EXPECT_EQ("", faults_of("seq"));
        }
}

// Growth inside puts the table's rebuild off: it would write the links that staged chains borrow. A
// second start must not run it either.
TEST_P(Txn, growth_inside_puts_the_rebuild_off_to_the_end)
{
    for (bool commit : {true, false}) {
        int writer = make_store("grow", GetParam().conf_flg, 100);
        const supernode *sn = shkv_db_heads[writer - 1].sn;
        uint32_t ud_sz = sn->ud1.obj_sz;
        ASSERT_EQ(0, shkv_txn_start(writer, nullptr));
        contents staged;
        for (int i = 0; i < 1000; i++) {
            std::string key = "key" + std::to_string(i);
            ASSERT_EQ(0, put(writer, key, staged[key] = std::to_string(i)));
        }
        EXPECT_LT(ud_sz, sn->ud1.obj_sz);
        EXPECT_TRUE(flags_of(writer) & (CF_REFILL1 | CF_REFILL2));
        EXPECT_TRUE(flags_of(writer) & CF_MD1);
        EXPECT_EQ(EEXIST, shkv_txn_start(writer, nullptr));
        expect_same(writer, staged, 1000);
        ud_sz = sn->ud1.obj_sz;
        ASSERT_EQ(0, commit ? shkv_txn_commit(writer, nullptr) : shkv_txn_abort(writer));
        EXPECT_EQ(ud_sz, sn->ud1.obj_sz);
        EXPECT_EQ(CF_MD2 | CF_UD1, flags_of(writer));
        EXPECT_EQ(commit ? staged : contents(), iterate_all(writer));
        EXPECT_EQ("", faults_of("grow"));
        shkv_destroy(writer);
    }
}

// Makes the two stores of a commit that was cut right behind them: the staged record K is in its
// chain, its bucket has not moved on. Fixed and vector stores whose MD1 is in force.
uint32_t link_staged(int writer, const std::string &name)
{
    shkv_head *head = &shkv_db_heads[writer - 1];
    char *ud = (char *)head->ud1_map->map[0];
    uint32_t hash = head->md1.hash_fn(name.data(), (uint32_t)name.size());
    uint32_t off = head->md_txn.base[hash % head->sn->md_txn.hashsz].first_ptr;
    udn *staged = (udn *)(ud + off);
    uint32_t *way = &head->md1.base[hash % head->sn->md1.hashsz].first_ptr;
    udn *old = *way ? (udn *)(ud + *way) : nullptr; // the only record of its bucket, if any
    staged->md1_next = old ? old->md1_next : 0;
    *way = off;
    head->sn->comm_flg |= CF_TXN_COMMIT;
    return off;
}

uint32_t first_of(int handle, const std::string &name)
{
    shkv_head *head = &shkv_db_heads[handle - 1];
    return head->md1.base[head->md1.hash_fn(name.data(), (uint32_t)name.size()) % head->sn->md1.hashsz].first_ptr;
}

TEST_P(Txn, resumed_commit_takes_a_linked_record_off_the_hold_list)
{
    for (bool replaces : {false, true}) {
        int writer = make_store("cut", GetParam().conf_flg, 100);
        const std::string value(GetParam().conf_flg & CONF_FIXEDMM ? 40 : 700, 'v');
        ASSERT_TRUE(!replaces || put(writer, "K", "old") == 0);
        ASSERT_EQ(0, shkv_txn_start(writer, nullptr));
        ASSERT_EQ(0, put(writer, "K", value));
        ASSERT_EQ(0, put(writer, "L", value));
        shkv_close(writer);
        writer = open_store("cut", SHKV_AM_WRITE); // anew: a protected store is writable to us now
        uint32_t off = link_staged(writer, "K");
        shkv_close(writer);
        writer = open_store("cut", SHKV_AM_WRITE);
        EXPECT_EQ(CF_MD1 | CF_UD1, flags_of(writer));
        EXPECT_NE(off, first_of(writer, "K"));
        EXPECT_EQ((contents{{"K", value}, {"L", value}}), iterate_all(writer));
        // The record that was replaced is lost to the store when the commit is cut there.
        EXPECT_EQ("", faults_of("cut", !replaces));
        for (int i = 0; i < 300; i++) { // what waited on the hold list is handed out anew
            ASSERT_EQ(0, put(writer, "churn", std::to_string(i)));
            if (i % 20 == 19)
                usleep(10000);
        }
        EXPECT_EQ((contents{{"K", value}, {"L", value}, {"churn", "299"}}), iterate_all(writer));
        shkv_destroy(writer);
    }
}

TEST(TxnResumed, without_space_for_a_copy_the_record_stays_as_it_is)
{
    int writer = make_store("full", CONF_FIXEDMM, 100);
    shkv_opts opts = {0, 0, 0};
    ASSERT_EQ(0, shkv_db_set_opts(writer, 1, &opts));
    ASSERT_EQ(0, shkv_txn_start(writer, nullptr));
    for (int i = 0, result = 0; result == 0; i++)
        ASSERT_TRUE((result = put(writer, "key" + std::to_string(i), "v")) == 0 || result == ENOMEM);
    uint32_t off = link_staged(writer, "key0");
    shkv_close(writer);
    writer = open_store("full", SHKV_AM_WRITE);
    EXPECT_EQ(off, first_of(writer, "key0"));
    std::string got;
    EXPECT_EQ(0, get(writer, "key0", &got));
    EXPECT_EQ("v", got);
    shkv_destroy(writer);
}

TEST(TxnStart, finishes_the_rebuild_that_is_under_way)
{
    int writer = make_store("slices", CONF_FIXEDMM, 100);
    shkv_head *head = &shkv_db_heads[writer - 1];
    head->sn->rz_tm_chk = 1;
    for (int i = 0; head->refill_pos == 0; i++)
        ASSERT_EQ(0, put(writer, "key" + std::to_string(i), "v"));
    EXPECT_TRUE(flags_of(writer) & CF_REFILL2);
    ASSERT_EQ(0, shkv_txn_start(writer, nullptr));
    EXPECT_EQ(CF_MD2 | CF_UD1 | CF_TXN, flags_of(writer));
    ASSERT_EQ(0, shkv_txn_commit(writer, nullptr));
    EXPECT_EQ("", faults_of("slices"));
}

} // namespace
