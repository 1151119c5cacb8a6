// What the machine and this process's surroundings mean for stores.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>
#include <x86intrin.h>

#include <filesystem>
#include <fstream>

#include "shkvctl/common.h"
#include "shkvctl/doctor.h"
#include "shkvctl/leftovers.h"
#include "shkvctl/listing.h"
#include "shkvctl/raw_stats.h"

namespace
{
constexpr long TMPFS = 0x01021994;
constexpr uint64_t CONTAINER_SHM = 64u << 20;

void add(Findings &findings, Finding::Level level, std::string what, std::string todo = "")
{
    findings.push_back({level, "machine", std::move(what), std::move(todo)});
}

// ---- Room ----

void examine_room(Findings &findings)
{
    struct statfs shm;
    if (statfs("/dev/shm", &shm) != 0)
        return add(findings, Finding::PROBLEM, fmt::format("/dev/shm is not there: {}", strerror(errno)),
                   "mount a tmpfs on it");
    uint64_t size = shm.f_blocks * (uint64_t)shm.f_bsize, left = shm.f_bavail * (uint64_t)shm.f_bsize;
    if (shm.f_type != TMPFS)
        add(findings, Finding::WARNING,
            "/dev/shm is no tmpfs: stores are slow there, and may outlive a restart", "mount a tmpfs on it");
    if (size == CONTAINER_SHM)
        add(findings, Finding::WARNING, "/dev/shm has 64 MiB, what a container gets that does not ask for more",
            "give the container more (--shm-size=1g, or shm_size in a compose file)");
    Demand all;
    for (const Listed &store : all_stores()) {
        Demand one = demand_of(RawStore(dbname_of(store.uri)));
        all.taken += one.taken;
        all.promised += one.promised;
        all.growth += one.growth;
    }
    std::string sum =
        fmt::format("/dev/shm has {}, {} of it free; the stores take {}, their lengths promise {} more, "
                    "and they may grow by {}",
                    human_size(size), human_size(left), human_size(all.taken), human_size(all.promised),
                    human_size(all.growth));
    if (all.promised > left)
        add(findings, Finding::PROBLEM, sum + ": a store can run out of memory before it is full",
            "make /dev/shm larger (mount -o remount,size=2g /dev/shm), or destroy stores");
    else if (all.promised + all.growth > left)
        add(findings, Finding::WARNING, sum + ": not all of them can grow as far as they may",
            "make /dev/shm larger (mount -o remount,size=2g /dev/shm), or turn growth off: shkvctl set-opts "
            "STORE "
            "--grow off");
    else
        add(findings, Finding::FINE, sum);
}

// ---- What takes stores away ----

// The last word of the configuration counts; the default is yes.
bool remove_ipc()
{
    bool yes = true;
    std::vector<std::filesystem::path> files = {"/etc/systemd/logind.conf"};
    for (const char *dir :
         {"/usr/lib/systemd/logind.conf.d", "/run/systemd/logind.conf.d", "/etc/systemd/logind.conf.d"}) {
        std::error_code err;
        for (const auto &entry : std::filesystem::directory_iterator(dir, err))
            files.push_back(entry.path());
    }
    for (const auto &file : files) {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);)
            if (line.starts_with("RemoveIPC="))
                yes = line != "RemoveIPC=no" && line != "RemoveIPC=false" && line != "RemoveIPC=0";
    }
    return yes;
}

void examine_logind(Findings &findings)
{
    if (access("/run/systemd/seats", F_OK) != 0 || !remove_ipc())
        return;
    for (const Listed &store : all_stores()) {
        struct stat st;
        if (stat(RawStore::path(dbname_of(store.uri), OBJ_SN).c_str(), &st) != 0 || st.st_uid < 1000)
            continue;
        return add(
            findings, Finding::WARNING,
            fmt::format("systemd-logind removes the shared memory of a user who has logged out (RemoveIPC), "
                        "and store '{}' belongs to an ordinary user, {}",
                        store.uri, st.st_uid),
            "set RemoveIPC=no in /etc/systemd/logind.conf, or run the services as a system user");
    }
}

void examine_directories(Findings &findings)
{
    for (const char *dir : {SHKV_DB_DIR, SHKV_MU_DIR})
        if (access(dir, F_OK) == 0 && access(dir, R_OK | W_OK | X_OK) != 0)
            add(findings, Finding::WARNING,
                fmt::format("{} is not for this user to write: no create, no destroy", dir),
                fmt::format("chmod 1777 {}", dir));
}

// ---- Limits ----

