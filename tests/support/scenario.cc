#include "support/scenario.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

static std::string key_of(int i)
{
    return "key" + std::to_string(i);
}

static std::string val_of(int i, int val_sz, int round)
{
    std::string text = std::to_string(round) + "." + std::to_string(i) + ".";
    text.resize((size_t)val_sz, (char)('a' + (i + round) % 26));
    return text;
}

int round_no, singles_done;

static int run_single(int handle, op_kind kind, const shkv_buf &key, const shkv_buf &val)
{
    char room[2048];
    shkv_buf found = {room, sizeof room};
    switch (kind) {
    case ADD:
        return shkv_add(handle, &key, &val, 0);
    case DEL:
        return shkv_delete(handle, &key);
    default:
        return shkv_lookup(handle, &key, &found);
    }
}

int run_op(int handle, const op &what)
{
    std::vector<std::string> keys, vals;
    ++round_no;
    singles_done = 0;
    for (int i = what.first; what.kind != RESHAPE && i <= what.last; ++i) {
        keys.push_back(key_of(i));
        vals.push_back(val_of(i, what.val_sz, round_no));
    }
    std::vector<shkv_buf> key_bufs = bufs_of(keys), val_bufs = bufs_of(vals);
    uint16_t cnt = (uint16_t)keys.size();
    switch (what.kind) {
    case ADD:
    case DEL:
    case LOOKUP:
        for (size_t i = 0; i < keys.size(); ++i, ++singles_done) {
            int result = run_single(handle, what.kind, key_bufs[i], val_bufs[i]);
            if (result != 0 && (what.kind != DEL || result != ENOENT))
                return result;
        }
        return 0;
    case TXN:
        return shkv_txn_start(handle, nullptr);
    case COMMIT:
        return shkv_txn_commit(handle, nullptr);
    case ABORT:
        return shkv_txn_abort(handle);
    case BATCH_ADD:
        return shkv_m_add(handle, key_bufs.data(), val_bufs.data(), cnt, 1);
    case BATCH_DEL:
        return shkv_m_delete(handle, key_bufs.data(), cnt, 1);
    case RESHAPE:
        return shkv_reshaping(STORE, (uint32_t)what.first, (uint32_t)what.last, 0, 3);
    case DESTROY:
        return shkv_destroy(handle);
    case CREATE:
        return 0;
    }
    return 0;
}

void model::apply(const op &what, int round)
{
    contents &to = txn ? staged : now;
    for (int i = what.first; i <= what.last; ++i) {
        if (what.kind == ADD || what.kind == BATCH_ADD)
            to[key_of(i)] = val_of(i, what.val_sz, round);
        if (what.kind == DEL || what.kind == BATCH_DEL)
            to.erase(key_of(i));
    }
    if (what.kind == TXN) {
        txn = true;
        staged = now;
    }
    if (what.kind == COMMIT)
        now = staged;
    if (what.kind == COMMIT || what.kind == ABORT)
        txn = false;
}

static int create_store(store_kind kind, uint32_t *err_p)
{
    static const uint32_t flags[] = {CONF_FIXEDMM, CONF_VECTORMM, CONF_VECTORMM | CONF_SHMAP, CONF_FIXEDMM | CONF_L3};
    shkv_params params = {16, 32, kind == VECTOR || kind == SHMAP ? 400u : 100u, flags[kind], 0};
    return shkv_create(STORE, 0, &params, 0, err_p);
}

int open_store(uint32_t mode, uint32_t *err_p)
{
    return shkv_open(STORE, 0, 0, mode, err_p);
}

// Adds records 2000, 2001, ... until the next one would have to grow the space; how many, or -1.
static int fill_store(int handle)
{
    shkv_opts opts = {0, 0, 0};
    shkv_db_set_opts(handle, 1, &opts);
    for (int i = 0;; ++i) {
        int result = run_op(handle, {ADD, 2000 + i, 2000 + i});
        if (result != 0)
            return result == ENOMEM ? i : -1;
    }
}

static std::string slurp(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

snapshot take_snapshot()
{
    snapshot snap;
    for (const char *dir : {SHKV_DB_DIR, SHKV_MU_DIR})
        if (fs::exists(dir))
            for (const auto &entry : fs::directory_iterator(dir))
                snap.files[entry.path().string()] = slurp(entry.path());
    return snap;
}

void restore_snapshot(const snapshot &snap)
{
    for (const char *dir : {SHKV_DB_DIR, SHKV_MU_DIR}) {
        fs::create_directories(dir);
        for (const auto &entry : fs::directory_iterator(dir))
            if (!snap.files.count(entry.path().string()))
                fs::remove(entry.path());
    }
    for (const auto &[path, bytes] : snap.files) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), (std::streamsize)bytes.size());
    }
}

