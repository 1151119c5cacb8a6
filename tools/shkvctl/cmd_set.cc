// set: stores one record.

#include "shkvctl/common.h"

namespace
{
struct Args {
    std::string uri, key, value;
    bool hex = false;
};

int set(const Args &args, const Context &ctx)
{
    std::string key = bytes_argument(args.key, args.hex), value = bytes_argument(args.value, args.hex), old;
    Store store(args.uri, Store::WRITE);
    store.check_sizes(key, value);
    bool replaced = store.lookup(key, &old);
    store.add(key, value);
    if (store.in_txn())
        warn(fmt::format("store '{0}' has an open transaction: this change waits for: shkvctl txn commit {0}",
                         args.uri));
    if (ctx.json) {
        Json done = {{"store", args.uri}};
        json_put(done, "key", key);
        done["bytes"] = value.size();
        done["replaced"] = replaced;
        print_json(done);
    }
    say(ctx, "{} {}, {}\n", replaced ? "replaced" : "stored", escape(key), count_of(value.size(), "byte"));
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("KEY", args->key, "Key: text as it is, or @FILE").required();
    app.add_option("VALUE", args->value, "Value: text as it is, @FILE, or @- for standard input").required();
    app.add_flag("--hex", args->hex, "KEY and VALUE are hex digits");
    return [args, &ctx] { return set(*args, ctx); };
}
} // namespace

const Command cmd_set = {
    "set",
    nullptr,
    "Records",
    "store a value under a key",
    "Stores one record, in place of the one of the same key if there is one. KEY and VALUE are\n"
    "taken byte for byte. @FILE stands for the contents of a file, @- for standard input, and @@\n"
    "for an '@' of the text itself. Arguments that begin with '-' go behind '--'.",
    {{"shkvctl set cache greeting hello", "one record"},
     {"shkvctl set cache logo @logo.png", "a value from a file"},
     {"date | shkvctl set cache now @-", "a value from standard input"},
     {"shkvctl set cache --hex 00ff 01020304", "bytes"},
     {"shkvctl set cache -- offset -5", "a value that looks like an option"}},
    setup};
