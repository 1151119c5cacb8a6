// Reshaping in one process: the interim list, the open and its refusals, what a reshape makes of a
// store, and what its close does when something is left.
#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "reshape/interim.h"
#include "shkv_intf/resize_md.h"
#include "support/kv.h"

namespace {

constexpr uint32_t REST = CF_MD1 | CF_UD1;         // as created
constexpr uint32_t OVER = CF_MD2 | CF_UD2;         // and moved
constexpr uint32_t NODE = 16 + 32 + UDN_HEAD_SZ;

kv fixed_kv(const char *name, uint32_t records, uint32_t maxents = 2000, uint32_t conf_flg = CONF_FIXEDMM)
{
    kv made = make_kv(name, {16, 32, maxents, conf_flg, 0});
    for (uint32_t i = 0; i < records; i++)
        EXPECT_EQ(made.add("k" + std::to_string(i), "v" + std::to_string(i)), 0);
    return made;
}

// A reshaper's handle beside the others, with nothing moved yet.
int open_reshaper(const char *name, shkv_rscf rscf = {0, 1, 0, 0}, uint32_t *err_p = nullptr)
{
    uint32_t err = 0;
    int handle = shkv_open_reshaping(name, UUID_RESHAPE1, 0, &rscf, SHKV_AM_RESHAPE, &err);
    if (err_p)
        *err_p = err;
    return handle;
}

off_t size_of(const char *name, const char *object)
{
    struct stat st = {};
    return stat(("/dev/shm/shkvmu/" + std::string(name) + object).c_str(), &st) == 0 ? st.st_size : -1;
}

void *ud_base(const kv &of, bool ud2)
{
    return (ud2 ? of.head()->ud2_map : of.head()->ud1_map)->map[0];
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
    fflush(stdout);
    pid_t pids[N];
    for (size_t i = 0; i < N; i++)
        if ((pids[i] = fork()) == 0) {
            what(cases[i]);
            _exit(testing::Test::HasFailure());
        }
    for (pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
}

// A move by hand, through the interface alone.
int move_by_hand(int mover)
{
    char key_room[64], val_room[64];
    int result = shkv_iterate(mover, nullptr, nullptr, nullptr, 1);
    while (result == 0) {
        shkv_buf key = {key_room, sizeof key_room}, value = {val_room, sizeof val_room};
        if ((result = shkv_iterate(mover, &key, &value, nullptr, 0)) == 0 &&
            (result = __shkv_add(mover, &key, &value, nullptr, 0x88)) == 0)
            result = __shkv_delete(mover, &key, 0x66);
    }
    return result;
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

// What a dead writer linked and did not make the tail is found, and the next one goes behind it.
TEST(interim, the_newest_record_of_a_key_rules)
{
    kv store = fixed_kv("list", 3);
    void *ud = ud_base(store, false);
    sbm *sbm_p = (sbm *)ud;
    std::string key = "key", other = "kex", longer(NODE, 'x');
    shkv_buf key_buf = buf_of(key), other_buf = buf_of(other), long_buf = buf_of(longer), none = {nullptr, 0};
    shkv_interimlst_init(store.head(), ud);
    const struct {
        const shkv_buf *key;
        uint32_t op;
        int result;
        uint32_t rules; // 0: the dead node
        bool cut;
    } steps[] = {{&other_buf, 0x1001, 0, 0, false},      {&key_buf, 0x1001, 0, 0x1001, false},
                 {&key_buf, 0x1003, EINVAL, 0x1001, false}, {nullptr, 0x1001, EINVAL, 0x1001, false},
                 {&long_buf, 0x1002, EINVAL, 0x1001, false}, {&key_buf, 0x1002, 0, 0x1002, true},
                 {&other_buf, 0x1002, 0, 0x1002, false}};
    for (const auto &step : steps) {
        uint32_t tail = sbm_p->intrm_tail;
        EXPECT_EQ(shkv_interimlst_put(store.head(), ud, step.key, &none, step.op), step.result);
        EXPECT_EQ(step.result == 0, sbm_p->intrm_tail != tail);
        if (step.cut)
            sbm_p->intrm_tail = tail;
        const udn *udn_p = shkv_interimlst_lookup(store.sn(), &key_buf, ud);
        EXPECT_EQ(udn_p ? udn_p->unit_next : 0, step.rules);
    }
    interim_discard(store.head(), ud);
    EXPECT_TRUE(interim_empty(ud) && !shkv_interimlst_lookup(store.sn(), &key_buf, ud));
}

TEST(reshape, what_cannot_be_reshaped_is_refused_and_keeps_its_flags)
{
    shkv_max_db_sz = shkv_memory_limit_process = 0x20000000u;
    make_kv("vec", {16, 32, 100, CONF_VECTORMM, 0});
    kv fixed = fixed_kv("fix", 10);
    struct {
        const char *name;
        uint32_t flg;
        shkv_rscf rscf;
        uint32_t uuid, err;
        const char *line;
    } cases[] = {
        {"vec", 0, {0, 1, 0, 0}, UUID_RESHAPE1, EINVAL, "reshaping failed: dvmm mode currently not             support shrink."},
        {"fix", CF_REFILL1, {0, 1, 0, 0}, UUID_RESHAPE1, EINVAL, "disable reshaping when DB is under resizing. "},
        {"fix", CF_REFILL2, {0, 1, 0, 0}, UUID_RESHAPE1, EINVAL, "disable reshaping when DB is under resizing. "},
        {"fix", CF_TXN, {0, 1, 0, 0}, UUID_RESHAPE1, EINVAL, "disable reshaping when DB is under txn. "},
        {"fix", CF_RESH_TOKEN1, {0, 1, 0, 0}, UUID_RESHAPE2, EINVAL, "uuid:61458,reshape token was taken:1005"},
        {"fix", CF_RESH_TOKEN2, {0, 1, 0, 0}, 7, EINVAL, "uuid:7,reshape token was taken:2005"},
        {"fix", 0, {0, 1, 0, 0}, 7, EINVAL, "uuid:7,process is not allowed to reshape:"},
        {"fix", 0, {8, 1, 0, 0}, UUID_RESHAPE1, EINVAL, "bad object sizes for reshaping, md:8 ud:1"},
        {"fix", 0, {0, 4096, 0, 0}, UUID_RESHAPE1, EINVAL, "bad object sizes for reshaping, md:0 ud:4096"},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.line);
        fixed.sn()->comm_flg |= one.flg;
        uint32_t err = 0, flg = fixed.sn()->comm_flg;
        log_catcher log;
        EXPECT_EQ(shkv_open_reshaping(one.name, one.uuid, 0, &one.rscf, SHKV_AM_RESHAPE, &err), 0);
        EXPECT_EQ(err, one.err);
        EXPECT_EQ(log.last(), one.line);
        EXPECT_EQ(fixed.sn()->comm_flg, flg);
        int sem = 0;
        EXPECT_TRUE(sem_getvalue(&fixed.sn()->resh_sem, &sem) == 0 && sem == 1);
        EXPECT_EQ(fixed.sn()->md2.obj_sz, 0u);
        fixed.sn()->comm_flg = REST;
    }
    // Through shkv_open there is nothing to reshape to: err 0, and the token is gone.
    uint32_t err = 9;
    EXPECT_EQ(shkv_open("fix", UUID_RESHAPE2, 0, SHKV_AM_RESHAPE, &err), 0);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(fixed.sn()->comm_flg, REST | CF_RESH_TOKEN2);
    EXPECT_EQ(shkv_reshape_db("fix", 0), EINVAL);
    fixed.sn()->comm_flg = REST;
    EXPECT_EQ(shkv_reshape_db("fix", 1), EINVAL);
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
    } rounds[] = {{"the same again", 0, 1, 0, OVER, 7},
                  {"larger table, less space", 80008, small, 5, CF_MD1 | CF_UD1, 4},
                  {"table alone", 8000, 0, 11, CF_MD2 | CF_UD1, 10},
                  {"table alone, back", 16000, 0, 1, CF_MD1 | CF_UD1, 0},
                  {"space alone in effect", 0, big, 1, CF_MD2 | CF_UD2, 0},
                  {"smallest table", 16, 1, 8, CF_MD1 | CF_UD1, 7}};
    kv store = fixed_kv("fro", 900);
    kv reader = open_kv("fro", SHKV_AM_READ | SHKV_AM_ITER);
    contents want = store.all();
    for (const auto &round : rounds) {
        SCOPED_TRACE(round.what);
        supernode *sn = store.sn();
        uint32_t md_sz = round.md_sz ? round.md_sz : store.md1() ? sn->md1.obj_sz : sn->md2.obj_sz;
        uint32_t old_ud = sn->comm_flg & CF_UD1 ? sn->ud1.obj_sz : sn->ud2.obj_sz;
        uint32_t ud_sz = round.ud_sz > 1 ? round.ud_sz : old_ud;
        ASSERT_EQ(shkv_reshaping("fro", round.md_sz, round.ud_sz, 0, round.new_hash), 0);
        ASSERT_EQ(sn->comm_flg, round.flg);
        bool md1 = round.flg & CF_MD1, ud1 = round.flg & CF_UD1;
        const md_desc *md = md1 ? &sn->md1 : &sn->md2;
        EXPECT_EQ(md->hashfn, round.hashfn);
        EXPECT_EQ(md->hashsz, md_sz / 8 - 1);
        EXPECT_EQ(size_of("fro", md1 ? "_md1" : "_md2"), md_sz);
        EXPECT_EQ(size_of("fro", md1 ? "_md2" : "_md1"), 0);
        EXPECT_EQ(size_of("fro", ud1 ? "_ud1" : "_ud2"), ud_sz);
        EXPECT_EQ(size_of("fro", ud1 ? "_ud2" : "_ud1"), 0);
        EXPECT_EQ(ud1 ? sn->ud2.obj_sz : sn->ud1.obj_sz, 0u);
        EXPECT_EQ(store.all(), want);
        EXPECT_EQ(reader.all(), want);
        EXPECT_GE(shkv_get_exact_max_entries_from_db("fro"), want.size());
        for (const auto &[key, value] : want)
            ASSERT_EQ(reader.at(key), value);
        EXPECT_EQ(faults_of("fro"), "");
        // And it works on there: replaced, deleted, added, also in the other chains of a bucket.
        std::string name = "n" + std::to_string(&round - rounds);
        EXPECT_EQ(store.add(name, name), 0);
        EXPECT_EQ(store.add("k" + std::to_string(5 + (&round - rounds)), name), 0);
        EXPECT_EQ(store.del("k" + std::to_string(100 + (&round - rounds))), 0);
        want[name] = want["k" + std::to_string(5 + (&round - rounds))] = name;
        want.erase("k" + std::to_string(100 + (&round - rounds)));
        EXPECT_EQ(reader.all(), want);
    }
    // The space that the last reshape made grows like any other.
    for (uint32_t i = 0; store.sn()->ud1.obj_sz == big; i++) {
        std::string key = "more" + std::to_string(i);
        ASSERT_EQ(store.add(key, key), 0);
        want[key] = key;
    }
    EXPECT_EQ(reader.all(), want);
    EXPECT_EQ(faults_of("fro"), "");
}

// A caller that moves the records itself, into chains of MD2 and back, with long chains in both.
TEST(reshape, records_can_be_moved_by_hand)
{
    kv store = fixed_kv("hand", 400);
    contents want = store.all();
    for (uint32_t ud_sz : {1u, 0u, 0u}) {
        kv mover = {open_reshaper("hand", {800, ud_sz, 0, 2})};
        ASSERT_GT(mover.handle, 0);
        EXPECT_EQ(move_by_hand(mover.handle), ENOENT);
        for (int i = 0; i < 40; i++) { // replaced in the middle of a chain
            std::string key = "k" + std::to_string(7 * i), value = "r" + std::to_string(ud_sz);
            shkv_buf key_buf = buf_of(key), value_buf = buf_of(value);
            EXPECT_EQ(__shkv_add(mover.handle, &key_buf, &value_buf, nullptr, 0x88), 0);
            want[key] = value;
        }
        for (const auto &[key, value] : want)
            ASSERT_EQ(store.at(key), value);
        ASSERT_EQ(shkv_close(mover.handle), 0);
        EXPECT_EQ(store.all(), want);
        EXPECT_EQ(faults_of("hand"), "");
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
    uint32_t err = 0;
    int mover = open_reshaper("between", {64 << 20, 1, 0, 0}, &err);
    writer.join();
    EXPECT_EQ(store.add("k3", "staged"), 0);
    EXPECT_TRUE(mover > 0 || (err == EINVAL && *flg_p == (REST | CF_TXN)));
    EXPECT_EQ(mover ? shkv_close(mover) : 0, 0);
    EXPECT_EQ(shkv_txn_commit(store.handle, nullptr), 0);
    EXPECT_EQ(store.at("k3"), "staged");
    EXPECT_EQ(store.all().size(), 50u);
    EXPECT_EQ(faults_of("between", mover > 0), "");
    EXPECT_EQ(shkv_reshaping("between", 0, 1, 0, 0), 0);
    EXPECT_EQ(store.at("k3"), "staged");
    EXPECT_EQ(shkv_open_reshaping("nowhere", UUID_RESHAPE1, 0, nullptr, SHKV_AM_RESHAPE, nullptr), 0);
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
        kv mover = {open_reshaper(kind.name, {0, kind.ud_sz, 0, 3})};
        ASSERT_GT(mover.handle, 0);
        uint32_t during = REST | CF_RESH_TOKEN1 | CF_MD2 | MDO1N2 | CF_RESHAPE;
        ASSERT_EQ(store.sn()->comm_flg, during | (kind.ud_sz ? CF_UD2 | UDO1N2 : 0));
        EXPECT_EQ(open_reshaper(kind.name), 0) << "one at a time";
        EXPECT_EQ(open_store(kind.name, SHKV_AM_WRITE | SHKV_AM_WPROT), 0) << "no new writer";
        EXPECT_EQ(shkv_iterate(reader.handle, nullptr, nullptr, nullptr, 1), EINVAL);
        const sbm *list = (const sbm *)ud_base(mover, kind.ud_sz);
        EXPECT_EQ(list->intrm_head != 0, kind.ud_sz != 0);

        EXPECT_EQ(store.add("fresh", "1"), 0);
        EXPECT_EQ(store.add("k7", "again"), 0);
        EXPECT_EQ(store.del("k8"), 0);
        EXPECT_EQ(store.del("never was"), 0) << "not looked for";
        EXPECT_EQ(store.add("gone", "1"), 0);
        EXPECT_EQ(store.del("gone"), 0);
        EXPECT_EQ(store.del("k9"), 0);
        EXPECT_EQ(store.add("k9", "back"), 0);
        EXPECT_EQ(tables_lookup(reader.handle, "fresh"), ENOENT);
        EXPECT_EQ(tables_lookup(reader.handle, "k8"), 0);
        want["fresh"] = "1", want["k7"] = "again", want["k9"] = "back";
        want.erase("k8");
        for (uint32_t i = 0; i < 100; i++) { // more than a list may hold: the writer applies it itself
            std::string key = "l" + std::to_string(i);
            EXPECT_EQ(store.add(key, key), 0);
            want[key] = key;
            for (const kv *who : {&store, &reader})
                EXPECT_EQ(who->at(key), key);
        }
        EXPECT_EQ(tables_lookup(reader.handle, "fresh"), 0);
        for (const kv *who : {&store, &reader}) {
            for (const auto &[key, value] : want)
                EXPECT_EQ(who->at(key), value);
            EXPECT_EQ(who->at("k8") + who->at("gone"), "#2#2");
        }
        EXPECT_EQ(faults_of(kind.name), "");

        ASSERT_EQ(shkv_close(mover.handle), 0);
        EXPECT_EQ(store.sn()->comm_flg, kind.ud_sz ? OVER : CF_MD2 | CF_UD1);
        EXPECT_EQ(store.all(), want);
        EXPECT_EQ(reader.all(), want);
        EXPECT_EQ(store.add("later", "1"), 0);
        EXPECT_EQ(reader.at("later"), "1");
        EXPECT_EQ(faults_of(kind.name), "");
        ASSERT_EQ(shkv_close(reader.handle), 0);
        // Back again, so that nothing of this list is taken for the next one's.
        want["later"] = "1";
        ASSERT_EQ(shkv_reshaping(kind.name, 0, kind.ud_sz, 0, 0), 0);
        EXPECT_EQ(store.all(), want);
        EXPECT_EQ(faults_of(kind.name), "");
    });
}

