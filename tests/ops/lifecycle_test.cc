// Open, close and destroy in one process: which handle comes back, what is left behind.
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "shkv_intf/proc.h"
#include "shkv_intf/registry.h"
#include "support/kv.h"

namespace {

std::set<std::string> names_in(const char *dir)
{
    std::set<std::string> names;
    if (DIR *dir_p = opendir(dir)) {
        while (dirent *entry = readdir(dir_p))
            names.insert(entry->d_name);
        closedir(dir_p);
    }
    return names;
}

std::set<std::string> all_names()
{
    std::set<std::string> names = names_in("/dev/shm/shkvdb");
    names.merge(names_in("/dev/shm/shkvmu"));
    return names;
}

supernode *registry()
{
    uint32_t err = 0;
    int reg = shkv_reg_open(&err);
    EXPECT_GT(reg, 0);
    return shkv_db_heads[reg - 1].sn;
}

} // namespace

TEST(Open, an_object_that_is_not_there_or_too_short)
{
    kv keeper = make_kv("damaged", {16, 32, 100, CONF_FIXEDMM, 0});
    for (const char *suffix : {"_md1", "_md2", "_md_txn", "_ud1", "_ud2"}) {
        std::string path = std::string("/dev/shm/shkvmu/damaged") + suffix, away = path + ".away";
        EXPECT_EQ(0, rename(path.c_str(), away.c_str()));
        uint32_t err = 99;
        log_catcher log;
        EXPECT_EQ(0, shkv_open("damaged", 5, 0, SHKV_AM_READ, &err));
        EXPECT_EQ(2u, err);
        EXPECT_NE(std::string::npos, log.all().find("uuid:0,failed to open mu shm, errno:2"));
        EXPECT_TRUE(last_event(keeper.sn()).arg == 2 && last_event(keeper.sn()).arg2 == 2);
        EXPECT_EQ(0, rename(away.c_str(), path.c_str()));
    }
    const struct { off_t size; uint32_t err; } shorts[] = {{0, 12}, {1, 22}, {4096, 22}};
    for (const auto &s : shorts) {
        int fd = open("/dev/shm/shkvdb/short", O_CREAT | O_RDWR, 0666);
        EXPECT_EQ(0, ftruncate(fd, s.size));
        close(fd);
        uint32_t err = 99;
        EXPECT_EQ(0, shkv_open("short", 5, 0, SHKV_AM_WRITE, &err));
        EXPECT_EQ(s.err, err) << s.size;
    }
}

TEST(Open, which_handle_comes_back)
{
    registry();
    uint32_t err = 0;
    kv writer = make_kv("again", {16, 32, 100, CONF_FIXEDMM, 0});
    EXPECT_EQ(writer.handle, shkv_open("x:again", 5, 0, SHKV_AM_WRITE, &err));
    EXPECT_EQ(writer.handle, shkv_open("again", 5, 0, SHKV_AM_WRITE | SHKV_AM_READ, &err));
    kv protector = {shkv_open("again", 5, 0, SHKV_AM_WRITE | SHKV_AM_WPROT, &err)};
    EXPECT_NE(writer.handle, protector.handle);
    EXPECT_EQ(SN_WPROT, writer.sn()->sn_flg);
    kv debugger = {shkv_open("again", UUID_DEBUG, 0, SHKV_AM_DBG, &err)};
    EXPECT_EQ(9u, debugger.head()->access_mode);
    EXPECT_EQ(SN_DBG_WR, writer.sn()->sn_flg); // a write open that does not ask for protection ends it
    EXPECT_EQ(0, shkv_close(debugger.handle));
    EXPECT_EQ(0u, writer.sn()->sn_flg);

    kv first = open_kv("again", SHKV_AM_READ), second = open_kv("again", SHKV_AM_READ | SHKV_AM_ITER);
    EXPECT_NE(first.handle, second.handle);
    EXPECT_NE(first.head()->ud1_map, second.head()->ud1_map);
    EXPECT_EQ(2u, first.head()->access_mode);
    EXPECT_EQ(6u, second.head()->access_mode);
    int reg = open_store(SHKV_REGISTRY_NAME, SHKV_AM_READ);
    EXPECT_EQ(reg, open_store(SHKV_REGISTRY_NAME, SHKV_AM_READ));
    kv reg_iter = open_kv(SHKV_REGISTRY_NAME, SHKV_AM_READ | SHKV_AM_ITER);
    EXPECT_NE(reg, reg_iter.handle);
    for (int handle : {first.handle, second.handle, protector.handle, reg_iter.handle})
        EXPECT_EQ(0, shkv_close(handle));
    EXPECT_EQ(0, shkv_destroy(writer.handle));
}

