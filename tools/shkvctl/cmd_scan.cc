// scan: prints all records of a store.

#include "shkvctl/common.h"
#include "shkvctl/lines.h"
#include "shkvctl/raw_records.h"

namespace
{
struct Args {
    std::string uri, prefix;
    uint64_t limit = UINT64_MAX;
    bool hex = false, keys = false, count = false;
};

void print_record(const Args &args, const Context &ctx, const std::string &key, const std::string &value)
{
    if (ctx.json) {
        Json rec = Json::object();
        json_put(rec, "key", key);
        if (!args.keys)
            json_put(rec, "value", value);
        return print_json(rec);
    }
    if (args.keys)
        fmt::print(out(), "{}\n", args.hex ? to_hex(key) : escape(key));
    else if (args.hex)
        fmt::print(out(), "{}\t{}\n", to_hex(key), to_hex(value));
    else
        fmt::print(out(), "{}", tsv_line(key, value));
}

int scan(const Args &args, const Context &ctx)
{
    std::string prefix = bytes_argument(args.prefix, args.hex);
    RawStore raw(dbname_of(args.uri));
    check_readable(args.uri, raw);
    uint64_t found = 0;
    WalkAll walk;
    walk.visit = [&](const std::string &key, const std::string &value) {
        if (found < args.limit && key.starts_with(prefix)) {
            found++;
            if (!args.count)
                print_record(args, ctx, key, value);
        }
        return found < args.limit;
    };
    WalkSum sum = args.limit ? walk_records(raw, walk) : WalkSum{};
    if (args.count && ctx.json)
        print_json({{"store", args.uri}, {"records", found}});
    else if (args.count)
        fmt::print(out(), "{}\n", found);
    if (sum.damaged || sum.cut_chains)
        throw damage(args.uri, sum);
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("--prefix", args->prefix, "Only keys that begin so").type_name("TEXT");
    app.add_option("--limit", args->limit, "Stop after so many records").type_name("N");
    app.add_flag("--keys", args->keys, "Print keys alone");
    app.add_flag("--count", args->count, "Print only how many there are");
    app.add_flag("--hex", args->hex, "Print hex digits; the prefix is hex, too");
    return [args, &ctx] { return scan(*args, ctx); };
}
} // namespace

const Command cmd_scan = {
    "scan",
    nullptr,
    "Records",
    "print all records, or those with a prefix",
    "Prints a line for each record: key, tab, value, with \\t, \\n, \\\\ and \\xNN for what would break\n"
    "the line (shkvctl load reads it back). The order is that of the table. A scan opens nothing and\n"
    "takes no lock: while a writer is at work it sees each record whole, but not all of one moment.\n"
    "Damaged records are left out, and the exit code is then 3.",
    {{"shkvctl scan cache", "all records"},
     {"shkvctl scan cache --prefix user: --keys", "the keys that begin with user:"},
     {"shkvctl scan cache --count", "how many"},
     {"shkvctl scan cache --json", "JSON Lines: {\"key\":..,\"value\":..}"}},
    setup};
