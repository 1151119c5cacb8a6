// Turns a run's JSON into Markdown tables and into the columns that the plots are drawn from.
//
//   bench_report RUN.json GROWTH.json TABLE.md DATA_DIR
//
// GROWTH.json may be missing; so may any case of the run.
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

using json = nlohmann::ordered_json;

static json run;
static std::vector<std::string> contestants;

// The row of a case, or null.
static const json *row_of(const std::string &op, uint32_t size, const std::string &peer)
{
    for (const json &row : run["benchmarks"])
        if (row["op"] == op && row["size"] == size && row["peer"] == peer)
            return &row;
    return nullptr;
}

static double time_of(const std::string &op, uint32_t size, const std::string &peer,
                      const char *field = "real_time")
{
    const json *row = row_of(op, size, peer);
    return row && row->contains(field) ? (*row)[field].get<double>() : 0;
}

static std::string number(double ns)
{
    char text[32];
    if (ns == 0)
        return "";
    snprintf(text, sizeof text, ns < 100 ? "%.1f" : "%.0f", ns);
    return text;
}

static std::set<uint32_t> sizes_of(const std::vector<std::string> &ops)
{
    std::set<uint32_t> sizes;
    for (const json &row : run["benchmarks"])
        if (std::find(ops.begin(), ops.end(), row["op"].get<std::string>()) != ops.end())
            sizes.insert(row["size"].get<uint32_t>());
    return sizes;
}

static void table(std::ofstream &out, const std::string &title, const std::vector<std::string> &heads,
                  const std::vector<std::vector<std::string>> &rows)
{
    out << "### " << title << "\n\n|";
    for (const std::string &head : heads)
        out << " " << head << " |";
    out << "\n|---|";
    for (size_t i = 1; i < heads.size(); i++)
        out << "---:|";
    out << "\n";
    for (const auto &row : rows) {
        out << "|";
        for (const std::string &cell : row)
            out << " " << cell << " |";
        out << "\n";
    }
    out << "\n";
}

// Beside several processes of ours a server is one more that wants a processor, and its times say mostly
// how often it got one.
static bool is_server(const std::string &peer)
{
    return peer == "redis" || peer == "memcached";
}

// Contestants down, cases across; lines and columns without a figure are left out.
static void grid(std::ofstream &out, const std::string &title, const std::vector<std::string> &heads,
                 const std::vector<std::pair<std::string, uint32_t>> &cases, const char *field = "real_time")
{
    std::vector<std::string> used = {"ns"};
    std::vector<size_t> columns;
    for (size_t i = 0; i < cases.size(); i++)
        if (std::any_of(contestants.begin(), contestants.end(), [&](const std::string &p) {
                return time_of(cases[i].first, cases[i].second, p, field) > 0;
            }))
            columns.push_back(i), used.push_back(heads[i]);
    std::vector<std::vector<std::string>> rows;
    for (const std::string &peer : contestants) {
        if (title == "Several processes" && is_server(peer))
            continue;
        std::vector<std::string> row = {peer == "shkv" ? "**shkv**" : peer};
        for (size_t i : columns)
            row.push_back(number(time_of(cases[i].first, cases[i].second, peer, field)));
        if (std::any_of(row.begin() + 1, row.end(), [](const std::string &cell) { return !cell.empty(); }))
            rows.push_back(row);
    }
    if (!rows.empty())
        table(out, title, used, rows);
}

static std::string count(uint32_t n)
{
    return n % 1000000 == 0 ? std::to_string(n / 1000000) + "M"
           : n % 1000 == 0  ? std::to_string(n / 1000) + "k"
                            : std::to_string(n);
}

