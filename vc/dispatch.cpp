// What the inetd orders, one function per kind of record.
#include "vc/dispatch.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "vc/listen.h"
#include "vc/message.h"
#include "vc/pending.h"
#include "vc/protocol.h"
#include "vc/service.h"
#include "vc/session.h"
#include "vc/spawn.h"
#include "vc/teardown.h"

static const char FUNCTION[] = "vc_deal_msg";

static bool of_protocol(const vc_srv *srv, const tty_cmsg *msg)
{
    return srv->reg.protocol == static_cast<uint32_t>(msg->protocol);
}

static bool of_family(const vc_srv *srv, const tty_cmsg *msg)
{
    return srv->reg.socket_type == msg->socktype;
}

// The record itself goes back with another kind, so that everything in it comes
// back as the inetd sent it. A failure shows again when the connection is read,
// and is dealt with there.
static void answer(int inetd_fd, tty_cmsg *msg, uint32_t vc_flag)
{
    msg->vc_flag = vc_flag;
    if (vc_msg_send(inetd_fd, msg) < 0) {
        vc_debug_msg("vc:send msg fail, vc_flag: %x, error: %s\r\n",
                     msg->vc_flag, strerror(errno));
    }
}

static void kill_all_sessions(void)
{
    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
         ttyno = vc_child_after(ttyno)) {
        vc_child_kill(vc_child_at(ttyno));
    }
}

static void reset_services(void)
{
    vc_srv *srv;

    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        srv->flags &= ~SRV_ANNOUNCED;
        if (!vc_protocol_of(srv->reg.protocol)->starts_closed) {
            srv->flags &= ~SRV_CLOSED;
        }
        vc_srv_close_listener_logged(srv, FUNCTION);
    }
    vc_unlock();
}

// Back to a fresh start: no sessions, no listeners, no pending accepts.
static int reset_all(void)
{
    // Sessions first: each sends its line-clean while the connection may still
    // take it.
    kill_all_sessions();
    reset_services();
    vc_pending_drop_all();
    vc_debug_msg("(vc:%d):%s before return err, err %s.\r\n", getpid(),
                 FUNCTION, strerror(errno));
    return -1;
}

static int refuse_line(int inetd_fd, tty_cmsg *msg, int sockfd)
{
    vc_debug_msg("vc: client alloc fail\r\n");
    // Still open when the allocation failed before a session existed.
    if (sockfd >= 0) {
        vc_debug_msg("vc: vc_deal_msg, sockfd=%d, line=%d\n", sockfd, __LINE__);
        close(sockfd);
    }
    // Also when the teardown of a session has sent a line-clean already: this
    // one is the answer that the assignment waits for.
    answer(inetd_fd, msg, VC_FLAG_CLIENT_CLEAR);
    return 0;
}

static int assign_line(int inetd_fd, tty_cmsg *msg)
{
    int sockfd = msg->sockfd;

    vc_debug_msg("vc: recv from inetd, ttyno=%d,sockfd=%d,socktype=%d,port=%d,"
                 "mypid=%d\r\n",
                 msg->ttyno, sockfd, msg->socktype, msg->port, getpid());
    // The list is this thread's and needs no lock. Taken all the same, so that
    // the connection changes hands after a change to the listeners that
    // another thread is in the middle of, and not during it.
    vc_wlock();
    vc_pending_take(sockfd, msg->accept_id);
    vc_unlock();
    // Nothing to answer with: the inetd takes an answer by its line.
    if (!vc_line_valid(msg->ttyno)) {
        if (sockfd >= 0) {
            close(sockfd);
        }
        return 0;
    }
    const vc_msg_path path = vc_msg_path_of(msg);
    const vc_child *child =
        vc_child_alloc(msg->ttyno, &sockfd, msg->port, path.text, inetd_fd);
    if (child == nullptr) {
        return refuse_line(inetd_fd, msg, sockfd);
    }
    msg->pid = vc_child_pid(child);
    vc_debug_msg("vc: client (ttyno=%d,pid=%d) alloc\r\n", msg->ttyno,
                 msg->pid);
    answer(inetd_fd, msg, VC_FLAG_ALLOC_OK);
    return 0;
}

static int clear_client(int, tty_cmsg *msg)
{
    vc_debug_msg("vc: client (ttyno=%d) clear\r\n", msg->ttyno);
    if (!vc_line_clearable(msg->ttyno)) {
        return 0;
    }
    vc_child *child = vc_child_at(msg->ttyno);
    if (child != nullptr) {
        vc_child_kill(child);
    }
    return 0;
}

// A port change does not open a service that the daemon has closed meanwhile.
static bool refused_after_change(const tty_cmsg *msg)
{
    vc_srv *srv;
    bool refused = false;

    if ((msg->vc_flag & VC_FLAG_PORT_CHANGE) == 0) {
        return false;
    }
    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (of_protocol(srv, msg) && srv->reg.listen_port == msg->port &&
            (srv->flags & SRV_CLOSED) != 0) {
            // The number behind "port" is the protocol and the one behind
            // "protocol" the port: who reads the log expects them so.
            vc_debug_msg("vc: port (%d) protocol (%d), flags (0x%x) server "
                         "close.\r\n",
                         static_cast<int>(srv->reg.protocol),
                         srv->reg.listen_port, srv->flags);
            refused = true;
            break;
        }
    }
    vc_unlock();
    return refused;
}

