// Turns a run's JSON into Markdown tables and into the columns that the plots are drawn from.
//
//   bench_report RUN.json GROWTH.json TABLE.md DATA_DIR
//
// GROWTH.json may be missing; so may any case of the run.
#include "run.h"

#include <stdio.h>

#include <algorithm>

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
