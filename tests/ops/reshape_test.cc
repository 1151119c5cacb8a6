// Reshaping in one process: the interim list, the open and its refusals, what a reshape makes of a
// store, and what its close does when something is left.
#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "reshape/interim.h"
#include "shkv_intf/resize_md.h"
#include "support/kv.h"

namespace {

constexpr uint32_t REST = CF_MD1 | CF_UD1; // as created

kv fixed_kv(const char *name, uint32_t records, uint32_t maxents = 2000, uint32_t conf_flg = CONF_FIXEDMM)
{
    kv made = make_kv(name, {16, 32, maxents, conf_flg, 0});
    for (uint32_t i = 0; i < records; i++)
        EXPECT_EQ(made.add(key_no(i), "v" + std::to_string(i)), 0);
    return made;
}

// A reshaper's handle beside the others, with nothing moved yet.
kv open_reshaper(const char *name, shkv_rscf rscf = {0, 1, 0, 0})
{
    uint32_t err = 0;
    return {shkv_open_reshaping(name, UUID_RESHAPE1, 0, &rscf, SHKV_AM_RESHAPE, &err)};
}

off_t size_of(const char *name, const char *object)
{
    struct stat st = {};
    return stat(("/dev/shm/shkvmu/" + std::string(name) + object).c_str(), &st) == 0 ? st.st_size : -1;
}

void expect_found(std::initializer_list<kv> handles, const contents &want)
{
    for (const kv &who : handles)
        for (const auto &[key, value] : want)
            EXPECT_EQ(who.at(key), value) << who.handle;
}

// The contents of a store as these handles see them, and nothing wrong with its bytes.
void expect_contents(const char *name, std::initializer_list<kv> handles, const contents &want, bool strict = true)
{
    expect_found(handles, want);
    for (const kv &who : handles)
        EXPECT_EQ(who.all(), want);
    EXPECT_EQ(faults_of(name, strict), "");
}

int tables_lookup(int handle, std::string key)
{
    char room[64];
    shkv_buf key_buf = buf_of(key), value = {room, sizeof room};
    return __shkv_lookup(handle, &key_buf, &value, 0x33);
}

// A reshape sleeps for a second: cases of stores of their own run side by side.
template <typename C, size_t N, typename F> void side_by_side(const C (&cases)[N], F what)
{
    make_kv(testing::UnitTest::GetInstance()->current_test_info()->name(), {16, 16, 10, CONF_FIXEDMM, 0}); // and the registry
    pid_t pids[N];
    for (size_t i = 0; i < N; i++)
        pids[i] = start_child([&] { return what(cases[i]), 0; });
    for (pid_t pid : pids)
        EXPECT_EQ(end_of(pid), 0);
}

uint32_t first_byte(const void *key, uint32_t)
{
    return *(const uint8_t *)key;
}

uint32_t last_byte(const void *key, uint32_t len)
{
    return ((const uint8_t *)key)[len - 1];
}

} // namespace

