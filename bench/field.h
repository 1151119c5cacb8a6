// The field: contestants with their stores, cases with their results, the records to work on.
#pragma once
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "peer.h"
#include "work.h"

struct options {
    bool quick = false, huge = false;
    int rounds = 0;
    std::string filter, out = "bench.json", peers;
    std::vector<uint32_t> sizes, val_sizes;
};
extern options opt;

// One measured round of one case.
struct sample {
    double seconds; // of all operations
    uint64_t ops;
    std::map<std::string, double> more;
};

// Whether the filters let this case through.
bool wanted(const std::string &op, uint32_t size, const peer &p);

// One round of one case, measured by run; time per operation goes to its results.
void run_case(const std::string &op, uint32_t size, const peer &p, const std::function<sample()> &run);

// All results, as medians of the rounds, in the order of their first run.
nlohmann::ordered_json results_json();

struct contestant {
    const peer *p;
    peer_cfg cfg;
    std::string dir;
    void *h;
    uint32_t turn; // the round: each goes on in the keys where the one before it ended
    bool remote() const
    {
        return p->traits & PEER_REMOTE;
    }
};

contestant contestant_of(const peer &p, const peer_cfg &cfg); // makes its folder
void open_store(contestant &c, peer_how how);
void close_store(contestant &c, bool drop);
void put(contestant &c, const char *key, uint32_t size); // a value that begins with the key's bytes
void fill(contestant &c, uint32_t from, uint32_t to);

struct workset {
    uint32_t n, extra; // records in the store; numbers n to n + extra are not in it
    std::vector<char> uniform, zipf, miss;
    std::vector<char> fresh, old; // records that come and go: extra new ones, as many of the store
};
workset workset_of(uint32_t n, uint32_t extra);

// The groups of cases.
void procs_group(uint32_t n);
void attach_group(uint32_t n);
void growth_group(uint32_t n);
void vector_group(uint32_t val_sz);
void table_group(uint32_t n);
