#include "procs/crowd.h"

#include <thread>

static std::string name_of(char kind, uint32_t no)
{
    return kind + std::to_string(no);
}

// "key.version." and what follows from both.
std::string crowd::value_of(uint32_t key, uint32_t version) const
{
    std::string text = std::to_string(key) + "." + std::to_string(version) + ".";
    if (plan.val_max > text.size())
        text.resize(text.size() + (key * 31 + version) * 0x9e3779b1u % (plan.val_max - text.size()),
                    (char)('a' + (key + version) % 26));
    return text;
}

// from: the version that was committed before the lookup.
bool crowd::value_good(uint32_t key, int result, const std::string &found, uint32_t from) const
{
    uint32_t to = load(&shared->versions[key][0]);
    size_t dot = found.find('.');
    uint32_t version = dot == std::string::npos ? 0 : (uint32_t)atoll(found.c_str() + dot + 1);
    if (result == 0 && version >= from && version <= to && found == value_of(key, version))
        return true;
    fprintf(stderr, "%s: k%u gives %d, \"%s\", not of %u to %u\n", plan.name, key, result, found.c_str(), from, to);
    return false;
}

// By the key; lite: as what the pointer into the store leads to.
static std::string look(const kv &by, const std::string &key, bool lite)
{
    shkv_buf key_buf = buf_of(key), found = {};
    if (!lite)
        return by.at(key);
    int result = shkv_lookup_lite(by.handle, &key_buf, &found);
    return result ? "#" + std::to_string(result) : std::string((const char *)found.ptr, found.len);
}

// Eight keys, by turns one by one and as a group; and of the added ones the newest, whose growth is the
// youngest, or any.
int crowd::look_on(const kv &by, uint32_t *lookups_p, uint32_t seed, bool lite) const
{
    for (uint32_t state = seed + 77, round = seed; !load(&shared->stop); round++) {
        std::vector<std::string> names;
        uint32_t numbers[8], from[8];
        for (int i = 0; i < 8; i++) {
            numbers[i] = next_random(&state) % plan.keys;
            names.push_back(name_of('k', numbers[i]));
            from[i] = load(&shared->versions[numbers[i]][1]);
        }
        answers got = look_up(by.handle, names, round % 2 == 0);
        for (int i = 0; i < 8; i++)
            if (!value_good(numbers[i], got.results[i], got.values[i], from[i]))
                return 1;
        std::string place = names[0]; // a value in its key's place
        place.resize(4096);
        shkv_buf key_buf = {place.data(), (uint32_t)names[0].size()}, val = {place.data(), 4096};
        if (int result = shkv_lookup(by.handle, &key_buf, &val);
            !value_good(numbers[0], result, place.substr(0, result ? 0 : val.len), from[0]))
            return 1;
        if (plan.threads) { // these come and go
            uint32_t no = next_random(&state) % plan.churn;
            std::string found = look(by, name_of('c', no), lite);
            if (!lite && found != "#2" && found.find(std::to_string(no) + ".") != 0)
                return fprintf(stderr, "%s: c%u gives %s\n", plan.name, no, found.c_str()), 1;
        }
        if (uint32_t cnt = load(&shared->growing)) {
            std::string key = name_of('g', round % 4 ? next_random(&state) % cnt : cnt - 1), found = look(by, key, lite);
            if (found != key)
                return fprintf(stderr, "%s: %s gives %s\n", plan.name, key.c_str(), found.c_str()), 1;
        }
        __atomic_fetch_add(lookups_p, 8, __ATOMIC_SEQ_CST);
    }
    return 0;
}

// One thread does work. Beside it others look, as the plan says.
template <typename F> int crowd::beside_threads(const kv &by, uint32_t *lookups_p, F work) const
{
    int result = 0;
    std::vector<std::thread> threads;
    kv own = plan.threads ? open_kv(plan.name, SHKV_AM_READ | SHKV_AM_ITER) : kv{};
    auto start = [&](auto what) {
        if (plan.threads)
            threads.emplace_back([&result, what] { __atomic_fetch_or(&result, what(), __ATOMIC_SEQ_CST); });
    };
    const kv &shared_one = plan.threads == BY_THE_SAME ? by : own;
    start([&] { return look_on(shared_one, lookups_p, 2, plan.params.conf_flg & CONF_FIXEDMM); });
    start([&] { return look_on(own, lookups_p, 3, false); });
    start([&] {
        for (contents all; !load(&shared->stop); all.clear())
            read_all(own.handle, &all);
        return 0;
    });
    __atomic_fetch_or(&result, work(), __ATOMIC_SEQ_CST);
    for (std::thread &thread : threads)
        thread.join();
    return result;
}

int crowd::read(uint32_t no) const
{
    kv reader = open_kv(plan.name, SHKV_AM_READ);
    uint32_t *lookups_p = &shared->lookups[no];
    return beside_threads(reader, lookups_p, [&] { return look_on(reader, lookups_p, no, false); });
}

