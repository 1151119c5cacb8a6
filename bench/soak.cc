// Readers that must never be wrong, and writers that may die at any moment.
//
//   bench_soak readers [N]  N lookups beside a writer at full speed on a small store, with both
//                           memory managers: counts torn values, present keys that read as missing,
//                           and refusals. With --probe the bare table runs as well, which has nothing
//                           against any of them.
//   bench_soak kill [N]     N times SIGKILL for a writer of a growing store, at a random moment; its
//                           successor must find every committed record
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "peer.h"
#include "shkv.h"
#include "work.h"

static constexpr uint32_t kSmall = 1000;

struct counts {
    uint64_t lookups, torn, missing, refused, writes;
    uint32_t ready, stop;
    int last_refusal;
};

static uint32_t load(const uint32_t *word)
{
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}
static void raise(uint32_t *word)
{
    __atomic_add_fetch(word, 1, __ATOMIC_RELEASE);
}
static void wait_for(const uint32_t *word, uint32_t val)
{
    while (load(word) < val)
        usleep(1000);
}

// ---- Readers ----------------------------------------------------------------------------------------

// A store of the soak: the library under either manager, or a probe.
struct subject {
    const char *name;
    const peer *p; // null for the library
    bool vector;
    uint32_t val_sz;
};

static int library_open(const char *name, const subject &s, bool create)
{
    uint32_t err = 0;
    const uint32_t units = s.vector ? 2 + s.val_sz / 124 : 1;
    const shkv_params params = {static_cast<uint16_t>(s.vector ? 0 : kKey),
                                static_cast<uint16_t>(s.vector ? 0 : s.val_sz), kSmall * units,
                                s.vector ? CONF_VECTORMM : CONF_FIXEDMM, 0};
    const int handle = create ? shkv_create(name, UUID_BIG_A, &params, 0, &err)
                              : shkv_open(name, UUID_BIG_A, 0, SHKV_AM_READ, &err);
    if (!handle)
        die("%s: error %u", create ? "create" : "open", err);
    return handle;
}

static void write_until_stopped(const subject &s, const char *name, counts *c)
{
    void *store = nullptr;
    int handle = 0;
    char dir[64];
    snprintf(dir, sizeof dir, "/dev/shm");
    if (s.p)
        store = s.p->open({dir, kSmall + 200, kKey, s.val_sz, s.vector, true}, PEER_CREATE);
    else
        handle = library_open(name, s, true);
    rng r = {1};
    char key[kKey], val[4096];
    for (uint32_t seq = 0; !load(&c->stop); seq++) {
        const uint32_t number = seq < kSmall ? seq : r.below(kSmall);
        make_key(number, key);
        seal_value(val, s.val_sz, number, seq);
        const shkv_buf k = {key, kKey}, v = {val, s.val_sz};
        if (s.p ? !s.p->store(store, key, kKey, val, s.val_sz) : shkv_add(handle, &k, &v, 0) != 0)
            die("%s: write %u failed", s.name, seq);
        c->writes++;
        if (seq == kSmall)
            raise(&c->ready);
    }
}

static void read_share(const subject &s, const char *name, uint64_t cnt, counts *c, uint64_t seed)
{
    void *store = s.p ? s.p->open({"/dev/shm", 0, kKey, s.val_sz, s.vector, true}, PEER_READ) : nullptr;
    const int handle = s.p ? 0 : library_open(name, s, false);
    rng r = {seed};
    static char keys[kSmall][kKey];
    for (uint32_t i = 0; i < kSmall; i++)
        make_key(i, keys[i]);
    static char out[16][4096];
    uint32_t numbers[16];
    for (uint64_t done = 0; done < cnt; done += 16) {
        shkv_buf k[16], v[16];
        int results[16];
        for (int i = 0; i < 16; i++) {
            numbers[i] = r.below(kSmall);
            k[i] = {keys[numbers[i]], kKey};
            v[i] = {out[i], sizeof out[i]};
        }
        const bool group = !s.p && (done & 16); // by turns singly and as a group
        if (group)
            shkv_m_lookup(handle, k, v, results, 16);
        for (int i = 0; i < 16; i++) {
            if (s.p) {
                const int size = s.p->lookup(store, k[i].ptr, kKey, out[i], sizeof out[i]);
                results[i] = size < 0 ? 2 : 0;
                v[i].len = static_cast<uint32_t>(size);
            } else if (!group) {
                results[i] = shkv_lookup(handle, &k[i], &v[i]);
            }
            if (results[i] == 2)
                c->missing++;
            else if (results[i] != 0)
                c->refused++, c->last_refusal = results[i];
            else if (v[i].len != s.val_sz || !value_sealed(out[i], v[i].len, numbers[i]))
                c->torn++;
        }
        c->lookups += 16;
    }
}

