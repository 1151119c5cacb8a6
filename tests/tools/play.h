// Command lines of shkvctl, run by a shell one after the other in a /dev/shm of their own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

struct Step {
    const char *line; // after "shkvctl ", or a whole line of shell when it begins with '!'
    int exit_code;
    const char *output; // both streams; "~" begins a regular expression that must be found in it
};

std::string run(const std::string &line, int *exit_code);
void play(const std::vector<Step> &steps);  // in a fresh /dev/shm
void go_on(const std::vector<Step> &steps); // in the one that is there

// Another process that holds a store, as a service would: it opens it, does work once, and waits.
class Holder
{
  public:
    explicit Holder(const char *uri, uint32_t mode = 1, const std::function<void(int handle)> &work = {});
    ~Holder()
    {
        kill_it();
    }
    void kill_it();
    pid_t pid() const
    {
        return pid_;
    }

  private:
    pid_t pid_;
};
