// The list of all stores, the budget that is drawn on it, and the small questions about a store.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shkv_intf/proc.h"
#include "shkv_intf/registry.h"
#include "support/store.h"

namespace {

bool exists(const char *name)
{
    struct stat st;
    return stat((std::string(SHKV_DB_DIR "/") + name).c_str(), &st) == 0;
}

TEST(Registry, first_create_makes_it_and_it_lists_itself)
{
    on_fresh_machine("64m", [] {
        unsetenv("SYSMGR_VDC_ID");
        make_store("plain", CONF_FIXEDMM | CONF_REG_1, 100, 7);
        setenv("SYSMGR_VDC_ID", "7", 1);
        make_store("pre:fix/ed", CONF_FIXEDMM | CONF_REG_2, 200, 0);
        uint32_t err;
        int reg = shkv_reg_open(&err);
        EXPECT_EQ(reg, shkv_reg_open(&err));
        const struct {
            const char *uri;
            uint32_t flags, uuid, size, vdc;
        } cases[] = {{"plain", 0x10009, 7, GET_USER_SIZE(100, 16, 40), 0},
                     {"any:plain", 0x10009, 7, GET_USER_SIZE(100, 16, 40), 0},
                     {"fix/ed", 0x20009, 0, GET_USER_SIZE(200, 16, 40), 7},
                     {SHKV_REGISTRY_NAME, 9, UUID_REGISTRY, GET_USER_SIZE(3000, 220, 16), 0}};
        for (const auto &c : cases) {
            reg_rec rec;
            ASSERT_EQ(0, check_shkv_uri(c.uri, &rec)) << c.uri;
            EXPECT_EQ(c.flags, rec.reg_flags);
            EXPECT_EQ(c.uuid, rec.reg_uuid);
            EXPECT_EQ(c.size, rec.reg_size);
            EXPECT_EQ(c.vdc, rec.vdc_id);
        }
        reg_rec untouched = {1, 2, 3, 4};
        EXPECT_EQ(ENOENT, check_shkv_uri("unlisted", &untouched));
        EXPECT_EQ(4u, untouched.vdc_id);
        EXPECT_EQ(0, shkv_register("plain", 7, REG_UPDATE, 5));
        EXPECT_EQ(0, check_shkv_uri("plain", &untouched));
        EXPECT_EQ(5u, untouched.reg_size);
        EXPECT_TRUE(check_registry().empty());
        EXPECT_EQ("", faults_of(SHKV_REGISTRY_NAME));
        int iter = open_store(SHKV_REGISTRY_NAME, SHKV_AM_READ | SHKV_AM_ITER);
        EXPECT_EQ(3u, iterate_all(iter).size());
    });
}

TEST(Budget, usage_follows_the_stores_of_a_service)
{
    on_fresh_machine("64m", [] {
        const uint32_t size = GET_USER_SIZE(100, 16, 40);
        uuid_mem_used = 0;
        EXPECT_EQ(ENOENT, shkv_check_memsz_per_uuid(0, 7)); // no registry yet
        make_store("free", CONF_FIXEDMM, 100, 0);
        EXPECT_EQ(0u, uuid_mem_used);
        int first = make_store("first", CONF_FIXEDMM, 100, 7);
        EXPECT_EQ(size, uuid_mem_used);
        make_store("second", CONF_FIXEDMM, 100, 7);
        EXPECT_EQ(2 * size, uuid_mem_used);
        uuid_mem_used = 0; // as in another process: counted anew from the registry
        EXPECT_EQ(0, shkv_check_memsz_per_uuid(0, 7));
        EXPECT_EQ(2 * size, uuid_mem_used);
        EXPECT_EQ(EINVAL, shkv_register(std::string(221, 'u').c_str(), 7, 0, 1000)); // the key is too long
        EXPECT_EQ(2 * size, uuid_mem_used);
        EXPECT_EQ(ENOENT, shkv_register("unlisted", 7, REG_DELETE, size));
        EXPECT_EQ(2 * size, uuid_mem_used);
        EXPECT_EQ(0, shkv_destroy(first));
        EXPECT_EQ(size, uuid_mem_used);
        EXPECT_EQ(0, shkv_register("second", 7, REG_DELETE, 2 * size)); // more than there is
        EXPECT_EQ(size, uuid_mem_used);

        shkv_memory_limit_process = 2 * size - 1;
        uint32_t err = 0;
        shkv_params params = {16, 40, 100, CONF_FIXEDMM, 0};
        EXPECT_EQ(0, shkv_create("third", 7, &params, 0, &err));
        EXPECT_EQ((uint32_t)ENOMEM, err);
        EXPECT_FALSE(exists("third"));
        EXPECT_EQ(size, uuid_mem_used);
        EXPECT_NE(0, shkv_create("exempt", 0, &params, 0, &err));
        shkv_memory_limit_process++;
        EXPECT_NE(0, shkv_create("third", 7, &params, 0, &err));
    });
}

TEST(Budget, what_lands_on_the_limit_fits)
{
    on_fresh_machine("64m", [] {
        make_store("any", CONF_FIXEDMM, 100, 0);
        shkv_memory_limit_process = 1000;
        shkv_max_db_sz = 2000;
        const struct {
            uint64_t used;
            uint32_t size, uuid;
            int result;
        } cases[] = {{400, 600, 7, 0},           {400, 601, 7, ENOMEM},        {5000, 0, 7, 0},
                     {400, 0xffffffff, 7, ENOMEM}, {5000, 2000, UUID_BIG_A, 0}, {0, 2001, UUID_BIG_A, ENOMEM},
                     {5000, 2000, UUID_BIG_B, 0}, {5000, 2001, UUID_BIG_B, ENOMEM}};
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
        EXPECT_EQ(ENOENT, shkv_vdc_cleanup(7));
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

        int ready[2], done[2];
        char byte = 0;
        ASSERT_TRUE(pipe(ready) == 0 && pipe(done) == 0);
        pid_t pid = fork();
        if (pid == 0) {
            byte = open_store("c", SHKV_AM_WRITE) ? 'y' : 'n';
            _exit(write(ready[1], &byte, 1) != 1 || read(done[0], &byte, 1) != 1);
        }
        ASSERT_EQ(1, read(ready[0], &byte, 1));
        EXPECT_EQ('y', byte);
        EXPECT_EQ(EINVAL, shkv_vdc_cleanup(8));
        EXPECT_TRUE(exists("c"));
        EXPECT_EQ(1, write(done[1], &byte, 1));
        waitpid(pid, nullptr, 0);
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
    EXPECT_EQ(EINVAL, shkv_get_params(db, nullptr));
    EXPECT_EQ(EBADF, shkv_get_params(0, &got));
    EXPECT_STREQ("par_ams", shkv_get_dbname(db));
    EXPECT_EQ(3u, shkv_get_hashfn(db));
    EXPECT_EQ(7u, shkv_get_uuid(db));
    EXPECT_EQ(made.conf_flg, shkv_get_smode(db));
    EXPECT_EQ(shkv_hash_matrix[10], shkv_get_internal_hashfn(10));
    EXPECT_EQ((uint32_t)sysconf(_SC_PAGESIZE), shkv_get_page_sz());
    EXPECT_EQ(shkv_max_db_sz, shkv_get_process_max_db_sz());

    EXPECT_EQ(0, shkv_debugs_on("/dev/shm/accessors.log"));
    for (int bad : {0, 32, 33, -1})
        EXPECT_TRUE(!shkv_get_hashfn(bad) && !shkv_get_smode(bad) && !shkv_get_uuid(bad) && !shkv_get_dbname(bad));
    shkv_debug_off(0);
    struct stat st;
    ASSERT_EQ(0, stat("/dev/shm/accessors.log", &st));
    EXPECT_EQ(0, st.st_size);

    EXPECT_EQ(db, shkv_uri2handle("y:par/ams", SHKV_AM_WRITE, &err));
    EXPECT_EQ(0u, err);
    for (uint32_t mask : {0u, SHKV_AM_READ, 0x100u}) {
        EXPECT_EQ(0, shkv_uri2handle("par/ams", mask, &err));
        EXPECT_EQ((uint32_t)EBADF, err);
    }
    EXPECT_EQ(0, shkv_uri2handle("par/ams", 1, nullptr));
    shkv_destroy(db);
}

TEST(Params, options_belong_to_the_writers_thread)
{
    int db = make_store("opts", CONF_FIXEDMM, 100), multi = make_store("multi", CONF_FIXEDMM | CONF_MULTIWR, 100);
    int reader = open_store("opts", SHKV_AM_READ);
    supernode *sn = shkv_db_heads[db - 1].sn;
    shkv_opts opts = {0, 5, 0x10000 + 77};
    EXPECT_EQ(EINVAL, shkv_db_set_opts(0, 2, &opts));
    EXPECT_EQ(EINVAL, shkv_db_set_opts(db, 0, &opts));
    EXPECT_EQ(EINVAL, shkv_db_set_opts(0, 1, nullptr));
    EXPECT_EQ(EBADF, shkv_db_set_opts(0, 1, &opts));
    EXPECT_EQ(EINVAL, shkv_db_set_opts(reader, 1, &opts));
    EXPECT_EQ(EINVAL, shkv_db_set_opts(multi, 1, &opts));
    sn->wr_tid[0]++;
    EXPECT_EQ(EINVAL, shkv_db_set_opts(db, 1, &opts));
    sn->wr_tid[0]--;
    EXPECT_TRUE(sn->auto_rz == 1 && sn->rz_tm_chk == 300);
    EXPECT_EQ(0, shkv_db_set_opts(db, 1, &opts));
    EXPECT_TRUE(sn->auto_rz == 5 && sn->rz_tm_chk == 77);
    shkv_close(reader);
    shkv_destroy(db);
    shkv_destroy(multi);
}

TEST(Sizes, entries_that_a_size_allows)
{
    const struct {
        uint32_t units, want;
    } cases[] = {{100, 0}, {101, 1}, {2120, 2020}, {2121, 2020}, {10499, 9999}, {10500, 10000}, {20000, 19500}};
    for (const auto &c : cases) // nodes of 4096 bytes: so many fit behind the header, and no more
        EXPECT_EQ(c.want, shkv_max_num_entries(c.units * 4096 + 256, 4000, 76, 1)) << c.units;
    EXPECT_EQ(1018u, shkv_max_num_entries(GET_USER_SIZE(1000, 0, 0), 9, 9, 2)); // units of 128 bytes
    EXPECT_EQ((4096u - 256) / 8 - 100, shkv_max_num_entries(1, 3, 4, 0)); // payload alone
    EXPECT_EQ(0u, shkv_max_num_entries(4096, 0, 0, 0));
}

TEST(Sizes, exact_entries_are_what_a_store_without_growth_takes)
{
    const shkv_params params = {16, 100, 1000, CONF_FIXEDMM, 0};
    uint32_t err;
    int db = shkv_create("p:exact", 0, &params, 0, &err);
    EXPECT_EQ(151552u, shkv_get_db_size("exact"));
    EXPECT_EQ(1018u, shkv_get_exact_max_entries_from_db("q:exact"));
    EXPECT_EQ(0u, shkv_get_db_size("absent"));
    EXPECT_EQ(0u, shkv_get_exact_max_entries_from_db("absent"));
    shkv_opts opts = {0, 0, 0};
    ASSERT_EQ(0, shkv_db_set_opts(db, 1, &opts));
    uint32_t taken = 0;
    while (put(db, "key" + std::to_string(taken), "v") == 0)
        taken++;
    EXPECT_EQ(1018u, taken);
    shkv_destroy(db);
}

} // namespace