// The first of the deletes is of a writer that died before it made it the tail: it is found, and the next one
// goes behind it.
TEST(interim, the_newest_record_of_a_key_rules_before_the_tables)
{
    kv store = fixed_kv("list", 2);
    sbm *list = (sbm *)store.ud();
    shkv_interimlst_init(store.head(), list);
    const std::string longer(80, 'x');
    const struct {
        std::string key, value;
        uint32_t op;
        int result;
    } puts[] = {{"k1", "", INTRM_DEL, 0},      {"k0", "older", INTRM_ADD, 0}, {"k0", "interim", INTRM_ADD, 0},
                {"k2", "sum", INTRM_ADD, 0},   {"k3", "sum", INTRM_ADD, 0},   {"k0", "", 0x1003, EINVAL},
                {longer, "", INTRM_DEL, EINVAL}, {"", "", INTRM_ADD, EINVAL}};
    for (const auto &one : puts) {
        shkv_buf key = buf_of(one.key), value = buf_of(one.value);
        uint32_t tail = list->intrm_tail;
        EXPECT_EQ(shkv_interimlst_put(store.head(), list, key.len ? &key : nullptr, &value, one.op), one.result);
        EXPECT_EQ(list->intrm_tail != tail, one.result == 0);
        if (one.op == INTRM_DEL)
            list->intrm_tail = tail;
    }
    const std::string unverified = "k2", broken = "k3";
    shkv_buf unverified_buf = buf_of(unverified), broken_buf = buf_of(broken);
    shkv_interimlst_lookup(store.sn(), &unverified_buf, list)->cksum = 0;
    shkv_interimlst_lookup(store.sn(), &broken_buf, list)->cksum ^= 0x55;
    store.sn()->comm_flg |= CF_RESHAPE;
    const struct {
        const char *key;
        uint32_t mode, room;
        int value;
        uint32_t len;
        const char *line;
    } cases[] = {{"k0", 0, 40, 0, 7, ""},       {"k0", 0, 6, EINVAL, 7, "shkv_lookup,val buf too small, shkvh:%d"},
                 {"k0", 0x33, 40, 0, 2, ""},    {"k1", 0, 40, ENOENT, 40, "shkv_lookup, no such key"},
                 {"k1", 0x33, 40, 0, 2, ""},    {"k2", 0, 40, 0, 3, ""},
                 {"k3", 0, 40, EINVAL, 40, "shkv_lookup,bad checksum, shkvh:%d"}};
    for (const auto &one : cases) {
        char room[40], line[128];
        shkv_buf key = {const_cast<char *>(one.key), 2}, value = {room, one.room};
        log_catcher log;
        EXPECT_EQ(__shkv_lookup(store.handle, &key, &value, one.mode), one.value) << one.key;
        EXPECT_EQ(value.len, one.len) << one.key;
        snprintf(line, sizeof line, one.line, store.handle);
        EXPECT_EQ(log.last(), line);
    }
    interim_discard(store.head(), list);
    EXPECT_TRUE(interim_empty(list));
    EXPECT_EQ(store.at("k0") + store.at("k1"), "v0v1");
    // A damaged header reaches past the mapping; a list that leads there ends at it.
    list->ud_end = 0x7fffff00;
    list->intrm_head = store.head()->ud1_map->mapped_sz;
    EXPECT_EQ(store.at("k1"), "v1");
}

TEST(reshape, nothing_to_reshape_to_is_refused)
{
    kv fixed = fixed_kv("fix", 10);
    // Through shkv_open there is nothing to reshape to: err 0, and the token is gone.
    uint32_t err = 9;
    EXPECT_EQ(shkv_open("fix", UUID_RESHAPE2, 0, SHKV_AM_RESHAPE, &err), 0);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(fixed.sn()->comm_flg, REST | CF_RESH_TOKEN2);
    EXPECT_EQ(shkv_reshape_db("fix", 0), EINVAL);
    fixed.sn()->comm_flg = REST;
    EXPECT_EQ(shkv_reshape_db("fix", 1), EINVAL);
    EXPECT_EQ(shkv_reshape_db(nullptr, 0), EINVAL);
    EXPECT_EQ(shkv_reshaping("fix", 0, 1, 12, 0), EINVAL);
    EXPECT_EQ(shkv_reshaping(std::string(221, 'x').c_str(), 0, 1, 0, 0), EINVAL);
    EXPECT_EQ(fixed.sn()->comm_flg, REST);
    EXPECT_EQ(fixed.all().size(), 10u);
    uint32_t nx = 0;
    EXPECT_EQ(shkv_get_nx_db_handle(fixed.handle, nullptr), EINVAL);
    EXPECT_EQ(shkv_get_nx_db_handle(99, &nx), EBADF);
    EXPECT_EQ(shkv_get_nx_db_handle(fixed.handle, &nx), 0);
    EXPECT_EQ(nx, (uint32_t)fixed.handle);
}

