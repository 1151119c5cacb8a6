// What each function refuses, in the order of its checks: the value, the line, and the event with its
// value or pair of values. A refused call changes nothing.
#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <set>
#include <sys/stat.h>

#include "shkv_intf/registry.h"
#include "support/kv.h"

namespace
{

std::set<std::string> objects()
{
    std::set<std::string> names;
    for (const char *dir : {SHKV_DB_DIR, SHKV_MU_DIR})
        for (const auto &entry : std::filesystem::directory_iterator(dir))
            names.insert(entry.path());
    return names;
}

// What the call is made on; its ring is the one that is looked at.
enum which { FIXED, VECTOR, READER, PLAIN, MULTI, REGISTRY, TXN, TXN_READER, CLOSED, STORES };
// What is done to the fixed store for the length of one call.
enum change { NOTHING, DBG, GONE, NO_HASH, RESHAPE, OTHERS };
using call = std::function<int(int)>;

struct refusal {
    which on;
    call made;
    int value;
    const char *line;          // %d is the handle; null: not looked at
    uint32_t event = 0;        // 0: none; with its kind where that does not follow from arg2
    uint32_t arg = UINT32_MAX; // the handle
    uint32_t arg2 = 0;         // with one it is a pair
    change before = NOTHING;
};

char bytes[70000];
shkv_buf key = {bytes, 4}, val = {bytes, 4}, none = {bytes, 0}, no_ptr = {nullptr, 4};
shkv_buf key17 = {bytes, 17}, val33 = {bytes, 33}, key2049 = {bytes, 2049}, val65001 = {bytes, 65001};
shkv_iter_pos pos;
int results[33];
shkv_opts opts = {0, 5, 77};
const std::string LONG_NAME(220, 'n'), FULL_NAME(219, 'n');

call add(shkv_buf *k, shkv_buf *v, uint32_t mode = 0)
{
    return [=](int handle) { return shkv_add(handle, k, v, mode); };
}
call del(shkv_buf *k, uint32_t mode = 0)
{
    return [=](int handle) { return __shkv_delete(handle, k, mode); };
}
call look(shkv_buf *k, shkv_buf *v)
{
    return [=](int handle) { return shkv_lookup(handle, k, v); };
}
call lite(shkv_buf *k, shkv_buf *v)
{
    return [=](int handle) { return shkv_lookup_lite(handle, k, v); };
}
call iter(shkv_buf *k, shkv_buf *v, shkv_iter_pos *at, int reset)
{
    return [=](int handle) { return shkv_iterate(handle, k, v, at, reset); };
}
call many(shkv_buf *k, shkv_buf *v, uint16_t cnt, uint16_t opflg)
{
    return [=](int handle) { return shkv_m_add(handle, k, v, cnt, opflg); };
}
call group(shkv_buf *k, shkv_buf *v, int *out_p, uint16_t cnt)
{
    return [=](int handle) { return shkv_m_lookup(handle, k, v, out_p, cnt); };
}
call set_opts(uint32_t which, shkv_opts *opts_p)
{
    return [=](int handle) { return shkv_db_set_opts(handle, which, opts_p); };
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
// Another value in a word of a store that no writer has open; the word lies in a page that a reader cannot
// write.
call damaged(uint32_t off, uint32_t word, uint32_t mode)
{
    return [=](int handle) {
        uint32_t was = *(uint32_t *)((char *)shkv_db_heads[handle - 1].sn + off);
        int fd = ::open(SHKV_DB_DIR "/closed", O_RDWR);
        EXPECT_EQ(4, pwrite(fd, &word, 4, off));
        int result = open(5, mode, "closed")(handle);
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

int start(int handle)
{
    return shkv_txn_start(handle, nullptr);
}
int commit(int handle)
{
    return shkv_txn_commit(handle, nullptr);
}

const refusal OPERATIONS[] = {
    {READER, add(&key, &val), EINVAL, "shkv_add, write is not allowed, shkvh:%d", 0x62},
    {FIXED, add(&key, &val), EINVAL, "shkv_add, write dbg is on-going, shkvh:%d", 0x63, UINT32_MAX, 1, DBG},
    {FIXED, add(nullptr, &val), EINVAL, "shkv_add, has bad buffer, shkvh:%d", 0x64},
    {FIXED, add(&key, nullptr), EINVAL, "shkv_add, has bad buffer, shkvh:%d", 0x64},
    {FIXED, add(&none, &val), EINVAL, "shkv_add, key buffer size is 0, shkvh:%d", 0x65},
    {FIXED, add(&no_ptr, &val), EINVAL, "shkv_add, key buffer size is 0, shkvh:%d", 0x65},
    {FIXED, add(&key, &no_ptr), EINVAL, "shkv_add, value buffer is invalid, shkvh:%d", 0x66},
    {FIXED, add(&key17, &val), EINVAL, "shkv_add, key buffer size is too big, shkvh:%d", 0x67, UINT32_MAX, 17},
    {FIXED, add(&key, &val33), EINVAL, "shkv_add, value buffer is too big, shkvh:%d", 0x68, UINT32_MAX, 33},
    {VECTOR, add(&key2049, &val), EINVAL, "shkv_add, key size is too big:2049", 0x70, 2049, 2048},
    {VECTOR, add(&key, &val65001), EINVAL, "shkv_add, value size is too big:65001", 0x71, 65001, 65000},
    {FIXED, add(&key, &val), EBADF, "shkv_add, the db has been destroyed, shkvh:%d", 0x69, UINT32_MAX, 0, GONE},
    {FIXED, add(&key, &val, 2), EINVAL, "shkv_add, bad mode config, shkvh:%d", 0x6b},
    {FIXED, add(&key, &val), EINVAL, "shkv_add, hashfunc is not inited, shkvh:%d", 0x6c, UINT32_MAX, 0,
     NO_HASH},

    {READER, del(&key), EINVAL, "shkv_del, write is not allowed, shkvh:%d", 0x78},
    {FIXED, del(&key), EINVAL, "shkv_add, write dbg is on-going, shkvh:%d", 0x79, UINT32_MAX, 1, DBG},
    {FIXED, del(nullptr), EINVAL, "shkv_delete, has bad buffer, shkvh:%d", 0x7a},
    {FIXED, del(&none), EINVAL, "shkv_delete, key buffer size is 0, shkvh:%d", 0x7b},
    {FIXED, del(&no_ptr), EINVAL, "shkv_delete, key buffer size is 0, shkvh:%d", 0x7b},
    {FIXED, del(&key), EBADF, "shkv_del, the db has been destroyed, shkvh:%d", 0x7c, UINT32_MAX, 0, GONE},
    {FIXED, del(&key, 0x77), EBADF, "shkv_del, reshaping new db available, shkvh:%d", 0x7e},
    {FIXED, del(&key), EINVAL, "shkv_del, hashfunc is not inited, shkvh:%d", 0x7f, UINT32_MAX, 0, NO_HASH},

    {FIXED, look(nullptr, &val), EINVAL, "shkv_lookup, has bad buffer, shkvh:%d", 0x11},
    {VECTOR, look(&key, nullptr), EINVAL, "shkv_lookup, has bad buffer, shkvh:%d", 0x11},
    {FIXED, look(&none, &val), EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d", 0x12},
    {FIXED, look(&no_ptr, &val), EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d", 0x12},
    {FIXED, look(&key, &no_ptr), EINVAL, "shkv_lookup, value buffer is invalid, shkvh:%d", 0x15},
    {FIXED, look(&key, &val), EBADF, "shkv_lookup, the db has been destroyed, shkvh:%d", 0x10, UINT32_MAX, 0,
     GONE},
    {FIXED, look(&key, &val), EINVAL, "shkv_lookup, hashfunc is not inited, shkvh:%d", 0x74, UINT32_MAX, 0,
     NO_HASH},
    {VECTOR, lite(nullptr, nullptr), ENOMEM, "", 0x11},
    {FIXED, lite(&key, nullptr), EINVAL, "shkv_lookup, has bad buffer, shkvh:%d\n", 0x12},
    {FIXED, lite(&none, &val), EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d\n", 0x15},
    {FIXED, lite(&key, &val), EBADF, "shkv_add, the db has been destroyed, shkvh:%d", 0x10, UINT32_MAX, 0,
     GONE},
    {FIXED, lite(&key, &val), EINVAL, "shkv_lookup, hashfunc is not inited, shkvh:%d\n", 0x75, UINT32_MAX, 0,
     NO_HASH},
    {FIXED, group(&key, &val, results, 0), EINVAL, nullptr},
    {FIXED, group(&key, &val, results, 33), EINVAL, nullptr},
    {FIXED, group(nullptr, &val, results, 1), EINVAL, nullptr},
    {FIXED, group(&key, nullptr, results, 1), EINVAL, nullptr},
    {FIXED, group(&key, &val, nullptr, 1), EINVAL, nullptr},

    {PLAIN, iter(&key, &val, &pos, 1), EINVAL, "shkv_iterate,not opened for SHKV_AM_ITER, shkvh:%d", 0x8a},
    {FIXED, iter(&key, nullptr, nullptr, 0), EINVAL, "shkv_iterate, all empty buffers, shkvh:%d", 0x8b},
    {FIXED, iter(nullptr, &val, nullptr, 2), EINVAL, "shkv_iterate, all empty buffers, shkvh:%d", 0x8b},
    {FIXED, iter(&no_ptr, &val, nullptr, 0), EINVAL, "shkv_iterate,key buffer is invalid,shkvh:%d", 0x8c},
    {FIXED, iter(&key, &no_ptr, nullptr, 1), EINVAL, "shkv_iterate,val buffer is invalid,shkvh:%d", 0x8d},
    {FIXED, iter(&key, &val, &pos, 1), EBADF, "shkv_iter, the db has been destroyed, shkvh:%d", 0x8e,
     UINT32_MAX, 0, GONE},
    {FIXED, iter(&key, &val, &pos, 0), EINVAL, "shkv_iter, slow path forbid iterate, shkvh:%d", 0x8f,
     UINT32_MAX, 0, RESHAPE},

    {MULTI, many(&key, &val, 1, 0), EINVAL, nullptr},
    {READER, many(&key, &val, 1, 0), EINVAL, nullptr, 0xb5},
    {FIXED, many(&key, &val, 1, 1), EINVAL, nullptr, 0xb6, UINT32_MAX, 1, DBG},
    {FIXED, many(nullptr, &val, 1, 0), EINVAL, nullptr, 0xb7},
    {FIXED, many(&key, nullptr, 1, 1), EINVAL, nullptr, 0xb7},
    {FIXED, many(&key, &val, 0, 0), EINVAL, nullptr, 0xb8},
    {FIXED, many(&key, &val, 33, 1), EINVAL, nullptr, 0xb8},
    {FIXED, many(&key, &val, 1, 2), EINVAL, nullptr},
    {FIXED, many(&key, &val, 1, 0x31), EINVAL, nullptr},
    {READER, shkv_start_rollback, EINVAL, nullptr},

    {MULTI, start, EBADF, nullptr},
    {FIXED, commit, 0, nullptr}, // outside a transaction
    {READER, commit, 0, nullptr},
    {READER, shkv_txn_abort, 0, nullptr},
    {READER, start, EINVAL, nullptr},
    {TXN, start, EEXIST, nullptr},
    {TXN_READER, start, EEXIST, nullptr},
    {TXN_READER, commit, EINVAL, nullptr},
    {TXN_READER, shkv_txn_abort, EINVAL, nullptr},

    {FIXED, set_opts(0, &opts), EINVAL, nullptr},
    {FIXED, set_opts(1, nullptr), EINVAL, nullptr},
    {READER, set_opts(1, &opts), EINVAL, nullptr},
    {MULTI, set_opts(1, &opts), EINVAL, nullptr},
    {FIXED, set_opts(1, &opts), EINVAL, nullptr, 0, 0, 0, OTHERS},
};

// The whole words of the lines, gaps included.
const refusal LIFECYCLE[] = {
    {REGISTRY, create("x", {0, 2049, 0xffffff, 1, 0}), EINVAL, "uuid:5, the key size is 0", 0x17, 5},
    {REGISTRY, create("x", {257, 2049, 0xffffff, 1, 0}), EINVAL,
     "The shkvdb is too big, maxksz=257, maxvsz=2049, maxents=16777215 ", 0x18, 0xffffff},
    {REGISTRY, create(LONG_NAME.c_str(), {257, 2049, 100, 1, 0}), EINVAL, "uuid:5, the uri is too long", 0x1a,
     5},
    {REGISTRY, create(FULL_NAME.c_str(), {257, 2049, 100, 1, 0}), EINVAL, "uuid:5, the key size is too large",
     0x1b, 5},
    {REGISTRY, create("x", {256, 2049, 100, 1, 0}), EINVAL, "uuid:5, the value size is too large", 0x1c, 5},
    {REGISTRY, create("a:fixed", {16, 32, 100, 1, 0}), EEXIST, "uuid:5, can not create supernode,errno:17",
     0x25, 5, 17},
    {REGISTRY, create("x", {16, 32, 100, 0x2021, 0}), EINVAL, "SHKV shared mapping do not support FIXEDMM",
     0x30, 0x2021},
    {REGISTRY, create("x", {16, 16, 4097, 0x23, 0}), EINVAL, "uuid:5, L3 database is too big", 0x2f, 5},
    {REGISTRY, create("x", {16, 32, 100, 0x3, 0}), ENOMEM, "uuid:5, the dbconf mode is not supported", 0x2f, 5},
    {REGISTRY, create("x", {16, 32, 100, 0, 0}), ENOMEM, "uuid:5, the dbconf mode is not supported", 0x2f, 5},
    {REGISTRY, create(nullptr, {16, 32, 100, 1, 0}), EINVAL, "uuid:5, the srcuri is NULL"},
    {REGISTRY, [](int) { return shkv_create("x", 5, nullptr, 0, nullptr); }, 0,
     "uuid:5, errptr is empty, internal error!"},

    {FIXED, open(5, 0), EINVAL, "uuid:5, the access mode is wrong:0"},
    {FIXED, open(5, 0x40), EINVAL, "uuid:5, the access mode is wrong:64"},
    {FIXED, open(5, SHKV_AM_RESHAPE | SHKV_AM_DBG), EINVAL,
     "uuid:5, the access mode is                     wrong:24"},
    {FIXED, open(5, SHKV_AM_DBG | SHKV_AM_READ), EINVAL,
     "uuid:5, the DBG access mode is                     not allowed"},
    {FIXED, open(0xf011, SHKV_AM_RESHAPE | SHKV_AM_DBG), EINVAL,
     "uuid:61457, the DBG access mode is                     not allowed"},
    {FIXED, open(0xf012, SHKV_AM_DBG), EINVAL,
     "uuid:61458, the DBG access mode is                     not allowed"},
    {FIXED, [](int) { return shkv_open("fixed", 5, 0, SHKV_AM_READ, nullptr); }, 0,
     "uuid:5, errptr is empty,                     internal error!"},

    {REGISTRY, blocked("_md1"), EEXIST, "shkv_get_mu_obj fail MD1 blocked 17", 0x29, EEXIST, 443 * 8},
    {REGISTRY, blocked("_md2"), EEXIST, "shkv_get_mu_obj fail MD2 blocked 17", TRACE_PAIR1 | 0x2a, EEXIST},
    {REGISTRY, blocked("_md_txn"), EEXIST, "shkv_create: failed to get MD_TXN obj\n", 0x2b, EEXIST},
    {REGISTRY, blocked("_ud1"), EEXIST, "shkv_get_mu_obj fail UD1 blocked 17 100 16 32", 0x2c, EEXIST},
    {REGISTRY, blocked("_ud2"), EEXIST, "shkv_get_mu_obj fail UD2 blocked 17 100 16 32", 0x2e, EEXIST, 100},
    {CLOSED, damaged(0x000, 0, 2), EINVAL, "uuid:5, the db is insane.", 0x4b, 5},
    {CLOSED, damaged(0x2c8, 1, 1), EINVAL, "uuid:5, the db is insane.", 0x4b, 5},
    {CLOSED, damaged(0x050, 0x33, 1), EINVAL, "temporrily disable WRITE MODE when reshaping ", 0x4c, 5},
    {CLOSED, damaged(0x270, 11, 2), EINVAL, "failed with md1 hash (access mode:0x2)", 0x57, 2},
    {CLOSED, damaged(0x270, 0xa6b7, 1), EINVAL, "failed with md1 hash (access mode:0x1)", 0x57, 1},
    {CLOSED, damaged(0x274, 0, 2), EFAULT, "closed,the db is not sanity", 0x56, EFAULT, 5},
    {CLOSED, damaged(0x2a4, 0, 1), EFAULT, "closed,the db is not sanity", 0x56, EFAULT, 5},
    {CLOSED, damaged(0x084, 7, 6), ENOMEM, "mem-mgmt mode is not supported", 0x59, 7},
    {CLOSED, damaged(0x054, 1, 1), EINVAL, "uuid:5, the write is not permitted:                            1 1",
     0x4d, 1},
    {REGISTRY, crowded(create("one_more", {16, 32, 100, 1, 0})), EINVAL,
     "shkv_create uuid:5, opened too many database", 0x2f, 5},
    {FIXED, crowded(open(5, SHKV_AM_READ)), EINVAL, "shkv_open uuid:5, shkv_set_heads fail 0", 0x5c, 0},
    {READER, shkv_destroy, EINVAL, "shkv_destroy, destroy is not allowed, shkvh:%d", 0x87},
    {FIXED, shkv_destroy, 0, "shkv_destroy, DB is already destroyed", 0x88, UINT32_MAX, 0, GONE},
};

struct Refusals : testing::Test {
    int handles[STORES + 1];

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
        ASSERT_EQ(0, start(handles[TXN]));
        shkv_close(make_store("closed", CONF_FIXEDMM, 100));
        handles[CLOSED] = open_store("closed", SHKV_AM_READ);
    }
    void change_it(change how, bool back)
    {
        kv fixed = {handles[FIXED]};
        static shkv_hash_fn hash_fn = fixed.head()->md1.hash_fn;
        if (how == DBG)
            fixed.sn()->sn_flg ^= SN_DBG_WR;
        if (how == GONE || how == RESHAPE)
            fixed.sn()->comm_flg ^= how == GONE ? CF_DESTROYED : CF_RESHAPE;
        if (how == OTHERS) // another thread's place
            fixed.sn()->wr_tid[0] ^= 1;
        if (how == NO_HASH) { // a caller's function that this handle was not opened with
            fixed.head()->md1.hash_fn = back ? hash_fn : nullptr;
            fixed.sn()->md1.hashfn = back ? 7 : SHKV_USER_HASHFN;
            fixed.sn()->md1.obj_ver += !back;
        }
    }
    void expect(const refusal &want)
    {
        kv on = {handles[want.on]};
        trace_ring *ring_p = (trace_ring *)shkv_get_trbuf(on.sn());
        uint16_t index = ring_p->index;
        auto names = objects();
        char line[256] = "";
        if (want.line)
            snprintf(line, sizeof line, want.line, on.handle);
        change_it(want.before, false);
        log_catcher log;
        EXPECT_EQ(want.made(on.handle), want.value) << line;
        EXPECT_EQ(want.line ? log.last() : "", line);
        change_it(want.before, true);
        EXPECT_EQ(names, objects());
        if (!want.event) {
            EXPECT_EQ(index, ring_p->index) << line;
            return;
        }
        last_event event(on.sn());
        EXPECT_EQ(event.code, want.event | (want.event >> 24 ? 0
                                            : want.arg2      ? TRACE_PAIR1
                                                             : TRACE_ONE))
            << line;
        EXPECT_EQ(event.arg, want.arg == UINT32_MAX ? (uint32_t)on.handle : want.arg) << line;
        EXPECT_EQ(event.arg2, want.arg2) << line;
    }
};

TEST_F(Refusals, have_their_value_line_and_event)
{
    for (const refusal &row : OPERATIONS)
        expect(row);
    for (const refusal &row : LIFECYCLE)
        expect(row);
    const call calls[] = {add(&key, &val),
                          del(&key),
                          look(&key, &val),
                          lite(&key, &val),
                          iter(&key, &val, &pos, 0),
                          many(&key, &val, 1, 0),
                          group(&key, &val, results, 1),
                          set_opts(1, &opts),
                          start,
                          commit,
                          shkv_txn_abort,
                          shkv_close,
                          shkv_destroy,
                          shkv_start_rollback};
    for (int bad : {0, 33, -1, 32})
        for (const call &each : calls)
            EXPECT_EQ(EBADF, each(bad)) << &each - calls;
    for (which on : {FIXED, VECTOR, MULTI}) {
        EXPECT_TRUE(on == MULTI || kv{handles[on]}.all().empty());
        EXPECT_EQ(0u, kv{handles[on]}.sn()->iodb_mark);
    }
    EXPECT_TRUE(kv{handles[FIXED]}.sn()->auto_rz == 1 && kv{handles[FIXED]}.sn()->rz_tm_chk == 300);
    EXPECT_EQ(0, set_opts(1, &opts)(handles[FIXED]));
    EXPECT_TRUE(kv{handles[FIXED]}.sn()->auto_rz == 5 && kv{handles[FIXED]}.sn()->rz_tm_chk == 77);
    EXPECT_EQ(0, commit(handles[TXN]));
    for (const char *name : {"fixed", "vector", "multi", "txn"})
        EXPECT_EQ("", faults_of(name));
}

} // namespace
