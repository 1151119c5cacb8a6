// doctor: what is wrong with this machine and its stores, and what to do about it.
#include <errno.h>

#include <algorithm>

#include "shkvctl/common.h"
#include "shkvctl/doctor.h"
#include "shkvctl/listing.h"

const char *level_name(Finding::Level level)
{
    constexpr const char *names[] = {"fine", "note", "warning", "PROBLEM"};
    return names[level];
}

namespace
{
struct Args {
    std::vector<std::string> uris;
};

void print_finding(const Context &ctx, const Finding &finding)
{
    if (ctx.json) {
        Json line = {{"subject", finding.subject},
                     {"level", finding.level == Finding::PROBLEM ? "problem" : level_name(finding.level)},
                     {"finding", finding.what}};
        if (!finding.todo.empty())
            line["todo"] = finding.todo;
        return print_json(line);
    }
    fmt::print(out(), "{:<8} {}: {}\n", level_name(finding.level), escape(finding.subject), finding.what);
    if (!finding.todo.empty() && finding.level != Finding::FINE)
        fmt::print(out(), "         -> {}\n", finding.todo);
}

int doctor(const Args &args, const Context &ctx)
{
    Users users;
    Findings findings;
    std::vector<std::string> names;
    for (const std::string &uri : args.uris) {
        names.push_back(dbname_of(uri));
        if (!RawStore(names.back()).complete())
            throw open_failure(uri, false, EINVAL, "");
    }
    if (args.uris.empty()) {
        examine_machine(findings, users);
        for (const Listed &store : all_stores())
            names.push_back(dbname_of(store.uri));
    }
    for (const std::string &name : names)
        examine_store(findings, name, users);
    size_t count[4] = {};
    for (const Finding &finding : findings) {
        count[finding.level]++;
        if (!ctx.quiet || finding.level >= Finding::WARNING)
            print_finding(ctx, finding);
    }
    say(ctx, "{}, {}, {}\n", count_of(count[Finding::PROBLEM], "problem"),
        count_of(count[Finding::WARNING], "warning"), count_of(count[Finding::NOTE], "note"));
    if (users.hidden() && geteuid() != 0)
        say(ctx, "(processes that could not be looked into: {}; root sees all)\n", users.hidden());
    return count[Finding::PROBLEM] ? EXIT_ERROR : EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uris, "Only these stores, and not the machine");
    return [args, &ctx] { return doctor(*args, ctx); };
}
} // namespace

const Command cmd_doctor = {
    "doctor",
    nullptr,
    "Diagnosis",
    "what is wrong with this machine and its stores, and what to do",
    "Looks at the room in /dev/shm against what the stores may grow to, at what may take stores away,\n"
    "at limits, the registry, the clock, and at every store: its writer, its state, its tables and its\n"
    "events. Every finding says what to do. It reads and opens nothing, so it works on stores in use\n"
    "and on damaged ones. Exits with 3 when there is a problem, with 0 on warnings and notes. With\n"
    "--quiet it prints warnings and problems only.",
    {{"sudo shkvctl doctor", "all, seeing the processes of all users"},
     {"shkvctl doctor cache", "one store"},
     {"shkvctl doctor -q", "only what deserves a look"}},
    setup};