static bool run_readers(const subject &s, uint64_t lookups, int readers)
{
    char name[32];
    snprintf(name, sizeof name, "soak_%s", s.name);
    counts *wr = shared_memory<counts>(), *rd[8];
    const pid_t writer = child([&] {
        write_until_stopped(s, name, wr);
        return true;
    });
    wait_for(&wr->ready, 1);
    pid_t pids[8];
    const double begin = wall_s();
    for (int i = 0; i < readers; i++) {
        rd[i] = shared_memory<counts>();
        pids[i] = child([&] {
            read_share(s, name, lookups / static_cast<uint64_t>(readers), rd[i],
                       100 + static_cast<uint64_t>(i));
            return true;
        });
    }
    counts sum = {};
    bool good = true;
    for (int i = 0; i < readers; i++) {
        good &= child_good(pids[i]);
        sum.lookups += rd[i]->lookups, sum.torn += rd[i]->torn, sum.missing += rd[i]->missing,
            sum.refused += rd[i]->refused;
        sum.last_refusal = rd[i]->last_refusal ? rd[i]->last_refusal : sum.last_refusal;
    }
    const double secs = wall_s() - begin;
    raise(&wr->stop);
    good &= child_good(writer);
    printf("%-14s %6u bytes %12lu lookups %12lu writes %8.0f s: %lu torn, %lu falsely missing, %lu refused",
           s.name, s.val_sz, sum.lookups, wr->writes, secs, sum.torn, sum.missing, sum.refused);
    printf(sum.refused ? " (%d)%s\n" : "%.0d%s\n", sum.last_refusal, good ? "" : ", a process died");
    fflush(stdout);
    return good && (s.p || sum.torn + sum.missing + sum.refused == 0);
}

// ---- Killed writers ---------------------------------------------------------------------------------

static constexpr uint32_t kMost = 200000;

// What the writers committed: a record's sequence number is stored in pending before its add and in
// done after it. A successor may find either, never anything else.
struct ledger {
    uint32_t done[kMost], pending[kMost];
    uint32_t cnt; // records 0 to cnt - 1 are there
    uint32_t seq;
    uint32_t verified; // openings that checked everything
    uint32_t bad, stop;
    uint64_t reads, bad_reads;
};

static bool record_good(int handle, ledger *l, uint32_t number)
{
    char key[kKey], val[64];
    make_key(number, key);
    const shkv_buf k = {key, kKey};
    shkv_buf v = {val, sizeof val};
    uint32_t seq;
    if (shkv_lookup(handle, &k, &v) != 0 || v.len != 32 || !value_sealed(val, 32, number))
        return false;
    memcpy(&seq, val + 4, 4);
    const bool good = seq == l->done[number] || seq == l->pending[number];
    l->done[number] = l->pending[number] = seq;
    return good;
}

static bool add_sealed(int handle, ledger *l, uint32_t number)
{
    char key[kKey], val[32];
    const uint32_t seq = ++l->seq;
    make_key(number, key);
    seal_value(val, sizeof val, number, seq);
    const shkv_buf k = {key, kKey}, v = {val, sizeof val};
    __atomic_store_n(&l->pending[number], seq, __ATOMIC_RELEASE);
    if (shkv_add(handle, &k, &v, 0) != 0)
        return false;
    __atomic_store_n(&l->done[number], seq, __ATOMIC_RELEASE);
    return true;
}

// A writer's life: open or create, look at everything that its predecessors left, go on growing.
static bool writer_life(ledger *l, const char *name)
{
    uint32_t err = 0;
    const shkv_params params = {kKey, 32, 1000, CONF_FIXEDMM, 0};
    int handle = l->cnt ? 0 : shkv_create(name, UUID_BIG_A, &params, 0, &err);
    if (!handle)
        handle = shkv_open(name, UUID_BIG_A, 0, SHKV_AM_WRITE, &err);
    const uint32_t cnt = load(&l->cnt);
    // Killed inside the create, or inside the destroy at the end: there is no store, by design.
    if (!handle && (cnt == 0 || cnt == kMost))
        return true;
    if (!handle)
        return fprintf(stderr, "writer: cannot open: %u\n", err), raise(&l->bad), false;
    for (uint32_t i = 0; i < cnt; i++)
        if (!record_good(handle, l, i))
            return fprintf(stderr, "record %u of %u is lost or wrong\n", i, cnt), raise(&l->bad), false;
    raise(&l->verified);
    rng r = {l->seq};
    while (l->cnt < kMost) {
        if (l->cnt && r.below(4) == 0) {
            if (!add_sealed(handle, l, r.below(l->cnt)))
                return fprintf(stderr, "replace failed\n"), raise(&l->bad), false;
        } else {
            if (!add_sealed(handle, l, l->cnt))
                return fprintf(stderr, "add failed\n"), raise(&l->bad), false;
            raise(&l->cnt);
        }
    }
    return shkv_destroy(handle) == 0;
}

