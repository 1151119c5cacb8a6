// The built-in hashes, the binding of a table to one, and the checksums.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "shkv_hash/checksum.h"
#include "shkv_hash/hash_bind.h"
#include "shkv_hash/hash_fn.h"

using byte = unsigned char;

// One byte a step, as the functions are defined. A start of ~0ull is the length.
struct plain_hash {
    uint64_t start;
    uint32_t (*step)(uint32_t h, uint32_t c, uint32_t i);
    uint32_t of_test_string;
};

static uint32_t rs_factor(uint32_t i)
{
    uint32_t a = 63689;
    while (i--)
        a *= 378551;
    return a;
}

static uint32_t pjw_step(uint32_t h, uint32_t c, uint32_t)
{
    h = (h << 4) + c;
    uint32_t t = h & 0xf0000000;
    return t ? (h ^ (t >> 24)) & 0x0fffffff : h;
}

static uint32_t elf_step(uint32_t h, uint32_t c, uint32_t)
{
    h = (h << 4) + c;
    uint32_t t = h & 0xf0000000;
    if (t)
        h ^= t >> 24;
    return h & ~t;
}

static const plain_hash plain[HASH_FN_CNT] = {
    {0, [](uint32_t h, uint32_t c, uint32_t i) { return h * rs_factor(i) + c; }, 0x195cc9f1},
    {1315423911, [](uint32_t h, uint32_t c, uint32_t) { return h ^ ((h << 5) + c + (h >> 2)); }, 0xd3709c80},
    {0, pjw_step, 0x01d3e1d3},
    {0, elf_step, 0x01d3e1d3},
    {0, [](uint32_t h, uint32_t c, uint32_t) { return h * 1313 + c; }, 0x3e2082ed},
    {0, [](uint32_t h, uint32_t c, uint32_t) { return h * 65599 + c; }, 0x2bf9228d},
    {5381, [](uint32_t h, uint32_t c, uint32_t) { return h * 33 + c; }, 0x53045772},
    {~0ull, [](uint32_t h, uint32_t c, uint32_t) { return (h << 5 | h >> 27) ^ c; }, 0xb7891c78},
    {0, [](uint32_t h, uint32_t c, uint32_t) { return (h << 7) ^ c; }, 0x0cdd7763},
    {0, [](uint32_t h, uint32_t c, uint32_t) { return (h * 0x811c9dc5) ^ c; }, 0x34cf90f3},
    {0xaaaaaaaa,
     [](uint32_t h, uint32_t c, uint32_t i) {
         return h ^ (i % 2 ? ~((h << 11) + (c ^ (h >> 5))) : (h << 7) ^ (c * (h >> 3)));
     },
     0x6954c13a},
};

static uint8_t plain_cksum(const byte *data, uint32_t len)
{
    uint32_t step = len <= 8 ? 1 : len / 8, rem = len, done = 0;
    uint8_t acc = 0;
    while (done < len) {
        acc ^= step < rem ? *data : data[rem - 1];
        done += step, rem -= step, data += step;
    }
    return acc;
}

// Every byte of the block is the key's or out of bounds, so a sanitizer sees a read beyond it.
TEST(hash, fast_forms_give_what_the_plain_ones_give)
{
    std::mt19937 random(7);
    for (int round = 0; round < 20000; round++) {
        uint32_t shift = random() % 16, len = round < 602 ? round / 2 : random() % 301;
        std::unique_ptr<byte[]> block(new byte[shift + len]);
        byte *key = block.get() + shift;
        for (uint32_t i = 0; i < len; i++)
            key[i] = (byte)random();
        for (uint32_t fn = 0; fn < HASH_FN_CNT; fn++) {
            uint32_t h = plain[fn].start == ~0ull ? len : (uint32_t)plain[fn].start;
            for (uint32_t i = 0; i < len; i++)
                h = plain[fn].step(h, key[i], i);
            ASSERT_EQ(shkv_hash_matrix[fn](key, len), h) << "function " << fn << ", length " << len;
        }
        uint8_t sum;
        shkv_data_checksum(key, len, &sum);
        ASSERT_EQ(sum, plain_cksum(key, len)) << "length " << len;
    }
}

