#include <functional>
#include <random>
#include <unistd.h>

#include "shkv_intf/guard.h"
#include "shkv_intf/quick.h"
#include "shkv_intf/walk.h"
#include "support/kv.h"

namespace
{

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

// No room at all, and no buffer: the stored size comes, and an empty value fits. A group's result is that of
// the key that failed; a key that is not there is none.
TEST(lookup, the_length_tells_the_stored_size_without_room)
{
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM})
        both_ways([&] {
            kv store = {make_store("room", conf_flg, 100)};
            ASSERT_EQ(store.add("ten", "0123456789") + store.add("none", ""), 0);
            const std::string names[] = {"none", "absent", "ten"};
            shkv_buf keys[] = {buf_of(names[0]), buf_of(names[1]), buf_of(names[2])}, vals[3] = {};
            int results[3], alone[3];
            char place[16] = "ten"; // a value in its key's place
            shkv_buf key = {place, 3}, val = {place, sizeof place};
            EXPECT_EQ(shkv_lookup(store.handle, &key, &val), 0);
            EXPECT_EQ(std::string(place, val.len), "0123456789");
            out_of_actual_mem = 1; // a fault that nobody has told of: the next miss does
            EXPECT_EQ(store.at("absent"), "#2");
            EXPECT_EQ(last_event(store.sn()).code + out_of_actual_mem, TRACE_ONE | 0x76u);
            EXPECT_EQ(shkv_m_lookup(store.handle, keys, vals, results, 2), 0);
            EXPECT_EQ(shkv_m_lookup(store.handle, keys, vals, results, 3), EINVAL);
            EXPECT_EQ(vals[2].len, 10u);
            vals[2].len = 0;
            for (int i = 0; i < 3; i++)
                alone[i] = shkv_lookup(store.handle, &keys[i], &vals[i]);
            EXPECT_EQ(vals[2].len, 10u);
            EXPECT_TRUE(alone[0] == 0 && alone[1] == ENOENT && alone[2] == EINVAL) << alone[2];
            EXPECT_EQ(0, memcmp(alone, results, sizeof alone));
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}

TEST(lookup, a_key_that_differs_in_one_byte_is_another)
{
    kv store = {make_store("bytes", CONF_VECTORMM, 2000)};
    for (size_t ksz : {8, 16, 99, 100, 101, 224, 225, 2048}) {
        std::string key(ksz, 'x');
        ASSERT_EQ(store.add(key, "value"), 0);
        EXPECT_EQ(store.at(key), "value");
        bool full = ksz == 100 || ksz == 224; // it fills its unit: the value begins behind the next one's link
        EXPECT_EQ(((vec_udn *)store.first_of(key))->val_off % VEC_UNIT_SZ == 4, full) << ksz;
        for (size_t at : {size_t(0), ksz / 2, ksz - 1}) {
            std::string other = key;
            other[at] ^= 0x20;
            EXPECT_EQ(store.at(other), "#2") << ksz << " " << at;
        }
    }
}

TEST(lookup, a_damaged_record_is_refused_and_leads_nowhere)
{
    using make = uint32_t (*)(uint32_t *link_p, udn *rec); // makes the damage; the offset that is told
    const make cksum = [](uint32_t *, udn *rec) { return rec->cksum ^= 1, 0u; };
    const make units = [](uint32_t *, udn *rec) { return (rec->unit_next = 0x7fffff80) + 4; };
    const struct {
        uint32_t conf_flg, key_sz;
        make what;
        uint32_t event;
        const char *line; // %d twice: what is mapped or usable, the offset; once: the handle
    } cases[] = {
        {CONF_FIXEDMM, 3, cksum, 0x13, "shkv_lookup,bad checksum, shkvh:%d"},
        {CONF_VECTORMM, 3, cksum, 0x13, "shkv_lookup,bad checksum, shkvh:%d"},
        {CONF_FIXEDMM, 3, [](uint32_t *link_p, udn *) { return *link_p = 0x7ffffff0; }, 0xE5,
         "bucket_find_udn out of memory boundary 1                 %d %d"},
        {CONF_VECTORMM, 3, [](uint32_t *link_p, udn *) { return *link_p = 0xfffffff0; }, 0xE5,
         "bucket_find_udn out of memory boundary 1                 %d %d"},
        {CONF_FIXEDMM, 3, [](uint32_t *, udn *rec) { return rec->key_sz--, rec->md1_next = 0x7ffffff0; }, 0xE6,
         "bucket_find_udn out of memory boundary 2                     %d %d"},
        {CONF_FIXEDMM, 3, [](uint32_t *link_p, udn *rec) { return rec->val_sz = 0xffff, *link_p; }, 0xE6,
         "bucket_find_udn out of memory boundary 2                     %d %d"},
        {CONF_VECTORMM, 3, units, 0xE8, "shkv_dv_read out of memory boundary                 %d %d"},
        {CONF_VECTORMM, 200, units, 0xE9,
         "shkv_dv_key_cmp out of memory boundary                                 %d %d"},
    };
    for (const auto &one : cases)
        both_ways([&] {
            kv store = {make_store("damaged", one.conf_flg, 100)};
            std::string key(one.key_sz, 'k'), room;
            ASSERT_EQ(store.add(key, std::string(one.conf_flg == CONF_FIXEDMM ? 40 : 300, 'v')), 0);
            uint32_t off = one.what(store.chain_of(key), store.first_of(key));
            bool pair = one.what != cksum;
            uint32_t arg = !pair              ? (uint32_t)store.handle
                           : one.event < 0xE8 ? store.head()->ud1_map->mapped_sz
                                              : ((sbm *)store.ud())->ud_end;
            log_catcher log;
            char line[128];
            snprintf(line, sizeof line, one.line, (int)arg, (int)off);
            EXPECT_EQ(get(store.handle, key, &room), pair ? ENOMEM : EINVAL) << line;
            EXPECT_EQ(log.last(), line);
            last_event event(store.sn());
            EXPECT_EQ(event.code, one.event | (pair ? TRACE_PAIR1 : TRACE_ONE)) << line;
            EXPECT_TRUE(event.arg == arg && event.arg2 == off) << line;
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}

// Words of an open store that somebody has overwritten. Each case was found by fuzz/bytes_fuzz.cc.
TEST(lookup, damaged_flags_and_a_damaged_ring_lead_nowhere)
{
    const struct {
        uint32_t conf_flg, damaged_flg;
        bool ring;
    } cases[] = {{CONF_FIXEDMM, CONF_FIXEDMM, true}, // an event was written far behind the ring; nothing lies there yet
                 {CONF_VECTORMM, CONF_VECTORMM | CONF_SHMAP, false}, // an offset was looked up in chunks
                 {CONF_VECTORMM | CONF_SHMAP, CONF_VECTORMM, false}};
    for (const auto &one : cases) {
        kv store = {make_store("words", one.conf_flg, 30)}, reader = open_kv("words", SHKV_AM_READ | SHKV_AM_ITER);
        for (int i = 0; i < 20; i++)
            ASSERT_EQ(store.add(key_no(i), std::string(39, 'v')), 0);
        store.sn()->conf_flg = (uint16_t)one.damaged_flg;
        trace_ring *ring_p = (trace_ring *)shkv_get_trbuf(store.sn());
        if (one.ring) {
            ring_p->count = 0xffff;
            ring_p->index = 0xfff0;
        }
        for (int i = 0; i < 20; i++) {
            std::string key = key_no(i);
            char room[4];
            shkv_buf key_buf = buf_of(key), val = {room, sizeof room};
            EXPECT_EQ(shkv_lookup(reader.handle, &key_buf, &val), EINVAL) << key; // each writes an event
            EXPECT_EQ(val.len, 39u);
        }
        store.sn()->conf_flg = (uint16_t)one.conf_flg;
        EXPECT_EQ(reader.all().size(), 20u);
        EXPECT_EQ(shkv_destroy(store.handle), 0);
    }
}

// An object that was cut under its mapping: the fault comes back as a result, again and again.
TEST(lookup, no_memory_behind_the_mapping_is_a_result)
{
    for (bool table : {true, false})
        both_ways([&] {
            kv store = {make_store("cut", CONF_FIXEDMM, 4000)};
            for (int i = 0; i < 4000; i++)
                ASSERT_EQ(store.add(key_no(i), "value"), 0);
            ASSERT_EQ(truncate(table ? "/dev/shm/shkvmu/cut_md1" : "/dev/shm/shkvmu/cut_ud1", 4096), 0);
            int found = 0, faulted = 0;
            for (int i = 0; i < 4000; i++) {
                log_catcher log;
                std::string value = store.at(key_no(i));
                found += value == "value";
                faulted += value == "#12" && log.last() == "shkv out of actual me in shkv_lookup";
            }
            EXPECT_TRUE(found > 0 && found + faulted == 4000 && out_of_actual_mem == 0) << found << " " << faulted;
            std::string last = key_no(3999);
            shkv_buf key = buf_of(last), none = {nullptr, 0};
            int results[1];
            EXPECT_EQ(shkv_m_lookup(store.handle, &key, &none, results, 1), ENOMEM);
            EXPECT_EQ(shkv_iterate(store.handle, nullptr, nullptr, nullptr, 1), 0);
            shkv_iter_pos pos;
            int result = 0, given = -1;
            for (; result == 0; given++)
                result = shkv_iterate(store.handle, nullptr, nullptr, &pos, 0);
            EXPECT_EQ(result, ENOMEM);
            EXPECT_TRUE(!table || (given > 400 && store.head()->iter_bkt == 512)); // past a page of buckets
            EXPECT_EQ(shkv_destroy(store.handle), 0);
        });
}

// What the walk vouches for: its record, whatever happens to the others.
TEST(lookup, an_answer_holds_while_its_record_can_be_reached)
{
    kv store = {make_store("holds", CONF_FIXEDMM, 100)};
    const std::vector<std::string> keys = store.keys_in(7, 4);
    const std::string &last = keys[0], &mid = keys[1], &first = keys[2], &fresh = keys[3]; // the newest is first
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
        {"its predecessor and it are replaced", mid, [&] { return store.add(first, "w") + store.add(mid, "w"); }, false},
        {"other bytes stand there", first, [&] { return store.first_of(first)->cksum ^= 1, 0; }, false},
    };
    for (const auto &one : cases) {
        for (const std::string &key : keys)
            store.del(key);
        for (const std::string *key : {&last, &mid, &first})
            ASSERT_EQ(store.add(*key, "v"), 0);
        chain_walk walk;
        shkv_head *head = store.head();
        walk_init(&walk, head, &head->md1, (mdn *)store.chain_of(one.key), store.ud(), one.key.data(),
                  (uint32_t)one.key.size(), head->ud1_map->mapped_sz, nullptr);
        ASSERT_EQ(walk_find(&walk), 1);
        EXPECT_EQ(one.change(), 0) << one.what;
        EXPECT_EQ(walk_holds(&walk), one.holds) << one.what;
    }
}

// The bucket without a division is that of the division, for every hash.
TEST(lookup, the_reciprocal_gives_the_remainder)
{
    std::mt19937_64 random(5);
    std::vector<uint32_t> sizes = {1, 2, 3, 442, 0x7fffffff, 0x80000000, 0xffffffff};
    sizes.insert(sizes.end(), prime_low_list, prime_low_list + 20);
    while (sizes.size() < 2000)
        sizes.push_back((uint32_t)(random() >> (32 + random() % 32)) | 1);
    for (uint32_t hashsz : sizes)
        for (uint32_t i = 0; i < 200; i++) {
            uint32_t near[] = {0, hashsz, 0xffffffff, 0xffffffff / hashsz * hashsz};
            uint32_t hash = i < 20 ? near[i % 4] + i / 4 - 2 : (uint32_t)random();
            ASSERT_EQ(bucket_by_recip(hash, UINT64_MAX / hashsz + 1, hashsz), hash % hashsz) << hash << " % " << hashsz;
        }
}
