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
    EXPECT_TRUE(keep) << "the cheap guard does not store what this C library reads";
    for (bool quick : {true, false}) {
        SCOPED_TRACE(quick ? "quick" : "full");
        guard_quick = quick && keep;
        what();
    }
    guard_quick = keep;
}

} // namespace

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
    for (bool grouped : {false, true})
        both_ways([&] {
            kv store = make_kv("room", grouped ? VECTOR : FIXED);
            for (const auto &[key, value] :
                 contents{{"ten", "0123456789"}, {"none", ""}, {"forty", std::string(40, 'f')}})
                EXPECT_EQ(store.add(key, value), 0);
            for (const auto &one : cases) {
                char room[48];
                memset(room, '#', sizeof room);
                shkv_buf key = {const_cast<char *>(one.key), (uint32_t)strlen(one.key)};
                shkv_buf val = {one.null_ptr ? nullptr : room, one.room};
                log_catcher log;
                int result = grouped ? shkv_m_lookup(store.handle, &key, &val, &result, 1)
                                     : shkv_lookup(store.handle, &key, &val);
                EXPECT_EQ(result, grouped && one.value == ENOENT ? 0 : one.value) << one.key << one.room;
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

TEST(lookup, a_damaged_record_is_refused_and_leads_nowhere)
{
    enum damage { CKSUM, FIRST, LINK, SIZE, UNITS, KEY_UNITS };
    const struct {
        damage what;
        uint32_t conf_flg, bad;
        const char *line; // %d twice: what is mapped or usable, the offset; once: the handle
        uint32_t event;
    } cases[] = {
        {CKSUM, CONF_FIXEDMM, 0, "shkv_lookup,bad checksum, shkvh:%d", TRACE_ONE | 0x13},
        {CKSUM, CONF_VECTORMM, 0, "shkv_lookup,bad checksum, shkvh:%d", TRACE_ONE | 0x13},
        {FIRST, CONF_FIXEDMM, 0x7ffffff0, "bucket_find_udn out of memory boundary 1                 %d %d", TRACE_PAIR1 | 0xE5},
        {FIRST, CONF_VECTORMM, 0xfffffff0, "bucket_find_udn out of memory boundary 1                 %d %d", TRACE_PAIR1 | 0xE5},
        {LINK, CONF_FIXEDMM, 0x7ffffff0, "bucket_find_udn out of memory boundary 2                     %d %d", TRACE_PAIR1 | 0xE6},
        {SIZE, CONF_FIXEDMM, 0xffff, "bucket_find_udn out of memory boundary 2                     %d %d", TRACE_PAIR1 | 0xE6},
        {UNITS, CONF_VECTORMM, 0x7fffff80, "shkv_dv_read out of memory boundary                 %d %d", TRACE_PAIR1 | 0xE8},
        {KEY_UNITS, CONF_VECTORMM, 0x7fffff80,
         "shkv_dv_key_cmp out of memory boundary                                 %d %d", TRACE_PAIR1 | 0xE9},
    };
    for (const auto &one : cases)
        both_ways([&] {
            kv store = make_kv("damaged", {16, 40, 100, one.conf_flg, 0});
            std::string key(one.what == KEY_UNITS ? 200 : 3, 'k'), room;
            ASSERT_EQ(store.add(key, std::string(one.conf_flg == CONF_FIXEDMM ? 40 : 300, 'v')), 0);
            uint32_t *link_p = link_to(store, key), limit = store.head()->ud1_map->mapped_sz, off = one.bad;
            udn *rec = record_of(store, key);
            if (one.what == CKSUM) {
                rec->cksum ^= 1;
            } else if (one.what == FIRST) {
                *link_p = one.bad;
            } else if (one.what == LINK) {
                rec->md1_next = one.bad;
                uint32_t bucket = bucket_of_key(store, key);
                for (int i = 0; bucket_of_key(store, key = std::to_string(i)) != bucket;) // another one behind it
                    i++;
            } else if (one.what == SIZE) {
                rec->val_sz = (uint16_t)one.bad;
                off = *link_p;
            } else {
                rec->unit_next = one.bad;
                limit = ((sbm *)ud_of(store))->ud_end;
                off = one.bad + 4;
            }
            log_catcher log;
            char line[128];
            int first = one.what == CKSUM ? store.handle : (int)limit;
            snprintf(line, sizeof line, one.line, first, (int)off);
            EXPECT_EQ(get(store.handle, key, &room), one.what == CKSUM ? EINVAL : ENOMEM) << line;
            EXPECT_EQ(log.last(), line);
            last_event event(store.sn());
            EXPECT_EQ(event.code, one.event) << line;
            EXPECT_EQ(event.arg, (uint32_t)first) << line;
            EXPECT_TRUE(one.what == CKSUM || event.arg2 == off) << line;
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}

// An object that was cut under its mapping: the fault comes back as a result, again and again.
TEST(lookup, no_memory_behind_the_mapping_is_a_result)
{
    for (const char *object : {"/dev/shm/shkvmu/cut_md1", "/dev/shm/shkvmu/cut_ud1"})
        both_ways([&] {
            kv store = make_kv("cut", {16, 40, 4000, CONF_FIXEDMM, 0});
            for (int i = 0; i < 4000; i++)
                ASSERT_EQ(store.add(std::to_string(i), "value"), 0);
            ASSERT_EQ(truncate(object, 4096), 0);
            int found = 0, faulted = 0;
            for (int i = 0; i < 4000; i++) {
                log_catcher log;
                std::string value = store.at(std::to_string(i));
                found += value == "value";
                faulted += value == "#12" && log.last() == "shkv out of actual me in shkv_lookup";
            }
            EXPECT_TRUE(found > 0 && found + faulted == 4000 && out_of_actual_mem == 0) << found << " " << faulted;
            const std::string name = "3999";
            shkv_buf key = buf_of(name), none = {nullptr, 0};
            int results[1];
            EXPECT_EQ(shkv_m_lookup(store.handle, &key, &none, results, 1), ENOMEM);
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
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
    // A damaged header reaches past the mapping; a list that leads there ends at it.
    sbm *space = (sbm *)ud;
    space->ud_end = 0x7fffff00;
    space->intrm_head = store.head()->ud1_map->mapped_sz;
    EXPECT_EQ(store.at("gone"), "table");
    store.sn()->comm_flg &= ~CF_RESHAPE;
}

// The bucket without a division is that of the division, for every hash.
TEST(lookup, the_reciprocal_gives_the_remainder)
{
    std::mt19937_64 random(5);
    std::vector<uint32_t> sizes = {1, 2, 3, 442, 0x7fffffff, 0x80000000, 0xffffffff};
    sizes.insert(sizes.end(), prime_low_list, prime_low_list + 20);
    for (int i = 0; i < 2000; i++)
        sizes.push_back((uint32_t)(random() >> (32 + random() % 32)) | 1);
    for (uint32_t hashsz : sizes)
        for (uint32_t i = 0; i < 200; i++) {
            uint32_t near[] = {0, hashsz, 0xffffffff, 0xffffffff / hashsz * hashsz};
            uint32_t hash = i < 20 ? near[i % 4] + i / 4 - 2 : (uint32_t)random();
            ASSERT_EQ(bucket_by_recip(hash, UINT64_MAX / hashsz + 1, hashsz), hash % hashsz) << hash << " % " << hashsz;
        }
}
