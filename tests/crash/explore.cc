// The crash explorer. For every operation of the table below: a run per store that it makes to
// shared memory, killed right before it; then the next writer's open, a check of every invariant,
// the oracle (the contents are those from before or those from after, nothing else touched) and
// further work. A process that dies forgets no store that it has made, so these states are all
// the states that a crash of the operation can leave.
//
//     crash_explore short|long|pairs|recovery [SCENARIO]
#include <errno.h>
#include <string>
#include <sys/mman.h>
#include <vector>

#include "check/store_check.h"
#include "crash/hooks.h"
#include "shkv.h"
#include "support/main.h"
#include "support/scenario.h"

extern "C" int __wrap_usleep(unsigned)
{
    return 0; // the waits of a reshape are for readers; here are none
}

// ---- the scenarios ----

struct scenario {
    const char *name;
    store_kind kind;
    std::vector<op> before; // what has been done when the operation begins
    std::vector<op> act;    // killed at every store
    bool fill = false;      // and then the space was filled: the first add grows it
    uint16_t rz_tm_chk = 0; // slice of a rebuild in microseconds; 0: all at once
    bool in_short = true;
};

// A table of 443 buckets gives few chains; 60 records of close keys give some of two and three.
static std::vector<scenario> scenarios()
{
    const op many{ADD, 0, 59};
    std::vector<scenario> list;
    for (store_kind kind : {FIXED, VECTOR}) {
        bool vec = kind == VECTOR;
        auto add = [&](const char *name, std::vector<op> before, std::vector<op> act, bool in_short = true) {
            list.push_back({name, kind, std::move(before), std::move(act), false, 0, in_short});
        };
        add("first add", {}, {{ADD, 1, 1}});
        add("add", {many}, {{ADD, 100, 100}});
        add("replace each", {many}, {{ADD, 0, 59}}, false);
        add("replace", {many}, {{ADD, 7, 7}});
        add("delete each", {many}, {{DEL, 0, 59}}, false);
        add("delete", {many}, {{DEL, 7, 7}});
        add("free list in use", {many, {DEL, 0, 40}, {ADD, 0, 20}}, {{ADD, 100, 140}}, false);
        if (vec) {
            add("two units", {many, {ADD, 5, 9, 150}}, {{ADD, 7, 7, 180}});
            add("five units", {many, {ADD, 5, 9, 500}}, {{ADD, 7, 7, 530}, {DEL, 8, 8}});
        }
        add("commit", {many, {TXN}, {ADD, 1, 2}, {DEL, 3, 4}, {ADD, 100, 101}, {DEL, 100, 100}}, {{COMMIT}});
        add("commit of many", {many, {TXN}, {ADD, 0, 30}, {DEL, 31, 50}, {ADD, 100, 130}}, {{COMMIT}}, false);
        add("abort", {many, {TXN}, {ADD, 1, 2}, {DEL, 3, 4}, {ADD, 100, 101}}, {{ABORT}});
        add("staging", {many, {TXN}, {ADD, 1, 1}}, {{ADD, 1, 2}, {DEL, 2, 3}, {ADD, 100, 100}});
        add("start", {many}, {{TXN}});
        add("batch of adds", {many}, {{BATCH_ADD, 58, 62}});
        add("batch of deletes", {many}, {{BATCH_DEL, 57, 61}});
        add("create", {{CREATE}}, {{CREATE}});
        add("destroy", {many}, {{DESTROY}});
        list.push_back({"growth", kind, {many}, {{ADD, 1000, 1000}}, true, 0, true});
        list.push_back({"growth in slices", kind, {many}, {{ADD, 1000, 1030}, {DEL, 1, 10}, {ADD, 11, 20}}, true, 1, false});
        list.push_back({"growth in a transaction", kind, {many, {TXN}}, {{ADD, 1000, 1001}, {COMMIT}}, true, 0, false});
    }
    list.push_back({"chunked growth", SHMAP, {many}, {{ADD, 1000, 1000}}, true, 0, true});
    list.push_back({"protected replace", PROTECTED, {many}, {{ADD, 7, 7}, {DEL, 8, 8}}});
    list.push_back({"reshape", FIXED, {many}, {{RESHAPE, 0, 1}}, false, 0, false});
    list.push_back({"reshape of few", FIXED, {{ADD, 0, 3}}, {{RESHAPE, 4096, 32768}}});
    return list;
}