// Six reshapes of one store, each of another kind; the creator's handle and a reader's, both older
// than all of them, see every record, and the objects have the lengths that were asked for.
TEST(reshape, a_store_moves_to_and_fro_under_its_handles)
{
    uint32_t big = 400000, small = GET_USER_SIZE(1000, 16, 32);
    const struct {
        const char *what;
        uint32_t md_sz, ud_sz, new_hash, flg, hashfn;
    } rounds[] = {{"the same again", 0, 1, 0, CF_MD2 | CF_UD2, 7},
                  {"larger table, less space", 80008, small, 5, CF_MD1 | CF_UD1, 4},
                  {"table alone", 8000, 0, 11, CF_MD2 | CF_UD1, 10},
                  {"table alone, back", 16000, 0, 1, CF_MD1 | CF_UD1, 0},
                  {"space alone in effect", 0, big, 1, CF_MD2 | CF_UD2, 0},
                  {"smallest table", 16, 1, 8, CF_MD1 | CF_UD1, 7}};
    kv store = fixed_kv("fro", 900), reader = open_kv("fro", SHKV_AM_READ | SHKV_AM_ITER);
    supernode *sn = store.sn();
    contents want = store.all();
    for (const auto &round : rounds) {
        SCOPED_TRACE(round.what);
        uint32_t md_sz = round.md_sz ? round.md_sz : store.md1() ? sn->md1.obj_sz : sn->md2.obj_sz;
        uint32_t ud_sz = round.ud_sz > 1 ? round.ud_sz : sn->comm_flg & CF_UD1 ? sn->ud1.obj_sz : sn->ud2.obj_sz;
        ASSERT_EQ(shkv_reshaping("fro", round.md_sz, round.ud_sz, 0, round.new_hash), 0);
        ASSERT_EQ(sn->comm_flg, round.flg);
        const struct {
            const char *object;
            uint32_t flg, desc_sz, size;
        } objects[] = {{"_md1", CF_MD1, sn->md1.obj_sz, md_sz}, {"_md2", CF_MD2, sn->md2.obj_sz, md_sz},
                       {"_ud1", CF_UD1, sn->ud1.obj_sz, ud_sz}, {"_ud2", CF_UD2, sn->ud2.obj_sz, ud_sz}};
        for (const auto &each : objects) {
            uint32_t size = round.flg & each.flg ? each.size : 0;
            EXPECT_EQ(size_of("fro", each.object), size) << each.object;
            EXPECT_EQ(each.desc_sz, size) << each.object;
        }
        const md_desc *md = store.md1() ? &sn->md1 : &sn->md2;
        EXPECT_EQ(md->hashfn, round.hashfn);
        EXPECT_EQ(md->hashsz, md_sz / 8 - 1);
        EXPECT_GE(shkv_get_exact_max_entries_from_db("fro"), want.size());
        expect_contents("fro", {store, reader}, want);
        // And it works on there: replaced, deleted, added, also in the other chains of a bucket.
        size_t no = &round - rounds;
        for (const std::string &key : {"n" + std::to_string(no), key_no(5 + no)})
            EXPECT_EQ(store.add(key, want[key] = round.what), 0);
        EXPECT_EQ(store.del(key_no(100 + no)), 0);
        want.erase(key_no(100 + no));
        EXPECT_EQ(reader.all(), want);
    }
    // The space that the last reshape made grows like any other.
    for (uint32_t i = 900; sn->ud1.obj_sz == big; i++)
        ASSERT_EQ(store.add(key_no(i), want[key_no(i)] = "more"), 0);
    expect_contents("fro", {store, reader}, want);
}

// A caller that moves the records itself, into chains of MD2 and back, with long chains in both.
TEST(reshape, records_can_be_moved_by_hand)
{
    kv store = fixed_kv("hand", 400);
    contents want = store.all();
    for (uint32_t ud_sz : {1u, 0u, 0u}) {
        kv mover = open_reshaper("hand", {800, ud_sz, 0, 2});
        ASSERT_GT(mover.handle, 0);
        for (const auto &[key, value] : want) {
            shkv_buf key_buf = buf_of(key), value_buf = buf_of(value);
            EXPECT_EQ(__shkv_add(mover.handle, &key_buf, &value_buf, nullptr, 0x88), 0);
            EXPECT_EQ(__shkv_delete(mover.handle, &key_buf, 0x66), 0);
        }
        for (int i = 0; i < 40; i++) { // replaced in the middle of a chain
            std::string key = key_no(7 * i);
            shkv_buf key_buf = buf_of(key), value_buf = buf_of(want[key] = "r" + std::to_string(ud_sz));
            EXPECT_EQ(__shkv_add(mover.handle, &key_buf, &value_buf, nullptr, 0x88), 0);
        }
        expect_found({store}, want);
        ASSERT_EQ(shkv_close(mover.handle), 0);
        expect_contents("hand", {store}, want);
    }
}

