#include <fcntl.h>
#include <functional>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include "shkv_intf/chain.h"
#include "shkv_intf/head.h"
#include "support/kv.h"

namespace {

const shkv_params FIXED = {16, 32, 100, CONF_FIXEDMM, 0};
const shkv_params VECTOR = {0, 0, 400, CONF_VECTORMM, 0};
const shkv_params LOCKED = {16, 32, 100, CONF_FIXEDMM | CONF_L3, 0};

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

// The record of a chain that has this key, by a walk of our own; how often it stands there.
int count_in_table(const kv &store, bool md1, const std::string &key, uint32_t *bucket_p = nullptr)
{
    const md_rec *rec = md1 ? &store.head()->md1 : &store.head()->md2;
    uint32_t hashsz = md1 ? store.sn()->md1.hashsz : store.sn()->md2.hashsz;
    uint32_t bucket = rec->hash_fn(key.data(), (uint32_t)key.size()) % hashsz;
    if (bucket_p)
        *bucket_p = bucket;
    char *ud_base = (char *)store.head()->ud1_map->map[0];
    int cnt = 0;
    for (uint32_t off = rec->base[bucket].first_ptr; off;) {
        udn *udn_p = (udn *)(ud_base + off);
        cnt += udn_p->key_sz == key.size() && memcmp(udn_p + 1, key.data(), key.size()) == 0;
        off = *chain_link_p(udn_p, md1);
    }
    return cnt;
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

TEST(add_delete, refusals_have_their_value_line_and_event)
{
    kv fixed = make_kv("args_fixed", FIXED), vec = make_kv("args_vec", VECTOR);
    kv reader = open_kv("args_fixed", SHKV_AM_READ);
    char bytes[70000] = {};
    shkv_buf key = {bytes, 4}, val = {bytes, 4}, empty = {bytes, 0}, no_ptr = {nullptr, 4};
    shkv_buf key17 = {bytes, 17}, val33 = {bytes, 33}, key2049 = {bytes, 2049}, val65001 = {bytes, 65001};
    const uint32_t R = (uint32_t)reader.handle, F = (uint32_t)fixed.handle;
    auto add = [](const kv &to, shkv_buf *k, shkv_buf *v, uint32_t mode = 0) {
        return [=] { return shkv_add(to.handle, k, v, mode); };
    };
    auto del = [](const kv &to, shkv_buf *k, uint32_t mode = 0) {
        return [=] { return __shkv_delete(to.handle, k, mode); };
    };
    // What is done to the store for one call only.
    enum change { NOTHING, DBG, GONE, NO_HASH };
    const struct {
        kv on;
        std::function<int()> call;
        int value;
        const char *line; // %d is the handle
        uint32_t event, arg, arg2 = 0; // with an arg2 it is a pair
        change before = NOTHING;
    } cases[] = {
        {reader, add(reader, &key, &val), EINVAL, "shkv_add, write is not allowed, shkvh:%d", 0x62, R},
        {fixed, add(fixed, &key, &val), EINVAL, "shkv_add, write dbg is on-going, shkvh:%d", 0x63, F, 1, DBG},
        {fixed, add(fixed, nullptr, &val), EINVAL, "shkv_add, has bad buffer, shkvh:%d", 0x64, F},
        {fixed, add(fixed, &key, nullptr), EINVAL, "shkv_add, has bad buffer, shkvh:%d", 0x64, F},
        {fixed, add(fixed, &empty, &val), EINVAL, "shkv_add, key buffer size is 0, shkvh:%d", 0x65, F},
        {fixed, add(fixed, &no_ptr, &val), EINVAL, "shkv_add, key buffer size is 0, shkvh:%d", 0x65, F},
        {fixed, add(fixed, &key, &no_ptr), EINVAL, "shkv_add, value buffer is invalid, shkvh:%d", 0x66, F},
        {fixed, add(fixed, &key17, &val), EINVAL,
         "shkv_add, key buffer size is too big, shkvh:%d", 0x67, F, 17},
        {fixed, add(fixed, &key, &val33), EINVAL, "shkv_add, value buffer is too big, shkvh:%d", 0x68, F, 33},
        {vec, add(vec, &key2049, &val), EINVAL, "shkv_add, key size is too big:2049", 0x70, 2049, 2048},
        {vec, add(vec, &key, &val65001), EINVAL, "shkv_add, value size is too big:65001", 0x71, 65001, 65000},
        {fixed, add(fixed, &key, &val), EBADF,
         "shkv_add, the db has been destroyed, shkvh:%d", 0x69, F, 0, GONE},
        {fixed, add(fixed, &key, &val, 2), EINVAL, "shkv_add, bad mode config, shkvh:%d", 0x6b, F},
        {fixed, add(fixed, &key, &val), EINVAL,
         "shkv_add, hashfunc is not inited, shkvh:%d", 0x6c, F, 0, NO_HASH},
        {reader, del(reader, &key), EINVAL, "shkv_del, write is not allowed, shkvh:%d", 0x78, R},
        {fixed, del(fixed, &key), EINVAL, "shkv_add, write dbg is on-going, shkvh:%d", 0x79, F, 1, DBG},
        {fixed, del(fixed, nullptr), EINVAL, "shkv_delete, has bad buffer, shkvh:%d", 0x7a, F},
        {fixed, del(fixed, &empty), EINVAL, "shkv_delete, key buffer size is 0, shkvh:%d", 0x7b, F},
        {fixed, del(fixed, &no_ptr), EINVAL, "shkv_delete, key buffer size is 0, shkvh:%d", 0x7b, F},
        {fixed, del(fixed, &key), EBADF, "shkv_del, the db has been destroyed, shkvh:%d", 0x7c, F, 0, GONE},
        {fixed, del(fixed, &key, 0x77), EBADF, "shkv_del, reshaping new db available, shkvh:%d", 0x7e, F},
        {fixed, del(fixed, &key), EINVAL, "shkv_del, hashfunc is not inited, shkvh:%d", 0x7f, F, 0, NO_HASH},
    };
    shkv_hash_fn hash_fn = fixed.head()->md1.hash_fn;
    for (const auto &one : cases) {
        if (one.before == DBG)
            fixed.sn()->sn_flg |= SN_DBG_WR;
        if (one.before == GONE)
            fixed.sn()->comm_flg |= CF_DESTROYED;
        if (one.before == NO_HASH) { // a caller's function that this handle was not opened with
            fixed.head()->md1.hash_fn = nullptr;
            fixed.sn()->md1.hashfn = SHKV_USER_HASHFN;
        }
        log_catcher log;
        EXPECT_EQ(one.call(), one.value) << one.line;
        char line[128];
        snprintf(line, sizeof line, one.line, one.on.handle);
        EXPECT_EQ(log.last(), line);
        last_event event(one.on.sn());
        EXPECT_EQ(event.code, one.event | (one.arg2 ? TRACE_PAIR1 : TRACE_ONE)) << one.line;
        EXPECT_EQ(event.arg, one.arg) << one.line;
        EXPECT_EQ(event.arg2, one.arg2) << one.line;
        fixed.sn()->sn_flg &= ~SN_DBG_WR;
        fixed.sn()->comm_flg &= ~CF_DESTROYED;
        fixed.head()->md1.hash_fn = hash_fn;
        fixed.sn()->md1.hashfn = 7;
    }
    for (int handle : {0, 33, -1, 32}) {
        EXPECT_EQ(shkv_add(handle, &key, &val, 0), EBADF);
        EXPECT_EQ(shkv_delete(handle, &key), EBADF);
    }
    EXPECT_TRUE(fixed.all().empty() && vec.all().empty());
    EXPECT_EQ(faults_of("args_fixed"), "");
    EXPECT_EQ(faults_of("args_vec"), "");
}

TEST(add_delete, sizes_at_the_limits_are_stored_whole)
{
    kv store = make_kv("limits", VECTOR);
    const struct {
        size_t ksz, vsz;
    } sizes[] = {{2048, 65000}, {2048, 0}, {1, 65000}, {100, 0}, {100, 1}, {224, 300}, {99, 1}, {1, 0}};
    std::map<std::string, std::string> want;
    for (const auto &size : sizes) {
        std::string key(size.ksz, 'a'), value(size.vsz, 'v');
        key.back() = (char)('b' + want.size());
        for (size_t i = 0; i < size.vsz; i++)
            value[i] = (char)(i * 7 + i / 251);
        EXPECT_EQ(store.add(key, value), 0) << size.ksz << " " << size.vsz;
        want[key] = value;
    }
    const std::string null_key = "null value";
    shkv_buf key = buf_of(null_key), none = {nullptr, 0};
    EXPECT_EQ(shkv_add(store.handle, &key, &none, 0), 0);
    want[null_key] = "";
    EXPECT_EQ(store.all(), want);
    for (const auto &pair : want)
        EXPECT_EQ(store.at(pair.first), pair.second);
    EXPECT_EQ(faults_of("limits"), "");
}

// A chain of four in one bucket, changed at each of its places.
TEST(add_delete, a_chain_keeps_its_other_records_whichever_one_changes)
{
    kv store = make_kv("chain", FIXED);
    std::vector<std::string> keys;
    for (unsigned i = 0; keys.size() < 4; i++) {
        std::string key = key_no(i);
        if (dekhash(key.data(), (uint32_t)key.size()) % store.sn()->md1.hashsz == 7)
            keys.push_back(key);
    }
    std::map<std::string, std::string> want;
    auto put = [&](const std::string &key, const std::string &value) {
        EXPECT_EQ(store.add(key, value), 0);
        want[key] = value;
    };
    for (const std::string &key : keys)
        put(key, "1" + key);
    for (const std::string &key : keys) {
        uint32_t first = store.head()->md1.base[7].first_ptr;
        put(key, "2" + key);
        // The newest stands first: only its replacement changes the bucket.
        EXPECT_EQ(store.head()->md1.base[7].first_ptr != first, key == keys[3]);
        EXPECT_EQ(store.all(), want);
    }
    for (const std::string &gone : keys) {
        EXPECT_EQ(store.del(gone), 0);
        want.erase(gone);
        EXPECT_EQ(store.all(), want);
        EXPECT_EQ(store.at(gone), "#2");
        put(gone, "3" + gone);
    }
    for (const std::string &key : keys)
        EXPECT_EQ(store.del(key), 0);
    EXPECT_EQ(store.head()->md1.base[7].first_ptr, 0u);
    EXPECT_EQ(faults_of("chain"), "");
}

TEST(add_delete, a_missing_key_is_told_on_standard_output)
{
    kv store = make_kv("missing", FIXED);
    int result = 0;
    EXPECT_EQ(stdout_of([&] { result = store.del("none"); }), "key not found\n");
    EXPECT_EQ(result, ENOENT);
    ASSERT_EQ(store.add("some", "x"), 0);
    EXPECT_EQ(stdout_of([&] { result = store.del("some"); }), "");
    EXPECT_EQ(result, 0);
}

TEST(add_delete, a_full_store_that_may_not_grow_stays_as_it_is)
{
    kv store = make_kv("full", FIXED);
    store.sn()->auto_rz = 0;
    uint32_t room = shkv_get_exact_max_entries(16, 32, 100), cnt = 0;
    while (store.add(key_no(cnt), "v") == 0)
        cnt++;
    EXPECT_EQ(cnt, room);
    EXPECT_EQ(store.add("one more", "v"), ENOMEM);
    EXPECT_EQ(store.all().size(), room);
    // Freed space comes back, at the latest when the 50 ms of the hold list are over.
    for (uint32_t i = 0; i < 20; i++)
        EXPECT_EQ(store.del(key_no(i)), 0);
    usleep(60000);
    EXPECT_EQ(store.add("one more", "v"), 0);
    EXPECT_EQ(store.at("one more"), "v");
    EXPECT_EQ(faults_of("full"), "");
}

TEST(add_delete, a_protected_space_is_open_only_for_the_length_of_a_write)
{
    kv store = make_kv("locked", LOCKED);
    const void *ud_base = store.head()->ud1_map->map[0];
    ASSERT_EQ(store.add("a", "1"), 0);
    EXPECT_EQ(protection_of(ud_base), "r--s");
    int missing = 0;
    stdout_of([&] { missing = store.del("none"); });
    EXPECT_EQ(missing, ENOENT);
    EXPECT_EQ(protection_of(ud_base), "r--s");
    EXPECT_EQ(store.del("a"), 0);
    EXPECT_EQ(protection_of(ud_base), "r--s");
    // Another process takes the protection off the store: our own mapping is closed all the same.
    store.sn()->sn_flg &= ~SN_WPROT;
    EXPECT_EQ(store.add("b", "2"), 0);
    EXPECT_EQ(protection_of(ud_base), "rw-s");
    store.sn()->sn_flg |= SN_WPROT;
    EXPECT_EQ(store.del("b"), 0);
    // Growth, a rebuild in slices and further adds, each of which begins on a closed space.
    store.sn()->rz_tm_chk = 1;
    for (unsigned i = 0; i < 600; i++)
        ASSERT_EQ(store.add(key_no(i), "v"), 0) << i;
    EXPECT_GT(store.sn()->ud1.obj_ver, 1u);
    EXPECT_EQ(protection_of(store.head()->ud1_map->map[0]), "r--s");
    EXPECT_EQ(store.all().size(), 600u);
    EXPECT_EQ(faults_of("locked"), "");
}

TEST(add_delete, a_transaction_stages_deletes)
{
    kv store = make_kv("staged", FIXED);
    ASSERT_EQ(store.add("base", "1"), 0);
    ASSERT_EQ(shkv_txn_start(store.handle, nullptr), 0);
    ASSERT_EQ(store.add("new", "2"), 0);
    const struct {
        const char *key;
        int result;
    } deletes[] = {{"new", 0}, {"new", 0}, {"base", 0}, {"base", 0}, {"none", ENOENT}};
    std::string told = stdout_of([&] {
        for (const auto &one : deletes)
            EXPECT_EQ(store.del(one.key), one.result) << one.key;
    });
    EXPECT_EQ(told, "key not found\n");
    kv reader = open_kv("staged", SHKV_AM_READ);
    EXPECT_EQ(reader.at("base"), "1"); // until the commit
    EXPECT_EQ(store.at("base"), "#2");
    ASSERT_EQ(shkv_txn_commit(store.handle, nullptr), 0);
    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(faults_of("staged"), "");
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

// In the middle of a rebuild: its slices are of a microsecond, so 50 buckets at most.
TEST(add_delete, a_rebuild_leaves_each_record_in_the_tables_it_belongs_to)
{
    kv store = make_kv("two_tables", {16, 32, 5000, CONF_FIXEDMM, 0});
    store.sn()->rz_tm_chk = 1;
    unsigned cnt = 0;
    while (store.head()->refill_pos == 0)
        ASSERT_EQ(store.add(key_no(cnt++), "v"), 0);
    bool md1 = store.md1();
    int below = 0, above = 0;
    for (unsigned i = 0; store.head()->refill_pos != 0 && i < cnt; i++) {
        std::string key = i % 3 ? key_no(i) : "new" + std::to_string(i);
        uint32_t bucket;
        if (i % 3 == 2) {
            ASSERT_EQ(store.del(key), 0);
        }
        ASSERT_EQ(store.add(key, "w"), 0);
        if (store.head()->refill_pos == 0)
            break; // flipped
        EXPECT_EQ(count_in_table(store, md1, key, &bucket), 1) << key;
        bool moved = bucket < store.head()->refill_pos;
        EXPECT_EQ(count_in_table(store, !md1, key), moved) << key << " in bucket " << bucket;
        if (i % 5 == 0) {
            ASSERT_EQ(store.del(key), 0);
            EXPECT_EQ(count_in_table(store, !md1, key), 0) << key;
        }
        (moved ? below : above)++;
    }
    EXPECT_GT(below, 5);
    EXPECT_GT(above, 5);
    EXPECT_NE(store.md1(), md1);
    EXPECT_EQ(faults_of("two_tables"), "");
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