// ---- judging a state ----

static std::string difference(const contents &got, const contents &before, const contents &after)
{
    std::string text;
    for (const auto &[key, val] : got) {
        auto old = before.find(key), now = after.find(key);
        if ((old == before.end() || old->second != val) && (now == after.end() || now->second != val))
            text += " odd:" + key;
    }
    for (const auto &[key, val] : before)
        if (!got.count(key) && after.count(key))
            text += " missing:" + key;
    int olds = 0, news = 0;
    for (const auto &[key, val] : after)
        if (!before.count(key) || before.at(key) != val)
            got.count(key) && got.at(key) == val ? ++news : ++olds;
    return text + " (" + std::to_string(news) + " new, " + std::to_string(olds) + " old)";
}

// The state before, after, or after so many of a run of single operations.
static bool among(const contents &got, const std::vector<contents> &states)
{
    for (const contents &state : states)
        if (got == state)
            return true;
    return false;
}

// In a child, after the kill: the next writer. Prints what is wrong to fd; 0 when all is right.
static int judge(const std::vector<contents> &allowed, const contents &before, const contents &after, int fd)
{
    auto say = [&](const std::string &text) {
        dprintf(fd, "%s", text.c_str());
        return 1;
    };
    uint32_t err = 0;
    int handle = open_store(SHKV_AM_WRITE, &err);
    if (!handle)
        return say("the next writer gets " + std::to_string(err));
    contents got;
    if (!read_all(handle, &got))
        return say("iteration fails");
    if (!among(got, allowed))
        return say("contents" + difference(got, before, after));
    store_image image;
    load_store(STORE, &image);
    check_report report = check_image(image, false);
    if (!report.faults.empty())
        return say("check: " + report.faults[0]);
    if (shkv_txn_is_active(handle)) {
        // What was staged can still be dropped, and the committed state stands.
        shkv_txn_abort(handle);
        contents again;
        if (!read_all(handle, &again) || again != got)
            return say("abort of what was left changed the contents");
    }
    // Further work: some of everything, then once more the check and the contents.
    for (const op &what : {op{ADD, 0, 12, 20}, op{DEL, 5, 6}, op{ADD, 500, 520}, op{DEL, 500, 505}, op{ADD, 40, 50}}) {
        int result = run_op(handle, what);
        if (result)
            return say("further work gives " + std::to_string(result));
        model next{got, {}, false};
        next.apply(what, round_no);
        got = next.now;
    }
    contents end;
    if (!read_all(handle, &end) || end != got)
        return say("further work went wrong");
    load_store(STORE, &image);
    report = check_image(image, false);
    if (!report.faults.empty())
        return say("check after further work: " + report.faults[0]);
    return shkv_close(handle) ? say("close fails") : 0;
}

// A store that a dead reshaper left takes no new writer; its readers find everything.
static int judge_reading(const contents &before, int fd)
{
    uint32_t err = 0;
    int handle = open_store(SHKV_AM_READ, &err);
    if (!handle)
        return dprintf(fd, "a reader gets %u", err), 1;
    for (const auto &[key, val] : before) {
        std::string room(100, 0);
        shkv_buf key_buf = buf_of(key), val_buf = buf_of(room);
        int result = shkv_lookup(handle, &key_buf, &val_buf);
        if (result || room.substr(0, val_buf.len) != val)
            return dprintf(fd, "lookup of %s gives %d", key.c_str(), result), 1;
    }
    return shkv_close(handle);
}

// A half-made store is refused and a half-destroyed one gives a clear answer; a whole one works.
static int judge_lifecycle(const contents &before, int fd)
{
    uint32_t err = 0;
    int handle = open_store(SHKV_AM_WRITE, &err);
    if (!handle)
        return err == ENOENT || err == EINVAL || err == 14 ? 0 : (dprintf(fd, "open gives %u", err), 1);
    contents got;
    store_image image;
    load_store(STORE, &image);
    bool destroyed = image.sn() && (image.sn()->comm_flg & CF_DESTROYED);
    if (!destroyed && (!read_all(handle, &got) || got != before))
        return dprintf(fd, "contents of a store that opens"), 1;
    check_report report = check_image(image, false);
    if (!destroyed && !report.faults.empty())
        return dprintf(fd, "check: %s", report.faults[0].c_str()), 1;
    return 0;
}

