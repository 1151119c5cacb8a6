// How large the objects of a store are made. Pure arithmetic on u32, which wraps.
#include "shkv_intf/sizing.h"

uint32_t prime_low_list[20] = {31,     61,     113,    223,    443,     883,     1759,
                               3517,   7027,   14051,  28099,  56197,   112363,  224717,
                               449419, 898823, 1797641, 3595271, 7190537, 14381041};
// Read by nothing in the library.
uint32_t prime_up_list[20] = {37,     67,      131,     257,     521,     1031,   2053,
                              4099,   8209,    16411,   32771,   65537,   131101, 262147,
                              524309, 1048583, 2097169, 4194353, 8388733, 15485863};

uint32_t shkv_get_hash_size(uint32_t n)
{
    for (uint32_t prime : prime_low_list)
        if (prime > n)
            return prime;
    return prime_low_list[19];
}

// 5 % of the entries, held between 100 and 500.
uint32_t shkv_defbuf_sz(uint32_t entries)
{
    uint32_t v = entries * 5;
    return v < 10100 ? 100 : v >= 50000 ? 500 : v / 100;
}

static uint32_t node_sz(uint32_t payload_sz)
{
    return (payload_sz + UDN_HEAD_SZ + 3) & ~3u;
}

// Nodes for the entries and the spare ones, and 256 bytes of header, in whole pages.
uint32_t GET_USER_SIZE(uint32_t entries, uint32_t key_sz, uint32_t val_sz)
{
    uint32_t payload_sz = key_sz + val_sz; // 0: a vector store asks
    uint64_t unit_sz = payload_sz ? node_sz(payload_sz) : VEC_UNIT_SZ;
    uint64_t size = (shkv_defbuf_sz(entries) + entries) * unit_sz + 255 + SHKV_PAGE_SIZE;
    return (uint32_t)(size / SHKV_PAGE_SIZE * SHKV_PAGE_SIZE);
}

// For fixed stores: the divisor makes no exception for a vector store's sizes of 0.
uint32_t shkv_get_exact_max_entries(uint32_t key_sz, uint32_t val_sz, uint32_t entries)
{
    uint16_t ksz = (uint16_t)key_sz, vsz = (uint16_t)val_sz;
    uint32_t size = GET_USER_SIZE(entries, ksz, vsz);
    return (size - 256) / node_sz(ksz + vsz) - shkv_defbuf_sz(entries) + 6;
}

void set_map0(shkv_head *head, uint32_t mapped_sz)
{
    bool big = mapped_sz >= CHUNK_BIG;
    head->map0_chunk = big ? (int32_t)(mapped_sz / CHUNK_BIG) + 3 : (int32_t)(mapped_sz / CHUNK_SMALL);
    head->map0_gap = mapped_sz % (big ? CHUNK_BIG : CHUNK_SMALL);
    head->map0_sz = mapped_sz;
}

uint32_t chunk_rest(uint32_t off)
{
    uint32_t chunk_sz = off < CHUNK_BIG ? CHUNK_SMALL : CHUNK_BIG;
    return chunk_sz - off % chunk_sz;
}
