// The demo's processes: one writer at a time, and readers beside it. Each returns its exit code.
#pragma once

#include "demo/packages.h"
#include "demo/shared.h"

struct Demo {
    std::string uri;
    uint32_t uuid = 0;
    double seconds = 4; // that loading all records shall take; 0 as fast as it goes
    int readers = 2;
    Packages packages;
    Shared *shared = nullptr;
};

// Stores the records from the first one that is not in the store. One that takes over proves
// first that all acknowledged records are there.
int run_writer(const Demo &demo);
int run_reader(const Demo &demo, int number);
