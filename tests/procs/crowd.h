// A store with a writer and two readers, each a process of its own. Keys k0, k1, ... are always there and
// their values count versions; keys c0, ... come and go, g0, ... are only added. Whoever sees a value that
// is not whole, is older than what was committed before the lookup or newer than what was begun behind
// it, or misses a key, says so and ends.
#pragma once
#include "support/kv.h"

// Which threads of a process look beside the one that works: none, some by another handle, one by the same too.
enum crowd_threads { ALONE, BY_ANOTHER, BY_THE_SAME };

struct crowd_plan {
    const char *name;
    shkv_params params;
    uint32_t keys;
    uint32_t churn = 0;   // keys that come and go
    uint32_t val_max = 0; // values are filled up to so many bytes, each to a length of its own
    bool full_ok = false; // a store that cannot grow refuses some writes
    crowd_threads threads = ALONE; // with threads the writer also has transactions and batches
};

// What the processes tell one another.
struct board {
    uint32_t stop, grow, growing; // grow: new keys per round of the writer; growing: g0 to this less one are there
    uint32_t writes, lookups[2];
    uint32_t versions[][2]; // per key: begun, committed
};

inline uint32_t next_random(uint32_t *state_p)
{
    *state_p ^= *state_p << 13;
    *state_p ^= *state_p >> 17;
    return *state_p ^= *state_p << 5;
}

class crowd
{
  public:
    explicit crowd(const crowd_plan &how);
    ~crowd() { munmap(shared, board_sz()); }
    bool goes_on() const;                     // everybody has come forward since; of the killed writer nothing is asked
    void wait_for_writes(uint32_t more) const; // from now on
    void kill_writer();
    void end(); // all stop, and none has found anything
    void expect_all(const kv &by) const;      // every k is as the board has it

    const crowd_plan plan;
    board *const shared;

  private:
    size_t board_sz() const { return sizeof(board) + 8ull * plan.keys; }
    std::string value_of(uint32_t key, uint32_t version) const;
    bool value_good(uint32_t key, int result, const std::string &found, uint32_t from) const;
    int look_on(const kv &by, uint32_t *lookups_p, uint32_t seed, bool lite) const;
    int write_on(const kv &to) const;
    template <typename F> int beside_threads(const kv &by, uint32_t *lookups_p, F work) const;
    int read(uint32_t no) const;
    int write() const;

    pid_t pids[3];
};
