// Short forms for tests that work on stores through the interface.
#pragma once
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <set>
#include <string.h>

#include "support/plain.h"

// Keys to 16 bytes, values to 40, owned by nobody's budget.
inline int make_store(const char *name, uint32_t conf_flg, uint32_t maxents, uint32_t uuid = 0)
{
    shkv_params params = {16, 40, maxents, conf_flg, 0};
    uint32_t err = 0;
    int handle = shkv_create(name, uuid, &params, 0, &err);
    EXPECT_NE(0, handle) << name << ": " << err;
    return handle;
}

inline int open_store(const char *name, uint32_t mode)
{
    uint32_t err = 0;
    return shkv_open(name, 0, 0, mode, &err);
}

inline int put(int handle, const std::string &key, const std::string &value)
{
    shkv_buf key_buf = buf_of(key), val_buf = buf_of(value);
    return shkv_add(handle, &key_buf, &val_buf, 0);
}

inline int del(int handle, const std::string &key)
{
    shkv_buf key_buf = buf_of(key);
    return shkv_delete(handle, &key_buf);
}

// *value is empty unless the result is 0.
inline int get(int handle, const std::string &key, std::string *value)
{
    answers got = look_up(handle, {key});
    *value = got.values[0];
    return got.results[0];
}

inline contents iterate_all(int handle)
{
    contents all;
    int cnt = read_all(handle, &all);
    EXPECT_EQ(cnt, (int)all.size()); // none twice
    return all;
}

// The paths of the objects of all stores.
inline std::set<std::string> all_objects()
{
    std::set<std::string> paths;
    for (const char *dir : {SHKV_DB_DIR, SHKV_MU_DIR})
        for (const auto &entry : std::filesystem::directory_iterator(dir))
            paths.insert(entry.path());
    return paths;
}

// A child whose expectations count when it ends.
template <typename F> pid_t start_child(F what)
{
    return start_process([&] { return what() || testing::Test::HasFailure(); });
}

template <typename F> void in_child(F what)
{
    EXPECT_EQ(0, end_of(start_child(what)));
}

// A child that does what and then waits to be killed.
struct other_process {
    pid_t pid;

    explicit other_process(const std::function<void()> &what)
    {
        int ready[2];
        EXPECT_EQ(0, pipe(ready));
        pid = start_process([&] {
            what();
            char ok = !testing::Test::HasFailure();
            return write(ready[1], &ok, 1) == 1 ? pause() : 1;
        });
        char ok = 0;
        close(ready[1]);
        EXPECT_EQ(1, read(ready[0], &ok, 1));
        EXPECT_TRUE(ok);
        close(ready[0]);
    }
    void die()
    {
        if (pid == 0)
            return;
        kill(pid, SIGKILL);
        EXPECT_EQ(-SIGKILL, end_of(pid));
        pid = 0;
    }
    ~other_process() { die(); }
};

// in_child where nothing was ever created, with a /dev/shm of that size and no handle open.
template <typename F> void on_fresh_machine(const char *shm_sz, F what)
{
    in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 || !remount_shm(shm_sz))
            return 1;
        memset(shkv_db_heads, 0, sizeof shkv_db_heads);
        what();
        return 0;
    });
}
