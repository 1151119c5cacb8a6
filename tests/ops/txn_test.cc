// Transactions in one process: what the writer sees, what everyone else sees, and what is left. Commits and
// aborts that were cut short are the crash explorer's.
#include <fcntl.h>

#include <random>

#include "shkv_intf/proc.h"
#include "support/kv.h"

// Any order of adds, replacements and deletes of a key leaves one record or none. A start finishes the rebuild
// that is under way. Growth inside puts the next one off: it would write the links that staged chains borrow.
// A second start must not run it either.
static void stage_much(uint32_t conf_flg, bool commit)
{
    kv writer = {make_store("staged", conf_flg, 100)};
    supernode *sn = writer.sn();
    contents before;
    // But for chunks, whose space has no room for a second growth.
    bool under_way = !(conf_flg & CONF_SHMAP);
    const uint32_t now = under_way ? CF_MD2 : CF_MD1, pending = under_way ? CF_REFILL2 : CF_REFILL1;
    sn->rz_tm_chk = 1;
    while (under_way ? writer.head()->refill_pos == 0 : before.size() < 30) {
        std::string key = key_no(before.size());
        ASSERT_EQ(0, writer.add(key, before[key] = "old"));
    }
    ASSERT_EQ(0, shkv_txn_start(writer.handle, nullptr));
    EXPECT_EQ(now | CF_UD1 | CF_TXN, sn->comm_flg);

    contents staged = before, met = before; // met: also what is deleted by now, and deleted once more without a word
    std::mt19937 random(7);
    uint32_t ud_sz = sn->ud1.obj_sz;
    for (unsigned step = 0; step < 1000 || sn->ud1.obj_sz == ud_sz; step++) {
        std::string key = key_no(step % 2 ? random() % 400 : step);
        if (random() % 3) {
            ASSERT_EQ(0, writer.add(key, met[key] = staged[key] = std::to_string(step)));
        } else {
            ASSERT_EQ(met.count(key) ? 0 : ENOENT, writer.del(key)) << key;
            staged.erase(key);
        }
    }
    EXPECT_EQ(now | CF_UD1 | CF_TXN | pending, sn->comm_flg);
    EXPECT_EQ(EEXIST, shkv_txn_start(writer.handle, nullptr));
    for (const auto &[key, value] : met)
        ASSERT_EQ(staged.count(key) ? staged[key] : "#2", writer.at(key));
    EXPECT_EQ(before, writer.all());
    ud_sz = sn->ud1.obj_sz;
    ASSERT_EQ(0, commit ? shkv_txn_commit(writer.handle, nullptr) : shkv_txn_abort(writer.handle));
    EXPECT_EQ(ud_sz, sn->ud1.obj_sz);
    EXPECT_EQ((now ^ CF_MD1 ^ CF_MD2) | CF_UD1, sn->comm_flg);
    EXPECT_EQ(commit ? staged : before, writer.all());
    EXPECT_EQ("", faults_of("staged"));
    EXPECT_EQ(0, shkv_destroy(writer.handle));
}

TEST(Txn, is_one_change_or_none_also_with_growth_inside)
{
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM, CONF_VECTORMM | CONF_SHMAP, CONF_FIXEDMM | CONF_L3})
        for (bool commit : {true, false}) {
            SCOPED_TRACE(conf_flg);
            stage_much(conf_flg, commit);
        }
}

// A debug writer beside this one has grown the store twice and left in the middle of a rebuild: nothing of it
// is mapped here yet.
TEST(Txn, a_start_finishes_the_rebuild_of_another_writer)
{
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM}) {
        kv writer = {make_store("others", conf_flg, 100)};
        writer.sn()->rz_tm_chk = 1;
        ASSERT_EQ(0, writer.add("own", "value"));
        in_child([] {
            uint32_t err = 0, grown = 0;
            kv other = {shkv_open("others", UUID_DEBUG, 0, SHKV_AM_WRITE | SHKV_AM_DBG, &err)};
            for (size_t i = 0; grown < 2 || other.head()->refill_pos == 0; i++) {
                uint32_t was = other.sn()->ud1.obj_sz;
                EXPECT_EQ(0, other.add(key_no(i), "value"));
                grown += other.sn()->ud1.obj_sz != was;
            }
            return shkv_close(other.handle);
        });
        ASSERT_TRUE(writer.sn()->comm_flg & (CF_REFILL1 | CF_REFILL2));
        EXPECT_EQ(0, shkv_txn_start(writer.handle, nullptr));
        EXPECT_EQ(CF_TXN, writer.sn()->comm_flg & (CF_TXN | CF_REFILL1 | CF_REFILL2));
        EXPECT_EQ(0, shkv_txn_abort(writer.handle));
        EXPECT_EQ("valuevalue", writer.at("own") + writer.at(key_no(0)));
        EXPECT_EQ("", faults_of("others"));
        EXPECT_EQ(0, shkv_destroy(writer.handle));
    }
}

// Staged adds do not look into the table in force, whose pages a full /dev/shm cannot give to the commit.
TEST(Txn, a_commit_without_memory_for_its_buckets_is_made_again)
{
    on_fresh_machine("8m", [] {
        kv store = {make_store("full", CONF_FIXEDMM, 20000)};
        ASSERT_EQ(0, shkv_txn_start(store.handle, nullptr));
        for (size_t i = 0; i < 100; i++)
            ASSERT_EQ(0, store.add(key_no(i), "value"));
        static const char page[4096] = {};
        int fd = open("/dev/shm/filler", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
        while (write(fd, page, sizeof page) == sizeof page)
            ;
        EXPECT_EQ(ENOMEM, shkv_txn_commit(store.handle, nullptr));
        EXPECT_EQ(CF_TXN, store.sn()->comm_flg & (CF_TXN | CF_TXN_COMMIT));
        const std::string other = "other";
        shkv_buf key = buf_of(other), val = {};
        EXPECT_EQ(ENOMEM, shkv_lookup_lite(store.handle, &key, &val));
        EXPECT_EQ(0u, out_of_actual_mem);
        EXPECT_EQ(0, ftruncate(fd, 0));
        EXPECT_EQ(0, shkv_txn_commit(store.handle, nullptr));
        EXPECT_EQ(100u, store.all().size());
        EXPECT_EQ("", faults_of("full"));
    });
}
