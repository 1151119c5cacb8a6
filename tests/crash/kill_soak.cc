// Writers that die of SIGKILL at random moments, under two readers that never stop. Each writer
// opens what its predecessor left, puts every record against the ledger, has the checker look at
// the bytes, and goes on with adds, deletes, atomic batches, transactions and growth, until it is
// killed itself. The ledger lies in memory that they share: it says before every step what is about
// to change, so that a successor knows what may be old or new, and that all else is as it was.
//
//     kill_soak KILLS [SEED]
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>

#include "check/store_check.h"
#include "support/main.h"
#include "support/scenario.h"

namespace
{

constexpr uint32_t KEYS = 3000, SURE = 16, CHANGES = 24; // the first keys are never deleted
enum counter { CHECKS, STORES, GROWTHS, REBUILDS, TXNS, BATCHES, LOGS, READS, COUNTERS };
const char *const COUNTER_NAMES[] = {
    "full checks", "stores", "growths", "rebuilds", "commits", "batches", "half-made logs removed", "lookups"};

struct ledger {
    uint32_t gen, high;   // name of the store; keys below high have been added
    uint32_t state[KEYS]; // number of the value that each key has; 0: none
    struct {
        uint32_t cnt, key[CHANGES], was[CHANGES], will[CHANGES];
    } intent; // all or nothing
    uint32_t destroying, stop, bad, seq;
    uint64_t counts[COUNTERS];
};
ledger *book;

uint32_t get(const uint32_t &word)
{
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
void set(uint32_t &word, uint32_t val)
{
    __atomic_store_n(&word, val, __ATOMIC_RELEASE);
}
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
    set(book->bad, book->bad + 1);
    return false;
}

bool is_vector_gen(uint32_t gen)
{
    return gen % 2;
}
std::string name_of(uint32_t gen)
{
    return "soak" + std::to_string(gen);
}
std::string key_of(uint32_t key)
{
    return "key" + std::to_string(key);
}
std::string value_of(uint32_t gen, uint32_t key, uint32_t seq)
{
    std::string text((const char *)&seq, 4);
    text.resize(4 + seq % (is_vector_gen(gen) ? 300 : 28), (char)(seq + key));
    return text;
}

// The number of a value that was found, 0 for none; false: it is no value of that key.
bool number_of(uint32_t gen, uint32_t key, int result, const shkv_buf &val, uint32_t *seq_p)
{
    *seq_p = 0;
    if (result == ENOENT)
        return true;
    if (result != 0 || val.len < 4)
        return false;
    memcpy(seq_p, val.ptr, 4);
    return value_of(gen, key, *seq_p) == std::string((const char *)val.ptr, val.len);
}

bool look(int handle, uint32_t key, uint32_t *seq_p)
{
    char room[400];
    std::string name = key_of(key);
    shkv_buf key_buf = buf_of(name), val = {room, sizeof room};
    int result = shkv_lookup(handle, &key_buf, &val);
    return number_of(book->gen, key, result, val, seq_p) || wrong("a writer reads", key, result);
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
    set(intent.cnt, 0);
    for (uint32_t key = 0; key < KEYS; ++key)
        if (!look(handle, key, &seq) || seq != book->state[key])
            return wrong("another value than was stored", key, (int)seq);
    store_image image;
    load_store(name_of(book->gen), &image);
    check_report report = check_image(image, false);
    for (const std::string &fault : report.faults)
        wrong(fault.c_str(), 0, 0);
    count(CHECKS);
    return report.faults.empty();
}

void new_store()
{
    memset(book->state, 0, sizeof book->state);
    book->intent.cnt = book->high = 0;
    set(book->gen, book->gen + 1);
    set(book->destroying, 0);
}

int open_or_create()
{
    uint32_t err = 0;
    int handle = shkv_open(name_of(book->gen).c_str(), 0, 0, SHKV_AM_WRITE, &err);
    if (!handle && book->high && !book->destroying)
        return wrong("a store cannot be opened", 0, (int)err);
    if (!handle) { // killed in its creation or its destruction
        new_store();
        shkv_params params = {16, 32, is_vector_gen(book->gen) ? 200u : 100u,
                              is_vector_gen(book->gen) ? CONF_VECTORMM : CONF_FIXEDMM, 0};
        if (!(handle = shkv_create(name_of(book->gen).c_str(), 0, &params, 0, &err)))
            return wrong("a store cannot be made", 0, (int)err);
        count(STORES);
    }
    set(book->destroying, 0);
    shkv_opts opts = {0, 1, (uint16_t)(rnd(3) * 20)}; // a rebuild at once, or in slices
    shkv_db_set_opts(handle, 1, &opts);
    return handle;
}

void intend(uint32_t key, bool present)
{
    auto &intent = book->intent;
    uint32_t at = intent.cnt;
    intent.key[at] = key;
    intent.was[at] = book->state[key];
    intent.will[at] = present ? ++book->seq : 0;
    set(intent.cnt, at + 1);
}

void settled()
{
    auto &intent = book->intent;
    for (uint32_t i = 0; i < intent.cnt; ++i)
        book->state[intent.key[i]] = intent.will[i];
    set(intent.cnt, 0);
}

// Keys of one step, all different: to add (also new ones), or such as can be deleted.
std::vector<uint32_t> choose(uint32_t cnt, bool adds)
{
    std::vector<uint32_t> keys;
    for (uint32_t tries = 0; keys.size() < cnt && tries < 4 * cnt; ++tries) {
        uint32_t key = rnd(book->high ? book->high : 1);
        if (!adds && (key < SURE || book->state[key] == 0))
            continue;
        if (std::find(keys.begin(), keys.end(), key) == keys.end())
            keys.push_back(key);
    }
    return keys;
}

int change(int handle, uint32_t key, uint32_t seq)
{
    std::string name = key_of(key), value = value_of(book->gen, key, seq);
    shkv_buf key_buf = buf_of(name), val = buf_of(value);
    return seq ? shkv_add(handle, &key_buf, &val, 0) : shkv_delete(handle, &key_buf);
}

bool single(int handle, uint32_t key, bool adds)
{
    intend(key, adds);
    int result = change(handle, key, book->intent.will[0]);
    if (result)
        return wrong(adds ? "add" : "delete", key, result);
    settled();
    return true;
}

bool batch(int handle, bool adds)
{
    std::vector<std::string> names, values;
    std::vector<shkv_buf> keys, vals;
    for (uint32_t key : choose(2 + rnd(CHANGES - 2), adds)) {
        intend(key, adds);
        names.push_back(key_of(key));
        values.push_back(value_of(book->gen, key, book->seq));
    }
    for (size_t i = 0; i < names.size(); ++i) {
        keys.push_back(buf_of(names[i]));
        vals.push_back(buf_of(values[i]));
    }
    if (names.empty())
        return true;
    int result = adds ? shkv_m_add(handle, keys.data(), vals.data(), (uint16_t)keys.size(), 1)
                      : shkv_m_delete(handle, keys.data(), (uint16_t)keys.size(), 1);
    if (result == EEXIST) { // a predecessor died while it made its log, ahead of the mark
        for (int obj_t : {OBJ_SN, OBJ_MD1, OBJ_MD2, OBJ_UD1, OBJ_UD2, OBJ_MD_TXN})
            unlink(object_path(name_of(book->gen) + "_iodb", obj_t).c_str());
        set(book->intent.cnt, 0);
        count(LOGS);
        return true;
    }
    if (result)
        return wrong("batch", (uint32_t)keys.size(), result);
    settled();
    count(BATCHES);
    return true;
}

bool transaction(int handle)
{
    int result = shkv_txn_start(handle, nullptr);
    std::vector<uint32_t> keys = choose(1 + rnd(CHANGES - 1), true);
    for (uint32_t key : keys)
        intend(key, key < SURE || book->state[key] == 0 || rnd(3));
    for (uint32_t i = 0; i < book->intent.cnt && result == 0; ++i)
        result = change(handle, book->intent.key[i], book->intent.will[i]);
    if (result)
        return wrong("staging", 0, result);
    if (rnd(4) == 0) {
        result = shkv_txn_abort(handle);
        set(book->intent.cnt, 0);
    } else {
        result = shkv_txn_commit(handle, nullptr);
        settled();
        count(TXNS);
    }
    return result == 0 || wrong("the end of a transaction", 0, result);
}

bool step(int handle)
{
    switch (rnd(10)) {
    case 0:
    case 1:
    case 2:
    case 3:
        if (book->high < KEYS && single(handle, book->high, true))
            return set(book->high, book->high + 1), true;
        return false;
    case 4:
    case 5:
        return single(handle, book->high ? rnd(book->high) : 0, true);
    case 6:
        for (uint32_t key : choose(3, false))
            if (!single(handle, key, false))
                return false;
        return true;
    case 7:
        return transaction(handle);
    default:
        return batch(handle, rnd(2));
    }
}

bool writer_life()
{
    int handle = open_or_create();
    if (!handle || (shkv_txn_is_active(handle) == 0 ? false : shkv_txn_abort(handle) != 0) || !settle(handle))
        return false;
    const supernode *sn = shkv_db_heads[handle - 1].sn;
    uint32_t tables = sn->md1.obj_ver + sn->md2.obj_ver, space = sn->ud1.obj_ver;
    while (book->high < KEYS) {
        if (!step(handle))
            return false;
        if (sn->md1.obj_ver + sn->md2.obj_ver != tables)
            count(REBUILDS), tables = sn->md1.obj_ver + sn->md2.obj_ver;
        if (sn->ud1.obj_ver != space)
            count(GROWTHS), space = sn->ud1.obj_ver;
    }
    set(book->destroying, 1);
    int result = shkv_destroy(handle);
    return result == 0 || wrong("destroy", 0, result);
}

// ---- The readers --------------------------------------------------------------------------------

void read_on()
{
    while (!get(book->stop)) {
        uint32_t gen = get(book->gen), err = 0;
        int handle = shkv_open(name_of(gen).c_str(), 0, 0, SHKV_AM_READ, &err);
        if (!handle) {
            usleep(500);
            continue;
        }
        while (!get(book->stop) && get(book->gen) == gen && !get(book->destroying)) {
            uint32_t high = get(book->high), sure = std::min(high, SURE), seqs[8], cnt = 1 + rnd(8);
            std::string names[8];
            shkv_buf keys[8], vals[8];
            static char room[8][400];
            int results[8];
            uint32_t numbers[8];
            for (uint32_t i = 0; i < cnt; ++i) {
                numbers[i] = rnd(2) && sure ? rnd(sure) : rnd(KEYS);
                names[i] = key_of(numbers[i]);
                keys[i] = buf_of(names[i]);
                vals[i] = {room[i], sizeof room[i]};
            }
            if (cnt == 1)
                results[0] = shkv_lookup(handle, &keys[0], &vals[0]);
            else
                shkv_m_lookup(handle, keys, vals, results, (uint16_t)cnt);
            for (uint32_t i = 0; i < cnt; ++i) {
                bool good = number_of(gen, numbers[i], results[i], vals[i], &seqs[i]) &&
                            (seqs[i] != 0 || numbers[i] >= sure);
                if (!good && get(book->gen) == gen && !get(book->destroying))
                    wrong("a reader reads", numbers[i], results[i]);
                count(READS);
            }
        }
        shkv_close(handle);
    }
}

template <typename F> pid_t child(uint64_t seed, F what)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open("/dev/null", O_WRONLY), 1);
        rng_state = seed;
        what();
        _exit(0);
    }
    return pid;
}

} // namespace

