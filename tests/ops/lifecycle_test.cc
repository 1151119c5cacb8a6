// Create, open, close and destroy in one process: every refusal with its value, line and event, in
// its place in the order of the checks; what is left behind; which handle comes back.
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

// A failed call: nothing returned, the value, the last line, the newest event of a ring.
struct outcome {
    uint32_t err;
    std::string line;
    uint32_t event = 0, arg = 0, arg2 = 0; // event 0: none is looked at
};

void expect(const outcome &want, int handle, uint32_t err, const std::string &line, const supernode *ring_sn)
{
    SCOPED_TRACE(want.line);
    EXPECT_EQ(0, handle);
    EXPECT_EQ(want.err, err);
    EXPECT_EQ(want.line, line);
    if (want.event == 0)
        return;
    last_event event(ring_sn);
    EXPECT_EQ(want.event, event.code);
    EXPECT_EQ(want.arg, event.arg);
    EXPECT_EQ(want.arg2, event.arg2);
}

uint32_t call_create(const char *uri, const shkv_params *conf_p, const outcome &want, uint32_t uuid = 5)
{
    uint32_t err = 99;
    supernode *ring_sn = registry();
    auto names = all_names();
    log_catcher log;
    int handle = shkv_create(uri, uuid, conf_p, 0, &err);
    expect(want, handle, err, log.last(), ring_sn);
    EXPECT_EQ(names, all_names());
    return err;
}

// Create ------------------------------------------------------------------------------------------

TEST(Create, refusals_in_their_order)
{
    const std::string long_name(220, 'n'), full_name(219, 'n');
    const shkv_params ok = {16, 32, 100, CONF_FIXEDMM, 0};
    kv taken = make_kv("taken", ok);
    const struct { const char *uri; shkv_params conf; outcome want; } cases[] = {
        {"x", {0, 2049, 0xffffff, 1, 0}, {22, "uuid:5, the key size is 0", 0x01000017, 5}},
        {"x", {257, 2049, 0xffffff, 1, 0},
         {22, "The shkvdb is too big, maxksz=257, maxvsz=2049, maxents=16777215 ", 0x01000018, 0xffffff}},
        {long_name.c_str(), {257, 2049, 100, 1, 0}, {22, "uuid:5, the uri is too long", 0x0100001a, 5}},
        {full_name.c_str(), {257, 2049, 100, 1, 0}, {22, "uuid:5, the key size is too large", 0x0100001b, 5}},
        {"x", {256, 2049, 100, 1, 0}, {22, "uuid:5, the value size is too large", 0x0100001c, 5}},
        {"a:taken", ok, {17, "uuid:5, can not create supernode,errno:17", 0x03000025, 5, 17}},
        {"x", {16, 32, 100, 0x2021, 0}, {22, "SHKV shared mapping do not support FIXEDMM", 0x01000030, 0x2021}},
        {"x", {16, 16, 4097, 0x23, 0}, {22, "uuid:5, L3 database is too big", 0x0100002f, 5}},
        {"x", {16, 32, 100, 0x3, 0}, {12, "uuid:5, the dbconf mode is not supported", 0x0100002f, 5}},
        {"x", {16, 32, 100, 0, 0}, {12, "uuid:5, the dbconf mode is not supported", 0x0100002f, 5}},
    };
    for (const auto &c : cases)
        call_create(c.uri, &c.conf, c.want);
    call_create(nullptr, &ok, {22, "uuid:5, the srcuri is NULL"});
    log_catcher log;
    EXPECT_EQ(0, shkv_create("x", 5, &ok, 0, nullptr));
    EXPECT_EQ("uuid:5, errptr is empty, internal error!", log.last());
    uint32_t err = 0;
    EXPECT_EQ(0, shkv_create("a:taken", 5, &ok, 0, &err));
    EXPECT_NE(std::string::npos,
              log.all().find("uuid:5,failed to create supernode shm taken,                    errno:17"));
    EXPECT_EQ(0, put(taken.handle, "still", "there"));
    EXPECT_EQ(0, shkv_destroy(taken.handle));
}

