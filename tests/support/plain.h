// What every program here uses that works on stores, with gtest or without.
#pragma once
#include <errno.h>
#include <map>
#include <signal.h>
#include <stdio.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "check/store_check.h"
#include "shkv.h"
#include "support/main.h"

using contents = std::map<std::string, std::string>;

inline shkv_buf buf_of(const std::string &text)
{
    return {const_cast<char *>(text.data()), (uint32_t)text.size()};
}

inline std::vector<shkv_buf> bufs_of(const std::vector<std::string> &texts)
{
    std::vector<shkv_buf> bufs;
    for (const std::string &text : texts)
        bufs.push_back(buf_of(text));
    return bufs;
}

// What lookups of these keys give, as a group or one by one. A value is empty unless its result is 0.
struct answers {
    std::vector<int> results;
    std::vector<std::string> values;
};
inline answers look_up(int handle, const std::vector<std::string> &keys, bool group = false)
{
    constexpr uint32_t ROOM = 65000;
    static thread_local std::vector<char> rooms(32 * ROOM);
    std::vector<shkv_buf> key_bufs = bufs_of(keys), vals;
    answers all{std::vector<int>(keys.size()), {}};
    for (size_t i = 0; i < keys.size(); ++i) {
        vals.push_back({&rooms[i * ROOM], ROOM});
        if (!group)
            all.results[i] = shkv_lookup(handle, &key_bufs[i], &vals[i]);
    }
    if (group)
        shkv_m_lookup(handle, key_bufs.data(), vals.data(), all.results.data(), (uint16_t)keys.size());
    for (size_t i = 0; i < keys.size(); ++i)
        all.values.emplace_back(&rooms[i * ROOM], all.results[i] == 0 ? vals[i].len : 0);
    return all;
}

// Adds all records; how many the iteration gave, -1 when it failed.
inline int read_all(int handle, contents *out_p)
{
    static char key_room[2048], val_room[65000];
    int cnt = 0, result = shkv_iterate(handle, nullptr, nullptr, nullptr, 1);
    for (; result == 0; ++cnt) {
        shkv_buf key = {key_room, sizeof key_room}, val = {val_room, sizeof val_room};
        if ((result = shkv_iterate(handle, &key, &val, nullptr, 0)) != 0)
            return result == ENOENT ? cnt : -1;
        (*out_p)[std::string(key_room, key.len)] = std::string(val_room, val.len);
    }
    return -1;
}

// What the checker finds wrong with the bytes of a store; strict: lost units, too.
constexpr const char *NO_STORE = "no such store";
inline std::string faults_of(const std::string &name, bool strict = true)
{
    store_image image;
    std::string text;
    if (!load_store(name, &image))
        return NO_STORE;
    for (const std::string &fault : check_image(image, strict).faults)
        text += fault + "\n";
    return text;
}

// ---- Processes ----------------------------------------------------------------------------------

// Memory that a process shares with its children.
template <typename T> T *shared_memory(size_t size = sizeof(T))
{
    return (T *)mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
}

inline uint32_t load(const uint32_t *word_p)
{
    return __atomic_load_n(word_p, __ATOMIC_SEQ_CST);
}
inline void store(uint32_t *word_p, uint32_t val)
{
    __atomic_store_n(word_p, val, __ATOMIC_SEQ_CST);
}

// Closes standard output: a delete that finds nothing prints "key not found".
inline void be_quiet()
{
    if (!freopen("/dev/null", "w", stdout))
        _exit(9);
}

// A child that does what and does not outlive us.
template <typename F> pid_t start_process(F what)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int result = what();
        fflush(stdout);
        _exit(result);
    }
    return pid;
}

// Its exit code, or -signal.
inline int end_of(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
