// The checksum byte of a record: how a reader without a lock notices that a node was reused.
#pragma once
#include <string.h>
#include "shkv.h"
#include "shkv_hash/hash_fn.h"

static inline uint8_t xor_bytes(uint64_t word)
{
    word ^= word >> 32;
    word ^= word >> 16;
    return (uint8_t)(word ^ word >> 8);
}

// shkv_data_checksum, of a fixed record's key and value, without a call. Every step-th byte and
// always the last one: at most 15 bytes whole, longer ones at a stride of len / 8.
static inline uint8_t data_cksum_inline(const void *data, uint32_t len)
{
    const unsigned char *at_p = (const unsigned char *)data;
    if (__builtin_expect(len >= 16, 1)) {
        // A stride fits at least eight times: bytes 0 to 6 of the sample are there whatever len is.
        // One or more follow when len is no multiple of 8.
        size_t step = len >> 3;
        uint8_t acc = at_p[0] ^ at_p[step] ^ at_p[2 * step] ^ at_p[3 * step] ^ at_p[4 * step] ^ at_p[5 * step] ^
                      at_p[6 * step];
        for (size_t pos = 7 * step; pos + step < len; pos += step)
            acc ^= at_p[pos];
        return acc ^ at_p[len - 1];
    }
    if (len < 8)
        return len ? xor_bytes(load_short(at_p, len)) : 0;
    if (len == 8)
        return xor_bytes(load64(at_p));
    // 9 to 15: the two words share 16 - len bytes.
    return xor_bytes(load64(at_p) ^ load64(at_p + len - 8) >> (8 * (16 - len)));
}

// Of a vector record: the first and last byte in use of each unit. It follows unit_next of a
// record that may be reused under it, so every offset is checked against limit (0: the writer,
// no check) and a record that leads outside yields 0 in the result. 1 when *out is good.
// The caller has checked that the first unit lies below limit.
int shkv_udn_checksum(void *ud_base, shkv_head *head, const udn *udn_p, uint32_t limit, uint8_t *out,
                      bool shared_map);
