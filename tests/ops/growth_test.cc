#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include "shkv_intf/proc.h"
#include "shkv_intf/refill.h"
#include "shkv_intf/resize_md.h"
#include "shkv_intf/resize_ud.h"
#include "shkv_intf/sizing.h"
#include "support/kv.h"

namespace {

const shkv_params FIXED = {16, 32, 2000, CONF_FIXEDMM, 0};
const shkv_params SMALL = {16, 32, 100, CONF_FIXEDMM, 0};
const shkv_params SHMAP = {0, 0, 400, CONF_VECTORMM | CONF_SHMAP, 0};
constexpr uint32_t MB = 1u << 20;

// Makes a store's record space look as if it had grown to this size: sparse, and mapped whole.
void pretend_size(const kv &store, uint32_t size)
{
    ud_map *ud = store.head()->ud1_map;
    ASSERT_EQ(ftruncate(ud->fd, size), 0);
    munmap(ud->map[0], ud->mapped_sz);
    ud->map[0] = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, ud->fd, 0);
    ASSERT_NE(ud->map[0], MAP_FAILED);
    ud->mapped_sz = size;
    store.sn()->ud1.obj_sz = size;
    if (store.sn()->conf_flg & CONF_SHMAP)
        set_map0(store.head(), size);
}

} // namespace

