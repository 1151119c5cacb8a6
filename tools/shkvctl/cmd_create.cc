// create: makes a store.
#include <errno.h>
#include <string.h>

#include "shkvctl/common.h"
#include "shkvctl/names.h"
#include "shkvctl/raw_store.h"

namespace
{
struct Args {
    std::string uri, hash = "dekhash";
    uint32_t uuid = 0, entries = 2000, arg = 0;
    uint32_t key_max = 16, value_max = 32;
    bool vector = false, shared_map = false, multi_writer = false, l3 = false, reg1 = false, reg2 = false;
};

// Only names that create and open understand alike, and that a file can have.
void check_name(const std::string &uri)
{
    dbname_of(uri);
    std::string name = uri.substr(uri.find(':') + 1);
    if (name.find(':') != std::string::npos)
        throw Failure::usage("'{}' has two ':'; a store made under it could not be opened by the same uri",
                             uri);
    if (name.size() >= SHKV_NAME_MAX)
        throw Failure::usage("the name has {} bytes, and {} are the most", name.size(), SHKV_NAME_MAX - 1);
    if (name == SHKV_REGISTRY_NAME)
        throw Failure::usage("'{}' is the registry, which comes with the first store", name);
}

uint32_t flags_of(const Args &args)
{
    uint32_t flags = args.vector || args.shared_map ? CONF_VECTORMM : CONF_FIXEDMM;
    const struct {
        bool on;
        uint32_t bit;
    } bits[] = {{args.shared_map, CONF_SHMAP},
                {args.multi_writer, CONF_MULTIWR},
                {args.l3, CONF_L3},
                {args.reg1, CONF_REG_1},
                {args.reg2, CONF_REG_2}};
    for (const auto &bit : bits)
        flags |= bit.on ? bit.bit : 0;
    return flags;
}

Failure create_failure(const Args &args, const shkv_params &params, uint32_t err)
{
    RawStore raw(dbname_of(args.uri));
    if (err == EEXIST && raw.exists() && !raw.complete())
        return {EXIT_ERROR, EEXIST,
                fmt::format("store '{}' is there, half made: its creator is at work, or died in the middle",
                            args.uri),
                fmt::format("remove it with: shkvctl destroy --force {}", args.uri)};
    if (err == EEXIST && raw.exists())
        return {EXIT_ERROR, EEXIST, fmt::format("store '{}' exists already", args.uri),
                fmt::format("look at it with: shkvctl stat {}", args.uri)};
    uint64_t size = GET_USER_SIZE(params.maxents, params.maxksz, params.maxvsz);
    if (size > shkv_get_process_max_db_sz())
        return {EXIT_ERROR, (int)err,
                fmt::format("store '{}' would take {}, and this process may make stores of {}", args.uri,
                            human_size(size), human_size(shkv_get_process_max_db_sz())),
                "plan fewer --entries (a store grows by itself), or set SYSMGR_MMAP_LIMIT to more bytes"};
    if (err == EINVAL && args.l3 && (params.maxksz + params.maxvsz) * params.maxents > 0x20000)
        return {EXIT_ERROR, (int)err, fmt::format("store '{}' is too large for --write-protected", args.uri),
                "(--key-max + --value-max) * --entries may be 131072 at most"};
    if (err == ENOMEM && !has_budget(args.uuid))
        return {EXIT_ERROR, (int)err,
                fmt::format("store '{}' takes {}, and /dev/shm has no room for it", args.uri, human_size(size)),
                "see what fills it with: shkvctl doctor"};
    if (err == ENOMEM)
        return {EXIT_ERROR, (int)err,
                fmt::format("store '{}' takes {}, more than is left of the budget of service {}", args.uri,
                            human_size(size), args.uuid),
                fmt::format("see what it uses with: shkvctl limits --uuid {}", args.uuid)};
    return {EXIT_ERROR, (int)err, fmt::format("cannot make store '{}': {}", args.uri, errno_words((int)err)),
            "is /dev/shm writable, and has it room? --log FILE keeps the library's own words"};
}

int create(const Args &args, const Context &ctx)
{
    check_name(args.uri);
    shkv_params params = {(uint16_t)args.key_max, (uint16_t)args.value_max, args.entries, flags_of(args),
                          args.arg};
    uint32_t err = 0;
    int handle = shkv_create(args.uri.c_str(), args.uuid, &params, hash_selector(args.hash), &err);
    if (handle <= 0 || !check_shkv_hdl(handle))
        throw create_failure(args, params, handle > 0 ? EBADF : err);
    shkv_close(handle);

    uint64_t size = GET_USER_SIZE(params.maxents, params.maxksz, params.maxvsz);
    bool fixed = params.conf_flg & CONF_FIXEDMM;
    uint32_t room = fixed ? shkv_get_exact_max_entries(params.maxksz, params.maxvsz, params.maxents) : 0;
    if (ctx.json) {
        Json made = {{"store", args.uri}, {"uuid", args.uuid}, {"size", size}, {"hash", args.hash}};
        if (fixed)
            made["room"] = room;
        print_json(made);
    }
    say(ctx, "made store '{}': {}, {}\n", args.uri,
        fixed ? fmt::format("keys to {} bytes, values to {}, room for {}", args.key_max, args.value_max,
                            count_of(room, "record"))
              : fmt::format("keys to {} bytes, values to {}", thousands(MAX_KEY), thousands(MAX_VALUE)),
        human_size(size) + (args.multi_writer ? ", keeps its size" : ", grows when it is full"));
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the new store").required();
    app.add_option("--key-max", args->key_max, "Largest key in bytes, 1 to 256 (16)")
        .type_name("N")
        .range(1, 256);
    app.add_option("--value-max", args->value_max, "Largest value in bytes, 0 to 2048 (32)")
        .type_name("N")
        .range(0, 2048);
    app.add_option("--entries", args->entries, "Planned number of records (2000)").type_name("N");
    app.add_flag("--vector", args->vector,
                 "Records of variable size, in units of 128 bytes: keys to 2048 bytes and "
                 "values to 65000; the planned sizes then only say how much room to begin with");
    app.add_flag("--shared-map", args->shared_map, "Grow by chunks of 32 MiB that never move, with --vector");
    app.add_flag("--multi-writer", args->multi_writer,
                 "Allow several writers at once; no growth, transactions or batches");
    app.add_flag("--write-protected", args->l3,
                 "Keep the records write-protected between writes; small stores only");
    app.add_option("--hash", args->hash, "Hash function (dekhash): " + hash_list())
        .type_name("NAME")
        .one_of(hash_names());
    app.add_option("--uuid", args->uuid,
                   "Service that owns the store; its stores share a budget (0, which has none)")
        .type_name("N");
    app.add_option("--arg", args->arg, "A number of yours, kept with the configuration").type_name("N");
    app.add_flag("--reg-1", args->reg1, "Set 0x10000 in the store's registry record");
    app.add_flag("--reg-2", args->reg2, "Set 0x20000 in the store's registry record");
    return [args, &ctx] { return create(*args, ctx); };
}
} // namespace

const Command cmd_create = {
    "create",
    nullptr,
    "Stores",
    "make a store",
    "Makes an empty store and lists it in the registry. Without options its records have room for\n"
    "keys to 16 bytes and values to 32. A store grows by itself when it is full, up to the limit of\n"
    "the process that fills it (see shkvctl limits).",
    {{"shkvctl create cache", "a store of small records"},
     {"shkvctl create sessions --key-max 64 --value-max 512 --entries 10000",
      "room for 10,000 records of fixed size"},
     {"shkvctl create blobs --vector", "keys to 2,048 bytes, values to 65,000"}},
    setup};
