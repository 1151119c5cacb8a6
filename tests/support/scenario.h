// What the crash explorer and the fault injection share: a small language of operations on one
// store, the oracle that follows it, and states of the file system that can be put back.
#pragma once
#include <fcntl.h>
#include <map>
#include <signal.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "shkv.h"

using contents = std::map<std::string, std::string>;

constexpr const char *STORE = "explored";

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
int create_store(store_kind kind, uint32_t *err_p);
int open_store(uint32_t mode, uint32_t *err_p);
// Adds records 2000, 2001, ... until the next one would have to grow the space; how many, or -1.
int fill_store(int handle);
bool read_all(int handle, contents *out_p);

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

// A child with its standard output closed, which does not outlive us.
template <typename F> pid_t start_child(F what)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open("/dev/null", O_WRONLY), 1); // "key not found" of the deletes
        _exit(what());
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
template <typename F> int in_child(F what)
{
    return end_of(start_child(what));
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
bool prepare(const scenario &scene, prepared *out_p);

// Opens as the writer and does it. The results of the steps, when results_p is given; the handle.
struct op_result {
    int result;
    int done; // of its single adds or deletes, so many went through
};
int act(const scenario &scene, const prepared &state, std::vector<op_result> *results_p);

// As the next process: opens (as a writer, which repairs), compares the contents, checks every
// invariant, works on. Empty when all is right. done: act succeeded, so only after will do.
std::string judge_state(const scenario &scene, const prepared &state, bool done);
