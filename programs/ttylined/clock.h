// The clock that deadlines are counted on.
#pragma once

#include <cstdint>

// Milliseconds since some moment in the past. Setting the time of day does
// not move it.
int64_t monotonic_ms();
