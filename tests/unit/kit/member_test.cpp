// A session's function and the daemon, which the test plays.
#include "kit/member.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <ttyline/kit.h>
#include <ttyline/tty.h>

#include "kit/bell.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

class KitMember : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        make_directories();
        ASSERT_TRUE(kit_pair_open(ends));
        kit_member_open(ends[1]);
        session.line = 258;
    }

    void TearDown() override
    {
        close(ends[0]);
        close(ends[1]);
        runtime_test::TearDown();
    }

    // What the daemon has got: its kind, then the rest.
    std::string told()
    {
        uint8_t kind = 0;
        char data[CHANNEL_MOST];
        const ssize_t got = kit_channel_take(ends[0], &kind, data, sizeof data);
        return got < 0 ? ""
                       : static_cast<char>(kind) +
                             std::string(data, static_cast<size_t>(got));
    }

    std::string stored(const char *key) const
    {
        char value[256];
        const char *found = tty_getenv(258, key, value, sizeof value);
        return found != nullptr ? found : "(none)";
    }

    int ends[2] = {-1, -1};
    kit_session session = {};
};

TEST_F(KitMember, message_goes_to_the_daemon_and_comes_from_it)
{
    EXPECT_EQ(kit_send(&session, "hello", 5), 0);
    EXPECT_EQ(told(), "dhello");
    EXPECT_EQ(kit_descriptor(&session), ends[1]);
    std::thread daemon([this] {
        usleep(50000);
        kit_channel_put(ends[0], CHANNEL_DATA, "answer", 6, true);
    });
    char text[4];
    // It waits, and what does not fit is cut.
    EXPECT_EQ(kit_receive(&session, text, sizeof text), 4);
    EXPECT_EQ(std::string(text, 4), "answ");
    daemon.join();
}

TEST_F(KitMember, interrupted_wait_for_a_message_goes_on)
{
    fault_row("kit_receive", "poll", "EINTR", "the message", "", "");
    fault_row("kit_receive", "recvmsg", "EINTR", "the message", "", "");
    fault::fail("recvmsg", 1, EAGAIN);
    fault::fail("recvmsg", 2, EINTR);
    fault::fail("poll", 1, EINTR);
    ASSERT_TRUE(kit_channel_put(ends[0], CHANNEL_DATA, "m", 1, true));
    char text[4];
    EXPECT_EQ(kit_receive(&session, text, sizeof text), 1);
}

TEST_F(KitMember, end_of_the_session_is_no_failure)
{
    fault_row("kit_receive", "recvmsg", "ECONNRESET", "0", "", "");
    fault_row("kit_receive", "recvmsg", "EBADF", "-1", "", "");
    char text[4];
    fault::fail("recvmsg", 1, ECONNRESET);
    EXPECT_EQ(kit_receive(&session, text, sizeof text), 0);
    shutdown(ends[0], SHUT_WR);
    EXPECT_EQ(kit_receive(&session, text, sizeof text), 0);
    // A process that is no session's has no channel.
    kit_member_open(-1);
    EXPECT_EQ(kit_receive(&session, text, sizeof text), -1);
    EXPECT_STREQ(kit_error(), "this is no session");
}

TEST_F(KitMember, daemon_that_cannot_be_told_is_said)
{
    fault_row("kit_send", "sendmsg", "EPIPE", "-1", "", "");
    fault_row("kit_login", "sendmsg", "EPIPE", "-1", "", "nothing on the line");
    fault::fail("sendmsg", 1, EPIPE, 2);
    EXPECT_EQ(kit_send(&session, "m", 1), -1);
    EXPECT_STREQ(kit_error(), "the daemon cannot be told: Broken pipe");
    EXPECT_EQ(kit_login(&session, "alice", 1), -1);
    EXPECT_STREQ(kit_error(), "the daemon cannot be told: Broken pipe");
    EXPECT_EQ(stored("LOGNAME"), "(none)");
    const std::string large(CHANNEL_MOST + 1, 'm');
    EXPECT_EQ(kit_send(&session, large.data(), large.size()), -1);
    EXPECT_STREQ(kit_error(), "a message has 1 to 4096 bytes");
}

TEST_F(KitMember, login_is_on_the_line_without_an_administration_daemon)
{
    fault_row("kit_login", "tty_login_info_audit", "result -1", "0", "",
              "the line knows of the login");
    EXPECT_EQ(kit_login(&session, "alice\nroot", 1), 0);
    EXPECT_EQ(told(), "yalice");
    EXPECT_EQ(stored("LOGNAME"), "alice");
    EXPECT_EQ(stored("LOGSUCC"), "1");
    EXPECT_EQ(kit_login(&session, "mallory", 0), 0);
    EXPECT_EQ(told(), "nmallory");
    EXPECT_EQ(stored("LOGSUCC"), "0");
}

TEST_F(KitMember, name_that_cannot_be_stored_is_said)
{
    fault_row("kit_login", "rename", "EIO", "-1", "",
              "the daemon knows the name, the line does not");
    fault_row("kit_login", "tty_setenv", "result -1", "-1", "",
              "the daemon knows the name, the line does not");
    fault::fail("rename", 1, EIO);
    EXPECT_EQ(kit_login(&session, "alice", 1), -1);
    EXPECT_STREQ(kit_error(), "the name cannot be stored on line 258");
    EXPECT_EQ(stored("LOGNAME"), "(none)");
}

static void (*disposition(int number))(int)
{
    struct sigaction now = {};
    sigaction(number, nullptr, &now);
    return now.sa_handler;
}

// The program that a function becomes next has neither, and the function's
// own connections are its own affair.
TEST_F(KitMember, administration_daemon_is_not_the_programs_to_speak_to)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string name = path("/mng/tty/.tty_rl");
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    auto *any = reinterpret_cast<sockaddr *>(&address);
    const int daemon = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(daemon, any, sizeof address), 0);
    ASSERT_EQ(listen(daemon, 1), 0);
    int own[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, own), 0);
    void (*const before)(int) = disposition(SIGPIPE);
    EXPECT_EQ(kit_login(&session, "alice", 1), 0);
    EXPECT_EQ(disposition(SIGPIPE), before);
    EXPECT_EQ(fcntl(own[0], F_GETFD), 0);
    int found = -1;
    for (int fd = 3; fd < 100; fd++) {
        sockaddr_un peer = {};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) ==
                0 &&
            name == peer.sun_path) {
            found = fd;
        }
    }
    ASSERT_GE(found, 0);
    EXPECT_EQ(fcntl(found, F_GETFD), FD_CLOEXEC);
    for (const int fd : {daemon, own[0], own[1], found}) {
        close(fd);
    }
}
