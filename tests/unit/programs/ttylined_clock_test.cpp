#include "programs/ttylined/clock.h"

#include <ctime>

#include <gtest/gtest.h>

TEST(MonotonicMs, goes_on_with_the_time_that_passes)
{
    const timespec pause = {0, 20000000};
    const int64_t before = monotonic_ms();
    nanosleep(&pause, nullptr);
    EXPECT_GE(monotonic_ms() - before, 19);
}

TEST(MonotonicMs, is_the_clock_that_nobody_sets)
{
    timespec now = {};
    const int64_t before = monotonic_ms();
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t here = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    EXPECT_LE(before, here);
    EXPECT_LE(here, monotonic_ms());
}
