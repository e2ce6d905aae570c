// The main loop: connect, announce, wait, and then in this order one record,
// one new connection, and the data of the sessions.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "vc/accept.h"
#include "vc/dispatch.h"
#include "vc/inetd.h"
#include "vc/listen.h"
#include "vc/message.h"
#include "vc/protocol.h"
#include "vc/read_set.h"
#include "vc/relay.h"
#include "vc/service.h"
#include "vc/session.h"
#include "vc/signals.h"
#include "vc/teardown.h"

constexpr useconds_t RETRY_PAUSE_US = 100000;
constexpr long IDLE_WAIT_S = 60;
constexpr long PENDING_WAIT_US = 10000;

struct loop_state {
    int inetd_fd;     // -1 while not connected
    int old_inetd_fd; // of the connection before, -1 before the first
    bool pending;     // a relay step had data left over
    read_set set;
};

// Sessions go on, connections that still wait for a line do not: their answers
// would have come this way.
static void abandon_connection(loop_state *loop)
{
    vc_accept_drop_all();
    close(loop->inetd_fd);
    loop->old_inetd_fd = loop->inetd_fd;
    loop->inetd_fd = -1;
    usleep(RETRY_PAUSE_US);
}

// Sessions know the inetd connection by its number: a new connection takes the
// number of the old one, if that is free.
static int take_old_number(int fd, int old_fd)
{
    if (fd < 0 || old_fd < 0 || fd == old_fd) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, old_fd);
    if (moved < 0) {
        return fd;
    }
    const bool taken = moved == old_fd;
    close(taken ? fd : moved);
    return taken ? moved : fd;
}

// Returns false when the next iteration has to try again.
static bool ensure_connected(loop_state *loop)
{
    if (loop->inetd_fd >= 0) {
        return true;
    }
    loop->inetd_fd = vc_connect();
    const int error = errno;
    loop->inetd_fd = take_old_number(loop->inetd_fd, loop->old_inetd_fd);
    vc_debug_msg("(vc:%d): connect inetd vc_fd %d\n", getpid(), loop->inetd_fd);
    if (loop->inetd_fd < 0) {
        vc_debug_msg("vc: connect inetd fail, errno:%d, %s\n", error,
                     strerror(error));
        usleep(RETRY_PAUSE_US);
        return false;
    }
    const int result = vc_open_listen(loop->inetd_fd);
    if (result < 0) {
        abandon_connection(loop);
        return false;
    }
    vc_tty_socket_set(loop->inetd_fd);
    g_vc_tid.store(pthread_self());
    vc_debug_msg("(vc:%d): after vc_open_listen ret %d\n", getpid(), result);
    return true;
}

// A number that is not open, as an assignment that comes too late may name
// one, would make every wait fail at once and so stop all other sessions.
static void watch(loop_state *loop, int fd)
{
    const int saved_errno = errno;

    errno = 0;
    vc_set_bk(fd, true);
    if (errno != EBADF) {
        read_set_add(&loop->set, fd);
    }
    // A time-out looks at what the calls before it have left.
    errno = saved_errno;
}

// Sessions whose process has ended are torn down on the way.
static void watch_sessions(loop_state *loop)
{
    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
         ttyno = vc_child_after(ttyno)) {
        vc_child *child = vc_child_at(ttyno);
        if (vc_child_exited(child)) {
            vc_child_kill(child);
            continue;
        }
        child->watched = child->sockfd >= 0 && child->master_fd >= 0 &&
                         vc_protocol_of(child->reg.protocol)->relayed;
        if (child->watched) {
            watch(loop, child->sockfd);
            watch(loop, child->master_fd);
        }
    }
}

static void watch_listeners(loop_state *loop)
{
    vc_srv *srv;

    vc_rlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (srv->listen_fd >= 0) {
            watch(loop, srv->listen_fd);
        }
    }
    vc_unlock();
}

static void build_set(loop_state *loop)
{
    vc_set_bk(loop->inetd_fd, true);
    read_set_clear(&loop->set);
    read_set_add(&loop->set, loop->inetd_fd);
    vc_check_child();
    watch_sessions(loop);
    watch_listeners(loop);
}

// Notes what an input step left over; side is how the log calls it. Returns
// false when the session is gone or failed: its other side is not looked at
// then.
static bool relay_in(loop_state *loop, int ttyno, vc_child *child,
                     const char *side)
{
    const int result = vc_indata_proc(child);

    if (vc_child_at(ttyno) == nullptr || result < 0) {
        return false;
    }
    child->in_pending = result;
    if (result > 0) {
        vc_debug_msg("vc %s data ret %d.\r\n", side, result);
        loop->pending = true;
    }
    return true;
}

