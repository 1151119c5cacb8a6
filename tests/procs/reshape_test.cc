// A reshape beside a writer and readers that opened the store before it. SHKV_RESHAPE_RECORDS sets
// how many records are moved (20000 without it).
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>

#include "support/kv.h"

namespace {

constexpr const char *NAME = "moved";
constexpr uint32_t CHURN = 3000; // keys that come and go

uint32_t record_cnt()
{
    const char *env_p = getenv("SHKV_RESHAPE_RECORDS");
    return env_p ? (uint32_t)atoi(env_p) : 20000;
}

// What the processes tell one another. A key k<i> is always present; versions of its value count up.
struct board {
    uint32_t stop, grow, growing; // growing: keys g0 to this less one are in the store
    uint32_t writes, lookups[2];
    uint32_t versions[][2]; // per key: begun, committed
};

uint32_t load(const uint32_t *word_p)
{
    return __atomic_load_n(word_p, __ATOMIC_SEQ_CST);
}

void store(uint32_t *word_p, uint32_t val)
{
    __atomic_store_n(word_p, val, __ATOMIC_SEQ_CST);
}

board *make_board(uint32_t cnt)
{
    void *map_p = mmap(nullptr, sizeof(board) + 8ull * cnt, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return (board *)map_p;
}

template <typename F> pid_t start_child(F what)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        if (!freopen("/dev/null", "w", stdout)) // "key not found"
            _exit(9);
        shkv_max_db_sz = shkv_memory_limit_process = 0x60000000u;
        _exit(what());
    }
    return pid;
}

