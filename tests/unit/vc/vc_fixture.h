// Tests of the session service's parts inside the test's own process: a
// private runtime directory, the dump log as it grows, and a socket pair in
// place of the inetd connection. Each test runs in a process of its own, as
// the service's state is one per process.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ttyline/vc.h>

#include "tests/support/runtime.h"
#include "vc/service.h"

inline std::string number(int value)
{
    return std::to_string(value);
}

inline bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

inline int int_option(int fd, int level, int option)
{
    int value = -1;
    socklen_t length = sizeof value;

    EXPECT_EQ(getsockopt(fd, level, option, &value, &length), 0);
    return value;
}

class VcTest : public support::runtime_test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // The texts that this process, and not a session's child, has logged
    // since the last call, without time stamp and process id, whose form is
    // checked on the way.
    std::vector<std::string> messages();
    // Whether one of the texts logged since the last call is this.
    bool logged(const std::string &text);
    // Records that the service has sent, up to now.
    std::vector<tty_cmsg> sent() const;
    bool give(const tty_cmsg &record) const;

    // Registers a service that is in order.
    static void add(const vc_reg &reg);
    // The service of this place in the list, or null.
    static vc_srv *service(int index);

    // The service's end of the inetd connection, and the inetd's.
    int inetd_fd_ = -1;
    int far_end_ = -1;
    size_t log_read_ = 0;
};

// A registration with callbacks that do nothing but count, see Calls.
vc_reg plain(int family, int port, const char *unix_path, uint32_t protocol);

// What the callbacks of plain() saw and what they return.
struct Calls {
    int init = 0;
    int read = 0;
    int write = 0;
    int kill = 0;
    int alloc = 0;
    int init_result = 0;
    int read_result = 0;
    int write_result = 0;
    int alloc_result = 0;
    int ttyno = -1;
    int alloc_inetd_fd = -1;
    int alloc_sockfd = -1;
    int alloc_master_fd = -1;
    std::string order;
};
extern Calls g_calls;

// A socket in place of a listener, and the means to see whether it was shut
// down before it was closed.
class Listener
{
  public:
    Listener();
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    // Belongs to who closes it.
    int fd;
    bool shut_down() const;
    bool closed() const;

  private:
    int copy_;
    int peer_;
};

// A port of the family that nobody listens on now.
int unused_port(int family);