// Silently: the permit was on its way when the daemon stopped the service, and
// nobody has done anything wrong.
static bool stopped_by_daemon(const tty_cmsg *msg)
{
    vc_srv *srv;
    bool stopped = false;

    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (of_protocol(srv, msg) && of_family(srv, msg) &&
            (srv->flags & SRV_STOPPED) != 0) {
            stopped = true;
            break;
        }
    }
    vc_unlock();
    return stopped;
}

// The service that a permit is for: by path when one is given, else by port.
static vc_srv *permitted_service(const tty_cmsg *msg, const char *path)
{
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        if (of_protocol(srv, msg) && of_family(srv, msg) &&
            (path != nullptr ? vc_srv_has_path(srv, path)
                             : srv->reg.listen_port == msg->port)) {
            return srv;
        }
    }
    return nullptr;
}

// Whether the daemon has stopped the service since the permit was looked at.
// Paths are opened whether they were stopped or not.
static bool stopped_meanwhile(const vc_srv *srv, const char *path)
{
    return path == nullptr && (srv->flags & SRV_STOPPED) != 0;
}

// Gives the new listener to its service. One that listens already keeps its
// socket; a service deleted or stopped meanwhile needs none.
static int install_listener(const tty_cmsg *msg, const char *path, int fd)
{
    vc_wlock();
    vc_srv *srv = permitted_service(msg, path);
    if (srv != nullptr && srv->listen_fd < 0 && !stopped_meanwhile(srv, path)) {
        srv->listen_fd = fd;
        srv->flags |= SRV_ANNOUNCED;
        srv->flags &= ~SRV_CLOSED;
    } else {
        close(fd);
    }
    vc_unlock();
    return 0;
}

// Whether a listener of the record's protocol that cannot be opened closes
// this service too.
static bool fails_with(const vc_srv *srv, const tty_cmsg *msg)
{
    return of_protocol(srv, msg) ||
           vc_protocol_of(srv->reg.protocol)->partner ==
               static_cast<uint32_t>(msg->protocol);
}

static int report_port_failure(int inetd_fd, tty_cmsg *msg)
{
    vc_srv *srv;

    answer(inetd_fd, msg, VC_FLAG_PORT_FAIL);
    vc_wlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (fails_with(srv, msg)) {
            srv->flags &= ~SRV_ANNOUNCED;
            vc_srv_close_listener(srv);
        }
    }
    vc_unlock();
    return -1;
}

static int permit_port(int inetd_fd, tty_cmsg *msg)
{
    if (refused_after_change(msg) || stopped_by_daemon(msg)) {
        return 0;
    }
    vc_debug_msg("vc: port (%d) permit add %d.\r\n", msg->port, msg->pid);
    // Several daemons may have a service of this protocol: the number says
    // whose is meant.
    if (msg->pid != getpid()) {
        return 0;
    }
    const int fd = vc_listen(msg, nullptr);
    return fd >= 0 ? install_listener(msg, nullptr, fd)
                   : report_port_failure(inetd_fd, msg);
}

// A listener that the service may have is left open.
static int report_path_failure(int inetd_fd, tty_cmsg *msg, const char *path)
{
    answer(inetd_fd, msg, VC_FLAG_PATH_FAIL);
    vc_wlock();
    vc_srv *srv = permitted_service(msg, path);
    if (srv != nullptr) {
        srv->flags &= ~SRV_ANNOUNCED;
    }
    vc_unlock();
    return -1;
}

static int permit_path(int inetd_fd, tty_cmsg *msg)
{
    const vc_msg_path path = vc_msg_path_of(msg);

    vc_debug_msg("vc: path(%s) permit add %d.\r\n", path.text, msg->pid);
    if (msg->pid != getpid()) {
        return 0;
    }
    const int fd = vc_listen(msg, path.text);
    return fd >= 0 ? install_listener(msg, path.text, fd)
                   : report_path_failure(inetd_fd, msg, path.text);
}

static int delete_listener(int, tty_cmsg *msg)
{
    vc_debug_msg("vc: del port/path (tc_flag: %x)\r\n", msg->vc_flag);
    vc_msg_del_listen(msg);
    return reset_all();
}

static int stop_listeners(int, tty_cmsg *msg)
{
    vc_msg_stop_listen(msg);
    return 0;
}

// What is done with one kind of record. Returns what vc_deal_msg() returns.
struct record_kind {
    uint32_t bits;
    int (*handle)(int inetd_fd, tty_cmsg *msg);
};

// The first row of which the record has a bit decides, whatever else is set.
static const record_kind kinds[] = {
    {VC_FLAG_CLIENT_ALLOC, assign_line},
    {VC_FLAG_CLIENT_CLEAR, clear_client},
    {VC_FLAG_PORT_PERMIT, permit_port},
    {VC_FLAG_PATH_PERMIT, permit_path},
    {VC_FLAG_PORT_FAIL | VC_FLAG_PATH_FAIL, delete_listener},
    {VC_FLAG_STOP_LISTEN, stop_listeners},
};

static int act_on(int inetd_fd, tty_cmsg *msg)
{
    for (const record_kind &kind : kinds) {
        if ((msg->vc_flag & kind.bits) != 0) {
            return kind.handle(inetd_fd, msg);
        }
    }
    return 0;
}

int vc_deal_msg(int inetd_fd)
{
    tty_cmsg msg;

    vc_debug_msg("vc: vc_deal_msg\n");
    const int received = vc_msg_recv(inetd_fd, &msg);
    if (received != static_cast<int>(sizeof msg)) {
        const int error = errno;
        vc_debug_msg("vc: recv fail ret %d, err[%d]:%s\n", received, error,
                     strerror(error));
        return reset_all();
    }
    return act_on(inetd_fd, &msg);
}
