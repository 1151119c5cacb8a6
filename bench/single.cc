// Cases of a single process: one table of operations, driven over the contestants in turn.
#include <sched.h>

#include <algorithm>

#include "field.h"

template <class Body> static double timed(const contestant &c, Body body)
{
    const clockid_t id = c.remote() ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID;
    cpu_set_t all, first;
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    if (c.remote()) // beside its server
        sched_setaffinity(0, sizeof first, &first);
    const double begin = clock_s(id);
    body();
    const double taken = clock_s(id) - begin;
    if (c.remote())
        sched_setaffinity(0, sizeof all, &all);
    return taken;
}

// ---- Operations of one process --------------------------------------------------------------------

static uint32_t op_count(const contestant &c, uint32_t local, uint32_t remote)
{
    return (c.remote() ? remote : local) / (opt.quick ? 4 : 1);
}

static const char *first_key(const contestant &c, const std::vector<char> &keys, uint32_t ops)
{
    return keys.data() + static_cast<uint64_t>(c.turn) * ops % (keys.size() / kKey) * kKey;
}

static sample lookups(contestant &c, const std::vector<char> &keys, uint32_t ops, bool present)
{
    char out[4096];
    uint64_t wrong = 0;
    const char *const begin = keys.data(), *const end = begin + keys.size();
    const char *key = first_key(c, keys, ops);
    const auto go = [&](uint32_t cnt) {
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

static sample lookup_hit(contestant &c, const workset &w)
{
    return lookups(c, w.uniform, op_count(c, 400000, 8000), true);
}
static sample lookup_zipf(contestant &c, const workset &w)
{
    return lookups(c, w.zipf, op_count(c, 400000, 8000), true);
}
static sample lookup_miss(contestant &c, const workset &w)
{
    return lookups(c, w.miss, op_count(c, 400000, 8000), false);
}

static sample lookup_lite(contestant &c, const workset &w)
{
    const uint32_t ops = op_count(c, 400000, 8000);
    uint64_t wrong = 0;
    const char *const begin = w.uniform.data(), *const end = begin + w.uniform.size();
    const double seconds = timed(c, [&] {
        const char *key = first_key(c, w.uniform, ops);
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
    const char *const begin = w.uniform.data(), *const end =
                                                    begin + w.uniform.size() / (16 * kKey) * (16 * kKey);
    const double seconds = timed(c, [&] {
        const char *keys = begin + (first_key(c, w.uniform, ops) - begin) / (16 * kKey) * (16 * kKey);
        for (uint32_t i = 0; i < ops; i += 16, keys = keys + 16 * kKey == end ? begin : keys + 16 * kKey) {
            c.p->group(c.h, keys, kKey, out, room, sizes, 16);
            for (uint32_t k = 0; k < 16; k++)
                wrong +=
                    sizes[k] != static_cast<int>(c.cfg.val_sz) || !value_fits(out + k * room, keys + k * kKey);
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
    return {timed(c,
                  [&] {
                      const char *key = first_key(c, w.uniform, ops);
                      for (uint32_t i = 0; i < ops; i++, key = key + kKey == end ? begin : key + kKey)
                          put(c, key, c.cfg.val_sz);
                  }),
            ops,
            {}};
}

// Two sets of records take turns: one comes in, then the other goes. Times one of the two, or the
// insert of 100 records in one piece. The store is as it was after an even number of turns.
enum come_and_go { TIME_INSERT, TIME_DELETE, TIME_BULK };
static sample insert_delete(contestant &c, const workset &w, come_and_go what)
{
    const uint32_t target = op_count(c, 100000, 4000), cnt = std::min(w.extra, target / 2) / 100 * 100;
    const uint64_t from = static_cast<uint64_t>(c.turn) * cnt % (w.extra - cnt + 1) * kKey;
    const char *const fresh = w.fresh.data() + from, *in = fresh, *out = w.old.data() + from;
    double insert_s = 0, delete_s = 0;
    uint64_t ops = 0;
    for (; ops < target || in != fresh; ops += cnt) {
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
static sample insert(contestant &c, const workset &w)
{
    return insert_delete(c, w, TIME_INSERT);
}
static sample insert_bulk(contestant &c, const workset &w)
{
    return insert_delete(c, w, TIME_BULK);
}
static sample erase(contestant &c, const workset &w)
{
    return insert_delete(c, w, TIME_DELETE);
}

static void check_visited(void *wrong, const void *key, uint32_t key_sz, const void *val, uint32_t)
{
    *static_cast<uint64_t *>(wrong) +=
        key_sz != kKey || !value_fits(static_cast<const char *>(val), static_cast<const char *>(key));
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

static bool any(const peer &)
{
    return true;
}
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

void table_group(uint32_t n)
{
    const uint32_t extra = std::max(100u, std::min(n / 10, 100000u));
    std::vector<contestant> field;
    for (const peer *const *p = peers; *p; p++)
        // What a server takes for a round trip hardly depends on what it looks for.
        if (!((*p)->traits & PEER_VECTOR) && (!((*p)->traits & PEER_REMOTE) || n < 2000000) &&
            std::any_of(std::begin(table_ops), std::end(table_ops),
                        [&](const operation &op) { return op.can(**p) && wanted(op.name, n, **p); }))
            field.push_back(contestant_of(**p, {nullptr, n + extra, kKey, 32, false, false}));
    if (field.empty())
        return;
    const workset w = workset_of(n, extra);
    for (contestant &c : field)
        open_store(c, PEER_CREATE);
    // Slice by slice, so that all stores get their pages from the same corners of the machine's memory.
    const uint32_t slices = n < 100000 ? 1 : 64;
    for (uint64_t slice = 0; slice < slices; slice++)
        for (contestant &c : field)
            fill(c, static_cast<uint32_t>(n * slice / slices), static_cast<uint32_t>(n * (slice + 1) / slices));
    // All operations over the contestants, each round beginning with another of them.
    for (int r = 0; r < opt.rounds; r++)
        for (const operation &op : table_ops)
            for (size_t i = 0; i < field.size(); i++) {
                contestant &c = field[(i + static_cast<size_t>(r)) % field.size()];
                c.turn = static_cast<uint32_t>(r);
                if (op.can(*c.p) && wanted(op.name, n, *c.p))
                    run_case(op.name, n, *c.p, [&] { return op.run(c, w); });
            }
    for (contestant &c : field)
        close_store(c, true);
}

// One contestant's round with variable values. Fresh, each record's units lie in a row. Churn replaces all
// records three times with values of other sizes, in random order, and then once with the old size again.
static void vector_round(contestant &c, uint32_t val_sz, const workset &w)
{
    const auto measure = [&](const char *op, sample (*run)(contestant &, const workset &)) {
        if (wanted(op, val_sz, *c.p))
            run_case(op, val_sz, *c.p, [&] { return run(c, w); });
    };
    open_store(c, PEER_CREATE);
    fill(c, 0, w.n);
    measure("vec_lookup", lookup_hit);
    if (wanted("vec_lookup_churned", val_sz, *c.p) || wanted("vec_replace", val_sz, *c.p)) {
        rng r = {1};
        char key[kKey];
        if (c.p->bulk)
            c.p->bulk(c.h, true);
        for (uint32_t i = 0; i < 3 * w.n; i++) {
            make_key(r.below(w.n), key);
            put(c, key, val_sz / 2 + r.below(val_sz / 2 + 1));
        }
        for (uint32_t i = 0; i < w.n; i++) {
            make_key((i * 7919ull + 13) % w.n, key); // every record once: n is no multiple of that prime
            put(c, key, val_sz);
        }
        if (c.p->bulk)
            c.p->bulk(c.h, false);
        measure("vec_lookup_churned", lookup_hit);
        measure("vec_replace", replace);
    }
    close_store(c, true);
}

// One store at a time, made anew in each round: which pages a store gets from the machine weighs as much here
// as what it does with them, and so each gets the pages that the one before it gave back.
void vector_group(uint32_t val_sz)
{
    // Far more than the caches hold.
    const uint32_t n = opt.quick ? 50000 : val_sz < 2000 ? 200000 : 100000;
    const workset w = workset_of(n, 0);
    std::vector<contestant> field;
    for (const peer *const *p = peers; *p; p++)
        if (!((*p)->traits & PEER_REMOTE) && // what a round trip takes hardly depends on what it is for
            (wanted("vec_lookup", val_sz, **p) || wanted("vec_replace", val_sz, **p) ||
             wanted("vec_lookup_churned", val_sz, **p)))
            field.push_back(contestant_of(**p, {nullptr, n, kKey, val_sz, true, false}));
    for (int r = 0; r < opt.rounds; r++)
        for (size_t i = 0; i < field.size(); i++) {
            contestant &c = field[(i + static_cast<size_t>(r)) % field.size()];
            c.turn = static_cast<uint32_t>(r);
            vector_round(c, val_sz, w);
        }
}

// ---- Growth and attach ----------------------------------------------------------------------------

void growth_group(uint32_t n)
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
                return {timed(c,
                              [&] {
                                  for (uint32_t i = 0; i < cnt; i++) {
                                      make_key(i, key);
                                      put(c, key, 32);
                                  }
                              }),
                        cnt,
                        {}};
            });
            close_store(c, true);
        }
}

// Open for reading, one lookup, close, by a process that has nothing of the store yet.
void attach_group(uint32_t n)
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
                        *seconds = i == 0 ? 0 : *seconds + cpu_s() - begin; // the first warms up
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
