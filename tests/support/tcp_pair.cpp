#include "tests/support/tcp_pair.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace support
{

void tcp_pair(int ends[2], int client_buffer)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    auto *any = reinterpret_cast<sockaddr *>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);

    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, any, sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_EQ(getsockname(listener, any, &size), 0);
    ends[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client_buffer != 0) {
        setsockopt(ends[0], SOL_SOCKET, SO_RCVBUF, &client_buffer,
                   sizeof client_buffer);
    }
    ASSERT_EQ(connect(ends[0], any, sizeof address), 0);
    ends[1] = accept(listener, nullptr, nullptr);
    ASSERT_GE(ends[1], 0);
    close(listener);
}

} // namespace support