TEST(Open, places_of_several_writers)
{
    kv writer = make_kv("many", {16, 32, 100, CONF_FIXEDMM | CONF_MULTIWR, 0});
    uint32_t err = 0, tid = writer.sn()->wr_tid[0];
    EXPECT_EQ(writer.handle, shkv_open("many", 5, 0, SHKV_AM_WRITE, &err));
    for (uint32_t i = 1; i < 8; i++)
        writer.sn()->wr_tid[i] = i == 6 ? 0 : 1;
    in_child([] { // another thread; it takes the free slot, and the ninth goes without
        kv late = open_kv("many", SHKV_AM_WRITE);
        EXPECT_EQ((uint32_t)syscall(SYS_gettid), late.sn()->wr_tid[6]);
        in_child([] { return shkv_open("many", 5, 0, SHKV_AM_WRITE, new uint32_t) == 0; });
        EXPECT_EQ(0, put(late.handle, "key", "value"));
        EXPECT_EQ(0, shkv_close(late.handle));
        return 0;
    });
    EXPECT_EQ(tid, writer.sn()->wr_tid[0]);
    EXPECT_EQ(0u, writer.sn()->wr_tid[6]);
    EXPECT_EQ("value", writer.at("key"));
    EXPECT_EQ(0, shkv_close(writer.handle));
    EXPECT_EQ(0, shkv_destroy(open_kv("many", SHKV_AM_WRITE).handle));
}

// Nothing that prints or reads a standard stream may meet a store.
TEST(Open, never_takes_descriptor_0)
{
    int keep = dup(0);
    close(0);
    kv store = make_kv("daemon", {16, 32, 100, CONF_FIXEDMM, 0});
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
    EXPECT_EQ(0, store.add("key", "value"));
    EXPECT_EQ(0, shkv_destroy(store.handle));
    dup2(keep, 0);
}

TEST(Close, tells_the_registry_of_growth_once)
{
    const struct { uint32_t conf_flg, reg_flags; } cases[] = {
        {CONF_REG_1 | CONF_REG_2, 0x10009}, {CONF_REG_2, 0x20009}, {0, 9}};
    for (const auto &c : cases) {
        kv store = make_kv("grown", {16, 32, 100, CONF_FIXEDMM | c.conf_flg, 0});
        for (int i = 0; store.sn()->ud1.obj_ver == 1; i++)
            ASSERT_EQ(0, store.add("key" + std::to_string(i), "value"));
        uint32_t size = store.sn()->ud1.obj_sz;
        EXPECT_TRUE(store.head()->access_mode & SHKV_AM_UD_GREW);
        EXPECT_EQ(0, shkv_close(store.handle));
        reg_rec rec;
        EXPECT_EQ(0, check_shkv_uri("grown", &rec));
        EXPECT_EQ(size, rec.reg_size);
        EXPECT_EQ(c.reg_flags, rec.reg_flags);
        EXPECT_EQ(0, shkv_destroy(open_kv("grown", SHKV_AM_WRITE).handle));
    }
}

TEST(Destroy, removes_every_name_and_the_registry_record)
{
    registry();
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM | CONF_SHMAP}) {
        auto names = all_names();
        size_t fds = names_in("/proc/self/fd").size();
        kv store = make_kv("gone", {16, 32, 100, conf_flg, 0}), reader = open_kv("gone", SHKV_AM_READ);
        EXPECT_EQ(0, shkv_txn_start(store.handle, nullptr));
        EXPECT_EQ(0, store.add("staged", "value"));
        EXPECT_EQ(0, shkv_destroy(store.handle));
        EXPECT_EQ(names, all_names());
        EXPECT_EQ(9, shkv_close(store.handle));
        reg_rec rec;
        EXPECT_EQ(2, check_shkv_uri("gone", &rec));
        uint32_t err = 0;
        EXPECT_EQ(0, shkv_open("gone", 5, 0, SHKV_AM_READ, &err));
        EXPECT_EQ(2u, err);
        // A new store of the name has nothing to do with the old one, which is still mapped here.
        kv next = make_kv("gone", {16, 32, 100, conf_flg, 0}), next_reader = open_kv("gone", SHKV_AM_READ);
        EXPECT_EQ(0, next.add("key", "value"));
        EXPECT_EQ("value", next_reader.at("key"));
        EXPECT_EQ("#9", reader.at("key"));
        for (int handle : {reader.handle, next_reader.handle})
            EXPECT_EQ(0, shkv_close(handle));
        EXPECT_EQ(0, shkv_destroy(next.handle));
        EXPECT_EQ(names, all_names());
        // Two heads without a table of UD2 count as sharing UD1's too, so a close kept it.
        EXPECT_EQ(fds + (conf_flg == CONF_FIXEDMM ? 0 : 1), names_in("/proc/self/fd").size());
    }
}
