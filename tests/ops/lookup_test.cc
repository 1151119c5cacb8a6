#include <algorithm>
#include <functional>
#include <random>
#include <unistd.h>

#include "shkv_intf/guard.h"
#include "shkv_intf/quick.h"
#include "shkv_intf/walk.h"
#include "support/kv.h"

namespace
{

const shkv_params FIXED = {16, 40, 100, CONF_FIXEDMM, 0};
const shkv_params VECTOR = {0, 0, 2000, CONF_VECTORMM, 0};
using lookup_fn = int (*)(int, const shkv_buf *, shkv_buf *);

char *ud_of(const kv &store)
{
    return (char *)store.head()->ud1_map->map[0];
}

uint32_t bucket_of_key(const kv &store, const std::string &key)
{
    return store.head()->md1.hash_fn(key.data(), (uint32_t)key.size()) % store.sn()->md1.hashsz;
}

// The word that leads to a key's record; the key is there.
uint32_t *link_to(const kv &store, const std::string &key)
{
    size_t head_sz = store.sn()->conf_flg & CONF_VECTORMM ? VEC_HEAD_SZ : UDN_HEAD_SZ;
    uint32_t *link_p = &store.head()->md1.base[bucket_of_key(store, key)].first_ptr;
    for (;; link_p = &((udn *)(ud_of(store) + *link_p))->md1_next) {
        const char *rec = ud_of(store) + *link_p;
        if (((const udn *)rec)->key_sz == key.size() &&
            memcmp(rec + head_sz, key.data(), std::min<size_t>(key.size(), 100)) == 0)
            return link_p;
    }
}

udn *record_of(const kv &store, const std::string &key)
{
    return (udn *)(ud_of(store) + *link_to(store, key));
}

std::vector<std::string> keys_of_one_bucket(const kv &store, size_t cnt)
{
    std::vector<std::string> keys;
    for (unsigned i = 0; keys.size() < cnt; i++) {
        std::string key = "key" + std::to_string(i);
        if (bucket_of_key(store, key) == 7)
            keys.push_back(key);
    }
    return keys;
}

chain_walk walk_for(const kv &store, const std::string &key)
{
    chain_walk walk;
    shkv_head *head = store.head();
    walk_init(&walk, head, &head->md1, &head->md1.base[bucket_of_key(store, key)], ud_of(store), key.data(),
              (uint32_t)key.size(), head->ud1_map->mapped_sz, nullptr);
    return walk;
}

// Runs what twice: by the quick look and by the full lookup alone.
void both_ways(const std::function<void()> &what)
{
    bool keep = guard_quick;
    for (bool quick : {true, false}) {
        SCOPED_TRACE(quick ? "quick" : "full");
        guard_quick = quick && keep;
        what();
    }
    guard_quick = keep;
}

} // namespace

TEST(lookup, the_cheap_guard_stores_what_this_libc_reads)
{
    EXPECT_TRUE(guard_quick);
}

