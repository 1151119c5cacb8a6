// set-opts: whether a store grows by itself, and how long a slice of a table rebuild may take.
#include <errno.h>

#include "shkvctl/common.h"

namespace
{
struct Args {
    std::string uri, grow;
    int slice = -1;
};

int set_opts(const Args &args, const Context &ctx)
{
    if (args.grow.empty() && args.slice < 0)
        throw Failure::usage("nothing to set: --grow on|off, --slice N, or both");
    Store store(args.uri, Store::WRITE);
    if (store.sn().conf_flg & CONF_MULTIWR)
        throw Failure(EXIT_ERROR, EINVAL,
                      fmt::format("store '{}' allows several writers, and so keeps its size", args.uri));
    shkv_opts opts = {0, store.sn().auto_rz, store.sn().rz_tm_chk};
    if (!args.grow.empty())
        opts.auto_rz = args.grow == "on";
    if (args.slice >= 0)
        opts.rz_tm_chk = (uint32_t)args.slice;
    constexpr int auto_resize = 1;
    int err = shkv_db_set_opts(store.handle(), auto_resize, &opts);
    if (err != 0)
        throw store.failure("set its options", err);
    if (ctx.json)
        print_json({{"store", args.uri}, {"grow", opts.auto_rz != 0}, {"slice_us", opts.rz_tm_chk}});
    say(ctx, "store '{}' {}; a table rebuild works {}\n", args.uri,
        opts.auto_rz ? "grows when it is full" : "keeps its size and refuses records when it is full",
        opts.rz_tm_chk ? fmt::format("{} us at a time", thousands(opts.rz_tm_chk)) : "without a pause");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("--grow", args->grow, "on: the store grows when it is full; off: it keeps its size")
        .type_name("on|off")
        .one_of({"on", "off"});
    app.add_option("--slice", args->slice,
                   "Microseconds that one add may spend on a table rebuild, 0 for no limit")
        .type_name("N")
        .range(0, 65535);
    return [args, &ctx] { return set_opts(*args, ctx); };
}
} // namespace

const Command cmd_set_opts = {
    "set-opts",
    "resize",
    "Upkeep",
    "let a store grow by itself, or keep its size",
    "Changes the two settings that can change after creation. They are kept in the store and take\n"
    "effect at its writer's next add. It opens the store for writing, and so waits for no other\n"
    "writer: while one is at work it is refused.",
    {{"shkvctl set-opts cache --grow off", "keep the size; a full store refuses new records"},
     {"shkvctl set-opts cache --grow on --slice 300", "grow, and rebuild tables 300 us at a time"}},
    setup};