int end_of(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

uint32_t next_random(uint32_t *state_p)
{
    *state_p ^= *state_p << 13;
    *state_p ^= *state_p >> 17;
    return *state_p ^= *state_p << 5;
}

std::string value_of(uint32_t key, uint32_t version)
{
    return std::to_string(key) + "." + std::to_string(version);
}

double seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

int complain(const char *who, const std::string &key, const std::string &found, uint32_t from, uint32_t to)
{
    fprintf(stderr, "%s: %s is \"%s\", not of %u to %u\n", who, key.c_str(), found.c_str(), from, to);
    return 1;
}

// A lookup of k<at> gives a version between what was committed before it and what was begun behind it.
int check_key(const kv &reader, const board *shared, uint32_t at)
{
    uint32_t from = load(&shared->versions[at][1]);
    std::string key = "k" + std::to_string(at), found = reader.at(key);
    uint32_t to = load(&shared->versions[at][0]);
    size_t dot = found.find('.');
    bool ok = dot != std::string::npos && found.substr(0, dot) == std::to_string(at);
    uint32_t version = ok ? (uint32_t)atoll(found.c_str() + dot + 1) : 0;
    return ok && version >= from && version <= to ? 0 : complain("reader", key, found, from, to);
}

int read_on(board *shared, uint32_t no, uint32_t cnt)
{
    kv reader = open_kv(NAME, SHKV_AM_READ);
    uint32_t state = no + 77;
    double last = seconds(), worst = 0;
    while (!load(&shared->stop)) {
        uint32_t growing = load(&shared->growing), at = next_random(&state);
        if (growing && at % 4 == 0) {
            std::string key = "g" + std::to_string(at / 4 % growing), found = reader.at(key);
            if (found != key)
                return complain("reader", key, found, 0, 0);
        } else if (check_key(reader, shared, at % cnt)) {
            return 1;
        }
        store(&shared->lookups[no], shared->lookups[no] + 1);
        double now = seconds();
        worst = now - last > worst ? now - last : worst;
        last = now;
    }
    if (getenv("SHKV_RESHAPE_RECORDS"))
        fprintf(stderr, "reader %u: %u lookups, the longest %.1f ms\n", no, shared->lookups[no], worst * 1e3);
    return 0;
}

// The writer's own idea of what is in the store.
struct writer {
    kv to;
    board *shared;
    uint32_t cnt, state = 5, failed = 0;
    std::vector<uint32_t> churn = std::vector<uint32_t>(CHURN, 0); // 0: absent
    bool full_ok = false; // a store that does not grow may be full

    int replace(uint32_t at)
    {
        uint32_t version = shared->versions[at][1] + 1;
        store(&shared->versions[at][0], version);
        int result = to.add("k" + std::to_string(at), value_of(at, version));
        if (result == 0)
            store(&shared->versions[at][1], version);
        else
            failed++;
        return result == ENOMEM && full_ok ? 0 : result;
    }
    int come_or_go(uint32_t at, uint32_t tick)
    {
        std::string key = "c" + std::to_string(at);
        int result = tick % 2 ? to.add(key, value_of(at, tick)) : to.del(key);
        if (result == 0 || (result == ENOENT && !churn[at]))
            churn[at] = tick % 2 ? tick : 0;
        else if (result != ENOMEM || !full_ok)
            return result;
        return 0;
    }
    int check_all() const
    {
        for (uint32_t at = 0; at < cnt; at++)
            if (check_key(to, shared, at))
                return 1;
        for (uint32_t at = 0; at < CHURN; at++) {
            std::string key = "c" + std::to_string(at), found = to.at(key);
            if (found != (churn[at] ? value_of(at, churn[at]) : "#2"))
                return complain("writer", key, found, churn[at], churn[at]);
        }
        return 0;
    }
    // A reader of its own sees the same at once.
    int run()
    {
        double last = seconds(), worst = 0;
        for (uint32_t tick = 1; !load(&shared->stop); tick++) {
            uint32_t what = next_random(&state);
            int result = what % 4 ? replace(what / 4 % cnt) : come_or_go(what / 4 % CHURN, what / 8 | 1);
            if (result == 0 && what % 8 == 0)
                result = come_or_go(what / 16 % CHURN, 0);
            if (result == 0 && what % 16 == 0 && check_key(to, shared, what / 16 % cnt))
                return 1;
            if (result == 0 && load(&shared->grow))
                result = to.add("g" + std::to_string(shared->growing), "g" + std::to_string(shared->growing));
            if (result == 0 && load(&shared->grow))
                store(&shared->growing, shared->growing + 1);
            if (result != 0)
                return fprintf(stderr, "writer: tick %u gives %d\n", tick, result), 2;
            store(&shared->writes, tick);
            double now = seconds();
            worst = now - last > worst ? now - last : worst;
            last = now;
        }
        if (getenv("SHKV_RESHAPE_RECORDS"))
            fprintf(stderr, "writer: %u writes, the longest %.1f ms, %u refused\n", shared->writes, worst * 1e3, failed);
        return check_all();
    }
};

// comm_flg of the store, without a look at the rest.
uint32_t flags_now()
{
    uint32_t flg = 0;
    int fd = open("/dev/shm/shkvdb/moved", O_RDONLY);
    bool read_it = fd >= 0 && pread(fd, &flg, sizeof flg, offsetof(supernode, comm_flg)) == sizeof flg;
    close(fd);
    return read_it ? flg : 0;
}

struct crowd {
    uint32_t cnt = record_cnt();
    board *shared = make_board(cnt);
    pid_t pids[3];

    explicit crowd(uint32_t maxents, bool full_ok = false)
    {
        kv made = make_kv(NAME, {16, 32, maxents, CONF_FIXEDMM, 0});
        for (uint32_t at = 0; at < cnt && !testing::Test::HasFailure(); at++) {
            EXPECT_EQ(made.add("k" + std::to_string(at), value_of(at, 1)), 0);
            shared->versions[at][0] = shared->versions[at][1] = 1;
        }
        EXPECT_EQ(shkv_close(made.handle), 0);
        pids[0] = start_child([&] {
            writer one = {open_kv(NAME, SHKV_AM_WRITE), shared, cnt};
            one.full_ok = full_ok;
            return one.run();
        });
        for (uint32_t no = 0; no < 2; no++)
            pids[no + 1] = start_child([&] { return read_on(shared, no, cnt); });
        EXPECT_TRUE(goes_on());
    }
    // Everybody has come forward since; the writer, too, unless it has been killed.
    bool goes_on() const
    {
        uint32_t from[3] = {load(&shared->writes), load(&shared->lookups[0]), load(&shared->lookups[1])};
        for (int i = 0; i < 2000; i++) {
            usleep(10000);
            if ((!pids[0] || load(&shared->writes) > from[0] + 100) && load(&shared->lookups[0]) > from[1] + 100 &&
                load(&shared->lookups[1]) > from[2] + 100)
                return true;
            for (pid_t pid : pids) {
                siginfo_t info = {};
                if (pid && waitid(P_PID, (id_t)pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid)
                    return false;
            }
        }
        return false;
    }
    void end()
    {
        store(&shared->stop, 1);
        for (pid_t pid : pids)
            EXPECT_EQ(pid ? end_of(pid) : 0, 0);
    }
    // In the middle of the move: the writer has done so many writes since the reshape began.
    void wait_for_writes(uint32_t more) const
    {
        while (!(flags_now() & CF_RESHAPE))
            usleep(100);
        for (uint32_t from = load(&shared->writes), i = 0; load(&shared->writes) < from + more && i < 20000; i++)
            usleep(100);
    }
    void kill_writer()
    {
        kill(pids[0], SIGKILL);
        EXPECT_EQ(end_of(pids[0]), -SIGKILL);
        pids[0] = 0;
    }
    ~crowd() { munmap(shared, sizeof(board) + 8ull * cnt); }
};

void drop_store()
{
    kv last = open_kv(NAME, SHKV_AM_WRITE);
    EXPECT_EQ(shkv_destroy(last.handle), 0);
    shkv_close(last.handle);
}

} // namespace

TEST(reshape, nothing_is_lost_or_missed_beside_a_writer_and_readers)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x60000000u;
    crowd all(record_cnt() + record_cnt() / 8 + 2 * CHURN);
    const struct {
        uint32_t md_sz, ud_sz, new_hash, flg;
    } rounds[] = {{0, 1, 0, CF_MD2 | CF_UD2}, {all.cnt * 6, 1, 5, CF_MD1 | CF_UD1}, {all.cnt * 10, 0, 11, CF_MD2 | CF_UD1},
                  {0, 1, 8, CF_MD1 | CF_UD2}};
    for (const auto &round : rounds) {
        double from = seconds();
        uint32_t writes = load(&all.shared->writes);
        ASSERT_EQ(shkv_reshaping(NAME, round.md_sz, round.ud_sz, 0, round.new_hash), 0);
        if (getenv("SHKV_RESHAPE_RECORDS"))
            fprintf(stderr, "reshape: %.2f s, %u writes meanwhile\n", seconds() - from, load(&all.shared->writes) - writes);
        EXPECT_EQ(flags_now(), round.flg);
        ASSERT_TRUE(all.goes_on());
    }
    // Growth of the space that the last one made, seen by the same processes.
    store(&all.shared->grow, 1);
    store_image image;
    ASSERT_TRUE(load_store(NAME, &image));
    uint32_t was_sz = image.sn()->ud2.obj_sz;
    for (int i = 0; i < 6000 && was_sz == image.sn()->ud2.obj_sz; i++) {
        usleep(10000);
        kv look = open_kv(NAME, SHKV_AM_READ);
        if (look.sn()->ud2.obj_sz != was_sz)
            i = 6000;
        shkv_close(look.handle);
    }
    ASSERT_TRUE(all.goes_on());
    all.end();
    ASSERT_TRUE(load_store(NAME, &image));
    EXPECT_GT(image.sn()->ud2.obj_sz, was_sz);
    EXPECT_EQ(faults_of(NAME, false), "");
    drop_store();
}

