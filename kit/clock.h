// Times that only ever go forward, in milliseconds.
#pragma once

#include <stdint.h>
#include <time.h>

inline int64_t kit_now_ms(void)
{
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
