// The demo's data: the package records of this machine, as the package tools print them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct Package {
    std::string name;  // the key
    std::string value; // what value_of made of the rest
};

struct Packages {
    std::string source; // in words: "apt-cache dumpavail"
    std::vector<Package> list;
    uint64_t bytes = 0; // of all keys and values
};

// Stanzas of "Field: text" lines, from file; or from "apt-cache dumpavail", and where that has
// none, from dpkg's status file. The first record of a name counts. Empty when there is nothing.
Packages read_packages(const std::string &file);

// A value is text, a line each: name, version, architecture, section, description, and a
// checksum of all that in 16 hex digits. So an answer can be checked by itself.
bool value_is_whole(std::string_view value, std::string_view name);
