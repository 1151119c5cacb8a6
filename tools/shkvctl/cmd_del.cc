// del: deletes keys.

#include "shkvctl/common.h"

namespace
{
struct Args {
    std::string uri;
    std::vector<std::string> keys;
    bool hex = false;
};

int del(const Args &args, const Context &ctx)
{
    std::vector<std::string> keys;
    for (const std::string &arg : args.keys) {
        keys.push_back(bytes_argument(arg, args.hex));
        if (keys.back().empty())
            throw Failure::usage("a key has at least one byte");
    }
    Store store(args.uri, Store::WRITE);
    size_t gone = 0;
    for (const std::string &key : keys) {
        bool was_there = store.remove(key);
        gone += was_there;
        if (ctx.json) {
            Json done = Json::object();
            json_put(done, "key", key);
            done["deleted"] = was_there;
            print_json(done);
        } else if (!was_there) {
            warn(fmt::format("store '{}' has no key '{}'", args.uri, escape(key)));
        }
    }
    if (gone && store.in_txn())
        warn(fmt::format("store '{0}' has an open transaction: this change waits for: shkvctl txn commit {0}",
                         args.uri));
    say(ctx, "deleted {}\n", count_of(gone, "record"));
    return gone == keys.size() ? EXIT_OK : EXIT_NOT_FOUND;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("KEY", args->keys, "Key: text as it is, or @FILE").required();
    app.add_flag("--hex", args->hex, "Keys are hex digits");
    return [args, &ctx] { return del(*args, ctx); };
}
} // namespace

const Command cmd_del = {
    "del",
    nullptr,
    "Records",
    "delete keys",
    "Deletes the records of these keys. The exit code is 1 when one of them was not there; the\n"
    "others are deleted all the same.",
    {{"shkvctl del cache greeting", "one key"},
     {"shkvctl del cache a b c", "three"},
     {"shkvctl del cache --hex 00ff", "a key of bytes"}},
    setup};