void examine_limits(Findings &findings)
{
    work_out_limits();
    const char *env = getenv("SYSMGR_MMAP_LIMIT");
    add(findings, Finding::NOTE,
        fmt::format("a process like this one may make a store of {}, and all stores of its service may have {} "
                    "together; SYSMGR_MMAP_LIMIT is {}",
                    human_size(shkv_get_process_max_db_sz()), human_size(shkv_memory_limit_process),
                    env ? escape(env) : "not set"),
        "if that is too little, set SYSMGR_MMAP_LIMIT (bytes, to 2147483648) in the services");
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < 256)
        add(findings, Finding::WARNING,
            fmt::format("a process may have {} files open, and an open store takes five", files.rlim_cur),
            "raise it with ulimit -n, or LimitNOFILE= of a service");
    rlimit space;
    if (getrlimit(RLIMIT_AS, &space) == 0 && space.rlim_cur != RLIM_INFINITY &&
        space.rlim_cur < 4ull * shkv_get_process_max_db_sz())
        add(findings, Finding::WARNING,
            fmt::format("the address space is limited to {}: large stores may not map",
                        human_size(space.rlim_cur)),
            "raise it with ulimit -v");
}

// ---- The registry ----

void examine_registry(Findings &findings)
{
    RawStore registry(SHKV_REGISTRY_NAME);
    if (!registry.exists()) {
        if (!all_stores().empty())
            add(findings, Finding::PROBLEM,
                "there are stores, and the registry that lists them is missing: "
                "nobody can open one for writing",
                "make a store, which makes the registry anew, then list the others with: shkvctl gc --yes");
        return;
    }
    if (!registry.complete())
        return add(findings, Finding::PROBLEM, "the registry is not complete: nobody can make a store",
                   "clear it up with: shkvctl gc --yes");
    SpaceStats space = space_stats(registry, registry.active_ud());
    uint64_t room = space.units > space.reserve ? space.units - space.reserve : 0;
    std::string words = fmt::format("the registry lists {}, and has room for {}; it does not grow",
                                    count_of(registry_records().size(), "store"), thousands(room));
    if (space.used * 100 > room * 95)
        add(findings, Finding::PROBLEM, words + ": creates are about to fail",
            "destroy stores that nobody needs; see what is left over with: shkvctl gc");
    else if (space.used * 100 > room * 75)
        add(findings, Finding::WARNING, words, "see what is left over with: shkvctl gc");
    else
        add(findings, Finding::FINE, words);
}

// ---- The clock ----

double now_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec * 1e-3;
}

void examine_clock(Findings &findings)
{
    double ratio = clock_ratio();
    if (ratio == 0)
        return add(
            findings, Finding::WARNING,
            "/proc/cpuinfo has no \"cpu MHz\": the library has no clock, and hands records out again without "
            "waiting for readers that may stand on them",
            "nothing can be done from here; a reader notices a record that was reused by its checksum");
    std::string words =
        fmt::format("the library's clock runs at {:.2f} times the true rate (by the first \"cpu MHz\" "
                    "of /proc/cpuinfo when it was loaded)",
                    1 / ratio);
    if (ratio < 0.5 || ratio > 2)
        add(findings, Finding::WARNING,
            words + fmt::format(": its wait of 50 ms takes {:.0f} ms, and a slice of a rebuild is as much {}",
                                50 * ratio, ratio < 1 ? "shorter" : "longer"),
            "keep the processor at its nominal rate while services start (cpufreq governor performance)");
    else
        add(findings, Finding::FINE, words);
}

void examine_leftovers(Findings &findings, const Users &users)
{
    for (const Leftover &left : leftovers(users))
        findings.push_back({Finding::WARNING, left.uri,
                            fmt::format("{}: {}", leftover_name(left.kind), leftover_words(left.kind)),
                            left.kept.empty() ? fmt::format("shkvctl gc --yes ({})", leftover_todo(left.kind))
                                              : "nothing yet: " + left.kept});
}
} // namespace

Demand demand_of(const RawStore &raw)
{
    Demand demand;
    for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++) {
        struct stat st;
        if (raw.object(kind).fd < 0 || fstat(raw.object(kind).fd, &st) != 0)
            continue;
        uint64_t has = (uint64_t)st.st_blocks * 512, length = (uint64_t)st.st_size;
        demand.taken += has;
        demand.promised += length > has ? length - has : 0;
    }
    int ud = raw.active_ud();
    uint64_t most = shkv_get_process_max_db_sz();
    if (raw.complete() && ud && raw.sn().auto_rz && !(raw.sn().conf_flg & CONF_MULTIWR) &&
        raw.ud(ud).obj_sz < most)
        demand.growth = most - raw.ud(ud).obj_sz;
    return demand;
}

double clock_ratio()
{
    double us = now_us();
    uint64_t tsc = __rdtsc();
    usleep(50000);
    uint64_t cycles = __rdtsc() - tsc;
    us = now_us() - us;
    uint64_t library_us = timer_diff_cycle_in_usec(cycles, 0);
    return library_us == ~0ull || library_us == 0 ? 0 : us / (double)library_us;
}

void examine_machine(Findings &findings, const Users &users)
{
    examine_room(findings);
    examine_directories(findings);
    examine_limits(findings);
    examine_registry(findings);
    examine_logind(findings);
    examine_clock(findings);
    examine_leftovers(findings, users);
}
