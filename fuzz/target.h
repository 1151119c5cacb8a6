// What the fuzz targets share: the bytes of an input, a place of their own, and the way to fail.
#pragma once
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

#include "check/store_check.h"
#include "shkv.h"
#include "support/main.h"

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

inline shkv_buf buf_of(const std::string &text)
{
    return {const_cast<char *>(text.data()), (uint32_t)text.size()};
}

// A mount namespace of our own with an empty /dev/shm, in which a damaged size that asks for gigabytes
// gets none; standard output closed ("key not found" of every delete that misses).
inline void enter_private_place()
{
    MUST(private_shm() && remount_shm("256m"), "cannot make a mount namespace with a /dev/shm of its own");
    MUST(freopen("/dev/null", "w", stdout), "cannot close standard output");
}

// Faults that the checker finds in the bytes of a store, one a line; empty when all is right.
inline std::string image_faults(const char *dbname, bool strict)
{
    store_image image;
    MUST(load_store(dbname, &image), "no such store");
    std::string text;
    for (const std::string &fault : check_image(image, strict).faults)
        text += fault + "\n";
    return text;
}
