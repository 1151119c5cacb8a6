// gc: brings the registry and the objects in shared memory together.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "shkvctl/common.h"
#include "shkvctl/leftovers.h"
#include "shkvctl/listing.h"

namespace
{
struct Args {
    bool yes = false;
};

void unlist(const std::string &uri)
{
    Store registry(SHKV_REGISTRY_NAME, UUID_REGISTRY, SHKV_AM_WRITE);
    registry.remove(uri);
}

void unlist_all(const std::string &name)
{
    for (const Listed &listed : registry_records())
        if (listed.uri != SHKV_REGISTRY_NAME && dbname_of(listed.uri) == name)
            unlist(listed.uri);
}

// In the order of a destroy: the supernode's name goes last, so that until then nobody can make a
// store of this name.
void remove_objects(const std::string &name)
{
    for (int kind : {OBJ_MD1, OBJ_MD2, OBJ_MD_TXN, OBJ_UD1, OBJ_UD2, OBJ_SN}) {
        std::string path = RawStore::path(name, kind);
        if (kind == OBJ_SN && name != SHKV_REGISTRY_NAME && RawStore(SHKV_REGISTRY_NAME).complete())
            unlist_all(name);
        if (unlink(path.c_str()) != 0 && errno != ENOENT)
            throw Failure(EXIT_ERROR, errno, fmt::format("cannot remove {}: {}", path, strerror(errno)));
    }
}

// What a create would have written, but for the VDC and the creator's flags, which nothing tells.
void enlist(const std::string &name)
{
    RawStore raw(name);
    std::string uri(raw.sn().uri, strnlen(raw.sn().uri, sizeof raw.sn().uri));
    if (uri.empty() || dbname_of(uri) != name)
        uri = name;
    int ud = raw.active_ud();
    reg_rec rec = {9, raw.sn().uuid, ud ? raw.ud(ud).obj_sz : 0, 0};
    if (!RawStore(SHKV_REGISTRY_NAME).exists())
        throw Failure(EXIT_ERROR, ENOENT, "the registry is missing",
                      "the next create makes it; run gc again then");
    Store registry(SHKV_REGISTRY_NAME, UUID_REGISTRY, SHKV_AM_WRITE);
    registry.add(uri, std::string((const char *)&rec, sizeof rec));
}

void destroy_log(const std::string &name)
{
    Store log(name, Store::WRITE);
    int handle = log.release(), err = shkv_destroy(handle);
    if (err != 0) {
        shkv_close(handle);
        throw Failure(EXIT_ERROR, err, fmt::format("cannot destroy store '{}': {}", name, errno_words(err)));
    }
}

void settle(const Leftover &left)
{
    switch (left.kind) {
    case Leftover::GONE:
        return unlist(left.uri);
    case Leftover::HALF_MADE:
    case Leftover::CUT_SHORT:
    case Leftover::HEADLESS:
        return remove_objects(left.name);
    case Leftover::UNLISTED:
        return enlist(left.name);
    case Leftover::STALE_LOG:
        return destroy_log(left.name);
    }
}

// The world may have moved since the list was made: looked at anew right before.
bool settle_if_still(const Leftover &left)
{
    auto now = leftover_of(left.name, Users());
    if (!now || now->kind != left.kind || !now->kept.empty())
        return false;
    settle(*now);
    return true;
}

void print_finding(const Context &ctx, const Leftover &left, const char *done)
{
    if (ctx.json) {
        Json line = {
            {"store", left.uri}, {"finding", leftover_name(left.kind)}, {"does", leftover_todo(left.kind)}};
        line["done"] = std::string(done) == "done";
        if (!left.kept.empty())
            line["kept"] = left.kept;
        return print_json(line);
    }
    fmt::print(out(), "{:<10} {}\n           {}\n           {}: {}\n", leftover_name(left.kind),
               escape(left.uri), leftover_words(left.kind), done,
               left.kept.empty() ? leftover_todo(left.kind) : left.kept);
}

int gc(const Args &args, const Context &ctx)
{
    Users users;
    size_t todo = 0;
    if (args.yes)
        work_out_limits();
    for (const Leftover &left : leftovers(users)) {
        bool can = left.kept.empty(), done = args.yes && can && settle_if_still(left);
        todo += can && !done;
        print_finding(ctx, left,
                      done       ? "done"
                      : !can     ? "left alone"
                      : args.yes ? "left alone, it has changed"
                                 : "would");
    }
    if (!args.yes && todo)
        say(ctx, "this was a dry run; do it with: shkvctl gc --yes\n");
    else if (!todo)
        say(ctx, "the registry and the objects agree{}\n", args.yes ? " now" : ", or what does not is in use");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_flag("--yes", args->yes, "Do it; without this, only say what would be done");
    return [args, &ctx] { return gc(*args, ctx); };
}
} // namespace

const Command cmd_gc = {
    "gc",
    nullptr,
    "Upkeep",
    "clear up what dead processes left, and bring the registry in step",
    "Compares the registry with the objects in shared memory, both ways: takes stores off the registry\n"
    "that are gone, removes what a create or a destroy that died left, lists whole stores that are\n"
    "not listed, and destroys undo logs that no store waits for. Whatever a living process has mapped,\n"
    "writes to, or made in the last ten seconds is left alone, and no whole store is removed.",
    {{"shkvctl gc", "what would be done"},
     {"sudo shkvctl gc --yes", "do it, seeing the processes of all users"}},
    setup};