// A transaction that begins while the objects are being made is not overrun: either there is no
// reshape, or nothing has been staged.
TEST(reshape, a_transaction_that_comes_in_between_keeps_it_out)
{
    kv store = fixed_kv("between", 50);
    uint32_t *flg_p = &store.sn()->comm_flg;
    std::thread writer([&] {
        while (!(__atomic_load_n(flg_p, __ATOMIC_ACQUIRE) & CF_RESH_TOKEN1))
            __builtin_ia32_pause();
        EXPECT_EQ(shkv_txn_start(store.handle, nullptr), 0);
    });
    kv mover = open_reshaper("between", {64 << 20, 1, 0, 0});
    writer.join();
    EXPECT_EQ(store.add("k3", "staged"), 0);
    EXPECT_TRUE(mover.handle ? shkv_close(mover.handle) == 0 : *flg_p == (REST | CF_TXN));
    EXPECT_EQ(shkv_txn_commit(store.handle, nullptr), 0);
    EXPECT_EQ(store.at("k3"), "staged");
    EXPECT_EQ(store.all().size(), 50u);
    EXPECT_EQ(faults_of("between", mover.handle > 0), "");
    EXPECT_EQ(shkv_reshaping("between", 0, 1, 0, 0), 0);
    EXPECT_EQ(store.at("k3"), "staged");
    EXPECT_EQ(shkv_open_reshaping("nowhere", UUID_RESHAPE1, 0, nullptr, SHKV_AM_RESHAPE, nullptr), 0);
}

// A transaction in a reshape whose reshaper has gone: the delete holds wr_ksem, and stages its mark under it.
TEST(reshape, a_delete_staged_under_the_lock_does_not_wait_for_itself)
{
    kv store = fixed_kv("itself", 5);
    in_child([] { return open_reshaper("itself").handle == 0; });
    EXPECT_EQ(shkv_txn_start(store.handle, nullptr), 0);
    const std::string key = "k3";
    shkv_buf key_buf = buf_of(key);
    alarm(20);
    EXPECT_EQ(__shkv_delete(store.handle, &key_buf, 0x66), 0);
    EXPECT_EQ(store.add("k4", "on"), 0);
    alarm(0);
}

// A reshape that comes and goes while a write waits for the lock, after it has been made without it.
TEST(reshape, a_delete_made_once_more_tells_what_it_found)
{
    kv store = fixed_kv("twice", 1);
    supernode *sn = store.sn();
    uint32_t stop = 0, missed = 0;
    std::thread writer([&] {
        while (!__atomic_load_n(&stop, __ATOMIC_ACQUIRE))
            missed += store.add("k", "v") != 0 || store.del("k") != 0;
    });
    for (int i = 0; i < 20000; i++) {
        kmutex_lock(&sn->wr_ksem);
        __atomic_or_fetch(&sn->comm_flg, CF_RESHAPE, __ATOMIC_SEQ_CST);
        for (int at = 0; at < 100; at++)
            __builtin_ia32_pause();
        __atomic_and_fetch(&sn->comm_flg, ~CF_RESHAPE, __ATOMIC_SEQ_CST);
        pthread_mutex_unlock(&sn->wr_ksem);
    }
    __atomic_store_n(&stop, 1, __ATOMIC_RELEASE);
    writer.join();
    EXPECT_EQ(missed, 0u);
    EXPECT_EQ(faults_of("twice"), "");
}