TEST(growth, sizes_follow_the_steps_and_the_limits)
{
    const char *const MAXED = "Reached MAX database size. Failed to resize.";
    const char *const PER_UUID = "shkv_resize_ud failed due to memory limit per uuid ";
    const char *const NO_ROOM = "shkv_resize_ud failed ";
    const uint32_t G2 = 0x80000000u;
    const struct {
        bool shmap;
        uint32_t uuid, from, max_db, process, used;
        uint32_t to;      // size afterwards
        const char *line; // how the last line begins when it does not grow
    } cases[] = {
        {false, 7, 143360, G2, G2, 0, 286720, nullptr},
        {false, 7, 300 * MB - 4096, G2, G2, 0, 600 * MB - 8192, nullptr},
        {false, 7, 300 * MB, G2, G2, 0, 450 * MB, nullptr},
        {false, 7, 600 * MB - 4096, G2, G2, 0, 899 * MB - 4096, nullptr},
        {false, 7, 600 * MB, G2, G2, 0, 800 * MB, nullptr},
        {false, 7, 100 * MB, 120 * MB, G2, 0, 120 * MB, nullptr},
        {false, 7, 120 * MB, 120 * MB, G2, 0, 120 * MB, MAXED},
        {false, 7, 2 * MB, G2, 32 * MB, 31 * MB, 3 * MB, nullptr},
        {false, 7, 2 * MB, G2, 32 * MB, 32 * MB, 2 * MB, PER_UUID},
        {false, 0, 2 * MB, G2, 32 * MB, 32 * MB, 4 * MB, nullptr},
        {false, 0x186, 2 * MB, G2, 32 * MB, 40 * MB, 4 * MB, nullptr},
        {false, 0x21a, 2 * MB, G2, 32 * MB, 40 * MB, 4 * MB, nullptr},
        {true, 7, 31 * MB, G2, G2, 0, 32 * MB, nullptr},
        {true, 7, 32 * MB, G2, G2, 0, 64 * MB, nullptr},
        {true, 7, 130 * MB, G2, G2, 0, 256 * MB, nullptr},
        {true, 7, 32 * MB, G2, 64 * MB, 32 * MB, 64 * MB, nullptr},
        {true, 7, 32 * MB, G2, 64 * MB, 32 * MB + 1, 32 * MB, NO_ROOM},
        {true, 7, 32 * MB, 64 * MB - 1, G2, 0, 32 * MB, NO_ROOM},
        {true, 0x186, 32 * MB, G2, 32 * MB, 32 * MB, 32 * MB, NO_ROOM},
        {true, 0, 32 * MB, 64 * MB - 1, 32 * MB, 32 * MB, 64 * MB, nullptr},
        {true, 0, 64 * MB, 64 * MB, G2, 0, 64 * MB, MAXED},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(std::to_string(one.from) + (one.shmap ? " shmap" : ""));
        shkv_max_db_sz = shkv_memory_limit_process = G2;
        kv store = make_kv("sizes", one.shmap ? SHMAP : SMALL);
        pretend_size(store, one.from);
        store.sn()->uuid = one.uuid;
        shkv_max_db_sz = one.max_db;
        shkv_memory_limit_process = one.process;
        uuid_mem_used = one.used;
        ud_map *ud = store.head()->ud1_map;
        const ud_desc before = store.sn()->ud1;
        void *base = ud->map[0];
        log_catcher log;
        bool grew = !one.line;
        EXPECT_EQ(shkv_resize_ud(store.head(), nullptr), grew ? 0 : ENOMEM);
        EXPECT_EQ(store.sn()->ud1.obj_sz, one.to);
        EXPECT_EQ(store.sn()->ud1.obj_ver, before.obj_ver + grew);
        EXPECT_EQ(ud->mapped_sz, one.to);
        EXPECT_EQ(ud->ver, store.sn()->ud1.obj_ver);
        EXPECT_EQ(uuid_mem_used, one.used + (one.uuid ? one.to - one.from : 0));
        EXPECT_EQ(!!(store.head()->access_mode & SHKV_AM_UD_GREW), grew);
        if (grew) {
            const sbm *sbm_p = (const sbm *)ud->map[0];
            EXPECT_EQ(sbm_p->ud_end, one.to - (one.to - 256) % sbm_p->dn_sz);
            EXPECT_EQ((uint32_t)sbm_p->ud_full, sbm_p->ud_end - 93 * sbm_p->dn_sz);
            if (one.shmap) { // no address changes, one more piece
                EXPECT_EQ(ud->map[0], base);
                EXPECT_EQ(ud->map_cnt, 2u);
                *(char *)shkv_ud_offset_to_addr(store.head(), one.from) = 1;
                *(char *)shkv_ud_offset_to_addr(store.head(), one.to - 1) = 1;
            }
        } else {
            EXPECT_NE(log.all().find(std::string(" ") + one.line), std::string::npos) << log.all();
        }
        store.sn()->uuid = 0;
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

// The object cannot be made longer: this process has lost its mapping, and says so, until it
// opens the store again. Nothing committed is gone.
TEST(growth, a_space_that_was_lost_in_a_growth_gives_12)
{
    kv store = make_kv("lost", SMALL);
    unsigned cnt = 0;
    for (store.sn()->auto_rz = 0; store.add(key_no(cnt), "v") == 0;)
        cnt++;
    store.sn()->auto_rz = 1;
    EXPECT_EQ(store.at("k1"), "v"); // a lookup remembers where the space was
    int fd = store.head()->ud1_map->fd;
    store.head()->ud1_map->fd = -1;
    EXPECT_EQ(store.add("more", "v"), ENOMEM);
    store.head()->ud1_map->fd = fd;
    EXPECT_EQ(store.add("more", "v"), ENOMEM);
    EXPECT_EQ(store.del("k1"), ENOMEM);
    EXPECT_EQ(store.at("k1"), "#12");
    EXPECT_EQ(shkv_close(store.handle), 0);
    store = open_kv("lost", SHKV_AM_WRITE);
    EXPECT_EQ(store.add("more", "v"), 0);
    EXPECT_EQ(store.all().size(), cnt + 1);
    EXPECT_EQ(faults_of("lost"), "");
}

TEST(growth, a_table_that_cannot_be_rebuilt_leaves_the_old_one_in_force)
{
    kv store = make_kv("no_table", SMALL);
    store.sn()->rz_tm_chk = 1;
    unsigned cnt = 0;
    while (store.head()->refill_pos == 0)
        ASSERT_EQ(store.add(key_no(cnt++), "v"), 0);
    int fd = store.head()->md2.fd;
    store.head()->md2.fd = -1;
    EXPECT_EQ(shkv_resize_md(store.head()), EBADF); // in the middle of a rebuild
    EXPECT_EQ(store.head()->refill_pos, 0u);        // pending, no longer under way
    EXPECT_EQ(store.sn()->comm_flg, CF_MD1 | CF_UD1 | CF_REFILL2);
    for (uint32_t ver = store.sn()->ud1.obj_ver; store.sn()->ud1.obj_ver == ver;)
        ASSERT_EQ(store.add(key_no(cnt++), "v"), 0); // the space grows, its table does not
    EXPECT_EQ(store.md1(), true);
    store.head()->md2.fd = fd;
    refill_tm_limit = 0;
    EXPECT_EQ(shkv_resize_md(store.head()), 0);
    EXPECT_EQ(store.sn()->comm_flg, CF_MD2 | CF_UD1);
    EXPECT_EQ(store.all().size(), cnt);
    EXPECT_EQ(faults_of("no_table"), "");
}

TEST(growth, a_slice_with_its_time_used_up_moves_one_bucket_with_records)
{
    kv store = make_kv("slices", FIXED);
    for (unsigned i = 0; i < 300; i++)
        ASSERT_EQ(store.add(key_no(i), "v"), 0);
    shkv_head *head = store.head();
    supernode *sn = store.sn();
    uint32_t filled = 0, slices = 1;
    for (uint32_t at = 0; at < sn->md1.hashsz; at++)
        filled += head->md1.base[at].first_ptr != 0;
    refill_tm_limit = 1;
    refill_tm_start = 0;
    ASSERT_EQ(shkv_resize_md(head), 0);
    EXPECT_EQ(sn->comm_flg, CF_MD1 | CF_UD1 | CF_REFILL2);
    for (uint32_t pos = 0; pos < head->refill_pos; slices++) {
        pos = head->refill_pos;
        EXPECT_EQ(shkv_refill_hashtb(head, sn->md1.hashsz, sn->md2.hashsz, head->md2.hash_fn, head->md1.base,
                                     head->md2.base, head->ud1_map->map[0], sn->comm_flg), 0);
    }
    // The last slice has run out of buckets, unless the last bucket had records.
    EXPECT_LE(slices - filled, 1u);
    head->refill_pos = 1; // under way all the same: an add goes on with it, from nothing here, and flips
    sn->rz_tm_chk = 60000;
    EXPECT_EQ(shkv_resize_md(head), 0);
    for (unsigned i = 0; head->refill_pos != 0; i++)
        ASSERT_EQ(store.add("more" + std::to_string(i), "v"), 0);
    EXPECT_EQ(sn->comm_flg, CF_MD2 | CF_UD1);
    EXPECT_EQ(sn->md2.hashsz, sn->md2.obj_sz / 8 - 1); // one less than a table that was created has
    EXPECT_GE(store.all().size(), 300u);
    EXPECT_EQ(faults_of("slices"), "");
}

// With the file system full, whatever touches a page first gives 12 or goes on without it: growth,
// the new table, a slice of its rebuild. With room again everything works as before.
TEST(growth, no_memory_behind_a_page_is_a_result_and_no_death)
{
    for (const char *size : {"180k", "260k", "300k", "400k"})
        on_fresh_machine(size, [&] {
            kv store = make_kv("tight", SMALL);
            store.sn()->rz_tm_chk = 1;
            contents want;
            for (unsigned no = 0, fails = 0; fails < 200; no++) {
                std::string key = key_no(no);
                int result = store.add(key, "v");
                ASSERT_TRUE(result == 0 || result == ENOMEM) << result;
                if (result == 0)
                    want[key] = "v";
                fails += result != 0;
                ASSERT_EQ(store.at(key), result ? "#2" : "v");
            }
            EXPECT_EQ(store.del("k0"), 0);
            want.erase("k0");
            EXPECT_EQ(store.all(), want);
            ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", MS_REMOUNT, "size=64m"), 0);
            for (unsigned no = 0; no < 5000; no++)
                ASSERT_EQ(store.add(key_no(no), want[key_no(no)] = "w"), 0);
            EXPECT_EQ(store.all(), want);
            EXPECT_EQ(faults_of("tight", false), ""); // nodes whose page was not there are abandoned
        });
}
