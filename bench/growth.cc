// What growth, a transaction and a reshape cost a store that is in use.
//
//   bench_growth adds     times of single adds through all growths from 1,000 records on, and what
//                         the longest of them are made of
//   bench_growth txn      a commit of staged changes against the same adds without a transaction
//   bench_growth reshape  records moved a second; the writer's and a reader's throughput and worst
//                         latency before, during and after
//
// Linked with the static library, so that its calls to the kernel and its large memsets go through
// the counters here.
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "shkv.h"
#include "work.h"

using json = nlohmann::ordered_json;

// ---- Where the time goes --------------------------------------------------------------------------

enum part { FTRUNCATE, MMAP, MUNMAP, MEMSET, PARTS };
static const char *const part_names[] = {"ftruncate", "mmap", "munmap", "memset"};
static uint64_t ticks[PARTS];

template <class Call> static auto counted(part what, Call call)
{
    const uint64_t begin = __rdtsc();
    const auto result = call();
    ticks[what] += __rdtsc() - begin;
    return result;
}

extern "C" {
int __real_ftruncate(int fd, off_t len);
void *__real_mmap(void *at, size_t len, int prot, int flags, int fd, off_t off);
int __real_munmap(void *at, size_t len);
void *__real_memset(void *at, int byte, size_t len);
int __wrap_ftruncate(int fd, off_t len)
{
    return counted(FTRUNCATE, [=] { return __real_ftruncate(fd, len); });
}
void *__wrap_mmap(void *at, size_t len, int prot, int flags, int fd, off_t off)
{
    return counted(MMAP, [=] { return __real_mmap(at, len, prot, flags, fd, off); });
}
int __wrap_munmap(void *at, size_t len)
{
    return counted(MUNMAP, [=] { return __real_munmap(at, len); });
}
void *__wrap_memset(void *at, int byte, size_t len)
{
    return len < 4096 ? __real_memset(at, byte, len)
                      : counted(MEMSET, [=] { return __real_memset(at, byte, len); });
}
}

static double us(uint64_t t)
{
    return static_cast<double>(t) * ns_per_tick() / 1000;
}

static int create_store(const char *name, uint32_t entries)
{
    const shkv_params params = {kKey, 32, entries, CONF_FIXEDMM, 0};
    uint32_t err = 0;
    const int handle = shkv_create(name, UUID_BIG_A, &params, 0, &err);
    if (!handle)
        die("create failed: %u", err);
    return handle;
}

static int add_record(int handle, uint32_t number, uint32_t seq)
{
    char key[kKey], val[32];
    make_key(number, key);
    seal_value(val, sizeof val, number, seq);
    const shkv_buf k = {key, kKey}, v = {val, sizeof val};
    return shkv_add(handle, &k, &v, 0);
}

// ---- Adds through all growths -----------------------------------------------------------------------

struct slow_add {
    uint32_t number;
    uint64_t took, parts[PARTS];
    long faults;
};

// Adds 0 to best.size() - 1 and keeps each one's best time. Growth comes at the same adds in every
// run, so a pause of the machine that one run meets falls out with the next. The watched adds are
// taken apart: what they spent in the calls counted above, and their page faults.
static void add_all(std::vector<uint32_t> &best, std::map<uint32_t, slow_add> &watched)
{
    const int handle = create_store("growth", 1000);
    auto next = watched.begin();
    for (uint32_t i = 0; i < best.size(); i++) {
        char key[kKey], val[32];
        make_key(i, key);
        seal_value(val, sizeof val, i, 0);
        const shkv_buf k = {key, kKey}, v = {val, sizeof val};
        const bool watch = next != watched.end() && next->first == i;
        slow_add a = {i, 0, {}, 0};
        rusage usage;
        if (watch) {
            memcpy(a.parts, ticks, sizeof ticks);
            getrusage(RUSAGE_SELF, &usage);
            a.faults = usage.ru_minflt;
        }
        const uint64_t begin = __rdtsc();
        const int result = shkv_add(handle, &k, &v, 0);
        a.took = __rdtsc() - begin;
        if (result != 0)
            die("add %u failed: %d", i, result);
        best[i] = std::min(best[i], static_cast<uint32_t>(std::min<uint64_t>(a.took, UINT32_MAX)));
        if (watch) {
            getrusage(RUSAGE_SELF, &usage);
            a.faults = usage.ru_minflt - a.faults;
            for (int p = 0; p < PARTS; p++)
                a.parts[p] = ticks[p] - a.parts[p];
            if (next->second.took == 0 || a.took < next->second.took)
                next->second = a;
            ++next;
        }
    }
    shkv_destroy(handle);
}

