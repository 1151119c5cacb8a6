// The demo: the package records of this machine in one store, loaded by a writer that is killed
// in the middle and replaced, while readers look packages up all the time. At the end every
// record is compared with the input. Exits with 0 only when all of it was right.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <functional>
#include <set>
#include <thread>

#include "args/arguments.h"
#include "demo/place.h"
#include "demo/roles.h"
#include "shkv.h"

using std::chrono::steady_clock;

static volatile sig_atomic_t interrupted;

static void pause_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// ---- Children ----

static std::set<pid_t> children;

static pid_t start(const std::function<int()> &role)
{
    pid_t parent = getpid(), pid = fork();
    if (pid != 0) {
        if (pid > 0)
            children.insert(pid);
        return pid;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGINT, SIG_IGN); // of a Ctrl-C, which all get, the parent makes an orderly end
    signal(SIGTERM, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    _exit(getppid() == parent ? role() : 1);
}

// Exit code of a child that has ended, 128 plus the signal that ended it, or -1 while it runs.
static int reap(pid_t pid, bool wait)
{
    int status = 0;
    pid_t ended;
    while ((ended = waitpid(pid, &status, wait ? 0 : WNOHANG)) < 0 && errno == EINTR)
        ;
    if (ended == 0)
        return -1;
    children.erase(pid);
    return ended < 0 ? 1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void end_all_children()
{
    for (pid_t pid : std::set<pid_t>(children)) {
        kill(pid, SIGKILL);
        reap(pid, true);
    }
}

// ---- The acts ----

struct Totals {
    uint64_t right = 0, not_yet = 0, missing = 0, wrong = 0, refused = 0;
    int last_err = 0;
    uint64_t lookups() const
    {
        return right + not_yet + missing + wrong + refused;
    }
};

static Totals totals(const Demo &demo)
{
    Totals sum;
    for (int i = 0; i < demo.readers; i++) {
        const ReaderCount &count = demo.shared->reader[i];
        sum.right += count.right;
        sum.not_yet += count.not_yet;
        sum.missing += count.missing;
        sum.wrong += count.wrong;
        sum.refused += count.refused;
        sum.last_err = count.last_err ? count.last_err.load() : sum.last_err;
    }
    return sum;
}

static std::string rate(double per_second)
{
    return per_second >= 1e6 ? fmt::format("{:.1f}M", per_second / 1e6) : thousands((uint64_t)per_second);
}

// Waits until done, with a line about the readers each second. false: interrupted.
static bool wait_until(const Demo &demo, const std::function<bool()> &done)
{
    static steady_clock::time_point last = steady_clock::now();
    static uint64_t last_lookups;
    while (!interrupted && !done()) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        double seconds = std::chrono::duration<double>(steady_clock::now() - last).count();
        if (seconds < 1)
            continue;
        Totals sum = totals(demo);
        event("{} of {} records stored; readers: {} lookups/s, {} missing, {} wrong",
              thousands(demo.shared->acked), thousands(demo.packages.list.size()),
              rate((double)(sum.lookups() - last_lookups) / seconds), sum.missing, sum.wrong + sum.refused);
        last = steady_clock::now();
        last_lookups = sum.lookups();
    }
    return !interrupted;
}

static bool create_store(const Demo &demo)
{
    // A record takes its units of 128 bytes; twice what all of them need leaves room to grow.
    uint64_t need = 0;
    for (const Package &package : demo.packages.list)
        need += (package.name.size() + package.value.size() + VEC_HEAD_SZ) / 124 * 128 + 128;
    setenv("SYSMGR_MMAP_LIMIT", std::to_string(std::max<uint64_t>(2 * need, 64u << 20)).c_str(), 1);
    shkv_params params = {64, 256, (uint32_t)demo.packages.list.size() / 16 + 100, CONF_VECTORMM, 0};
    uint32_t err = 0;
    int handle = shkv_create(demo.uri.c_str(), demo.uuid, &params, 0, &err);
    if (handle <= 0) {
        event("the store {} could not be made: error {}", demo.uri, err);
        return false;
    }
    return shkv_close(handle) == 0;
}

// The first writer is killed when half of the records are in. Returns how many were then
// acknowledged, or 0 when something went wrong.
static uint32_t kill_in_the_middle(const Demo &demo)
{
    uint32_t half = (uint32_t)demo.packages.list.size() / 2;
    pid_t writer = start([&] { return run_writer(demo); });
    int ended = -1;
    if (!wait_until(demo, [&] { return demo.shared->acked >= half || (ended = reap(writer, false)) >= 0; }))
        return 0;
    if (ended >= 0) {
        event("writer {} ended too early, with {}", writer, ended);
        return 0;
    }
    kill(writer, SIGKILL);
    ended = reap(writer, true);
    uint32_t acked = demo.shared->acked;
    event("killed writer {} at record {}", writer, thousands(acked));
    return ended == 128 + SIGKILL && acked < demo.packages.list.size() ? acked : 0;
}

static bool finish_with_another(const Demo &demo)
{
    pid_t writer = start([&] { return run_writer(demo); });
    int ended = -1;
    return wait_until(demo, [&] { return (ended = reap(writer, false)) >= 0; }) && ended == 0;
}

struct Compared {
    uint64_t missing = 0, wrong = 0, records = 0;
};

// Every record of the input against the store, by a handle of this process's own, and a count of
// all that the store holds.
static Compared compare(const Demo &demo)
{
    Compared result;
    uint32_t err = 0;
    int handle = shkv_open(demo.uri.c_str(), demo.uuid, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
    std::string room(4096, 0);
    for (const Package &package : demo.packages.list) {
        shkv_buf key = {const_cast<char *>(package.name.data()), (uint32_t)package.name.size()};
        shkv_buf value = {room.data(), (uint32_t)room.size()};
        int got = shkv_lookup(handle, &key, &value);
        result.missing += got == ENOENT;
        result.wrong += (got != 0 && got != ENOENT) ||
                        (got == 0 && std::string_view(room.data(), value.len) != package.value);
    }
    shkv_iter_pos pos;
    if (shkv_iterate(handle, nullptr, nullptr, nullptr, 1) == 0)
        while (shkv_iterate(handle, nullptr, nullptr, &pos, 0) == 0)
            result.records++;
    shkv_close(handle);
    return result;
}

static std::string mib(uint64_t bytes)
{
    return fmt::format("{:.1f} MiB", (double)bytes / (1 << 20));
}

static bool print_summary(const Demo &demo, uint32_t killed_at, uint32_t first_size, uint32_t last_size,
                          double reading)
{
    uint64_t total = demo.packages.list.size();
    Totals sum = totals(demo);
    Compared end = compare(demo);
    bool readers_right = sum.right > 0 && sum.missing + sum.wrong + sum.refused == 0;
    bool store_right = end.missing + end.wrong == 0 && end.records == total;
    double add_seconds = (double)demo.shared->add_ns / 1e9;
    fmt::print("\nsummary\n"
               "  input       {} packages from {}, {}\n"
               "  writers     {} records by the first, killed; {} by the second\n"
               "  adds        {} a second while adding, each acknowledged\n"
               "  lookups     {} by {} readers, {} a second beside the writers\n"
               "              {} right, {} not stored yet, {} missing, {} wrong\n"
               "  store       grew from {} to {} under its readers\n"
               "  compared    {} records with the input: {} missing, {} wrong, {} too many\n",
               thousands(total), demo.packages.source, mib(demo.packages.bytes), thousands(killed_at),
               thousands(total - killed_at), rate((double)total / add_seconds), thousands(sum.lookups()),
               demo.readers, rate((double)sum.lookups() / reading), thousands(sum.right),
               thousands(sum.not_yet), sum.missing, sum.wrong + sum.refused, mib(first_size), mib(last_size),
               thousands(total), end.missing, end.wrong, end.records > total ? end.records - total : 0);
    if (sum.refused)
        fmt::print("              {} lookups were refused, the last with error {}\n", thousands(sum.refused),
                   sum.last_err);
    fflush(stdout);
    return readers_right && store_right;
}

// From the first store to the summary. Leaves the store to the caller.
static bool play(Demo &demo)
{
    if (!create_store(demo))
        return false;
    uint32_t first_size = shkv_get_db_size(demo.uri.c_str());
    auto began = steady_clock::now();
    std::set<pid_t> readers;
    for (int i = 0; i < demo.readers; i++)
        readers.insert(start([&, i] { return run_reader(demo, i); }));
    uint32_t killed_at = kill_in_the_middle(demo);
    if (killed_at == 0 || !finish_with_another(demo))
        return false;
    pause_ms(300); // the readers on the whole store
    demo.shared->stop = true;
    bool ok = true;
    for (pid_t reader : readers)
        ok &= reap(reader, true) == 0;
    double reading = std::chrono::duration<double>(steady_clock::now() - began).count();
    return print_summary(demo, killed_at, first_size, shkv_get_db_size(demo.uri.c_str()), reading) && ok &&
           !interrupted;
}

static int run(Demo &demo, const std::string &input)
{
    event("reading {}", input.empty() ? "the package records of this machine" : input);
    demo.packages = read_packages(input);
    if (demo.packages.list.size() < 100) {
        fmt::print(stderr, "shkv_demo: no package records found{}; give a file of them with --input\n",
                   input.empty() ? "" : " in " + input);
        return 1;
    }
    event("read {} packages from {}", thousands(demo.packages.list.size()), demo.packages.source);
    Place place;
    bool ok = play(demo);
    if (interrupted)
        event("interrupted: cleaning up");
    end_all_children();
    ok &= place.restore(demo.uri);
    fmt::print("{}\n", interrupted ? "" : ok ? "\nall right; /dev/shm is as it was before" : "\nNOT RIGHT");
    return interrupted ? 130 : ok ? 0 : 1;
}

int main(int argc, char **argv)
{
    demo_start = steady_clock::now();
    Demo demo;
    std::string input;
    Arguments app(
        "Loads this machine's package records into a store, kills the writer in the middle, and lets\n"
        "another one finish, while readers check every answer.",
        "shkv_demo");
    app.add_option("--input", input, "File of package records (apt-cache dumpavail, else dpkg's status file)");
    app.add_option("--seconds", demo.seconds, "Time that loading takes; 0 is as fast as it goes")
        .range(0.0, 3600.0);
    app.add_option("--readers", demo.readers, "Reader processes").range(1, READERS_MAX);
    std::string why;
    Arguments::Parsed parsed = app.parse(argc, argv, &why);
    if (parsed != Arguments::GOOD) {
        bool help = parsed == Arguments::HELP_WANTED;
        fmt::print(help ? stdout : stderr, "{}", help ? app.help() : "shkv_demo: " + why + "\n");
        return help ? 0 : 2;
    }

    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    void *page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        perror("shkv_demo");
        return 1;
    }
    demo.shared = new (page) Shared();
    demo.uri = fmt::format("demo:packages_{}", getpid());
    demo.uuid = 0x64656d6f;
    return run(demo, input);
}
