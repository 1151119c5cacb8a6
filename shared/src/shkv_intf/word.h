// Shared words: the one way in which this library loads and stores what other processes look at.
//
// Each helper is one plain mov on x86-64, no fence and no lock prefix; the order argument binds
// the compiler, so program order is store order. Load a shared word once into a local; check and
// use the local. Assign plainly only to what no other process looks at: a record before its
// publish, the allocator's list ends and counts.
#pragma once
#include <stdint.h>

static inline uint32_t get32(const uint32_t *word_p)
{
    return __atomic_load_n(word_p, __ATOMIC_ACQUIRE);
}

static inline void put32(uint32_t *word_p, uint32_t val)
{
    __atomic_store_n(word_p, val, __ATOMIC_RELEASE);
}

// The narrower fields of a published record: never changed in place (but for nd_flg), yet the
// node may be handed out anew under a reader, so it loads each once.
static inline uint16_t get16(const uint16_t *word_p)
{
    return __atomic_load_n(word_p, __ATOMIC_ACQUIRE);
}

static inline void put16(uint16_t *word_p, uint16_t val)
{
    __atomic_store_n(word_p, val, __ATOMIC_RELEASE);
}

static inline uint8_t get8(const uint8_t *byte_p)
{
    return __atomic_load_n(byte_p, __ATOMIC_ACQUIRE);
}

static inline void put8(uint8_t *byte_p, uint8_t val)
{
    __atomic_store_n(byte_p, val, __ATOMIC_RELEASE);
}

// A word of flags that several processes change, each its own bits: none of them is lost. Still one
// store for who looks; rare enough for its lock prefix.
static inline void change32(uint32_t *word_p, uint32_t clear, uint32_t set)
{
    uint32_t was = get32(word_p);
    while (!__atomic_compare_exchange_n(word_p, &was, (was & ~clear) | set, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
    }
}

// Sets bits unless one of these stands there already. Whether it did.
static inline bool set32_unless(uint32_t *word_p, uint32_t unless, uint32_t set)
{
    uint32_t was = get32(word_p);
    while (!(was & unless))
        if (__atomic_compare_exchange_n(word_p, &was, was | set, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            return true;
    return false;
}
