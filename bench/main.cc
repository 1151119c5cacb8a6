// The benchmark of the library, the bare probes and the peers.
//
// Every case is one operation of one contestant at one size. The contestants stand beside each
// other with the same records, and the rounds go through them in turn, so that a change of the
// machine's speed meets them all; what is reported is the median of the rounds. Times of a single
// process are its thread's CPU time; a server's and those of several processes are wall time.
// Every answer's length and first bytes are checked.
#include <benchmark/benchmark.h>
#include <regex.h>
#include <semaphore.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "peer.h"
#include "work.h"

static struct {
    bool quick = false, huge = false, list = false;
    int rounds = 0;
    std::string filter, out = "bench.json", peers;
    std::vector<uint32_t> sizes, val_sizes;
} opt;

// ---- Cases and their results ----------------------------------------------------------------------

struct sample {
    double seconds;  // of all operations
    uint64_t ops;
    std::map<std::string, double> more;
};

struct series {
    std::string op, peer;
    uint32_t size;
    std::vector<double> ns;
    std::map<std::string, std::vector<double>> more;
};

static std::vector<std::string> order;  // names in the order of their first run
static std::map<std::string, series> results;

static double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

namespace {
struct collector : benchmark::BenchmarkReporter {
    series *to = nullptr;
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            to->ns.push_back(run.GetAdjustedRealTime());
            for (const auto &[name, counter] : run.counters)
                to->more[name].push_back(counter.value);
        }
    }
};
}  // namespace

static std::string case_name(const std::string &op, uint32_t size, const char *peer)
{
    return op + "/" + std::to_string(size) + "/" + peer;
}

