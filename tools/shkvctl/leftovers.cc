// What does not fit together in shared memory.
#include "shkvctl/leftovers.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "shkvctl/common.h"
#include "shkvctl/listing.h"

namespace
{
struct KindText {
    const char *name, *words, *todo;
};

constexpr KindText kinds[] = {
    {"gone", "the registry lists it, and its objects are not there", "take it off the registry"},
    {"half made", "its creator died in the middle: it can be neither opened nor created", "remove its objects"},
    {"cut short", "a destroy of it was begun and not brought to an end", "remove its objects"},
    {"headless", "tables and record spaces without a supernode", "remove its objects"},
    {"unlisted", "the store is whole, but the registry does not list it, so no budget counts it", "list it"},
    {"stale log",
     "the undo log of a batch that its store does not know of: it waits for nothing, but the next "
     "batch has to remove it first",
     "destroy it"},
};

// Younger than this, an object may be somebody's work under way.
constexpr double MIN_AGE = 10;

struct Names {
    std::vector<Listed> listed;
    std::set<std::string> all;
};

double age_of(const RawStore &raw)
{
    double youngest = 1e9;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++) {
        struct stat st;
        if (raw.object(kind).fd >= 0 && fstat(raw.object(kind).fd, &st) == 0)
            youngest = std::min(youngest, (double)(now.tv_sec - st.st_mtim.tv_sec));
    }
    return youngest;
}

bool any_object(const RawStore &raw)
{
    for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++)
        if (raw.object(kind).fd >= 0)
            return true;
    return false;
}

// Only what no process has in its memory, and nobody may be about to finish, is touched.
std::string why_kept(const RawStore &raw, const Users &users)
{
    for (const Writer &writer : users.writers(raw))
        if (raw.complete() && writer.state != Writer::DEAD)
            return fmt::format("thread {} may be its living writer", writer.tid);
    auto of = users.of(raw);
    if (!of.empty())
        return fmt::format("process {} ({}) has it mapped", of[0].process.pid, escape(of[0].process.name));
    if (users.hidden() && geteuid() != 0)
        return "it takes root to see whether a process of another user has it mapped";
    if (age_of(raw) < MIN_AGE)
        return "it changed a moment ago, and may be somebody's work under way";
    return "";
}

// A log belongs to a store of which it is the undo log by name; without that store the name says
// nothing, since any store may be called so.
bool stale_log(const std::string &name, const RawStore &log, const Users &users, std::string *kept)
{
    constexpr std::string_view suffix = SHKV_IODB_SUFFIX;
    if (!name.ends_with(suffix) || name.size() == suffix.size())
        return false;
    RawStore main(name.substr(0, name.size() - suffix.size()));
    if (!main.complete() || main.sn().iodb_mark >> 8 == IODB_LIVE || main.sn().uuid != log.sn().uuid)
        return false;
    for (const Writer &writer : users.writers(main))
        if (writer.state != Writer::DEAD)
            *kept = fmt::format("thread {} may be about to write a batch", writer.tid);
    return true;
}

std::vector<std::string> files_in(const char *dir)
{
    std::vector<std::string> names;
    DIR *stream = opendir(dir);
    for (dirent *entry; stream && (entry = readdir(stream));)
        if (std::string name = entry->d_name; name != "." && name != "..")
            names.push_back(name);
    if (stream)
        closedir(stream);
    return names;
}

Names all_names()
{
    Names names;
    if (RawStore(SHKV_REGISTRY_NAME).complete())
        names.listed = registry_records();
    for (const Listed &store : names.listed)
        names.all.insert(dbname_of(store.uri));
    for (const std::string &name : files_in(SHKV_DB_DIR))
        names.all.insert(name);
    for (const std::string &file : files_in(SHKV_MU_DIR))
        for (std::string_view suffix : {"_md1", "_md2", "_md_txn", "_ud1", "_ud2"})
            if (file.ends_with(suffix))
                names.all.insert(file.substr(0, file.size() - suffix.size()));
    return names;
}

std::optional<Leftover> classify(const std::string &name, const Names &names, const Users &users)
{
    auto at = std::find_if(names.listed.begin(), names.listed.end(),
                           [&](const Listed &store) { return dbname_of(store.uri) == name; });
    bool listed = at != names.listed.end();
    Leftover left = {Leftover::GONE, name, listed ? at->uri : name, ""};
    RawStore raw(name);
    if (!raw.exists() && raw.object(OBJ_SN).error != ENOENT)
        return std::nullopt; // there, and not for this user to read
    if (!any_object(raw))
        return listed && name != SHKV_REGISTRY_NAME ? std::optional(left) : std::nullopt;
    left.kept = why_kept(raw, users);
    if (!raw.exists())
        left.kind = Leftover::HEADLESS;
    else if (!raw.complete())
        left.kind = Leftover::HALF_MADE;
    else if (raw.is(CF_DESTROYED))
        left.kind = Leftover::CUT_SHORT;
    else if (stale_log(name, raw, users, &left.kept))
        left.kind = Leftover::STALE_LOG;
    else if (!listed && name != SHKV_REGISTRY_NAME)
        left.kind = Leftover::UNLISTED;
    else
        return std::nullopt;
    return left;
}
} // namespace

const char *leftover_name(Leftover::Kind kind)
{
    return kinds[kind].name;
}

const char *leftover_words(Leftover::Kind kind)
{
    return kinds[kind].words;
}

const char *leftover_todo(Leftover::Kind kind)
{
    return kinds[kind].todo;
}

std::vector<Leftover> leftovers(const Users &users)
{
    std::vector<Leftover> list;
    Names names = all_names();
    for (const std::string &name : names.all)
        if (auto left = classify(name, names, users))
            list.push_back(*left);
    return list;
}

std::optional<Leftover> leftover_of(const std::string &name, const Users &users)
{
    return classify(name, all_names(), users);
}
