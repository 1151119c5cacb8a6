// Transactions in one process: what the writer sees, what everyone else sees, and what is left.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/mount.h>
#include <unistd.h>

#include "support/main.h"
#include "support/store.h"

namespace {

struct form {
    const char *name;
    uint32_t conf_flg;
    int max_val;
};
const form FORMS[] = {{"fixed", CONF_FIXEDMM, 40},
                      {"vector", CONF_VECTORMM, 700},
                      {"shmap", CONF_VECTORMM | CONF_SHMAP, 700},
                      {"protected", CONF_FIXEDMM | CONF_L3, 40}};

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

// Random adds, deletes and lookups against two maps; the space grows several times inside.
TEST_P(Txn, writer_sees_what_is_staged_and_readers_what_is_committed)
{
    constexpr int KEYS = 1500;
    std::mt19937 rnd(7);
    int writer = make_store("random", GetParam().conf_flg, 60), reader = open_store("random", SHKV_AM_READ);
    ASSERT_TRUE(writer && reader);
    contents committed;
    for (int round = 0; round < 12; round++) {
        contents staged = committed;
        uint32_t est = rnd() % 2000;
        ASSERT_EQ(0, shkv_txn_start(writer, rnd() % 2 ? &est : nullptr));
        for (int i = 0, ops = (int)(rnd() % 900); i < ops; i++) {
            std::string key = "key" + std::to_string(rnd() % KEYS), got;
            if (rnd() % 3) {
                staged[key] = std::string(rnd() % (uint32_t)GetParam().max_val, (char)('a' + rnd() % 26));
                ASSERT_EQ(0, put(writer, key, staged[key]));
            } else if (staged.erase(key)) {
                ASSERT_EQ(0, del(writer, key));
            }
            ASSERT_EQ(staged.count(key) ? 0 : ENOENT, get(writer, key, &got));
            ASSERT_EQ(committed.count(key) ? 0 : ENOENT, get(reader, key, &got));
        }
        expect_same(writer, staged, KEYS);
        expect_same(reader, committed, KEYS);
        EXPECT_EQ(committed, iterate_all(writer));
        if (rnd() % 3) {
            ASSERT_EQ(0, shkv_txn_commit(writer, nullptr));
            committed = staged;
        } else {
            ASSERT_EQ(0, shkv_txn_abort(writer));
        }
        EXPECT_EQ(0u, flags_of(writer) & (CF_TXN | CF_TXN_COMMIT | CF_REFILL1 | CF_REFILL2));
        expect_same(writer, committed, KEYS);
        expect_same(reader, committed, KEYS);
        ASSERT_EQ("", faults_of("random")) << "round " << round;
    }
    shkv_close(reader);
    shkv_destroy(writer);
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
    for (bool commit : {true, false}) {
        for (const sequence &seq : SEQUENCES) {
            SCOPED_TRACE(seq.what);
            int writer = make_store("seq", GetParam().conf_flg, 100);
            for (int i = 0; i < 5; i++)
                ASSERT_EQ(0, put(writer, "other" + std::to_string(i), "x"));
            ASSERT_TRUE(!seq.before || put(writer, "K", seq.before) == 0);
            ASSERT_EQ(0, shkv_txn_start(writer, nullptr));
            for (const char *op = seq.ops; *op; op++)
                ASSERT_EQ(0, *op == 'd' ? del(writer, "K") : put(writer, "K", std::string(1, *op)));
            ASSERT_EQ(0, commit ? shkv_txn_commit(writer, nullptr) : shkv_txn_abort(writer));
            const char *want = commit ? seq.after : seq.before;
            std::string got;
            EXPECT_EQ(want ? 0 : ENOENT, get(writer, "K", &got));
            EXPECT_EQ(want ? want : "", got);
            EXPECT_EQ(want ? 6u : 5u, iterate_all(writer).size());
            EXPECT_EQ("", faults_of("seq"));
            shkv_destroy(writer);
        }
    }
}

TEST(TxnStart, table_is_sized_by_the_estimate)
{
    const struct {
        bool null;
        uint32_t est, hashsz;
    } cases[] = {{true, 0, 443},    {false, 0, 443},   {false, 511, 443},      {false, 512, 443},
                 {false, 885, 443}, {false, 886, 883}, {false, 100000, 56197}, {false, 0x80000000u, 443}};
    // 50 times the last one is 0 in 32 bits.
    int writer = make_store("est", CONF_FIXEDMM, 100);
    const md_desc *desc = &shkv_db_heads[writer - 1].sn->md_txn;
    for (const auto &c : cases) {
        ASSERT_EQ(0, shkv_txn_start(writer, c.null ? nullptr : &c.est));
        EXPECT_EQ(c.hashsz, desc->hashsz);
        EXPECT_EQ(c.hashsz * 8, desc->obj_sz);
        ASSERT_EQ(0, shkv_txn_commit(writer, nullptr));
        EXPECT_EQ(0u, desc->obj_sz);
    }
    shkv_destroy(writer);
}

TEST(TxnStart, calls_that_are_refused_change_nothing)
{
    int multi = make_store("multi", CONF_FIXEDMM | CONF_MULTIWR, 100);
    int writer = make_store("single", CONF_FIXEDMM, 100), reader = open_store("single", SHKV_AM_READ);
    for (int bad : {0, 33, -1}) {
        EXPECT_EQ(EBADF, shkv_txn_start(bad, nullptr));
        EXPECT_EQ(EBADF, shkv_txn_commit(bad, nullptr));
        EXPECT_EQ(EBADF, shkv_txn_abort(bad));
        EXPECT_EQ(0, shkv_txn_is_active(bad));
    }
    EXPECT_EQ(EBADF, shkv_txn_start(multi, nullptr));
    for (int handle : {writer, reader}) { // outside a transaction
        EXPECT_EQ(0, shkv_txn_commit(handle, nullptr));
        EXPECT_EQ(0, shkv_txn_abort(handle));
    }
    EXPECT_EQ(EINVAL, shkv_txn_start(reader, nullptr));
    EXPECT_EQ(0, shkv_txn_is_active(writer));

    ASSERT_EQ(0, shkv_txn_start(writer, nullptr));
    ASSERT_EQ(0, put(writer, "K", "staged"));
    EXPECT_EQ(EEXIST, shkv_txn_start(writer, nullptr));
    EXPECT_EQ(EEXIST, shkv_txn_start(reader, nullptr));
    EXPECT_EQ(EINVAL, shkv_txn_commit(reader, nullptr));
    EXPECT_EQ(EINVAL, shkv_txn_abort(reader));
    EXPECT_EQ(1, shkv_txn_is_active(reader));
    std::string got;
    EXPECT_EQ(0, get(writer, "K", &got));
    shkv_buf key = {(void *)"K", 1}, lite;
    EXPECT_EQ(ENOENT, shkv_lookup_lite(writer, &key, &lite));
    EXPECT_EQ(ENOENT, del(writer, "absent"));
    ASSERT_EQ(0, shkv_txn_commit(writer, nullptr));
    EXPECT_EQ("", faults_of("single"));
    shkv_close(reader);
    shkv_destroy(writer);
    shkv_destroy(multi);
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

TEST(TxnSurvives, the_next_writer_finds_itself_inside)
{
    for (bool commit : {true, false}) {
        int writer = make_store("left", CONF_VECTORMM, 100);
        ASSERT_EQ(0, put(writer, "old", "1"));
        shkv_close(writer);
        in_child([] { // dies with the transaction open
            int handle = open_store("left", SHKV_AM_WRITE);
            return handle && !shkv_txn_start(handle, nullptr) && !put(handle, "new", "2") && !del(handle, "old") ? 0
                                                                                                                 : 1;
        });
        int reader = open_store("left", SHKV_AM_READ);
        writer = open_store("left", SHKV_AM_WRITE);
        ASSERT_TRUE(reader && writer);
        EXPECT_EQ(1, shkv_txn_is_active(writer));
        EXPECT_EQ(EEXIST, shkv_txn_start(writer, nullptr));
        ASSERT_EQ(0, put(writer, "more", "3"));
        EXPECT_EQ((contents{{"old", "1"}}), iterate_all(writer));
        std::string got;
        EXPECT_EQ(ENOENT, get(reader, "new", &got));
        ASSERT_EQ(0, commit ? shkv_txn_commit(writer, nullptr) : shkv_txn_abort(writer));
        EXPECT_EQ(commit ? (contents{{"new", "2"}, {"more", "3"}}) : (contents{{"old", "1"}}), iterate_all(writer));
        EXPECT_EQ("", faults_of("left"));
        shkv_close(reader);
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
        const std::string value((size_t)GetParam().max_val, 'v');
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

// The memory of the table is asked for at the start: a later store into it has no guard.
TEST(TxnStart, a_full_file_system_refuses_the_transaction)
{
    on_fresh_machine("3m", [] {
        int writer = make_store("tight", CONF_FIXEDMM, 100);
        uint32_t est = 1000000; // a table of 7 MB
        EXPECT_EQ(ENOMEM, shkv_txn_start(writer, &est));
        EXPECT_EQ(0, shkv_txn_is_active(writer));
        EXPECT_EQ(0u, shkv_db_heads[writer - 1].sn->md_txn.obj_sz);
        EXPECT_EQ(nullptr, shkv_db_heads[writer - 1].md_txn.base);
        EXPECT_EQ(0, shkv_txn_start(writer, nullptr));
        EXPECT_EQ(0, put(writer, "K", "v"));
        EXPECT_EQ(0, shkv_txn_commit(writer, nullptr));
        EXPECT_EQ("", faults_of("tight"));
    });
}

} // namespace
