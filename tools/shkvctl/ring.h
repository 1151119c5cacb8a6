// The event ring of a store, read as bytes: whatever lies there comes out as a list of events,
// oldest first, and no bytes can do the reader harm.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "shkvctl/raw_store.h"

struct RingEvent {
    uint32_t id = 0;
    uint32_t value = 0;
    std::optional<uint32_t> second;  // of a pair
    std::optional<std::string> text; // of a string event
    bool unknown = false;            // no class that there is: value is the record's first word
    bool torn = false;               // its second record is missing
    uint64_t tsc = 0;
    std::optional<double> time; // seconds since 1970; none when the stamp makes no sense

    bool same_as(const RingEvent &other) const
    {
        return id == other.id && value == other.value && tsc == other.tsc && second == other.second;
    }
};

struct Ring {
    std::string fault;    // why there is no ring to read, "" when there is
    uint32_t room = 0;    // records that it holds
    bool wrapped = false; // older events have been overwritten
    std::vector<RingEvent> events;
};

Ring read_ring(const RawStore &store);