// A table of 443 buckets gives few chains; 60 records of close keys give some of two and three.
std::vector<scenario> scenarios()
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
        // The ninth delete takes the mark; the 41st, behind its wait, moves what is marked to the free list.
        add("release", {many, {DEL, 0, 39}}, {{DEL, 40, 41}});
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
        add("create", {}, {{CREATE}});
        add("destroy", {many}, {{DESTROY}});
        list.push_back({"growth", kind, {many}, {{ADD, 1000, 1000}}, true, 0, true});
        list.push_back({"growth in slices", kind, {many}, {{ADD, 1000, 1030}, {DEL, 1, 10}, {ADD, 11, 20}}, true, 1, false});
        list.push_back({"commit in a full store", kind, {many, {TXN}, {ADD, 1, 2}}, {{COMMIT}}, true, 0, !vec});
        list.push_back({"growth in a transaction", kind, {many, {TXN}}, {{ADD, 1000, 1001}, {COMMIT}}, true, 0, false});
    }
    list.push_back({"chunked growth", SHMAP, {many}, {{ADD, 1000, 1000}}, true, 0, true});
    list.push_back({"protected replace", PROTECTED, {many}, {{ADD, 7, 7}, {DEL, 8, 8}}});
    list.push_back({"reshape", FIXED, {many}, {{RESHAPE, 0, 1}}, false, 0, false});
    list.push_back({"reshape of few", FIXED, {{ADD, 0, 3}}, {{RESHAPE, 4096, 32768}}});
    return list;
}

// What is neither as it was nor as it shall be.
static std::string odd_keys(const contents &got, const contents &before, const contents &after)
{
    std::string text;
    for (const contents *all_p : {&got, &before})
        for (const auto &[key, val] : *all_p) {
            auto is = [&](const contents &all) { return all.count(key) ? all.at(key) : ""; };
            if (is(got) != is(before) && is(got) != is(after))
                text += " " + key;
        }
    return text;
}

// In a child, after the kill: the next writer. What is wrong, or nothing.
static std::string judge(const scenario &scene, const prepared &state)
{
    uint32_t err = 0;
    int handle = open_store(SHKV_AM_WRITE, &err);
    if (!handle)
        return "the next writer gets " + std::to_string(err);
    contents got, end;
    if (read_all(handle, &got) < 0)
        return "iteration fails";
    if (std::find(state.allowed.begin(), state.allowed.end(), got) == state.allowed.end())
        return "contents of no single moment, odd:" + odd_keys(got, state.before, state.after);
    if (std::string faults = faults_of(STORE, false); !faults.empty())
        return "check: " + faults;
    if (shkv_txn_is_active(handle)) {
        // What was staged can still be committed as a whole, or dropped.
        bool whole = scene.act.size() == 1 && scene.act[0].kind == COMMIT;
        whole ? shkv_txn_commit(handle, nullptr) : shkv_txn_abort(handle);
        contents again;
        if (read_all(handle, &again) < 0 || again != (whole ? state.after : got))
            return "the end of the transaction that was left went wrong";
        got = again;
    }
    // Further work: some of everything, then once more the check and the contents.
    model next{got, {}, false};
    for (const op &what : {op{ADD, 0, 12, 20}, op{DEL, 5, 6}, op{ADD, 500, 520}, op{DEL, 500, 505}, op{ADD, 40, 50}}) {
        if (int result = run_op(handle, what))
            return "further work gives " + std::to_string(result);
        next.apply(what, round_no);
    }
    if (read_all(handle, &end) < 0 || end != next.now)
        return "further work went wrong";
    if (std::string faults = faults_of(STORE, false); !faults.empty())
        return "check after further work: " + faults;
    return shkv_close(handle) ? "close fails" : "";
}

// A store that a dead reshaper left takes no new writer; its readers find everything.
static std::string judge_reading(const contents &before)
{
    uint32_t err = 0;
    int handle = open_store(SHKV_AM_READ, &err);
    if (!handle)
        return "a reader gets " + std::to_string(err);
    for (const auto &[key, val] : before) {
        answers got = look_up(handle, {key});
        if (got.results[0] || got.values[0] != val)
            return "lookup of " + key + " gives " + std::to_string(got.results[0]);
    }
    return shkv_close(handle) ? "close fails" : "";
}

