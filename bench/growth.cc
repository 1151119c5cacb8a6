// What growth, a transaction and a reshape cost a store that is in use.
//
//   bench_growth adds     times of single adds through all growths from 1,000 records on, and what
//                         the longest of them are made of
//   bench_growth txn      a commit of staged changes against the same adds without a transaction
//   bench_growth reshape  records moved a second; the writer's and two readers' throughput and worst
//                         latency before, during and after several reshapes, there and back
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

static int create_store(const char *name, uint32_t entries, uint32_t conf_flg = CONF_FIXEDMM)
{
    const bool fixed = conf_flg == CONF_FIXEDMM;
    const shkv_params params = {static_cast<uint16_t>(fixed ? kKey : 0), static_cast<uint16_t>(fixed ? 32 : 0),
                                entries, conf_flg, 0};
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

// What the adder and the readers of all passes share. A reader opens its pass's store before the
// first growth and looks up committed keys until the pass ends.
struct growth_watch {
    uint32_t pass, ended, cnt; // records that are there
    uint64_t lookups, missing, wrong;
};

static uint32_t load(const uint32_t *word)
{
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}
static void set(uint32_t *word, uint32_t val)
{
    __atomic_store_n(word, val, __ATOMIC_RELEASE);
}

static bool read_pass(growth_watch *w, uint32_t pass)
{
    while (load(&w->pass) < pass)
        usleep(1000);
    uint32_t err = 0;
    const int handle = shkv_open("growth", UUID_BIG_A, 0, SHKV_AM_READ, &err);
    rng r = {pass};
    uint64_t lookups = 0, missing = 0, wrong = 0;
    for (; handle && load(&w->ended) < pass; lookups++) {
        const uint32_t number = r.below(load(&w->cnt));
        char key[kKey], val[64];
        make_key(number, key);
        const shkv_buf k = {key, kKey};
        shkv_buf v = {val, sizeof val};
        const int result = shkv_lookup(handle, &k, &v);
        missing += result == 2;
        wrong += result != 2 && (result != 0 || v.len != 32 || !value_sealed(val, v.len, number));
    }
    w->lookups += lookups, w->missing += missing, w->wrong += wrong;
    shkv_close(handle);
    return handle != 0;
}

// Adds 0 to best.size() - 1 and keeps each one's best time. Growth comes at the same adds in every
// pass, so a pause of the machine that one pass meets falls out with the next. The watched adds are
// taken apart: what they spent in the calls counted above, and their page faults.
static void add_all(uint32_t conf_flg, std::vector<uint32_t> &best, std::map<uint32_t, slow_add> &watched,
                    growth_watch *w)
{
    const int handle = create_store("growth", 1000, conf_flg);
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
        if (i % 64 == 63)
            set(&w->cnt, i + 1);
        if (i == 511) { // the reader is there before the first growth
            set(&w->pass, w->pass + 1);
            usleep(50000);
        }
    }
    set(&w->ended, w->pass);
    usleep(20000);
    shkv_destroy(handle);
}