TEST(Create, limits_that_are_just_met)
{
    const std::string full_name(219, 'n');
    const struct { const char *uri; shkv_params conf; } cases[] = {
        {full_name.c_str(), {256, 2048, 100, CONF_FIXEDMM, 0}},
        {"l3", {16, 16, 4096, CONF_FIXEDMM | CONF_L3, 0}},
        {"vec", {0, 0, 100, CONF_VECTORMM | CONF_SHMAP, 0}},
    };
    for (const auto &c : cases) {
        kv made = make_kv(c.uri, c.conf);
        EXPECT_EQ("", faults_of(c.uri));
        EXPECT_EQ(0, shkv_destroy(made.handle));
    }
}

// Something in the way of each of the five objects.
TEST(Create, blocked_object_takes_everything_back)
{
    const shkv_params conf = {16, 32, 100, CONF_VECTORMM, 0};
    const struct { const char *suffix; outcome want; } cases[] = {
        {"_md1", {17, "shkv_get_mu_obj fail MD1 blocked 17", 0x03000029, 17, 443 * 8}},
        {"_md2", {17, "shkv_get_mu_obj fail MD2 blocked 17", 0x0300002a, 17, 0}},
        {"_md_txn", {17, "shkv_create: failed to get MD_TXN obj\n", 0x0100002b, 17}},
        {"_ud1", {17, "shkv_get_mu_obj fail UD1 blocked 17 100 16 32", 0x0100002c, 17}},
        {"_ud2", {17, "shkv_get_mu_obj fail UD2 blocked 17 100 16 32", 0x0300002e, 17, 100}},
    };
    EXPECT_EQ(0, shkv_destroy(make_kv("blocked", conf).handle));    // Makes the directory.
    for (const auto &c : cases) {
        std::string path = std::string("/dev/shm/shkvmu/blocked") + c.suffix;
        EXPECT_EQ(0, mkdir(path.c_str(), 0777));
        call_create("blocked", &conf, c.want);
        EXPECT_EQ(0, rmdir(path.c_str()));
    }
    // A file that a dead creator left is no obstacle.
    EXPECT_LE(0, open("/dev/shm/shkvmu/blocked_md1", O_CREAT | O_WRONLY, 0600));
    EXPECT_EQ(0, shkv_destroy(make_kv("blocked", conf).handle));
}

TEST(Create, exhausted_budget_takes_everything_back)
{
    on_fresh_machine("128m", [] {
        const shkv_params half = {256, 2048, 8000, CONF_FIXEDMM, 0};
        kv first = make_kv("first", half, 5);
        uint64_t used = uuid_mem_used;
        call_create("second", &half, {12, "uuid:5, resgister database failed 12", 0x0100002f, 12});
        EXPECT_EQ(used, uuid_mem_used);
        EXPECT_EQ(0, shkv_destroy(first.handle));
        EXPECT_EQ(0, shkv_destroy(make_kv("second", half, 5).handle));
    });
}

TEST(Create, full_handle_table)
{
    kv store = make_kv("heads", {16, 32, 100, CONF_FIXEDMM, 0});
    std::vector<int> handles;
    uint32_t err = 0;
    while (int handle = shkv_open("heads", 5, 0, SHKV_AM_READ, &err))
        handles.push_back(handle);
    EXPECT_EQ(22u, err);
    EXPECT_GE(handles.size(), 28u);
    const shkv_params conf = {16, 32, 100, CONF_FIXEDMM, 0};
    call_create("one_more", &conf, {22, "shkv_create uuid:5, opened too many database", 0x0100002f, 5});
    size_t fds = names_in("/proc/self/fd").size();
    log_catcher log;
    int none = shkv_open("heads", 5, 0, SHKV_AM_READ, &err);
    expect({22, "shkv_open uuid:5, shkv_set_heads fail 0", 0x0100005c, 0}, none, err, log.last(), store.sn());
    EXPECT_EQ(fds, names_in("/proc/self/fd").size());
    // A refused writer gives the place up again: here it was its own already.
    EXPECT_EQ(0, shkv_open("heads", 5, 0, SHKV_AM_WRITE | SHKV_AM_WPROT, &err));
    EXPECT_EQ((uint32_t)syscall(SYS_gettid), store.sn()->wr_tid[0]);
    EXPECT_EQ(0, shkv_close(handles.front()));
    EXPECT_EQ(handles.front(), shkv_open("heads", 5, 0, SHKV_AM_READ, &err));
    for (int handle : handles)
        EXPECT_EQ(0, shkv_close(handle));
    EXPECT_EQ(0, shkv_destroy(store.handle));
}

