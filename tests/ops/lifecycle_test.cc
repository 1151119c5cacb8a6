// Open, close and destroy in one process: which handle comes back, what is left behind.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <thread>

#include "support/kv.h"

namespace {

// An ordinary store behind an ordinary name.
kv small(const char *name, uint32_t conf_flg = CONF_FIXEDMM)
{
    return make_kv(name, {16, 32, 100, conf_flg, 0});
}

} // namespace

TEST(Open, an_object_that_is_not_there_or_too_short)
{
    kv keeper = small("damaged");
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
    uint32_t err = 0;
    kv writer = small("again");
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
}

TEST(Open, places_of_several_writers)
{
    kv writer = small("many", CONF_FIXEDMM | CONF_MULTIWR);
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
}

// Nothing that prints or reads a standard stream may meet a store.
TEST(Open, never_takes_descriptor_0)
{
    int keep = dup(0);
    close(0);
    small("daemon");
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
    dup2(keep, 0);
}

// A thread opens and closes one store; beside it others are looked for, and children of a fork open theirs.
TEST(Open, and_close_in_one_thread_hold_up_no_other)
{
    const kv kept = small("kept");
    small("other");
    bool stop = false;
    std::thread opener([&] {
        while (!__atomic_load_n(&stop, __ATOMIC_ACQUIRE))
            shkv_close(open_store("other", SHKV_AM_READ));
    });
    uint32_t err = 0;
    for (int i = 0; i < 20000; i++)
        ASSERT_EQ(kept.handle, shkv_uri2handle("kept", SHKV_AM_WRITE, &err));
    for (int i = 0; i < 40 && !HasFailure(); i++)
        in_child([] { return alarm(10), shkv_close(open_store("kept", SHKV_AM_READ)); });
    __atomic_store_n(&stop, true, __ATOMIC_RELEASE);
    opener.join();
}

// Readers of one process share the tables of a space in chunks, with its writer, too.
TEST(Destroy, leaves_the_readers_of_its_process_their_tables)
{
    EXPECT_EQ(0, shkv_close(small("shared", CONF_VECTORMM | CONF_SHMAP).handle));
    kv writer = open_kv("shared", SHKV_AM_WRITE), reader = open_kv("shared", SHKV_AM_READ);
    EXPECT_TRUE(reader.head()->ud2_map && reader.head()->ud2_map == writer.head()->ud2_map);
    EXPECT_EQ(0, shkv_destroy(writer.handle));
    EXPECT_EQ("#9", reader.at("key"));
    EXPECT_EQ(0, shkv_close(reader.handle));
}

TEST(Destroy, removes_every_name_and_the_registry_record)
{
    auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    small("other"); // and the registry
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM | CONF_SHMAP}) {
        auto names = all_objects();
        auto fds = descriptors();
        kv store = small("gone", conf_flg), reader = open_kv("gone", SHKV_AM_READ);
        EXPECT_EQ(0, shkv_txn_start(store.handle, nullptr));
        EXPECT_EQ(0, store.add("staged", "value"));
        EXPECT_EQ(0, shkv_destroy(store.handle));
        EXPECT_EQ(names, all_objects());
        EXPECT_EQ(9, shkv_close(store.handle));
        reg_rec rec;
        EXPECT_EQ(2, check_shkv_uri("gone", &rec));
        uint32_t err = 0;
        EXPECT_EQ(0, shkv_open("gone", 5, 0, SHKV_AM_READ, &err));
        EXPECT_EQ(2u, err);
        // A new store of the name has nothing to do with the old one, which is still mapped here.
        kv next = small("gone", conf_flg), next_reader = open_kv("gone", SHKV_AM_READ);
        EXPECT_EQ(0, next.add("key", "value"));
        EXPECT_EQ("value#9", next_reader.at("key") + reader.at("key"));
        EXPECT_EQ(0, shkv_close(reader.handle) + shkv_close(next_reader.handle) + shkv_destroy(next.handle));
        EXPECT_EQ(names, all_objects());
        // Two heads without a table of UD2 count as sharing UD1's too, so a close kept it.
        EXPECT_EQ(fds + (conf_flg == CONF_FIXEDMM ? 0 : 1), descriptors());
    }
}
