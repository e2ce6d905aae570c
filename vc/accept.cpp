// Taking connections: the service's veto, the socket's settings, the report
// to the inetd, and the entry that waits for the answer.
#include "vc/accept.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/tipc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "vc/message.h"
#include "vc/pending.h"
#include "vc/protocol.h"

// The device kernel's keep-alive switch.
constexpr int TCP_KEEPALIVE_SWITCH = 57;
constexpr int KEEPIDLE_SECONDS = 600;
constexpr int KEEPINTVL_SECONDS = 10;
constexpr int KEEPCNT_PROBES = 3;

// Both ends of a connection; zero when the kernel would not tell.
template <typename address>
struct endpoints {
    address local;
    address peer;
};

template <typename address>
static endpoints<address> endpoints_of(int fd)
{
    endpoints<address> ends = {};
    socklen_t local_length = sizeof ends.local;
    socklen_t peer_length = sizeof ends.peer;

    getsockname(fd, reinterpret_cast<struct sockaddr *>(&ends.local),
                &local_length);
    getpeername(fd, reinterpret_cast<struct sockaddr *>(&ends.peer),
                &peer_length);
    return ends;
}

// Anything but a clear yes from the service's access check closes the socket.
static bool admitted(const vc_reg *reg, int fd, const void *local,
                     const void *peer)
{
    if (reg->acl_func == nullptr ||
        reg->acl_func(static_cast<const struct sockaddr *>(local),
                      static_cast<const struct sockaddr *>(peer))) {
        return true;
    }
    vc_debug_msg("vc: acl func proc, sockfd=%d, line=%d\n", fd, __LINE__);
    // Before anything was reported: the inetd never hears of it.
    close(fd);
    return false;
}

// The value is set on the listener, from which later connections take it.
static void renew_tos(const vc_srv *srv)
{
    const bool ipv4 = srv->reg.socket_type == AF_INET;

    // Asked for each connection: the daemon may have changed its mind since the
    // listener was opened.
    if (srv->reg.tos_func == nullptr) {
        return;
    }
    int tos = srv->reg.tos_func();
    if (tos < 0) {
        tos = 0;
    }
    if (setsockopt(srv->listen_fd, ipv4 ? IPPROTO_IP : IPPROTO_IPV6,
                   ipv4 ? IP_TOS : IPV6_TCLASS, &tos, sizeof tos) != 0) {
        vc_debug_msg("%s set tos fail, err:%s.\r\n", "vc_accept",
                     strerror(errno));
    }
}

static void set_tcp_option(int fd, int option, int value, const char *what)
{
    if (setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value) != 0) {
        vc_debug_msg("%s setsockopt %s fail, err:%s.\r\n", "vc_accept", what,
                     strerror(errno));
    }
}

// A client that vanishes without a word would keep its line for ever: after ten
// minutes of silence it is asked, and twice more. The switch itself is the
// device kernel's own option.
static void set_keepalive(int fd)
{
    set_tcp_option(fd, TCP_KEEPALIVE_SWITCH, 1, "keepalive");
    set_tcp_option(fd, TCP_KEEPIDLE, KEEPIDLE_SECONDS, "keepidle");
    set_tcp_option(fd, TCP_KEEPINTVL, KEEPINTVL_SECONDS, "keepintvl");
    set_tcp_option(fd, TCP_KEEPCNT, KEEPCNT_PROBES, "keepcnt");
}

// One end of a connection, whatever the two IP families call its parts.
struct ip_end {
    in_port_t *port;
    const void *address;
    socklen_t size;
};

static ip_end end_of(struct sockaddr_in *end)
{
    return {&end->sin_port, &end->sin_addr, sizeof end->sin_addr};
}

static ip_end end_of(struct sockaddr_in6 *end)
{
    return {&end->sin6_port, &end->sin6_addr, sizeof end->sin6_addr};
}

static void log_connection(const vc_reg *reg, const ip_end *local,
                           const ip_end *peer)
{
    const int protocol = static_cast<int>(reg->protocol);
    char to[INET6_ADDRSTRLEN] = {};
    char from[INET6_ADDRSTRLEN] = {};

    inet_ntop(reg->socket_type, local->address, to, sizeof to);
    inet_ntop(reg->socket_type, peer->address, from, sizeof from);
    if (reg->socket_type == AF_INET) {
        vc_debug_msg("vc: accept a socket [%s:%d => %s:%d], proto=%d\r\n", from,
                     *peer->port, to, *local->port, protocol);
    } else {
        vc_debug_msg("vc: acceptv6 a socket [%s:%d => %s:%d], proto=%d\r\n",
                     from, *peer->port, to, *local->port, protocol);
    }
}

