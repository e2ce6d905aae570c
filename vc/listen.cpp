// Listening sockets: the request, and after the permit the socket.
//
// A service does not listen on its own authority. Whether it may, and on which
// port or path, is the inetd's decision, so the listener is made from the
// permit and not from the registration. No permit carries an address: a port is
// listened on at every address of the machine.
#include "vc/listen.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/tipc.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "vc/message.h"
#include "vc/service.h"

constexpr int BACKLOG = 50;
// The device kernel's option for connections from any routing domain.
constexpr int VRF_INCOMING = 51;
constexpr size_t PATH_LIMIT = VC_PATH_SIZE - 1;

// A scope is signed, though the registration's field is not.
static int32_t widen_scope(uint8_t scope)
{
    return scope < 0x80 ? scope : scope - 0x100;
}

// Only what a service has of its own is rewritten; the rest stays as the
// service before it left it, which receivers know to ignore.
static void fill_kind(tty_cmsg *msg, const vc_reg *reg)
{
    switch (reg->socket_type) {
    case AF_INET:
    case AF_INET6:
        msg->vc_flag = VC_FLAG_PORT_PERMIT;
        break;
    case AF_UNIX:
        msg->vc_flag = VC_FLAG_PATH_PERMIT;
        break;
    case AF_TIPC:
        msg->vc_flag |= VC_FLAG_PORT_PERMIT;
        msg->tipc_addrtype = reg->addrtype;
        msg->tipc_scope = widen_scope(reg->scope);
        msg->tipc_type = reg->nameseq_type;
        msg->tipc_lower = reg->nameseq_lower;
        msg->tipc_upper = reg->nameseq_upper;
        vc_debug_msg("vc: tipc register addrtype(%d), scope(%d), "
                     "nameseq_type(%d), nameseq_lower(%d), "
                     "nameseq_upper(%d)\n",
                     static_cast<int>(msg->tipc_addrtype), msg->tipc_scope,
                     static_cast<int>(msg->tipc_type),
                     static_cast<int>(msg->tipc_lower),
                     static_cast<int>(msg->tipc_upper));
        break;
    default:
        break;
    }
}

// A service without a port has a path, but for TIPC: that address is in fields
// of its own, and the port goes out as it was registered, 0 or not.
static void fill_endpoint(tty_cmsg *msg, const vc_reg *reg)
{
    if (reg->listen_port == 0 && reg->socket_type != AF_TIPC) {
        if (reg->listen_path == nullptr) {
            return;
        }
        vc_msg_set_path(msg, reg->listen_path);
        msg->port = 0;
        vc_debug_msg("vc:add path:%s, sock_type:%d, protocol:%d.\n", msg->path,
                     msg->socktype, static_cast<int>(reg->protocol));
        return;
    }
    msg->port = reg->listen_port;
    memset(msg->path, 0, sizeof msg->path);
    vc_debug_msg("vc:add port:%d, sock_type:%d, protocol:%d.\n", msg->port,
                 msg->socktype, static_cast<int>(reg->protocol));
}

static void fill_request(tty_cmsg *msg, const vc_reg *reg)
{
    msg->pid = getpid();
    msg->tos = reg->tos_func != nullptr ? reg->tos_func() : -1;
    fill_kind(msg, reg);
    msg->socktype = reg->socket_type;
    fill_endpoint(msg, reg);
    msg->protocol = static_cast<int32_t>(reg->protocol);
}

// The inetd forgets every service of a connection that it loses. Like the
// announcement, this changes services under the read lock: other threads change
// and look at them under the write lock only, and whoever else takes the read
// lock does so on the loop's thread, which is busy here.
static void forget_announcements(void)
{
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        srv->flags &= ~SRV_ANNOUNCED;
        vc_srv_close_listener_logged(srv, "vc_open_listen");
    }
}

static int announce_all(int inetd_fd, tty_cmsg *msg)
{
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        if ((srv->flags & (SRV_ANNOUNCED | SRV_CLOSED)) != 0) {
            continue;
        }
        fill_request(msg, &srv->reg);
        if (vc_msg_send(inetd_fd, msg) < 0) {
            vc_debug_msg("vc:%s write vc_fd %d fail, err:%s.\n",
                         "vc_open_listen", inetd_fd, strerror(errno));
            forget_announcements();
            return -1;
        }
        srv->flags |= SRV_ANNOUNCED;
    }
    return 0;
}

int vc_open_listen(int inetd_fd)
{
    // One record for the whole walk, cleared once, see fill_kind().
    tty_cmsg msg = {};

    vc_rlock();
    const int result = announce_all(inetd_fd, &msg);
    vc_unlock();
    return result;
}

// Sets an integer option. Logs a failure with the message's format, which
// takes the descriptor and the error's text.
static bool set_option(int fd, int level, int option, int value,
                       const char *what)
{
    if (setsockopt(fd, level, option, &value, sizeof value) == 0) {
        return true;
    }
    vc_debug_msg("vc:set %s fd %d error: %s.\n", what, fd, strerror(errno));
    return false;
}

static bool bind_socket(int fd, const void *address, socklen_t length,
                        const char *what)
{
    const int result =
        bind(fd, static_cast<const struct sockaddr *>(address), length);

    if (result == 0) {
        return true;
    }
    const int error = errno;
    vc_debug_msg("vc: bind %ssocket failed, sk=%d/ret=%d/errno=%d,%s\r\n", what,
                 fd, result, error, strerror(error));
    return false;
}

