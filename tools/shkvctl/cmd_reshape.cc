// reshape: moves a store in use to a new table, record space and hash function.
#include <errno.h>

#include <optional>
#include <thread>

#include "shkvctl/common.h"
#include "shkvctl/names.h"
#include "shkvctl/progress.h"
#include "shkvctl/raw_stats.h"

namespace
{
struct Args {
    std::string uri, hash, space;
    uint64_t buckets = 0;
};

// What the store is and what it shall be. Sizes as the library takes them.
struct Plan {
    uint32_t md_sz = 0; // 0: as before
    uint32_t ud_sz = 1; // 1: as before
    uint64_t hash = 0;
    uint64_t records = 0;
};

Failure refused(const Args &args, const std::string &why, const std::string &hint = "")
{
    return {EXIT_ERROR, EINVAL, fmt::format("store '{}' cannot be reshaped: {}", args.uri, why), hint};
}

void check_state(const Args &args, const RawStore &raw)
{
    if (raw.mm_mode() != CONF_FIXEDMM)
        throw refused(args, "only stores with records of fixed size can");
    if (raw.is(CF_TXN | CF_TXN_COMMIT))
        throw refused(args, "it has an open transaction",
                      fmt::format("end it first, see: shkvctl txn status {}", args.uri));
    if (raw.is(MDO1N2 | MDN1O2 | CF_RESHAPE))
        throw refused(args, "a reshape is under way", fmt::format("see: shkvctl stat {}", args.uri));
    if (raw.is(CF_RESH_TOKEN1 | CF_RESH_TOKEN2))
        throw refused(
            args, "its reshape token is held, by a reshaper that begins or by one that failed",
            fmt::format("the token of a reshaper that died stays for the store's life; to make the store "
                        "anew: shkvctl dump {0} FILE, destroy --force {0}, load {0} FILE --create",
                        args.uri));
    if (raw.is(CF_REFILL1 | CF_REFILL2))
        throw refused(args, "its table is being rebuilt", "the next open for writing finishes that");
}

// Keys spread best over a prime number of buckets.
uint64_t next_prime(uint64_t n)
{
    auto is_prime = [](uint64_t p) {
        for (uint64_t d = 2; d * d <= p; d++)
            if (p % d == 0)
                return false;
        return true;
    };
    while (!is_prime(n))
        n++;
    return n;
}

// Records that a space of this size can hold, the same arithmetic as the allocator's.
uint64_t room_of(uint64_t size, const supernode &sn)
{
    uint64_t unit = (sn.maxksz + sn.maxvsz + 23u) & ~3u;
    uint64_t units = size > sizeof(sbm) ? (size - sizeof(sbm)) / unit : 0;
    uint64_t spare = shkv_defbuf_sz(sn.maxents);
    return units > spare ? units - spare + 6 : 0;
}

Plan make_plan(const Args &args, RawStore &raw)
{
    Plan plan;
    const md_desc &table = raw.md(raw.active_md());
    if (table.hashfn == SHKV_USER_HASHFN)
        throw refused(args, "its hash function is the program's own", "that program can, through the library");
    plan.hash = args.hash.empty() ? table.hashfn + 1u : hash_selector(args.hash);
    plan.records = chain_stats(raw, raw.active_md(), link_of(raw.active_md()), raw.active_ud()).records;
    if (args.buckets) // a table of so many bytes has one bucket less than fits
        plan.md_sz = (uint32_t)((next_prime(args.buckets) + 1) * sizeof(mdn));
    if (args.space.empty())
        return plan;
    uint64_t page = shkv_get_page_sz(), size = (parse_size(args.space) + page - 1) / page * page;
    if (size > 0x80000000u)
        throw Failure::usage("a record space has 2 GiB at most");
    if (room_of(size, raw.sn()) < plan.records)
        throw refused(args, fmt::format("a space of {} holds {}, and it has {}", human_size(size),
                                        count_of(room_of(size, raw.sn()), "record"), thousands(plan.records)));
    plan.ud_sz = (uint32_t)size;
    return plan;
}

// Watches the store from a thread of its own while the reshape runs in this one.
void watch(const Args &args, const Context &ctx, uint64_t total, const std::atomic<bool> &done)
{
    RawStore raw(dbname_of(args.uri));
    Progress progress(ctx, "reshaping " + args.uri, total);
    bool told = false;
    while (!done) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        raw.refresh();
        std::optional<ReshapeStats> stats = reshape_stats(raw);
        if (stats && stats->published)
            progress.update(total - std::min(total, stats->left), thousands(stats->left) + " left");
        if (interrupted && !told)
            warn("a reshape cannot be stopped in the middle; it goes on");
        told |= interrupted;
    }
}

