#include "support/scenario.h"

#include <errno.h>
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

int round_no;

int run_op(int handle, const op &what)
{
    std::vector<std::string> keys, vals;
    std::vector<shkv_buf> key_bufs, val_bufs;
    ++round_no;
    for (int i = what.first; what.kind != RESHAPE && i <= what.last; ++i) {
        keys.push_back(key_of(i));
        vals.push_back(val_of(i, what.val_sz, round_no));
    }
    for (size_t i = 0; i < keys.size(); ++i) {
        key_bufs.push_back(buf_of(keys[i]));
        val_bufs.push_back(buf_of(vals[i]));
    }
    uint16_t cnt = (uint16_t)keys.size();
    int result = 0;
    switch (what.kind) {
    case ADD:
        for (size_t i = 0; i < keys.size() && result == 0; ++i)
            result = shkv_add(handle, &key_bufs[i], &val_bufs[i], 0);
        return result;
    case DEL:
        for (size_t i = 0; i < keys.size() && (result == 0 || result == ENOENT); ++i)
            result = shkv_delete(handle, &key_bufs[i]);
        return result == ENOENT ? 0 : result;
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
    case LOOKUP:
        for (size_t i = 0; i < keys.size() && result == 0; ++i) {
            char room[2048];
            shkv_buf found = {room, sizeof room};
            result = shkv_lookup(handle, &key_bufs[i], &found);
        }
        return result;
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

int create_store(store_kind kind, uint32_t *err_p)
{
    static const uint32_t flags[] = {CONF_FIXEDMM, CONF_VECTORMM, CONF_VECTORMM | CONF_SHMAP, CONF_FIXEDMM | CONF_L3};
    shkv_params params = {16, 32, kind == VECTOR || kind == SHMAP ? 400u : 100u, flags[kind], 0};
    return shkv_create(STORE, 0, &params, 0, err_p);
}

int open_store(uint32_t mode, uint32_t *err_p)
{
    return shkv_open(STORE, 0, 0, mode, err_p);
}

int fill_store(int handle)
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

bool read_all(int handle, contents *out_p)
{
    std::string key(2048, 0), val(65000, 0);
    if (shkv_iterate(handle, nullptr, nullptr, nullptr, 1) != 0)
        return false;
    for (;;) {
        shkv_buf key_buf = buf_of(key), val_buf = buf_of(val);
        int result = shkv_iterate(handle, &key_buf, &val_buf, nullptr, 0);
        if (result != 0)
            return result == ENOENT;
        (*out_p)[key.substr(0, key_buf.len)] = val.substr(0, val_buf.len);
    }
}
