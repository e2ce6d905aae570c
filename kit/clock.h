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

// Of two times; 0 is none.
inline int64_t kit_earlier(int64_t one, int64_t other)
{
    if (one == 0 || other == 0) {
        return one + other;
    }
    return one < other ? one : other;
}
