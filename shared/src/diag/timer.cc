// Cycle-counter differences as time. The clock rate is read once at load and taken to be constant;
// without it every wait of the library counts as over.
#include "diag/timer.h"

#include <string.h>

static uint32_t cpu_hz; // cycles per millisecond; 0 until init_cpu_hz has succeeded

static bool find_mhz_line(FILE *file_p, char *line, int line_sz)
{
    while (fgets(line, line_sz, file_p))
        if (strncmp(line, "cpu MHz", 7) == 0)
            return true;
    return false;
}

int init_cpu_hz(void)
{
    FILE *file_p = fopen("/proc/cpuinfo", "r");
    if (!file_p)
        return 0;
    char line[256];
    const char *colon_p = find_mhz_line(file_p, line, sizeof line) ? strchr(line, ':') : nullptr;
    if (colon_p) {
        float mhz = 0; // what a line without a number leaves: no clock
        sscanf(colon_p + 1, "%f", &mhz);
        cpu_hz = (uint32_t)(1000.0f * mhz);
    }
    fclose(file_p);
    return colon_p != nullptr;
}

// now below then gives an enormous result: the allocators' waits count as over when their 32-bit
// stamps wrap. Intended.
uint64_t timer_diff_cycle_in_msec(uint64_t now, uint64_t then)
{
    return cpu_hz ? (now - then) / cpu_hz : ~0ull;
}

uint64_t timer_diff_cycle_in_usec(uint64_t now, uint64_t then)
{
    return cpu_hz ? (now - then) * 1000 / cpu_hz : ~0ull;
}

bool timer_reached_msec(uint64_t now, uint64_t then, uint32_t msec)
{
    return now - then >= (uint64_t)msec * cpu_hz;
}
