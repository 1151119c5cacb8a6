// What the crash explorer and the fault injection share: a small language of operations on one
// store, the oracle that follows it, and states of the file system that can be put back.
#pragma once
#include <functional>

#include "support/plain.h"

constexpr const char *STORE = "explored";

enum op_kind { ADD, DEL, TXN, COMMIT, ABORT, BATCH_ADD, BATCH_DEL, RESHAPE, DESTROY, CREATE, LOOKUP };
struct op {
    op_kind kind;
    int first = 0, last = 0; // keys first to last, both included; of a reshape: sizes of table and space
    int val_sz = 8;
};

enum store_kind { FIXED, VECTOR, SHMAP, PROTECTED };
constexpr const char *KIND_NAMES[] = {"fixed", "vector", "shmap", "L3"};

// Each run of an operation stores other values: the round is part of them.
extern int round_no;
extern int singles_done; // of the last operation's single adds or deletes

int run_op(int handle, const op &what);
int open_store(uint32_t mode, uint32_t *err_p);

// The oracle: what readers see (now), and what the writer of a transaction sees (staged).
struct model {
    contents now, staged;
    bool txn = false;

    void apply(const op &what, int round);
};

struct snapshot {
    std::map<std::string, std::string> files;
};
snapshot take_snapshot();
void restore_snapshot(const snapshot &snap);

// In a child without standard output; its exit code, or -signal.
template <typename F> int in_child(F what)
{
    return end_of(start_process([&] { return be_quiet(), what(); }));
}

// ---- scenarios: what a store has gone through, and the operations that are cut short ----

struct scenario {
    const char *name;
    store_kind kind;
    std::vector<op> before; // what has been done when the operation begins
    std::vector<op> act;    // killed at every store
    bool fill = false;      // and then the space was filled: the first add grows it
    uint16_t rz_tm_chk = 0; // slice of a rebuild in microseconds; 0: all at once
    bool in_short = true;
};

std::vector<scenario> scenarios();

// A scenario ready to run: the objects at rest, and what may be found after act was cut short.
struct prepared {
    snapshot at_rest;
    contents before, after;
    std::vector<contents> allowed; // before, after each single step, after
    model base; // at rest
    int base_round = 0;
};
// Opens as the writer and does it. The results of the steps, when results_p is given; the handle.
struct op_result {
    int result;
    int done; // of its single adds or deletes, so many went through
};
int act(const scenario &scene, const prepared &state, std::vector<op_result> *results_p);

// As the next process: opens (as a writer, which repairs), compares the contents, checks every
// invariant, works on. Empty when all is right.
std::string judge_state(const scenario &scene, const prepared &state);

// ---- A program that goes through the scenarios --------------------------------------------------

struct tally {
    const char *unit, *done; // "states", "explored"
    uint64_t runs = 0, failed = 0;

    void fail(const scenario &scene, const std::string &where, const std::string &why);
};

// Prepares each of the list, or the ones of this name, and runs it. The program's exit code.
using runner = std::function<void(const scenario &, const prepared &, tally *)>;
int run_scenarios(const std::vector<scenario> &list, const std::string &only, tally total, const runner &run);