TEST(hash, results_are_those_that_stores_were_made_with)
{
    for (uint32_t fn = 0; fn < HASH_FN_CNT; fn++)
        EXPECT_EQ(shkv_get_internal_hashfn((int32_t)fn)(SHKV_HASH_TEST, SHKV_HASH_TEST_LEN), plain[fn].of_test_string)
            << fn;
    EXPECT_EQ(shkv_hash_matrix[HASH_FN_DEFAULT], dekhash);
}

static uint32_t users_hash(const void *, uint32_t len)
{
    return 1000 + len;
}

TEST(hash, a_table_is_bound_to_the_function_it_was_made_with)
{
    const uint64_t mine = (uint64_t)(uintptr_t)users_hash;
    const struct {
        uint64_t arg;
        uint32_t user_hash;
        uint16_t hashfn;
        shkv_hash_fn want; // null: refused
    } cases[] = {
        {0, 0, 7, dekhash},       {0, 0, 10, aphash},
        {0, 0, 11, nullptr},      {0, 1044, SHKV_USER_HASHFN, nullptr},
        {1, 0, 7, rshash},        {11, 5, SHKV_USER_HASHFN, aphash}, // another built-in is not compared
        {mine, 1044, SHKV_USER_HASHFN, users_hash}, {mine, 0, 7, users_hash},
        {mine, 1043, SHKV_USER_HASHFN, nullptr},
    };
    for (const auto &each : cases) {
        shkv_hash_fn fn = nullptr;
        uint32_t err = 0;
        EXPECT_EQ(set_hdmd_hash(each.arg, each.user_hash, each.hashfn, &fn, "s", &err), each.want != nullptr);
        EXPECT_EQ(fn, each.want);
        EXPECT_EQ(err, each.want ? 0u : 22u);
    }
}

// A vector record at 256, 512 and 384 of a space, in this order, with one known byte at each end.
struct vector_record : testing::Test {
    alignas(128) byte space[1024] = {};
    udn *rec = (udn *)(space + 256);

    void SetUp() override
    {
        rec->unit_next = 512;
        ((udn *)(space + 512))->unit_next = 384;
        rec->key_sz = 16, rec->val_sz = 240, rec->unit_cnt = 3; // the stream ends at byte 36 of 384
        space[256 + 28] = 1, space[256 + 127] = 2, space[512 + 4] = 4, space[512 + 127] = 8;
        space[384 + 4] = 16, space[384 + 35] = 32, space[384 + 127] = 64, space[256 + 127 - 1] = 128;
    }

    int sum(uint32_t limit) // -1: refused
    {
        uint8_t out = 0;
        return shkv_udn_checksum(space, nullptr, rec, limit, &out, false) ? out : -1;
    }
};

TEST_F(vector_record, checksum_takes_the_ends_of_each_unit)
{
    EXPECT_EQ(sum(sizeof space), 63);
    rec->val_sz = 84 + 124 + 124 - 1; // up to the last byte but one of the third unit
    EXPECT_EQ(sum(0), 31);
    rec->val_sz++; // exactly to its end
    EXPECT_EQ(sum(0), 31 ^ 64);
    rec->unit_cnt = 1, rec->val_sz = 84; // a stream of 128 takes offset 127
    EXPECT_EQ(sum(0), 3);
    rec->unit_cnt = 0;
    EXPECT_EQ(sum(0), 0);
}

TEST_F(vector_record, checksum_stays_on_the_last_unit_of_a_short_chain)
{
    rec->unit_next = 0;
    space[256 + 4] = 0x40; // md1_next lies where a further unit has its payload
    EXPECT_EQ(sum(sizeof space), 1 ^ 2 ^ 0x40 ^ 2 ^ 0x40 ^ space[256 + 35]);
}

TEST_F(vector_record, checksum_of_a_reader_never_leaves_the_mapping)
{
    EXPECT_EQ(sum(512 + 128), 63);
    EXPECT_EQ(sum(512 + 127), -1);
    for (uint32_t next : {1024u, 1000u, 0xffffff80u, 641u}) {
        rec->unit_next = next;
        EXPECT_EQ(sum(sizeof space), -1) << next;
    }
    rec->unit_next = 512, rec->unit_cnt = 9; // more than lie in it
    EXPECT_EQ(sum(sizeof space), -1);
}
