// All that stat finds out about a store, and the same for programs.
#pragma once

#include <optional>
#include <vector>

#include "shkvctl/raw_stats.h"
#include "shkvctl/json.h"

struct TableReport {
    int kind;
    const char *role;
    ChainStats chains;
};

struct SpaceReport {
    int kind;
    const char *role;
    SpaceStats units;
};

struct Report {
    std::vector<TableReport> tables;
    std::vector<SpaceReport> spaces;
    std::optional<TxnStats> txn;
    std::optional<RebuildStats> rebuild;
    std::optional<ReshapeStats> reshape;
    TraceStats trace;
};

Report look_at(RawStore &raw);
Json json_report(const RawStore &raw, const Report &report);