// With n pages left a create succeeds, or gives 12 and leaves no supernode: the name is free. What it
// has made of the other objects stays, with its descriptors, and is in nobody's way.
TEST(Create, never_dies_of_a_full_dev_shm)
{
    on_fresh_machine("4m", [] {
        registry();
        make_store("warm", CONF_FIXEDMM, 10);
        int filler = open("/dev/shm/filler", O_CREAT | O_RDWR, 0600);
        const shkv_params conf = {16, 32, 500, CONF_FIXEDMM, 0};
        int made = 0, left = 0;
        for (off_t spare = 0; made == 0 && spare < 40; spare++) {
            EXPECT_EQ(0, ftruncate(filler, 0));
            EXPECT_EQ(0, posix_fallocate(filler, 0, 2 << 20));
            for (off_t size = 2 << 20; posix_fallocate(filler, size, 4096) == 0;)
                size += 4096;
            struct stat st;
            fstat(filler, &st);
            EXPECT_EQ(0, ftruncate(filler, st.st_size - spare * 4096));
            for (const std::string &name : names_in("/dev/shm/shkvmu"))
                left += name.compare(0, 6, "tight_") == 0 && unlink(("/dev/shm/shkvmu/" + name).c_str()) == 0;
            auto names = names_in("/dev/shm/shkvdb");
            uint32_t err = 0;
            made = shkv_create("tight", 5, &conf, 0, &err);
            if (made)
                break;
            EXPECT_EQ(12u, err) << spare;
            EXPECT_EQ(names, names_in("/dev/shm/shkvdb")) << spare;
        }
        EXPECT_GT(left, 0);
        EXPECT_NE(0, made);
        EXPECT_EQ(0, shkv_destroy(made));
    });
}

TEST(Create, a_second_colon_is_stripped_too)
{
    kv made = make_kv("one:two:three", {16, 32, 100, CONF_FIXEDMM, 0});
    EXPECT_STREQ("three", made.sn()->dbname);
    EXPECT_STREQ("two:three", made.sn()->uri);
    uint32_t err = 0;
    EXPECT_EQ(0, shkv_open("one:two:three", 5, 0, SHKV_AM_READ, &err));
    EXPECT_EQ(2u, err);
    EXPECT_EQ(0, shkv_destroy(made.handle));
}

TEST(Create, limits_of_the_process_come_from_the_environment)
{
    const struct { const char *env; uint32_t limit; } cases[] = {
        {"1", 0x400000}, {"0", 0x2000000}, {"10485760", 10485760}, {"4294967295", 0x80000000}};
    for (const auto &c : cases)
        on_fresh_machine("16m", [&] {
            setenv("SYSMGR_MMAP_LIMIT", c.env, 1);
            limit_inited = 0;
            uint32_t err;
            shkv_create("", 5, nullptr, 0, &err);
            EXPECT_EQ(c.limit, shkv_max_db_sz);
            EXPECT_EQ(c.limit, shkv_memory_limit_process);
        });
}

// Open --------------------------------------------------------------------------------------------

TEST(Open, modes_that_a_service_may_not_have)
{
    kv store = make_kv("modes", {16, 32, 100, CONF_FIXEDMM, 0});
    const struct { uint32_t uuid, mode; outcome want; } cases[] = {
        {5, 0, {22, "uuid:5, the access mode is wrong:0"}},
        {5, 0x40, {22, "uuid:5, the access mode is wrong:64"}},
        {5, SHKV_AM_RESHAPE | SHKV_AM_DBG, {22, "uuid:5, the access mode is                     wrong:24"}},
        {5, SHKV_AM_DBG | SHKV_AM_READ, {22, "uuid:5, the DBG access mode is                     not allowed"}},
        {0xf011, SHKV_AM_RESHAPE | SHKV_AM_DBG,
         {22, "uuid:61457, the DBG access mode is                     not allowed"}},
        {0xf012, SHKV_AM_DBG, {22, "uuid:61458, the DBG access mode is                     not allowed"}},
    };
    for (const auto &c : cases) {
        uint32_t err = 99;
        log_catcher log;
        int handle = shkv_open("modes", c.uuid, 0, c.mode, &err);
        expect(c.want, handle, err, log.last(), nullptr);
    }
    log_catcher log;
    EXPECT_EQ(0, shkv_open("modes", 5, 0, SHKV_AM_READ, nullptr));
    EXPECT_EQ("uuid:5, errptr is empty,                     internal error!", log.last());
    size_t lines = log.all().size();
    uint32_t err = 99;
    EXPECT_EQ(0, shkv_open("missing", 5, 0, SHKV_AM_READ, &err)); // an ordinary answer: no line
    EXPECT_EQ(2u, err);
    EXPECT_EQ(lines, log.all().size());
    EXPECT_EQ(0, shkv_destroy(store.handle));
}