// The states that a killed reshaper may leave behind, as far as a handle can make them.
TEST(reshape, writes_pass_the_list_by_under_drain_and_stay)
{
    kv store = fixed_kv("drain", 50);
    kv mover = {open_reshaper("drain")};
    ASSERT_GT(mover.handle, 0);
    EXPECT_EQ(store.add("k1", "listed"), 0);
    store.sn()->comm_flg |= CF_RESHAPE_DRAIN;
    EXPECT_EQ(store.add("k1", "drained"), 0);
    EXPECT_EQ(store.add("new", "drained"), 0);
    EXPECT_EQ(store.del("k2"), 0);
    EXPECT_EQ(store.del("nothing"), ENOENT);
    EXPECT_EQ(tables_lookup(store.handle, "new"), 0);
    EXPECT_TRUE(interim_empty(ud_base(mover, true)));
    std::string key = "k3", other = "mode";
    shkv_buf key_buf = buf_of(key), other_buf = buf_of(other);
    EXPECT_EQ(__shkv_delete(mover.handle, &key_buf, 0x77), ENOENT) << "not in the new table yet";
    EXPECT_EQ(__shkv_delete(mover.handle, &key_buf, 0x66), 0);
    EXPECT_EQ(__shkv_add(mover.handle, &other_buf, &key_buf, nullptr, 0x99), 0);
    store.sn()->comm_flg &= ~CF_RESHAPE_DRAIN;
    EXPECT_EQ(__shkv_delete(mover.handle, &key_buf, 0x77), EBADF);
    EXPECT_EQ(store.at("k1") + store.at("new") + store.at("k2") + store.at("k3") + store.at("mode"), "draineddrained#2#2k3");
    ASSERT_EQ(shkv_close(mover.handle), 0);
    EXPECT_EQ(store.at("k1") + store.at("new") + store.at("k2") + store.at("k3") + store.at("mode"), "draineddrained#2#2k3");
    EXPECT_EQ(store.all().size(), 50u);
    EXPECT_EQ(faults_of("drain"), "");
}