// A half-made store is refused and a half-destroyed one gives a clear answer; a whole one works.
static std::string judge_lifecycle(const contents &before)
{
    uint32_t err = 0;
    contents got;
    int handle = open_store(SHKV_AM_WRITE, &err);
    if (!handle)
        return err == ENOENT || err == EINVAL || err == EFAULT || err == ENOMEM ? "" : "open gives " + std::to_string(err);
    if (shkv_db_heads[handle - 1].sn->comm_flg & CF_DESTROYED)
        return "";
    if (read_all(handle, &got) < 0 || got != before)
        return "contents of a store that opens";
    return faults_of(STORE, false);
}

static bool prepare(const scenario &scene, prepared *out_p)
{
    restore_snapshot({});
    round_no = 0;
    int *filled_p = shared_memory<int>();
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
            if (run_op(handle, what))
                return 2;
        if (scene.fill && (*filled_p = fill_store(handle)) < 1)
            return 3;
        shkv_opts opts = {0, 1, scene.rz_tm_chk};
        shkv_db_set_opts(handle, 1, &opts);
        return shkv_close(handle);
    });
    out_p->at_rest = take_snapshot();
    if (end)
        return false;
    model oracle;
    for (const op &what : scene.before)
        oracle.apply(what, ++round_no);
    for (int i = 0; scene.fill && i < *filled_p; ++i)
        oracle.apply({ADD, 2000 + i, 2000 + i}, ++round_no);
    out_p->base_round = round_no;
    out_p->base = oracle;
    out_p->before = oracle.now;
    out_p->allowed = {oracle.now};
    for (const op &what : scene.act) {
        ++round_no;
        for (int i = what.first; i <= what.last; ++i) {
            bool single = what.kind == ADD || what.kind == DEL;
            oracle.apply(single ? op{what.kind, i, i, what.val_sz} : what, round_no);
            out_p->allowed.push_back(oracle.now);
            if (!single)
                break;
        }
    }
    out_p->after = oracle.now;
    return true;
}

int act(const scenario &scene, const prepared &state, std::vector<op_result> *results_p)
{
    uint32_t err = 0;
    int handle = 0;
    round_no = state.base_round;
    if (scene.act[0].kind == CREATE)
        handle = create_store(scene.kind, &err);
    else if (scene.act[0].kind != RESHAPE)
        handle = open_store(SHKV_AM_WRITE, &err);
    for (const op &what : scene.act) {
        singles_done = 0;
        int result = err ? (int)err : run_op(handle, what);
        if (results_p)
            results_p->push_back({result, singles_done});
    }
    return handle;
}

std::string judge_state(const scenario &scene, const prepared &state)
{
    constexpr size_t SIZE = 65536;
    static char *why = shared_memory<char>(SIZE);
    int end = in_child([&] {
        round_no = state.base_round + 100;
        op_kind kind = scene.act[0].kind;
        std::string text = kind == CREATE || kind == DESTROY ? judge_lifecycle(state.before)
                           : kind == RESHAPE                 ? judge_reading(state.before)
                           : judge(scene, state);
        snprintf(why, SIZE, "%s", text.c_str());
        return 0;
    });
    return end == 0 ? why : "the next process ends with " + std::to_string(end);
}

void tally::fail(const scenario &scene, const std::string &where, const std::string &why)
{
    if (++failed <= 40)
        printf("FAILED %s (%s): %s: %s\n", scene.name, KIND_NAMES[scene.kind], where.c_str(), why.c_str());
}

int run_scenarios(const std::vector<scenario> &list, const std::string &only, tally total, const runner &run)
{
    for (const scenario &scene : list) {
        if (!only.empty() && only != scene.name)
            continue;
        uint64_t before = total.runs;
        prepared state;
        prepare(scene, &state) ? run(scene, state, &total) : total.fail(scene, "before", "cannot be set up");
        printf("%-26s %-7s %8lu %s\n", scene.name, KIND_NAMES[scene.kind], (unsigned long)(total.runs - before), total.unit);
    }
    printf("%lu %s %s, %lu failed\n", (unsigned long)total.runs, total.unit, total.done, (unsigned long)total.failed);
    return total.failed != 0 || total.runs == 0;
}