static void relay_out(loop_state *loop, int ttyno, vc_child *child,
                      const char *side)
{
    const int result = vc_outdata_proc(child);

    if (vc_child_at(ttyno) == nullptr || result < 0) {
        return;
    }
    child->out_pending = result;
    if (result > 0) {
        vc_debug_msg("vc %s data ret %d.\r\n", side, result);
        loop->pending = true;
    }
}

// Calls the steps that had data left over again, without waiting for input.
static void retry_pending(loop_state *loop)
{
    loop->pending = false;
    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
         ttyno = vc_child_after(ttyno)) {
        vc_child *child = vc_child_at(ttyno);
        if (child->in_pending > 0 && !relay_in(loop, ttyno, child, "in1")) {
            continue;
        }
        if (child->out_pending > 0) {
            relay_out(loop, ttyno, child, "out1");
        }
    }
}

static void after_no_event(loop_state *loop, int result)
{
    // errno is looked at after a time-out too, when it holds what some earlier
    // call left there: a stale EINTR then puts a retry off. Programs have come
    // to live with it, so it stays.
    if (errno == EINTR || errno == EBADF) {
        return;
    }
    if (result == 0 && loop->pending) {
        retry_pending(loop);
        return;
    }
    if (result < 0) {
        vc_debug_msg("vc: select error, ret:%d, error:%s.\r\n", result,
                     strerror(errno));
    }
    usleep(RETRY_PAUSE_US);
}

// Returns false when the connection is lost and the iteration ends here.
static bool handle_record(loop_state *loop)
{
    if (!read_set_has(&loop->set, loop->inetd_fd) ||
        vc_deal_msg(loop->inetd_fd) >= 0) {
        return true;
    }
    vc_debug_msg("(vc:%d):%s before close fd %d.\r\n", getpid(),
                 "vc_service_start", loop->inetd_fd);
    vc_tty_socket_set(-1);
    abandon_connection(loop);
    return false;
}

// One connection per iteration: the next one waits for the next iteration.
static void accept_one(loop_state *loop)
{
    vc_srv *srv;

    vc_rlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (read_set_has(&loop->set, srv->listen_fd)) {
            vc_accept(loop->inetd_fd, srv);
            break;
        }
    }
    vc_unlock();
}

static bool take_readable(read_set *set, int fd)
{
    if (!read_set_has(set, fd)) {
        return false;
    }
    read_set_remove(set, fd);
    return true;
}

// A session that began in this turn is not looked at: its descriptors were not
// in the set, but a listener that another thread has closed meanwhile may have
// left their numbers there. ready is how many descriptors were readable, the
// sessions' and others: once that many have been taken no line has one left.
static void relay_readable(loop_state *loop, int ready)
{
    for (int ttyno = vc_child_next(0); ttyno < TTY_LINES;
         ttyno = vc_child_after(ttyno)) {
        if (ready == 0) {
            break;
        }
        vc_child *child = vc_child_at(ttyno);
        if (!child->watched) {
            continue;
        }
        if (take_readable(&loop->set, child->sockfd)) {
            ready--;
            if (!relay_in(loop, ttyno, child, "in")) {
                continue;
            }
        }
        if (take_readable(&loop->set, child->master_fd)) {
            ready--;
            relay_out(loop, ttyno, child, "out");
        }
    }
}

static void iterate(loop_state *loop)
{
    if (!ensure_connected(loop)) {
        return;
    }
    build_set(loop);
    // Services registered or opened again since the last iteration.
    if (vc_open_listen(loop->inetd_fd) < 0) {
        abandon_connection(loop);
        return;
    }
    const int ready = loop->pending
                          ? read_set_wait(&loop->set, 0, PENDING_WAIT_US)
                          : read_set_wait(&loop->set, IDLE_WAIT_S, 0);
    if (ready <= 0) {
        after_no_event(loop, ready);
        return;
    }
    if (!handle_record(loop)) {
        return;
    }
    accept_one(loop);
    relay_readable(loop, ready);
}

int vc_service_start(void)
{
    // Not on the stack, which the daemon may have made small.
    static loop_state loop;

    if (!g_vc_inited) {
        return -1;
    }
    loop.inetd_fd = -1;
    loop.old_inetd_fd = -1;
    loop.pending = false;
    for (;;) {
        iterate(&loop);
    }
}