// What cannot be moved ends the reshape: 22, and the old objects hold everything, the writes of the
// reshape included.
TEST(reshape, a_reshape_that_cannot_finish_goes_back)
{
    const uint32_t sizes[] = {0, 1, 40000};
    side_by_side(sizes, [](uint32_t ud_sz) {
        SCOPED_TRACE(ud_sz);
        std::string name = "back" + std::to_string(ud_sz);
        kv store = fixed_kv(name.c_str(), 600);
        contents want = store.all();
        udn *bad = nullptr;
        for (uint32_t off = 256 + 2 * NODE; ud_sz < 2 && !bad; off += NODE)
            if (udn *udn_p = (udn *)((char *)ud_base(store, false) + off); memcmp((char *)udn_p + 20, "k400", 4) == 0)
                bad = udn_p;
        if (bad)
            bad->cksum ^= 0x40;
        kv mover = {open_reshaper(name.c_str(), {0, ud_sz, 0, 6})};
        ASSERT_GT(mover.handle, 0);
        EXPECT_EQ(store.add("k3", "new"), 0);
        EXPECT_EQ(store.del("k4"), 0);
        EXPECT_EQ(store.add("extra", "1"), 0);
        want["k3"] = "new", want["extra"] = "1";
        want.erase("k4");
        ASSERT_EQ(shkv_close(mover.handle), 0);
        EXPECT_EQ(store.sn()->comm_flg, REST);
        EXPECT_EQ(size_of(name.c_str(), "_md2") + size_of(name.c_str(), "_ud2"), 0);
        EXPECT_EQ(store.at("k400"), bad ? "#22" : "v400");
        EXPECT_EQ(shkv_reshaping(name.c_str(), 0, ud_sz, 0, 6), EINVAL);
        EXPECT_EQ(store.sn()->comm_flg, REST);
        if (bad)
            bad->cksum ^= 0x40;
        EXPECT_EQ(store.all(), want);
        EXPECT_EQ(faults_of(name.c_str(), false), "");
        EXPECT_EQ(shkv_reshaping(name.c_str(), 0, 1, 0, 6), 0);
        EXPECT_EQ(store.all(), want);
        EXPECT_EQ(faults_of(name.c_str()), "");
    });
}