int main(int argc, char **argv)
{
    uint32_t wanted = argc > 1 ? (uint32_t)atoi(argv[1]) : 100, kills = 0;
    uint64_t seed = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1;
    if (!private_shm())
        return fprintf(stderr, "cannot make a mount namespace with a /dev/shm of its own\n"), 1;
    book = (ledger *)mmap(nullptr, sizeof *book, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    time_t begin = time(nullptr);
    rng_state = seed;
    pid_t readers[2] = {child(seed + 1, read_on), child(seed + 2, read_on)};
    while (kills < wanted && !get(book->bad)) {
        uint64_t checks = book->counts[CHECKS];
        pid_t writer = child(seed + 3 + kills, writer_life);
        // Some die while they open and repair.
        for (int i = 0;
             rnd(4) != 0 && i < 2000 && __atomic_load_n(&book->counts[CHECKS], __ATOMIC_ACQUIRE) == checks; ++i)
            usleep(500);
        usleep(rnd(5000));
        kill(writer, SIGKILL);
        int status = 0;
        waitpid(writer, &status, 0);
        kills += WIFSIGNALED(status);
    }
    set(book->stop, 1);
    for (pid_t reader : readers) {
        int status = 0;
        if (waitpid(reader, &status, 0) != reader || status != 0)
            wrong("a reader ended with", (uint32_t)reader, status);
    }
    printf("%u writers killed in %ld s, %u faults;", kills, (long)(time(nullptr) - begin), book->bad);
    for (int i = 0; i < COUNTERS; ++i)
        printf(" %lu %s%s", (unsigned long)book->counts[i], COUNTER_NAMES[i], i + 1 < COUNTERS ? "," : "\n");
    return book->bad != 0 || kills < wanted;
}
