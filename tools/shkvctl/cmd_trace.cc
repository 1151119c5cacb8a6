// trace: the last failures of a store, as its ring has them.
#include <errno.h>
#include <math.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "shkvctl/common.h"
#include "shkvctl/events.h"
#include "shkvctl/ring.h"

namespace
{
struct Args {
    std::string uri;
    bool follow = false, list = false;
    uint32_t last = 0;
};

constexpr useconds_t FOLLOW_US = 200000;

std::string time_words(const std::optional<double> &time)
{
    if (!time)
        return "(no time)";
    time_t seconds = (time_t)*time;
    tm local;
    char text[32] = "";
    localtime_r(&seconds, &local);
    strftime(text, sizeof text, "%F %T", &local);
    return fmt::format("{}.{:03}", text, (int)((*time - floor(*time)) * 1000));
}

// The message of the site, as far as the event tells it: of an event with several sites all.
std::string message_of(const RingEvent &event, const Event *known)
{
    if (event.unknown)
        return fmt::format("a record of no known class, {:#x}", event.value);
    if (event.text)
        return fmt::format("the program's own event, \"{}\"", escape(*event.text));
    return known ? fmt::format("{}", fmt::join(event_texts(*known), " | "))
                 : "an event that this tool does not know";
}

std::string values_of(const RingEvent &event, const Event *known)
{
    if (event.unknown)
        return "-";
    std::string words = value_words(known ? known->value : EventValue{}, event.value);
    if (event.second)
        words += ", " + value_words(known ? known->second : EventValue{}, *event.second);
    return words + (event.torn ? ", (its second value is missing)" : "");
}

Json json_event(const RingEvent &event, const Event *known)
{
    Json line = {{"time", nullptr}};
    if (event.time)
        line["time"] = round(*event.time * 1e6) / 1e6;
    line["event"] = event.id;
    if (event.unknown)
        line["unknown_record"] = event.value;
    if (known && !event.unknown) {
        line["severity"] = severity_name(known->severity);
        line["function"] = known->functions;
        line["messages"] = event_texts(*known);
        line["meaning"] = known->value.words;
    }
    line["value"] = event.value;
    if (event.second)
        line["second"] = *event.second;
    if (event.text)
        json_put(line, "text", *event.text);
    if (event.torn)
        line["torn"] = true;
    return line;
}

void print_event(const Context &ctx, const RingEvent &event)
{
    const Event *known = event.text ? nullptr : find_event(event.id);
    if (ctx.json)
        return print_json(json_event(event, known));
    fmt::print(out(), "{}  {:#04x} {:<8} {:<20} {}\n    {}\n", time_words(event.time), event.id,
               known && !event.unknown ? severity_name(known->severity) : "-",
               known && !event.unknown ? known->functions : "-", values_of(event, known),
               message_of(event, known));
}

void print_list(const Context &ctx)
{
    for (const Event &event : events()) {
        auto texts = event_texts(event);
        if (ctx.json) {
            Json line = {{"event", event.id},
                         {"severity", severity_name(event.severity)},
                         {"function", event.functions},
                         {"messages", texts},
                         {"value", event.value.words}};
            if (*event.second.words)
                line["second"] = event.second.words;
            print_json(line);
            continue;
        }
        fmt::print(out(), "{:#04x} {:<8} {}: {}{}{}\n", event.id, severity_name(event.severity),
                   event.functions, event.value.words, *event.second.words ? "; second: " : "",
                   event.second.words);
        for (const std::string &text : texts)
            fmt::print(out(), "    {}\n", text);
    }
}

// The store behind the name is another one, or none.
bool replaced(const RawStore &raw)
{
    struct stat mine, named;
    return fstat(raw.object(OBJ_SN).fd, &mine) != 0 ||
           stat(RawStore::path(raw.dbname(), OBJ_SN).c_str(), &named) != 0 || mine.st_ino != named.st_ino;
}

// Where in events the first one behind the last seen begins: all of them when that is gone.
size_t first_new(const std::vector<RingEvent> &events, const RingEvent &seen)
{
    for (size_t i = events.size(); i > 0; i--)
        if (events[i - 1].same_as(seen))
            return i;
    return 0;
}

void follow(const Context &ctx, RawStore &raw, std::optional<RingEvent> seen)
{
    catch_interrupts();
    while (!interrupted) {
        fflush(out());
        usleep(FOLLOW_US);
        if (replaced(raw)) {
            say(ctx, "the store was destroyed\n");
            return;
        }
        Ring ring = read_ring(raw);
        if (!ring.events.empty() && ring.events.back().torn)
            ring.events.pop_back(); // its second record comes with the next look
        size_t first = seen ? first_new(ring.events, *seen) : 0;
        if (seen && first == 0 && !ring.events.empty())
            say(ctx, "(more events than the ring holds since the last look: some are lost)\n");
        for (size_t i = first; i < ring.events.size(); i++)
            print_event(ctx, ring.events[i]);
        if (!ring.events.empty())
            seen = ring.events.back();
    }
}

int trace(const Args &args, const Context &ctx)
{
    if (args.list) {
        print_list(ctx);
        return EXIT_OK;
    }
    if (args.uri.empty())
        throw Failure::usage("STORE is required, or --list");
    RawStore raw(dbname_of(args.uri));
    if (!raw.exists())
        throw open_failure(args.uri, false, ENOENT, "");
    Ring ring = read_ring(raw);
    if (!ring.fault.empty())
        throw Failure(EXIT_ERROR, EINVAL, fmt::format("store '{}' has no event ring: {}", args.uri, ring.fault),
                      fmt::format("see its state with: shkvctl doctor {}", args.uri));
    size_t count = ring.events.size(), first = args.last && args.last < count ? count - args.last : 0;
    if (first == 0 && ring.wrapped)
        say(ctx, "(the ring holds {} records; older events are overwritten)\n", ring.room);
    for (size_t i = first; i < count; i++)
        print_event(ctx, ring.events[i]);
    if (args.follow)
        follow(ctx, raw, count ? std::optional(ring.events.back()) : std::nullopt);
    else if (count == 0)
        say(ctx, "no events: nothing has failed on this store since it was made\n");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store");
    app.add_flag("-f,--follow", args->follow, "Go on, and print events as they come");
    app.add_option("-n,--last", args->last, "Only the last N events").type_name("N");
    app.add_flag("--list", args->list, "Print all events that there are, and what their values mean");
    return [args, &ctx] { return trace(*args, ctx); };
}
} // namespace

const Command cmd_trace = {
    "trace",
    nullptr,
    "Diagnosis",
    "the last failures of a store: when, where, what",
    "Every store keeps its last failures, of all its processes, in a ring of its own, also those of\n"
    "processes that have ended. An event has a time, an id with a function and a message, and a value\n"
    "or two. An event that stands for several places prints the messages of all. The log of the\n"
    "process (--log, in a tool) has the same messages with all values filled in.",
    {{"shkvctl trace cache", "all that the ring holds, oldest first"},
     {"shkvctl trace cache -f -n 5", "the last five, and then whatever comes"},
     {"shkvctl trace --list | less", "all events"}},
    setup};