// One word of a closed store is changed, or one of its files goes.
TEST(Open, damaged_stores)
{
    const struct { uint32_t off, val; uint32_t mode, event, arg, err; const char *line; } cases[] = {
        {0x000, 0, 2, 0x0100004b, 5, 22, "uuid:5, the db is insane."},
        {0x2c8, 1, 1, 0x0100004b, 5, 22, "uuid:5, the db is insane."},
        {0x050, 0x33, 1, 0x0100004c, 5, 22, "temporrily disable WRITE MODE when reshaping "},
        {0x270, 11, 2, 0x01000057, 2, 22, "failed with md1 hash (access mode:0x2)"},
        {0x270, 0xa6b7, 1, 0x01000057, 1, 22, "failed with md1 hash (access mode:0x1)"},
        {0x274, 0, 2, 0x03000056, 14, 14, "damaged,the db is not sanity"},
        {0x2a4, 0, 1, 0x03000056, 14, 14, "damaged,the db is not sanity"},
        {0x084, 7, 6, 0x01000059, 7, 12, "mem-mgmt mode is not supported"},
        {0x054, 1, 1, 0x0100004d, 1, 22, "uuid:5, the write is not permitted:                            1 1"},
    };
    kv keeper = make_kv("damaged", {16, 32, 100, CONF_FIXEDMM, 0});
    EXPECT_EQ(0, shkv_close(keeper.handle));
    keeper = open_kv("damaged", SHKV_AM_READ);
    for (const auto &c : cases) {
        uint32_t *word_p = (uint32_t *)((char *)keeper.sn() + c.off), was = *word_p, err = 99;
        // The word lies in a page that a reader cannot write.
        int fd = open("/dev/shm/shkvdb/damaged", O_RDWR);
        EXPECT_EQ(4, pwrite(fd, &c.val, 4, c.off));
        log_catcher log;
        int handle = shkv_open("damaged", 5, 0, c.mode, &err);
        expect({c.err, c.line, c.event, c.arg, c.event >> 24 == 3 ? 5u : 0u}, handle, err, log.last(),
               keeper.sn());
        EXPECT_EQ(4, pwrite(fd, &was, 4, c.off));
        close(fd);
    }
    for (const char *suffix : {"_md1", "_md2", "_md_txn", "_ud1", "_ud2"}) {
        std::string path = std::string("/dev/shm/shkvmu/damaged") + suffix, away = path + ".away";
        EXPECT_EQ(0, rename(path.c_str(), away.c_str()));
        uint32_t err = 99;
        log_catcher log;
        EXPECT_EQ(0, shkv_open("damaged", 5, 0, SHKV_AM_READ, &err));
        EXPECT_EQ(2u, err);
        EXPECT_NE(std::string::npos, log.all().find("uuid:0,failed to open mu shm, errno:2"));
        last_event event(keeper.sn());
        EXPECT_EQ(2u, event.arg);
        EXPECT_EQ(2u, event.arg2);
        EXPECT_EQ(0, rename(away.c_str(), path.c_str()));
    }
    // A supernode that is no longer than its name, or too short for one.
    const struct { off_t size; uint32_t err; } shorts[] = {{0, 12}, {1, 22}, {4096, 22}};
    for (const auto &s : shorts) {
        int fd = open("/dev/shm/shkvdb/short", O_CREAT | O_RDWR, 0666);
        EXPECT_EQ(0, ftruncate(fd, s.size));
        close(fd);
        uint32_t err = 99;
        EXPECT_EQ(0, shkv_open("short", 5, 0, SHKV_AM_WRITE, &err));
        EXPECT_EQ(s.err, err) << s.size;
    }
    unlink("/dev/shm/shkvdb/short");
    EXPECT_EQ(0, shkv_close(keeper.handle));
    EXPECT_EQ(0, shkv_destroy(open_kv("damaged", SHKV_AM_WRITE).handle));
}

