// The crash explorer. For every operation of the table below: a run per store that it makes to
// shared memory, killed right before it; then the next writer's open, a check of every invariant,
// the oracle (the contents are those from before or those from after, nothing else touched) and
// further work. A process that dies forgets no store that it has made, so these states are all
// the states that a crash of the operation can leave.
//
//     crash_explore short|long|pairs|recovery [SCENARIO]
#include <string>
#include <vector>

#include "crash/hooks.h"
#include "support/main.h"
#include "support/scenario.h"

extern "C" int __wrap_usleep(unsigned)
{
    return 0; // the waits of a reshape are for readers; here are none
}

struct tally {
    uint64_t states = 0, failed = 0;
};

struct explorer {
    const scenario &scene;
    tally *tally_p;
    prepared state;

    void explore(bool with_recovery);
    void failed(uint64_t at, uint64_t at2, const std::string &why);
};

void explorer::failed(uint64_t at, uint64_t at2, const std::string &why)
{
    if (++tally_p->failed <= 20)
        printf("FAILED %s (%s) killed at store %lu%s%s: %s\n", scene.name,
               KIND_NAMES[scene.kind],
               (unsigned long)at, at2 ? ", then at " : "", at2 ? std::to_string(at2).c_str() : "", why.c_str());
}

// with_recovery: after each kill the next writer's open is killed at each of its stores, too.
void explorer::explore(bool with_recovery)
{
    for (uint64_t at = 1;; ++at) {
        restore_snapshot(state.at_rest);
        int end = in_child([&] {
            hooks_arm(at);
            act(scene, state, nullptr);
            return 0;
        });
        if (end != EXIT_KILLED && end != 0)
            failed(at, 0, "the operation itself ends with " + std::to_string(end));
        ++tally_p->states;
        snapshot dead;
        if (with_recovery && end == EXIT_KILLED)
            dead = take_snapshot();
        std::string why = judge_state(scene, state, false);
        if (!why.empty())
            failed(at, 0, why);
        for (uint64_t at2 = 1; with_recovery && end == EXIT_KILLED; ++at2) {
            restore_snapshot(dead);
            int end2 = in_child([&] {
                uint32_t err;
                hooks_arm(at2);
                open_store(SHKV_AM_WRITE, &err);
                return 0;
            });
            if (end2 != EXIT_KILLED)
                break;
            ++tally_p->states;
            why = judge_state(scene, state, false);
            if (!why.empty())
                failed(at, at2, why);
        }
        if (end != EXIT_KILLED)
            return;
    }
}

// All sequences of two operations: the second one killed at each of its stores.
static std::vector<scenario> pairs()
{
    const op ops[] = {{ADD, 7, 7}, {ADD, 100, 100}, {DEL, 7, 7}, {DEL, 8, 8}, {BATCH_ADD, 6, 8}, {BATCH_DEL, 6, 8}};
    std::vector<scenario> list;
    for (store_kind kind : {FIXED, VECTOR})
        for (bool fill : {false, true})
            for (const op &first : ops)
                for (const op &second : ops)
                    list.push_back({"pair", kind, {op{ADD, 0, 59}, first}, {second}, fill, 0, false});
    return list;
}

int main(int argc, char **argv)
{
    std::string mode = argc > 1 ? argv[1] : "short", only = argc > 2 ? argv[2] : "";
    if (!private_shm())
        return fprintf(stderr, "cannot make a mount namespace with a /dev/shm of its own\n"), 1;
    tally total;
    for (const scenario &scene : mode == "pairs" ? pairs() : scenarios()) {
        bool recovery_scene = scene.act[0].kind == COMMIT || scene.act[0].kind == BATCH_ADD ||
                              scene.act[0].kind == BATCH_DEL || scene.fill;
        if ((!only.empty() && only != scene.name) || (mode == "short" && !scene.in_short) ||
            (mode == "recovery" && !recovery_scene))
            continue;
        uint64_t states = total.states;
        explorer run{scene, &total, {}};
        if (!prepare(scene, &run.state)) {
            run.failed(0, 0, "cannot be set up");
            continue;
        }
        run.explore(mode == "recovery");
        printf("%-26s %-7s %8lu states\n", scene.name,
               KIND_NAMES[scene.kind],
               (unsigned long)(total.states - states));
    }
    printf("%lu states explored, %lu failed\n", (unsigned long)total.states, (unsigned long)total.failed);
    return total.failed != 0 || total.states == 0;
}