// ---- the exploration ----

struct tally {
    uint64_t states = 0, failed = 0;
};

struct explorer {
    const scenario &scene;
    tally *tally_p;
    snapshot at_rest;
    contents before, after;
    std::vector<contents> allowed; // contents that a kill may leave
    int base_round = 0;

    // Runs before, and computes what each step of act may leave.
    bool prepare();
    void act() const;
    std::string judge_state() const;
    void explore(bool with_recovery);
    void failed(uint64_t at, uint64_t at2, const std::string &why);
};

static bool lifecycle_op(const scenario &scene)
{
    return scene.act[0].kind == CREATE || scene.act[0].kind == DESTROY;
}

bool explorer::prepare()
{
    restore_snapshot({});
    round_no = 0;
    int *filled_p = (int *)mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int end = in_child([&] {
        uint32_t err = 0;
        if (scene.act[0].kind == CREATE) { // the registry alone
            shkv_params params = {8, 8, 10, CONF_FIXEDMM, 0};
            return shkv_create("other", 0, &params, 0, &err) ? 0 : 1;
        }
        int handle = create_store(scene.kind, &err);
        if (!handle)
            return 1;
        for (const op &what : scene.before)
            if (what.kind != CREATE && run_op(handle, what))
                return 2;
        if (scene.fill && (*filled_p = fill_store(handle)) < 1)
            return 3;
        shkv_opts opts = {0, 1, scene.rz_tm_chk};
        shkv_db_set_opts(handle, 1, &opts);
        return shkv_close(handle);
    });
    at_rest = take_snapshot();
    if (end)
        return false;
    model oracle;
    for (const op &what : scene.before)
        if (what.kind != CREATE)
            oracle.apply(what, ++round_no);
    for (int i = 0; scene.fill && i < *filled_p; ++i)
        oracle.apply({ADD, 2000 + i, 2000 + i}, ++round_no);
    base_round = round_no;
    before = oracle.now;
    allowed = {before};
    for (const op &what : scene.act) {
        ++round_no;
        for (int i = what.first; i <= what.last; ++i) {
            bool single = what.kind == ADD || what.kind == DEL;
            oracle.apply(single ? op{what.kind, i, i, what.val_sz} : what, round_no);
            allowed.push_back(oracle.now);
            if (!single)
                break;
        }
    }
    after = oracle.now;
    return true;
}

// In a child: opens as the writer that is to die, and does it.
void explorer::act() const
{
    uint32_t err = 0;
    round_no = base_round;
    if (scene.act[0].kind == CREATE) {
        create_store(scene.kind, &err);
        return;
    }
    int handle = scene.act[0].kind == RESHAPE ? 0 : open_store(SHKV_AM_WRITE, &err);
    for (const op &what : scene.act)
        run_op(handle, what);
}

std::string explorer::judge_state() const
{
    int pipe_fd[2];
    if (pipe(pipe_fd))
        return "no pipe";
    int end = in_child([&] {
        round_no = base_round + 100;
        if (lifecycle_op(scene))
            return judge_lifecycle(before, pipe_fd[1]);
        if (scene.act[0].kind == RESHAPE)
            return judge_reading(before, pipe_fd[1]);
        return judge(allowed, before, after, pipe_fd[1]);
    });
    close(pipe_fd[1]);
    char text[2000];
    ssize_t len = end ? read(pipe_fd[0], text, sizeof text) : 0;
    close(pipe_fd[0]);
    if (end == 0)
        return "";
    return len > 0 ? std::string(text, (size_t)len) : "the next process ends with " + std::to_string(end);
}

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
        restore_snapshot(at_rest);
        int end = in_child([&] {
            hooks_arm(at);
            act();
            return 0;
        });
        if (end != EXIT_KILLED && end != 0)
            failed(at, 0, "the operation itself ends with " + std::to_string(end));
        ++tally_p->states;
        snapshot dead;
        if (with_recovery && end == EXIT_KILLED)
            dead = take_snapshot();
        std::string why = judge_state();
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
            why = judge_state();
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
        explorer run{scene, &total, {}, {}, {}, {}};
        if (!run.prepare()) {
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