// The access check gets the addresses with their ports already in host order.
template <typename address>
static bool take_ip(const vc_srv *srv, int fd, tty_cmsg *msg)
{
    endpoints<address> ends = endpoints_of<address>(fd);
    const ip_end local = end_of(&ends.local);
    const ip_end peer = end_of(&ends.peer);

    *local.port = ntohs(*local.port);
    *peer.port = ntohs(*peer.port);
    if (!admitted(&srv->reg, fd, &ends.local, &ends.peer)) {
        return false;
    }
    renew_tos(srv);
    log_connection(&srv->reg, &local, &peer);
    msg->port = *local.port;
    msg->peer_port = *peer.port;
    memcpy(msg->local_addr, local.address, local.size);
    memcpy(msg->peer_addr, peer.address, peer.size);
    set_keepalive(fd);
    return true;
}

static void log_tipc_end(const char *which, const struct sockaddr_tipc *end)
{
    vc_debug_msg("vc:accept a tipc socket, %s: addrtype(%d), scope(%d), "
                 "nameseq_type(%d), nameseq_lower(%d), nameseq_upper(%d)\n",
                 which, end->addrtype, end->scope,
                 static_cast<int>(end->addr.nameseq.type),
                 static_cast<int>(end->addr.nameseq.lower),
                 static_cast<int>(end->addr.nameseq.upper));
}

static bool take_tipc(const vc_srv *srv, int fd, tty_cmsg *msg)
{
    const endpoints<struct sockaddr_tipc> ends =
        endpoints_of<struct sockaddr_tipc>(fd);

    // The report has no fields for these addresses: the log is where they can
    // be found. TIPC knows neither TOS nor keep-alive, and no access check.
    log_tipc_end("server", &ends.local);
    log_tipc_end("client", &ends.peer);
    msg->port = vc_protocol_of(srv->reg.protocol)->tipc_port;
    if (msg->port == 0) {
        vc_debug_msg("vc: wrong protocol\n");
        close(fd);
        return false;
    }
    return true;
}

// Fills what the report says of the connection and tunes its socket. Returns
// false when the connection is not wanted; its socket is closed then.
static bool take_by_family(const vc_srv *srv, int fd, tty_cmsg *msg)
{
    switch (srv->reg.socket_type) {
    case AF_INET:
        return take_ip<struct sockaddr_in>(srv, fd, msg);
    case AF_INET6:
        return take_ip<struct sockaddr_in6>(srv, fd, msg);
    case AF_TIPC:
        return take_tipc(srv, fd, msg);
    default:
        return true;
    }
}

// Reports the connection. A report that cannot be sent undoes the entry and
// closes the socket, so that the inetd and the service agree on what exists.
static int report(int inetd_fd, int fd, tty_cmsg *msg)
{
    vc_accept_entry *entry = vc_pending_add(fd);
    if (entry == nullptr) {
        // The socket stays open here.
        return -1;
    }
    msg->accept_id = entry->accept_id;
    if (vc_msg_send(inetd_fd, msg) < 0) {
        vc_debug_msg("vc: send daemon fail, socket dup rollback\n");
        close(fd);
        vc_pending_drop(entry);
        return -1;
    }
    return 0;
}

// The listener's bit in the read set may be stale: another thread closed a
// listener and a permit of the same turn opened a new one under its
// number, or the client has gone. A blocking accept would then stop the loop
// with the lock held.
static bool connection_waits(int listen_fd)
{
    struct pollfd listener = {listen_fd, POLLIN, 0};

    return poll(&listener, 1, 0) > 0;
}

// The loop's thread only.
static bool g_starved;

bool vc_accept_starved(void)
{
    return g_starved;
}

static bool starves(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS ||
           error == ENOMEM;
}

int vc_accept(int inetd_fd, vc_srv *srv)
{
    struct sockaddr_un address = {};
    socklen_t length = sizeof address;
    tty_cmsg msg = {};

    g_starved = false;
    if (!connection_waits(srv->listen_fd)) {
        return -1;
    }
    // Nobody looks at this address: both ends are asked for by family later.
    // Close-on-exec, or a program that is started later would hold this client
    // too, who then sees no end of the connection when it is closed here.
    const int fd =
        accept4(srv->listen_fd, reinterpret_cast<struct sockaddr *>(&address),
                &length, SOCK_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        g_starved = starves(error);
        vc_debug_msg("vc: accept fail, errno=%d, %s\n", error, strerror(error));
        return -1;
    }
    const vc_reg *reg = &srv->reg;
    vc_debug_msg("vc: new connect, fd=%d, type=%d, protocol=%d, port=%d\n", fd,
                 reg->socket_type, static_cast<int>(reg->protocol),
                 reg->listen_port);
    msg.vc_flag |= VC_FLAG_CLIENT_ALLOC;
    msg.sockfd = fd;
    msg.socktype = reg->socket_type;
    msg.protocol = static_cast<int32_t>(reg->protocol);
    msg.pid = getpid();
    if (!take_by_family(srv, fd, &msg)) {
        return -1;
    }
    if (reg->socket_type == AF_UNIX && reg->listen_path != nullptr) {
        vc_msg_set_path(&msg, reg->listen_path);
    }
    return report(inetd_fd, fd, &msg);
}