static bool wanted(const std::string &op, uint32_t size, const peer &p)
{
    const auto has = [&](const std::string &pattern, const std::string &text) {
        regex_t re;
        if (pattern.empty())
            return true;
        if (regcomp(&re, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0)
            die("bad pattern: %s", pattern.c_str());
        const bool good = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
        regfree(&re);
        return good;
    };
    return has(opt.filter, case_name(op, size, p.name)) && has(opt.peers, p.name);
}

// One round of one case, measured by run; time per operation goes to its series.
template <class Run> static void run_case(const std::string &op, uint32_t size, const peer &p, Run run)
{
    const std::string name = case_name(op, size, p.name);
    if (results.find(name) == results.end()) {
        order.push_back(name);
        results[name] = {op, p.name, size, {}, {}};
    }
    static collector reporter;
    reporter.to = &results[name];
    benchmark::RegisterBenchmark(name.c_str(), [&](benchmark::State &state) {
        for (auto _ : state) {
            const sample s = run();
            state.SetIterationTime(s.seconds / static_cast<double>(s.ops));
            for (const auto &[key, value] : s.more)
                state.counters[key] = value;
        }
    })->Iterations(1)->UseManualTime();
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::ClearRegisteredBenchmarks();
    const series &done = results[name];
    fprintf(stderr, "%-44s round %2zu %12.1f ns", name.c_str(), done.ns.size(), done.ns.back());
    for (const auto &[key, values] : done.more)
        fprintf(stderr, "  %s %.6g", key.c_str(), values.back());
    fputc('\n', stderr);
}

// ---- A contestant with its store ------------------------------------------------------------------

struct contestant {
    const peer *p;
    peer_cfg cfg;
    std::string dir;
    void *h;
    bool remote() const { return p->traits & PEER_REMOTE; }
};

static contestant contestant_of(const peer &p, const peer_cfg &cfg)
{
    static int serial;
    contestant c = {&p, cfg, "/dev/shm/bench" + std::to_string(getpid()) + "_" + std::to_string(serial++), nullptr};
    mkdir(c.dir.c_str(), 0700);
    return c;
}

static void open_store(contestant &c, peer_how how)
{
    c.cfg.dir = c.dir.c_str();
    c.h = c.p->open(c.cfg, how);
    if (!c.h)
        die("%s: cannot %s the store", c.p->name, how == PEER_CREATE ? "create" : "open");
}

static void close_store(contestant &c, bool drop)
{
    c.p->close(c.h, drop);
    c.h = nullptr;
}

static char *value_buf()
{
    static char val[65536];
    if (val[100] == 0)
        for (uint32_t i = 0; i < sizeof val; i++)
            val[i] = static_cast<char>(mix64(i) | 1);
    return val;
}

static void put(contestant &c, const char *key, uint32_t size)
{
    char *val = value_buf();
    stamp_value(val, key);
    if (!c.p->store(c.h, key, kKey, val, size))
        die("%s: a record was not stored", c.p->name);
}

static void fill(contestant &c, uint32_t from, uint32_t to)
{
    char key[kKey];
    if (c.p->bulk)
        c.p->bulk(c.h, true);
    for (uint32_t i = from; i < to; i++) {
        make_key(i, key);
        put(c, key, c.cfg.val_sz);
        if (c.p->bulk && i % 10000 == 9999)
            c.p->bulk(c.h, false), c.p->bulk(c.h, true);
    }
    if (c.p->bulk)
        c.p->bulk(c.h, false);
}

template <class Body> static double timed(const contestant &c, Body body)
{
    const clockid_t id = c.remote() ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID;
    cpu_set_t all, first;
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    if (c.remote())  // beside its server
        sched_setaffinity(0, sizeof first, &first);
    const double begin = clock_s(id);
    body();
    const double taken = clock_s(id) - begin;
    if (c.remote())
        sched_setaffinity(0, sizeof all, &all);
    return taken;
}

// ---- Operations of one process --------------------------------------------------------------------

struct workset {
    uint32_t n, extra;  // records in the store; numbers n to n + extra are not in it
    std::vector<char> uniform, zipf, miss;
    std::vector<char> fresh, old;  // records that come and go: extra new ones, as many of the store
};

static uint32_t op_count(const contestant &c, uint32_t local, uint32_t remote)
{
    return (c.remote() ? remote : local) / (opt.quick ? 4 : 1);
}

static sample lookups(contestant &c, const std::vector<char> &keys, uint32_t ops, bool present)
{
    char out[4096];
    uint64_t wrong = 0;
    const char *const begin = keys.data(), *const end = begin + keys.size();
    const auto go = [&](uint32_t cnt) {
        const char *key = begin;
        for (uint32_t i = 0; i < cnt; i++, key = key + kKey == end ? begin : key + kKey) {
            const int size = c.p->lookup(c.h, key, kKey, out, sizeof out);
            wrong += present ? size != static_cast<int>(c.cfg.val_sz) || !value_fits(out, key) : size != -1;
        }
    };
    go(ops / 20);
    const double seconds = timed(c, [&] { go(ops); });
    if (wrong)
        die("%s: %lu wrong answers", c.p->name, static_cast<unsigned long>(wrong));
    return {seconds, ops, {}};
}

static sample lookup_hit(contestant &c, const workset &w) { return lookups(c, w.uniform, op_count(c, 400000, 8000), true); }
static sample lookup_zipf(contestant &c, const workset &w) { return lookups(c, w.zipf, op_count(c, 400000, 8000), true); }
static sample lookup_miss(contestant &c, const workset &w) { return lookups(c, w.miss, op_count(c, 400000, 8000), false); }

static sample lookup_lite(contestant &c, const workset &w)
{
    const uint32_t ops = op_count(c, 400000, 8000);
    uint64_t wrong = 0;
    const char *const begin = w.uniform.data(), *const end = begin + w.uniform.size();
    const double seconds = timed(c, [&] {
        const char *key = begin;
        for (uint32_t i = 0; i < ops; i++, key = key + kKey == end ? begin : key + kKey) {
            uint32_t size = 0;
            const char *val = static_cast<const char *>(c.p->lite(c.h, key, kKey, &size));
            wrong += !val || size != c.cfg.val_sz || !value_fits(val, key);
        }
    });
    if (wrong)
        die("%s: %lu wrong answers", c.p->name, static_cast<unsigned long>(wrong));
    return {seconds, ops, {}};
}

static sample lookup_group16(contestant &c, const workset &w)
{
    const uint32_t ops = op_count(c, 400000, 64000) / 16 * 16, room = 64;
    char out[16 * room];
    int sizes[16];
    uint64_t wrong = 0;
    const char *const begin = w.uniform.data(), *const end = begin + w.uniform.size() / (16 * kKey) * (16 * kKey);
    const double seconds = timed(c, [&] {
        const char *keys = begin;
        for (uint32_t i = 0; i < ops; i += 16, keys = keys + 16 * kKey == end ? begin : keys + 16 * kKey) {
            c.p->group(c.h, keys, kKey, out, room, sizes, 16);
            for (uint32_t k = 0; k < 16; k++)
                wrong += sizes[k] != static_cast<int>(c.cfg.val_sz) || !value_fits(out + k * room, keys + k * kKey);
        }
    });
    if (wrong)
        die("%s: %lu wrong answers", c.p->name, static_cast<unsigned long>(wrong));
    return {seconds, ops, {}};
}

static sample replace(contestant &c, const workset &w)
{
    const uint32_t ops = op_count(c, 100000, 8000);
    const char *const begin = w.uniform.data(), *const end = begin + w.uniform.size();
    return {timed(c, [&] {
                const char *key = begin;
                for (uint32_t i = 0; i < ops; i++, key = key + kKey == end ? begin : key + kKey)
                    put(c, key, c.cfg.val_sz);
            }),
            ops, {}};
}

// Two sets of records take turns: one comes in, then the other goes. Times one of the two, or the
// insert of 100 records in one piece. The store is as it was after an even number of turns.
enum come_and_go { TIME_INSERT, TIME_DELETE, TIME_BULK };
static sample insert_delete(contestant &c, const workset &w, come_and_go what)
{
    const uint32_t target = op_count(c, 100000, 4000), cnt = std::min(w.extra, target / 2) / 100 * 100;
    double insert_s = 0, delete_s = 0;
    uint64_t ops = 0;
    for (const char *in = w.fresh.data(), *out = w.old.data(); ops < target || in == w.old.data(); ops += cnt) {
        insert_s += timed(c, [&] {
            for (uint32_t i = 0; i < cnt; i++) {
                if (what == TIME_BULK && i % 100 == 0)
                    c.p->bulk(c.h, true);
                put(c, in + i * kKey, c.cfg.val_sz);
                if (what == TIME_BULK && i % 100 == 99)
                    c.p->bulk(c.h, false);
            }
        });
        delete_s += timed(c, [&] {
            for (uint32_t i = 0; i < cnt; i++)
                if (!c.p->erase(c.h, out + i * kKey, kKey))
                    die("%s: a record was not deleted", c.p->name);
        });
        std::swap(in, out);
    }
    return {what == TIME_DELETE ? delete_s : insert_s, ops, {}};
}
static sample insert(contestant &c, const workset &w) { return insert_delete(c, w, TIME_INSERT); }
static sample insert_bulk(contestant &c, const workset &w) { return insert_delete(c, w, TIME_BULK); }
static sample erase(contestant &c, const workset &w) { return insert_delete(c, w, TIME_DELETE); }

static void check_visited(void *wrong, const void *key, uint32_t key_sz, const void *val, uint32_t)
{
    *static_cast<uint64_t *>(wrong) += key_sz != kKey || !value_fits(static_cast<const char *>(val), static_cast<const char *>(key));
}

static sample iterate(contestant &c, const workset &w)
{
    uint64_t wrong = 0, seen = 0, rounds = std::max(1u, 100000 / w.n);
    const double seconds = timed(c, [&] {
        for (uint64_t i = 0; i < rounds; i++)
            seen += c.p->iterate(c.h, check_visited, &wrong);
    });
    if (wrong || seen != rounds * w.n)
        die("%s: iteration saw %lu records, %lu wrong", c.p->name, static_cast<unsigned long>(seen),
            static_cast<unsigned long>(wrong));
    return {seconds, seen, {}};
}

struct operation {
    const char *name;
    bool (*can)(const peer &p);
    sample (*run)(contestant &c, const workset &w);
};

static bool any(const peer &) { return true; }
static const operation table_ops[] = {
    {"lookup_hit", any, lookup_hit},
    {"lookup_zipf", any, lookup_zipf},
    {"lookup_miss", any, lookup_miss},
    {"lookup_lite", [](const peer &p) { return p.lite != nullptr; }, lookup_lite},
    {"lookup_group16", [](const peer &p) { return p.group != nullptr; }, lookup_group16},
    {"iterate", [](const peer &p) { return p.iterate != nullptr; }, iterate},
    {"replace", any, replace},
    {"insert", any, insert},
    {"insert_bulk100", [](const peer &p) { return p.bulk != nullptr; }, insert_bulk},
    {"delete", any, erase},
};
static const operation vector_ops[] = {{"vec_lookup", any, lookup_hit}, {"vec_replace", any, replace}};
static const operation churned_ops[] = {{"vec_lookup_churned", any, lookup_hit}};

// All rounds of all operations over the contestants, each round beginning with another of them.
template <size_t cnt>
static void rounds_of(const operation (&ops)[cnt], uint32_t size, std::vector<contestant> &field, const workset &w)
{
    for (int r = 0; r < opt.rounds; r++)
        for (const operation &op : ops)
            for (size_t i = 0; i < field.size(); i++) {
                contestant &c = field[(i + static_cast<size_t>(r)) % field.size()];
                if (op.can(*c.p) && wanted(op.name, size, *c.p))
                    run_case(op.name, size, *c.p, [&] { return op.run(c, w); });
            }
}

template <size_t cnt>
static std::vector<contestant> field_of(const operation (&ops)[cnt], uint32_t size, const peer_cfg &cfg)
{
    std::vector<contestant> field;
    for (const peer *const *p = peers; *p; p++)
        if (std::any_of(ops, ops + cnt, [&](const operation &op) { return op.can(**p) && wanted(op.name, size, **p); }))
            field.push_back(contestant_of(**p, cfg));
    return field;
}

static workset workset_of(uint32_t n, uint32_t extra)
{
    const uint32_t cnt = n <= 8192 ? 8192 : opt.quick ? 100000 : 400000;
    workset w = {n, extra, keys_of(uniform_numbers(n, cnt, n)), keys_of(zipf_numbers(n, cnt, n)),
                 keys_of(uniform_numbers(n, cnt, n + 1), 1ull << 32), {}, {}};
    std::vector<uint32_t> fresh(extra), old(extra);
    for (uint32_t i = 0; i < extra; i++) {
        fresh[i] = n + i;
        old[i] = n / extra * i;  // in the order of the keys' numbers; the keys themselves have none
    }
    w.fresh = keys_of(fresh);
    w.old = keys_of(old);
    return w;
}

static void table_group(uint32_t n)
{
    const uint32_t extra = std::max(100u, std::min(n / 10, 100000u));
    std::vector<contestant> field = field_of(table_ops, n, {nullptr, n + extra, kKey, 32, false, false});
    if (field.empty())
        return;
    const workset w = workset_of(n, extra);
    for (contestant &c : field) {
        open_store(c, PEER_CREATE);
        fill(c, 0, n);
    }
    rounds_of(table_ops, n, field, w);
    for (contestant &c : field)
        close_store(c, true);
}

// Fresh, each record's units lie in a row. Churn replaces all records three times with values of
// other sizes, in random order, and then once with the old size again.
static void vector_group(uint32_t val_sz)
{
    const uint32_t n = opt.quick ? 50000 : 200000;
    std::vector<contestant> field = field_of(vector_ops, val_sz, {nullptr, n, kKey, val_sz, true, false});
    const std::vector<contestant> churned = field_of(churned_ops, val_sz, {nullptr, n, kKey, val_sz, true, false});
    for (const contestant &c : churned)
        if (std::none_of(field.begin(), field.end(), [&](const contestant &f) { return f.p == c.p; }))
            field.push_back(c);
    if (field.empty())
        return;
    const workset w = workset_of(n, 0);
    for (contestant &c : field) {
        open_store(c, PEER_CREATE);
        fill(c, 0, n);
    }
    const operation fresh[] = {vector_ops[0]}, writes[] = {vector_ops[1]};
    rounds_of(fresh, val_sz, field, w);
    rounds_of(writes, val_sz, field, w);
    for (contestant &c : field) {
        rng r = {1};
        char key[kKey];
        if (c.p->bulk)
            c.p->bulk(c.h, true);
        for (uint32_t i = 0; i < 3 * n; i++) {
            make_key(r.below(n), key);
            put(c, key, val_sz / 2 + r.below(val_sz / 2 + 1));
        }
        for (uint32_t i = 0; i < n; i++) {
            make_key((i * 7919ull + 13) % n, key);  // every record once: n is no multiple of that prime
            put(c, key, val_sz);
        }
        if (c.p->bulk)
            c.p->bulk(c.h, false);
    }
    rounds_of(churned_ops, val_sz, field, w);
    for (contestant &c : field)
        close_store(c, true);
}

// ---- Growth and attach ----------------------------------------------------------------------------

static void growth_group(uint32_t n)
{
    for (int r = 0; r < std::max(1, opt.rounds / 2); r++)
        for (const peer *const *p = peers; *p; p++) {
            if (!((*p)->traits & PEER_GROWS) || !wanted("insert_growth", n, **p))
                continue;
            contestant c = contestant_of(**p, {nullptr, 1000, kKey, 32, false, false});
            const uint32_t cnt = c.remote() ? std::min(n, 20000u) : n;
            open_store(c, PEER_CREATE);
            run_case("insert_growth", n, **p, [&]() -> sample {
                char key[kKey];
                return {timed(c, [&] {
                            for (uint32_t i = 0; i < cnt; i++) {
                                make_key(i, key);
                                put(c, key, 32);
                            }
                        }),
                        cnt, {}};
            });
            close_store(c, true);
        }
}

// Open for reading, one lookup, close, by a process that has nothing of the store yet.
static void attach_group(uint32_t n)
{
    for (const peer *const *p = peers; *p; p++) {
        if (!((*p)->traits & PEER_KEPT) || !wanted("attach", n, **p))
            continue;
        contestant c = contestant_of(**p, {nullptr, n, kKey, 32, false, false});
        const auto make = [&] {
            open_store(c, PEER_CREATE);
            fill(c, 0, n);
            close_store(c, false);
            return true;
        };
        if (!in_child(make))
            die("%s: no store to attach", c.p->name);
        static double *const seconds = shared_memory<double>();
        const uint32_t cnt = 100;
        for (int r = 0; r < opt.rounds; r++)
            run_case("attach", n, **p, [&]() -> sample {
                const auto attach = [&] {
                    char key[kKey], out[64];
                    for (uint32_t i = 0; i <= cnt; i++) {
                        make_key(mix64(i) % n, key);
                        const double begin = cpu_s();
                        open_store(c, PEER_READ);
                        if (c.p->lookup(c.h, key, kKey, out, sizeof out) != 32 || !value_fits(out, key))
                            return false;
                        close_store(c, false);
                        *seconds = i == 0 ? 0 : *seconds + cpu_s() - begin;  // the first warms up
                    }
                    return true;
                };
                if (!in_child(attach))
                    die("%s: attach failed", c.p->name);
                return {*seconds, cnt, {}};
            });
        in_child([&] {
            open_store(c, PEER_WRITE);
            close_store(c, true);
            return true;
        });
    }
}

// ---- Several processes ----------------------------------------------------------------------------

// A process of a contestant's team: it opens the store, then waits for something to do.
enum job { JOB_READ, JOB_WRITE, JOB_QUIT };
struct agent {
    sem_t go, done;
    job what;
    double secs;     // to work
    double taken;    // wall seconds worked
    double cpu;      // CPU seconds of it
    uint64_t ops, wrong;
    hist lat;
};

static void work(contestant &c, agent &a, const workset &w)
{
    const char *const begin = w.uniform.data(), *const end = begin + w.uniform.size();
    const char *key = begin + (w.uniform.size() / kKey / 3 * (a.what == JOB_WRITE ? 2 : 1)) * kKey;
    char out[4096];
    const double wall = wall_s(), cpu = cpu_s();
    const uint64_t until = __rdtsc() + static_cast<uint64_t>(a.secs * 1e9 / ns_per_tick());
    uint64_t ops = 0, wrong = 0, then = __rdtsc();
    for (; then < until; ops++, key = key + kKey == end ? begin : key + kKey) {
        if (a.what == JOB_WRITE) {
            put(c, key, c.cfg.val_sz);
        } else {
            const int size = c.p->lookup(c.h, key, kKey, out, sizeof out);
            wrong += size != static_cast<int>(c.cfg.val_sz) || !value_fits(out, key);
        }
        const uint64_t now = __rdtsc();
        a.lat.add(now - then);
        then = now;
    }
    a.taken = wall_s() - wall, a.cpu = cpu_s() - cpu;
    a.ops = ops, a.wrong = wrong;
}

static pid_t start_agent(contestant &c, agent *a, const workset &w, bool writer)
{
    sem_init(&a->go, 1, 0), sem_init(&a->done, 1, 0);
    const pid_t pid = child([&] {
        open_store(c, writer ? PEER_CREATE : PEER_READ);
        if (writer)
            fill(c, 0, w.n);
        for (;;) {
            sem_post(&a->done);
            while (sem_wait(&a->go) != 0) {
            }
            if (a->what == JOB_QUIT)
                break;
            memset(&a->lat, 0, sizeof a->lat);
            work(c, *a, w);
        }
        close_store(c, writer);
        return true;
    });
    while (sem_wait(&a->done) != 0) {
    }
    return pid;
}

static void together(std::initializer_list<std::pair<agent *, job>> jobs, double secs)
{
    for (const auto &[a, what] : jobs) {
        a->what = what, a->secs = secs;
        sem_post(&a->go);
    }
    for (const auto &[a, what] : jobs)
        while (what != JOB_QUIT && sem_wait(&a->done) != 0) {
        }
}

static sample reader_sample(const agent &a)
{
    sample s = {a.taken, a.ops, {}};
    for (const auto &[name, share] : {std::pair("p50", .5), {"p90", .9}, {"p99", .99}, {"p99.9", .999}, {"p99.99", .9999}})
        s.more[name] = a.lat.percentile_ns(share);
    s.more["max"] = static_cast<double>(a.lat.max) * ns_per_tick();
    s.more["wrong"] = static_cast<double>(a.wrong);
    s.more["cpu_ns"] = a.cpu * 1e9 / static_cast<double>(a.ops);
    return s;
}

static void procs_group(uint32_t n)
{
    const workset w = workset_of(n, 0);
    const double secs = opt.quick ? 0.2 : 0.5;
    const char *const names[] = {"reader_alone", "two_readers", "reader_beside_writer"};
    struct team {
        contestant c;
        agent *wr, *rd[2];
        pid_t pid[3];
    };
    std::vector<team> teams;
    for (const peer *const *p = peers; *p; p++) {
        if (!((*p)->traits & PEER_SHARED) ||
            std::none_of(names, names + 3, [&](const char *name) { return wanted(name, n, **p); }))
            continue;
        team t = {contestant_of(**p, {nullptr, n, kKey, 32, false, true}), shared_memory<agent>(),
                  {shared_memory<agent>(), shared_memory<agent>()}, {}};
        t.pid[0] = start_agent(t.c, t.wr, w, true);
        for (int i = 0; i < 2; i++)
            t.pid[i + 1] = start_agent(t.c, t.rd[i], w, false);
        teams.push_back(t);
    }
    for (int r = 0; r < opt.rounds; r++)
        for (team &t : teams) {
            if (wanted(names[0], n, *t.c.p))
                run_case(names[0], n, *t.c.p, [&] {
                    together({{t.rd[0], JOB_READ}}, secs);
                    return reader_sample(*t.rd[0]);
                });
            if (wanted(names[1], n, *t.c.p))
                run_case(names[1], n, *t.c.p, [&]() -> sample {
                    together({{t.rd[0], JOB_READ}, {t.rd[1], JOB_READ}}, secs);
                    sample s = reader_sample(*t.rd[0]);
                    s.seconds = (t.rd[0]->taken + t.rd[1]->taken) / 2;  // time per lookup of the pair
                    s.ops = t.rd[0]->ops + t.rd[1]->ops;
                    return s;
                });
            if (wanted(names[2], n, *t.c.p))
                run_case(names[2], n, *t.c.p, [&] {
                    together({{t.rd[0], JOB_READ}, {t.wr, JOB_WRITE}}, secs);
                    sample s = reader_sample(*t.rd[0]);
                    s.more["writer_ns"] = t.wr->taken * 1e9 / static_cast<double>(t.wr->ops);
                    return s;
                });
        }
    for (team &t : teams) {
        together({{t.rd[0], JOB_QUIT}, {t.rd[1], JOB_QUIT}}, 0);
        for (int i = 1; i < 3; i++)
            child_good(t.pid[i]);
        together({{t.wr, JOB_QUIT}}, 0);
        child_good(t.pid[0]);
    }
}

// ---- The run --------------------------------------------------------------------------------------

static nlohmann::ordered_json context(int argc, char **argv)
{
    nlohmann::ordered_json out;
    const benchmark::CPUInfo &cpu = benchmark::CPUInfo::Get();
    utsname host;
    uname(&host);
    std::string model, line, command;
    for (std::ifstream info("/proc/cpuinfo"); std::getline(info, line);)
        if (line.rfind("model name", 0) == 0)
            model = line.substr(line.find(':') + 2);
    for (int i = 0; i < argc; i++)
        command += (i ? " " : "") + std::string(argv[i]);
    char date[64];
    const time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M", localtime(&now));
    out = {{"date", date}, {"command", command}, {"cpu", model}, {"cpus", cpu.num_cpus}, {"mhz", cpu.cycles_per_second / 1e6},
           {"kernel", host.release}, {"compiler", "g++ " __VERSION__}, {"rounds", opt.rounds}, {"quick", opt.quick},
           {"huge_pages", opt.huge}};
    for (const auto &cache : cpu.caches)
        out["caches"].push_back("L" + std::to_string(cache.level) + " " + cache.type + " " + std::to_string(cache.size / 1024) + "K");
    return out;
}

static void write_json(const nlohmann::ordered_json &about)
{
    nlohmann::ordered_json out = {{"context", about}, {"benchmarks", nlohmann::ordered_json::array()}};
    for (const std::string &name : order) {
        const series &s = results[name];
        nlohmann::ordered_json row = {{"name", name}, {"op", s.op}, {"size", s.size}, {"peer", s.peer}, {"time_unit", "ns"},
                                      {"real_time", median(s.ns)}, {"best", *std::min_element(s.ns.begin(), s.ns.end())},
                                      {"worst", *std::max_element(s.ns.begin(), s.ns.end())}, {"repetitions", s.ns.size()}};
        for (const auto &[key, values] : s.more)
            row[key] = key == "wrong" ? *std::max_element(values.begin(), values.end()) : median(values);
        out["benchmarks"].push_back(row);
    }
    std::ofstream(opt.out) << out.dump(1) << "\n";
    fprintf(stderr, "%zu cases written to %s\n", order.size(), opt.out.c_str());
}

int main(int argc, char **argv)
{
    CLI::App app("Measures the library, the bare probes and the peers");
    app.add_flag("--quick", opt.quick, "fewer sizes, rounds and operations");
    app.add_flag("--huge", opt.huge, "huge pages for /dev/shm");
    app.add_option("--rounds", opt.rounds, "rounds over all contestants");
    app.add_option("--sizes", opt.sizes, "numbers of records")->delimiter(',');
    app.add_option("--values", opt.val_sizes, "sizes of vector values, bytes")->delimiter(',');
    app.add_option("--peers", opt.peers, "contestants, a regular expression");
    app.add_option("--out", opt.out, "where the results go, as JSON");
    app.add_option("filter", opt.filter, "cases, a regular expression over operation/size/contestant");
    CLI11_PARSE(app, argc, argv);
    if (opt.rounds == 0)
        opt.rounds = opt.quick ? 3 : 7;
    if (opt.sizes.empty())
        opt.sizes = opt.quick ? std::vector<uint32_t>{1000, 1000000} : std::vector<uint32_t>{1000, 100000, 1000000, 4000000};
    if (opt.val_sizes.empty())
        opt.val_sizes = opt.quick ? std::vector<uint32_t>{100, 2000} : std::vector<uint32_t>{100, 500, 1000, 2000};
    use_own_shm(opt.huge);
    int none = 1;
    char *argv0[] = {argv[0], nullptr};
    benchmark::Initialize(&none, argv0);
    ns_per_tick();

    const nlohmann::ordered_json about = context(argc, argv);
    // First what runs in children only: they must come from a process that has used no peer yet.
    for (uint32_t n : opt.sizes)
        if (n <= 1000000)
            procs_group(n);
    for (uint32_t n : opt.sizes)
        attach_group(n);
    for (uint32_t n : opt.sizes)
        if (n >= 100000 && n <= 1000000)
            growth_group(n);
    for (uint32_t val_sz : opt.val_sizes)
        vector_group(val_sz);
    for (uint32_t n : opt.sizes)
        table_group(n);
    write_json(about);
    return 0;
}
