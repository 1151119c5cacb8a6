#include "field.h"

#include <benchmark/benchmark.h>
#include <regex.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>

options opt;

// ---- Cases and their results ----------------------------------------------------------------------

struct series {
    std::string op, peer;
    uint32_t size;
    std::vector<double> ns;
    std::map<std::string, std::vector<double>> more;
};

static std::vector<std::string> order; // names in the order of their first run
static std::map<std::string, series> results;

static double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

namespace
{
struct collector : benchmark::BenchmarkReporter {
    series *to = nullptr;
    bool ReportContext(const Context &) override
    {
        return true;
    }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            to->ns.push_back(run.GetAdjustedRealTime());
            for (const auto &[name, counter] : run.counters)
                to->more[name].push_back(counter.value);
        }
    }
};
} // namespace

static std::string case_name(const std::string &op, uint32_t size, const char *peer)
{
    return op + "/" + std::to_string(size) + "/" + peer;
}

bool wanted(const std::string &op, uint32_t size, const peer &p)
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

void run_case(const std::string &op, uint32_t size, const peer &p, const std::function<sample()> &run)
{
    const std::string name = case_name(op, size, p.name);
    if (results.find(name) == results.end()) {
        order.push_back(name);
        results[name] = {op, p.name, size, {}, {}};
    }
    static collector reporter;
    reporter.to = &results[name];
    benchmark::RegisterBenchmark(name.c_str(),
                                 [&](benchmark::State &state) {
                                     for (auto _ : state) {
                                         const sample s = run();
                                         state.SetIterationTime(s.seconds / static_cast<double>(s.ops));
                                         for (const auto &[key, value] : s.more)
                                             state.counters[key] = value;
                                     }
                                 })
        ->Iterations(1)
        ->UseManualTime();
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::ClearRegisteredBenchmarks();
    const series &done = results[name];
    fprintf(stderr, "%-44s round %2zu %12.1f ns", name.c_str(), done.ns.size(), done.ns.back());
    for (const auto &[key, values] : done.more)
        fprintf(stderr, "  %s %.6g", key.c_str(), values.back());
    fputc('\n', stderr);
}
nlohmann::ordered_json results_json()
{
    nlohmann::ordered_json out = nlohmann::ordered_json::array();
    for (const std::string &name : order) {
        const series &s = results[name];
        std::vector<double> rounds;
        for (double ns : s.ns)
            rounds.push_back(std::round(ns * 100) / 100);
        nlohmann::ordered_json row = {{"name", name},
                                      {"op", s.op},
                                      {"size", s.size},
                                      {"peer", s.peer},
                                      {"time_unit", "ns"},
                                      {"real_time", median(s.ns)},
                                      {"best", *std::min_element(s.ns.begin(), s.ns.end())},
                                      {"worst", *std::max_element(s.ns.begin(), s.ns.end())},
                                      {"repetitions", s.ns.size()},
                                      {"rounds", rounds}};
        for (const auto &[key, values] : s.more)
            row[key] = key == "wrong" ? *std::max_element(values.begin(), values.end()) : median(values);
        out.push_back(row);
    }
    return out;
}

// ---- A contestant with its store ------------------------------------------------------------------

contestant contestant_of(const peer &p, const peer_cfg &cfg)
{
    static int serial;
    contestant c = {&p, cfg, "/dev/shm/bench" + std::to_string(getpid()) + "_" + std::to_string(serial++),
                    nullptr, 0};
    mkdir(c.dir.c_str(), 0700);
    return c;
}

void open_store(contestant &c, peer_how how)
{
    c.cfg.dir = c.dir.c_str();
    c.h = c.p->open(c.cfg, how);
    if (!c.h)
        die("%s: cannot %s the store", c.p->name, how == PEER_CREATE ? "create" : "open");
}

void close_store(contestant &c, bool drop)
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

void put(contestant &c, const char *key, uint32_t size)
{
    char *val = value_buf();
    stamp_value(val, key);
    if (!c.p->store(c.h, key, kKey, val, size))
        die("%s: a record was not stored", c.p->name);
}

void fill(contestant &c, uint32_t from, uint32_t to)
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

workset workset_of(uint32_t n, uint32_t extra)
{
    const uint32_t cnt = n <= 8192 ? 8192 : 400000;
    workset w = {n,
                 extra,
                 keys_of(uniform_numbers(n, cnt, n)),
                 keys_of(zipf_numbers(n, cnt, n)),
                 keys_of(uniform_numbers(n, cnt, n + 1), 1ull << 32),
                 {},
                 {}};
    std::vector<uint32_t> fresh(extra), old(extra);
    for (uint32_t i = 0; i < extra; i++) {
        fresh[i] = n + i;
        old[i] = n / extra * i;
    }
    rng r = {n + 2};
    for (uint32_t i = extra; i > 1; i--) // in no order, like the lookups
        std::swap(old[i - 1], old[r.below(i)]);
    w.fresh = keys_of(fresh);
    w.old = keys_of(old);
    return w;
}
