// cleanup: destroys all stores of a VDC.
#include <errno.h>

#include <set>

#include "shkvctl/common.h"
#include "shkvctl/listing.h"
#include "shkvctl/procs.h"
#include "shkvctl/raw_store.h"

namespace
{
struct Args {
    uint32_t vdc = 0;
    bool dry_run = false, yes = false;
};

std::set<std::string> stores_of(uint32_t vdc)
{
    std::set<std::string> uris;
    for (const Listed &store : registry_records())
        if (store.rec.vdc_id == vdc && store.uri != SHKV_REGISTRY_NAME)
            uris.insert(store.uri);
    return uris;
}

void print_store(const Context &ctx, const std::string &uri, const char *done)
{
    if (ctx.json)
        print_json({{"store", uri}, {"done", done}});
    say(ctx, "{} {}\n", done, escape(uri));
}

// What kept the library from going on: the first store that a living writer holds.
std::string culprit(const std::set<std::string> &left)
{
    for (const std::string &uri : left) {
        RawStore raw(dbname_of(uri));
        uint32_t tid = raw.sn().wr_tid[0];
        if (!(raw.sn().conf_flg & CONF_MULTIWR) && tid != 0 && thread_lives(tid))
            return fmt::format("store '{}' has a writer: {}", uri, thread_words(tid));
        if (raw.exists() && state_words(raw) != "ok")
            return fmt::format("store '{}' is in the state \"{}\"", uri, state_words(raw));
        if (!raw.exists())
            return fmt::format("store '{}' is listed and not there", uri);
    }
    return "";
}

int cleanup(const Args &args, const Context &ctx)
{
    if (args.vdc == 0 && !args.dry_run && !args.yes)
        throw Failure::usage(
            "VDC 0 is every store that was made without SYSMGR_VDC_ID; see them with --dry-run, "
            "and say --yes if you mean it");
    std::set<std::string> before = stores_of(args.vdc);
    if (before.empty()) {
        say(ctx, "no store has VDC {}\n", args.vdc);
        return EXIT_NOT_FOUND;
    }
    if (args.dry_run) {
        for (const std::string &uri : before)
            print_store(ctx, uri, "would destroy");
        return EXIT_OK;
    }
    int err = shkv_vdc_cleanup(args.vdc);
    std::set<std::string> left = stores_of(args.vdc);
    for (const std::string &uri : before)
        if (!left.contains(uri))
            print_store(ctx, uri, "destroyed");
    if (err != ENOENT || !left.empty()) // ENOENT is the end of the list
        throw Failure(EXIT_ERROR, err,
                      fmt::format("{} of VDC {} left: {}", count_of(left.size(), "store"), args.vdc,
                                  culprit(left).empty() ? errno_words(err) : culprit(left)),
                      "end the VDC's services first; shkvctl destroy --force removes single stores");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("VDC", args->vdc, "The number that SYSMGR_VDC_ID had in the processes that made the stores")
        .required();
    app.add_flag("--dry-run", args->dry_run, "Only say which stores these are");
    app.add_flag("--yes", args->yes, "Needed for VDC 0, which is every store made without a VDC");
    return [args, &ctx] { return cleanup(*args, ctx); };
}
} // namespace

const Command cmd_cleanup = {
    "cleanup",
    nullptr,
    "Upkeep",
    "destroy all stores of a VDC",
    "Destroys every store whose registry record has this VDC, and stops at the first that a living\n"
    "process still writes to. Exits with 1 when there is none.",
    {{"shkvctl cleanup 7 --dry-run", "which stores these are"}, {"shkvctl cleanup 7", "destroy them"}},
    setup};
