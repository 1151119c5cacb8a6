// The stores of this machine: what the registry lists, and what lies in shared memory unlisted.
#pragma once

#include <string>
#include <vector>

#include "shkv_format.h"

struct Listed {
    std::string uri;
    bool listed = true; // false: a supernode that the registry does not know
    reg_rec rec = {};
};

std::vector<Listed> registry_records(); // as listed; empty when there is no registry
std::vector<Listed> all_stores();       // these and the unlisted, by name, without the registry itself

// The state of a store in a word or two: "ok", "gone", "not complete", "transaction open", ...
class RawStore;
std::string state_words(const RawStore &store);
// Who writes: "4711 (packaged)", "dead 4711", "3 writers", "-".
std::string writer_words(const RawStore &store);