// A function of the caller's: who opened before cannot hash the new table and is told so; who brings
// the function finds every record.
TEST(reshape, a_callers_hash_function_is_known_to_who_brings_it)
{
    kv store = fixed_kv("user", 40);
    contents want = store.all();
    kv mover = {open_reshaper("user", {0, 1, 0, (uint64_t)&last_byte})};
    ASSERT_GT(mover.handle, 0);
    EXPECT_EQ(store.add("added", "1"), 0);
    EXPECT_EQ(store.at("added") + store.at("k1"), "1v1");
    want["added"] = "1";
    ASSERT_EQ(shkv_close(mover.handle), 0);
    EXPECT_EQ(store.sn()->md2.hashfn, SHKV_USER_HASHFN);
    EXPECT_EQ(store.at("k1"), "#22");
    EXPECT_EQ(store.all(), want);
    uint32_t err = 0;
    EXPECT_EQ(shkv_open("user", 0, (uint64_t)&first_byte, SHKV_AM_READ, &err), 0);
    EXPECT_EQ(err, (uint32_t)EINVAL);
    EXPECT_EQ(kv{shkv_open("user", 0, 3, SHKV_AM_READ, &err)}.at("k1"), "#2") << "a built-in is not compared";
    kv knows = {shkv_open("user", 0, (uint64_t)&last_byte, SHKV_AM_READ, &err)};
    for (const auto &[key, value] : want)
        EXPECT_EQ(knows.at(key), value);
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
    for (const kv *who : {&store, &knows})
        for (const auto &[key, value] : want)
            EXPECT_EQ(who->at(key), value);
    EXPECT_EQ(store.add("works", "on"), 0);
    EXPECT_EQ(faults_of("user"), "");
}
