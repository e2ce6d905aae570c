#include "programs/ttylined/watch.h"

#include <gtest/gtest.h>

TEST(Watch, leaves_out_what_has_nothing_to_wait_for)
{
    watch_list list;
    watch(list, -1, true, true);
    watch(list, 5, false, false);
    EXPECT_TRUE(list.empty());
    watch(list, 5, true, false);
    watch(list, 6, true, true);
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].events, POLLIN);
    EXPECT_EQ(list[1].events, POLLIN | POLLOUT);
}

TEST(Watch, joins_what_was_said_of_one_descriptor)
{
    const ready_events ready = watch_result(
        {{5, POLLIN, POLLIN}, {6, POLLIN, 0}, {5, POLLOUT, POLLOUT}});
    EXPECT_EQ(events_of(ready, 5), POLLIN | POLLOUT);
    EXPECT_EQ(events_of(ready, 6), 0);
    EXPECT_EQ(events_of(ready, 7), 0);
}
