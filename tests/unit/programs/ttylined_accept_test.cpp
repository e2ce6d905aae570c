#include "programs/ttylined/accept.h"

#include <ctime>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "programs/ttylined/clock.h"
#include "tests/support/wait.h"

// A listener on the loopback with a client in its queue.
class Accept : public testing::Test
{
  protected:
    void SetUp() override
    {
        sockaddr_in address = {};
        socklen_t length = sizeof address;

        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        client = socket(AF_INET, SOCK_STREAM, 0);
        auto *name = reinterpret_cast<sockaddr *>(&address);
        ASSERT_EQ(bind(listener, name, sizeof address), 0);
        ASSERT_EQ(listen(listener, 4), 0);
        ASSERT_EQ(getsockname(listener, name, &length), 0);
        ASSERT_EQ(connect(client, name, sizeof address), 0);
    }

    void TearDown() override
    {
        close(client);
        close(listener);
    }

    static void leave_no_descriptor(bool none)
    {
        rlimit limit = {};

        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = none ? 3 : limit.rlim_max;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }

    int listener = -1;
    int client = -1;
};

// In a child: a hard limit is lowered for good.
static int raised(rlim_t soft, rlim_t hard)
{
    return support::in_child([=] {
        rlimit limit = {soft, hard};

        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            return false;
        }
        accept_make_room();
        return getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
               limit.rlim_cur == hard && limit.rlim_max == hard;
    });
}

TEST(DescriptorLimit, is_raised_to_the_hard_one)
{
    EXPECT_EQ(raised(64, 300), 0);
    EXPECT_EQ(raised(300, 300), 0);
}

TEST_F(Accept, no_connection_is_no_reason_to_pause)
{
    const int fd = accept_or_pause(listener);
    EXPECT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(accept_or_pause(listener), -1);
    EXPECT_EQ(accept_paused_until(), 0);
}

TEST_F(Accept, without_a_descriptor_it_pauses_for_a_while)
{
    leave_no_descriptor(true);
    EXPECT_EQ(accept_or_pause(listener), -1);
    leave_no_descriptor(false);
    const int64_t until = accept_paused_until();
    EXPECT_GT(until, monotonic_ms() - 1);
    EXPECT_LE(until, monotonic_ms() + 200);
    while (monotonic_ms() < until) {
        const timespec pause = {0, 10000000};
        nanosleep(&pause, nullptr);
    }
    EXPECT_EQ(accept_paused_until(), 0);
}

TEST_F(Accept, a_descriptor_that_comes_free_ends_the_pause)
{
    leave_no_descriptor(true);
    EXPECT_EQ(accept_or_pause(listener), -1);
    leave_no_descriptor(false);
    accept_resume();
    EXPECT_EQ(accept_paused_until(), 0);
    const int fd = accept_or_pause(listener);
    EXPECT_GE(fd, 0);
    close(fd);
}
