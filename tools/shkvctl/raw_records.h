// The records of a store from its bytes: nothing is opened, locked or stored, and no bytes lead
// the walk astray. A record counts when it lies whole in its space and its checksum is right; one
// that does not is left out and counted, and the walk goes on behind it.
//
// Beside a writer a chain moves while it is read. Records do not change while they are linked, so
// a bucket was read of one piece when, after the last record, every link still leads where it led;
// otherwise it is read again.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "shkv.h"
#include "shkvctl/raw_store.h"

struct RawTable {
    int md, ud;
    Link link;
    uint32_t buckets; // that lie in the object: hashsz of them, unless it was cut short
    uint32_t hashsz;
    shkv_hash_fn hash; // null: the program's own, and nobody else's to call
};

struct BucketRead {
    struct Rec {
        uint32_t off;
        std::string key, value;
    };
    std::vector<Rec> records;
    uint64_t damaged = 0; // records left out
    bool cut = false;     // the chain ends in a link that leads to no record
    std::string fault;    // the first of these in words
};

// What is wrong with a store as a whole, or nothing: an object that is missing or too short, a
// state that no store is in. Says nothing about the records themselves. The worst comes first.
struct Obstacle {
    std::string words; // "has lost its object MD1 (/dev/shm/...)"
    int err;
    bool readable = false; // a walk can still meet records
};
std::optional<Obstacle> obstacle(const RawStore &store);

std::vector<RawTable> tables_in_force(const RawStore &store); // in a reshape the old, then the new
BucketRead read_bucket(const RawStore &store, const RawTable &table, uint32_t bucket);

enum class Found { YES, NO, DAMAGED };
struct RawLookup {
    Found found = Found::NO;
    std::string value;
    std::string fault;
};
RawLookup raw_lookup(RawStore &store, const std::string &key); // looks again at what may be a change

// All records. visit returns false to stop. A table that flips under the walk is followed: each
// key is visited once (in a store with a hash of its program's own perhaps twice). position is
// told how far it is, in buckets of how many.
struct WalkAll {
    std::function<bool(const std::string &key, const std::string &value)> visit;
    std::function<void(uint64_t bucket, uint64_t buckets)> position = [](uint64_t, uint64_t) {};
};
struct WalkSum {
    uint64_t records = 0;
    uint64_t damaged = 0;    // records that were left out
    uint64_t cut_chains = 0; // chains that end in a link that leads nowhere
    bool stopped = false;    // by visit
    bool unchanged = false;  // nobody changed the store from the beginning to the end
    std::string fault;       // the first damage in words
};
WalkSum walk_records(RawStore &store, const WalkAll &walk);
