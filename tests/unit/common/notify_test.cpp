#include "common/notify.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"

class NotifyTest : public support::runtime_test
{
  protected:
    // A manager's socket, and its name for those who write to it.
    int listen_on(const std::string &name)
    {
        struct sockaddr_un address = {};
        const int fd =
            socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const size_t length =
            offsetof(struct sockaddr_un, sun_path) + name.size();

        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@') {
            address.sun_path[0] = '\0';
        }
        EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&address),
                       static_cast<socklen_t>(length)),
                  0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        return fd;
    }

    static std::string heard(int fd)
    {
        char text[64];
        const ssize_t got = recv(fd, text, sizeof text, 0);

        return got > 0 ? std::string(text, static_cast<size_t>(got)) : "";
    }
};

TEST_F(NotifyTest, a_state_is_one_datagram)
{
    for (const std::string &name :
         {path("/manager"), std::string("@ttyline-notify-test")}) {
        const int fd = listen_on(name);
        tty_notify("READY=1");
        tty_notify("WATCHDOG=1");
        EXPECT_EQ(heard(fd), "READY=1");
        EXPECT_EQ(heard(fd), "WATCHDOG=1");
        close(fd);
    }
}

TEST_F(NotifyTest, without_a_descriptor_nothing_is_said)
{
    fault_row("tty_notify", "socket", "EMFILE", "nothing", "", "");
    const int fd = listen_on(path("/manager"));
    fault::fail("socket", 1, EMFILE);
    errno = 0;
    tty_notify("READY=1");
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(heard(fd), "");
    close(fd);
}

TEST_F(NotifyTest, without_a_socket_nothing_happens)
{
    const std::string too_long = "/" + std::string(200, 'x');

    errno = ENOTTY;
    unsetenv("NOTIFY_SOCKET");
    tty_notify("READY=1");
    for (const char *name : {"", "/", "relative", "/none", too_long.c_str()}) {
        setenv("NOTIFY_SOCKET", name, 1);
        tty_notify("READY=1");
    }
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(NotifyTest, the_interval_is_half_of_what_the_manager_says)
{
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
    EXPECT_EQ(tty_notify_interval_ms(), 0);
    setenv("WATCHDOG_USEC", "60000000", 1);
    EXPECT_EQ(tty_notify_interval_ms(), 30000);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    EXPECT_EQ(tty_notify_interval_ms(), 30000);
    setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(tty_notify_interval_ms(), getpid() == 1 ? 30000 : 0);
    setenv("WATCHDOG_USEC", "junk", 1);
    unsetenv("WATCHDOG_PID");
    EXPECT_EQ(tty_notify_interval_ms(), 0);
}