// What must hold, as ratios of this one run: ours over the reference's.
static void goals(std::ofstream &out)
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
    // Scaling of two readers and the writer's toll, each against the probe's own.
    for (uint32_t n : sizes_of({"two_readers"})) {
        const auto scale = [&](const char *peer) {
            return time_of("reader_alone", n, peer) / time_of("two_readers", n, peer);
        };
        const auto toll = [&](const char *peer) {
            return time_of("reader_beside_writer", n, peer) / time_of("reader_alone", n, peer);
        };
        for (const char *probe : {"probe_plain", "probe_tuned"}) {
            if (scale("shkv") > 0 && scale(probe) > 0)
                add("scaling of two readers, " + count(n), probe, scale("shkv") / scale(probe), .95, true);
            if (toll("shkv") > 0 && toll(probe) > 0)
                add("a writer's toll on a reader, " + count(n), probe, toll("shkv") / toll(probe), 1, false);
        }
    }
    if (!rows.empty())
        table(out, "Ratios that must hold", {"time of shkv", "over that of", "ratio", "goal", "holds"}, rows);
}

static void write_tables(std::ofstream &out)
{
    const json &about = run["context"];
    out << "<!-- Written by ./dev bench; not by hand. -->\n\n"
        << about["date"].get<std::string>() << ", " << about["cpu"].get<std::string>() << ", " << about["cpus"]
        << " processors";
    for (const json &cache : about.value("caches", json::array()))
        out << ", " << cache.get<std::string>();
    out << ", Linux " << about["kernel"].get<std::string>() << ", " << about["compiler"].get<std::string>()
        << "; medians of " << about["rounds"] << " rounds; `" << about["command"].get<std::string>() << "`\n\n";
    goals(out);
    const std::vector<std::string> ops = {"lookup_hit",     "lookup_zipf", "lookup_miss", "lookup_lite",
                                          "lookup_group16", "iterate",     "replace",     "insert",
                                          "insert_bulk100", "delete"};
    const std::vector<std::string> heads = {
        "hit",    "hit, Zipf",           "miss",  "lite", "group of 16", "iterate", "replace",
        "insert", "insert, 100 at once", "delete"};
    for (uint32_t n : sizes_of(ops)) {
        std::vector<std::pair<std::string, uint32_t>> cases;
        for (const std::string &op : ops)
            cases.push_back({op, n});
        grid(out, count(n) + " records of 16 + 32 bytes", heads, cases);
    }
    const std::pair<const char *, std::vector<std::string>> across[] = {
        {"Variable values, by size", {"vec_lookup", "vec_lookup_churned", "vec_replace"}},
        {"Growing from 1,000 records; attaching to a store", {"insert_growth", "attach"}},
        {"Several processes",
         {"reader_alone", "two_readers", "reader_beside_writer", "reader_beside_stranger"}}};
    for (const auto &[title, names] : across) {
        std::vector<std::string> columns;
        std::vector<std::pair<std::string, uint32_t>> cases;
        for (const std::string &op : names)
            for (uint32_t n : sizes_of({op}))
                columns.push_back(op + ", " + (op.rfind("vec", 0) == 0 ? std::to_string(n) + " B" : count(n))),
                    cases.push_back({op, n});
        grid(out, title, columns, cases);
    }
    for (uint32_t n : sizes_of({"reader_beside_writer"})) {
        std::vector<std::vector<std::string>> rows;
        for (const std::string &peer : contestants)
            if (!is_server(peer) && row_of("reader_beside_writer", n, peer)) {
                std::vector<std::string> row = {peer};
                for (const char *field : {"p50", "p90", "p99", "p99.9", "p99.99", "max", "writer_ns", "wrong"})
                    row.push_back(
                        field == std::string("wrong")
                            ? std::to_string(static_cast<long>(time_of("reader_beside_writer", n, peer, field)))
                            : number(time_of("reader_beside_writer", n, peer, field)));
                rows.push_back(row);
            }
        if (!rows.empty())
            table(out, "A reader beside a writer at full speed, " + count(n) + " records",
                  {"ns", "p50", "p90", "p99", "p99.9", "p99.99", "longest", "a write", "wrong answers"}, rows);
    }
}

