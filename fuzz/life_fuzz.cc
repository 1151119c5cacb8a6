// The life of a store against a map: it is made for the input, grows in table and record space,
// takes adds, deletes, transactions and atomic batches, is closed and opened again, and destroyed.
// In the end all keys, an iteration and the checker say whether it is what the map says.
#include <errno.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "rest_store.h"

namespace {

shkv_buf buf_of(const std::string &text)
{
    return {const_cast<char *>(text.data()), (uint32_t)text.size()};
}

using contents = std::map<std::string, std::string>;

struct session {
    input in;
    int handle;
    contents now, staged;
    std::set<std::string> touched; // by the open transaction
    bool txn = false;

    contents &writers() { return txn ? staged : now; }
};

void compare(session *run_p)
{
    char room[256];
    for (unsigned no = 0; no < 1024; ++no) {
        std::string name = "k" + std::to_string(no);
        shkv_buf key = buf_of(name), val = {room, sizeof room};
        int ret = shkv_lookup(run_p->handle, &key, &val);
        auto found = run_p->writers().find(name);
        if (found == run_p->writers().end())
            MUST(ret == ENOENT, name + " is there");
        else
            MUST(ret == 0 && found->second == std::string(room, val.len), name + " has another value");
    }
    char key_room[64];
    size_t met = 0;
    shkv_iterate(run_p->handle, nullptr, nullptr, nullptr, 1);
    for (;;) {
        shkv_buf key = {key_room, sizeof key_room}, val = {room, sizeof room};
        int ret = shkv_iterate(run_p->handle, &key, &val, nullptr, 0);
        if (ret == ENOENT)
            break;
        auto found = run_p->now.find(std::string(key_room, key.len));
        MUST(ret == 0 && found != run_p->now.end() && found->second == std::string(room, val.len) &&
                 ++met <= run_p->now.size(),
             "iterate gives what is not there");
    }
    MUST(met == run_p->now.size(), "iterate misses records");
}

void change_range(session *run_p, bool adds, unsigned from, unsigned cnt)
{
    uint8_t seed = run_p->in.byte();
    for (unsigned no = from; no < from + cnt; ++no) {
        std::string name = "k" + std::to_string(no), value(seed % 41, (char)(seed + no));
        shkv_buf key = buf_of(name), val = buf_of(value);
        if (adds) {
            MUST(shkv_add(run_p->handle, &key, &val, 0) == 0, "a store that grows is full");
            run_p->writers()[name] = value;
            run_p->touched.insert(name);
        } else {
            int ret = shkv_delete(run_p->handle, &key);
            bool met = run_p->writers().erase(name) || (run_p->txn && run_p->touched.count(name));
            MUST(ret == (met ? 0 : ENOENT), "delete gives " + std::to_string(ret));
            if (met)
                run_p->touched.insert(name);
        }
    }
}

void atomic_batch(session *run_p, bool adds, unsigned from, unsigned cnt)
{
    std::vector<std::string> names, values;
    std::vector<shkv_buf> keys, vals;
    uint8_t seed = run_p->in.byte();
    for (unsigned no = from; no < from + cnt; ++no) {
        names.push_back("k" + std::to_string(no));
        values.push_back(std::string(seed % 41, (char)(seed + 2 * no)));
    }
    for (unsigned i = 0; i < cnt; ++i) {
        keys.push_back(buf_of(names[i]));
        vals.push_back(buf_of(values[i]));
    }
    int ret = adds ? shkv_m_add(run_p->handle, keys.data(), vals.data(), (uint16_t)cnt, 1)
                   : shkv_m_delete(run_p->handle, keys.data(), (uint16_t)cnt, 1);
    if (ret != 0)
        return; // none of it remains: the comparison at the end says so
    for (unsigned i = 0; i < cnt; ++i)
        adds ? (void)(run_p->writers()[names[i]] = values[i]) : (void)run_p->writers().erase(names[i]);
}

void reopen(session *run_p)
{
    uint32_t err = 0;
    MUST(shkv_close(run_p->handle) == 0, "close fails");
    run_p->handle = shkv_open("fuzz_slow", 0, 0, SHKV_AM_WRITE, &err);
    MUST(run_p->handle, "open gives " + std::to_string(err));
}

void step(session *run_p)
{
    uint8_t byte = run_p->in.byte();
    unsigned from = run_p->in.byte() * 3u, cnt = 1 + run_p->in.byte();
    switch (byte % 10) {
    case 0:
    case 1:
    case 2:
        return change_range(run_p, true, from, cnt);
    case 3:
    case 4:
        return change_range(run_p, false, from, cnt);
    case 5:
    case 6:
        if (!run_p->txn) // a batch inside a transaction has no state of before to go back to
            atomic_batch(run_p, byte % 10 == 5, from, 1 + cnt % 31);
        return;
    case 7:
        return reopen(run_p);
    case 8:
        if (!run_p->txn) {
            MUST(shkv_txn_start(run_p->handle, nullptr) == 0, "txn_start fails");
            run_p->staged = run_p->now;
            run_p->touched.clear();
            run_p->txn = true;
        }
        return;
    default:
        bool commit = byte & 0x80;
        MUST((commit ? shkv_txn_commit(run_p->handle, nullptr) : shkv_txn_abort(run_p->handle)) == 0,
             "the end of a transaction fails");
        if (run_p->txn && commit)
            run_p->now = run_p->staged;
        run_p->txn = false;
    }
}

void run(input in)
{
    uint32_t err = 0;
    uint8_t how = in.byte();
    session one = {in, 0, {}, {}, {}};
    shkv_params params = {16, 40, (how & 1) ? 20u : 300u, (how & 2) ? CONF_VECTORMM : CONF_FIXEDMM, 0};
    if (how & 4)
        params.conf_flg = CONF_VECTORMM | CONF_SHMAP;
    one.handle = shkv_create("fuzz_slow", 0, &params, 0, &err);
    MUST(one.handle, "create gives " + std::to_string(err));
    shkv_opts opts = {0, 1, (how & 8) ? 1u : 0u};
    shkv_db_set_opts(one.handle, 1, &opts);
    for (int left = 24; left && one.in.left(); --left)
        step(&one);
    compare(&one);
    if (one.txn) {
        MUST(shkv_txn_commit(one.handle, nullptr) == 0, "commit fails");
        one.now = one.staged;
        one.txn = false;
        compare(&one);
    }
    std::string faults = image_faults("fuzz_slow", false);
    MUST(faults.empty(), faults);
    MUST(shkv_destroy(one.handle) == 0, "destroy fails");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_private_place();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    run({data, data + size});
    return 0;
}
