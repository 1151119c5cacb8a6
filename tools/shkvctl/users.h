// The processes that have stores mapped, from /proc: who they are, and which store each one uses.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "shkvctl/raw_store.h"
#include "shkvctl/json.h"

struct Process {
    uint32_t pid = 0;
    std::string name, user, command; // as they are, not escaped
    double started = 0;              // seconds since 1970; 0: not known
    bool other_pids = false;         // lives in another PID namespace than this tool
};

// What one process does with one store.
struct User {
    Process process;
    std::set<int> objects; // OBJ_*
    bool writes = false;   // a table is mapped for writing
};

// A writer's place in a supernode, and who that is.
struct Writer {
    enum State { DEAD, LIVES, STRANGER, UNKNOWN } state = DEAD;
    uint32_t tid = 0;
    std::optional<Process> process; // LIVES: the writer's. STRANGER: that of a thread with the same id
};

// One look at all processes. What other users' processes map takes root to see.
class Users
{
  public:
    Users();

    std::vector<User> of(const RawStore &store) const;
    std::vector<User> of_object(int fd) const;                        // of a single file
    std::vector<Process> of_earlier(const std::string &dbname) const; // of a destroyed store of this name
    std::vector<Writer> writers(const RawStore &store) const;
    size_t hidden() const // processes that could not be looked into
    {
        return hidden_;
    }

  private:
    struct Range {
        uint64_t dev, ino;
        bool write;
    };
    void look_into(uint32_t pid);
    Writer who_is(uint32_t tid, const std::vector<User> &users) const;

    std::map<uint32_t, std::vector<Range>> ranges_; // by process
    std::map<uint32_t, std::set<std::string>> earlier_;
    size_t hidden_ = 0;
};

Process process_of(uint32_t pid);
Json json_process(const Process &process);
std::string date_words(double seconds); // "2026-11-21 14:00:05", "?" for 0
