// All that stat finds out about a store, and the same for programs.
#include "shkvctl/report.h"

#include <string.h>

#include "shkvctl/listing.h"
#include "shkvctl/names.h"
#include "shkvctl/procs.h"

Report look_at(RawStore &raw)
{
    Report report;
    bool reshape = raw.is(MDO1N2 | MDN1O2), two_spaces = raw.is(UDO1N2 | UDN1O2);
    int md = raw.active_md(), ud = raw.active_ud();
    if (md && ud) {
        report.tables.push_back({md, reshape ? "old" : "in force", chain_stats(raw, md, link_of(md), ud)});
        report.spaces.push_back({ud, two_spaces ? "old" : "in force", space_stats(raw, ud)});
        report.rebuild = rebuild_stats(raw, report.tables[0].chains);
    }
    if (reshape) {
        int new_md = raw.other_md(), new_ud = two_spaces ? raw.other_ud() : ud;
        report.tables.push_back({new_md, "new", chain_stats(raw, new_md, link_of(new_md), new_ud)});
    }
    if (two_spaces)
        report.spaces.push_back({raw.other_ud(), "new", space_stats(raw, raw.other_ud())});
    report.txn = txn_stats(raw);
    report.reshape = reshape_stats(raw);
    report.trace = trace_stats(raw);
    return report;
}

static Json json_bits(uint32_t word, const std::vector<BitName> &names)
{
    Json list = Json::array();
    for (const BitName &bit : bits_set(word, names))
        list.push_back(bit.name);
    return list;
}

static Json json_tables(const RawStore &raw, const Report &report)
{
    Json list = Json::array();
    for (const TableReport &table : report.tables) {
        const md_desc &desc = raw.md(table.kind);
        Json chains = Json::object();
        for (size_t i = 0; i < ChainStats::names.size(); i++)
            chains[ChainStats::names[i]] = table.chains.buckets[i];
        list.push_back({{"object", object_name(table.kind)},
                        {"role", table.role},
                        {"buckets", desc.hashsz},
                        {"size", desc.obj_sz},
                        {"hash", hash_name(desc.hashfn)},
                        {"version", desc.obj_ver},
                        {"records", table.chains.records},
                        {"longest_chain", table.chains.longest},
                        {"broken_links", table.chains.broken},
                        {"chains", chains}});
    }
    return list;
}

static Json json_spaces(const RawStore &raw, const Report &report)
{
    Json list = Json::array();
    for (const SpaceReport &space : report.spaces)
        list.push_back({{"object", object_name(space.kind)},
                        {"role", space.role},
                        {"size", raw.ud(space.kind).obj_sz},
                        {"version", raw.ud(space.kind).obj_ver},
                        {"unit", space.units.unit_sz},
                        {"units", space.units.units},
                        {"used", space.units.used},
                        {"free", space.units.free},
                        {"held", space.units.held},
                        {"never_used", space.units.fresh},
                        {"reserve", space.units.reserve},
                        {"sane", space.units.sane}});
    return list;
}

static void json_under_way(Json &all, const Report &report)
{
    if (report.txn)
        all["transaction"] = {{"sets", report.txn->adds},
                              {"deletes", report.txn->deletes},
                              {"committing", report.txn->committing}};
    if (report.rebuild) {
        all["rebuild"] = {{"target", object_name(report.rebuild->target)},
                          {"waits", report.rebuild->waits_for_txn}};
        if (report.rebuild->moved)
            all["rebuild"]["moved"] = *report.rebuild->moved;
    }
    if (const auto &reshape = report.reshape)
        all["reshape"] = {{"token_uuid", reshape->token},  {"published", reshape->published},
                          {"draining", reshape->draining}, {"age", reshape->age},
                          {"left", reshape->left},         {"moved", reshape->moved},
                          {"interim", reshape->interim}};
}

Json json_report(const RawStore &raw, const Report &report)
{
    const supernode &sn = raw.sn();
    Json writers = Json::array();
    for (uint32_t tid : sn.wr_tid)
        if (tid != 0)
            writers.push_back({{"tid", tid}, {"lives", thread_lives(tid)}});
    Json all = {{"store", raw.dbname()},
                {"uri", std::string(sn.uri, strnlen(sn.uri, sizeof sn.uri))},
                {"uuid", sn.uuid},
                {"state", state_words(raw)},
                {"key_max", sn.maxksz},
                {"value_max", sn.maxvsz},
                {"entries", sn.maxents},
                {"arg", sn.conf_arg},
                {"grow", sn.auto_rz != 0},
                {"slice_us", sn.rz_tm_chk},
                {"conf_flg", json_bits(sn.conf_flg, conf_bits)},
                {"comm_flg", json_bits(sn.comm_flg, comm_bits)},
                {"sn_flg", json_bits(sn.sn_flg, sn_bits)},
                {"batch_log", sn.iodb_mark >> 8 == IODB_LIVE},
                {"writers", writers},
                {"tables", json_tables(raw, report)},
                {"spaces", json_spaces(raw, report)},
                {"trace_events", report.trace.events}};
    json_under_way(all, report);
    return all;
}
