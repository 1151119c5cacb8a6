// Command lines of shkvctl, run by a shell one after the other in a /dev/shm of their own.
#pragma once
#include <vector>

#include "support/store.h"

struct Step {
    const char *line; // after "shkvctl ", or a whole line of shell when it begins with '!'
    int exit_code;
    std::string output; // both streams; "~" begins a regular expression that must be found in it
};

std::string run(const std::string &line, int *exit_code);
void play(const std::vector<Step> &steps);  // in a fresh /dev/shm
void go_on(const std::vector<Step> &steps); // in the one that is there

// Another process that holds a store, as a service would: it opens it, does work once, and waits.
struct Holder : other_process {
    explicit Holder(const char *uri, uint32_t mode = SHKV_AM_WRITE, const std::function<void(int handle)> &work = {})
        : other_process([&] {
              int handle = open_store(uri, mode);
              EXPECT_GT(handle, 0);
              if (handle && work)
                  work(handle);
          })
    {
    }
};
