// The processes that have stores mapped, from /proc.
#include "shkvctl/users.h"

#include <dirent.h>
#include <fmt/format.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "shkvctl/procs.h"

namespace
{
std::string proc_path(uint32_t pid, const char *file)
{
    return fmt::format("/proc/{}/{}", pid, file);
}

std::string read_proc(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<uint32_t> numbers_in(const std::string &dir)
{
    std::vector<uint32_t> list;
    DIR *stream = opendir(dir.c_str());
    for (dirent *entry; stream && (entry = readdir(stream));)
        if (isdigit((unsigned char)entry->d_name[0]))
            list.push_back((uint32_t)strtoul(entry->d_name, nullptr, 10));
    if (stream)
        closedir(stream);
    return list;
}

// The last number of a line of a status file: of NSpid, the id in the innermost namespace.
uint32_t status_number(const std::string &path, const std::string &name)
{
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(name + ":"))
            return (uint32_t)strtoul(line.c_str() + line.find_last_of(" \t") + 1, nullptr, 10);
    return 0;
}

bool in_other_pids(uint32_t pid)
{
    struct stat mine, its;
    return stat("/proc/self/ns/pid", &mine) == 0 && stat(proc_path(pid, "ns/pid").c_str(), &its) == 0 &&
           mine.st_ino != its.st_ino;
}

std::string owner_of(uint32_t pid)
{
    struct stat st;
    if (stat(fmt::format("/proc/{}", pid).c_str(), &st) != 0)
        return "?";
    const passwd *user = getpwuid(st.st_uid);
    return user ? user->pw_name : std::to_string(st.st_uid);
}

// Boot time plus the ticks in field 22 of stat, counted behind the name, which may hold anything.
double start_of(uint32_t pid)
{
    static const double boot = [] {
        std::ifstream in("/proc/stat");
        for (std::string word; in >> word;)
            if (double value = 0; word == "btime" && in >> value)
                return value;
        return 0.0;
    }();
    std::string text = read_proc(proc_path(pid, "stat"));
    std::istringstream rest(text.substr(std::min(text.rfind(')') + 1, text.size())));
    std::string word;
    for (int field = 3; field <= 22 && rest >> word; field++)
        ;
    double ticks = strtod(word.c_str(), nullptr);
    return rest && boot > 0 ? boot + ticks / (double)sysconf(_SC_CLK_TCK) : 0;
}

std::string command_of(uint32_t pid)
{
    std::string line = read_proc(proc_path(pid, "cmdline"));
    while (!line.empty() && line.back() == 0)
        line.pop_back();
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line;
}

bool readable_maps(uint32_t pid)
{
    std::ifstream in(proc_path(pid, "maps"));
    return in.good();
}

uint64_t device(unsigned major_no, unsigned minor_no)
{
    return makedev(major_no, minor_no);
}

// The thread of pid that calls itself tid, in its own namespace.
bool has_thread(const Process &process, uint32_t tid)
{
    if (!process.other_pids)
        return std::filesystem::exists(proc_path(process.pid, "task/") + std::to_string(tid));
    auto tasks = numbers_in(proc_path(process.pid, "task"));
    return std::any_of(tasks.begin(), tasks.end(), [&](uint32_t task) {
        return status_number(proc_path(process.pid, "task/") + std::to_string(task) + "/status", "NSpid") ==
               tid;
    });
}
} // namespace

Process process_of(uint32_t pid)
{
    Process process;
    process.pid = pid;
    process.name = read_proc(proc_path(pid, "comm"));
    while (process.name.ends_with('\n'))
        process.name.pop_back();
    process.user = owner_of(pid);
    process.command = command_of(pid);
    process.started = start_of(pid);
    process.other_pids = in_other_pids(pid);
    return process;
}

Json json_process(const Process &process)
{
    Json obj = {{"pid", process.pid}, {"user", process.user}};
    json_put(obj, "name", process.name);
    json_put(obj, "command", process.command);
    obj["started"] = process.started;
    obj["other_pid_namespace"] = process.other_pids;
    return obj;
}

