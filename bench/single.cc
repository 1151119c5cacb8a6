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
static const operation vector_ops[] = {{"vec_lookup", any, lookup_hit}, {"vec_replace", any, replace}};
static const operation churned_ops[] = {{"vec_lookup_churned", any, lookup_hit}};

// All rounds of all operations over the contestants, each round beginning with another of them.
template <size_t cnt>
static void rounds_of(const operation (&ops)[cnt], uint32_t size, std::vector<contestant> &field,
                      const workset &w)
{
    for (int r = 0; r < opt.rounds; r++)
        for (const operation &op : ops)
            for (size_t i = 0; i < field.size(); i++) {
                contestant &c = field[(i + static_cast<size_t>(r)) % field.size()];
                c.turn = static_cast<uint32_t>(r);
                if (op.can(*c.p) && wanted(op.name, size, *c.p))
                    run_case(op.name, size, *c.p, [&] { return op.run(c, w); });
            }
}

template <size_t cnt>
static std::vector<contestant> field_of(const operation (&ops)[cnt], uint32_t size, const peer_cfg &cfg)
{
    std::vector<contestant> field;
    for (const peer *const *p = peers; *p; p++)
        // What a server takes for a round trip hardly depends on what it looks for.
        if ((!((*p)->traits & PEER_REMOTE) || (cfg.entries < 2000000 && !cfg.vector)) &&
            std::any_of(ops, ops + cnt,
                        [&](const operation &op) { return op.can(**p) && wanted(op.name, size, **p); }))
            field.push_back(contestant_of(**p, cfg));
    return field;
}

void table_group(uint32_t n)
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
void vector_group(uint32_t val_sz)
{
    const uint32_t n = opt.quick ? 50000 : 200000;
    std::vector<contestant> field = field_of(vector_ops, val_sz, {nullptr, n, kKey, val_sz, true, false});
    const std::vector<contestant> churned =
        field_of(churned_ops, val_sz, {nullptr, n, kKey, val_sz, true, false});
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
            make_key((i * 7919ull + 13) % n, key); // every record once: n is no multiple of that prime
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
