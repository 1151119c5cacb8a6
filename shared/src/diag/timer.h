// The cycle counter and its conversion to time (init_cpu_hz and the differences are in shkv.h).
#pragma once
#include <x86intrin.h>
#include "shkv.h"

static inline uint64_t cycles()
{
    return __rdtsc();
}

// timer_diff_cycle_in_msec(now, then) >= msec, without a division.
bool timer_reached_msec(uint64_t now, uint64_t then, uint32_t msec);