std::string date_words(double seconds)
{
    time_t whole = (time_t)seconds;
    tm local;
    char text[32] = "?";
    if (seconds > 0 && localtime_r(&whole, &local))
        strftime(text, sizeof text, "%F %T", &local);
    return text;
}

Users::Users()
{
    for (uint32_t pid : numbers_in("/proc"))
        look_into(pid);
}

void Users::look_into(uint32_t pid)
{
    std::ifstream maps(proc_path(pid, "maps"));
    if (!maps) {
        hidden_ += std::filesystem::exists(fmt::format("/proc/{}", pid));
        return;
    }
    for (std::string line; std::getline(maps, line);) {
        size_t at = line.find("/shkvdb/");
        if (at == std::string::npos && line.find("/shkvmu/") == std::string::npos)
            continue;
        char perms[5] = "";
        unsigned dev_major = 0, dev_minor = 0;
        unsigned long long ino = 0;
        if (sscanf(line.c_str(), "%*s %4s %*s %x:%x %llu", perms, &dev_major, &dev_minor, &ino) != 4)
            continue;
        ranges_[pid].push_back({device(dev_major, dev_minor), ino, perms[1] == 'w'});
        if (constexpr std::string_view gone = " (deleted)"; at != std::string::npos && line.ends_with(gone))
            earlier_[pid].insert(line.substr(at + 8, line.size() - at - 8 - gone.size()));
    }
}

std::vector<User> Users::of(const RawStore &store) const
{
    std::map<uint32_t, User> users;
    for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++) {
        struct stat st;
        if (store.object(kind).fd < 0 || fstat(store.object(kind).fd, &st) != 0)
            continue;
        for (const auto &[pid, ranges] : ranges_)
            for (const Range &range : ranges) {
                if (pid == (uint32_t)getpid() || range.dev != st.st_dev || range.ino != st.st_ino)
                    continue;
                users[pid].objects.insert(kind);
                users[pid].writes |= range.write && kind != OBJ_SN;
            }
    }
    std::vector<User> list;
    for (auto &[pid, user] : users) {
        user.process = process_of(pid);
        list.push_back(user);
    }
    return list;
}

std::vector<User> Users::of_object(int fd) const
{
    std::vector<User> list;
    struct stat st;
    if (fstat(fd, &st) != 0)
        return list;
    for (const auto &[pid, ranges] : ranges_)
        if (pid != (uint32_t)getpid() && std::any_of(ranges.begin(), ranges.end(), [&](const Range &range) {
                return range.dev == st.st_dev && range.ino == st.st_ino;
            }))
            list.push_back({process_of(pid), {}, false});
    return list;
}

std::vector<Process> Users::of_earlier(const std::string &dbname) const
{
    std::vector<Process> list;
    for (const auto &[pid, names] : earlier_)
        if (names.contains(dbname))
            list.push_back(process_of(pid));
    return list;
}

// A thread id says little alone: it may have been given out anew, or count in another namespace.
// The writer is a thread of a process that has the store mapped.
Writer Users::who_is(uint32_t tid, const std::vector<User> &users) const
{
    for (const User &user : users)
        if (has_thread(user.process, tid))
            return {Writer::LIVES, tid, user.process};
    if (!thread_lives(tid))
        return {Writer::DEAD, tid, {}};
    uint32_t pid = status_number(proc_path(tid, "status"), "Tgid");
    if (pid == 0)
        pid = tid;
    bool visible = pid == (uint32_t)getpid() || readable_maps(pid);
    return {visible ? Writer::STRANGER : Writer::UNKNOWN, tid, process_of(pid)};
}

std::vector<Writer> Users::writers(const RawStore &store) const
{
    std::vector<Writer> list;
    std::vector<User> users = of(store);
    bool several = (store.sn().conf_flg & CONF_MULTIWR) != 0;
    for (uint32_t tid : store.sn().wr_tid) {
        if (tid != 0)
            list.push_back(who_is(tid, users));
        if (!several)
            break;
    }
    return list;
}