// Reads records that are there, all the time, through growths and deaths.
static bool read_through(ledger *l, const char *name)
{
    uint32_t err = 0;
    int handle = 0;
    rng r = {99};
    while (!load(&l->stop)) {
        if (!handle && !(handle = shkv_open(name, UUID_BIG_A, 0, SHKV_AM_READ, &err))) {
            usleep(1000);
            continue;
        }
        const uint32_t cnt = load(&l->cnt);
        if (!cnt) {
            usleep(1000);
            continue;
        }
        const uint32_t number = r.below(cnt);
        char key[kKey], val[64];
        make_key(number, key);
        const shkv_buf k = {key, kKey};
        shkv_buf v = {val, sizeof val};
        const int result = shkv_lookup(handle, &k, &v);
        if (result == EBADF) { // destroyed: the next one comes
            shkv_close(handle);
            handle = 0;
            continue;
        }
        l->reads++;
        if (result != 0 || v.len != 32 || !value_sealed(val, 32, number)) {
            if (load(&l->cnt) >= cnt) // else the store was destroyed meanwhile
                l->bad_reads++, fprintf(stderr, "reader: record %u of %u: result %d\n", number, cnt, result);
        }
    }
    return true;
}

static bool still_runs(pid_t pid)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

static bool run_kills(uint32_t rounds, uint64_t seed)
{
    ledger *l = shared_memory<ledger>();
    rng r = {seed};
    int store = 0;
    uint32_t kills = 0, stores = 0;
    char name[32] = "kill_0";
    pid_t reader = 0;
    const double begin = wall_s();
    uint64_t reads = 0, bad_reads = 0, records = 0;
    while (kills < rounds && !load(&l->bad)) {
        if (!reader)
            reader = child([&] { return read_through(l, name); });
        const uint32_t verified = load(&l->verified);
        const pid_t writer = child([&] { return writer_life(l, name); });
        if (r.below(4) != 0) // else it may die while it opens and checks
            while (load(&l->verified) == verified && !load(&l->bad) && still_runs(writer))
                usleep(100);
        usleep(r.below(20000));
        kill(writer, SIGKILL);
        int status = 0;
        waitpid(writer, &status, 0);
        if (WIFSIGNALED(status)) {
            kills++;
            continue;
        }
        // It reached the last record and destroyed its store, or found none: the next one begins.
        raise(&l->stop);
        child_good(reader);
        reader = 0, stores++;
        reads += l->reads, bad_reads += l->bad_reads, records += l->cnt;
        const uint32_t keep = l->bad, seen = l->verified;
        memset(l, 0, sizeof *l);
        l->bad = keep, l->verified = seen;
        snprintf(name, sizeof name, "kill_%d", ++store);
    }
    raise(&l->stop);
    if (reader)
        child_good(reader);
    reads += l->reads, bad_reads += l->bad_reads, records += l->cnt;
    printf("%u writers killed in %u stores, %lu records added, %u full checks, %.0f s: %u faults; %lu lookups "
           "beside them, %lu wrong\n",
           kills, stores + 1, static_cast<unsigned long>(records), l->verified, wall_s() - begin, l->bad,
           static_cast<unsigned long>(reads), static_cast<unsigned long>(bad_reads));
    return !l->bad && !bad_reads;
}

int main(int argc, char **argv)
{
    uint64_t cnt = 0, seed = 1;
    int readers = 1;
    bool probe = false;
    std::string what;
    CLI::App app("Readers that must never be wrong, writers that may die at any moment");
    app.add_option("what", what, "readers or kill")->required()->check(CLI::IsMember({"readers", "kill"}));
    app.add_option("count", cnt, "lookups for each store, or kills");
    app.add_option("--readers", readers, "reading processes")->check(CLI::Range(1, 8));
    app.add_option("--seed", seed, "of the moments to kill");
    app.add_flag("--probe", probe, "the bare table as well");
    CLI11_PARSE(app, argc, argv);
    use_own_shm(false);
    setenv("SYSMGR_MMAP_LIMIT", "2147483648", 0);
    if (what == "kill")
        return run_kills(cnt ? static_cast<uint32_t>(cnt) : 500, seed) ? 0 : 1;
    const subject subjects[] = {{"fixed", nullptr, false, 32},
                                {"vector", nullptr, true, 200},
                                {"probe", &peer_probe_tuned, false, 32},
                                {"probe_vector", &peer_probe_tuned, true, 200}};
    bool good = true;
    for (const subject &s : subjects)
        if (!s.p || probe)
            good &= run_readers(s, cnt ? cnt : 100000000, readers);
    return good ? 0 : 1;
}
