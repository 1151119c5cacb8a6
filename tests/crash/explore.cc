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
#include "support/scenario.h"

extern "C" int __wrap_usleep(unsigned)
{
    return 0; // the waits of a reshape are for readers; here are none
}

struct explorer {
    const scenario &scene;
    const prepared &state;
    tally *tally_p;

    // what in a process that is killed at its store number at; true when it lived so long.
    template <typename F> bool killed(uint64_t at, F what)
    {
        int end = in_child([&] {
            hooks_arm(at);
            what();
            return 0;
        });
        if (end != EXIT_KILLED && end != 0)
            failed(at, 0, "it ends by itself with " + std::to_string(end));
        return end == EXIT_KILLED;
    }
    void judge(uint64_t at, uint64_t at2)
    {
        ++tally_p->runs;
        std::string why = judge_state(scene, state);
        if (!why.empty())
            failed(at, at2, why);
    }
    void failed(uint64_t at, uint64_t at2, const std::string &why)
    {
        tally_p->fail(scene, "killed at store " + std::to_string(at) + ", then at " + std::to_string(at2), why);
    }
    // with_recovery: after each kill the next writer is killed at each store of its open, too. What a release
    // has left is not settled there, but by the next one: that writer goes on with the same deletes.
    void explore(bool with_recovery)
    {
        bool goes_on = true;
        for (uint64_t at = 1; goes_on; ++at) {
            restore_snapshot(state.at_rest);
            goes_on = killed(at, [&] { act(scene, state, nullptr); });
            snapshot dead;
            if (with_recovery && goes_on)
                dead = take_snapshot();
            judge(at, 0);
            for (uint64_t at2 = 1; with_recovery && goes_on; ++at2) {
                restore_snapshot(dead);
                uint32_t err;
                if (!killed(at2, [&] { scene.act[0].kind == DEL ? act(scene, state, nullptr) : open_store(SHKV_AM_WRITE, &err); }))
                    break;
                judge(at, at2);
            }
        }
    }
};

// All sequences of two operations: the second one killed at each of its stores.
static std::vector<scenario> pairs()
{
    const op ops[] = {{ADD, 7, 7}, {ADD, 100, 100}, {DEL, 7, 7}, {DEL, 8, 8}, {BATCH_ADD, 6, 8}, {BATCH_DEL, 6, 8}};
    std::vector<scenario> list;
    for (store_kind kind : {FIXED, VECTOR})
        for (bool fill : {false, true})
            for (const op &first : ops)
                for (const op &second : ops)
                    list.push_back({fill ? "pair with growth" : "pair", kind, {op{ADD, 0, 59}, first}, {second}, fill, 0, false});
    return list;
}

static bool has_recovery(const scenario &scene)
{
    op_kind kind = scene.act[0].kind;
    return kind == COMMIT || kind == BATCH_ADD || kind == BATCH_DEL || scene.fill || scene.name == std::string("release");
}

int main(int argc, char **argv)
{
    std::string mode = argc > 1 ? argv[1] : "short";
    if (!private_shm())
        return 1;
    std::vector<scenario> list = mode == "pairs" ? pairs() : scenarios();
    std::erase_if(list, [&](const scenario &scene) {
        return (mode == "short" && !scene.in_short) || (mode == "recovery" && !has_recovery(scene));
    });
    auto run = [&](const scenario &scene, const prepared &state, tally *tally_p) {
        explorer{scene, state, tally_p}.explore(mode == "recovery");
    };
    return run_scenarios(list, argc > 2 ? argv[2] : "", {"states", "explored"}, run);
}
