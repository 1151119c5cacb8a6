// The names that people see for what is a number in a store.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

std::string hash_name(uint16_t hashfn);          // "dekhash"; of an md_desc's hashfn
uint64_t hash_selector(const std::string &name); // 1 to 11, what create, open and reshape take
std::vector<std::string> hash_names();
std::string hash_list(); // all of them, for a help text

struct BitName {
    uint32_t bit;
    const char *name;
    const char *words;
};
extern const std::vector<BitName> comm_bits, conf_bits, sn_bits;
std::vector<BitName> bits_set(uint32_t word, const std::vector<BitName> &table);

std::string uuid_words(uint32_t uuid); // "4242", "0 (no budget)", "567877 (the registry)"
