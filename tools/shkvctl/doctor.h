// Findings about the machine and its stores, in plain words, each with what to do about it.
#pragma once

#include <string>
#include <vector>

#include "shkvctl/users.h"

struct Finding {
    enum Level { FINE, NOTE, WARNING, PROBLEM } level;
    std::string subject; // "machine", or a store's name
    std::string what;
    std::string todo; // "" when there is nothing to do
};

using Findings = std::vector<Finding>;

const char *level_name(Finding::Level level); // "warning"

void examine_machine(Findings &findings, const Users &users);
void examine_store(Findings &findings, const std::string &name, const Users &users);

// What stores may take of the shared memory: what they have, what their objects' lengths promise
// without having it yet, and what they may grow by.
struct Demand {
    uint64_t taken = 0, promised = 0, growth = 0;
};
Demand demand_of(const RawStore &raw);

// The clock rate that the library goes by over the measured one; 0 when it has none.
double clock_ratio();
