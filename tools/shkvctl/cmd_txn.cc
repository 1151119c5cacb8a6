// txn: the transaction of a store, which outlives the processes that work in it.
#include <errno.h>

#include "shkvctl/common.h"
#include "shkvctl/procs.h"
#include "shkvctl/raw_stats.h"
#include "shkvctl/transaction.h"

namespace
{
struct Args {
    std::string action, uri;
};

int no_txn(const Args &args, const Context &ctx)
{
    if (ctx.json)
        print_json({{"store", args.uri}, {"open", false}});
    say(ctx, "store '{}' has no open transaction\n", args.uri);
    return EXIT_NOT_FOUND;
}

int status(const Args &args, const Context &ctx)
{
    RawStore raw(dbname_of(args.uri));
    check_readable(args.uri, raw);
    std::optional<TxnStats> txn = txn_stats(raw);
    if (!txn)
        return no_txn(args, ctx);
    uint32_t tid = raw.sn().wr_tid[0];
    bool lives = tid != 0 && thread_lives(tid);
    if (ctx.json)
        print_json({{"store", args.uri},
                    {"open", true},
                    {"committing", txn->committing},
                    {"sets", txn->adds},
                    {"deletes", txn->deletes},
                    {"writer_tid", tid},
                    {"writer_lives", lives}});
    say(ctx, "store '{}' has an open transaction: {} and {} staged\n", args.uri, count_of(txn->adds, "set"),
        count_of(txn->deletes, "delete"));
    if (txn->committing)
        say(ctx, "its commit was begun; the next writer to open the store finishes it\n");
    if (lives)
        say(ctx, "its writer is {}\n", thread_words(tid));
    else
        say(ctx, "nobody writes to the store now; end the transaction with: shkvctl txn commit {0}, or abort\n",
            args.uri);
    return EXIT_OK;
}

int end(const Args &args, const Context &ctx)
{
    bool commit = args.action == "commit";
    std::optional<TxnStats> before = [&] {
        RawStore raw(dbname_of(args.uri));
        return txn_stats(raw);
    }();
    Store store(args.uri, Store::WRITE); // finishes a commit that was cut short
    if (!before)
        return no_txn(args, ctx);
    if (store.in_txn()) {
        int err = commit ? shkv_txn_commit(store.handle(), nullptr) : shkv_txn_abort(store.handle());
        if (err != 0)
            throw store.failure(args.action, err);
    } else if (!commit) {
        throw Failure(EXIT_ERROR, EEXIST,
                      fmt::format("the commit of store '{}' had been begun, and is finished now", args.uri),
                      "a commit cannot be taken back");
    }
    if (ctx.json)
        print_json({{"store", args.uri},
                    {commit ? "committed" : "aborted", true},
                    {"sets", before->adds},
                    {"deletes", before->deletes}});
    say(ctx, "{} {} and {}\n", commit ? "committed" : "dropped", count_of(before->adds, "set"),
        count_of(before->deletes, "delete"));
    return EXIT_OK;
}

int start(const Args &args, const Context &ctx)
{
    Store store(args.uri, Store::WRITE);
    start_txn(store, 0);
    if (ctx.json)
        print_json({{"store", args.uri}, {"open", true}});
    say(ctx, "opened a transaction: changes to '{0}' wait for: shkvctl txn commit {0}\n", args.uri);
    return EXIT_OK;
}

int txn(const Args &args, const Context &ctx)
{
    return args.action == "status"  ? status(args, ctx)
           : args.action == "start" ? start(args, ctx)
                                    : end(args, ctx);
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("ACTION", args->action, "status, start, commit or abort")
        .required()
        .one_of({"status", "start", "commit", "abort"});
    app.add_option("STORE", args->uri, "Name of the store").required();
    return [args, &ctx] { return txn(*args, ctx); };
}
} // namespace

const Command cmd_txn = {
    "txn",
    nullptr,
    "Many records at once",
    "look at a store's transaction, open one, end it",
    "A transaction belongs to the store and not to a process: it stays open when its writer closes\n"
    "or dies, and the next writer goes on in it. Until the commit only its writer sees what is\n"
    "staged. status exits with 1 when none is open.",
    {{"shkvctl txn status cache", "what is staged, and who writes"},
     {"shkvctl txn start cache", "open one; set, del and load then stage their changes"},
     {"shkvctl txn commit cache", "make it all visible"},
     {"shkvctl txn abort cache", "drop what is staged, such as what a dead writer left"}},
    setup};
