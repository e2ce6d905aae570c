// The main loop: connect, announce, wait, and then in this order one record,
// one new connection, and the data of the sessions.
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "vc/accept.h"
#include "vc/dispatch.h"
#include "vc/inetd.h"
#include "vc/listen.h"
#include "vc/pending.h"
#include "vc/read_set.h"
#include "vc/relay.h"
#include "vc/service.h"
#include "vc/signals.h"

constexpr useconds_t RETRY_PAUSE_US = 100000;
constexpr long IDLE_WAIT_S = 60;
constexpr long PENDING_WAIT_US = 10000;
constexpr long LISTENER_REST_MS = 100;

struct loop_state {
    int inetd_fd; // -1 while not connected
    int number;   // of the connection before, -1 before the first
    bool pending; // a relay step had data left over
    // Until then, on the monotonic clock, the listeners are left out of the
    // set; and how much of it was left at the beginning of this turn, 0 when
    // they are in it.
    int64_t rest_until_ms;
    int64_t rest_ms;
    read_set set;
};

// Sessions go on, connections that still wait for a line do not: their answers
// would have come this way.
static void abandon_connection(loop_state *loop)
{
    vc_pending_drop_all();
    vc_disconnect(loop->inetd_fd);
    loop->number = loop->inetd_fd;
    loop->inetd_fd = -1;
    usleep(RETRY_PAUSE_US);
}

// The inetd has gone, or what it said asks for a new connection.
static void lose_connection(loop_state *loop)
{
    vc_debug_msg("(vc:%d):%s before close fd %d.\r\n", getpid(),
                 "vc_service_start", loop->inetd_fd);
    vc_tty_socket_set(-1);
    abandon_connection(loop);
}

// A record that named the connection's own number had it closed. Nothing can
// be received any more, so all is reset, but not before the number answers
// again: each session's end would be tried several times.
static void lose_closed_connection(loop_state *loop)
{
    vc_disconnect(loop->inetd_fd);
    vc_deal_msg(loop->inetd_fd);
    lose_connection(loop);
}

// Returns the connection or, after a pause, -1.
static int connect_or_pause(void)
{
    const int fd = vc_connect();
    const int error = errno;

    vc_debug_msg("(vc:%d): connect inetd vc_fd %d\n", getpid(), fd);
    if (fd < 0) {
        vc_debug_msg("vc: connect inetd fail, errno:%d, %s\n", error,
                     strerror(error));
        usleep(RETRY_PAUSE_US);
    }
    return fd;
}

// Returns false when the next turn has to try again.
static bool ensure_connected(loop_state *loop)
{
    if (loop->inetd_fd >= 0) {
        return true;
    }
    const int fd = connect_or_pause();
    if (fd < 0) {
        return false;
    }
    const int result = vc_open_listen(fd);
    if (result < 0) {
        close(fd);
        usleep(RETRY_PAUSE_US);
        return false;
    }
    // After the announcement, the number as well as its publication: a port
    // change that another thread makes must not come before the service that it
    // is about.
    loop->inetd_fd = vc_move_connection(fd, loop->number);
    vc_tty_socket_set(loop->inetd_fd);
    g_vc_tid.store(pthread_self());
    vc_debug_msg("(vc:%d): after vc_open_listen ret %d\n", getpid(), result);
    return true;
}

static int64_t now_ms(void)
{
    struct timespec now = {};

    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// A client that waits for want of a descriptor keeps its listener readable:
// with it in the set the loop would turn at full speed.
static int64_t rest_left(loop_state *loop)
{
    if (loop->rest_until_ms == 0) {
        return 0;
    }
    const int64_t left = loop->rest_until_ms - now_ms();
    if (left > 0) {
        return left;
    }
    loop->rest_until_ms = 0;
    return 0;
}

// The lock is not held during the wait, so a listener may be closed meanwhile:
// accept_one() and vc_accept() look again.
static void watch_listeners(loop_state *loop)
{
    vc_srv *srv;

    vc_rlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (srv->listen_fd >= 0) {
            read_set_watch(&loop->set, srv->listen_fd);
        }
    }
    vc_unlock();
}

// Returns false when the connection is lost and the turn ends here.
static bool build_set(loop_state *loop)
{
    read_set_clear(&loop->set);
    if (!read_set_watch(&loop->set, loop->inetd_fd)) {
        lose_closed_connection(loop);
        return false;
    }
    // Before the sessions: one whose process has just ended must not be waited
    // for.
    vc_check_child();
    relay_watch(&loop->set);
    loop->rest_ms = rest_left(loop);
    if (loop->rest_ms == 0) {
        watch_listeners(loop);
    }
    return true;
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
        loop->pending = relay_retry();
        return;
    }
    // Only the listeners are due. A pause would be one for the sessions too.
    if (result == 0 && loop->rest_ms > 0) {
        return;
    }
    if (result < 0) {
        vc_debug_msg("vc: select error, ret:%d, error:%s.\r\n", result,
                     strerror(errno));
    }
    usleep(RETRY_PAUSE_US);
}

// Returns false when the connection is lost and the turn ends here.
static bool handle_record(loop_state *loop)
{
    if (!read_set_has(&loop->set, loop->inetd_fd) ||
        vc_deal_msg(loop->inetd_fd) >= 0) {
        return true;
    }
    lose_connection(loop);
    return false;
}

// One connection a turn: the next one waits for the next turn.
static void accept_one(loop_state *loop)
{
    vc_srv *srv;

    vc_rlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if (read_set_has(&loop->set, srv->listen_fd)) {
            vc_accept(loop->inetd_fd, srv);
            if (vc_accept_starved()) {
                loop->rest_until_ms = now_ms() + LISTENER_REST_MS;
            }
            break;
        }
    }
    vc_unlock();
}

static int wait_for_events(loop_state *loop)
{
    if (loop->pending) {
        return read_set_wait(&loop->set, 0, PENDING_WAIT_US);
    }
    return loop->rest_ms > 0
               ? read_set_wait(&loop->set, 0,
                               static_cast<long>(loop->rest_ms) * 1000)
               : read_set_wait(&loop->set, IDLE_WAIT_S, 0);
}

static void take_turn(loop_state *loop)
{
    if (!ensure_connected(loop)) {
        return;
    }
    if (!build_set(loop)) {
        return;
    }
    // Services registered or opened again since the last turn.
    if (vc_open_listen(loop->inetd_fd) < 0) {
        abandon_connection(loop);
        return;
    }
    const int ready = wait_for_events(loop);
    if (ready <= 0) {
        after_no_event(loop, ready);
        return;
    }
    if (!handle_record(loop)) {
        return;
    }
    accept_one(loop);
    if (relay_readable(&loop->set, ready)) {
        loop->pending = true;
    }
}

int vc_service_start(void)
{
    // Not on the stack, which the daemon may have made small.
    static loop_state loop;

    if (!g_vc_inited) {
        return -1;
    }
    loop.inetd_fd = -1;
    loop.number = -1;
    loop.pending = false;
    loop.rest_until_ms = 0;
    for (;;) {
        take_turn(&loop);
    }
}
