// who: the writer of a store, and every process that has it mapped.
#include <errno.h>
#include <unistd.h>

#include "shkvctl/common.h"
#include "shkvctl/users.h"

namespace
{
struct Args {
    std::string uri;
};

constexpr const char *state_names[] = {"dead", "lives", "stranger", "unknown"};

std::string object_list(const User &user)
{
    std::string list;
    for (int kind : user.objects)
        list += (list.empty() ? "" : " ") + std::string(object_name(kind));
    return list;
}

void print_writer(const Writer &writer)
{
    if (writer.state == Writer::DEAD) {
        fmt::print(out(),
                   "  thread {}, which is gone; the next process that opens the store for writing takes its "
                   "place\n",
                   writer.tid);
        return;
    }
    const Process &process = *writer.process;
    fmt::print(out(), "  thread {} of process {} ({}), user {}, which runs since {}\n  {}\n", writer.tid,
               process.pid, escape(process.name), process.user, date_words(process.started),
               escape(process.command));
    if (process.other_pids)
        fmt::print(out(),
                   "  it counts in another PID namespace: processes outside of that one take the writer for "
                   "dead\n");
    if (writer.state == Writer::STRANGER)
        fmt::print(out(),
                   "  but that process does not have the store mapped: the writer is gone, and its thread id "
                   "was given out\n  anew. Nobody can open the store for writing while that thread lives, "
                   "except with:\n  shkvctl destroy --force\n");
    if (writer.state == Writer::UNKNOWN)
        fmt::print(out(), "  whether that process has the store mapped takes root to see\n");
}

void print_users(const std::vector<User> &users)
{
    std::vector<std::vector<std::string>> rows = {
        {">  PID", "USER", "ACCESS", "RUNS SINCE", "MAPS", "COMMAND"}};
    for (const User &user : users)
        rows.push_back({std::to_string(user.process.pid), user.process.user, user.writes ? "write" : "read",
                        date_words(user.process.started), object_list(user),
                        escape(user.process.command.empty() ? user.process.name : user.process.command) +
                            (user.process.other_pids ? " (another PID namespace)" : "")});
    fmt::print(out(), "processes that have it mapped\n{}", users.empty() ? "  none\n" : table(rows));
}

void print_json_answer(const RawStore &raw, const Users &users)
{
    Json writers = Json::array(), processes = Json::array(), earlier = Json::array();
    for (const Writer &writer : users.writers(raw)) {
        writers.push_back({{"tid", writer.tid}, {"state", state_names[writer.state]}});
        if (writer.process)
            writers.back()["process"] = json_process(*writer.process);
    }
    for (const User &user : users.of(raw)) {
        Json objects = Json::array();
        for (int kind : user.objects)
            objects.push_back(object_name(kind));
        processes.push_back(json_process(user.process));
        processes.back()["access"] = user.writes ? "write" : "read";
        processes.back()["objects"] = objects;
    }
    for (const Process &process : users.of_earlier(raw.dbname()))
        earlier.push_back(json_process(process));
    print_json({{"store", raw.dbname()},
                {"uuid", raw.sn().uuid},
                {"writers", writers},
                {"processes", processes},
                {"processes_of_destroyed", earlier},
                {"hidden_processes", users.hidden()}});
}

int who(const Args &args, const Context &ctx)
{
    RawStore raw(dbname_of(args.uri));
    if (!raw.exists())
        throw open_failure(args.uri, false, ENOENT, "");
    Users users;
    if (ctx.json) {
        print_json_answer(raw, users);
        return EXIT_OK;
    }
    auto writers = users.writers(raw);
    fmt::print(out(), "store {}\nwriter\n{}", escape(raw.dbname()), writers.empty() ? "  none\n" : "");
    for (const Writer &writer : writers)
        print_writer(writer);
    print_users(users.of(raw));
    for (const Process &process : users.of_earlier(raw.dbname()))
        fmt::print(out(), "process {} ({}) still has a store of this name mapped that was destroyed\n",
                   process.pid, escape(process.name));
    if (users.hidden())
        say(ctx, "(processes that could not be looked into: {}{})\n", users.hidden(),
            geteuid() ? "; root sees all" : "");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    return [args, &ctx] { return who(*args, ctx); };
}
} // namespace

const Command cmd_who = {
    "who",
    nullptr,
    "Diagnosis",
    "the writer of a store, and every process that uses it",
    "Shows the thread that holds the writer's place and its process, and all processes that have an\n"
    "object of the store mapped, from /proc. A writer is taken for living only when the process of its\n"
    "thread has the store mapped: thread ids are given out anew. Since when a writer holds its place is\n"
    "recorded nowhere; the start of its process is.",
    {{"shkvctl who cache", "who has it open"}, {"sudo shkvctl who cache", "processes of other users, too"}},
    setup};
