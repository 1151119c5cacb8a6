// The built-in hash functions. Their results are part of every store: a table holds a record where
// one of them says, so each must give the same value for all time. Several differ from what their
// names suggest (the multiplier of bkdr, the start and multiplier of fnv, the start of ap, 0 for an
// empty key from dek). Intended.
//
// Where the arithmetic allows it, bytes are taken several at a step with the identical result.
#include "shkv_hash/hash_fn.h"

shkv_hash_fn shkv_hash_matrix[11] = {rshash,  jshash,  pjwhash, elfhash, bkdrhash, sdbmhash,
                                     djbhash, dekhash, bphash,  fnvhash, aphash};

// No check of the index: it is the caller's.
shkv_hash_fn shkv_get_internal_hashfn(int32_t idx)
{
    return shkv_hash_matrix[idx];
}

uint32_t rshash(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    uint32_t h = 0, a = 63689;
    for (uint32_t i = 0; i < len; i++, a *= 378551)
        h = h * a + key_p[i];
    return h;
}

uint32_t jshash(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    uint32_t h = 1315423911;
    for (uint32_t i = 0; i < len; i++)
        h ^= (h << 5) + key_p[i] + (h >> 2);
    return h;
}

uint32_t pjwhash(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    uint32_t h = 0;
    for (uint32_t i = 0; i < len; i++) {
        h = (h << 4) + key_p[i];
        uint32_t t = h & 0xf0000000;
        if (t)
            h = (h ^ t >> 24) & 0x0fffffff;
    }
    return h;
}

uint32_t elfhash(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    uint32_t h = 0;
    for (uint32_t i = 0; i < len; i++) {
        h = (h << 4) + key_p[i];
        uint32_t t = h & 0xf0000000;
        h = (h ^ t >> 24) & ~t; // a t of 0 changes nothing
    }
    return h;
}

// h = h * m + c, four bytes a step: the powers of m are constants, so one multiplication of h
// waits for the one before it instead of four.
template <uint32_t m> static uint32_t poly_hash(const void *key, uint32_t len, uint32_t h)
{
    const unsigned char *key_p = (const unsigned char *)key;
    for (; len >= 4; len -= 4, key_p += 4)
        h = h * (m * m * m * m) + (key_p[0] * (m * m * m) + key_p[1] * (m * m) + key_p[2] * m + key_p[3]);
    for (; len; len--)
        h = h * m + *key_p++;
    return h;
}

uint32_t bkdrhash(const void *key, uint32_t len)
{
    return poly_hash<1313>(key, len, 0);
}

uint32_t sdbmhash(const void *key, uint32_t len)
{
    return poly_hash<65599>(key, len, 0);
}

uint32_t djbhash(const void *key, uint32_t len)
{
    return poly_hash<33>(key, len, 5381);
}

uint32_t dekhash(const void *key, uint32_t len)
{
    return dekhash_inline(key, len);
}

// h = (h << 7) ^ c: what lies more than five bytes back has left the word.
uint32_t bphash(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    uint32_t h = 0;
    for (uint32_t i = len > 5 ? len - 5 : 0; i < len; i++)
        h = h << 7 ^ key_p[i];
    return h;
}

uint32_t fnvhash(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    uint32_t h = 0;
    for (uint32_t i = 0; i < len; i++)
        h = h * 0x811c9dc5 ^ key_p[i];
    return h;
}

uint32_t aphash(const void *key, uint32_t len)
{
    const unsigned char *key_p = (const unsigned char *)key;
    uint32_t h = 0xaaaaaaaa;
    for (uint32_t i = 0; i < len; i++)
        h ^= i & 1 ? ~((h << 11) + (key_p[i] ^ h >> 5)) : h << 7 ^ key_p[i] * (h >> 3);
    return h;
}
