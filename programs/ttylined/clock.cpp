#include "programs/ttylined/clock.h"

#include <ctime>

int64_t monotonic_ms()
{
    timespec now = {};

    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}
