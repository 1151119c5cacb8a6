// What must hold, as figures of this one run.
#include <stdio.h>

#include <algorithm>
#include <functional>
#include <random>

#include "run.h"

// ---- Several processes ----------------------------------------------------------------------------

// The rounds of one contestant at one size. A resample picks some of them, for all contestants alike.
struct team_rounds {
    std::vector<double> alone, two, beside;
};
using picked = std::vector<size_t>;

static team_rounds team_of(const std::string &peer, uint32_t n)
{
    return {rounds_of("reader_alone", n, peer), rounds_of("two_readers", n, peer),
            rounds_of("reader_beside_writer", n, peer)};
}

static double nth_share(std::vector<double> v, double share)
{
    const size_t at = static_cast<size_t>(static_cast<double>(v.size() - 1) * share);
    std::nth_element(v.begin(), v.begin() + static_cast<long>(at), v.end());
    return v[at];
}

// What two readers do together over what one does: the median of the rounds, each with its own alone.
static double scaling(const team_rounds &t, const picked &rounds)
{
    std::vector<double> v;
    for (size_t r : rounds)
        v.push_back(t.alone[r] / t.two[r]);
    return nth_share(v, .5);
}

// What a writer adds to a lookup, ns: by the best quarter of the rounds, since what disturbs a store as
// small as the caches only ever adds. A reader that gains by the writer loses nothing.
static double taken(const team_rounds &t, const picked &rounds)
{
    std::vector<double> alone, beside;
    for (size_t r : rounds)
        alone.push_back(t.alone[r]), beside.push_back(t.beside[r]);
    return std::max(0., nth_share(beside, .25) - nth_share(alone, .25));
}

// A figure of the run with the range that 9 of 10 resamples of its rounds fall into. A goal that is missed
// by less than that is neither kept nor missed by this run.
static std::vector<std::string> judged(size_t rounds, double goal, bool at_least, const char *format,
                                       const std::function<double(const picked &)> &figure)
{
    picked all(rounds), some(rounds);
    for (size_t i = 0; i < rounds; i++)
        all[i] = i;
    const double value = figure(all);
    std::mt19937 random(1);
    std::vector<double> others;
    for (int i = 0; i < 2000; i++) {
        for (size_t &r : some)
            r = random() % rounds;
        others.push_back(figure(some));
    }
    const double low = nth_share(others, .05), high = nth_share(others, .95);
    char text[64];
    snprintf(text, sizeof text, format, value, low, high);
    const auto good = [&](double v) { return at_least ? v >= goal : v <= goal; };
    return {text, good(value) ? "yes" : good(at_least ? high : low) ? "within the noise" : "**no**"};
}

static void process_goals(std::ofstream &out)
{
    std::vector<std::vector<std::string>> rows, tolls;
    for (uint32_t n : sizes_of({"reader_beside_writer"})) {
        const team_rounds ours = team_of("shkv", n);
        const auto complete = [&](const team_rounds &t) {
            return !t.alone.empty() && t.alone.size() == t.two.size() && t.alone.size() == t.beside.size();
        };
        for (const std::string peer : {"shkv", "probe_plain", "probe_tuned"}) {
            const team_rounds theirs = team_of(peer, n);
            if (!complete(theirs))
                continue;
            const double alone = nth_share(theirs.alone, .25), beside = nth_share(theirs.beside, .25);
            char factor[32];
            snprintf(factor, sizeof factor, "%.2f", beside / alone);
            tolls.push_back({count(n), peer, number(alone), number(beside), number(beside - alone), factor,
                             number(time_of("reader_beside_writer", n, peer, "writer_ns"))});
            const size_t rounds = theirs.alone.size();
            if (peer == "shkv" || !complete(ours) || ours.alone.size() != rounds)
                continue;
            std::vector<std::string> row = {"scaling of two readers, " + count(n), peer, "≥ 0.95"};
            for (const std::string &cell :
                 judged(rounds, .95, true, "%.2f (%.2f to %.2f)",
                        [&](const picked &p) { return scaling(ours, p) / scaling(theirs, p); }))
                row.push_back(cell);
            rows.push_back(row);
            row = {"a writer's toll, ns a lookup more than there, " + count(n), peer, "≤ 0.0"};
            for (const std::string &cell :
                 judged(rounds, 0, false, "%.1f (%.1f to %.1f)",
                        [&](const picked &p) { return taken(ours, p) - taken(theirs, p); }))
                row.push_back(cell);
            rows.push_back(row);
        }
    }
    if (!rows.empty())
        table(out, "Several processes: what must hold",
              {"of shkv", "against", "goal", "in this run (9 of 10 resamples)", "holds"}, rows);
    if (!tolls.empty())
        table(out, "What a writer takes from a reader, by the best quarter of the rounds",
              {"records", "", "ns alone", "beside", "taken", "factor", "ns a write"}, tolls);
}

