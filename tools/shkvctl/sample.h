// The state of all stores at one moment, in numbers: what top shows, and what goes to programs.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "shkvctl/raw_store.h"
#include "shkvctl/json.h"

struct StoreSample {
    std::string name, state;
    uint32_t uuid = 0;
    bool complete = false, listed = false, grows = false, vector = false;
    uint64_t entries = 0, buckets = 0, longest_chain = 0;
    uint64_t units = 0, used = 0, free = 0, held = 0; // of the record space in force
    uint64_t space_bytes = 0, taken_bytes = 0;        // length of that space; memory behind all objects
    uint32_t table_version = 0, space_version = 0;    // raised by each rebuild and each growth
    bool rebuild = false, reshape = false, transaction = false;
    uint32_t writer = 0; // thread id
    bool writer_lives = false;
    uint64_t events = 0; // in the ring
    uint32_t last_event = 0;
};

struct Sample {
    double time = 0;
    uint64_t shm_bytes = 0, shm_free = 0;
    std::vector<StoreSample> stores;
};

// Takes samples one after the other. Counting entries is a walk of the table: a table that took
// long is walked again only when some seconds have passed.
class Sampler
{
  public:
    Sample take();

  private:
    struct Count {
        uint64_t entries = 0, longest = 0;
        double cost = 0, when = 0;
    };
    StoreSample look_at(const std::string &name, bool listed);
    void count(StoreSample &sample, RawStore &raw);

    std::map<std::string, Count> counts_;
};

Json json_sample(const Sample &sample);
std::string prometheus_text(const Sample &sample);