static in_port_t network_port(const tty_cmsg *msg)
{
    return htons(static_cast<uint16_t>(msg->port));
}

// An address that an earlier listener's connections still use may be bound
// again at once: a service that is stopped and opened would otherwise be closed
// for minutes.
static bool bind_inet(int fd, const tty_cmsg *msg)
{
    struct sockaddr_in address = {};

    if (!set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1, "reuseaddr")) {
        return false;
    }
    if (msg->tos >= 0 && !set_option(fd, IPPROTO_IP, IP_TOS, msg->tos, "tos")) {
        return false;
    }
    vc_debug_msg("vc: open listen socket inet %d\r\n", fd);
    address.sin_family = AF_INET;
    address.sin_port = network_port(msg);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!bind_socket(fd, &address, sizeof address, "")) {
        return false;
    }
    vc_debug_msg("vc: bind v4 success\r\n");
    return true;
}

// An IPv6 listener leaves IPv4 alone: that is a service of its own on the
// same port.
static bool bind_inet6(int fd, const tty_cmsg *msg)
{
    struct sockaddr_in6 address = {};

    vc_debug_msg("vc: open listen socket inet6 %d\r\n", fd);
    if (!set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1, "reuseaddr1") ||
        !set_option(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1, "ipv6only")) {
        return false;
    }
    if (msg->tos >= 0 &&
        !set_option(fd, IPPROTO_IPV6, IPV6_TCLASS, msg->tos, "tos")) {
        return false;
    }
    address.sin6_family = AF_INET6;
    address.sin6_port = network_port(msg);
    address.sin6_addr = in6addr_any;
    if (!bind_socket(fd, &address, sizeof address, "v6 ")) {
        return false;
    }
    vc_debug_msg("vc: bind v6 success\r\n");
    return true;
}

static bool bind_path(int fd, const char *path)
{
    struct sockaddr_un address = {};

    if (path == nullptr || strlen(path) > PATH_LIMIT) {
        vc_debug_msg("vc: illegal path\r\n");
        return false;
    }
    set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1, "reuse");
    vc_debug_msg("vc: open listen socket unix %d\r\n", fd);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strlen(path));
    // What an earlier run left would make the bind fail.
    unlink(path);
    if (!bind_socket(fd, &address, sizeof address, "")) {
        return false;
    }
    vc_debug_msg("vc: bind path %s success.\r\n", path);
    return true;
}

static bool bind_tipc(int fd, const tty_cmsg *msg)
{
    struct sockaddr_tipc address = {};

    // Whether the name is taken by another listener does not matter: several
    // processes may serve one name.
    address.family = AF_TIPC;
    address.addrtype = static_cast<unsigned char>(msg->tipc_addrtype);
    address.scope = static_cast<signed char>(msg->tipc_scope);
    address.addr.nameseq.type = msg->tipc_type;
    address.addr.nameseq.lower = msg->tipc_lower;
    address.addr.nameseq.upper = msg->tipc_upper;
    vc_debug_msg(
        "vc: tipc addrtype(%d), scope(%d), nameseq_type(%d), "
        "nameseq_lower(%d), nameseq_upper(%d)\n",
        address.addrtype, address.scope, static_cast<int>(msg->tipc_type),
        static_cast<int>(msg->tipc_lower), static_cast<int>(msg->tipc_upper));
    if (!bind_socket(fd, &address, sizeof address, "tipc ")) {
        return false;
    }
    vc_debug_msg("vc: bind tipc success\r\n");
    return true;
}

static bool bind_by_family(int fd, const tty_cmsg *msg, const char *path)
{
    switch (msg->socktype) {
    case AF_INET:
        return bind_inet(fd, msg);
    case AF_INET6:
        return bind_inet6(fd, msg);
    case AF_UNIX:
        return bind_path(fd, path);
    case AF_TIPC:
        return bind_tipc(fd, msg);
    default:
        vc_debug_msg("vc: sock_type:%d is wrong.\r\n", msg->socktype);
        return false;
    }
}

static bool start_listening(int fd)
{
    if (!set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1, "reuseaddr2")) {
        return false;
    }
    // Kernels without the option listen in their own routing domain only.
    set_option(fd, IPPROTO_IP, VRF_INCOMING, -1, "vrf incoming");
    const int result = listen(fd, BACKLOG);
    if (result != 0) {
        const int error = errno;
        vc_debug_msg("vc: listen socket failed, sk=%d/ret=%d/errno=%d %s\r\n",
                     fd, result, error, strerror(error));
        return false;
    }
    return true;
}

static bool set_cloexec(int fd)
{
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) != -1) {
        return true;
    }
    const int error = errno;
    vc_debug_msg("vc: fcntl socket fd failed, errno=%d %s\r\n", error,
                 strerror(error));
    return false;
}

int vc_listen(const tty_cmsg *msg, const char *path)
{
    if (msg == nullptr) {
        vc_debug_msg("vc: tty_cmsg is null\r\n");
        return -1;
    }
    vc_debug_msg("vc: sock_type %d, port:%d\r\n", msg->socktype, msg->port);
    // Close-on-exec twice: from the start, as another thread may start a
    // program at any moment, and once more where a failure is reported.
    const int fd = socket(msg->socktype, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        const int error = errno;
        vc_debug_msg("vc: open socket failed, errno=%d %s\r\n", error,
                     strerror(error));
        return -1;
    }
    if (!set_cloexec(fd) || !bind_by_family(fd, msg, path) ||
        !start_listening(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}