static json run_adds(uint32_t cnt, int rounds)
{
    std::vector<uint32_t> best(cnt, UINT32_MAX), order(cnt);
    std::map<uint32_t, slow_add> watched;
    for (int r = 0; r < rounds; r++)
        add_all(best, watched);
    for (uint32_t i = 0; i < cnt; i++)
        order[i] = i;
    const size_t shown = std::min(cnt, 16u);
    const std::vector<uint32_t> times = best;
    std::partial_sort(order.begin(), order.begin() + shown, order.end(),
                      [&](uint32_t a, uint32_t b) { return times[a] > times[b]; });
    for (size_t i = 0; i < shown; i++)
        watched[order[i]] = {};
    for (int r = 0; r < rounds; r++)
        add_all(best, watched);
    std::vector<uint32_t> sorted = times;
    std::sort(sorted.begin(), sorted.end());

    json out = {{"adds", cnt}, {"from", 1000}, {"rounds", rounds}};
    printf("%u adds into a store created for 1,000, each one's best of %d rounds\n", cnt, rounds);
    for (const auto &[name, share] :
         {std::pair("p50", .5), {"p99", .99}, {"p99.9", .999}, {"p99.99", .9999}, {"max", 1.}}) {
        const double at = us(sorted[std::min<size_t>(cnt - 1, static_cast<size_t>(share * cnt))]);
        out[std::string(name) + "_us"] = at;
        printf("  %-8s %10.2f us\n", name, at);
    }
    printf("\nthe slowest adds, us\n%10s %9s", "record", "total");
    for (const char *name : part_names)
        printf(" %9s", name);
    printf(" %9s %7s\n", "the rest", "faults");
    for (size_t i = 0; i < shown; i++) {
        const slow_add &a = watched[order[i]];
        json row = {{"record", a.number}, {"total_us", us(a.took)}, {"faults", a.faults}};
        double rest = us(a.took);
        printf("%10u %9.1f", a.number, us(a.took));
        for (int p = 0; p < PARTS; p++) {
            rest -= us(a.parts[p]);
            row[std::string(part_names[p]) + "_us"] = us(a.parts[p]);
            printf(" %9.1f", us(a.parts[p]));
        }
        printf(" %9.1f %7ld\n", rest, a.faults);
        row["rest_us"] = rest;
        out["slowest"].push_back(row);
    }
    return out;
}

// ---- Transactions -----------------------------------------------------------------------------------

static double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Base records stand in the store; the changes are new records, or new values of old ones.
static json run_txn(uint32_t changes, int rounds)
{
    json out;
    printf("%u changes, ms (median of %d)\n%-10s %12s %12s %12s %12s %14s\n", changes, rounds, "", "plain adds",
           "staging", "commit", "both", "commit/plain");
    for (const bool inserts : {true, false}) {
        std::vector<double> plain, staged, commit;
        for (int r = 0; r < rounds; r++)
            for (const bool txn : {false, true}) {
                const int handle = create_store("txn", 2 * changes);
                for (uint32_t i = 0; i < changes; i++)
                    add_record(handle, i, 0);
                const uint32_t from = inserts ? changes : 0;
                const double begin = cpu_s();
                if (txn && shkv_txn_start(handle, &changes) != 0)
                    die("no transaction");
                for (uint32_t i = 0; i < changes; i++)
                    if (add_record(handle, from + i, 1) != 0)
                        die("add %u failed", i);
                const double added = cpu_s();
                if (txn) {
                    shkv_txn_commit(handle, nullptr);
                    staged.push_back((added - begin) * 1e3);
                    commit.push_back((cpu_s() - added) * 1e3);
                } else {
                    plain.push_back((added - begin) * 1e3);
                }
                shkv_destroy(handle);
            }
        const char *name = inserts ? "inserts" : "replaces";
        const double p = median(plain), s = median(staged), c = median(commit);
        printf("%-10s %12.2f %12.2f %12.2f %12.2f %14.2f\n", name, p, s, c, s + c, c / p);
        out[name] = {{"plain_ms", p}, {"staging_ms", s}, {"commit_ms", c}, {"commit_to_plain", c / p}};
    }
    return out;
}

// ---- Reshape ----------------------------------------------------------------------------------------

enum phase { BEFORE, DURING, AFTER, PHASES, ENDED };
static const char *const phase_names[] = {"before", "during", "after"};

struct watch {
    uint32_t phase; // the parent moves it on
    struct {
        uint64_t ops, bad, ticks;
        hist lat;
    } at[PHASES];
};

// Operations until the parent says that it ended; each counts for the phase in which it began.
template <class Op> static void watch_ops(watch &w, Op op)
{
    rng r = {7};
    for (uint32_t ph; (ph = __atomic_load_n(&w.phase, __ATOMIC_ACQUIRE)) != ENDED;) {
        const uint64_t begin = __rdtsc();
        const bool good = op(r);
        const uint64_t took = __rdtsc() - begin;
        auto &at = w.at[ph];
        at.ops++, at.bad += !good, at.ticks += took;
        at.lat.add(took);
    }
}