uint32_t users_hash(const void *, uint32_t len)
{
    return len;
}

uint32_t others_hash(const void *, uint32_t len)
{
    return len + 1;
}

TEST(Open, binds_to_the_hash_that_the_store_was_made_with)
{
    uint32_t err = 0;
    int made = shkv_create("users", 0, nullptr, (uint64_t)users_hash, &err);
    EXPECT_EQ(0, put(made, "key", "value"));
    const struct { uint64_t arg; uint32_t err; } cases[] = {
        {0, 22}, {(uint64_t)others_hash, 22}, {(uint64_t)users_hash, 0}, {3, 0}};
    for (const auto &c : cases) {
        int handle = shkv_open("users", 5, c.arg, SHKV_AM_READ, &err);
        EXPECT_EQ(c.err, err);
        if (c.err)
            continue;
        std::string value;
        EXPECT_EQ(c.arg == 3 ? ENOENT : 0, get(handle, "key", &value)); // a built-in is not compared
        EXPECT_EQ(0, shkv_close(handle));
    }
    EXPECT_EQ(0, shkv_destroy(made));
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

// Close and destroy -------------------------------------------------------------------------------

TEST(Close, leaves_the_store_and_ends_the_handle)
{
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM, CONF_VECTORMM | CONF_SHMAP}) {
        kv store = make_kv("closed", {16, 32, 100, conf_flg, 0});
        EXPECT_EQ(0, store.add("key", "value"));
        size_t fds = names_in("/proc/self/fd").size();
        EXPECT_EQ(0, shkv_close(store.handle));
        EXPECT_EQ(9, shkv_close(store.handle));
        EXPECT_EQ(fds - 4, names_in("/proc/self/fd").size()); // MD1, MD2, MD_TXN, UD1
        std::vector<kv> readers;
        for (int i = 0; i < 3; i++)
            readers.push_back(open_kv("closed", SHKV_AM_READ));
        for (size_t i = 0; i < readers.size(); i++) { // whoever closes first, the others go on
            for (size_t left = i; left < readers.size(); left++)
                EXPECT_EQ("value", readers[left].at("key"));
            EXPECT_EQ(0, shkv_close(readers[i].handle));
        }
        EXPECT_EQ(fds - 4, names_in("/proc/self/fd").size());
        EXPECT_EQ("", faults_of("closed"));
        EXPECT_EQ(0, shkv_destroy(open_kv("closed", SHKV_AM_WRITE).handle));
    }
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

TEST(Destroy, refusals)
{
    kv writer = make_kv("doomed", {16, 32, 100, CONF_FIXEDMM, 0}), reader = open_kv("doomed", SHKV_AM_READ);
    log_catcher log;
    EXPECT_EQ(22, shkv_destroy(reader.handle));
    EXPECT_EQ("shkv_destroy, destroy is not allowed, shkvh:" + std::to_string(reader.handle), log.last());
    last_event refused(writer.sn());
    EXPECT_EQ(0x01000087u, refused.code);
    EXPECT_EQ((uint32_t)reader.handle, refused.arg);
    EXPECT_EQ(9, shkv_destroy(33));
    EXPECT_EQ("shkv_destroy, check shkv handle fail 33", log.last());
    writer.sn()->comm_flg |= CF_DESTROYED;
    EXPECT_EQ(0, shkv_destroy(writer.handle));
    EXPECT_EQ("shkv_destroy, DB is already destroyed", log.last());
    EXPECT_EQ(0x01000088u, last_event(writer.sn()).code);
    writer.sn()->comm_flg &= ~CF_DESTROYED;
    EXPECT_EQ(0, shkv_close(reader.handle));
    EXPECT_EQ(0, shkv_destroy(writer.handle));
    EXPECT_EQ(9, shkv_destroy(writer.handle));
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

} // namespace
