// Taking connections: the service's veto, the socket's settings, the report
// to the inetd, and the entry that waits for the answer.
#include "vc/accept.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/tipc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "vc/list.h"
#include "vc/message.h"
#include "vc/protocol.h"

// The device kernel's keep-alive switch.
constexpr int TCP_KEEPALIVE_SWITCH = 57;
constexpr int KEEPIDLE_SECONDS = 600;
constexpr int KEEPINTVL_SECONDS = 10;
constexpr int KEEPCNT_PROBES = 3;

vc_list g_vc_accept_list = {&g_vc_accept_list, &g_vc_accept_list};
int32_t g_vc_accept_fd_num = 0;

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
    close(fd);
    return false;
}

// The value is set on the listener, from which later connections take it.
static void renew_tos(const vc_srv *srv, int level, int option)
{
    if (srv->reg.tos_func == nullptr) {
        return;
    }
    int tos = srv->reg.tos_func();
    if (tos < 0) {
        tos = 0;
    }
    if (setsockopt(srv->listen_fd, level, option, &tos, sizeof tos) != 0) {
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

static void set_keepalive(int fd)
{
    set_tcp_option(fd, TCP_KEEPALIVE_SWITCH, 1, "keepalive");
    set_tcp_option(fd, TCP_KEEPIDLE, KEEPIDLE_SECONDS, "keepidle");
    set_tcp_option(fd, TCP_KEEPINTVL, KEEPINTVL_SECONDS, "keepintvl");
    set_tcp_option(fd, TCP_KEEPCNT, KEEPCNT_PROBES, "keepcnt");
}

static bool take_inet(const vc_srv *srv, int fd, tty_cmsg *msg)
{
    char local[INET_ADDRSTRLEN + 1] = {};
    char peer[INET_ADDRSTRLEN + 1] = {};
    endpoints<struct sockaddr_in> ends = endpoints_of<struct sockaddr_in>(fd);

    ends.local.sin_port = ntohs(ends.local.sin_port);
    ends.peer.sin_port = ntohs(ends.peer.sin_port);
    if (!admitted(&srv->reg, fd, &ends.local, &ends.peer)) {
        return false;
    }
    renew_tos(srv, IPPROTO_IP, IP_TOS);
    inet_ntop(AF_INET, &ends.local.sin_addr, local, sizeof local);
    inet_ntop(AF_INET, &ends.peer.sin_addr, peer, sizeof peer);
    vc_debug_msg("vc: accept a socket [%s:%d => %s:%d], proto=%d\r\n", peer,
                 ends.peer.sin_port, local, ends.local.sin_port,
                 static_cast<int>(srv->reg.protocol));
    msg->port = ends.local.sin_port;
    msg->peer_port = ends.peer.sin_port;
    memcpy(msg->local_addr, &ends.local.sin_addr, sizeof ends.local.sin_addr);
    memcpy(msg->peer_addr, &ends.peer.sin_addr, sizeof ends.peer.sin_addr);
    set_keepalive(fd);
    return true;
}

static bool take_inet6(const vc_srv *srv, int fd, tty_cmsg *msg)
{
    char local[INET6_ADDRSTRLEN + 1] = {};
    char peer[INET6_ADDRSTRLEN + 1] = {};
    endpoints<struct sockaddr_in6> ends = endpoints_of<struct sockaddr_in6>(fd);

    ends.local.sin6_port = ntohs(ends.local.sin6_port);
    ends.peer.sin6_port = ntohs(ends.peer.sin6_port);
    if (!admitted(&srv->reg, fd, &ends.local, &ends.peer)) {
        return false;
    }
    renew_tos(srv, IPPROTO_IPV6, IPV6_TCLASS);
    inet_ntop(AF_INET6, &ends.local.sin6_addr, local, sizeof local);
    inet_ntop(AF_INET6, &ends.peer.sin6_addr, peer, sizeof peer);
    vc_debug_msg("vc: acceptv6 a socket [%s:%d => %s:%d], proto=%d\r\n", peer,
                 ends.peer.sin6_port, local, ends.local.sin6_port,
                 static_cast<int>(srv->reg.protocol));
    msg->port = ends.local.sin6_port;
    msg->peer_port = ends.peer.sin6_port;
    memcpy(msg->local_addr, &ends.local.sin6_addr, sizeof ends.local.sin6_addr);
    memcpy(msg->peer_addr, &ends.peer.sin6_addr, sizeof ends.peer.sin6_addr);
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
        return take_inet(srv, fd, msg);
    case AF_INET6:
        return take_inet6(srv, fd, msg);
    case AF_TIPC:
        return take_tipc(srv, fd, msg);
    default:
        return true;
    }
}

static vc_accept_entry *add_entry(int fd)
{
    vc_accept_entry *entry =
        static_cast<vc_accept_entry *>(malloc(sizeof *entry));

    if (entry == nullptr) {
        vc_debug_msg("vc: malloc accpet_fd fail at %s, line:%d\n", "vc_accept",
                     __LINE__);
        return nullptr;
    }
    entry->fd = fd;
    entry->accept_id = ++g_vc_accept_fd_num;
    list_add_tail(&entry->link, &g_vc_accept_list);
    vc_debug_msg("vc: vc_accept, fd=%d, num=%d, line=%d\n", fd,
                 entry->accept_id, __LINE__);
    return entry;
}

void vc_accept_drop(vc_accept_entry *entry)
{
    list_del_init(&entry->link);
    g_vc_accept_fd_num--;
    free(entry);
}

void vc_accept_take(int fd, int accept_id)
{
    for (vc_list *link = g_vc_accept_list.next; link != &g_vc_accept_list;
         link = link->next) {
        vc_accept_entry *entry = reinterpret_cast<vc_accept_entry *>(link);
        if (entry->fd == fd && entry->accept_id == accept_id) {
            vc_accept_drop(entry);
            return;
        }
    }
}

void vc_accept_drop_all(void)
{
    while (g_vc_accept_list.next != &g_vc_accept_list) {
        vc_accept_entry *entry =
            reinterpret_cast<vc_accept_entry *>(g_vc_accept_list.next);
        if (entry->fd > 0) {
            close(entry->fd);
        }
        vc_debug_msg("(vc:%d):%s close all socket fd, err %s.\r\n", getpid(),
                     "vc_deal_msg", strerror(errno));
        vc_accept_drop(entry);
    }
}

// Reports the connection. A report that cannot be sent undoes the entry and
// closes the socket, so that the inetd and the service agree on what exists.
static int report(int inetd_fd, int fd, tty_cmsg *msg)
{
    vc_accept_entry *entry = add_entry(fd);
    if (entry == nullptr) {
        // The socket stays open here.
        return -1;
    }
    msg->accept_id = entry->accept_id;
    if (vc_msg_send(inetd_fd, msg) < 0) {
        vc_debug_msg("vc: send daemon fail, socket dup rollback\n");
        close(fd);
        vc_accept_drop(entry);
        return -1;
    }
    return 0;
}

// The listener's bit in the read set may be stale: another thread closed a
// listener and a permit of the same iteration opened a new one under its
// number, or the client has gone. A blocking accept would then stop the loop
// with the lock held.
static bool connection_waits(int listen_fd)
{
    struct pollfd listener = {listen_fd, POLLIN, 0};

    return poll(&listener, 1, 0) > 0;
}

int vc_accept(int inetd_fd, vc_srv *srv)
{
    struct sockaddr_un address = {};
    socklen_t length = sizeof address;
    tty_cmsg msg = {};

    if (!connection_waits(srv->listen_fd)) {
        return -1;
    }
    const int fd = accept(
        srv->listen_fd, reinterpret_cast<struct sockaddr *>(&address), &length);
    if (fd < 0) {
        const int error = errno;
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
