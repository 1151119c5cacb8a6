// The eleven built-in hash functions and shkv_hash_matrix; exported, declared in shkv.h.
#pragma once
#include <string.h>
#include "shkv.h"

#define HASH_FN_CNT 11u
#define HASH_FN_DEFAULT 7u // dekhash

static inline uint64_t load64(const void *at_p)
{
    uint64_t word;
    memcpy(&word, at_p, sizeof word);
    return word;
}

static inline uint32_t load32(const void *at_p)
{
    uint32_t word;
    memcpy(&word, at_p, sizeof word);
    return word;
}

static inline uint32_t rotl32(uint32_t word, uint32_t by)
{
    return word << (by & 31) | word >> (-by & 31);
}

// The exclusive or of rotl32(byte i, 5 * (7 - i)) over the eight bytes of word, lowest byte first.
// Neighbours are joined pairwise: bytes to 13 bits in 16, those to 23 bits in 32, those to one.
static inline uint32_t dek_fold8(uint64_t word)
{
    const uint64_t bytes = 0x00ff00ff00ff00ff, halves = 0x0000ffff0000ffff;
    uint64_t by2 = (word & bytes) << 5 ^ (word >> 8 & bytes);
    uint64_t by4 = (by2 & halves) << 10 ^ (by2 >> 16 & halves);
    return rotl32((uint32_t)by4, 20) ^ (uint32_t)(by4 >> 32);
}

// dekhash of a key of 16 bytes, both of its words folded at once.
static inline uint32_t dekhash16_inline(const void *key)
{
    typedef uint16_t v8u16 __attribute__((vector_size(16), may_alias));
    typedef uint32_t v4u32 __attribute__((vector_size(16), may_alias));
    v8u16 bytes;
    memcpy(&bytes, key, sizeof bytes);
    v4u32 by2 = (v4u32)((bytes << 5 & (uint16_t)0x1fe0) ^ bytes >> 8);
    v4u32 by4 = (by2 << 10 & 0x03fffc00u) ^ by2 >> 16;
    return rotl32(by4[0] ^ rotl32(16, 20), 28) ^ rotl32(by4[1], 8) ^ rotl32(by4[2], 20) ^ by4[3];
}

// The bytes of a key of 1 to 7, at the upper end of a word; zeros below them count for nothing.
static inline uint64_t load_short(const unsigned char *key_p, uint32_t len)
{
    uint32_t gap = 8 * (8 - len);
    if (len >= 4)
        return (uint64_t)load32(key_p) << gap | (uint64_t)load32(key_p + len - 4) << 32;
    uint64_t word = (uint64_t)key_p[0] << gap | (uint64_t)key_p[len - 1] << 56;
    return word | (uint64_t)key_p[len >> 1] << (gap + 8 * (len >> 1));
}

// dekhash: h = len, then h = rotl32(h, 5) ^ c for each byte. A rotation distributes over the
// exclusive or, so eight bytes are folded on their own and h is turned by 40 for them; the last
// one to eight come from the eight bytes that end the key, less those already taken.
static inline uint32_t dekhash_inline(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    if (len < 8)
        return len ? rotl32(len, 5 * len) ^ dek_fold8(load_short(key_p, len)) : 0;
    uint32_t h = len, left = len;
    for (; left > 8; left -= 8, key_p += 8)
        h = rotl32(h, 40) ^ dek_fold8(load64(key_p));
    uint32_t taken = 8 * (8 - left);
    return rotl32(h, 5 * left) ^ dek_fold8(load64(key_p + left - 8) >> taken << taken);
}
