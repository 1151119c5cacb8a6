// top: all stores of the machine, live.
#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "shkvctl/common.h"
#include "shkvctl/output_file.h"
#include "shkvctl/sample.h"

// curses calls its macros so; the standard library does not like it.
#undef timeout

namespace
{
struct Args {
    bool once = false;
    double interval = 1;
    bool given = false; // the interval
    std::string prometheus;
};

using Rows = std::vector<std::vector<std::string>>;

enum Order { BY_NAME, BY_ENTRIES, BY_SPACE, ORDERS };
constexpr const char *order_names[] = {"name", "entries", "memory"};

const StoreSample *same_store(const std::optional<Sample> &sample, const std::string &name)
{
    if (!sample)
        return nullptr;
    auto at = std::find_if(sample->stores.begin(), sample->stores.end(),
                           [&](const StoreSample &store) { return store.name == name; });
    return at == sample->stores.end() ? nullptr : &*at;
}

// "+120/s" since the last look, "" without one or a change.
std::string rate(uint64_t now, uint64_t before, double seconds)
{
    double per_second = ((double)now - (double)before) / std::max(seconds, 0.001);
    return now == before ? "" : fmt::format("{:+.0f}/s", per_second);
}

std::string under_way(const StoreSample &s, const StoreSample *before)
{
    std::string words = s.state == "ok" ? "" : s.state;
    if (before && s.space_version != before->space_version)
        words += words.empty() ? "has grown" : ", has grown";
    if (before && s.table_version != before->table_version)
        words += words.empty() ? "new table" : ", new table";
    return words.empty() ? "ok" : words;
}

Rows rows_of(const Sample &sample, const std::optional<Sample> &last)
{
    Rows rows = {{"STORE", ">ENTRIES", ">CHANGE", ">LOAD", ">LONGEST", ">USED", ">SPACE", ">MEMORY", "GROWS",
                  ">WRITER", ">EVENTS", "STATE"}};
    for (const StoreSample &s : sample.stores) {
        const StoreSample *before = same_store(last, s.name);
        double load = s.buckets ? (double)s.entries / (double)s.buckets : 0;
        std::string fresh =
            before && s.events > before->events ? fmt::format(" (+{})", s.events - before->events) : "";
        rows.push_back({escape(s.name), thousands(s.entries),
                        before ? rate(s.entries, before->entries, sample.time - last->time) : "",
                        fmt::format("{:.2f}", load), thousands(s.longest_chain), percent(s.used, s.units),
                        human_size(s.space_bytes), human_size(s.taken_bytes), s.grows ? "yes" : "no",
                        s.writer == 0    ? "-"
                        : s.writer_lives ? std::to_string(s.writer)
                                         : fmt::format("dead {}", s.writer),
                        thousands(s.events) + fresh, under_way(s, before)});
    }
    return rows;
}

std::string head_of(const Sample &sample)
{
    return fmt::format("{}; /dev/shm {}, {} free", count_of(sample.stores.size(), "store"),
                       human_size(sample.shm_bytes), human_size(sample.shm_free));
}

void sort_by(Sample &sample, int order)
{
    std::stable_sort(sample.stores.begin(), sample.stores.end(),
                     [&](const StoreSample &a, const StoreSample &b) {
                         return order == BY_ENTRIES ? a.entries > b.entries
                                : order == BY_SPACE ? a.taken_bytes > b.taken_bytes
                                                    : a.name < b.name;
                     });
}

// ---- The screen ----

class Screen
{
  public:
    Screen() : screen_(newterm(nullptr, out(), stdin))
    {
        if (!screen_)
            throw Failure(EXIT_ERROR, 0, "this terminal cannot show a live view", "use --once");
        cbreak();
        noecho();
        curs_set(0);
        keypad(stdscr, TRUE);
    }
    ~Screen()
    {
        endwin();
        delscreen(screen_);
    }
    Screen(const Screen &) = delete;

    void draw(const Sample &sample, const std::optional<Sample> &last, int order)
    {
        erase();
        std::string head =
            fmt::format("shkvctl top   {}   by {} (s), q ends", head_of(sample), order_names[order]);
        mvaddnstr(0, 0, head.c_str(), COLS);
        std::string text = table(rows_of(sample, last));
        int line = 2;
        for (size_t at = 0; at < text.size() && line < LINES; line++) {
            size_t end = text.find('\n', at);
            if (line == 2)
                attron(A_REVERSE);
            mvaddnstr(line, 0, text.substr(at, end - at).c_str(), COLS);
            attroff(A_REVERSE);
            at = end == std::string::npos ? text.size() : end + 1;
        }
        refresh();
    }
    int key(double seconds)
    {
        wtimeout(stdscr, (int)(seconds * 1000));
        return getch();
    }

  private:
    SCREEN *screen_;
};

void live(const Args &args)
{
    Sampler sampler;
    std::optional<Sample> last;
    int order = BY_NAME;
    catch_interrupts();
    Screen screen;
    while (!interrupted) {
        Sample sample = sampler.take();
        sort_by(sample, order);
        screen.draw(sample, last, order);
        last = sample;
        int key = screen.key(args.interval);
        if (key == 'q' || key == 'Q')
            return;
        if (key == 's')
            order = (order + 1) % ORDERS;
    }
}

// Samples one after the other to standard output or the collector's file, once or until interrupted.
void print_samples(const Args &args, const Context &ctx)
{
    Sampler sampler;
    catch_interrupts();
    for (std::optional<Sample> last; !interrupted;) {
        Sample sample = sampler.take();
        if (!args.prometheus.empty())
            write_whole(args.prometheus, prometheus_text(sample));
        else if (ctx.json)
            print_json(json_sample(sample));
        else
            fmt::print(out(), "{}\n{}", head_of(sample),
                       sample.stores.empty() ? "" : table(rows_of(sample, last)));
        fflush(out());
        if (args.once || !args.given)
            return;
        last = std::move(sample);
        usleep((useconds_t)(args.interval * 1e6));
    }
}

int top(const Args &args, const Context &ctx)
{
    bool screen =
        !args.once && !ctx.json && args.prometheus.empty() && isatty(fileno(out())) && isatty(STDIN_FILENO);
    if (screen)
        live(args);
    else
        print_samples(args, ctx);
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_flag("--once", args->once, "One look and no screen");
    Argument interval = app.add_option("-d,--interval", args->interval,
                                       "Seconds between two looks; without a screen: go on until interrupted")
                            .type_name("S")
                            .range(0.1, 3600.0);
    app.add_option(
           "--prometheus", args->prometheus,
           "Write the numbers to this file, for the text file collector of the node exporter; the file is "
           "always whole")
        .type_name("FILE");
    return [args, interval, &ctx] {
        args->given = interval.given();
        return top(*args, ctx);
    };
}
} // namespace

const Command cmd_top = {
    "top",
    nullptr,
    "Diagnosis",
    "all stores, live",
    "Shows every store with its entries and their change, its load (records a bucket), longest chain,\n"
    "the share of the record space in use, its length and the memory behind all objects, whether it\n"
    "grows, its writer, the events in its ring and its state. On the screen s changes the order and q\n"
    "ends. It opens no store. A large table is counted anew every few seconds only.",
    {{"shkvctl top", "watch"},
     {"shkvctl top --once --json", "one look, for programs"},
     {"shkvctl top --prometheus /var/lib/prometheus/node-exporter/shkv.prom -d 15", "feed the node exporter"}},
    setup};
