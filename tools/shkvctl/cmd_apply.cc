// apply: sets and deletes from a file as one transaction.
#include <errno.h>

#include <map>

#include "shkvctl/common.h"
#include "shkvctl/lines.h"
#include "shkvctl/raw_records.h"
#include "shkvctl/transaction.h"

namespace
{
struct Args {
    std::string uri, file;
    bool dry_run = false;
};

struct Tally {
    uint64_t added = 0, replaced = 0, deleted = 0, absent = 0;
};

Failure stopped()
{
    return {EXIT_INTERRUPTED, 0, "interrupted: nothing was changed"};
}

std::vector<Record> read_changes(const std::string &file)
{
    LineReader reader(file);
    std::vector<Record> changes;
    std::string line;
    while (!interrupted && reader.next(&line))
        changes.push_back(parse_change(reader, line));
    if (interrupted)
        throw stopped();
    return changes;
}

void tally(Tally &sum, bool erase, bool was_there)
{
    (erase ? was_there ? sum.deleted : sum.absent : was_there ? sum.replaced : sum.added)++;
}

bool is_there(const Args &args, RawStore &raw, const std::string &key)
{
    RawLookup found = raw_lookup(raw, key);
    if (found.found == Found::DAMAGED)
        throw Failure(EXIT_ERROR, EINVAL,
                      fmt::format("store '{}': cannot tell whether '{:.40}' is there: {}", args.uri,
                                  escape(key), found.fault),
                      fmt::format("see: shkvctl check {}", args.uri));
    return found.found == Found::YES;
}

// What the changes would do, on a map of the keys that they have met so far. From the store's
// bytes: nothing is opened.
Tally rehearse(const Args &args, const std::vector<Record> &changes)
{
    RawStore raw(dbname_of(args.uri));
    check_readable(args.uri, raw);
    if (raw.is(CF_TXN))
        throw txn_is_open(args.uri);
    if (raw.sn().conf_flg & CONF_MULTIWR)
        throw no_txn_here(args.uri);
    Tally sum;
    std::map<std::string, bool> there;
    for (const Record &change : changes) {
        check_sizes(args.uri, raw.sn(), change.key, change.value);
        auto known = there.find(change.key);
        bool was_there = known != there.end() ? known->second : is_there(args, raw, change.key);
        tally(sum, change.erase, was_there);
        there[change.key] = !change.erase;
    }
    return sum;
}

Tally stage(const Store &store, const std::vector<Record> &changes)
{
    Tally sum;
    std::string value;
    for (const Record &change : changes) {
        if (interrupted)
            throw stopped();
        bool was_there = store.lookup(change.key, &value); // in its own transaction, what is staged counts
        if (!change.erase)
            store.add(change.key, change.value);
        else if (was_there)
            store.remove(change.key);
        tally(sum, change.erase, was_there);
    }
    return sum;
}

int apply(const Args &args, const Context &ctx)
{
    catch_interrupts();
    std::vector<Record> changes = read_changes(args.file);
    Tally sum;
    if (args.dry_run) {
        sum = rehearse(args, changes);
    } else {
        Store store(args.uri, Store::WRITE);
        for (const Record &change : changes)
            store.check_sizes(change.key, change.value);
        Transaction txn(store, (uint32_t)changes.size());
        sum = stage(store, changes);
        txn.commit();
    }
    if (ctx.json)
        print_json({{"store", args.uri},
                    {"applied", !args.dry_run},
                    {"added", sum.added},
                    {"replaced", sum.replaced},
                    {"deleted", sum.deleted},
                    {"absent", sum.absent}});
    say(ctx, "{}: {} added, {} replaced, {} deleted{}\n", args.dry_run ? "would apply" : "applied",
        thousands(sum.added), thousands(sum.replaced), thousands(sum.deleted),
        sum.absent ? fmt::format(", {} to delete not there", thousands(sum.absent)) : "");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("FILE", args->file, "JSON Lines; - is standard input").required();
    app.add_flag("--dry-run", args->dry_run, "Check the file against the store and say what it would do");
    return [args, &ctx] { return apply(*args, ctx); };
}
} // namespace

const Command cmd_apply = {
    "apply",
    nullptr,
    "Many records at once",
    "sets and deletes from a file, all or nothing",
    "Reads a change a line, {\"op\":\"set\",\"key\":\"..\",\"value\":\"..\"} or "
    "{\"op\":\"del\",\"key\":\"..\"}, with\n"
    "key_hex and value_hex for bytes, and applies them in order as one transaction: other processes\n"
    "see nothing until all are in place, and a failure leaves the store as it was. A key to delete\n"
    "that is not there is counted and is no failure.",
    {{"shkvctl apply cache changes.jsonl", "all changes of the file"},
     {"shkvctl apply cache changes.jsonl --dry-run", "check them first"},
     {"echo '{\"op\":\"del\",\"key\":\"a\"}' | shkvctl apply cache -", "from standard input"}},
    setup};
