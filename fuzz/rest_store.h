// A store at rest: its bytes are kept, and put back before every input by plain copies, so that an
// input starts from the same store without making one.
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <string>
#include <vector>

#include "shkv.h"

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

// What of a mapping is put back. The supernode's mutexes are left alone: nothing holds them between
// two inputs, and they are not bytes that a store's state lives in.
struct saved_part {
    char *at;
    std::string bytes;
};

struct rest_store {
    std::vector<saved_part> parts;

    void save(void *at, size_t size) { parts.push_back({(char *)at, std::string((const char *)at, size)}); }
    void put_back() const
    {
        for (const saved_part &part : parts)
            __builtin_memcpy(part.at, part.bytes.data(), part.bytes.size());
    }
};

// The words of the supernode but for the mutexes in front and the descriptor of MD_TXN, whose
// mapping is not put back either.
void save_supernode(rest_store *rest_p, supernode *sn);

// A mount namespace of our own with an empty /dev/shm, standard output closed ("key not found" of
// every delete that misses). Ends the process when it cannot be had.
void enter_private_place();

[[noreturn]] void fuzz_failed(const char *file, int line, const std::string &why);
#define MUST(cond, why)                               \
    do {                                              \
        if (__builtin_expect(!(cond), 0))             \
            fuzz_failed(__FILE__, __LINE__, (why));   \
    } while (0)

// Faults that the checker finds in the bytes of a store, one a line; empty when all is right.
std::string image_faults(const char *dbname, bool strict);