// One line a size, one column a contestant; what is missing is "?".
static void write_columns(const std::string &path, const std::vector<std::string> &ops,
                          const std::vector<std::string> &peers)
{
    std::ofstream out(path);
    out << "size";
    for (const std::string &op : ops)
        for (const std::string &peer : peers)
            out << " " << peer << (ops.size() > 1 ? ":" + op : "");
    out << "\n";
    for (uint32_t n : sizes_of(ops)) {
        out << n;
        for (const std::string &op : ops)
            for (const std::string &peer : peers) {
                const double ns = time_of(op, n, peer);
                ns > 0 ? out << " " << ns : out << " ?";
            }
        out << "\n";
    }
}

static void write_bars(const std::string &path, const std::vector<std::string> &ops, uint32_t n)
{
    std::ofstream out(path);
    out << "contestant";
    for (const std::string &op : ops)
        out << " " << op;
    out << "\n";
    for (const std::string &peer : contestants) {
        if (is_server(peer) || !row_of(ops[0], n, peer))
            continue;
        out << peer;
        for (const std::string &op : ops) {
            const double ns = time_of(op, n, peer);
            ns > 0 ? out << " " << ns : out << " ?";
        }
        out << "\n";
    }
}

// ---- Growth, transactions, reshapes ---------------------------------------------------------------

static json growth;

static void growth_tables(std::ofstream &out)
{
    std::vector<std::vector<std::string>> times, parts, txns, phases;
    const char *const marks[] = {"p50_us", "p90_us", "p99_us", "p99.9_us", "p99.99_us", "max_us"};
    for (const json &g : growth.value("growth", json::array())) {
        std::vector<std::string> row = {g["store"].get<std::string>()};
        for (const char *mark : marks)
            row.push_back(number(g[mark]));
        for (const char *field : {"lookups", "missing", "wrong"})
            row.push_back(std::to_string(g[field].get<uint64_t>()));
        times.push_back(row);
        std::vector<json> slowest = g["slowest"];
        std::sort(slowest.begin(), slowest.end(),
                  [](const json &a, const json &b) { return a["total_us"] > b["total_us"]; });
        for (size_t i = 0; i < slowest.size() && i < 3; i++) {
            row = {g["store"].get<std::string>(), std::to_string(slowest[i]["record"].get<uint32_t>())};
            for (const char *part :
                 {"total_us", "ftruncate_us", "mmap_us", "munmap_us", "memset_us", "rest_us"})
                row.push_back(number(slowest[i][part]));
            row.push_back(std::to_string(slowest[i]["faults"].get<long>()));
            parts.push_back(row);
        }
    }
    if (!times.empty()) {
        const json &first = growth["growth"][0];
        table(out,
              "Single adds through all growths, from 1,000 records to " + count(first["adds"]) +
                  ", with a reader in another process",
              {"us", "p50", "p90", "p99", "p99.9", "p99.99", "max", "lookups beside", "missing", "wrong"},
              times);
        table(out, "What the longest of them are made of",
              {"us", "record", "whole", "ftruncate", "mmap", "munmap", "memset", "the rest", "page faults"},
              parts);
    }
    if (growth.contains("txn")) {
        for (const char *kind : {"inserts", "replaces"}) {
            const json &t = growth["txn"][kind];
            char ratio[32];
            snprintf(ratio, sizeof ratio, "%.2f", t["commit_to_plain"].get<double>());
            txns.push_back(
                {kind, number(t["plain_ms"]), number(t["staging_ms"]), number(t["commit_ms"]), ratio});
        }
        table(out, "A transaction of 100,000 changes, ms",
              {"", "plain adds", "staging", "commit", "commit / plain adds"}, txns);
    }
    if (!growth.contains("reshape"))
        return;
    const json &r = growth["reshape"];
    for (const char *who : {"writer", "reader", "reader_2"})
        for (const char *when : {"before", "during", "after"}) {
            const json &p = r[who][when];
            phases.push_back({who, when, number(p["ops_a_second"]), number(p["p50_ns"]), number(p["p99_ns"]),
                              number(p["p99.9_ns"]), number(p["worst_us"]),
                              std::to_string(p["failed"].get<long>())});
        }
    std::string moved;
    for (const json &rate : r["records_a_second"])
        moved += (moved.empty() ? "" : ", ") + number(rate.get<double>() / 1000) + "k";
    table(out,
          std::to_string(r["reshapes"].get<int>()) + " reshapes of " + count(r["records"]) +
              " records there and back; records moved a second: " + moved,
          {"", "", "operations a second", "p50 ns", "p99 ns", "p99.9 ns", "worst us", "failed"}, phases);
}

