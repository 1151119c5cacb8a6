// The built-in hashes and the checksums.
#include <gtest/gtest.h>

#include <memory>

#include "shkv_hash/checksum.h"
#include "shkv_hash/hash_fn.h"

using byte = unsigned char;

// What stores were made with. The sum of all lengths covers every unrolled form; each key has a block of its
// own, so a sanitizer sees a read beyond it.
TEST(hash, results_are_those_that_stores_were_made_with)
{
    const struct {
        uint32_t of_test_string, of_all_lengths;
    } want[HASH_FN_CNT + 1] = {{0x195cc9f1, 0x51b57250}, {0xd3709c80, 0x039f02ab}, {0x01d3e1d3, 0x5629f735}, {0x01d3e1d3, 0x5629f735}, {0x3e2082ed, 0xfe9c4480}, {0x2bf9228d, 0x3925db54}, {0x53045772, 0x6a228800}, {0xb7891c78, 0x929f1827}, {0x0cdd7763, 0x1cf7bcb5}, {0x34cf90f3, 0x1b93fc34}, {0x6954c13a, 0xb46dd23d}, {0, 0x753f347f}};
    uint32_t sums[HASH_FN_CNT + 1] = {};
    for (uint32_t len = 0; len < 300; len++) {
        std::unique_ptr<byte[]> block(new byte[len % 16 + len]);
        byte *key = block.get() + len % 16, cksum = 0;
        for (uint32_t i = 0; i < len; i++)
            key[i] = (byte)(i * i * 7 + i * 131 + (i >> 3));
        for (uint32_t fn = 0; fn < HASH_FN_CNT; fn++)
            sums[fn] = sums[fn] * 31 + shkv_hash_matrix[fn](key, len);
        shkv_data_checksum(key, len, &cksum);
        sums[HASH_FN_CNT] = sums[HASH_FN_CNT] * 31 + cksum;
    }
    for (uint32_t fn = 0; fn <= HASH_FN_CNT; fn++)
        EXPECT_EQ(sums[fn], want[fn].of_all_lengths) << fn;
    for (uint32_t fn = 0; fn < HASH_FN_CNT; fn++)
        EXPECT_EQ(shkv_hash_matrix[fn](SHKV_HASH_TEST, SHKV_HASH_TEST_LEN), want[fn].of_test_string) << fn;
}

// A vector record at 256, 512 and 384 of a space, in this order, with one known byte at each end of its units,
// at the end of its stream (byte 36 of 384 for 256 bytes), and behind it.
TEST(hash, checksum_of_a_vector_record_takes_the_ends_of_each_unit_and_never_leaves_the_mapping)
{
    const struct {
        uint32_t next; // of the first unit
        uint16_t val_sz, unit_cnt;
        uint32_t limit;
        int want; // -1: refused
    } cases[] = {
        {512, 240, 3, 1024, 63},
        {512, 84 + 124 + 124 - 1, 3, 0, 31}, // up to the last byte but one of the third unit
        {512, 84 + 124 + 124, 3, 0, 31 ^ 64}, // exactly to its end
        {512, 84, 1, 0, 3}, // a stream of 128 takes offset 127
        {512, 84, 0, 0, 0},
        {512, 240, 3, 512 + 128, 63},
        {512, 240, 3, 512 + 127, -1},
        {1024, 240, 3, 1024, -1},
        {1000, 240, 3, 1024, -1},
        {0xffffff80, 240, 3, 1024, -1},
        {641, 240, 3, 1024, -1},
        {512, 240, 9, 1024, -1}, // more units than lie in it
    };
    alignas(128) byte space[1024] = {};
    space[256 + 28] = 1, space[256 + 127] = 2, space[512 + 4] = 4, space[512 + 127] = 8;
    space[384 + 4] = 16, space[384 + 35] = 32, space[384 + 127] = 64, space[256 + 127 - 1] = 128;
    udn *rec = (udn *)(space + 256);
    ((udn *)(space + 512))->unit_next = 384;
    rec->key_sz = 16;
    for (const auto &each : cases) {
        rec->unit_next = each.next, rec->val_sz = each.val_sz, rec->unit_cnt = each.unit_cnt;
        uint8_t sum = 0;
        bool taken = shkv_udn_checksum(space, nullptr, rec, each.limit, &sum, false);
        EXPECT_EQ(taken ? sum : -1, each.want) << &each - cases;
    }
}
