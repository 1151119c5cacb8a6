// What each function refuses, in the order of its checks: the value, the line, and the event with its
// value or pair of values. A refused call changes nothing.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "shkv_intf/registry.h"
#include "support/kv.h"

namespace
{

// What the call is made on; its ring is the one that is looked at. The last ones are the fixed store,
// changed for the length of the call.
enum which { FIXED, VECTOR, READER, PLAIN, MULTI, REGISTRY, TXN, TXN_READER, CLOSED, STORES,
             DBG = STORES, GONE, NO_HASH, RESHAPE, OTHERS };
using call = std::function<int(int)>;

struct refusal {
    which on;
    call made;
    int value;
    const char *line;          // %d is the handle; null: not looked at
    uint32_t event = 0;        // 0: none; with its kind where that does not follow from arg2
    uint32_t arg = UINT32_MAX; // the handle
    uint32_t arg2 = 0;         // with one it is a pair
};

char bytes[70000];
shkv_buf key = {bytes, 4}, val = {bytes, 4}, none = {bytes, 0}, no_ptr = {nullptr, 4};
shkv_buf key17 = {bytes, 17}, val33 = {bytes, 33}, key2049 = {bytes, 2049}, val65001 = {bytes, 65001};
shkv_iter_pos pos;
int results[33];
shkv_opts opts = {0, 5, 77};
const std::string LONG_NAME(220, 'n'), FULL_NAME(219, 'n');

// The function on a handle, with these arguments behind it.
template <typename F, typename... A> call of(F function, A... args)
{
    return [=](int handle) { return function(handle, args...); };
}
call create(const char *uri, shkv_params conf)
{
    return [=](int) {
        uint32_t err = 99;
        return shkv_create(uri, 5, &conf, 0, &err) ? -1 : (int)err;
    };
}
call open(uint32_t uuid, uint32_t mode, const char *name = "fixed")
{
    return [=](int) {
        uint32_t err = 99;
        return shkv_open(name, uuid, 0, mode, &err) ? -1 : (int)err;
    };
}

// Something in the way of an object of the store.
call blocked(const char *suffix)
{
    return [=](int handle) {
        std::string path = std::string(SHKV_MU_DIR "/blocked") + suffix;
        EXPECT_EQ(0, mkdir(path.c_str(), 0777));
        int result = create("blocked", {16, 32, 100, CONF_VECTORMM, 0})(handle);
        EXPECT_EQ(0, rmdir(path.c_str()));
        return result;
    };
}
// A reshape whose refusal leaves the semaphore and the idle table alone.
call reshape(uint32_t uuid, shkv_rscf rscf = {0, 1, 0, 0}, const char *name = "closed")
{
    return [=](int handle) {
        uint32_t err = 99;
        int mover = shkv_open_reshaping(name, uuid, 0, &rscf, SHKV_AM_RESHAPE, &err), sem = 0;
        supernode *sn = shkv_db_heads[handle - 1].sn;
        EXPECT_TRUE(sem_getvalue(&sn->resh_sem, &sem) == 0 && sem == 1 && sn->md2.obj_sz == 0);
        return mover ? -1 : (int)err;
    };
}
// Another value in a word of a store that no writer has open, which stays; the word lies in a page that a
// reader cannot write.
call damaged(uint32_t off, uint32_t word, call made)
{
    return [=](int handle) {
        const uint32_t *word_p = (const uint32_t *)((char *)shkv_db_heads[handle - 1].sn + off), was = *word_p;
        int fd = ::open(SHKV_DB_DIR "/closed", O_RDWR);
        EXPECT_EQ(4, pwrite(fd, &word, 4, off));
        int result = made(handle);
        EXPECT_EQ(word, *word_p);
        EXPECT_EQ(4, pwrite(fd, &was, 4, off));
        close(fd);
        return result;
    };
}
// While no handle is left.
call crowded(call made)
{
    return [=](int handle) {
        std::vector<int> handles;
        shkv_dbg_en = 0;
        while (int other = open_store("fixed", SHKV_AM_READ))
            handles.push_back(other);
        shkv_dbg_en = 1;
        int result = made(handle);
        for (int other : handles)
            shkv_close(other);
        return result;
    };
}

const refusal OPERATIONS[] = {
    {READER, of(shkv_add, &key, &val, 0), EINVAL, "shkv_add, write is not allowed, shkvh:%d", 0x62},
    {DBG, of(shkv_add, &key, &val, 0), EINVAL, "shkv_add, write dbg is on-going, shkvh:%d", 0x63, UINT32_MAX, 1},
    {FIXED, of(shkv_add, nullptr, &val, 0), EINVAL, "shkv_add, has bad buffer, shkvh:%d", 0x64},
    {FIXED, of(shkv_add, &key, nullptr, 0), EINVAL, "shkv_add, has bad buffer, shkvh:%d", 0x64},
    {FIXED, of(shkv_add, &none, &val, 0), EINVAL, "shkv_add, key buffer size is 0, shkvh:%d", 0x65},
    {FIXED, of(shkv_add, &no_ptr, &val, 0), EINVAL, "shkv_add, key buffer size is 0, shkvh:%d", 0x65},
    {FIXED, of(shkv_add, &key, &no_ptr, 0), EINVAL, "shkv_add, value buffer is invalid, shkvh:%d", 0x66},
    {FIXED, of(shkv_add, &key17, &val, 0), EINVAL, "shkv_add, key buffer size is too big, shkvh:%d", 0x67, UINT32_MAX, 17},
    {FIXED, of(shkv_add, &key, &val33, 0), EINVAL, "shkv_add, value buffer is too big, shkvh:%d", 0x68, UINT32_MAX, 33},
    {VECTOR, of(shkv_add, &key2049, &val, 0), EINVAL, "shkv_add, key size is too big:2049", 0x70, 2049, 2048},
    {VECTOR, of(shkv_add, &key, &val65001, 0), EINVAL, "shkv_add, value size is too big:65001", 0x71, 65001, 65000},
    {GONE, of(shkv_add, &key, &val, 0), EBADF, "shkv_add, the db has been destroyed, shkvh:%d", 0x69},
    {FIXED, of(shkv_add, &key, &val, 2), EINVAL, "shkv_add, bad mode config, shkvh:%d", 0x6b},
    {NO_HASH, of(shkv_add, &key, &val, 0), EINVAL, "shkv_add, hashfunc is not inited, shkvh:%d", 0x6c},

    {READER, of(shkv_delete, &key), EINVAL, "shkv_del, write is not allowed, shkvh:%d", 0x78},
    {DBG, of(shkv_delete, &key), EINVAL, "shkv_add, write dbg is on-going, shkvh:%d", 0x79, UINT32_MAX, 1},
    {FIXED, of(shkv_delete, nullptr), EINVAL, "shkv_delete, has bad buffer, shkvh:%d", 0x7a},
    {FIXED, of(shkv_delete, &none), EINVAL, "shkv_delete, key buffer size is 0, shkvh:%d", 0x7b},
    {FIXED, of(shkv_delete, &no_ptr), EINVAL, "shkv_delete, key buffer size is 0, shkvh:%d", 0x7b},
    {GONE, of(shkv_delete, &key), EBADF, "shkv_del, the db has been destroyed, shkvh:%d", 0x7c},
    {FIXED, of(__shkv_delete, &key, 0x77), EBADF, "shkv_del, reshaping new db available, shkvh:%d", 0x7e},
    {NO_HASH, of(shkv_delete, &key), EINVAL, "shkv_del, hashfunc is not inited, shkvh:%d", 0x7f},

    {FIXED, of(shkv_lookup, nullptr, &val), EINVAL, "shkv_lookup, has bad buffer, shkvh:%d", 0x11},
    {VECTOR, of(shkv_lookup, &key, nullptr), EINVAL, "shkv_lookup, has bad buffer, shkvh:%d", 0x11},
    {FIXED, of(shkv_lookup, &none, &val), EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d", 0x12},
    {FIXED, of(shkv_lookup, &no_ptr, &val), EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d", 0x12},
    {FIXED, of(shkv_lookup, &key, &no_ptr), EINVAL, "shkv_lookup, value buffer is invalid, shkvh:%d", 0x15},
    {GONE, of(shkv_lookup, &key, &val), EBADF, "shkv_lookup, the db has been destroyed, shkvh:%d", 0x10},
    {NO_HASH, of(shkv_lookup, &key, &val), EINVAL, "shkv_lookup, hashfunc is not inited, shkvh:%d", 0x74},
    {VECTOR, of(shkv_lookup_lite, nullptr, nullptr), ENOMEM, "", 0x11},
    {FIXED, of(shkv_lookup_lite, &key, nullptr), EINVAL, "shkv_lookup, has bad buffer, shkvh:%d\n", 0x12},
    {FIXED, of(shkv_lookup_lite, &none, &val), EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d\n", 0x15},
    {GONE, of(shkv_lookup_lite, &key, &val), EBADF, "shkv_add, the db has been destroyed, shkvh:%d", 0x10},
    {NO_HASH, of(shkv_lookup_lite, &key, &val), EINVAL, "shkv_lookup, hashfunc is not inited, shkvh:%d\n", 0x75},

    {PLAIN, of(shkv_iterate, &key, &val, &pos, 1), EINVAL, "shkv_iterate,not opened for SHKV_AM_ITER, shkvh:%d", 0x8a},
    {FIXED, of(shkv_iterate, &key, nullptr, nullptr, 0), EINVAL, "shkv_iterate, all empty buffers, shkvh:%d", 0x8b},
    {FIXED, of(shkv_iterate, nullptr, &val, nullptr, 2), EINVAL, "shkv_iterate, all empty buffers, shkvh:%d", 0x8b},
    {FIXED, of(shkv_iterate, &no_ptr, &val, nullptr, 0), EINVAL, "shkv_iterate,key buffer is invalid,shkvh:%d", 0x8c},
    {FIXED, of(shkv_iterate, &key, &no_ptr, nullptr, 1), EINVAL, "shkv_iterate,val buffer is invalid,shkvh:%d", 0x8d},
    {GONE, of(shkv_iterate, &key, &val, &pos, 1), EBADF, "shkv_iter, the db has been destroyed, shkvh:%d", 0x8e},
    {RESHAPE, of(shkv_iterate, &key, &val, &pos, 0), EINVAL, "shkv_iter, slow path forbid iterate, shkvh:%d", 0x8f},

    {MULTI, of(shkv_m_add, &key, &val, 1, 0), EINVAL, nullptr},
    {READER, of(shkv_m_add, &key, &val, 1, 0), EINVAL, nullptr, 0xb5},
    {DBG, of(shkv_m_add, &key, &val, 1, 1), EINVAL, nullptr, 0xb6, UINT32_MAX, 1},
    {FIXED, of(shkv_m_add, nullptr, &val, 1, 0), EINVAL, nullptr, 0xb7},
    {FIXED, of(shkv_m_add, &key, nullptr, 1, 1), EINVAL, nullptr, 0xb7},
    {FIXED, of(shkv_m_add, &key, &val, 0, 0), EINVAL, nullptr, 0xb8},
    {FIXED, of(shkv_m_add, &key, &val, 33, 1), EINVAL, nullptr, 0xb8},
    {FIXED, of(shkv_m_add, &key, &val, 1, 2), EINVAL, nullptr},
    {FIXED, of(shkv_m_add, &key, &val, 1, 0x31), EINVAL, nullptr},
    {READER, shkv_start_rollback, EINVAL, nullptr},

    {MULTI, of(shkv_txn_start, nullptr), EBADF, nullptr},
    {FIXED, of(shkv_txn_commit, nullptr), 0, nullptr}, // outside a transaction
    {READER, of(shkv_txn_commit, nullptr), 0, nullptr},
    {READER, shkv_txn_abort, 0, nullptr},
    {READER, of(shkv_txn_start, nullptr), EINVAL, nullptr},
    {TXN, of(shkv_txn_start, nullptr), EEXIST, nullptr},
    {TXN_READER, of(shkv_txn_start, nullptr), EEXIST, nullptr},
    {TXN_READER, of(shkv_txn_commit, nullptr), EINVAL, nullptr},
    {TXN_READER, shkv_txn_abort, EINVAL, nullptr},

    {READER, of(shkv_db_set_opts, 1, &opts), EINVAL, nullptr},
    {MULTI, of(shkv_db_set_opts, 1, &opts), EINVAL, nullptr},
    {OTHERS, of(shkv_db_set_opts, 1, &opts), EINVAL, nullptr},
};

// What looks at its arguments ahead of the handle, and the lifecycle; whole words of the lines, gaps included.
const refusal OTHER_CALLS[] = {
    {FIXED, of(shkv_m_lookup, &key, &val, results, 0), EINVAL, nullptr},
    {FIXED, of(shkv_m_lookup, &key, &val, results, 33), EINVAL, nullptr},
    {FIXED, of(shkv_m_lookup, nullptr, &val, results, 1), EINVAL, nullptr},
    {FIXED, of(shkv_m_lookup, &key, nullptr, results, 1), EINVAL, nullptr},
    {FIXED, of(shkv_m_lookup, &key, &val, nullptr, 1), EINVAL, nullptr},
    {FIXED, of(shkv_db_set_opts, 0, &opts), EINVAL, nullptr},
    {FIXED, of(shkv_db_set_opts, 1, nullptr), EINVAL, nullptr},

    {REGISTRY, create("x", {0, 2049, 0xffffff, 1, 0}), EINVAL, "uuid:5, the key size is 0", 0x17, 5},
    {REGISTRY, create("x", {257, 2049, 0xffffff, 1, 0}), EINVAL,
     "The shkvdb is too big, maxksz=257, maxvsz=2049, maxents=16777215 ", 0x18, 0xffffff},
    {REGISTRY, create(LONG_NAME.c_str(), {257, 2049, 100, 1, 0}), EINVAL, "uuid:5, the uri is too long", 0x1a, 5},
    {REGISTRY, create(FULL_NAME.c_str(), {257, 2049, 100, 1, 0}), EINVAL, "uuid:5, the key size is too large", 0x1b, 5},
    {REGISTRY, create("x", {256, 2049, 100, 1, 0}), EINVAL, "uuid:5, the value size is too large", 0x1c, 5},
    {REGISTRY, create("a:fixed", {16, 32, 100, 1, 0}), EEXIST, "uuid:5, can not create supernode,errno:17", 0x25, 5, 17},
    {REGISTRY, create("x", {16, 32, 100, 0x2021, 0}), EINVAL, "SHKV shared mapping do not support FIXEDMM", 0x30, 0x2021},
    {REGISTRY, create("x", {16, 16, 4097, 0x23, 0}), EINVAL, "uuid:5, L3 database is too big", 0x2f, 5},
    {REGISTRY, create("x", {16, 32, 100, 0x3, 0}), ENOMEM, "uuid:5, the dbconf mode is not supported", 0x2f, 5},
    {REGISTRY, create("x", {16, 32, 100, 0, 0}), ENOMEM, "uuid:5, the dbconf mode is not supported", 0x2f, 5},
    {REGISTRY, create(nullptr, {16, 32, 100, 1, 0}), EINVAL, "uuid:5, the srcuri is NULL"},
    {REGISTRY, [](int) { return shkv_create("x", 5, nullptr, 0, nullptr); }, 0,
     "uuid:5, errptr is empty, internal error!"},

    {FIXED, open(5, 0), EINVAL, "uuid:5, the access mode is wrong:0"},
    {FIXED, open(5, 0x40), EINVAL, "uuid:5, the access mode is wrong:64"},
    {FIXED, open(5, SHKV_AM_RESHAPE | SHKV_AM_DBG), EINVAL, "uuid:5, the access mode is                     wrong:24"},
    {FIXED, open(5, SHKV_AM_DBG | SHKV_AM_READ), EINVAL,
     "uuid:5, the DBG access mode is                     not allowed"},
    {FIXED, open(0xf011, SHKV_AM_RESHAPE | SHKV_AM_DBG), EINVAL,
     "uuid:61457, the DBG access mode is                     not allowed"},
    {FIXED, open(0xf012, SHKV_AM_DBG), EINVAL, "uuid:61458, the DBG access mode is                     not allowed"},
    {FIXED, [](int) { return shkv_open("fixed", 5, 0, SHKV_AM_READ, nullptr); }, 0,
     "uuid:5, errptr is empty,                     internal error!"},

    {REGISTRY, blocked("_md1"), EEXIST, "shkv_get_mu_obj fail MD1 blocked 17", 0x29, EEXIST, 443 * 8},
    {REGISTRY, blocked("_md2"), EEXIST, "shkv_get_mu_obj fail MD2 blocked 17", TRACE_PAIR1 | 0x2a, EEXIST},
    {REGISTRY, blocked("_md_txn"), EEXIST, "shkv_create: failed to get MD_TXN obj\n", 0x2b, EEXIST},
    {REGISTRY, blocked("_ud1"), EEXIST, "shkv_get_mu_obj fail UD1 blocked 17 100 16 32", 0x2c, EEXIST},
    {REGISTRY, blocked("_ud2"), EEXIST, "shkv_get_mu_obj fail UD2 blocked 17 100 16 32", 0x2e, EEXIST, 100},
    {CLOSED, damaged(0x000, 0, open(5, 2, "closed")), EINVAL, "uuid:5, the db is insane.", 0x4b, 5},
    {CLOSED, damaged(0x2c8, 1, open(5, 1, "closed")), EINVAL, "uuid:5, the db is insane.", 0x4b, 5},
    {CLOSED, damaged(0x050, 0x33, open(5, 1, "closed")), EINVAL, "temporrily disable WRITE MODE when reshaping ", 0x4c, 5},
    {CLOSED, damaged(0x270, 11, open(5, 2, "closed")), EINVAL, "failed with md1 hash (access mode:0x2)", 0x57, 2},
    {CLOSED, damaged(0x270, 0xa6b7, open(5, 1, "closed")), EINVAL, "failed with md1 hash (access mode:0x1)", 0x57, 1},
    {CLOSED, damaged(0x274, 0, open(5, 2, "closed")), EFAULT, "closed,the db is not sanity", 0x56, EFAULT, 5},
    {CLOSED, damaged(0x2a4, 0, open(5, 1, "closed")), EFAULT, "closed,the db is not sanity", 0x56, EFAULT, 5},
    {CLOSED, damaged(0x084, 7, open(5, 6, "closed")), ENOMEM, "mem-mgmt mode is not supported", 0x59, 7},
    {CLOSED, damaged(0x054, 1, open(5, 1, "closed")), EINVAL, "uuid:5, the write is not permitted:                            1 1", 0x4d, 1},
    {VECTOR, reshape(UUID_RESHAPE1, {0, 1, 0, 0}, "vector"), EINVAL,
     "reshaping failed: dvmm mode currently not             support shrink.", 0x4e, UUID_RESHAPE1},
    {CLOSED, damaged(0x050, 5 | CF_REFILL1, reshape(UUID_RESHAPE1)), EINVAL,
     "disable reshaping when DB is under resizing. ", 0x4e, UUID_RESHAPE1},
    {CLOSED, damaged(0x050, 5 | CF_REFILL2, reshape(UUID_RESHAPE1)), EINVAL,
     "disable reshaping when DB is under resizing. ", 0x4e, UUID_RESHAPE1},
    {CLOSED, damaged(0x050, 5 | CF_TXN, reshape(UUID_RESHAPE1)), EINVAL,
     "disable reshaping when DB is under txn. ", 0x4e, UUID_RESHAPE1},
    {CLOSED, damaged(0x050, 5 | CF_RESH_TOKEN1, reshape(UUID_RESHAPE2)), EINVAL,
     "uuid:61458,reshape token was taken:1005", 0x40, UUID_RESHAPE2},
    {CLOSED, damaged(0x050, 5 | CF_RESH_TOKEN2, reshape(7)), EINVAL, "uuid:7,reshape token was taken:2005", 0x40, 7},
    {CLOSED, reshape(7), EINVAL, "uuid:7,process is not allowed to reshape:", 0x41, 7},
    {CLOSED, reshape(UUID_RESHAPE1, {8, 1, 0, 0}), EINVAL,
     "bad object sizes for reshaping, md:8 ud:1", 0x50, UUID_RESHAPE1},
    {CLOSED, reshape(UUID_RESHAPE1, {0, 4096, 0, 0}), EINVAL,
     "bad object sizes for reshaping, md:0 ud:4096", 0x50, UUID_RESHAPE1},
    {REGISTRY, crowded(create("one_more", {16, 32, 100, 1, 0})), EINVAL,
     "shkv_create uuid:5, opened too many database", 0x2f, 5},
    {FIXED, crowded(open(5, SHKV_AM_READ)), EINVAL, "shkv_open uuid:5, shkv_set_heads fail 0", 0x5c, 0},
    {READER, shkv_destroy, EINVAL, "shkv_destroy, destroy is not allowed, shkvh:%d", 0x87},
    {GONE, shkv_destroy, 0, "shkv_destroy, DB is already destroyed", 0x88},
};

struct Refusals : testing::Test {
    int handles[STORES];

    void SetUp() override
    {
        uint32_t err = 0;
        handles[FIXED] = make_kv("fixed", {16, 32, 100, CONF_FIXEDMM, 0}).handle;
        handles[VECTOR] = make_kv("vector", {0, 0, 400, CONF_VECTORMM, 0}).handle;
        handles[READER] = open_store("fixed", SHKV_AM_READ | SHKV_AM_ITER);
        handles[PLAIN] = open_store("fixed", SHKV_AM_READ);
        handles[MULTI] = make_store("multi", CONF_FIXEDMM | CONF_MULTIWR, 100);
        handles[REGISTRY] = shkv_reg_open(&err);
        handles[TXN] = make_store("txn", CONF_FIXEDMM, 100);
        handles[TXN_READER] = open_store("txn", SHKV_AM_READ);
        ASSERT_EQ(0, shkv_txn_start(handles[TXN], nullptr));
        shkv_close(make_store("closed", CONF_FIXEDMM, 100));
        handles[CLOSED] = open_store("closed", SHKV_AM_READ);
    }
    kv store(which on) { return {handles[on < STORES ? on : FIXED]}; }
    // Done twice it is as before.
    void change(which on)
    {
        kv fixed = store(on);
        md_rec *rec_p = &fixed.head()->md1;
        static shkv_hash_fn other_fn = nullptr;
        if (on == DBG)
            fixed.sn()->sn_flg ^= SN_DBG_WR;
        if (on == GONE || on == RESHAPE)
            fixed.sn()->comm_flg ^= on == GONE ? CF_DESTROYED : CF_RESHAPE;
        if (on == OTHERS) // another thread's place
            fixed.sn()->wr_tid[0] ^= 1;
        if (on == NO_HASH) { // a caller's function that this handle was not opened with
            std::swap(rec_p->hash_fn, other_fn);
            fixed.sn()->md1.hashfn ^= 7 ^ SHKV_USER_HASHFN;
            fixed.sn()->md1.obj_ver++;
        }
    }
    void expect(const refusal &want)
    {
        kv on = store(want.on);
        trace_ring *ring_p = (trace_ring *)shkv_get_trbuf(on.sn());
        uint16_t index = ring_p->index;
        auto names = all_objects();
        char line[256] = "";
        if (want.line)
            snprintf(line, sizeof line, want.line, on.handle);
        change(want.on);
        log_catcher log;
        EXPECT_EQ(want.made(on.handle), want.value) << line;
        EXPECT_EQ(want.line ? log.last() : "", line);
        change(want.on);
        EXPECT_EQ(names, all_objects());
        if (!want.event) {
            EXPECT_EQ(index, ring_p->index) << line;
            return;
        }
        last_event event(on.sn());
        uint32_t kind = want.event >> 24 ? 0 : want.arg2 ? TRACE_PAIR1 : TRACE_ONE;
        EXPECT_EQ(event.code, want.event | kind) << line;
        EXPECT_EQ(event.arg, want.arg == UINT32_MAX ? (uint32_t)on.handle : want.arg) << line;
        EXPECT_EQ(event.arg2, want.arg2) << line;
    }
};

TEST_F(Refusals, have_their_value_line_and_event)
{
    for (const refusal &row : OPERATIONS)
        expect(row);
    for (const refusal &row : OTHER_CALLS)
        expect(row);
    for (int bad : {0, 33, -1, 32}) { // no handle, ahead of everything else
        for (const refusal &row : OPERATIONS)
            EXPECT_EQ(EBADF, row.made(bad)) << &row - OPERATIONS;
        EXPECT_EQ(EBADF, shkv_m_lookup(bad, &key, &val, results, 1));
        EXPECT_EQ(EBADF, shkv_close(bad));
        EXPECT_EQ(EBADF, shkv_destroy(bad));
    }
    for (which on : {FIXED, VECTOR, MULTI}) {
        EXPECT_TRUE(on == MULTI || store(on).all().empty());
        EXPECT_EQ(0u, store(on).sn()->iodb_mark);
    }
    supernode *sn = store(FIXED).sn();
    EXPECT_TRUE(sn->auto_rz == 1 && sn->rz_tm_chk == 300);
    EXPECT_EQ(0, shkv_db_set_opts(handles[FIXED], 1, &opts));
    EXPECT_TRUE(sn->auto_rz == 5 && sn->rz_tm_chk == 77);
    EXPECT_EQ(0, shkv_txn_commit(handles[TXN], nullptr));
    for (const char *name : {"fixed", "vector", "multi", "txn"})
        EXPECT_EQ("", faults_of(name));
}

} // namespace
