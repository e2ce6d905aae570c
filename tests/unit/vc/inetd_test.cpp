#include "vc/inetd.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/vc_fixture.h"

class InetdTest : public VcTest
{
  protected:
    void TearDown() override
    {
        if (listener_ >= 0) {
            close(listener_);
        }
        VcTest::TearDown();
    }

    void listen_as_inetd()
    {
        sockaddr_un address = {};
        ASSERT_EQ(mkdir(path("/mng/tty/inetd").c_str(), 0777), 0);
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path("/mng/tty/inetd/.qv_inetd").c_str());
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address),
                       sizeof address),
                  0);
        ASSERT_EQ(listen(listener_, 5), 0);
    }

    // The call fails with the error, which is left in errno.
    void expect_failure(int error, const std::string &message)
    {
        errno = 0;
        EXPECT_EQ(vc_connect(), -1);
        EXPECT_EQ(errno, error);
        fault::reset();
        EXPECT_EQ(messages(), (std::vector<std::string>{message}));
    }

    int listener_ = -1;
};

TEST_F(InetdTest, the_connection_is_blocking_and_closed_on_exec)
{
    listen_as_inetd();
    const int fd = vc_connect();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_TRUE(messages().empty());
    close(fd);
}

TEST_F(InetdTest, the_length_of_the_address_is_not_that_of_the_path)
{
    listen_as_inetd();
    const int calls = fault::watch("connect", fault::only_what(110));
    const int fd = vc_connect();
    EXPECT_EQ(fault::seen(calls), 1);
    close(fd);
}

TEST_F(InetdTest, the_send_buffer_is_4096_bytes)
{
    listen_as_inetd();
    const int fd = vc_connect();
    int size = 0;
    socklen_t length = sizeof size;
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length);
    // The kernel doubles what it is told, and has a least size.
    EXPECT_EQ(size, 8192);
    close(fd);
}

TEST_F(InetdTest, an_absent_inetd_is_reported)
{
    fault_row("vc_connect", "connect", "ENOENT", "-1 and the errno",
              "vc: sock fail, err %s\n", "the socket closed");
    expect_failure(ENOENT, std::string("vc: sock fail, err ") +
                               strerror(ENOENT) + "\n");
}

TEST_F(InetdTest, an_inetd_that_does_not_listen_is_reported)
{
    fault_row("vc_connect", "connect", "ECONNREFUSED", "-1 and the errno",
              "vc: sock fail, err %s\n", "the socket closed");
    listen_as_inetd();
    close(listener_);
    listener_ = -1;
    expect_failure(ECONNREFUSED, std::string("vc: sock fail, err ") +
                                     strerror(ECONNREFUSED) + "\n");
}

TEST_F(InetdTest, a_socket_that_cannot_be_made_is_reported)
{
    fault_row("vc_connect", "socket", "EMFILE", "-1 and the errno",
              "vc: sock create fail, err %s\n", "");
    fault::fail("socket", 1, EMFILE);
    expect_failure(EMFILE, std::string("vc: sock create fail, err ") +
                               strerror(EMFILE) + "\n");
}

TEST_F(InetdTest, a_buffer_that_cannot_be_set_is_reported)
{
    fault_row("vc_connect", "setsockopt", "ENOBUFS", "-1 and the errno",
              "vc:set sndbuf %d error: %s.\n", "the socket closed");
    fault::fail("setsockopt", 1, ENOBUFS);
    expect_failure(ENOBUFS, std::string("vc:set sndbuf 4096 error: ") +
                                strerror(ENOBUFS) + ".\n");
}

TEST_F(InetdTest, an_interrupted_connection_is_a_failure)
{
    fault_row("vc_connect", "connect", "EINTR, EAGAIN", "-1 and the errno",
              "vc: sock fail, err %s\n", "the socket closed");
    listen_as_inetd();
    for (const int error : {EINTR, EAGAIN}) {
        fault::fail("connect", 1, error);
        expect_failure(error, std::string("vc: sock fail, err ") +
                                  strerror(error) + "\n");
    }
}

TEST_F(InetdTest, settings_of_the_connection_that_fail_are_ignored)
{
    fault_row("vc_connect", "fcntl", "EIO", "the connection", "", "");
    fault_row("vc_connect", "ioctl", "EIO", "the connection", "", "");
    listen_as_inetd();
    fault::fail("fcntl", 1, EIO, 1, fault::only_what(F_SETFD));
    fault::fail("ioctl", 1, EIO);
    const int fd = vc_connect();
    EXPECT_GE(fd, 0);
    // It was asked for when the socket was made, too.
    fault::reset();
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(messages().empty());
    close(fd);
}

TEST_F(InetdTest, a_path_that_does_not_fit_is_reported)
{
    setenv("TMPDIR", std::string(120, 'd').c_str(), 1);
    expect_failure(ENAMETOOLONG,
                   "vc:vc_connect make path /mng/tty/inetd/.qv_inetd fail\r\n");
    setenv("TMPDIR", runtime_dir.c_str(), 1);
}

TEST_F(InetdTest, the_address_has_110_bytes_and_108_of_path)
{
    // 108 bytes fill the field; the terminator is not needed.
    const std::string name = "/mng/tty/inetd/.qv_inetd";
    std::string root = path("/");
    root += std::string(108 - root.size() - name.size(), 'd');
    mkdir(root.c_str(), 0777);
    for (const char *part : {"/mng", "/mng/tty", "/mng/tty/inetd"}) {
        mkdir((root + part).c_str(), 0777);
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, (root + name).data(), 108);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), 110), 0);
    ASSERT_EQ(listen(listener_, 5), 0);
    setenv("TMPDIR", root.c_str(), 1);
    const int fd = vc_connect();
    EXPECT_GE(fd, 0);
    close(fd);
    setenv("TMPDIR", runtime_dir.c_str(), 1);
}