TEST(lookup, refusals_have_their_value_line_and_event)
{
    kv fixed = make_kv("look_fixed", FIXED), vec = make_kv("look_vec", VECTOR);
    char bytes[64] = "k";
    shkv_buf key = {bytes, 1}, val = {bytes + 32, 32}, empty = {bytes, 0}, no_ptr = {nullptr, 4};
    enum change { NOTHING, GONE, NO_HASH };
    const struct {
        lookup_fn call;
        kv on;
        shkv_buf *key, *val;
        int value;
        const char *line; // %d is the handle; null: none
        uint32_t event;
        change before;
    } cases[] = {
        {shkv_lookup, fixed, nullptr, &val, EINVAL, "shkv_lookup, has bad buffer, shkvh:%d", 0x11, NOTHING},
        {shkv_lookup, vec, &key, nullptr, EINVAL, "shkv_lookup, has bad buffer, shkvh:%d", 0x11, NOTHING},
        {shkv_lookup, fixed, &empty, &val, EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d", 0x12,
         NOTHING},
        {shkv_lookup, fixed, &no_ptr, &val, EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d", 0x12,
         NOTHING},
        {shkv_lookup, fixed, &key, &no_ptr, EINVAL, "shkv_lookup, value buffer is invalid, shkvh:%d", 0x15,
         NOTHING},
        {shkv_lookup, fixed, &key, &val, EBADF, "shkv_lookup, the db has been destroyed, shkvh:%d", 0x10, GONE},
        {shkv_lookup, fixed, &key, &val, EINVAL, "shkv_lookup, hashfunc is not inited, shkvh:%d", 0x74,
         NO_HASH},
        {shkv_lookup_lite, vec, nullptr, nullptr, ENOMEM, nullptr, 0x11, NOTHING},
        {shkv_lookup_lite, fixed, &key, nullptr, EINVAL, "shkv_lookup, has bad buffer, shkvh:%d\n", 0x12,
         NOTHING},
        {shkv_lookup_lite, fixed, &empty, &val, EINVAL, "shkv_lookup, key buffer size is 0, shkvh:%d\n", 0x15,
         NOTHING},
        {shkv_lookup_lite, fixed, &key, &val, EBADF, "shkv_add, the db has been destroyed, shkvh:%d", 0x10,
         GONE},
        {shkv_lookup_lite, fixed, &key, &val, EINVAL, "shkv_lookup, hashfunc is not inited, shkvh:%d\n", 0x75,
         NO_HASH},
    };
    shkv_hash_fn hash_fn = fixed.head()->md1.hash_fn;
    for (const auto &one : cases) {
        if (one.before == GONE)
            fixed.sn()->comm_flg |= CF_DESTROYED;
        if (one.before == NO_HASH) { // a caller's function that this handle was not opened with
            fixed.head()->md1.hash_fn = nullptr;
            fixed.sn()->md1.hashfn = SHKV_USER_HASHFN;
            fixed.sn()->md1.obj_ver++;
        }
        log_catcher log;
        EXPECT_EQ(one.call(one.on.handle, one.key, one.val), one.value) << one.line;
        char line[128] = "";
        if (one.line)
            snprintf(line, sizeof line, one.line, one.on.handle);
        EXPECT_EQ(log.last(), line);
        last_event event(one.on.sn());
        EXPECT_EQ(event.code, TRACE_ONE | one.event) << line;
        EXPECT_EQ(event.arg, (uint32_t)one.on.handle) << line;
        fixed.sn()->comm_flg &= ~CF_DESTROYED;
        fixed.head()->md1.hash_fn = hash_fn;
        fixed.sn()->md1.hashfn = 7;
    }
    for (int handle : {0, 33, -1, 32}) {
        EXPECT_EQ(shkv_lookup(handle, &key, &val), EBADF);
        EXPECT_EQ(shkv_lookup_lite(handle, &key, &val), EBADF);
    }
}