// Between the open of the reshaper and its close, in every form of store: writes are on the list and
// seen at once; the close brings everything over.
TEST(reshape, writes_of_a_reshape_are_seen_at_once_and_kept)
{
    struct store_kind {
        const char *name;
        uint32_t conf_flg, ud_sz;
    };
    const store_kind kinds[] = {{"w_two", CONF_FIXEDMM, 1}, {"w_one", CONF_FIXEDMM, 0}, {"w_multi", CONF_FIXEDMM | CONF_MULTIWR, 1},
                 {"w_l3", CONF_FIXEDMM | CONF_L3, 1}, {"w_l3_one", CONF_FIXEDMM | CONF_L3, 0}};
    side_by_side(kinds, [](const store_kind &kind) {
        SCOPED_TRACE(kind.name);
        kv store = fixed_kv(kind.name, 300, 800, kind.conf_flg);
        kv reader = open_kv(kind.name, SHKV_AM_READ | SHKV_AM_ITER);
        contents want = store.all();
        kv mover = open_reshaper(kind.name, {0, kind.ud_sz, 0, 3});
        ASSERT_GT(mover.handle, 0);
        uint32_t during = REST | CF_RESH_TOKEN1 | CF_MD2 | MDO1N2 | CF_RESHAPE;
        ASSERT_EQ(store.sn()->comm_flg, during | (kind.ud_sz ? CF_UD2 | UDO1N2 : 0));
        EXPECT_EQ(open_reshaper(kind.name).handle, 0) << "one at a time";
        EXPECT_EQ(open_store(kind.name, SHKV_AM_WRITE | SHKV_AM_WPROT), 0) << "no new writer";
        EXPECT_EQ(shkv_iterate(reader.handle, nullptr, nullptr, nullptr, 1), EINVAL);
        const ud_map *to = kind.ud_sz ? mover.head()->ud2_map : mover.head()->ud1_map;
        EXPECT_EQ(((const sbm *)to->map[0])->intrm_head != 0, kind.ud_sz != 0);

        const char *const adds[][2] = {{"fresh", "1"}, {"k7", "again"}, {"gone", "1"}, {"k9", "old"}};
        for (auto [key, value] : adds)
            EXPECT_EQ(store.add(key, want[key] = value), 0);
        for (const char *key : {"k8", "never was", "gone", "k9"}) { // not looked for
            EXPECT_EQ(store.del(key), 0);
            want.erase(key);
        }
        EXPECT_EQ(store.add("k9", want["k9"] = "back"), 0);
        EXPECT_EQ(tables_lookup(reader.handle, "fresh"), ENOENT);
        EXPECT_EQ(tables_lookup(reader.handle, "k8"), 0);
        for (uint32_t i = 0; i < 100; i++) { // more than a list may hold: the writer applies it itself
            std::string key = "l" + std::to_string(i);
            EXPECT_EQ(store.add(key, want[key] = key), 0);
            EXPECT_EQ(store.at(key) + reader.at(key), key + key);
        }
        EXPECT_EQ(tables_lookup(reader.handle, "fresh"), 0);
        expect_found({store, reader}, want);
        for (const kv &who : {store, reader})
            EXPECT_EQ(who.at("k8") + who.at("gone"), "#2#2");
        EXPECT_EQ(faults_of(kind.name), "");

        ASSERT_EQ(shkv_close(mover.handle), 0);
        EXPECT_EQ(store.sn()->comm_flg, CF_MD2 | (kind.ud_sz ? CF_UD2 : CF_UD1));
        EXPECT_EQ(store.add("later", want["later"] = "1"), 0);
        expect_contents(kind.name, {store, reader}, want);
        ASSERT_EQ(shkv_close(reader.handle), 0);
        // Back again, so that nothing of this list is taken for the next one's.
        ASSERT_EQ(shkv_reshaping(kind.name, 0, kind.ud_sz, 0, 0), 0);
        expect_contents(kind.name, {store}, want);
    });
}

// The states that a killed reshaper may leave behind, as far as a handle can make them.
TEST(reshape, writes_pass_the_list_by_under_drain_and_stay)
{
    kv store = fixed_kv("drain", 50);
    kv mover = open_reshaper("drain");
    ASSERT_GT(mover.handle, 0);
    EXPECT_EQ(store.add("k1", "listed"), 0);
    store.sn()->comm_flg |= CF_RESHAPE_DRAIN;
    EXPECT_EQ(store.add("k1", "drained"), 0);
    EXPECT_EQ(store.add("new", "drained"), 0);
    EXPECT_EQ(store.del("k2"), 0);
    EXPECT_EQ(store.del("nothing"), ENOENT);
    EXPECT_EQ(tables_lookup(store.handle, "new"), 0);
    EXPECT_TRUE(interim_empty(mover.head()->ud2_map->map[0]));
    std::string key = "k3", other = "mode";
    shkv_buf key_buf = buf_of(key), other_buf = buf_of(other);
    EXPECT_EQ(__shkv_delete(store.handle, &key_buf, 5), EBADF);
    EXPECT_EQ(__shkv_delete(mover.handle, &key_buf, 0x77), ENOENT) << "not in the new table yet";
    EXPECT_EQ(__shkv_delete(mover.handle, &key_buf, 0x66), 0);
    EXPECT_EQ(__shkv_add(mover.handle, &other_buf, &key_buf, nullptr, 0x99), 0);
    store.sn()->comm_flg &= ~CF_RESHAPE_DRAIN;
    EXPECT_EQ(__shkv_delete(mover.handle, &key_buf, 0x77), EBADF);
    const contents want = {{"k1", "drained"}, {"new", "drained"}, {"k2", "#2"}, {"k3", "#2"}, {"mode", "k3"}};
    expect_found({store}, want);
    ASSERT_EQ(shkv_close(mover.handle), 0);
    expect_found({store}, want);
    EXPECT_EQ(store.all().size(), 50u);
    EXPECT_EQ(faults_of("drain"), "");
}

