// The report of bench_growth: growth, transactions, reshapes.
#include <stdio.h>

#include <algorithm>

#include "run.h"

void growth_tables(std::ofstream &out)
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

void growth_columns(const std::string &path)
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