TEST(lookup, the_length_tells_the_stored_size_also_without_room)
{
    const struct {
        const char *key;
        bool null_ptr;
        uint32_t room;
        int value;
        uint32_t len;
    } cases[] = {{"ten", false, 10, 0, 10},   {"ten", false, 9, EINVAL, 10},     {"ten", true, 0, EINVAL, 10},
                 {"none", true, 0, 0, 0},     {"none", false, 40, 0, 0},         {"ten", false, 40, 0, 10},
                 {"forty", false, 40, 0, 40}, {"none such", false, 7, ENOENT, 7}};
    for (const shkv_params &params : {FIXED, VECTOR})
        both_ways([&] {
            kv store = make_kv("room", params);
            for (const auto &[key, value] :
                 contents{{"ten", "0123456789"}, {"none", ""}, {"forty", std::string(40, 'f')}})
                EXPECT_EQ(store.add(key, value), 0);
            for (const auto &one : cases) {
                char room[48];
                memset(room, '#', sizeof room);
                shkv_buf key = {const_cast<char *>(one.key), (uint32_t)strlen(one.key)};
                shkv_buf val = {one.null_ptr ? nullptr : room, one.room};
                log_catcher log;
                EXPECT_EQ(shkv_lookup(store.handle, &key, &val), one.value) << one.key << one.room;
                EXPECT_EQ(val.len, one.len) << one.key << one.room;
                EXPECT_EQ(room[one.value ? 0 : one.len], '#')
                    << one.key << one.room; // nothing behind it is touched
                EXPECT_EQ(log.all().empty(), one.value != EINVAL);
            }
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}

// Key and value sizes around the ends of units, each with keys that differ in one byte only.
TEST(lookup, vector_records_of_every_shape_read_back)
{
    kv store = make_kv("shapes", VECTOR);
    contents want;
    for (size_t ksz : {1, 8, 16, 17, 99, 100, 101, 223, 224, 225, 2047, 2048})
        for (size_t vsz : {0, 1, 27, 100, 123, 124, 125, 248, 2000}) {
            std::string key(ksz, (char)('a' + vsz % 23)), value(vsz, 0);
            for (size_t i = 0; i < vsz; i++)
                value[i] = (char)(i * 31 + i / 251 + ksz);
            key.back() = (char)('A' + vsz % 19); // short keys take turns
            ASSERT_EQ(store.add(key, value), 0);
            want[key] = value;
        }
    for (const auto &[key, value] : want) {
        EXPECT_EQ(store.at(key), value) << key.size() << " " << value.size();
        for (size_t at : {size_t(0), key.size() / 2, key.size() - 1}) {
            std::string other = key;
            other[at] ^= 0x20;
            EXPECT_EQ(store.at(other), want.count(other) ? want[other] : "#2") << key.size() << " " << at;
        }
    }
    for (size_t ksz : {100, 224}) { // the key fills its unit: the value begins behind the next one's link
        std::string key(ksz, 'x');
        ASSERT_EQ(store.add(key, "value"), 0);
        EXPECT_EQ(((vec_udn *)record_of(store, key))->val_off % VEC_UNIT_SZ, 4u);
        EXPECT_EQ(store.at(key), "value");
    }
}

TEST(lookup, a_deleted_mark_hides_a_record_from_all_but_the_lite_form)
{
    both_ways([] {
        kv store = make_kv("mark", FIXED);
        EXPECT_EQ(store.add("key", "value"), 0);
        record_of(store, "key")->nd_flg |= UDN_DELETED;
        const std::string name = "key";
        shkv_buf key = buf_of(name), none = {nullptr, 0};
        EXPECT_EQ(shkv_lookup(store.handle, &key, &none), ENOENT);
        EXPECT_EQ(store.at("key"), "#2");
        EXPECT_EQ(shkv_lookup_lite(store.handle, &key, &none), 0);
        EXPECT_EQ(std::string((char *)none.ptr, none.len), "value");
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    });
}

TEST(lookup, only_the_owner_of_a_transaction_sees_its_changes)
{
    both_ways([] {
        kv owner = make_kv("txn_look", FIXED), reader = open_kv("txn_look", SHKV_AM_READ);
        for (const char *key : {"kept", "changed", "gone"})
            EXPECT_EQ(owner.add(key, "old"), 0);
        EXPECT_EQ(shkv_txn_start(owner.handle, nullptr), 0);
        EXPECT_EQ(owner.add("changed", "new"), 0);
        EXPECT_EQ(owner.add("added", "new"), 0);
        EXPECT_EQ(owner.del("gone"), 0);
        const char *want[][3] = {{"kept", "old", "old"},
                                 {"changed", "new", "old"},
                                 {"added", "new", "#2"},
                                 {"gone", "#2", "old"},
                                 {"none", "#2", "#2"}};
        for (const auto &one : want) {
            EXPECT_EQ(owner.at(one[0]), one[1]) << one[0];
            EXPECT_EQ(reader.at(one[0]), one[2]) << one[0];
            const std::string name = one[0];
            shkv_buf key = buf_of(name), lite = {nullptr, 0};
            int ret = shkv_lookup_lite(owner.handle, &key, &lite);
            EXPECT_EQ(ret ? "#" + std::to_string(ret) : std::string((char *)lite.ptr, lite.len), one[2])
                << one[0];
        }
        EXPECT_EQ(shkv_txn_commit(owner.handle, nullptr), 0);
        EXPECT_EQ(reader.at("changed") + reader.at("gone"), "new#2");
        EXPECT_EQ(shkv_close(reader.handle) + shkv_destroy(owner.handle), 0);
    });
}

TEST(lookup, a_damaged_record_is_refused_and_leads_nowhere)
{
    enum damage { CKSUM, FIRST, LINK, SIZE, UNITS, KEY_UNITS };
    const struct {
        damage what;
        uint32_t conf_flg;
        uint32_t bad;
        int value;
        const char *line; // two %d: what is mapped or usable, the offset; one %d: the handle
        uint32_t event;
    } cases[] = {
        {CKSUM, CONF_FIXEDMM, 0, EINVAL, "shkv_lookup,bad checksum, shkvh:%d", TRACE_ONE | 0x13},
        {CKSUM, CONF_VECTORMM, 0, EINVAL, "shkv_lookup,bad checksum, shkvh:%d", TRACE_ONE | 0x13},
        {FIRST, CONF_FIXEDMM, 0x7ffffff0, ENOMEM,
         "bucket_find_udn out of memory boundary 1                 %d %d", TRACE_PAIR1 | 0xE5},
        {FIRST, CONF_VECTORMM, 0xfffffff0, ENOMEM,
         "bucket_find_udn out of memory boundary 1                 %d %d", TRACE_PAIR1 | 0xE5},
        {LINK, CONF_FIXEDMM, 0x7ffffff0, ENOMEM,
         "bucket_find_udn out of memory boundary 2                     %d %d", TRACE_PAIR1 | 0xE6},
        {LINK, CONF_VECTORMM, 0x80, 0, nullptr, 0}, // inside, in the header: no record, and no harm
        {SIZE, CONF_FIXEDMM, 0xffff, ENOMEM,
         "bucket_find_udn out of memory boundary 2                     %d %d", TRACE_PAIR1 | 0xE6},
        {UNITS, CONF_VECTORMM, 0x7fffff80, ENOMEM, "shkv_dv_read out of memory boundary                 %d %d",
         TRACE_PAIR1 | 0xE8},
        {KEY_UNITS, CONF_VECTORMM, 0x7fffff80, ENOMEM,
         "shkv_dv_key_cmp out of memory boundary                                 %d %d", TRACE_PAIR1 | 0xE9},
    };
    for (const auto &one : cases)
        both_ways([&] {
            kv store = make_kv("damaged", {16, 40, 100, one.conf_flg, 0});
            std::string key(one.what == KEY_UNITS ? 200 : 3, 'k'),
                value(one.conf_flg == CONF_FIXEDMM ? 40 : 300, 'v');
            ASSERT_EQ(store.add(key, value), 0);
            EXPECT_EQ(store.at(key), value);
            udn *rec = record_of(store, key);
            uint32_t limit = store.head()->ud1_map->mapped_sz, off = one.bad, keep_first = *link_to(store, key);
            std::string missing = key;
            if (one.what == CKSUM) {
                rec->cksum ^= 1;
            } else if (one.what == FIRST) {
                *link_to(store, key) = one.bad;
            } else if (one.what == LINK) {
                rec->md1_next = one.bad;
                for (int i = 0; bucket_of_key(store, missing = std::to_string(i)) != bucket_of_key(store, key);)
                    i++;
            } else if (one.what == SIZE) {
                rec->val_sz = (uint16_t)one.bad;
                off = keep_first;
            } else {
                rec->unit_next = one.bad;
                limit = ((sbm *)ud_of(store))->ud_end;
                off = one.bad + 4;
            }
            log_catcher log;
            std::string room;
            char line[128] = "";
            if (one.value == EINVAL)
                snprintf(line, sizeof line, one.line, store.handle);
            else if (one.line)
                snprintf(line, sizeof line, one.line, (int)limit, (int)off);
            EXPECT_EQ(get(store.handle, missing, &room), one.line ? one.value : ENOENT) << line;
            EXPECT_EQ(log.last(), line);
            if (one.line) {
                last_event event(store.sn());
                EXPECT_EQ(event.code, one.event) << line;
                if (one.value == ENOMEM) {
                    EXPECT_EQ(event.arg, limit);
                    EXPECT_EQ(event.arg2, off);
                }
            }
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}

// An object that was cut under its mapping: the fault comes back as a result, again and again.
TEST(lookup, no_memory_behind_the_mapping_is_a_result)
{
    for (bool table : {false, true})
        both_ways([&] {
            kv store = make_kv("cut", {16, 40, 4000, CONF_FIXEDMM, 0});
            for (int i = 0; i < 4000; i++)
                ASSERT_EQ(store.add(std::to_string(i), "value"), 0);
            EXPECT_EQ(store.at("3999"), "value");
            ASSERT_EQ(truncate(table ? "/dev/shm/shkvmu/cut_md1" : "/dev/shm/shkvmu/cut_ud1", 4096), 0);
            int found = 0, faulted = 0;
            for (int i = 0; i < 4000; i++) {
                log_catcher log;
                std::string value, key = std::to_string(i);
                int ret = get(store.handle, key, &value);
                found += ret == 0;
                faulted += ret == ENOMEM && log.last() == "shkv out of actual me in shkv_lookup";
                EXPECT_EQ(out_of_actual_mem, 0u);
            }
            EXPECT_GT(found, 0);
            EXPECT_EQ(found + faulted, 4000);
            const std::string name = "3999";
            shkv_buf key = buf_of(name), none = {nullptr, 0};
            int results[1];
            EXPECT_EQ(shkv_m_lookup(store.handle, &key, &none, results, 1), ENOMEM);
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}

TEST(lookup, a_miss_takes_the_stated_number_of_walks)
{
    const uint32_t walks[] = {12, 7, 5, 4, 3, 3, 2, 2};
    for (const shkv_params &params : {FIXED, VECTOR}) {
        kv store = make_kv("walks", params);
        std::vector<std::string> keys = keys_of_one_bucket(store, 9);
        for (uint32_t cnt = 0; cnt < 8; cnt++) {
            chain_walk walk = walk_for(store, keys[8]);
            EXPECT_EQ(walk_find(&walk), 0);
            EXPECT_EQ(walk.steps, walks[cnt] * (cnt + 1)) << cnt;
            EXPECT_EQ(walk.err, 0u);
            EXPECT_EQ(store.at(keys[8]), "#2");
            EXPECT_EQ(store.add(keys[cnt], "v"), 0);
            for (uint32_t i = 0; i <= cnt; i++)
                EXPECT_EQ(store.at(keys[i]), "v");
        }
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

// A writer's look: one walk, the predecessor, and a broken key chain that reads as an equal key.
TEST(lookup, the_writers_walk_looks_once)
{
    kv store = make_kv("once", VECTOR);
    std::vector<std::string> keys = keys_of_one_bucket(store, 3);
    for (size_t i = 0; i < 3; i++) {
        keys[i] = keys[i] + std::string(200, 'k');
        ASSERT_EQ(store.add(keys[i], "v"), 0);
    }
    shkv_head *head = store.head();
    for (const std::string &key : keys) {
        udn *found, *prev;
        uint32_t len = (uint32_t)key.size(), off = 0;
        mdn *bucket = &head->md1.base[bucket_of_key(store, key)];
        auto find = [&] {
            return bucket_find_udn(head, head->md1.base, bucket, &found, key.data(), &len, ud_of(store), &prev,
                                   0, nullptr, &off, nullptr);
        };
        EXPECT_EQ(find(), 1);
        EXPECT_EQ(found, record_of(store, key));
        EXPECT_EQ(off, *link_to(store, key));
        EXPECT_EQ(prev == nullptr, bucket->first_ptr == off);
        found->unit_next = 0x7fffff80;
        EXPECT_EQ(find(), 1);
    }
}

// What the walk vouches for: its record, whatever happens to the others.
TEST(lookup, an_answer_holds_while_its_record_can_be_reached)
{
    kv store = make_kv("holds", FIXED);
    std::vector<std::string> keys = keys_of_one_bucket(store, 4);
    const std::string &first = keys[2], &mid = keys[1], &last = keys[0],
                      &fresh = keys[3]; // the newest stands first
    const struct {
        const char *what;
        const std::string &key;
        std::function<int()> change;
        bool holds;
    } cases[] = {
        {"nothing", mid, [] { return 0; }, true},
        {"the predecessor is replaced", mid, [&] { return store.add(first, "w"); }, true},
        {"a key comes before it", mid, [&] { return store.add(fresh, "w"); }, true},
        {"the predecessor goes", mid, [&] { return store.del(first); }, true},
        {"it is replaced", mid, [&] { return store.add(mid, "w"); }, false},
        {"the last is replaced", last, [&] { return store.add(last, "w"); }, false},
        {"the first goes", first, [&] { return store.del(first); }, false},
        {"its predecessor and it are replaced", mid,
         [&] { return store.add(first, "w") + store.add(mid, "w"); }, false},
        {"other bytes stand there", mid, [&] { return record_of(store, mid)->cksum ^= 1, 0; }, false},
    };
    for (const auto &one : cases) {
        for (const std::string &key : keys)
            store.del(key);
        for (const std::string *key : {&last, &mid, &first})
            ASSERT_EQ(store.add(*key, "v"), 0);
        chain_walk walk = walk_for(store, one.key);
        ASSERT_EQ(walk_find(&walk), 1);
        EXPECT_EQ(one.change(), 0) << one.what;
        EXPECT_EQ(walk_holds(&walk), one.holds) << one.what;
    }
}

TEST(lookup, an_interim_record_rules_before_the_tables)
{
    kv store = make_kv("interim", FIXED);
    ASSERT_EQ(store.add("both", "table") + store.add("gone", "table"), 0);
    void *ud = ud_of(store);
    shkv_interimlst_init(store.head(), ud);
    auto note = [&](const std::string &name, const char *value, uint32_t op) {
        shkv_buf key = buf_of(name), val = {const_cast<char *>(value), (uint32_t)strlen(value)};
        EXPECT_EQ(shkv_interimlst_put(store.head(), ud, &key, &val, op), 0);
        return shkv_interimlst_lookup(store.sn(), &key, ud);
    };
    note("both", "older", INTRM_ADD);
    note("both", "interim", INTRM_ADD);
    note("gone", "", INTRM_DEL);
    note("unverified", "sum", INTRM_ADD)->cksum = 0;
    note("broken", "sum", INTRM_ADD)->cksum ^= 0x55;
    store.sn()->comm_flg |= CF_RESHAPE;
    const struct {
        const char *key;
        uint32_t mode, room;
        int value;
        uint32_t len;
        const char *line;
    } cases[] = {{"both", 0, 40, 0, 7, ""},
                 {"both", 0, 6, EINVAL, 7, "shkv_lookup,val buf too small, shkvh:%d"},
                 {"both", 0x33, 40, 0, 5, ""},
                 {"gone", 0, 40, ENOENT, 40, "shkv_lookup, no such key"},
                 {"gone", 0x33, 40, 0, 5, ""},
                 {"unverified", 0, 40, 0, 3, ""},
                 {"broken", 0, 40, EINVAL, 40, "shkv_lookup,bad checksum, shkvh:%d"}};
    for (const auto &one : cases) {
        char room[40], line[128];
        shkv_buf key = {const_cast<char *>(one.key), (uint32_t)strlen(one.key)}, val = {room, one.room};
        log_catcher log;
        EXPECT_EQ(__shkv_lookup(store.handle, &key, &val, one.mode), one.value) << one.key;
        EXPECT_EQ(val.len, one.len) << one.key;
        snprintf(line, sizeof line, one.line, store.handle);
        EXPECT_EQ(log.last(), line);
    }
    store.sn()->comm_flg &= ~CF_RESHAPE;
}

// The bucket without a division is that of the division, for every hash.
TEST(lookup, the_reciprocal_gives_the_remainder)
{
    std::mt19937_64 random(5);
    std::vector<uint32_t> sizes(prime_low_list, prime_low_list + 20);
    for (uint32_t hashsz : {1u, 2u, 3u, 442u, 0x7fffffffu, 0x80000000u, 0xffffffffu})
        sizes.push_back(hashsz);
    for (int i = 0; i < 2000; i++)
        sizes.push_back((uint32_t)(random() >> (32 + random() % 32)) | 1);
    for (uint32_t hashsz : sizes) {
        uint64_t recip = UINT64_MAX / hashsz + 1;
        auto check = [&](uint32_t hash) {
            ASSERT_EQ(bucket_by_recip(hash, recip, hashsz), hash % hashsz) << hash << " % " << hashsz;
        };
        for (uint32_t near : {0u, hashsz, 0xffffffffu, 0xffffffffu / hashsz * hashsz})
            for (int by = -2; by <= 2; by++)
                check(near + (uint32_t)by);
        for (int i = 0; i < 200; i++)
            check((uint32_t)random());
    }
}

// Several keys at once: each result, length and value is that of a lookup of its own.
TEST(lookup, a_group_gives_what_single_lookups_give)
{
    std::mt19937 random(7);
    for (const shkv_params &params : {FIXED, VECTOR})
        both_ways([&] {
            kv store = make_kv("group", params);
            for (int i = 0; i < 600; i++)
                ASSERT_EQ(store.add("key" + std::to_string(i), std::string((size_t)(i % 40), (char)i)), 0);
            record_of(store, "key7")->cksum ^= 1;
            record_of(store, "key8")->nd_flg |= UDN_DELETED;
            for (int round = 0; round < 300; round++) {
                uint16_t cnt = (uint16_t)(1 + random() % 32);
                std::string names[32];
                char rooms[2][32][48];
                shkv_buf keys[32], vals[2][32];
                int results[2][32], first = 0;
                memset(rooms, 0, sizeof rooms);
                for (int i = 0; i < cnt; i++) {
                    names[i] = "key" + std::to_string(random() % (round % 2 ? 900 : 20));
                    keys[i] = buf_of(names[i]);
                    uint32_t kind = random() % 24;
                    if (kind == 0)
                        keys[i].len = 0;
                    uint32_t room = kind == 1 ? 0 : kind == 2 ? random() % 40 : 40;
                    for (int way = 0; way < 2; way++)
                        vals[way][i] = {kind == 1 ? nullptr : rooms[way][i], room};
                }
                int ret = shkv_m_lookup(store.handle, keys, vals[0], results[0], cnt);
                for (int i = 0; i < cnt; i++) {
                    results[1][i] = shkv_lookup(store.handle, &keys[i], &vals[1][i]);
                    EXPECT_EQ(results[0][i], results[1][i]) << names[i];
                    EXPECT_EQ(vals[0][i].len, vals[1][i].len) << names[i];
                    if (first == 0 && results[1][i] != ENOENT)
                        first = results[1][i];
                }
                EXPECT_EQ(ret, first);
                EXPECT_EQ(memcmp(rooms[0], rooms[1], sizeof rooms[0]), 0);
            }
            const std::string name = "key1";
            shkv_buf key = buf_of(name), val = {nullptr, 0};
            int result = 5;
            EXPECT_EQ(shkv_m_lookup(store.handle, &key, &val, &result, 0), EINVAL);
            EXPECT_EQ(shkv_m_lookup(store.handle, &key, &val, &result, 33), EINVAL);
            EXPECT_EQ(shkv_m_lookup(store.handle, nullptr, &val, &result, 1), EINVAL);
            EXPECT_EQ(shkv_m_lookup(store.handle, &key, nullptr, &result, 1), EINVAL);
            EXPECT_EQ(shkv_m_lookup(store.handle, &key, &val, nullptr, 1), EINVAL);
            EXPECT_EQ(result, 5);
            EXPECT_EQ(shkv_m_lookup(33, &key, &val, &result, 1), EBADF);
            EXPECT_EQ(result, EBADF);
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}
