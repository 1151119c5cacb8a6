// Sizes of objects, and the chunks of a shared mapping.
#include <gtest/gtest.h>

#include "shkv_intf/addr.h"
#include "shkv_intf/sizing.h"

// The two-fold sizes of a table, the spare nodes of a space (also where their product has wrapped), its size
// in whole pages and what fits.
TEST(sizing, buckets_and_spaces_follow_the_entries)
{
    const struct { uint32_t entries, buckets, spare; } counts[] = {
        {0, 31, 100}, {31, 61, 100}, {1000, 1759, 100}, {2020, 3517, 101}, {9999, 14051, 499}, {10000, 14051, 500},
        {7190537, 14381041, 500}, {858993460, 14381041, 100}};
    for (const auto &each : counts) {
        EXPECT_EQ(shkv_get_hash_size(each.entries), each.buckets) << each.entries;
        EXPECT_EQ(shkv_defbuf_sz(each.entries), each.spare) << each.entries;
    }
    const struct { uint32_t entries, ksz, vsz, size, exact; } spaces[] = {
        {2000, 16, 32, 143360, 2010}, {1000, 0, 0, 143360, 7061}, {5000, 0x10008, 0x20008, 192512, 5096},
        {0xffff0000, 256, 2048, 4143824896, 0} /* cut to 32 bits */};
    for (const auto &each : spaces) {
        EXPECT_EQ(GET_USER_SIZE(each.entries, each.ksz & 0xffff, each.vsz & 0xffff), each.size) << each.entries;
        EXPECT_TRUE(!each.exact || shkv_get_exact_max_entries(each.ksz, each.vsz, each.entries) == each.exact);
    }
}

// Offsets run through the maps without a gap or an overlap, wherever map 0 ends.
TEST(sizing, chunks_of_a_shared_mapping_join)
{
    const struct { uint32_t map0_sz; int32_t chunk; uint32_t gap; } cases[] = {
        {0x1000, 0, 0x1000},          {0x2000000, 1, 0},  {0x7fff000, 3, 0x1fff000},
        {0x8000000, 4, 0},            {0x8001000, 4, 0x1000}, {0x10000000, 5, 0}};
    for (const auto &each : cases) {
        ud_map maps = {};
        shkv_head head = {};
        head.ud1_map = &maps;
        set_map0(&head, each.map0_sz);
        EXPECT_EQ(head.map0_chunk, each.chunk);
        EXPECT_EQ(head.map0_gap, each.gap);
        uint64_t off = 0;
        for (uint32_t i = 0; i < 12; i++) {
            char *base = (char *)(uintptr_t)((i + 1ull) << 32); // never touched
            maps.map[i] = base;
            uint32_t size = shkv_ud_index_to_map_size(&head, i);
            EXPECT_EQ(shkv_ud_offset_to_addr(&head, (uint32_t)off), base) << i;
            EXPECT_EQ(shkv_ud_offset_to_addr(&head, (uint32_t)off + size - 4), base + size - 4) << i;
            if (i) {
                EXPECT_EQ(chunk_rest((uint32_t)off), size);
            }
            off += size;
        }
    }
}