int run_reshape(const Args &args, const Context &ctx, const Plan &plan)
{
    catch_interrupts();
    std::atomic<bool> done = false;
    std::thread watcher([&] { watch(args, ctx, plan.records, done); });
    int err = shkv_reshaping(dbname_of(args.uri).c_str(), plan.md_sz, plan.ud_sz, 0, plan.hash);
    done = true;
    watcher.join();
    return err;
}

int reshape(const Args &args, const Context &ctx)
{
    refuse_registry(args.uri);
    work_out_limits();
    RawStore raw(dbname_of(args.uri));
    check_readable(args.uri, raw);
    check_state(args, raw);
    Plan plan = make_plan(args, raw);
    md_desc old_table = raw.md(raw.active_md());
    ud_desc old_space = raw.ud(raw.active_ud());
    int err = run_reshape(args, ctx, plan);
    raw.refresh();
    if (err != 0)
        throw refused(args, errno_words(err), "--log FILE keeps the library's own words");
    const md_desc &table = raw.md(raw.active_md());
    uint64_t size = raw.ud(raw.active_ud()).obj_sz;
    uint64_t records = chain_stats(raw, raw.active_md(), link_of(raw.active_md()), raw.active_ud()).records;
    if (ctx.json)
        print_json({{"store", args.uri},
                    {"buckets", table.hashsz},
                    {"space", size},
                    {"hash", hash_name(table.hashfn)},
                    {"records", records}});
    say(ctx, "reshaped store '{}', {}\n  table   {} -> {} buckets, {} -> {}\n  space   {} -> {}\n", args.uri,
        count_of(records, "record"), thousands(old_table.hashsz), thousands(table.hashsz),
        hash_name(old_table.hashfn), hash_name(table.hashfn), human_size(old_space.obj_sz), human_size(size));
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("--table-size", args->buckets,
                   "Buckets of the new table, rounded up to a prime (as many as now)")
        .type_name("N")
        .range((uint64_t)2, (uint64_t)100000000);
    app.add_option("--space", args->space,
                   "Size of the new record space in bytes, or with K, M or G (as large as now)")
        .type_name("SIZE");
    app.add_option("--hash", args->hash, "Hash function of the new table (the same): " + hash_list())
        .type_name("NAME")
        .one_of(hash_names());
    return [args, &ctx] { return reshape(*args, ctx); };
}
} // namespace

const Command cmd_reshape = {
    "reshape",
    nullptr,
    "Upkeep",
    "move a store in use to a new table, space or hash function",
    "Rebuilds a store with records of fixed size in new objects, one record at a time, while its\n"
    "users go on reading and writing. Without options it gets a fresh table and space of the same\n"
    "size. It takes a second at least, and cannot be stopped in the middle; no process can newly\n"
    "open the store for writing until it is over.",
    {{"shkvctl reshape cache --table-size 200000", "a table of 200,003 buckets: shorter chains"},
     {"shkvctl reshape cache --space 4M", "a smaller record space"},
     {"shkvctl reshape cache --hash djbhash", "another hash function"}},
    setup};
