// What does not fit together in shared memory: the registry against the objects, both ways, and
// what processes left that died in the middle of a create, a destroy or a batch.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "shkvctl/users.h"

struct Leftover {
    enum Kind {
        GONE,      // listed, and not there
        HALF_MADE, // its creator died in the middle
        CUT_SHORT, // marked destroyed, and still there
        HEADLESS,  // tables and spaces without a supernode
        UNLISTED,  // whole, and not in the registry
        STALE_LOG, // an undo log that its store does not know of
    } kind;
    std::string name; // of the store, as the library names its objects
    std::string uri;  // as listed, or the name
    std::string kept; // why nothing may be done about it now; "" when something may
};

const char *leftover_name(Leftover::Kind kind);  // "half made"
const char *leftover_words(Leftover::Kind kind); // what happened, a clause
const char *leftover_todo(Leftover::Kind kind);  // what gc does about it: "remove its objects"

// All of this machine, or those of one store.
std::vector<Leftover> leftovers(const Users &users);
std::optional<Leftover> leftover_of(const std::string &name, const Users &users);
