// stat: all that a store's bytes say about it, read from outside and without a lock.
#include <errno.h>
#include <string.h>

#include "shkvctl/common.h"
#include "shkvctl/listing.h"
#include "shkvctl/names.h"
#include "shkvctl/output_file.h"
#include "shkvctl/procs.h"
#include "shkvctl/report.h"
#include "shkvctl/sample.h"
#include "shkvctl/store_map.h"

namespace
{
struct Args {
    std::string uri, map;
};

using Rows = std::vector<std::vector<std::string>>;

std::string kind_of(const supernode &sn)
{
    bool fixed = (sn.conf_flg & CONF_MM_MASK) == CONF_FIXEDMM;
    std::string text = fixed ? "fixed size" : "variable size";
    text += fixed ? fmt::format(", keys to {} bytes, values to {}", sn.maxksz, sn.maxvsz) : "";
    return text + fmt::format(", planned for {}", thousands(sn.maxents));
}

std::string growth_of(const supernode &sn)
{
    if (sn.conf_flg & CONF_MULTIWR)
        return "none: a store with several writers keeps its size";
    std::string how =
        sn.conf_flg & CONF_SHMAP ? "by chunks that never move" : "by making the record space longer";
    return sn.auto_rz ? fmt::format("{}, {} us for a slice of a rebuild", how, sn.rz_tm_chk) : "off";
}

// A word's bits, one row each; the first row carries the word's name and value.
void add_bits(Rows &rows, const char *name, uint32_t word, const std::vector<BitName> &names)
{
    std::string left = fmt::format("  {}", name), value = fmt::format("{:#x}", word);
    for (const BitName &bit : bits_set(word, names)) {
        rows.push_back({left, fmt::format("{:<8} {} ({})", value, bit.words, bit.name)});
        left = value = "";
    }
    if (!left.empty())
        rows.push_back({left, value});
}

void add_writers(Rows &rows, const supernode &sn)
{
    std::string left = "  writer";
    for (uint32_t tid : sn.wr_tid) {
        if (tid != 0)
            rows.push_back({left, thread_words(tid)});
        left = tid != 0 ? "" : left;
    }
    if (!left.empty())
        rows.push_back({left, "none"});
}

void print_head(const RawStore &raw, const Report &report)
{
    const supernode &sn = raw.sn();
    Rows rows = {{"  state", state_words(raw)}, {"  owner", "uuid " + uuid_words(sn.uuid)}};
    std::string uri(sn.uri, strnlen(sn.uri, sizeof sn.uri));
    if (uri != raw.dbname())
        rows.push_back({"  uri", escape(uri)});
    add_writers(rows, sn);
    rows.push_back({"  records", kind_of(sn)});
    rows.push_back({"  growth", growth_of(sn)});
    if (sn.conf_arg)
        rows.push_back({"  conf_arg", std::to_string(sn.conf_arg)});
    add_bits(rows, "conf_flg", sn.conf_flg, conf_bits);
    add_bits(rows, "comm_flg", sn.comm_flg, comm_bits);
    if (sn.sn_flg)
        add_bits(rows, "sn_flg", sn.sn_flg, sn_bits);
    std::string events = report.trace.valid ? thousands(report.trace.events) : "the ring is not valid";
    if (report.trace.events)
        events +=
            fmt::format("{}, last event {:#x} with {:#x}", report.trace.wrapped ? " (older ones are gone)" : "",
                        report.trace.last_event, report.trace.last_arg);
    rows.push_back({"  trace events", events});
    fmt::print(out(), "store {}\n{}", escape(raw.dbname()), table(rows));
}

void print_tables(const RawStore &raw, const Report &report)
{
    Rows rows = {{"tables", "", ">BUCKETS", ">SIZE", ">RECORDS", ">LOAD", ">LONGEST", "HASH"}};
    for (const TableReport &t : report.tables) {
        const md_desc &desc = raw.md(t.kind);
        double load = desc.hashsz ? (double)t.chains.records / desc.hashsz : 0;
        rows.push_back({fmt::format("  {}", object_name(t.kind)), t.role, thousands(desc.hashsz),
                        human_size(desc.obj_sz), thousands(t.chains.records), fmt::format("{:.2f}", load),
                        thousands(t.chains.longest), hash_name(desc.hashfn)});
    }
    fmt::print(out(), "\n{}", table(rows));
    for (const TableReport &t : report.tables) {
        uint64_t buckets = raw.md(t.kind).hashsz;
        Rows chains = {{fmt::format("chains of {}", object_name(t.kind)), ">BUCKETS", ">SHARE"}};
        for (size_t i = 0; i < ChainStats::names.size(); i++)
            if (t.chains.buckets[i])
                chains.push_back({fmt::format("  {}", ChainStats::names[i]), thousands(t.chains.buckets[i]),
                                  percent(t.chains.buckets[i], buckets)});
        fmt::print(out(), "\n{}", table(chains));
        if (t.chains.broken)
            fmt::print(out(), "  {} led nowhere; in a store at rest that is damage; see: shkvctl check {}\n",
                       count_of(t.chains.broken, "link"), escape(raw.dbname()));
    }
}

void print_spaces(const RawStore &raw, const Report &report)
{
    Rows rows = {
        {"record space", "", ">SIZE", ">UNIT", ">UNITS", ">USED", ">FREE", ">HELD", ">NEVER USED", ">RESERVE"}};
    for (const SpaceReport &s : report.spaces) {
        rows.push_back({fmt::format("  {}", object_name(s.kind)), s.role, human_size(raw.ud(s.kind).obj_sz),
                        std::to_string(s.units.unit_sz), thousands(s.units.units), thousands(s.units.used),
                        thousands(s.units.free), thousands(s.units.held), thousands(s.units.fresh),
                        thousands(s.units.reserve)});
        if (!s.units.sane)
            rows.back().push_back("(counts disagree: damaged, or read in the middle of a change)");
    }
    for (const auto &row : rows)
        rows[0].resize(std::max(rows[0].size(), row.size()));
    fmt::print(out(), "\n{}", table(rows));
}

void print_under_way(const RawStore &raw, const Report &report)
{
    Rows rows;
    if (report.txn)
        rows.push_back({"  transaction", fmt::format("{} and {} staged{}", count_of(report.txn->adds, "set"),
                                                     count_of(report.txn->deletes, "delete"),
                                                     report.txn->committing ? "; its commit was begun" : "")});
    if (raw.sn().iodb_mark >> 8 == IODB_LIVE)
        rows.push_back(
            {"  batch", "an undo log is live; the next writer to open the store takes the batch back"});
    if (const auto &rebuild = report.rebuild) {
        std::string text = rebuild->waits_for_txn ? "waits for the end of the transaction"
                           : rebuild->moved       ? fmt::format("{} of the records are in {}",
                                                                percent(*rebuild->moved, rebuild->records),
                                                                object_name(rebuild->target))
                                                  : "pending; the next writer to open the store does it";
        rows.push_back({"  table rebuild", text});
    }
    if (const auto &reshape = report.reshape) {
        if (reshape->token)
            rows.push_back(
                {"  reshape token",
                 fmt::format("held by service {:#x}{}", reshape->token,
                             reshape->published ? ""
                                                : "; no new objects yet: it has just begun, or it failed")});
        if (reshape->published)
            rows.push_back(
                {"  reshape", fmt::format("began {:.0f} s ago: {} left to move, {} in the new table, {} on the "
                                          "interim list{}",
                                          reshape->age, count_of(reshape->left, "record"),
                                          thousands(reshape->moved), count_of(reshape->interim, "change"),
                                          reshape->draining ? "; in its final check" : "")});
        rows.push_back(
            {"", "if its reshaper has died it stays so for good; this makes the store anew: shkvctl dump,"});
        rows.push_back({"", "destroy --force, load --create"});
    }
    if (!rows.empty())
        fmt::print(out(), "\nunder way\n{}", table(rows));
}

int stat(const Args &args, const Context &ctx)
{
    RawStore raw(dbname_of(args.uri));
    if (!raw.exists() || !raw.complete())
        check_readable(args.uri, raw); // throws
    if (!args.map.empty()) {
        write_whole(args.map, store_map_svg(raw));
        say(ctx, "drew store '{}' into {}\n", args.uri, args.map);
        return EXIT_OK;
    }
    Report report = look_at(raw);
    if (ctx.json) {
        print_json(json_report(raw, report));
        return EXIT_OK;
    }
    print_head(raw, report);
    print_tables(raw, report);
    print_spaces(raw, report);
    print_under_way(raw, report);
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("--map", args->map, "Draw the store into this file instead (SVG)").type_name("FILE");
    return [args, &ctx] { return stat(*args, ctx); };
}
} // namespace

const Command cmd_stat = {
    "stat",
    nullptr,
    "Stores",
    "show a store's configuration, tables, space and state",
    "Reads the store's objects from outside, without opening it and without a lock, so it works\n"
    "beside a writer, in a reshape, and on a store that does not open. In the record space, used\n"
    "units are records; free ones are handed out next; held ones wait until no reader can stand on\n"
    "them; the reserve makes up for held ones.",
    {{"shkvctl stat cache", "all of it"},
     {"shkvctl stat cache --json", "for programs"},
     {"shkvctl stat cache --map cache.svg", "a picture: chains, and what the record space is used for"},
     {"watch -n1 shkvctl stat cache", "see a store fill"}},
    setup};
