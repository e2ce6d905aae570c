// The 156-byte record: its layout and the two ways it travels.
#include "vc/message.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>

#include "common/io.h"

static_assert(sizeof(tty_cmsg) == 156, "size of the record");
static_assert(offsetof(tty_cmsg, vc_flag) == 0, "vc_flag");
static_assert(offsetof(tty_cmsg, ttyno) == 4, "ttyno");
static_assert(offsetof(tty_cmsg, sockfd) == 8, "sockfd");
static_assert(offsetof(tty_cmsg, socktype) == 12, "socktype");
static_assert(offsetof(tty_cmsg, port) == 16, "port");
static_assert(offsetof(tty_cmsg, protocol) == 20, "protocol");
static_assert(offsetof(tty_cmsg, pid) == 24, "pid");
static_assert(offsetof(tty_cmsg, peer_port) == 28, "peer_port");
static_assert(offsetof(tty_cmsg, reserved0) == 32, "reserved0");
static_assert(offsetof(tty_cmsg, local_addr) == 36, "local_addr");
static_assert(offsetof(tty_cmsg, tipc_addrtype) == 44, "tipc_addrtype");
static_assert(offsetof(tty_cmsg, tipc_scope) == 48, "tipc_scope");
static_assert(offsetof(tty_cmsg, tipc_type) == 52, "tipc_type");
static_assert(offsetof(tty_cmsg, tipc_lower) == 56, "tipc_lower");
static_assert(offsetof(tty_cmsg, tipc_upper) == 60, "tipc_upper");
static_assert(offsetof(tty_cmsg, tos) == 64, "tos");
static_assert(offsetof(tty_cmsg, accept_id) == 68, "accept_id");
static_assert(offsetof(tty_cmsg, reserved2) == 72, "reserved2");
static_assert(offsetof(tty_cmsg, peer_addr) == 76, "peer_addr");
static_assert(offsetof(tty_cmsg, path) == 92, "path");

int vc_msg_send(int inetd_fd, const tty_cmsg *msg)
{
    // A record that was sent in part could not be completed later: the writer
    // waits until it is gone.
    vc_set_bk(inetd_fd, true);
    return tty_write(inetd_fd, msg, sizeof *msg);
}

int vc_msg_recv(int inetd_fd, tty_cmsg *msg)
{
    // The connection may have been readable for another reason, or be so no
    // more: the loop must not wait here.
    vc_set_bk(inetd_fd, false);
    memset(msg, 0, sizeof *msg);
    const ssize_t received = recv(inetd_fd, msg, sizeof *msg, 0);
    const int error = errno;
    // At once: the mode is everybody's, and a port update that meets a full
    // socket on another thread would try again without a pause.
    vc_set_bk(inetd_fd, true);
    errno = error;
    return static_cast<int>(received);
}

vc_msg_path vc_msg_path_of(const tty_cmsg *msg)
{
    vc_msg_path path = {};

    memcpy(path.text, msg->path, VC_PATH_SIZE);
    return path;
}

void vc_msg_set_path(tty_cmsg *msg, const char *path)
{
    memset(msg->path, 0, sizeof msg->path);
    memcpy(msg->path, path, strnlen(path, VC_PATH_SIZE - 1));
}
