// get: prints values; several keys go through the library's batch lookup.
#include <errno.h>
#include <string.h>

#include <algorithm>

#include "shkvctl/common.h"
#include "shkvctl/raw_records.h"

namespace
{
struct Args {
    std::string uri;
    std::vector<std::string> keys;
    bool hex = false, raw = false;
};

void print_value(const Args &args, const std::string &value)
{
    if (!args.raw)
        fmt::print(out(), "{}\n", args.hex ? to_hex(value) : escape(value, true));
    else if (fwrite(value.data(), 1, value.size(), out()) != value.size())
        throw output_failure();
}

void print_found(const Args &args, const Context &ctx, const std::string &key, const std::string *value)
{
    if (ctx.json) {
        Json found = Json::object();
        json_put(found, "key", key);
        found["found"] = value != nullptr;
        if (value)
            json_put(found, "value", *value);
        return print_json(found);
    }
    if (!value)
        return warn(fmt::format("store '{}' has no key '{}'", args.uri, escape(key)));
    if (args.keys.size() == 1 || args.raw)
        return print_value(args, *value);
    fmt::print(out(), "{}\t{}\n", args.hex ? to_hex(key) : escape(key),
               args.hex ? to_hex(*value) : escape(*value));
}

// Looks up count keys from first on, with one call. Returns how many there were.
size_t get_some(const Store &store, const Args &args, const Context &ctx, const std::string *first,
                size_t count)
{
    std::vector<std::string> room(count, std::string(UINT16_MAX, 0));
    std::vector<shkv_buf> keys, vals;
    std::vector<int> results(count, 0);
    for (size_t i = 0; i < count; i++) {
        keys.push_back(buf_of(first[i]));
        vals.push_back(buf_of(room[i]));
    }
    shkv_m_lookup(store.handle(), keys.data(), vals.data(), results.data(), (uint16_t)count); // see results
    size_t found = 0;
    for (size_t i = 0; i < count; i++) {
        if (results[i] != 0 && results[i] != ENOENT)
            throw store.lookup_failure(first[i], results[i]);
        room[i].resize(results[i] == 0 ? vals[i].len : 0);
        print_found(args, ctx, first[i], results[i] == 0 ? &room[i] : nullptr);
        found += results[i] == 0;
    }
    return found;
}

// The library notes a damaged record in the store's trace ring; get finds it first, and writes
// nothing anywhere.
void check_chains(const Args &args, const std::vector<std::string> &keys)
{
    RawStore raw(dbname_of(args.uri));
    check_readable(args.uri, raw);
    for (const std::string &key : keys)
        if (RawLookup there = raw_lookup(raw, key); there.found == Found::DAMAGED)
            throw Failure(EXIT_ERROR, EINVAL,
                          fmt::format("store '{}': cannot tell the value of '{:.40}': {}", args.uri,
                                      escape(key), there.fault),
                          fmt::format("see: shkvctl check {}", args.uri));
}

int get(const Args &args, const Context &ctx)
{
    std::vector<std::string> keys;
    for (const std::string &arg : args.keys) {
        keys.push_back(bytes_argument(arg, args.hex));
        if (keys.back().empty())
            throw Failure::usage("a key has at least one byte");
    }
    check_chains(args, keys);
    Store store(args.uri, Store::READ);
    size_t found = 0;
    constexpr size_t at_once = 32;
    for (size_t at = 0; at < keys.size(); at += at_once)
        found += get_some(store, args, ctx, &keys[at], std::min(at_once, keys.size() - at));
    return found == keys.size() ? EXIT_OK : EXIT_NOT_FOUND;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("KEY", args->keys, "Key: text as it is, or @FILE").required();
    app.add_flag("--hex", args->hex, "Keys are hex digits, and values are printed so");
    app.add_flag("--raw", args->raw, "Print the bytes of the value and nothing else, no line end either");
    return [args, &ctx] { return get(*args, ctx); };
}
} // namespace

const Command cmd_get = {
    "get",
    nullptr,
    "Records",
    "print the value of a key, or of several",
    "Prints the value, with a line end behind it; bytes that are no printable text appear as \\xNN.\n"
    "Of several keys it prints a line each: the key, a tab, the value. The exit code is 1 when a\n"
    "key is not there. Reading takes no lock and disturbs no writer.",
    {{"shkvctl get cache greeting", "one value"},
     {"shkvctl get cache a b c", "three, as lines of key, tab, value"},
     {"shkvctl get cache logo --raw > logo.png", "exact bytes"},
     {"shkvctl get cache greeting --json", "for programs; binary values come as value_hex"}},
    setup};
