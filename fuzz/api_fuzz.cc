// Operations on a store against an oracle that knows what must come out.
//
// The stores stand ready, a fixed and a vector one, each fresh and worn (its space used up once, so
// that every record comes from the lists): an input puts the bytes back and is then read as a
// sequence of operations. Every answer is compared, of the writer's handle and of a reader's; at the
// end all keys and an iteration are, and now and then the checker looks at the bytes. The keys are
// few and share three buckets, so that chains form, replaces and deletes hit. The stores do not
// grow here; kill_soak is for that.
#include <errno.h>
#include <string.h>

#include <array>
#include <vector>

#include "shkv_intf/head.h"
#include "shkv_intf/sizing.h"
#include "target.h"

namespace {

constexpr unsigned KEYS = 16, BUCKETS = 3, ROOM = 2048, M_MAX = 6;
constexpr uint8_t CANARY = 0xa5;

// A value is known by its length and seed.
struct value_of_key {
    bool there = false;
    bool staged = false; // by the open transaction: a delete then finds a record, a deleted one too
    uint8_t seed = 0;
    uint16_t len = 0;
};
using table = std::array<value_of_key, KEYS>;

void fill_value(char *at, uint8_t seed, uint32_t len)
{
    for (uint32_t i = 0; i < len; ++i)
        at[i] = (char)(seed + i * 29 + (i >> 8));
}

bool is_value(const value_of_key &value, const shkv_buf &got)
{
    char room[ROOM];
    fill_value(room, value.seed, value.len);
    return got.len == value.len && memcmp(got.ptr, room, value.len) == 0;
}

// ---- Stores that stand ready --------------------------------------------------------------------

// The bytes of a store at rest, put back before every input by plain copies.
using rest_store = std::vector<std::pair<void *, std::string>>;

struct kind {
    const char *name;
    uint32_t conf_flg;
    uint32_t maxents;
    std::array<uint16_t, KEYS> key_lens;
    std::array<uint16_t, 12> val_lens;
};

const kind KINDS[] = {
    {"fuzz_fixed", CONF_FIXEDMM, 60, {1, 2, 3, 4, 7, 8, 8, 8, 9, 10, 12, 15, 16, 16, 16, 16},
     {0, 1, 7, 8, 9, 15, 16, 17, 31, 32, 39, 40}},
    {"fuzz_vector", CONF_VECTORMM, 200, {1, 2, 3, 8, 16, 99, 100, 101, 124, 223, 224, 225, 300, 348, 700, 2048},
     {0, 1, 27, 28, 60, 99, 100, 101, 124, 225, 500, 1500}},
};

struct ready_store {
    const kind *kind_p;
    int writer, reader;
    std::string keys[KEYS];
    rest_store rest[2]; // fresh, worn
    table contents[2];
};
ready_store stores[2];

shkv_head *head_of(int handle)
{
    return &shkv_db_heads[handle - 1];
}

// Keys of the wanted lengths, in a few buckets as far as their length lets them choose.
void make_keys(ready_store *store_p)
{
    uint32_t hashsz = head_of(store_p->writer)->sn->md1.hashsz;
    for (unsigned i = 0; i < KEYS; ++i) {
        std::string key(store_p->kind_p->key_lens[i], (char)('a' + i));
        for (uint32_t n = 0; key.size() > 2 && n < 1u << 20; ++n) {
            memcpy(key.data() + key.size() - 3, &n, 3);
            if (dekhash(key.data(), (uint32_t)key.size()) % hashsz == i % BUCKETS)
                break;
        }
        store_p->keys[i] = key;
    }
}

int store_value(const ready_store &store, unsigned no, value_of_key *value_p, uint8_t seed, uint16_t len)
{
    char room[ROOM];
    fill_value(room, seed, len);
    shkv_buf key = buf_of(store.keys[no]), val = {room, len};
    int ret = shkv_add(store.writer, &key, &val, 0);
    if (ret == 0)
        *value_p = {true, value_p->staged, seed, len};
    return ret;
}

// Of the supernode neither the mutexes in front, which nothing holds between two inputs, nor the descriptor
// of MD_TXN, whose mapping is not put back either.
void save(ready_store *store_p, int which)
{
    shkv_head *head = head_of(store_p->writer);
    supernode *sn = head->sn;
    auto save_bytes = [&](void *at, size_t size) {
        store_p->rest[which].emplace_back(at, std::string((const char *)at, size));
    };
    save_bytes(&sn->comm_flg, (size_t)((char *)&sn->md_txn - (char *)&sn->comm_flg));
    save_bytes(&sn->md_txn + 1, (size_t)((char *)(sn + 1) - (char *)(&sn->md_txn + 1)));
    save_bytes(head->md1.base, head->md1.mapped_sz);
    save_bytes(head->ud1_map->map[0], head->ud1_map->mapped_sz);
}

void make_ready(ready_store *store_p, const kind *kind_p)
{
    uint32_t err = 0;
    shkv_params params = {16, 40, kind_p->maxents, kind_p->conf_flg, 0};
    shkv_opts opts = {0, 0, 0};
    store_p->kind_p = kind_p;
    store_p->writer = shkv_create(kind_p->name, 0, &params, 0, &err);
    MUST(store_p->writer, "cannot create");
    MUST(shkv_db_set_opts(store_p->writer, 1, &opts) == 0, "cannot set options");
    store_p->reader = shkv_open(kind_p->name, 0, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
    MUST(store_p->reader && store_p->reader != store_p->writer, "cannot open for reading");
    make_keys(store_p);
    for (int which = 0; which < 2; ++which) {
        table &contents = store_p->contents[which];
        if (which)
            contents = store_p->contents[0];
        for (unsigned i = 0; i < (which ? 4000u : KEYS / 2); ++i)
            store_value(*store_p, i * (which ? 5 : 2) % KEYS, &contents[i * (which ? 5 : 2) % KEYS], (uint8_t)i,
                        kind_p->val_lens[i % (which ? 12 : 5)]);
        save(store_p, which);
    }
}

// ---- One input ----------------------------------------------------------------------------------

struct session {
    ready_store *store_p;
    input in;
    table now, staged; // what readers see, and what the writer does
    bool may_txn, txn = false; // half of the inputs go without: a transaction costs as much as the rest

    table &writers() { return txn ? staged : now; }
    const std::string &key(unsigned no) const { return store_p->keys[no]; }
};

void check_answer(const value_of_key &value, int ret, const shkv_buf &got, uint32_t room)
{
    const uint8_t *at = (const uint8_t *)got.ptr;
    MUST(at[room] == CANARY, "a store behind the buffer");
    if (!value.there)
        MUST(ret == ENOENT, "a key that is not there gives " + std::to_string(ret));
    else if (room < value.len)
        MUST(ret == EINVAL && got.len == value.len, "too little room gives " + std::to_string(ret));
    else
        MUST(ret == 0 && is_value(value, got),
             "another value than was stored, " + std::to_string(ret));
}

// One key by a lookup, several by a group. room: of each buffer.
void look(session *run_p, bool writers, const std::vector<unsigned> &no, uint32_t room = ROOM)
{
    static char bytes[M_MAX][ROOM + 1];
    shkv_buf keys[M_MAX], vals[M_MAX];
    int results[M_MAX], handle = writers ? run_p->store_p->writer : run_p->store_p->reader;
    for (unsigned i = 0; i < no.size(); ++i) {
        keys[i] = buf_of(run_p->key(no[i]));
        vals[i] = {bytes[i], room};
        bytes[i][room] = (char)CANARY;
    }
    if (no.size() == 1)
        results[0] = shkv_lookup(handle, keys, vals);
    else
        shkv_m_lookup(handle, keys, vals, results, (uint16_t)no.size());
    for (unsigned i = 0; i < no.size(); ++i)
        check_answer((writers ? run_p->writers() : run_p->now)[no[i]], results[i], vals[i], room);
}

std::vector<unsigned> some_keys(input *in_p)
{
    std::vector<unsigned> no(1 + in_p->byte() % M_MAX);
    for (unsigned &each : no)
        each = in_p->byte() % KEYS;
    return no;
}

// A pointer into the store, past transactions.
void look_lite(session *run_p, unsigned no)
{
    shkv_buf key = buf_of(run_p->key(no)), val = {nullptr, 0};
    int ret = shkv_lookup_lite(run_p->store_p->reader, &key, &val);
    const value_of_key &value = run_p->now[no];
    if (run_p->store_p->kind_p->conf_flg == CONF_VECTORMM)
        MUST(ret == ENOMEM, "lookup_lite of a vector store");
    else if (!value.there)
        MUST(ret == ENOENT, "lookup_lite finds what is not there");
    else
        MUST(ret == 0 && is_value(value, val), "lookup_lite gives another value");
}

void add_one(session *run_p, unsigned no)
{
    uint8_t byte = run_p->in.byte();
    const ready_store &store = *run_p->store_p;
    int ret = store_value(store, no, &run_p->writers()[no], byte, store.kind_p->val_lens[byte % 12]);
    MUST(ret == 0 || ret == ENOMEM, "add gives " + std::to_string(ret));
    run_p->writers()[no].staged |= run_p->txn && ret == 0;
}

void delete_one(session *run_p, unsigned no)
{
    shkv_buf key = buf_of(run_p->key(no));
    int ret = shkv_delete(run_p->store_p->writer, &key);
    value_of_key &value = run_p->writers()[no];
    // A delete that is staged takes a record of its own.
    if (value.there && run_p->txn && ret == ENOMEM)
        return;
    bool met = value.there || value.staged;
    MUST(ret == (met ? 0 : ENOENT), "delete gives " + std::to_string(ret));
    value.there = false;
    value.staged = run_p->txn && met;
}

// Whether the store holds these of the keys as the table says.
bool agrees(const ready_store &store, const table &want, const unsigned *no, unsigned cnt)
{
    char room[ROOM];
    for (unsigned i = 0; i < cnt; ++i) {
        const value_of_key &value = want[no[i]];
        shkv_buf key = buf_of(store.keys[no[i]]), val = {room, ROOM};
        int ret = shkv_lookup(store.writer, &key, &val);
        if (value.there != (ret == 0) || (ret == 0 && !is_value(value, val)))
            return false;
    }
    return true;
}

void change_many(session *run_p, bool adds)
{
    static char bytes[M_MAX][ROOM];
    shkv_buf keys[M_MAX], vals[M_MAX];
    unsigned no[M_MAX], cnt = 1 + run_p->in.byte() % M_MAX;
    value_of_key values[M_MAX];
    const ready_store &store = *run_p->store_p;
    for (unsigned i = 0; i < cnt; ++i) {
        uint8_t byte = run_p->in.byte();
        no[i] = byte % KEYS;
        values[i] = {true, run_p->txn, byte, store.kind_p->val_lens[byte / KEYS % 12]};
        fill_value(bytes[i], byte, values[i].len);
        keys[i] = buf_of(run_p->key(no[i]));
        vals[i] = {bytes[i], values[i].len};
    }
    int ret = adds ? shkv_m_add(store.writer, keys, vals, (uint16_t)cnt, 0)
                   : shkv_m_delete(store.writer, keys, (uint16_t)cnt, 0);
    MUST(ret == 0 || ret == ENOMEM, "a batch gives " + std::to_string(ret));
    // One that ends early has done what comes before the failure: the store says how much.
    for (unsigned done = cnt;; --done) {
        table after = run_p->writers();
        for (unsigned i = 0; i < done; ++i) {
            value_of_key &value = after[no[i]];
            bool met = run_p->txn && (adds || value.there || value.staged);
            value = adds ? values[i] : value_of_key{};
            value.staged = met;
        }
        if (ret == 0 || agrees(store, after, no, cnt)) {
            run_p->writers() = after;
            return;
        }
        MUST(done != 0, "a batch that failed has left what none of its steps makes");
    }
}

void iterate_all(session *run_p, bool writers)
{
    contents all;
    const ready_store &store = *run_p->store_p;
    int met = read_all(writers ? store.writer : store.reader, &all), want = 0;
    for (unsigned no = 0; no < KEYS; ++no) {
        if (!run_p->now[no].there)
            continue;
        auto found = all.find(store.keys[no]);
        MUST(found != all.end() && is_value(run_p->now[no], buf_of(found->second)), "iterate gives another value");
        ++want;
    }
    MUST(met == want, "iterate gives " + std::to_string(met) + " of " + std::to_string(want));
}

void begin_txn(session *run_p)
{
    uint32_t ents = run_p->in.byte();
    int ret = shkv_txn_start(run_p->store_p->writer, ents & 1 ? &ents : nullptr);
    MUST(ret == (run_p->txn ? EEXIST : 0), "txn_start gives " + std::to_string(ret));
    if (!run_p->txn)
        run_p->staged = run_p->now;
    run_p->txn = true;
}

void end_txn(session *run_p, bool commit)
{
    int handle = run_p->store_p->writer;
    int ret = commit ? shkv_txn_commit(handle, nullptr) : shkv_txn_abort(handle);
    MUST(ret == 0, "the end of a transaction gives " + std::to_string(ret));
    MUST(shkv_txn_is_active(handle) == 0, "the transaction is still open");
    if (run_p->txn && commit)
        run_p->now = run_p->staged;
    for (value_of_key &value : run_p->now)
        value.staged = false;
    run_p->txn = false;
}

void step(session *run_p)
{
    uint8_t byte = run_p->in.byte();
    bool writers = byte & 0x80;
    unsigned no = run_p->in.byte() % KEYS;
    switch (byte % 20) {
    case 0 ... 4:
        return add_one(run_p, no);
    case 5 ... 7:
        return delete_one(run_p, no);
    case 10:
        return look(run_p, writers, {no}, run_p->in.byte());
    case 11:
        return look(run_p, writers, some_keys(&run_p->in));
    case 12:
        return look_lite(run_p, no);
    case 13:
        return change_many(run_p, writers);
    case 14:
        return iterate_all(run_p, writers);
    case 15:
        return run_p->may_txn ? begin_txn(run_p) : add_one(run_p, no);
    case 16 ... 17:
        return end_txn(run_p, byte % 20 == 16);
    default:
        return look(run_p, writers, {no});
    }
}

void run(input in)
{
    static uint32_t inputs;
    uint8_t first = in.byte();
    ready_store *store_p = &stores[first & 1];
    int which = first >> 1 & 1;
    for (const auto &[at, bytes] : store_p->rest[which])
        __builtin_memcpy(at, bytes.data(), bytes.size());
    for (int handle : {store_p->writer, store_p->reader}) {
        shkv_head *head = head_of(handle);
        head->refill_pos = head->iter_off = head->iter_bkt = head->iter_cnt = 0;
    }
    session one = {store_p, in, store_p->contents[which], {}, (first & 8) != 0};
    while (one.in.left())
        step(&one);
    for (unsigned no = 0; one.txn && no < KEYS; ++no)
        look(&one, true, {no});
    end_txn(&one, first & 4);
    for (unsigned no = 0; no < KEYS; ++no) {
        look(&one, false, {no});
        if (inputs % 8 == 0)
            look(&one, true, {no});
    }
    iterate_all(&one, false);
    if (++inputs % 512 == 0) {
        std::string faults = image_faults(store_p->kind_p->name, false);
        MUST(faults.empty(), faults);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_private_place();
    for (int i = 0; i < 2; ++i)
        make_ready(&stores[i], &KINDS[i]);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    run({data, data + size});
    return 0;
}