// ---- One process ----------------------------------------------------------------------------------

void goals(std::ofstream &out)
{
    struct goal {
        const char *what, *op;
        uint32_t size;
        const char *than, *than_op;
        double most;
    };
    std::vector<goal> list = {{"lookup, 1M", "lookup_hit", 1000000, "probe_plain", "lookup_hit", .65},
                              {"lookup, 1M", "lookup_hit", 1000000, "probe_tuned", "lookup_hit", 1.2},
                              {"lookup, 1M", "lookup_hit", 1000000, "lmdb", "lookup_hit", 1 / 2.8},
                              {"lookup, 1M", "lookup_hit", 1000000, "tdb", "lookup_hit", 1 / 2.},
                              {"lookup, 1M", "lookup_hit", 1000000, "boost", "lookup_hit", 1 / 1.7},
                              {"lookup, 1M", "lookup_hit", 1000000, "tkrzw_tiny", "lookup_hit", 1},
                              {"lookup, 1M", "lookup_hit", 1000000, "tkrzw_cache", "lookup_hit", 1},
                              {"lookup, 1M", "lookup_hit", 1000000, "kyoto_proto", "lookup_hit", 1},
                              {"lookup, 1M", "lookup_hit", 1000000, "kyoto_cache", "lookup_hit", 1},
                              {"lookup, 1k", "lookup_hit", 1000, "probe_plain", "lookup_hit", 1.1},
                              {"groups of 16, 1M", "lookup_group16", 1000000, "shkv", "lookup_hit", 1 / 2.2},
                              {"groups of 16, 1M", "lookup_group16", 1000000, "lmdb", "lookup_hit", 1 / 7.},
                              {"iterate, 1M", "iterate", 1000000, "probe_plain", "iterate", .65}};
    for (const char *op : {"insert", "replace", "delete"}) {
        list.push_back({op, op, 1000000, "probe_plain", op, 1.2});
        for (const char *peer : {"lmdb", "tdb", "boost", "redis", "memcached"})
            list.push_back({op, op, 1000000, peer, op, 1});
    }
    for (uint32_t size : {100, 500, 1000, 2000}) {
        list.push_back({"vector", "vec_lookup", size, "probe_plain", "vec_lookup", .85});
        list.push_back({"vector", "vec_lookup", size, "lmdb", "vec_lookup", 1});
        list.push_back(
            {"vector, churned", "vec_lookup_churned", size, "probe_plain", "vec_lookup_churned", .85});
    }
    std::vector<std::vector<std::string>> rows;
    const auto add = [&](const std::string &what, const std::string &than, double ratio, double most,
                         bool at_least) {
        char text[2][32];
        snprintf(text[0], sizeof text[0], "%.2f", ratio);
        snprintf(text[1], sizeof text[1], "%s %.2f", at_least ? "≥" : "≤", most);
        rows.push_back(
            {what, than, text[0], text[1], (at_least ? ratio >= most : ratio <= most) ? "yes" : "**no**"});
    };
    for (const goal &g : list) {
        const double ours = time_of(g.op, g.size, "shkv"), theirs = time_of(g.than_op, g.size, g.than);
        const bool vec = g.size < 1000 || g.size == 2000 || std::string(g.op).rfind("vec", 0) == 0;
        if (ours > 0 && theirs > 0)
            add(std::string(g.what) + (vec ? ", " + std::to_string(g.size) + " bytes" : ""), g.than,
                ours / theirs, g.most, false);
    }
    if (!rows.empty())
        table(out, "Ratios that must hold", {"time of shkv", "over that of", "ratio", "goal", "holds"}, rows);
    process_goals(out);
}
