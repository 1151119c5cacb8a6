#include <fcntl.h>
#include <functional>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include "support/kv.h"

namespace {

const shkv_params FIXED = {16, 32, 100, CONF_FIXEDMM, 0};
const shkv_params VECTOR = {0, 0, 400, CONF_VECTORMM, 0};
const shkv_params LOCKED = {16, 32, 100, CONF_FIXEDMM | CONF_L3, 0};
const shkv_params LOCKED_CHUNKS = {16, 32, 100, CONF_VECTORMM | CONF_SHMAP | CONF_L3, 0};

std::string key_no(unsigned i)
{
    return "k" + std::to_string(i);
}

// Standard output of what, as a string.
std::string stdout_of(const std::function<void()> &what)
{
    fflush(stdout);
    int keep = dup(1), file = open("/dev/shm/stdout", O_RDWR | O_CREAT | O_TRUNC, 0600);
    dup2(file, 1);
    what();
    fflush(stdout);
    dup2(keep, 1);
    char text[256];
    ssize_t len = pread(file, text, sizeof text, 0);
    close(keep);
    close(file);
    return std::string(text, len > 0 ? (size_t)len : 0);
}

// Protection of the page at base, as the system sees it.
std::string protection_of(const void *base)
{
    FILE *maps = fopen("/proc/self/maps", "r");
    char line[512], perms[8] = "";
    unsigned long from, to;
    while (fgets(line, sizeof line, maps))
        if (sscanf(line, "%lx-%lx %4s", &from, &to, perms) == 3 && from <= (unsigned long)base &&
            (unsigned long)base < to)
            break;
    fclose(maps);
    return perms;
}

} // namespace

