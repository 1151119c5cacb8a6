// What the fuzz targets share: the bytes of an input, a place of their own, and the way to fail.
#pragma once
#include <stdint.h>
#include <stdlib.h>

#include "support/plain.h"

// The bytes of an input, read from the front; zeros behind its end.
struct input {
    const uint8_t *at, *end;

    bool left() const { return at < end; }
    uint8_t byte() { return at < end ? *at++ : 0; }
    uint32_t word()
    {
        uint32_t low = byte(), mid = byte(), high = byte();
        return low | mid << 8 | high << 16 | (uint32_t)byte() << 24;
    }
};

#define MUST(cond, why)                                                                         \
    do {                                                                                        \
        if (__builtin_expect(!(cond), 0)) {                                                     \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, std::string(why).c_str());       \
            abort();                                                                            \
        }                                                                                       \
    } while (0)

// A mount namespace of our own with an empty /dev/shm, in which a damaged size that asks for gigabytes
// gets none; standard output closed ("key not found" of every delete that misses).
inline void enter_private_place()
{
    MUST(private_shm() && remount_shm("256m"), "no place");
    be_quiet();
}

// Faults that the checker finds in the bytes of a store, one a line; empty when all is right.
inline std::string image_faults(const char *dbname, bool strict)
{
    std::string faults = faults_of(dbname, strict);
    MUST(faults != NO_STORE, faults);
    return faults;
}