int crowd::write() const
{
    kv writer = open_kv(plan.name, SHKV_AM_WRITE);
    uint32_t uncounted = 0;
    return beside_threads(writer, &uncounted, [&] { return write_on(writer); });
}

static int add(const kv &to, const std::string &key, const std::string &value, bool batch)
{
    shkv_buf key_buf = buf_of(key), val = buf_of(value);
    return batch ? shkv_m_add(to.handle, &key_buf, &val, 1, 1) : shkv_add(to.handle, &key_buf, &val, 0);
}

// Replaces, by way of a transaction or a batch too, adds and deletes, and looks at its own work.
int crowd::write_on(const kv &to) const
{
    std::vector<uint32_t> churn(plan.churn, 0); // 0: absent
    auto refused = [&](int result) { return result != 0 && !(result == ENOMEM && plan.full_ok); };
    uint32_t state = 5, tick = 1;
    for (; !load(&shared->stop); store(&shared->writes, tick++)) {
        uint32_t what = next_random(&state), key = what / 4 % plan.keys, version = shared->versions[key][1] + 1;
        bool txn = plan.threads && tick % 32 == 0, dropped = txn && tick % 3 == 0;
        store(&shared->versions[key][0], version);
        int result = txn ? shkv_txn_start(to.handle, nullptr) : 0;
        if (result == 0)
            result = add(to, name_of('k', key), value_of(key, version), plan.threads && tick % 512 == 1);
        std::vector<std::pair<uint32_t, uint32_t>> changes;
        for (uint32_t i = 0; plan.churn && i < (txn ? 20 : what % 2); i++) {
            uint32_t no = (what / 16 + i) % plan.churn;
            bool adds = (what >> 1 ^ i) & 1;
            int changed = adds ? to.add(name_of('c', no), value_of(no, tick)) : to.del(name_of('c', no));
            if ((changed != ENOENT || churn[no] != 0) && refused(changed))
                return fprintf(stderr, "%s: c%u gives %d\n", plan.name, no, changed), 2;
            if (changed == 0)
                changes.emplace_back(no, adds ? tick : 0);
        }
        if (result == 0 && txn)
            result = dropped ? shkv_txn_abort(to.handle) : shkv_txn_commit(to.handle, nullptr);
        if (result == 0 && !dropped)
            store(&shared->versions[key][1], version);
        for (auto [no, state_of] : changes)
            churn[no] = dropped ? churn[no] : state_of;
        if (refused(result))
            return fprintf(stderr, "%s: replacing gives %d\n", plan.name, result), 2;
        if (what % 16 == 0 && !value_good(key, 0, to.at(name_of('k', key)), shared->versions[key][1]))
            return 1;
        for (uint32_t more = load(&shared->grow); more; more--) {
            std::string name = name_of('g', shared->growing);
            if ((result = to.add(name, name)) != 0)
                return fprintf(stderr, "%s: %s gives %d\n", plan.name, name.c_str(), result), 2;
            store(&shared->growing, shared->growing + 1);
        }
    }
    for (uint32_t no = 0; no < plan.churn; no++)
        EXPECT_EQ(churn[no] ? value_of(no, churn[no]) : "#2", to.at(name_of('c', no)));
    expect_all(to);
    return 0;
}

void crowd::expect_all(const kv &by) const
{
    for (uint32_t key = 0; key < plan.keys && !testing::Test::HasFailure(); key++)
        EXPECT_TRUE(value_good(key, 0, by.at(name_of('k', key)), load(&shared->versions[key][1])));
    for (uint32_t no = 0; no < load(&shared->growing) && !testing::Test::HasFailure(); no++)
        EXPECT_EQ(name_of('g', no), by.at(name_of('g', no)));
}

crowd::crowd(const crowd_plan &how)
    : plan(how),
      shared(shared_memory<board>(board_sz()))
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x60000000u;
    kv made = make_kv(plan.name, plan.params);
    for (uint32_t key = 0; key < plan.keys && !testing::Test::HasFailure(); key++) {
        EXPECT_EQ(0, made.add(name_of('k', key), value_of(key, 1)));
        shared->versions[key][0] = shared->versions[key][1] = 1;
    }
    EXPECT_EQ(0, shkv_close(made.handle));
    for (uint32_t no = 0; no < 3; no++)
        pids[no] = start_child([&] { return be_quiet(), no == 0 ? write() : read(no - 1); });
    EXPECT_TRUE(goes_on());
}

bool crowd::goes_on() const
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

void crowd::wait_for_writes(uint32_t more) const
{
    for (uint32_t from = load(&shared->writes), i = 0; load(&shared->writes) < from + more && i < 20000; i++)
        usleep(100);
}

void crowd::kill_writer()
{
    kill(pids[0], SIGKILL);
    EXPECT_EQ(-SIGKILL, end_of(pids[0]));
    pids[0] = 0;
}

void crowd::end()
{
    store(&shared->stop, 1);
    for (pid_t pid : pids)
        EXPECT_EQ(0, pid ? end_of(pid) : 0);
}
