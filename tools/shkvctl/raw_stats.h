// What a store's bytes say about it: tables and their chains, record space, what is under way.
#pragma once

#include <array>
#include <optional>

#include "shkvctl/raw_store.h"

struct ChainStats {
    static constexpr std::array<const char *, 9> names = {"0",   "1",    "2",     "3",          "4",
                                                          "5-8", "9-16", "17-32", "33 and more"};
    std::array<uint64_t, 9> buckets = {}; // how many have chains of this length
    uint64_t records = 0, tombstones = 0, longest = 0, broken = 0;
};

struct SpaceStats {
    uint32_t unit_sz = 0;
    uint64_t units = 0;   // whole units of the space
    uint64_t used = 0;    // in records, or handed out and not linked
    uint64_t free = 0;    // on the free list, its sentinel included
    uint64_t held = 0;    // waiting for readers, the sentinel of that list included
    uint64_t fresh = 0;   // never used
    uint64_t reserve = 0; // units behind the mark that only held ones may make up for
    bool sane = false;    // both magic words in place and all counts within the space
};

// The chains of one table. A store in use moves while it is read: when a walk meets a broken
// chain it is made again, a few times.
ChainStats chain_stats(RawStore &store, int md, Link link, int ud);
inline Link link_of(int md)
{
    return md == OBJ_MD1 ? LINK_MD1 : LINK_MD2;
}

SpaceStats space_stats(const RawStore &store, int ud);

// The open transaction, if there is one: live records and deletes that are staged.
struct TxnStats {
    uint64_t adds = 0, deletes = 0;
    bool committing = false;
};
std::optional<TxnStats> txn_stats(RawStore &store);

// A table rebuild. moved is known only while one is under way: a pending one has not begun.
struct RebuildStats {
    int target = 0;
    bool waits_for_txn = false;
    std::optional<uint64_t> moved;
    uint64_t records = 0;
};
std::optional<RebuildStats> rebuild_stats(RawStore &store, const ChainStats &active);

struct ReshapeStats {
    uint32_t token = 0;     // uuid of the service that holds the token, or 0
    bool published = false; // old and new objects are both in place
    bool draining = false;
    uint64_t left = 0, moved = 0; // records in the old and the new table
    uint64_t interim = 0;         // changes on the interim list
    double age = 0;               // seconds since the new objects were made; 0: not known
};
std::optional<ReshapeStats> reshape_stats(RawStore &store);

struct TraceStats {
    bool valid = false;
    uint32_t events = 0, room = 0;
    bool wrapped = false; // older events have been overwritten
    uint32_t last_event = 0, last_arg = 0;
};
TraceStats trace_stats(const RawStore &store);