static void growth_columns(const std::string &path)
{
    std::ofstream out(path);
    out << "percentile";
    for (const json &g : growth.value("growth", json::array()))
        out << " " << g["store"].get<std::string>();
    out << "\n";
    for (const char *mark : {"p50", "p90", "p99", "p99.9", "p99.99", "max"}) {
        out << mark;
        for (const json &g : growth.value("growth", json::array()))
            out << " " << g[std::string(mark) + "_us"].get<double>();
        out << "\n";
    }
}

int main(int argc, char **argv)
{
    if (argc != 5)
        return fprintf(stderr, "usage: bench_report RUN.json GROWTH.json TABLE.md DATA_DIR\n"), 2;
    std::ifstream in(argv[1]);
    run = json::parse(in, nullptr, false);
    if (run.is_discarded() || !run.contains("benchmarks"))
        return fprintf(stderr, "%s is no run\n", argv[1]), 1;
    const std::vector<std::string> known = {"shkv",        "probe_plain", "probe_tuned", "probe_fifo",
                                            "lmdb",        "tdb",         "tdb_nolock",  "boost",
                                            "tkrzw_hash",  "kyoto_hash",  "tkrzw_tiny",  "tkrzw_cache",
                                            "kyoto_proto", "kyoto_cache", "redis",       "memcached"};
    for (const std::string &peer : known)
        for (const json &row : run["benchmarks"])
            if (row["peer"] == peer) {
                contestants.push_back(peer);
                break;
            }
    std::ifstream more(argv[2]);
    growth = json::parse(more, nullptr, false);
    if (!growth.is_object())
        growth = json::object();
    std::ofstream out(argv[3]);
    write_tables(out);
    growth_tables(out);
    const std::string data = std::string(argv[4]) + "/";
    growth_columns(data + "growth.dat");
    const std::vector<std::string> drawn = {"shkv", "probe_plain", "probe_tuned", "lmdb",
                                            "tdb",  "boost",       "tkrzw_cache"};
    write_columns(data + "lookup.dat", {"lookup_hit"}, drawn);
    write_columns(data + "vector.dat", {"vec_lookup", "vec_lookup_churned"},
                  {"shkv", "probe_plain", "probe_tuned", "lmdb"});
    const std::set<uint32_t> sizes = sizes_of({"lookup_hit"});
    const uint32_t n = sizes.count(1000000) || sizes.empty() ? 1000000 : *sizes.rbegin();
    write_bars(data + "field.dat", {"lookup_hit", "lookup_miss", "replace", "insert", "delete"}, n);
    std::ofstream tail(data + "latency.dat");
    const std::set<uint32_t> beside = sizes_of({"reader_beside_writer"});
    tail << "percentile";
    const std::vector<std::string> tailed = {"shkv", "probe_tuned", "lmdb", "tdb", "boost"};
    for (const std::string &peer : tailed)
        tail << " " << peer;
    tail << "\n";
    for (const char *field : {"p50", "p90", "p99", "p99.9", "p99.99"}) {
        tail << field;
        for (const std::string &peer : tailed) {
            const double ns =
                beside.empty() ? 0 : time_of("reader_beside_writer", *beside.rbegin(), peer, field);
            ns > 0 ? tail << " " << ns : tail << " ?";
        }
        tail << "\n";
    }
    return 0;
}
