// Readers that must never be wrong: N lookups beside a writer at full speed on a small store, with both
// memory managers; counts torn values, present keys that read as missing, and refusals. With --probe
// the bare table runs as well, which has nothing against any of them. (Writers that die: kill_soak.)
//
//   bench_soak readers [N]
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

int main(int argc, char **argv)
{
    uint64_t cnt = 100000000;
    int readers = 1;
    bool probe = false;
    std::string what;
    CLI::App app("Readers that must never be wrong");
    app.add_option("what", what, "readers")->required()->check(CLI::IsMember({"readers"}));
    app.add_option("count", cnt, "lookups for each store");
    app.add_option("--readers", readers, "reading processes")->check(CLI::Range(1, 8));
    app.add_flag("--probe", probe, "the bare table as well");
    CLI11_PARSE(app, argc, argv);
    use_own_shm(false);
    setenv("SYSMGR_MMAP_LIMIT", "2147483648", 0);
    const subject subjects[] = {{"fixed", nullptr, false, 32},
                                {"vector", nullptr, true, 200},
                                {"probe", &peer_probe_tuned, false, 32},
                                {"probe_vector", &peer_probe_tuned, true, 200}};
    bool good = true;
    for (const subject &s : subjects)
        if (!s.p || probe)
            good &= run_readers(s, cnt, readers);
    return good ? 0 : 1;
}
