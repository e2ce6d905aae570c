#include "kit/unrelayed.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kit/bell.h"
#include "kit/moments.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "vc/protocol.h"

constexpr int LINE = 258;

static int nothing(const kit_session *, void *)
{
    return 0;
}

class KitUnrelayed : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(kit_unrelayed_prepare());
        service.size = sizeof service;
        service.protocol = 4;
        service.function = nothing;
        entry = kit_entry_make(LINE);
        ASSERT_NE(entry, nullptr);
        entry->session.service = &service;
        ASSERT_TRUE(kit_pair_open(bell));
        ASSERT_TRUE(kit_pair_open(channel));
        entry->bell = bell[0];
        entry->channel = channel[0];
        kit_table_put(entry);
    }

    void TearDown() override
    {
        kit_unrelayed_remove(entry);
        kit_table_take(entry);
        kit_entry_free(entry);
        for (const int fd : {bell[0], bell[1], channel[0], channel[1]}) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }

    static bool something_to_hear()
    {
        pollfd watched = {kit_unrelayed_descriptor(), POLLIN, 0};
        return poll(&watched, 1, 0) == 1;
    }

    kit_service service = {};
    kit_entry *entry = nullptr;
    int bell[2] = {-1, -1};
    int channel[2] = {-1, -1};
};

TEST(KitUnrelayedProtocols, are_those_of_the_session_service)
{
    for (uint32_t protocol = 0; protocol <= VC_PROTOCOL_MAX; protocol++) {
        EXPECT_EQ(kit_unrelayed(protocol), !vc_protocol_of(protocol)->relayed)
            << protocol;
    }
}

TEST_F(KitUnrelayed, what_keeper_and_function_say_is_heard)
{
    ASSERT_TRUE(kit_unrelayed_add(entry));
    EXPECT_FALSE(something_to_hear());
    ASSERT_TRUE(kit_bell_say(bell[1], BELL_RUNS, 4711, ""));
    ASSERT_TRUE(kit_channel_put(channel[1], CHANNEL_LOGIN, "alice", 5, false));
    ASSERT_TRUE(something_to_hear());
    kit_unrelayed_hear();
    EXPECT_EQ(entry->session.keeper_pid, 4711);
    EXPECT_STREQ(entry->user, "alice");
    EXPECT_EQ(entry->session.logged_in, 1);
    EXPECT_FALSE(something_to_hear());
}

TEST_F(KitUnrelayed, an_end_is_heard_once)
{
    ASSERT_TRUE(kit_unrelayed_add(entry));
    close(bell[1]);
    close(channel[1]);
    bell[1] = channel[1] = -1;
    ASSERT_TRUE(something_to_hear());
    kit_unrelayed_hear();
    EXPECT_FALSE(something_to_hear());
}

TEST_F(KitUnrelayed, session_that_is_over_is_not_heard_any_more)
{
    ASSERT_TRUE(kit_unrelayed_add(entry));
    ASSERT_TRUE(kit_bell_say(bell[1], BELL_RUNS, 4711, ""));
    kit_unrelayed_remove(entry);
    EXPECT_FALSE(something_to_hear());
    kit_unrelayed_hear();
    EXPECT_EQ(entry->session.keeper_pid, 0);
}

TEST_F(KitUnrelayed, session_that_cannot_be_heard_is_none)
{
    close(channel[0]);
    channel[0] = -1;
    EXPECT_FALSE(kit_unrelayed_add(entry));
}

TEST_F(KitUnrelayed, service_cannot_have_callbacks_that_would_come_too_late)
{
    service.port = 2323;
    service.began = [](const kit_session *, void *) {};
    EXPECT_EQ(kit_offer(&service), -1);
    EXPECT_STREQ(kit_error(), "protocol 4 has no callbacks began and received");
    service.began = nullptr;
    service.received = [](const kit_session *, const void *, size_t, void *) {};
    EXPECT_EQ(kit_offer(&service), -1);
}

TEST_F(KitUnrelayed, session_for_which_there_is_no_room_is_none)
{
    fault_row("kit_unrelayed_add", "epoll_ctl", "ENOSPC", "false", "",
              "the session is refused");
    for (int nth = 1; nth <= 2; nth++) {
        fault::reset();
        fault::fail("epoll_ctl", nth, ENOSPC);
        EXPECT_FALSE(kit_unrelayed_add(entry)) << nth;
        kit_unrelayed_remove(entry);
    }
    fault::reset();
    EXPECT_TRUE(kit_unrelayed_add(entry));
}

TEST_F(KitUnrelayed, what_is_not_heard_now_is_heard_at_the_next_turn)
{
    fault_row("kit_unrelayed_hear", "epoll_wait", "EINTR", "nothing", "",
              "the sessions are heard at the next turn");
    fault::reset();
    ASSERT_TRUE(kit_unrelayed_add(entry));
    ASSERT_TRUE(kit_bell_say(bell[1], BELL_RUNS, 4711, ""));
    fault::fail("epoll_wait", 1, EINTR);
    kit_unrelayed_hear();
    EXPECT_EQ(entry->session.keeper_pid, 0);
    ASSERT_TRUE(something_to_hear());
    kit_unrelayed_hear();
    EXPECT_EQ(entry->session.keeper_pid, 4711);
}

// Its event was under way when it ended.
TEST_F(KitUnrelayed, session_that_has_left_the_table_is_not_heard)
{
    ASSERT_TRUE(kit_unrelayed_add(entry));
    kit_table_take(entry);
    ASSERT_TRUE(kit_bell_say(bell[1], BELL_RUNS, 4711, ""));
    kit_unrelayed_hear();
    EXPECT_EQ(entry->session.keeper_pid, 0);
    EXPECT_FALSE(something_to_hear());
    kit_table_put(entry);
}
