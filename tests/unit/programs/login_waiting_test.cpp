#include "programs/login/waiting.h"

#include <gtest/gtest.h>

constexpr waiting_limits LIMITS = {4, 32};

TEST(LoginWaiting, peer_has_as_many_as_its_limit)
{
    EXPECT_TRUE(waiting_permits(LIMITS, 3, 3, 0));
    EXPECT_FALSE(waiting_permits(LIMITS, 4, 4, 0));
}

TEST(LoginWaiting, nobody_is_refused_by_chance_below_half_of_the_total)
{
    for (unsigned waiting = 0; waiting <= 16; waiting++) {
        for (uint32_t chance = 0; chance < 16; chance++) {
            EXPECT_TRUE(waiting_permits(LIMITS, 0, waiting, chance));
        }
    }
}

TEST(LoginWaiting,
     above_half_one_more_of_sixteen_is_refused_for_each_that_waits)
{
    for (unsigned waiting = 16; waiting < 32; waiting++) {
        unsigned refused = 0;
        for (uint32_t chance = 160; chance < 176; chance++) {
            refused += waiting_permits(LIMITS, 0, waiting, chance) ? 0u : 1u;
        }
        EXPECT_EQ(refused, waiting - 16);
    }
}

TEST(LoginWaiting, nobody_comes_in_above_the_total)
{
    for (uint32_t chance = 0; chance < 32; chance++) {
        EXPECT_FALSE(waiting_permits(LIMITS, 0, 32, chance));
    }
    EXPECT_FALSE(waiting_permits(LIMITS, 0, 33, UINT32_MAX));
}