// The reshaper is killed at some moment of its work: writer and readers go on for good, in the state
// that it left.
TEST(reshape, a_killed_reshaper_takes_nobody_along)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x60000000u;
    uint32_t state = 3;
    int in_middle = 0;
    for (int round = 0; round < 8; round++) {
        SCOPED_TRACE(round);
        crowd all(record_cnt() + record_cnt() / 8 + 2 * CHURN, true);
        pid_t reshaper = start_child([&] { return shkv_reshaping(NAME, 0, round % 3 ? 1 : 0, 0, 3); });
        all.wait_for_writes(round ? next_random(&state) % (record_cnt() / 10) : 0);
        kill(reshaper, SIGKILL);
        end_of(reshaper);
        in_middle += (flags_now() & CF_RESHAPE) != 0;
        ASSERT_TRUE(all.goes_on());
        usleep(200000);
        ASSERT_TRUE(all.goes_on());
        all.end();
        EXPECT_EQ(shkv_reshaping(NAME, 0, 1, 0, 3), EINVAL); // its token stays
        if (HasFailure())
            return;
        for (const char *object : {"db/moved", "mu/moved_md1", "mu/moved_md2", "mu/moved_md_txn", "mu/moved_ud1", "mu/moved_ud2"})
            unlink((std::string("/dev/shm/shkv") + object).c_str());
        kv reg = open_kv(SHKV_REGISTRY_NAME, SHKV_AM_WRITE);
        reg.del(NAME);
        shkv_close(reg.handle);
    }
    EXPECT_GT(in_middle, 4);
}

// The writer is killed, some time with wr_ksem in its hand: the reshape ends, and the next writer finds
// what was committed.
TEST(reshape, a_killed_writer_does_not_hold_it_up)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x60000000u;
    uint32_t state = 8;
    int in_middle = 0;
    for (int round = 0; round < 8; round++) {
        SCOPED_TRACE(round);
        crowd all(record_cnt() + record_cnt() / 8 + 2 * CHURN);
        pid_t reshaper = start_child([&] { return shkv_reshaping(NAME, 0, round % 3 ? 1 : 0, 0, 3); });
        all.wait_for_writes(next_random(&state) % (record_cnt() / 10));
        all.kill_writer();
        in_middle += (flags_now() & CF_RESHAPE) != 0;
        EXPECT_EQ(end_of(reshaper), 0);
        ASSERT_TRUE(all.goes_on());
        all.end();
        kv next = open_kv(NAME, SHKV_AM_WRITE);
        for (uint32_t at = 0; at < all.cnt && !HasFailure(); at++)
            EXPECT_EQ(check_key(next, all.shared, at), 0);
        EXPECT_EQ(next.add("k1", "next"), 0);
        EXPECT_EQ(faults_of(NAME, false), "");
        EXPECT_EQ(shkv_destroy(next.handle), 0);
        shkv_close(next.handle);
        if (HasFailure())
            return;
    }
    EXPECT_GT(in_middle, 0); // how often depends on what else the machine does
}

