// Counts every store that the library makes to shared memory, and ends the process at the Nth.
#pragma once
#include <cstdint>

constexpr int EXIT_KILLED = 86;

// From now on the process ends right before its store number at (1 is the next one); 0: only count.
void hooks_arm(uint64_t at);
// Stores since the last hooks_arm; counting stops.
uint64_t hooks_disarm();
