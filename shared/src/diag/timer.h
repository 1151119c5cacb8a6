// The cycle counter and its conversion to time (init_cpu_hz and the differences are in shkv.h).
#pragma once
#include <x86intrin.h>
#include "shkv.h"

static inline uint64_t cycles()
{
    return __rdtsc();
}
