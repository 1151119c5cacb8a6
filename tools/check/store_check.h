// Verifies every invariant of a store from a copy of its bytes, without the library's operations.
#pragma once
#include <string>
#include <vector>

#include "check/store_image.h"

struct check_report {
    std::vector<std::string> faults; // what must never be
    std::vector<std::string> notes;  // what a crash or a running change may leave
    uint64_t records = 0;            // in the table in force (of a reshape: in both tables)
    uint64_t staged = 0;             // in an open transaction
    uint64_t interim = 0;            // on the interim list of a reshape
    uint64_t units_used = 0, units_free = 0, units_held = 0, units_lost = 0, units_fresh = 0;
    std::vector<uint32_t> chain_lengths; // buckets by length of their chain, the last for all longer ones
    std::vector<uint8_t> unit_state;     // one UNIT_* a unit of the space in force
};

enum { UNIT_FRESH, UNIT_USED, UNIT_FREE, UNIT_HELD, UNIT_STAGED, UNIT_INTERIM, UNIT_LOST };

// Never fails on any bytes. strict: nothing has died and no one writes, so lost units and
// miscounted lists are faults as well. One damaged list can break thousands of rules: it stops
// noting them at max_faults.
check_report check_image(const store_image &image, bool strict, size_t max_faults = 50);

// The same on a store that processes use. A copy taken beside a writer is not of one moment, so
// what it shows may be a change caught in the middle; damage stays. So only faults count that
// stand in every one of up to tries copies. False when there is no such store.
bool check_live(const std::string &dbname, int tries, bool strict, check_report *report_p);

// The registry against the objects, both ways: records without a store, stores without a record.
std::vector<std::string> check_registry();
