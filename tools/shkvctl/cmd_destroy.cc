// destroy: removes stores; with --force also what does not open any more.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "shkvctl/common.h"
#include "shkvctl/listing.h"
#include "shkvctl/raw_store.h"

namespace
{
struct Args {
    std::vector<std::string> uris;
    bool force = false;
};

void destroy_open(Store &store)
{
    int handle = store.release();
    int err = shkv_destroy(handle);
    if (err == 0 && !check_shkv_hdl(handle))
        return;
    shkv_close(handle); // still open: a failure, or the store was marked destroyed already
    throw Failure(EXIT_ERROR, err,
                  fmt::format("cannot destroy store '{}': {}", store.uri(),
                              err ? errno_words(err) : "that was begun and cut short"),
                  fmt::format("remove what is left of it with: shkvctl destroy --force {}", store.uri()));
}

// Tells whoever has the store mapped that it is gone, as a destroy would.
void mark_destroyed(const RawStore &raw)
{
    int fd = open(RawStore::path(raw.dbname(), OBJ_SN).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    void *base =
        fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof(supernode), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base != MAP_FAILED && raw.object(OBJ_SN).file >= sizeof(supernode))
        __atomic_fetch_or(&static_cast<supernode *>(base)->comm_flg, CF_DESTROYED, __ATOMIC_SEQ_CST);
    if (base != MAP_FAILED)
        munmap(base, sizeof(supernode));
    if (fd >= 0)
        close(fd);
}

// The objects by name in the order of a destroy, then the registry's record. Returns whether
// there was anything.
bool remove_remains(const std::string &uri)
{
    RawStore raw(dbname_of(uri));
    if (raw.exists())
        mark_destroyed(raw);
    bool found = false;
    for (int kind : {OBJ_MD1, OBJ_MD2, OBJ_MD_TXN, OBJ_UD1, OBJ_UD2, OBJ_SN}) {
        std::string path = RawStore::path(raw.dbname(), kind);
        if (unlink(path.c_str()) == 0)
            found = true;
        else if (errno != ENOENT)
            throw Failure(EXIT_ERROR, errno, fmt::format("cannot remove {}: {}", path, strerror(errno)));
    }
    for (const Listed &listed : registry_records()) {
        if (listed.uri == SHKV_REGISTRY_NAME || dbname_of(listed.uri) != raw.dbname())
            continue;
        Store registry(SHKV_REGISTRY_NAME, UUID_REGISTRY, SHKV_AM_WRITE);
        found |= registry.remove(listed.uri);
    }
    return found;
}

Failure no_store(const std::string &uri)
{
    auto records = registry_records();
    bool listed = std::any_of(records.begin(), records.end(),
                              [&](const Listed &store) { return dbname_of(store.uri) == dbname_of(uri); });
    return {EXIT_ERROR, ENOENT, fmt::format("store '{}' does not exist", uri),
            listed
                ? fmt::format("the registry still lists it, which ends with: shkvctl destroy --force {}", uri)
                : "see all stores with: shkvctl ls"};
}

// A mode of write protection alone opens a store for writing whoever writes to it.
void destroy_forced(const std::string &uri)
{
    try {
        Store store(uri, UUID_NONE, SHKV_AM_WPROT);
        destroy_open(store);
    } catch (const Failure &failure) {
        if (!remove_remains(uri))
            throw failure.err == ENOENT ? no_store(uri) : failure;
    }
}

void destroy_one(const std::string &uri, bool force)
{
    if (force)
        return destroy_forced(uri);
    if (!RawStore(dbname_of(uri)).exists())
        throw no_store(uri);
    Store store(uri, Store::WRITE);
    destroy_open(store);
}

// The log of a batch is the only way back for a store whose batch was cut short.
void check_log(const Args &args, const std::string &uri)
{
    std::string name = dbname_of(uri), suffix = SHKV_IODB_SUFFIX;
    if (args.force || !name.ends_with(suffix))
        return;
    std::string base = name.substr(0, name.size() - suffix.size());
    if (!base.empty() && RawStore(base).sn().iodb_mark >> 8 == IODB_LIVE)
        throw Failure(
            EXIT_ERROR, EINVAL,
            fmt::format("'{}' is the undo log of store '{}', whose last batch was cut short", uri, base),
            fmt::format("the next open of '{0}' for writing takes the batch back and removes the log, "
                        "such as: shkvctl txn commit {0}",
                        base));
}

// A log that a batch left behind belongs to nobody when its store is gone. Returns its name, or "".
std::string destroy_log(const std::string &uri)
{
    std::string log = dbname_of(uri) + SHKV_IODB_SUFFIX;
    if (log.size() >= SHKV_NAME_MAX || !RawStore(log).exists())
        return "";
    destroy_one(log, true);
    return log;
}

int destroy(const Args &args, const Context &ctx)
{
    for (const std::string &uri : args.uris) {
        if (dbname_of(uri) == SHKV_REGISTRY_NAME)
            throw Failure::usage("'{}' is the registry, which lists all stores, and is not destroyed", uri);
        check_log(args, uri);
        destroy_one(uri, args.force);
        std::string log = destroy_log(uri);
        if (ctx.json) {
            Json done = {{"store", uri}, {"destroyed", true}};
            if (!log.empty())
                done["undo_log"] = escape(log);
            print_json(done);
        }
        say(ctx, "destroyed store '{}'{}\n", uri,
            log.empty() ? "" : fmt::format(" and its undo log '{}'", log));
    }
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uris, "Name of a store").required();
    app.add_flag("--force", args->force,
                 "Destroy it also while another process writes to it, and remove what is left of a "
                 "store that does not open");
    return [args, &ctx] { return destroy(*args, ctx); };
}
} // namespace

const Command cmd_destroy = {
    "destroy",
    nullptr,
    "Stores",
    "remove stores and all that is in them",
    "Removes a store for good: its objects, and its record in the registry. Processes that have it\n"
    "open are refused from then on. A store with a living writer is left alone without --force. The\n"
    "undo log that a batch may have left (NAME_iodb) goes with its store.",
    {{"shkvctl destroy cache", "one store"},
     {"shkvctl destroy old1 old2", "two"},
     {"shkvctl destroy --force broken", "whatever is left of it"}},
    setup};
