// Messages between keeper and daemon, while calls are interrupted.
#include "kit/bell.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

class KitBell : public support::nothing_left
{
  protected:
    void SetUp() override
    {
        nothing_left::SetUp();
        ASSERT_TRUE(kit_pair_open(ends));
    }

    void TearDown() override
    {
        close(ends[0]);
        close(ends[1]);
        nothing_left::TearDown();
    }

    int ends[2] = {-1, -1};
    bell_message message = {};
    uint8_t kind = 0;
    char data[16] = "";
};

TEST_F(KitBell, message_that_does_not_fit_ends_where_its_room_does)
{
    ASSERT_TRUE(
        kit_bell_say(ends[0], BELL_END, 7, std::string(1000, 'x').c_str()));
    EXPECT_EQ(kit_bell_hear(ends[1], &message), 1);
    EXPECT_EQ(message.number, 7);
    EXPECT_EQ(message.text, std::string(BELL_TEXT_SIZE - 1, 'x'));
    EXPECT_EQ(kit_bell_hear(ends[1], &message), 0);
}

// What is no whole message comes from nobody who is meant.
TEST_F(KitBell, piece_of_a_message_is_the_end)
{
    ASSERT_EQ(send(ends[0], "short", 5, 0), 5);
    EXPECT_EQ(kit_bell_hear(ends[1], &message), -1);
}

TEST_F(KitBell, interrupted_calls_are_done_again)
{
    fault_row("kit_bell_hear", "recv", "EINTR", "1, the message", "", "");
    fault_row("kit_channel_take", "recvmsg", "EINTR", "the message", "", "");
    fault_row("kit_channel_put", "sendmsg", "EINTR", "true", "", "");
    for (const char *call : {"recv", "recvmsg", "sendmsg"}) {
        fault::fail(call, 1, EINTR, 3);
    }
    ASSERT_TRUE(kit_bell_say(ends[0], BELL_END, 7, "why"));
    EXPECT_EQ(kit_bell_hear(ends[1], &message), 1);
    EXPECT_STREQ(message.text, "why");
    ASSERT_TRUE(kit_channel_put(ends[0], CHANNEL_DATA, "abc", 3, true));
    EXPECT_EQ(kit_channel_take(ends[1], &kind, data, sizeof data), 3);
    EXPECT_EQ(kind, CHANNEL_DATA);
    EXPECT_EQ(std::string(data, 3), "abc");
}

TEST_F(KitBell, failure_to_hear_is_the_end)
{
    fault_row("kit_bell_hear", "recv", "ECONNRESET", "-1", "", "");
    fault_row("kit_channel_take", "recvmsg", "ECONNRESET", "-2", "", "");
    fault::fail("recv", 1, ECONNRESET);
    EXPECT_EQ(kit_bell_hear(ends[1], &message), -1);
    fault::fail("recvmsg", 1, ECONNRESET);
    EXPECT_EQ(kit_channel_take(ends[1], &kind, data, sizeof data), -2);
    EXPECT_EQ(kit_channel_take(ends[1], &kind, data, sizeof data), -1);
}

TEST_F(KitBell, message_that_is_not_taken_is_reported)
{
    fault_row("kit_bell_say", "send", "EAGAIN", "false", "", "");
    fault_row("kit_bell_say", "send", "short", "false", "", "");
    fault_row("kit_channel_put", "sendmsg", "EPIPE", "false", "", "");
    fault::fail("send", 1, EAGAIN);
    EXPECT_FALSE(kit_bell_say(ends[0], BELL_END, 0, ""));
    fault::reset();
    fault::shorten("send", 1, 4);
    EXPECT_FALSE(kit_bell_say(ends[0], BELL_END, 0, ""));
    fault::fail("sendmsg", 1, EPIPE);
    EXPECT_FALSE(kit_channel_put(ends[0], CHANNEL_DATA, "abc", 3, false));
    EXPECT_EQ(errno, EPIPE);
}