// What cannot be moved ends the reshape: 22, and the old objects hold everything, the writes of the
// reshape included.
TEST(reshape, a_reshape_that_cannot_finish_goes_back)
{
    const uint32_t sizes[] = {0, 1};
    side_by_side(sizes, [](uint32_t ud_sz) {
        SCOPED_TRACE(ud_sz);
        std::string name = "back" + std::to_string(ud_sz);
        kv store = fixed_kv(name.c_str(), 600);
        contents want = store.all();
        udn *bad = store.first_of("k400"); // the newest one of its chain
        bad->cksum ^= 0x40;
        kv mover = open_reshaper(name.c_str(), {0, ud_sz, 0, 6});
        ASSERT_GT(mover.handle, 0);
        EXPECT_EQ(store.add("k3", want["k3"] = "new"), 0);
        EXPECT_EQ(store.add("extra", want["extra"] = "1"), 0);
        EXPECT_EQ(store.del("k4"), 0);
        want.erase("k4");
        ASSERT_EQ(shkv_close(mover.handle), 0);
        EXPECT_EQ(store.sn()->comm_flg, REST);
        EXPECT_EQ(size_of(name.c_str(), "_md2") + size_of(name.c_str(), "_ud2"), 0);
        EXPECT_EQ(store.at("k400"), "#22");
        EXPECT_EQ(shkv_reshaping(name.c_str(), 0, ud_sz, 0, 6), EINVAL);
        EXPECT_EQ(store.sn()->comm_flg, REST);
        bad->cksum ^= 0x40;
        expect_contents(name.c_str(), {store}, want, false);
        EXPECT_EQ(shkv_reshaping(name.c_str(), 0, 1, 0, 6), 0);
        expect_contents(name.c_str(), {store}, want);
    });
}

// A function of the caller's: who opened before cannot hash the new table and is told so; who brings
// the function finds every record.
TEST(reshape, a_callers_hash_function_is_known_to_who_brings_it)
{
    kv store = fixed_kv("user", 40);
    contents want = store.all();
    kv mover = open_reshaper("user", {0, 1, 0, (uint64_t)&last_byte});
    ASSERT_GT(mover.handle, 0);
    EXPECT_EQ(store.add("added", want["added"] = "1"), 0);
    expect_found({store}, want);
    ASSERT_EQ(shkv_close(mover.handle), 0);
    EXPECT_EQ(store.sn()->md2.hashfn, SHKV_USER_HASHFN);
    EXPECT_EQ(store.at("k1"), "#22");
    EXPECT_EQ(store.all(), want);
    uint32_t err = 0;
    EXPECT_EQ(shkv_open("user", 0, (uint64_t)&first_byte, SHKV_AM_READ, &err), 0);
    EXPECT_EQ(err, (uint32_t)EINVAL);
    EXPECT_EQ(kv{shkv_open("user", 0, 3, SHKV_AM_READ, &err)}.at("k1"), "#2") << "a built-in is not compared";
    kv knows = {shkv_open("user", 0, (uint64_t)&last_byte, SHKV_AM_READ, &err)};
    expect_found({knows}, want);
    // From one function of the caller's to another, and back to a built-in one.
    shkv_rscf next = {0, 1, (uint64_t)&last_byte, (uint64_t)&first_byte};
    EXPECT_EQ(shkv_close(shkv_open_reshaping("user", UUID_RESHAPE2, 0, &next, SHKV_AM_RESHAPE, &err)), 0);
    EXPECT_EQ(knows.at("k1"), "#22") << "not looked for in the wrong bucket";
    // A rebuild into the object of the function before: who brings the one in use may open it.
    EXPECT_EQ(shkv_close(store.handle), 0);
    store = {shkv_open("user", 0, (uint64_t)&first_byte, SHKV_AM_WRITE, &err)};
    EXPECT_EQ(shkv_resize_md(store.head()), 0);
    kv later = {shkv_open("user", 0, (uint64_t)&first_byte, SHKV_AM_READ, &err)};
    EXPECT_EQ(later.at("k1"), "v1");
    EXPECT_EQ(shkv_open("user", 0, (uint64_t)&last_byte, SHKV_AM_READ, &err), 0);
    next = {0, 1, (uint64_t)&first_byte, 2};
    EXPECT_EQ(shkv_close(shkv_open_reshaping("user", UUID_RESHAPE2, 0, &next, SHKV_AM_RESHAPE, &err)), 0);
    expect_found({store, knows}, want);
    EXPECT_EQ(store.add("works", "on"), 0);
    EXPECT_EQ(faults_of("user"), "");
}
