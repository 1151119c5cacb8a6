// The list of all stores, the budget that is drawn on it, and the small questions about a store.
#include "shkv_intf/proc.h"
#include "shkv_intf/registry.h"
#include "support/kv.h"

namespace
{

const uint32_t SIZE = GET_USER_SIZE(100, 16, 40);

bool exists(const char *name)
{
    return all_objects().count(std::string(SHKV_DB_DIR "/") + name);
}

// A close behind a growth writes the record anew.
TEST(Registry, first_create_makes_it_and_it_lists_itself)
{
    on_fresh_machine("64m", [] {
        const struct {
            const char *uri;
            uint32_t conf_flg, uuid;
            bool grows;
            uint32_t flags;
            const char *vdc;
        } cases[] = {{"plain", CONF_REG_1, 7, false, 0x10009, ""},
                     {"pre:fix/ed", CONF_REG_2, 0, false, 0x20009, "7"},
                     {"grown", CONF_REG_1 | CONF_REG_2, 0, true, 0x10009, ""},
                     {"grown_2", CONF_REG_2, 0, true, 0x20009, ""},
                     {"grown_none", 0, 0, true, 9, ""}};
        for (const auto &c : cases) {
            SCOPED_TRACE(c.uri);
            setenv("SYSMGR_VDC_ID", c.vdc, 1);
            kv store = {make_store(c.uri, CONF_FIXEDMM | c.conf_flg, 100, c.uuid)};
            for (int i = 0; c.grows && store.sn()->ud1.obj_ver == 1; i++)
                ASSERT_EQ(0, store.add(key_no(i), "value"));
            uint32_t size = store.sn()->ud1.obj_sz;
            EXPECT_EQ(0, shkv_close(store.handle));
            reg_rec rec = {};
            EXPECT_EQ(0, check_shkv_uri(c.uri, &rec));
            EXPECT_TRUE(rec.reg_flags == c.flags && rec.reg_uuid == c.uuid) << std::hex << rec.reg_flags;
            EXPECT_TRUE(rec.reg_size == size && rec.vdc_id == (uint32_t)atoi(c.vdc)) << rec.vdc_id;
        }
        reg_rec own = {};
        EXPECT_EQ(0, check_shkv_uri(SHKV_REGISTRY_NAME, &own));
        EXPECT_TRUE(own.reg_flags == 9 && own.reg_uuid == UUID_REGISTRY && own.vdc_id == 0);
        EXPECT_EQ(GET_USER_SIZE(3000, 220, 16), own.reg_size);
        reg_rec untouched = {1, 2, 3, 4};
        EXPECT_EQ(ENOENT, check_shkv_uri("unlisted", &untouched));
        EXPECT_EQ(4u, untouched.vdc_id);
        EXPECT_TRUE(check_registry().empty());
        EXPECT_EQ(6u, iterate_all(open_store(SHKV_REGISTRY_NAME, SHKV_AM_READ | SHKV_AM_ITER)).size());
    });
}

TEST(Budget, usage_follows_the_stores_of_a_service)
{
    on_fresh_machine("64m", [] {
        uuid_mem_used = 0;
        EXPECT_EQ(ENOENT, shkv_check_memsz_per_uuid(0, 7)); // no registry yet
        make_store("free", CONF_FIXEDMM, 100, 0);
        int first = make_store("first", CONF_FIXEDMM, 100, 7);
        make_store("second", CONF_FIXEDMM, 100, 7);
        EXPECT_EQ(2 * SIZE, uuid_mem_used);
        uuid_mem_used = 0; // as in another process: counted anew from the registry
        EXPECT_EQ(0, shkv_check_memsz_per_uuid(0, 7));
        EXPECT_EQ(2 * SIZE, uuid_mem_used);
        EXPECT_EQ(EINVAL, shkv_register(std::string(221, 'u').c_str(), 7, 0, 1000)); // the key is too long
        EXPECT_EQ(ENOENT, shkv_register("unlisted", 7, REG_DELETE, SIZE));
        EXPECT_EQ(2 * SIZE, uuid_mem_used);
        EXPECT_EQ(0, shkv_destroy(first));
        EXPECT_EQ(0, shkv_register("second", 7, REG_DELETE, 2 * SIZE)); // more than there is
        EXPECT_EQ(SIZE, uuid_mem_used);

        shkv_memory_limit_process = 2 * SIZE - 1;
        uint32_t err = 0;
        shkv_params params = {16, 40, 100, CONF_FIXEDMM, 0};
        EXPECT_EQ(0, shkv_create("third", 7, &params, 0, &err));
        EXPECT_TRUE(err == ENOMEM && !exists("third") && uuid_mem_used == SIZE);
        make_kv("exempt", params);
        shkv_memory_limit_process++; // what lands on the limit fits
        make_kv("third", params, 7);
        // Two services are held to the largest store instead; a sum beyond 32 bits is no small one.
        shkv_max_db_sz = 2000;
        const struct {
            uint64_t used;
            uint32_t size, uuid;
            int result;
        } cases[] = {{5000, 0, 7, 0},
                     {400, 0xffffffff, 7, ENOMEM},
                     {5000, 2000, UUID_BIG_A, 0},
                     {0, 2001, UUID_BIG_A, ENOMEM},
                     {5000, 2000, UUID_BIG_B, 0}};
        for (const auto &c : cases) {
            uuid_mem_used = c.used;
            EXPECT_EQ(c.result, shkv_check_memsz_per_uuid(c.size, c.uuid)) << c.size;
            EXPECT_EQ(c.used + (c.result == 0 ? c.size : 0), uuid_mem_used);
        }
    });
}

TEST(Cleanup, takes_the_stores_of_one_vdc_and_stops_at_a_living_writer)
{
    on_fresh_machine("64m", [] {
        make_store("none", CONF_FIXEDMM, 100, 0);
        in_child([] { // services that are gone by the time of the clean-up
            setenv("SYSMGR_VDC_ID", "7", 1);
            make_store("a", CONF_FIXEDMM, 100, 0);
            make_store("b", CONF_VECTORMM, 100, 0);
            setenv("SYSMGR_VDC_ID", "8", 1);
            make_store("c", CONF_FIXEDMM, 100, 0);
            return 0;
        });
        EXPECT_EQ(ENOENT, shkv_vdc_cleanup(7));
        EXPECT_FALSE(exists("a") || exists("b"));
        EXPECT_TRUE(exists("c") && exists("none") && exists(SHKV_REGISTRY_NAME));
        int writer = open_store("c", SHKV_AM_WRITE); // this process's
        in_child([] { return shkv_vdc_cleanup(8) != EINVAL; });
        EXPECT_TRUE(exists("c"));
        EXPECT_EQ(0, shkv_close(writer));
        EXPECT_EQ(ENOENT, shkv_vdc_cleanup(8));
        EXPECT_FALSE(exists("c"));
        EXPECT_TRUE(check_registry().empty());
    });
}

TEST(Params, are_handed_back_and_the_accessors_are_silent)
{
    const shkv_params made = {12, 34, 2000, CONF_FIXEDMM | CONF_REG_1, 0xabcdef01};
    uint32_t err;
    int db = shkv_create("x:par/ams", 7, &made, 4, &err);
    shkv_params got;
    ASSERT_EQ(0, shkv_get_params(db, &got));
    EXPECT_EQ(0, memcmp(&made, &got, sizeof got));
    EXPECT_TRUE(shkv_get_params(db, nullptr) == EINVAL && shkv_get_params(0, &got) == EBADF);
    EXPECT_STREQ("par_ams", shkv_get_dbname(db));
    EXPECT_TRUE(shkv_get_hashfn(db) == 3 && shkv_get_uuid(db) == 7 && shkv_get_smode(db) == made.conf_flg);
    EXPECT_EQ(shkv_hash_matrix[10], shkv_get_internal_hashfn(10));
    EXPECT_TRUE(shkv_get_page_sz() == SHKV_PAGE_SIZE && shkv_get_process_max_db_sz() == shkv_max_db_sz);
    EXPECT_EQ(0, shkv_debugs_on("/dev/shm/accessors.log"));
    for (int bad : {0, 32, 33, -1})
        EXPECT_TRUE(!shkv_get_hashfn(bad) && !shkv_get_smode(bad) && !shkv_get_uuid(bad) && !shkv_get_dbname(bad));
    shkv_debug_off(0);
    EXPECT_EQ(0u, std::filesystem::file_size("/dev/shm/accessors.log"));
    EXPECT_EQ(db, shkv_uri2handle("y:par/ams", SHKV_AM_WRITE, &err));
    EXPECT_EQ(0u, err);
    EXPECT_EQ(0, shkv_uri2handle("par/ams", SHKV_AM_READ, &err));
    EXPECT_EQ((uint32_t)EBADF, err);
    EXPECT_EQ(0, shkv_uri2handle("par/ams", 1, nullptr));
}

TEST(Sizes, exact_entries_are_what_a_store_without_growth_takes)
{
    const shkv_params params = {16, 100, 1000, CONF_FIXEDMM, 0};
    uint32_t err;
    int db = shkv_create("p:exact", 0, &params, 0, &err);
    EXPECT_EQ(151552u, shkv_get_db_size("exact"));
    EXPECT_EQ(1018u, shkv_get_exact_max_entries_from_db("q:exact"));
    EXPECT_TRUE(!shkv_get_db_size("absent") && !shkv_get_exact_max_entries_from_db("absent"));
    shkv_opts opts = {0, 0, 0};
    ASSERT_EQ(0, shkv_db_set_opts(db, 1, &opts));
    uint32_t taken = 0;
    while (put(db, "key" + std::to_string(taken), "v") == 0)
        taken++;
    EXPECT_EQ(1018u, taken);
    // Nodes of 4096 bytes: so many fit behind the header, and no more; units of 128; payload alone.
    EXPECT_EQ(2020u, shkv_max_num_entries(2121 * 4096 + 256, 4000, 76, 1));
    EXPECT_EQ(19500u, shkv_max_num_entries(20000 * 4096 + 256, 4000, 76, 1));
    EXPECT_EQ(1018u, shkv_max_num_entries(GET_USER_SIZE(1000, 0, 0), 9, 9, 2));
    EXPECT_EQ((4096u - 256) / 8 - 100, shkv_max_num_entries(1, 3, 4, 0));
}

} // namespace