TEST(add_delete, a_protected_space_is_open_only_for_the_length_of_a_write)
{
    for (const shkv_params &params : {LOCKED, LOCKED_CHUNKS}) {
        kv store = make_kv("locked", params);
        auto protection = [&] { return protection_of(store.head()->ud1_map->map[0]); };
        ASSERT_EQ(store.add("a", "1"), 0);
        EXPECT_EQ(protection(), "r--s");
        int missing = 0;
        EXPECT_EQ(stdout_of([&] { missing = store.del("none"); }), "key not found\n");
        EXPECT_EQ(missing, ENOENT);
        EXPECT_EQ(protection(), "r--s");
        EXPECT_EQ(store.del("a"), 0);
        EXPECT_EQ(protection(), "r--s");
        // Another process takes the protection off the store: our own mapping is closed all the same.
        store.sn()->sn_flg &= ~SN_WPROT;
        EXPECT_EQ(store.add("b", "2"), 0);
        EXPECT_EQ(protection(), "rw-s");
        store.sn()->sn_flg |= SN_WPROT;
        EXPECT_EQ(store.del("b"), 0);
        // Growth, a rebuild in slices and further adds, each of which begins on a closed space.
        store.sn()->rz_tm_chk = 1;
        for (unsigned i = 0; i < 2000; i++)
            ASSERT_EQ(store.add(key_no(i), "v"), 0) << i;
        EXPECT_GT(store.sn()->ud1.obj_ver, 1u);
        EXPECT_EQ(protection(), "r--s");
        EXPECT_EQ(store.all().size(), 2000u);
        EXPECT_EQ(faults_of("locked"), "");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

// A debug writer may have ended our rebuild and left its transaction open. The tombstones take their
// space by growth, which wants the lock that a delete holds in a rebuild.
TEST(add_delete, a_delete_after_a_lost_rebuild_stages_without_the_lock)
{
    kv store = make_kv("lost_lock", {16, 32, 100, CONF_FIXEDMM, 0});
    unsigned cnt = 0;
    for (store.sn()->auto_rz = 0; store.add(key_no(cnt), "v") == 0;)
        cnt++;
    store.sn()->auto_rz = 1;
    ASSERT_EQ(shkv_txn_start(store.handle, nullptr), 0);
    uint32_t size = store.sn()->ud1.obj_sz;
    alarm(20);
    for (unsigned i = 0; i < cnt; i++) {
        store.head()->refill_pos = 1;
        store.head()->md2.ver = store.sn()->md2.obj_ver - 1;
        ASSERT_EQ(store.del(key_no(i)), 0) << i;
    }
    EXPECT_GT(store.sn()->ud1.obj_sz, size);
    ASSERT_EQ(shkv_txn_commit(store.handle, nullptr), 0);
    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(faults_of("lost_lock"), "");
}

// Any order of adds, replacements and deletes against a std::map: through growths, with a rebuild
// under way most of the time, seen by the writer and by a process that opened before all of it.
TEST(add_delete, a_random_run_agrees_with_a_map_here_and_in_another_process)
{
    const struct {
        const char *name;
        shkv_params params;
        unsigned keys, value_sz, growths;
    } kinds[] = {{"run_fixed", {16, 32, 1000, CONF_FIXEDMM, 0}, 8000, 32, 2},
                 {"run_vector", {0, 0, 2000, CONF_VECTORMM, 0}, 3000, 700, 2},
                 {"run_shmap", {0, 0, 2000, CONF_VECTORMM | CONF_SHMAP, 0}, 3000, 700, 1}}; // a chunk at once
    for (const auto &kind : kinds) {
        kv store = make_kv(kind.name, kind.params);
        store.sn()->rz_tm_chk = 1;
        int ask[2], answer[2];
        ASSERT_TRUE(pipe(ask) == 0 && pipe(answer) == 0);
        auto digest = [](const std::map<std::string, std::string> &all) {
            uint64_t sum = all.size();
            for (const auto &pair : all)
                sum = sum * 31 + std::hash<std::string>{}(pair.first + "=" + pair.second);
            return sum;
        };
        pid_t child = fork();
        if (child == 0) { // reads everything, both ways, whenever it is asked
            kv reader = open_kv(kind.name, SHKV_AM_READ | SHKV_AM_ITER);
            for (char go; read(ask[0], &go, 1) == 1 && go == '?';) {
                auto all = reader.all();
                uint64_t sum = digest(all);
                for (const auto &pair : all)
                    sum += reader.at(pair.first) != pair.second;
                if (write(answer[1], &sum, sizeof sum) != sizeof sum)
                    break;
            }
            _exit(0);
        }
        std::mt19937 rng(7);
        std::map<std::string, std::string> want;
        int partial = 0;
        stdout_of([&] {
            for (unsigned step = 0; step < 20000; step++) {
                // The keys in use grow with the steps, so that the store does.
                std::string key = key_no(rng() % (kind.keys * (step / 2000 + 1) / 10));
                if (rng() % 3) {
                    std::string value(rng() % (kind.value_sz + 1), (char)('a' + rng() % 26));
                    ASSERT_EQ(store.add(key, value), 0) << step;
                    want[key] = value;
                } else {
                    ASSERT_EQ(store.del(key), want.erase(key) ? 0 : ENOENT) << step << key;
                }
                partial += store.head()->refill_pos != 0;
                std::string probe = key_no(rng() % kind.keys);
                ASSERT_EQ(store.at(probe), want.count(probe) ? want[probe] : "#2") << step;
                if (step % 400 == 0) {
                    ASSERT_EQ(store.all(), want) << step;
                    uint64_t sum = 0;
                    ASSERT_TRUE(write(ask[1], "?", 1) == 1 && read(answer[0], &sum, sizeof sum) == sizeof sum);
                    ASSERT_EQ(sum, digest(want)) << step;
                }
            }
        });
        EXPECT_GT(partial, 2) << kind.name;
        EXPECT_GE(store.sn()->ud1.obj_ver, 1 + kind.growths) << kind.name;
        EXPECT_TRUE(write(ask[1], ".", 1) == 1);
        waitpid(child, nullptr, 0);
        for (int fd : {ask[0], ask[1], answer[0], answer[1]})
            close(fd);
        EXPECT_EQ(faults_of(kind.name), "");
    }
}
