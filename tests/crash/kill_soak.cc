// Writers that die of SIGKILL, under two readers that never stop. A store grows from a hundred records to
// many thousands, is destroyed, and the next one begins. Each writer opens what its predecessor left,
// puts every record against the ledger, has the checker look at the bytes, and goes on with adds,
// deletes, atomic batches and transactions, until it is killed itself: while it opens, at any moment of
// its work, or right after its table or its space has begun to change. The ledger lies in memory that
// all share: it says before every step what is about to change, so that a successor knows what may be
// old or new, and that all else is as it was.
//
//     kill_soak KILLS [SEED]
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>

#include "support/plain.h"

namespace
{

constexpr uint32_t KEYS = 10000, CHANGES = 24;
enum counter { CHECKS, STORES, COMMITS, BATCHES, LOGS, LOOKUPS, IN_CHANGE, IN_GROWTH, IN_REFILL, IN_FLIP, COUNTERS };
const char *const COUNTER_NAMES[] = {"checks of everything", "stores", "commits", "batches", "half-made logs removed",
                                     "lookups beside them", "kills in a change of table or space", "of them growth of the space",
                                     "refill", "flip"};

struct ledger {
    uint32_t gen, high;   // name of the store; keys below high have been added
    uint32_t state[KEYS]; // number of the value that each key has; 0: none
    struct {
        uint32_t cnt, key[CHANGES], was[CHANGES], will[CHANGES];
    } intent; // all or nothing
    uint32_t flg, space_ver; // of the store, after the last step that was done; 0: none was
    uint32_t destroying, stop, bad, seq;
    uint64_t counts[COUNTERS];
};
ledger *book;
const supernode *sn;  // of the writer's store
timer_t death;        // of the writer, by SIGKILL
uint32_t death_us;    // after its next change of an object's size; 0: no such death
enum way { OPENING, WORKING, FLIPPED, RESIZING } way_to_die;

void count(counter which)
{
    __atomic_fetch_add(&book->counts[which], 1, __ATOMIC_RELAXED);
}

uint64_t rng_state;
uint32_t rnd(uint32_t below)
{
    rng_state = rng_state * 6364136223846793005u + 1442695040888963407u;
    return (uint32_t)(rng_state >> 33) % below;
}

bool wrong(const char *what, uint32_t key, int result)
{
    fprintf(stderr, "store %u: %s, key %u: %d\n", book->gen, what, key, result);
    __atomic_fetch_add(&book->bad, 1, __ATOMIC_RELEASE);
    return false;
}

std::string name_of(uint32_t gen)
{
    return "soak" + std::to_string(gen);
}
std::string key_of(uint32_t key)
{
    return "key" + std::to_string(key);
}
bool is_vector(uint32_t gen)
{
    return gen % 2;
}
bool is_sure(uint32_t key) // never deleted: no reader may miss it
{
    return key % 2;
}
std::string value_of(uint32_t gen, uint32_t key, uint32_t seq)
{
    std::string text((const char *)&seq, 4);
    text.resize(4 + seq % (is_vector(gen) ? 300 : 28), (char)(seq + key));
    return text;
}

// The number of a value that was found, 0 for none; false: it is no value of that key.
bool number_of(uint32_t gen, uint32_t key, int result, const std::string &value, uint32_t *seq_p)
{
    *seq_p = 0;
    if (result == ENOENT)
        return true;
    value.copy((char *)seq_p, 4);
    return result == 0 && value.size() >= 4 && value == value_of(gen, key, *seq_p);
}

bool look(int handle, uint32_t key, uint32_t *seq_p)
{
    answers got = look_up(handle, {key_of(key)});
    return number_of(book->gen, key, got.results[0], got.values[0], seq_p) || wrong("a writer reads", key, got.results[0]);
}

// ---- The writers --------------------------------------------------------------------------------

// What the dead writer was about to change is all old or all new, the rest is as the ledger says.
bool settle(int handle)
{
    auto &intent = book->intent;
    uint32_t news = 0, olds = 0, seq;
    for (uint32_t i = 0; i < intent.cnt; ++i) {
        if (!look(handle, intent.key[i], &seq))
            return false;
        news += seq == intent.will[i];
        olds += seq == intent.was[i];
        book->state[intent.key[i]] = seq;
    }
    if (news != intent.cnt && olds != intent.cnt)
        return wrong("a part of what goes together, of", intent.cnt, (int)news);
    store(&intent.cnt, 0);
    size_t present = 0;
    for (uint32_t key = 0; key < KEYS; present += seq != 0, ++key)
        if (!look(handle, key, &seq) || seq != book->state[key])
            return wrong("another value than was stored", key, (int)seq);
    contents all;
    if (read_all(handle, &all) != (int)present || all.size() != present)
        return wrong("iterate gives another count", (uint32_t)present, (int)all.size());
    count(CHECKS);
    std::string faults = faults_of(name_of(book->gen), false);
    return faults.empty() || wrong(faults.c_str(), 0, 0);
}

int open_or_create()
{
    uint32_t err = 0;
    int handle = shkv_open(name_of(book->gen).c_str(), 0, 0, SHKV_AM_WRITE, &err);
    if (handle && shkv_db_heads[handle - 1].sn->comm_flg & CF_DESTROYED) { // killed right behind that mark
        shkv_close(handle);
        handle = 0;
    }
    if (!handle && book->high && !book->destroying)
        return wrong("a store cannot be opened", 0, (int)err);
    if (!handle) { // killed in its creation or its destruction
        memset(book->state, 0, sizeof book->state);
        book->intent.cnt = book->high = 0;
        store(&book->gen, book->gen + 1);
        shkv_params params = {16, 32, is_vector(book->gen) ? 200u : 100u,
                              is_vector(book->gen) ? CONF_VECTORMM : CONF_FIXEDMM, 0};
        if (!(handle = shkv_create(name_of(book->gen).c_str(), 0, &params, 0, &err)))
            return wrong("a store cannot be made", 0, (int)err);
        count(STORES);
    }
    store(&book->destroying, 0);
    shkv_opts opts = {0, 1, (uint16_t)(rnd(3) * 20)}; // a rebuild at once, or in slices
    shkv_db_set_opts(handle, 1, &opts);
    return handle;
}

void intend(uint32_t key, bool present)
{
    auto &intent = book->intent;
    uint32_t at = intent.cnt;
    if (at == 0) { // a step begins
        store(&book->space_ver, sn->ud1.obj_ver);
        store(&book->flg, sn->comm_flg);
    }
    intent.key[at] = key;
    intent.was[at] = book->state[key];
    intent.will[at] = present ? ++book->seq : 0;
    store(&intent.cnt, at + 1);
}

void settled()
{
    auto &intent = book->intent;
    for (uint32_t i = 0; i < intent.cnt; ++i)
        book->state[intent.key[i]] = intent.will[i];
    store(&intent.cnt, 0);
}

// Keys of one step, all different: to add, or such as can be deleted.
std::vector<uint32_t> choose(uint32_t cnt, bool adds)
{
    std::vector<uint32_t> keys;
    for (uint32_t tries = 0; keys.size() < cnt && tries < 4 * cnt && book->high; ++tries) {
        uint32_t key = rnd(book->high);
        if ((adds || (!is_sure(key) && book->state[key])) && std::find(keys.begin(), keys.end(), key) == keys.end())
            keys.push_back(key);
    }
    return keys;
}

int change(int handle, uint32_t at)
{
    uint32_t key = book->intent.key[at], seq = book->intent.will[at];
    std::string name = key_of(key), value = value_of(book->gen, key, seq);
    shkv_buf key_buf = buf_of(name), val = buf_of(value);
    return seq ? shkv_add(handle, &key_buf, &val, 0) : shkv_delete(handle, &key_buf);
}

bool single(int handle, uint32_t key, bool adds)
{
    intend(key, adds);
    int result = change(handle, 0);
    if (way_to_die == FLIPPED && (sn->comm_flg ^ book->flg) & (CF_MD1 | CF_MD2))
        raise(SIGKILL);
    settled();
    return result == 0 || wrong(adds ? "add" : "delete", key, result);
}

bool batch(int handle, bool adds)
{
    std::vector<std::string> names, values;
    for (uint32_t key : choose(2 + rnd(CHANGES - 2), adds)) {
        intend(key, adds);
        names.push_back(key_of(key));
        values.push_back(value_of(book->gen, key, book->seq));
    }
    if (names.empty())
        return true;
    std::vector<shkv_buf> keys = bufs_of(names), vals = bufs_of(values);
    int result = adds ? shkv_m_add(handle, keys.data(), vals.data(), (uint16_t)keys.size(), 1)
                      : shkv_m_delete(handle, keys.data(), (uint16_t)keys.size(), 1);
    if (result == EEXIST) { // a predecessor died while it made its log, ahead of the mark
        for (int obj_t : {OBJ_SN, OBJ_MD1, OBJ_MD2, OBJ_UD1, OBJ_UD2, OBJ_MD_TXN})
            unlink(object_path(name_of(book->gen) + "_iodb", obj_t).c_str());
        store(&book->intent.cnt, 0);
        count(LOGS);
        return true;
    }
    settled();
    count(BATCHES);
    return result == 0 || wrong("batch", (uint32_t)keys.size(), result);
}

bool transaction(int handle)
{
    int result = shkv_txn_start(handle, nullptr);
    for (uint32_t key : choose(1 + rnd(CHANGES - 1), true))
        intend(key, is_sure(key) || book->state[key] == 0 || rnd(3));
    for (uint32_t i = 0; i < book->intent.cnt && result == 0; ++i)
        result = change(handle, i);
    if (result)
        return wrong("staging", 0, result);
    if (rnd(4) == 0) {
        result = shkv_txn_abort(handle);
        store(&book->intent.cnt, 0);
    } else {
        result = shkv_txn_commit(handle, nullptr);
        settled();
        count(COMMITS);
    }
    return result == 0 || wrong("the end of a transaction", 0, result);
}

bool step(int handle)
{
    bool good = true;
    switch (rnd(death_us ? 7 : 10)) { // neither a batch's log nor the table of a transaction is meant
    case 0 ... 5:
        for (uint32_t left = CHANGES; good && left && book->high < KEYS; --left)
            if ((good = single(handle, book->high, true)))
                store(&book->high, book->high + 1);
        return good;
    case 6:
        for (uint32_t key : choose(3, true))
            good = good && single(handle, key, is_sure(key) || !book->state[key]);
        return good;
    case 7:
        return transaction(handle);
    default:
        return batch(handle, rnd(2));
    }
}

bool writer_life(uint64_t seed)
{
    rng_state = seed;
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    if (timer_create(CLOCK_MONOTONIC, &event, &death) != 0)
        return wrong("no timer", 0, errno);
    int handle = open_or_create();
    sn = handle ? shkv_db_heads[handle - 1].sn : nullptr;
    if (!handle || (shkv_txn_is_active(handle) && shkv_txn_abort(handle) != 0) || !settle(handle))
        return false;
    death_us = way_to_die == RESIZING ? 1 + rnd(8u << rnd(9)) : 0;
    while (book->high < KEYS)
        if (!step(handle))
            return false;
    store(&book->destroying, 1);
    int result = shkv_destroy(handle);
    return result == 0 || wrong("destroy", 0, result);
}

// ---- The readers --------------------------------------------------------------------------------

void read_some(int handle, uint32_t gen)
{
    uint32_t high = load(&book->high), seq, cnt = 1 + rnd(8), numbers[8];
    std::vector<std::string> names;
    for (uint32_t i = 0; i < cnt; ++i) {
        numbers[i] = rnd(high ? high : KEYS);
        names.push_back(key_of(numbers[i]));
    }
    answers got = look_up(handle, names, cnt > 1);
    for (uint32_t i = 0; i < cnt; ++i) {
        bool good = number_of(gen, numbers[i], got.results[i], got.values[i], &seq) &&
                    (seq != 0 || !is_sure(numbers[i]) || numbers[i] >= high);
        if (!good && load(&book->gen) == gen && !load(&book->destroying))
            wrong("a reader reads", numbers[i], got.results[i]);
        count(LOOKUPS);
    }
}

int read_on(uint64_t seed)
{
    rng_state = seed;
    while (!load(&book->stop)) {
        uint32_t gen = load(&book->gen), err = 0;
        int handle = shkv_open(name_of(gen).c_str(), 0, 0, SHKV_AM_READ, &err);
        if (!handle)
            usleep(500);
        while (handle && !load(&book->stop) && load(&book->gen) == gen && !load(&book->destroying))
            read_some(handle, gen);
        if (handle)
            shkv_close(handle);
    }
    return 0;
}

// ---- The kills ----------------------------------------------------------------------------------

// What the step that the dead writer was in had changed beside records: by the bytes of its store, and by
// what was so before that step.
void note_change()
{
    supernode dead;
    struct stat st = {};
    int fd = open(object_path(name_of(book->gen), OBJ_SN).c_str(), O_RDONLY | O_CLOEXEC);
    bool whole = fd >= 0 && read(fd, &dead, sizeof dead) == sizeof dead;
    close(fd);
    if (!whole || !book->flg || book->destroying || stat(object_path(name_of(book->gen), OBJ_UD1).c_str(), &st) != 0)
        return;
    bool grows = (size_t)st.st_size != dead.ud1.obj_sz || dead.ud1.obj_ver != book->space_ver;
    bool refills = dead.comm_flg & (CF_REFILL1 | CF_REFILL2), flips = (dead.comm_flg ^ book->flg) & (CF_MD1 | CF_MD2);
    book->counts[IN_GROWTH] += grows;
    book->counts[IN_REFILL] += refills;
    book->counts[IN_FLIP] += flips;
    book->counts[IN_CHANGE] += grows || refills || flips;
}

bool still_runs(pid_t pid)
{
    siginfo_t info = {};
    return waitid(P_PID, (id_t)pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// A writer and its end: while it opens, at any moment, right behind a flip, a little after it has begun to
// resize an object. A life that ends by itself is no kill.
bool kill_one(uint64_t seed)
{
    way_to_die = (way)std::min(rnd(8), (uint32_t)RESIZING);
    uint64_t checks = __atomic_load_n(&book->counts[CHECKS], __ATOMIC_ACQUIRE);
    book->flg = 0;
    pid_t writer = start_process([=] { return be_quiet(), writer_life(seed); });
    while (way_to_die != OPENING && still_runs(writer) && __atomic_load_n(&book->counts[CHECKS], __ATOMIC_ACQUIRE) == checks)
        usleep(200);
    for (int i = 0; way_to_die >= FLIPPED && i < 100 && still_runs(writer); ++i)
        usleep(300);
    usleep(way_to_die >= FLIPPED ? 0 : rnd(4000));
    kill(writer, SIGKILL);
    return end_of(writer) == -SIGKILL;
}

} // namespace

extern "C" int __real_ftruncate(int fd, off_t len);
extern "C" int __wrap_ftruncate(int fd, off_t len)
{
    itimerspec at = {{}, {0, (long)death_us * 1000}};
    if (death_us)
        timer_settime(death, 0, &at, nullptr);
    death_us = 0;
    return __real_ftruncate(fd, len);
}

int main(int argc, char **argv)
{
    uint32_t wanted = argc > 1 ? (uint32_t)atoi(argv[1]) : 100, kills = 0;
    uint64_t seed = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1;
    if (!private_shm())
        return 1;
    setenv("SYSMGR_MMAP_LIMIT", "1073741824", 1);
    book = shared_memory<ledger>();
    time_t begin = time(nullptr);
    rng_state = seed;
    const pid_t readers[] = {start_process([=] { return read_on(seed + 1); }), start_process([=] { return read_on(seed + 2); })};
    while (kills < wanted && !load(&book->bad))
        if (kill_one(seed + 3 + rng_state))
            note_change(), ++kills;
    store(&book->stop, 1);
    for (pid_t reader : readers)
        if (int end = end_of(reader))
            wrong("a reader ended with", (uint32_t)reader, end);
    printf("%u writers killed in %ld s: ", kills, (long)(time(nullptr) - begin));
    for (int i = 0; i < COUNTERS; ++i)
        printf("%lu %s, ", (unsigned long)book->counts[i], COUNTER_NAMES[i]);
    printf("%u wrong\n", book->bad);
    return book->bad != 0 || kills < wanted;
}
