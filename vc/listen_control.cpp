// Changes to listeners while the loop runs: by the daemon's other threads and
// on the inetd's orders. Each holds the write lock for its whole walk, so that
// it never meets the loop in the middle of its own.
#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "vc/message.h"
#include "vc/service.h"
#include "vc/session.h"
#include "vc/teardown.h"

static bool of_protocol(const vc_srv *srv, int protocol)
{
    return srv->reg.protocol == static_cast<uint32_t>(protocol);
}

static void log_listen(const vc_srv *srv, const char *function,
                       const char *verb)
{
    vc_debug_msg("vc:%s %s listen proto %d port %d addr type %d, flags "
                 "0x%x\r\n",
                 function, verb, static_cast<int>(srv->reg.protocol),
                 srv->reg.listen_port, srv->reg.socket_type, srv->flags);
}

// Returns whether the loop has to look: a service became announceable.
static bool open_service(vc_srv *srv)
{
    if (srv->listen_fd != -1) {
        return false;
    }
    if ((srv->flags & SRV_CLOSED) != 0) {
        srv->flags &= ~SRV_ANNOUNCED;
    }
    srv->flags &= ~(SRV_CLOSED | SRV_STOPPED);
    log_listen(srv, "vc_deal_service_listen", "open");
    return true;
}

static void stop_service(vc_srv *srv)
{
    if ((srv->flags & SRV_CLOSED) != 0) {
        return;
    }
    vc_srv_shut_listener(srv);
    srv->flags &= ~SRV_ANNOUNCED;
    srv->flags |= SRV_CLOSED | SRV_STOPPED;
    log_listen(srv, "vc_deal_service_listen", "stop");
}

int vc_deal_service_listen(bool open, int protocol)
{
    vc_srv *srv;
    bool wake = false;

    if (!g_vc_inited) {
        return 0;
    }
    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (!of_protocol(srv, protocol)) {
            continue;
        }
        if (open) {
            wake = open_service(srv) || wake;
        } else {
            stop_service(srv);
        }
    }
    // Under the lock: the loop, once awake, waits for it and then sees all of
    // the services that were opened. Its wait is the only thing that the signal
    // is for.
    const pthread_t loop = g_vc_tid.load();
    if (wake && loop != 0) {
        pthread_kill(loop, SIGHUP);
    }
    vc_unlock();
    return 0;
}

int vc_msg_stop_listen(const tty_cmsg *msg)
{
    const int self = getpid();
    vc_srv *srv;

    if (msg->pid != self) {
        return self;
    }
    if (!g_vc_inited) {
        return 0;
    }
    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (of_protocol(srv, msg->protocol)) {
            vc_srv_shut_listener(srv);
            srv->flags &= ~SRV_ANNOUNCED;
            srv->flags |= SRV_CLOSED;
            log_listen(srv, "vc_msg_stop_listen", "stop");
        }
    }
    return vc_unlock();
}

// Equal ports include 0 and 0: such a record means every unix path of the
// protocol.
static bool delete_matches(const vc_srv *srv, const tty_cmsg *msg,
                           const char *path)
{
    return of_protocol(srv, msg->protocol) &&
           (srv->reg.listen_port == msg->port || vc_srv_has_path(srv, path));
}

// By the copy that the session has: its service may be gone, or on another
// port. The protocol is not compared, as a session has its callbacks from the
// first service on its port.
static bool session_matches(const vc_child *child, const tty_cmsg *msg,
                            const char *path)
{
    const vc_reg *reg = &child->reg;

    if (reg->listen_port != 0 && reg->listen_port == msg->port) {
        return true;
    }
    return reg->listen_path != nullptr && strcmp(reg->listen_path, path) == 0;
}

void vc_msg_del_listen(const tty_cmsg *msg)
{
    const vc_msg_path path = vc_msg_path_of(msg);
    vc_srv *srv;

    if (msg->pid != getpid() || !g_vc_inited) {
        return;
    }
    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (delete_matches(srv, msg, path.text)) {
            // Not marked as closed: the service is announced again, and the
            // inetd decides anew.
            vc_srv_close_listener(srv);
            srv->flags &= ~SRV_ANNOUNCED;
        }
    }
    vc_unlock();
    // Without the lock: a teardown may wait for the inetd, and its callback may
    // want the lock itself.
    for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
        vc_child *child = vc_child_at(ttyno);
        if (child != nullptr && session_matches(child, msg, path.text)) {
            vc_child_kill(child);
        }
    }
}

// Without a connection there is nobody to tell: a service that is announced
// anew on the next one has its new port then.
static bool report_port_change(const vc_srv *srv, int new_port)
{
    const int32_t inetd_fd = vc_tty_socket_get();
    tty_cmsg msg = {};

    if (inetd_fd < 0) {
        return true;
    }
    msg.vc_flag = VC_FLAG_PORT_CHANGE;
    msg.pid = getpid();
    msg.port = srv->reg.listen_port;
    msg.peer_port = new_port;
    msg.socktype = srv->reg.socket_type;
    msg.protocol = static_cast<int32_t>(srv->reg.protocol);
    if (vc_msg_send(inetd_fd, &msg) >= 0) {
        return true;
    }
    vc_debug_msg("vc:%s write vc_fd %d fail, err:%s.\n",
                 "vc_service_update_port", inetd_fd, strerror(errno));
    return false;
}

// The service stays announced: its new listener waits for the permit that
// answers the port change.
static bool move_service(vc_srv *srv, int new_port)
{
    if (!report_port_change(srv, new_port)) {
        return false;
    }
    vc_srv_shut_listener(srv);
    srv->reg.listen_port = new_port;
    vc_debug_msg("vc:%s stop listen proto %d port %d addr type %d, fd %d\r\n",
                 "vc_service_update_port", static_cast<int>(srv->reg.protocol),
                 srv->reg.listen_port, srv->reg.socket_type, srv->listen_fd);
    return true;
}

int vc_service_update_port(int protocol, int old_port, int new_port)
{
    vc_srv *srv;
    int result = 0;

    if (protocol > VC_PROTOCOL_MAX || old_port < 0 || new_port < 0 ||
        !g_vc_inited) {
        vc_debug_msg(
            "vc: param error, proto(%d),old_port(%d),new_port(%d),fd(%d)\n",
            protocol, old_port, new_port, vc_tty_socket_get());
        return -1;
    }
    if (old_port == new_port) {
        vc_debug_msg("vc: port same, proto(%d),old_port(%d),new_port(%d)\n",
                     protocol, old_port, new_port);
        return 0;
    }
    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (of_protocol(srv, protocol) && srv->reg.listen_port == old_port &&
            !move_service(srv, new_port)) {
            result = -1;
            break;
        }
    }
    vc_unlock();
    return result;
}

static const vc_srv *find_listener(int protocol, int family)
{
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        if (srv->reg.socket_type == family && of_protocol(srv, protocol)) {
            return srv;
        }
    }
    return nullptr;
}

// The descriptor is used as it is: a service that does not listen has -1,
// which the call itself refuses.
static int set_tos(int fd, int family, int tos)
{
    switch (family) {
    case AF_INET:
        return setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
    case AF_INET6:
        return setsockopt(fd, IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof tos);
    default:
        return -1;
    }
}

int vc_tos_set(int protocol, int family, int tos)
{
    int result = -1;

    if (!g_vc_inited) {
        return -1;
    }
    vc_wlock();
    const vc_srv *srv = find_listener(protocol, family);
    if (srv != nullptr) {
        result = set_tos(srv->listen_fd, family, tos < 0 ? 0 : tos);
    }
    vc_unlock();
    return result;
}