// Into a space that cannot hold the records: refused at the first that does not fit, and nothing is
// lost, also of what the writer did meanwhile.
TEST(reshape, a_space_too_small_leaves_the_old_one_in_force)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x60000000u;
    crowd all(record_cnt() + record_cnt() / 8 + 2 * CHURN, true);
    uint32_t small_sz = GET_USER_SIZE(record_cnt() / 2 + 1000, 16, 32);
    for (uint32_t ud_sz : {small_sz, small_sz + 40960})
        EXPECT_EQ(shkv_reshaping(NAME, 0, ud_sz, 0, 4), EINVAL);
    EXPECT_EQ(flags_now(), CF_MD1 | CF_UD1);
    ASSERT_TRUE(all.goes_on());
    EXPECT_EQ(shkv_reshaping(NAME, 0, 1, 0, 4), 0);
    ASSERT_TRUE(all.goes_on());
    all.end();
    EXPECT_EQ(flags_now(), CF_MD2 | CF_UD2);
    EXPECT_EQ(faults_of(NAME, false), "");
    drop_store();
}

// Behind the switch the reshaper waits a second before it cuts what was old. A writer that grows meanwhile
// takes the old table for its new one: then it is not cut, nor is a rebuild forgotten whose flag the
// reshaper clears with its token.
static void grow_behind_the_switch(const char *name, uint16_t slice_us, bool txn)
{
    kv store = make_kv(name, {16, 32, 2000, CONF_FIXEDMM, 0});
    const supernode *sn = store.sn();
    shkv_opts opts = {0, 1, slice_us};
    EXPECT_EQ(shkv_db_set_opts(store.handle, 1, &opts), 0);
    contents want;
    auto add = [&](size_t no) { return store.add("k" + std::to_string(no), want["k" + std::to_string(no)] = "v"); };
    while (want.size() < 900)
        ASSERT_EQ(add(want.size()), 0);
    pid_t reshaper = start_child([=] { return shkv_reshaping(name, 0, GET_USER_SIZE(950, 16, 32), 0, 3); });
    while (!(load(&sn->comm_flg) & CF_UD2) || (load(&sn->comm_flg) & CF_RESHAPE))
        usleep(100);
    for (uint32_t ud_sz = sn->ud2.obj_sz; sn->ud2.obj_sz == ud_sz;)
        ASSERT_EQ(add(want.size()), 0);
    EXPECT_TRUE(sn->comm_flg & (slice_us ? CF_REFILL1 : CF_MD1)) << sn->comm_flg;
    EXPECT_EQ(end_of(reshaper), 0);
    EXPECT_EQ(txn ? shkv_txn_start(store.handle, nullptr) : 0, 0);
    for (size_t end = want.size() + 100; want.size() < end;)
        ASSERT_EQ(add(want.size()), 0);
    EXPECT_EQ(txn ? shkv_txn_commit(store.handle, nullptr) : 0, 0);
    while (store.head()->refill_pos)
        ASSERT_EQ(add(want.size()), 0);
    EXPECT_EQ(store.all(), want);
    EXPECT_EQ(faults_of(name), "");
    EXPECT_EQ(shkv_reshaping(name, 0, 1, 0, 0), 0);
    EXPECT_EQ(store.all(), want);
}

TEST(reshape, growth_right_behind_the_switch_keeps_its_table)
{
    make_kv("registry", {16, 16, 10, CONF_FIXEDMM, 0});
    const struct {
        const char *name;
        uint16_t slice_us;
        bool txn;
    } cases[] = {{"at once", 0, false}, {"at once, txn", 0, true}, {"in slices", 1, false}, {"in slices, txn", 1, true}};
    pid_t pids[4];
    for (int i = 0; i < 4; i++)
        pids[i] = start_child([&] {
            SCOPED_TRACE(cases[i].name);
            grow_behind_the_switch(cases[i].name, cases[i].slice_us, cases[i].txn);
            return testing::Test::HasFailure();
        });
    for (pid_t pid : pids)
        EXPECT_EQ(end_of(pid), 0);
}