static json run_adds(const char *name, uint32_t conf_flg, uint32_t cnt, int rounds)
{
    growth_watch *w = shared_memory<growth_watch>();
    std::vector<pid_t> readers; // from a process that has used no store yet
    for (uint32_t pass = 1; pass <= 2u * static_cast<uint32_t>(rounds); pass++)
        readers.push_back(child([&] { return read_pass(w, pass); }));
    std::vector<uint32_t> best(cnt, UINT32_MAX), order(cnt);
    std::map<uint32_t, slow_add> watched;
    for (int r = 0; r < rounds; r++)
        add_all(conf_flg, best, watched, w);
    for (uint32_t i = 0; i < cnt; i++)
        order[i] = i;
    const size_t shown = std::min(cnt, 12u);
    const std::vector<uint32_t> times = best;
    std::partial_sort(order.begin(), order.begin() + shown, order.end(),
                      [&](uint32_t a, uint32_t b) { return times[a] > times[b]; });
    for (size_t i = 0; i < shown; i++)
        watched[order[i]] = {};
    for (int r = 0; r < rounds; r++)
        add_all(conf_flg, best, watched, w);
    bool good = true;
    for (const pid_t pid : readers)
        good &= child_good(pid);
    std::vector<uint32_t> sorted = times;
    std::sort(sorted.begin(), sorted.end());

    json out = {{"store", name},      {"adds", cnt},           {"from", 1000},          {"rounds", rounds},
                {"readers_ok", good}, {"lookups", w->lookups}, {"missing", w->missing}, {"wrong", w->wrong}};
    printf("%s: %u adds into a store created for 1,000, each one's best of %d; beside them %lu lookups by "
           "readers that were there before: %lu missing, %lu wrong%s\n",
           name, cnt, rounds, static_cast<unsigned long>(w->lookups), static_cast<unsigned long>(w->missing),
           static_cast<unsigned long>(w->wrong), good ? "" : ", a reader died");
    for (const auto &[label, share] :
         {std::pair("p50", .5), {"p90", .9}, {"p99", .99}, {"p99.9", .999}, {"p99.99", .9999}, {"max", 1.}}) {
        const double at = us(sorted[std::min<size_t>(cnt - 1, static_cast<size_t>(share * cnt))]);
        out[std::string(label) + "_us"] = at;
        printf("  %-8s %10.2f us\n", label, at);
    }
    printf("the slowest adds, us\n%10s %9s", "record", "total");
    for (const char *part : part_names)
        printf(" %9s", part);
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

// A case in a process of its own, which gives its results back as text.
template <class Fn> static json in_process(Fn fn)
{
    struct text {
        char bytes[1 << 16];
    };
    text *t = shared_memory<text>();
    if (!in_child([&] {
            snprintf(t->bytes, sizeof t->bytes, "%s", fn().dump().c_str());
            return true;
        }))
        die("a case failed");
    json out = json::parse(t->bytes, nullptr, false);
    munmap(t, sizeof *t);
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
    struct {
        uint64_t ops, bad, ticks;
        hist lat;
    } at[PHASES];
};
struct reshape_watch {
    uint32_t phase; // the parent moves it on
    uint32_t ready;
    watch procs[3]; // the writer and two readers
};

// Operations until the parent says that it ended; each counts for the phase in which it began.
template <class Op> static void watch_ops(const uint32_t *phase, watch &w, uint64_t seed, Op op)
{
    rng r = {seed};
    for (uint32_t ph; (ph = load(phase)) != ENDED;) {
        const uint64_t begin = __rdtsc();
        const bool good = op(r);
        const uint64_t took = __rdtsc() - begin;
        auto &at = w.at[ph];
        at.ops++, at.bad += !good, at.ticks += took;
        at.lat.add(took);
    }
}

// Three in four of the writes replace a record that is always there; the fourth adds one that is not,
// or deletes it again.
static bool write_one(int handle, rng &r, uint32_t n, uint32_t turn)
{
    if (turn % 4 != 3)
        return add_record(handle, r.below(n), turn) == 0;
    const uint32_t number = n + turn / 8 % 1000;
    if (turn % 8 == 3)
        return add_record(handle, number, turn) == 0;
    char key[kKey];
    make_key(number, key);
    const shkv_buf k = {key, kKey};
    return shkv_delete(handle, &k) == 0;
}

static bool read_one(int handle, rng &r, uint32_t n)
{
    char key[kKey], val[64];
    const uint32_t number = r.below(n);
    make_key(number, key);
    const shkv_buf k = {key, kKey};
    shkv_buf v = {val, sizeof val};
    return shkv_lookup(handle, &k, &v) == 0 && v.len == 32 && value_sealed(val, v.len, number);
}

// A writer and two readers, which have had the store open before, and reshapes beside them: each
// second one brings the objects back to where they were.
static json run_reshapes(uint32_t n, int times)
{
    const char *const name = "reshape";
    reshape_watch *w = shared_memory<reshape_watch>();
    std::vector<pid_t> pids;
    pids.push_back(child([&] {
        const int handle = create_store(name, n + n / 10);
        for (uint32_t i = 0; i < n; i++)
            add_record(handle, i, 0);
        set(&w->ready, 1);
        uint32_t turn = 0;
        watch_ops(&w->phase, w->procs[0], 7, [&](rng &r) { return write_one(handle, r, n, turn++); });
        return true;
    }));
    while (!load(&w->ready))
        usleep(1000);
    for (int i = 1; i < 3; i++)
        pids.push_back(child([&] {
            uint32_t err;
            const int handle = shkv_open(name, UUID_BIG_A, 0, SHKV_AM_READ, &err);
            watch_ops(&w->phase, w->procs[i], static_cast<uint64_t>(i),
                      [&](rng &r) { return read_one(handle, r, n); });
            return handle != 0;
        }));
    double secs[PHASES] = {};
    json out = {{"records", n}, {"reshapes", times}}, moved;
    bool good = true;
    usleep(1000000);
    secs[BEFORE] = 1;
    for (int i = 0; i < times; i++) {
        set(&w->phase, DURING);
        double at = wall_s();
        const int result = shkv_reshape_db(name, 0);
        const double took = wall_s() - at;
        set(&w->phase, AFTER);
        good &= result == 0;
        secs[DURING] += took;
        moved.push_back(n / std::max(1e-9, took - 1)); // its close sleeps for one second
        usleep(1000000 / static_cast<unsigned>(times));
        secs[AFTER] += 1. / times;
    }
    set(&w->phase, ENDED);
    for (const pid_t pid : pids)
        good &= child_good(pid);
    out["all_good"] = good;
    out["records_a_second"] = moved;
    std::vector<double> rates = moved;
    printf(
        "%d reshapes of %u records beside a writer and two readers%s: %.0f records moved a second (median)\n",
        times, n, good ? "" : ", WITH FAILURES", median(rates));
    printf("%-10s %8s %12s %8s %8s %8s %12s %7s\n", "", "", "ops/s", "p50 ns", "p99 ns", "p99.9", "worst us",
           "failed");
    for (int i = 0; i < 3; i++) {
        const char *who = i == 0 ? "writer" : i == 1 ? "reader" : "reader_2";
        for (int p = 0; p < PHASES; p++) {
            const auto &s = w->procs[i].at[p];
            printf("%-10s %8s %12.0f %8.0f %8.0f %8.0f %12.1f %7lu\n", who, phase_names[p],
                   static_cast<double>(s.ops) / secs[p], s.lat.percentile_ns(.5), s.lat.percentile_ns(.99),
                   s.lat.percentile_ns(.999), us(s.lat.max), static_cast<unsigned long>(s.bad));
            out[who][phase_names[p]] = {{"ops_a_second", static_cast<double>(s.ops) / secs[p]},
                                        {"p50_ns", s.lat.percentile_ns(.5)},
                                        {"p99_ns", s.lat.percentile_ns(.99)},
                                        {"p99.9_ns", s.lat.percentile_ns(.999)},
                                        {"worst_us", us(s.lat.max)},
                                        {"failed", s.bad}};
        }
    }
    return out;
}

int main(int argc, char **argv)
{
    uint32_t adds = 4000000, changes = 100000, records = 1000000;
    int rounds = 5, reshapes = 6;
    std::string what, file;
    CLI::App app("What growth, a transaction and a reshape cost a store in use");
    app.add_option("what", what, "adds, txn or reshape; all without")
        ->check(CLI::IsMember({"adds", "txn", "reshape"}));
    app.add_option("--adds", adds, "records to grow to");
    app.add_option("--changes", changes, "changes of a transaction");
    app.add_option("--records", records, "records of the store to reshape");
    app.add_option("--reshapes", reshapes, "reshapes in a row");
    app.add_option("--rounds", rounds, "rounds");
    app.add_option("--out", file, "where the results go, as JSON");
    CLI11_PARSE(app, argc, argv);
    use_own_shm(false);
    setenv("SYSMGR_MMAP_LIMIT", "2147483648", 0);
    ns_per_tick();
    json out;
    // Each case in processes that have used no store yet.
    if (what.empty() || what == "reshape")
        out["reshape"] = run_reshapes(records, reshapes);
    if (what.empty() || what == "txn")
        out["txn"] = in_process([&] { return run_txn(changes, rounds); });
    if (what.empty() || what == "adds") {
        const int passes = std::max(1, rounds / 2);
        const std::pair<const char *, uint32_t> stores[] = {
            {"fixed", CONF_FIXEDMM}, {"vector", CONF_VECTORMM}, {"vector_chunked", CONF_VECTORMM | CONF_SHMAP}};
        for (const auto &[name, conf_flg] : stores)
            out["growth"].push_back(in_process([&] { return run_adds(name, conf_flg, adds, passes); }));
    }
    if (!file.empty())
        std::ofstream(file) << out.dump(1) << "\n";
    return 0;
}
