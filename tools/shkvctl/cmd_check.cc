// check: verifies every invariant of stores from a copy of their bytes.
#include <errno.h>
#include <unistd.h>

#include <set>

#include "check/store_check.h"
#include "shkvctl/common.h"
#include "shkvctl/listing.h"
#include "shkvctl/raw_store.h"

namespace
{
struct Args {
    std::vector<std::string> uris;
    bool all = false, strict = false, verbose = false;
};

constexpr int copies = 12;        // what is a change and no damage is not in all of them
constexpr size_t most_shown = 10; // of a store's faults, without --verbose

// Text of a fault may carry names as they lie in a damaged store.
Json json_lines(const std::vector<std::string> &lines)
{
    Json list = Json::array();
    for (const std::string &line : lines)
        list.push_back(escape(line));
    return list;
}

void print_faults(const Args &args, const Context &ctx, const check_report &report)
{
    size_t shown = args.verbose ? report.faults.size() : std::min(report.faults.size(), most_shown);
    for (size_t i = 0; i < shown; i++)
        fmt::print(out(), "  {}\n", escape(report.faults[i]));
    if (shown < report.faults.size())
        fmt::print(out(), "  and {} more, which --verbose shows\n", report.faults.size() - shown);
    for (const std::string &note : report.notes)
        say(ctx, "  note: {}\n", escape(note));
}

// Whether the store is sound.
bool check_one(const Args &args, const Context &ctx, const std::string &uri)
{
    std::string name = dbname_of(uri);
    check_report report;
    if (!check_live(name, copies, args.strict, &report)) {
        if (!args.all)
            check_readable(uri, RawStore(name)); // throws: there is none, or it may not be read
        report.faults = {"the registry lists it, and it does not exist"};
    }
    bool ok = report.faults.empty();
    if (ctx.json) {
        print_json({{"store", uri},
                    {"ok", ok},
                    {"records", report.records},
                    {"staged", report.staged},
                    {"interim", report.interim},
                    {"units_used", report.units_used},
                    {"units_free", report.units_free},
                    {"units_held", report.units_held},
                    {"units_never_used", report.units_fresh},
                    {"units_lost", report.units_lost},
                    {"faults", json_lines(report.faults)},
                    {"notes", json_lines(report.notes)}});
        return ok;
    }
    if (!ok)
        fmt::print(out(), "{}: {}\n", escape(uri), count_of(report.faults.size(), "fault"));
    else
        say(ctx, "{}: ok, {}{}\n", escape(uri), count_of(report.records, "record"),
            report.staged ? fmt::format(" and {} staged", thousands(report.staged)) : "");
    print_faults(args, ctx, report);
    return ok;
}

// Stores that the registry does not list; a creator lists its store last, so they are looked at twice.
std::set<std::string> unlisted()
{
    std::set<std::string> names;
    for (const Listed &store : all_stores())
        if (!store.listed)
            names.insert(store.uri);
    return names;
}

bool check_listing(const Args &args, const Context &ctx)
{
    check_report report;
    std::set<std::string> first = unlisted(), second;
    if (!first.empty()) {
        usleep(100000);
        second = unlisted();
    }
    for (const std::string &name : second)
        if (first.contains(name))
            report.faults.push_back(fmt::format("store '{}' is not in the registry", name));
    bool ok = report.faults.empty();
    if (ctx.json)
        print_json(
            {{"registry", ok ? "agrees" : "disagrees"}, {"ok", ok}, {"faults", json_lines(report.faults)}});
    else if (ok)
        say(ctx, "the registry lists all stores\n");
    else
        fmt::print(out(), "the registry: {}\n", count_of(report.faults.size(), "fault"));
    if (!ctx.json)
        print_faults(args, ctx, report);
    return ok;
}

int check(const Args &args, const Context &ctx)
{
    if (args.all == !args.uris.empty())
        throw Failure::usage("give the names of stores, or --all");
    std::vector<std::string> uris = args.uris;
    if (args.all && RawStore(SHKV_REGISTRY_NAME).exists())
        uris.push_back(SHKV_REGISTRY_NAME);
    for (const Listed &store : args.all ? all_stores() : std::vector<Listed>{})
        uris.push_back(store.uri);
    if (uris.empty())
        say(ctx, "there are no stores\n");
    size_t bad = 0;
    for (const std::string &uri : uris)
        bad += !check_one(args, ctx, uri);
    bool listing = !args.all || uris.empty() || check_listing(args, ctx);
    if (bad)
        throw Failure(
            EXIT_ERROR, EINVAL, fmt::format("{} of {} damaged", bad, count_of(uris.size(), "store")),
            "save what can be read with: shkvctl dump STORE FILE; then remove the store with: shkvctl "
            "destroy --force STORE");
    return listing ? EXIT_OK : EXIT_ERROR;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uris, "Name of a store");
    app.add_flag("-a,--all", args->all, "All stores of this machine, and the registry against them");
    app.add_flag(
        "--strict", args->strict,
        "No writer has ever died in this store: units that are neither used nor free, which a crash may "
        "leave, are faults, too");
    app.add_flag("-v,--verbose", args->verbose, "Print all faults and not the first ten");
    return [args, &ctx] { return check(*args, ctx); };
}
} // namespace

const Command cmd_check = {
    "check",
    nullptr,
    "Diagnosis",
    "verify stores, byte for byte",
    "Reads the store's objects and verifies all that must hold: chains end and stay in bounds, each\n"
    "record is whole, in its bucket and in one chain, none is also free or held, the lists are as\n"
    "long as their counts. It opens nothing and writes nothing, so it works on stores in use and on\n"
    "any bytes at all. Beside a writer it takes several copies, and what is not wrong in each of\n"
    "them was a change and no damage. Notes are what a crash may leave and the next writer clears.\n"
    "Exits with 0 when all is well and with 3 when a store is damaged.",
    {{"shkvctl check cache", "one store"},
     {"shkvctl check --all", "all stores and the registry"},
     {"shkvctl check --all --json", "a JSON object a store"}},
    setup};
