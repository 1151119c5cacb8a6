// Sizes of objects, the chunks of a shared mapping, and the tables in force.
#include <gtest/gtest.h>

#include "shkv_intf/addr.h"
#include "shkv_intf/sizing.h"

TEST(sizing, bucket_counts_are_the_next_prime_above)
{
    const struct { uint32_t n, want; } cases[] = {
        {0, 31}, {30, 31}, {31, 61}, {256, 443}, {1000, 1759}, {7190536, 7190537},
        {7190537, 14381041}, {14381041, 14381041}, {~0u, 14381041}};
    for (const auto &each : cases)
        EXPECT_EQ(shkv_get_hash_size(each.n), each.want) << each.n;
    for (const uint32_t *list : {prime_low_list, prime_up_list})
        for (int i = 0; i < 20; i++) {
            for (uint32_t d = 2; d * d <= list[i]; d++)
                ASSERT_NE(list[i] % d, 0u) << list[i];
            EXPECT_TRUE(i == 0 || list[i] > list[i - 1] * 3 / 2) << list[i];
        }
}

TEST(sizing, spare_nodes_are_five_percent_between_100_and_500)
{
    const struct { uint32_t entries, want; } cases[] = {{0, 100},     {2019, 100},  {2020, 101}, {5000, 250},
                                                        {9999, 499},  {10000, 500}, {858993459, 500},
                                                        {858993460, 100}}; // the product has wrapped
    for (const auto &each : cases)
        EXPECT_EQ(shkv_defbuf_sz(each.entries), each.want) << each.entries;
}

TEST(sizing, spaces_hold_the_entries_and_the_spare_nodes_in_whole_pages)
{
    const struct { uint32_t entries, ksz, vsz, size, exact; } cases[] = {
        {2000, 16, 32, 143360, 2010}, {1000, 0, 0, 143360, 7061}, {1000, 16, 100, 151552, 1018},
        {5000, 8, 8, 192512, 5096},   {0xffff0000, 256, 2048, 4143824896, 0} /* cut to 32 bits */};
    for (const auto &each : cases) {
        EXPECT_EQ(GET_USER_SIZE(each.entries, each.ksz, each.vsz), each.size) << each.entries;
        if (each.exact) {
            EXPECT_EQ(shkv_get_exact_max_entries(each.ksz, each.vsz, each.entries), each.exact) << each.entries;
        }
    }
    EXPECT_EQ(shkv_get_exact_max_entries(0x10008, 0x20008, 5000), 5096u); // sizes are cut to 16 bits
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

TEST(sizing, tables_in_force_are_those_of_the_snapshot)
{
    static supernode sn;
    static ud_map uds[2];
    shkv_head head = {};
    head.sn = &sn, head.ud1_map = &uds[0], head.ud2_map = &uds[1];
    const struct { uint32_t flg; int md, ud, md_2nd, ud_2nd; } cases[] = { // 0: left alone
        {CF_MD1 | CF_UD1, 1, 1, 0, 0},
        {CF_MD2 | CF_UD2 | CF_TXN, 2, 2, 0, 0},
        {CF_MD1 | CF_MD2 | CF_UD1 | CF_UD2, 1, 1, 0, 0},
        {CF_MD1 | CF_MD2 | MDN1O2 | CF_UD1, 2, 1, 1, 0},
        {CF_MD1 | CF_MD2 | MDO1N2 | CF_UD1 | CF_UD2 | UDO1N2, 1, 1, 2, 2},
        {CF_MD1 | CF_MD2 | MDN1O2 | CF_UD1 | CF_UD2 | UDN1O2, 2, 2, 1, 1},
        {CF_TXN, 0, 0, 0, 0}};
    const md_desc *descs[] = {nullptr, &sn.md1, &sn.md2};
    const md_rec *recs[] = {nullptr, &head.md1, &head.md2};
    const ud_map *maps[] = {nullptr, &uds[0], &uds[1]};
    for (const auto &each : cases) {
        active_db first = {}, second = {};
        EXPECT_EQ(get_active_db(&first, &second, &head, each.flg), each.ud_2nd != 0);
        EXPECT_TRUE(first.desc == descs[each.md] && first.rec == recs[each.md] && first.ud == maps[each.ud]);
        EXPECT_TRUE(second.desc == descs[each.md_2nd] && second.rec == recs[each.md_2nd] &&
                    second.ud == maps[each.ud_2nd]) << std::hex << each.flg;
    }
}