// One other process beside the reshaper: a reader, or the writer that had the store open before.
static json reshape_beside(uint32_t n, bool writer)
{
    static int serial;
    const std::string name = "reshape" + std::to_string(serial++);
    watch *w = shared_memory<watch>();
    uint32_t *ready = shared_memory<uint32_t>(), *stop = shared_memory<uint32_t>();
    const pid_t owner = child([&] {
        const int handle = create_store(name.c_str(), n + n / 10);
        for (uint32_t i = 0; i < n; i++)
            add_record(handle, i, 0);
        __atomic_store_n(ready, 1u, __ATOMIC_RELEASE);
        if (writer)
            watch_ops(*w, [&](rng &r) { return add_record(handle, r.below(n), 1) == 0; });
        while (!__atomic_load_n(stop, __ATOMIC_ACQUIRE))
            usleep(1000);
        return true;
    });
    while (!__atomic_load_n(ready, __ATOMIC_ACQUIRE))
        usleep(1000);
    const pid_t reader = writer ? 0 : child([&] {
        uint32_t err;
        const int handle = shkv_open(name.c_str(), UUID_BIG_A, 0, SHKV_AM_READ, &err);
        watch_ops(*w, [&](rng &r) {
            char key[kKey], val[64];
            const uint32_t number = r.below(n);
            make_key(number, key);
            const shkv_buf k = {key, kKey};
            shkv_buf v = {val, sizeof val};
            return shkv_lookup(handle, &k, &v) == 0 && v.len == 32 && value_sealed(val, v.len, number);
        });
        return handle != 0;
    });
    const auto move_on = [&](phase to) {
        __atomic_store_n(&w->phase, static_cast<uint32_t>(to), __ATOMIC_RELEASE);
    };
    double secs[PHASES], at = wall_s();
    usleep(1000000);
    secs[BEFORE] = wall_s() - at, at = wall_s();
    move_on(DURING);
    const int result = shkv_reshape_db(name.c_str(), 0);
    secs[DURING] = wall_s() - at, at = wall_s();
    move_on(AFTER);
    usleep(1000000);
    secs[AFTER] = wall_s() - at;
    move_on(ENDED);
    __atomic_store_n(stop, 1u, __ATOMIC_RELEASE);
    bool good = child_good(owner);
    if (reader)
        good &= child_good(reader);

    // The close of a reshape sleeps for one second; it is no part of the moving.
    const double moved = n / std::max(1e-9, secs[DURING] - 1);
    json out = {{"result", result}, {"children_ended_well", good}, {"records", n}, {"records_a_second", moved}};
    printf("%s beside a reshape of %u records: result %d, %.0f records moved a second\n",
           writer ? "the writer" : "a reader", n, result, moved);
    printf("%10s %14s %10s %10s %10s %12s %8s\n", "", "ops/s", "p50 ns", "p99 ns", "p99.9 ns", "worst us",
           "failed");
    for (int p = 0; p < PHASES; p++) {
        const auto &s = w->at[p];
        printf("%10s %14.0f %10.0f %10.0f %10.0f %12.1f %8lu\n", phase_names[p],
               static_cast<double>(s.ops) / secs[p], s.lat.percentile_ns(.5), s.lat.percentile_ns(.99),
               s.lat.percentile_ns(.999), us(s.lat.max), static_cast<unsigned long>(s.bad));
        out[phase_names[p]] = {{"ops_a_second", static_cast<double>(s.ops) / secs[p]},
                               {"p50_ns", s.lat.percentile_ns(.5)},
                               {"p99_ns", s.lat.percentile_ns(.99)},
                               {"worst_us", us(s.lat.max)},
                               {"failed", s.bad}};
    }
    return out;
}

int main(int argc, char **argv)
{
    uint32_t adds = 4000000, changes = 100000, records = 200000;
    int rounds = 5;
    std::string what, file;
    CLI::App app("What growth, a transaction and a reshape cost a store in use");
    app.add_option("what", what, "adds, txn or reshape; all without")
        ->check(CLI::IsMember({"adds", "txn", "reshape"}));
    app.add_option("--adds", adds, "records to grow to");
    app.add_option("--changes", changes, "changes of a transaction");
    app.add_option("--records", records, "records of the store to reshape");
    app.add_option("--rounds", rounds, "rounds");
    app.add_option("--out", file, "where the results go, as JSON");
    CLI11_PARSE(app, argc, argv);
    use_own_shm(false);
    setenv("SYSMGR_MMAP_LIMIT", "2147483648", 0);
    ns_per_tick();
    json out;
    // The reshapes first: their processes must come from one that has used no store yet.
    if (what.empty() || what == "reshape") {
        out["reshape_reader"] = reshape_beside(records, false);
        out["reshape_writer"] = reshape_beside(records, true);
    }
    if (what.empty() || what == "txn")
        out["txn"] = run_txn(changes, rounds);
    if (what.empty() || what == "adds")
        out["growth"] = run_adds(adds, std::max(1, rounds * 3 / 5));
    if (!file.empty())
        std::ofstream(file) << out.dump(1) << "\n";
    return 0;
}
