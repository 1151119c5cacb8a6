// Cases of several processes: readers beside each other, a reader beside a writer.
#include <semaphore.h>

#include <algorithm>

#include "field.h"

// A process of a contestant's team: it opens the store, then waits for something to do.
enum job { JOB_READ, JOB_WRITE, JOB_QUIT };
struct agent {
    sem_t go, done;
    job what;
    double secs;  // to work
    double taken; // wall seconds worked
    double cpu;   // CPU seconds of it
    uint64_t ops, wrong;
    hist lat;
};

static uint64_t ticks(double secs)
{
    return static_cast<uint64_t>(secs * 1e9 / ns_per_tick());
}

static void work(contestant &c, agent &a, const std::vector<char> &keys)
{
    const char *const begin = keys.data(), *const end = begin + keys.size(), *key = begin;
    char out[4096];
    const uint64_t warm = __rdtsc() + ticks(a.secs / 2), until = warm + ticks(a.secs);
    double wall = wall_s(), cpu = cpu_s();
    uint64_t ops = 0, wrong = 0, then = __rdtsc();
    // The store before this one has the caches: a third of the time is for making them this one's.
    for (bool counts = false; then < until; ops++, key = key + kKey == end ? begin : key + kKey) {
        if (!counts && then >= warm) {
            counts = true, ops = 0, wall = wall_s(), cpu = cpu_s();
            memset(&a.lat, 0, sizeof a.lat);
            then = __rdtsc();
        }
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

static pid_t start_agent(contestant &c, agent *a, uint32_t n, const std::vector<char> &keys, bool writer)
{
    sem_init(&a->go, 1, 0), sem_init(&a->done, 1, 0);
    const pid_t pid = child([&] {
        open_store(c, writer ? PEER_CREATE : PEER_READ);
        if (writer)
            fill(c, 0, n);
        for (;;) {
            sem_post(&a->done);
            while (sem_wait(&a->go) != 0) {
            }
            if (a->what == JOB_QUIT)
                break;
            work(c, *a, keys);
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
    for (const auto &[name, share] :
         {std::pair("p50", .5), {"p90", .9}, {"p99", .99}, {"p99.9", .999}, {"p99.99", .9999}})
        s.more[name] = a.lat.percentile_ns(share);
    s.more["max"] = static_cast<double>(a.lat.max) * ns_per_tick();
    s.more["wrong"] = static_cast<double>(a.wrong);
    s.more["cpu_ns"] = a.cpu * 1e9 / static_cast<double>(a.ops);
    return s;
}

void procs_group(uint32_t n)
{
    // Each agent has keys of its own. On the same ones two readers would fetch for each other, and a writer
    // as fast as the reader would stay as far ahead of it as it began.
    std::vector<char> keys[3];
    for (uint32_t i = 0; i < 3; i++)
        keys[i] = keys_of(uniform_numbers(n, n <= 8192 ? 8192 : 400000, n + 3 + i));
    const double secs = 0.2;
    const char *const names[] = {"reader_alone", "two_readers", "reader_beside_writer",
                                 "reader_beside_stranger"};
    struct team {
        contestant c;
        agent *wr, *rd[2];
        pid_t pid[3];
    };
    std::vector<team> teams;
    for (const peer *const *p = peers; *p; p++) {
        if (!((*p)->traits & PEER_SHARED) ||
            std::none_of(std::begin(names), std::end(names),
                         [&](const char *name) { return wanted(name, n, **p); }))
            continue;
        team t = {contestant_of(**p, {nullptr, n, kKey, 32, false, true}),
                  shared_memory<agent>(),
                  {shared_memory<agent>(), shared_memory<agent>()},
                  {}};
        t.pid[0] = start_agent(t.c, t.wr, n, keys[2], true);
        for (int i = 0; i < 2; i++)
            t.pid[i + 1] = start_agent(t.c, t.rd[i], n, keys[i], false);
        teams.push_back(t);
    }
    // What two processors share with their neighbours moves most here: three times as many rounds, and
    // six for those that must hold a goal.
    for (int r = 0; r < 6 * opt.rounds; r++)
        for (team &t : teams) {
            if (r >= 3 * opt.rounds && t.c.p != &peer_shkv && !(t.c.p->traits & PEER_FLOOR))
                continue;
            if (wanted(names[0], n, *t.c.p))
                run_case(names[0], n, *t.c.p, [&] {
                    together({{t.rd[0], JOB_READ}}, secs);
                    return reader_sample(*t.rd[0]);
                });
            if (wanted(names[1], n, *t.c.p))
                run_case(names[1], n, *t.c.p, [&]() -> sample {
                    together({{t.rd[0], JOB_READ}, {t.rd[1], JOB_READ}}, secs);
                    sample s = reader_sample(*t.rd[0]);
                    s.seconds = (t.rd[0]->taken + t.rd[1]->taken) / 2; // time per lookup of the pair
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
            // The writer of another store takes a share of the machine, but no lines of this store.
            team &other = &t == &teams.back() ? teams.front() : *(&t + 1);
            if (&other != &t && wanted(names[3], n, *t.c.p))
                run_case(names[3], n, *t.c.p, [&] {
                    together({{t.rd[0], JOB_READ}, {other.wr, JOB_WRITE}}, secs);
                    return reader_sample(*t.rd[0]);
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
