// One routine through which every session ends.
#include "vc/teardown.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/runtime_dir.h"
#include "vc/message.h"

constexpr useconds_t RESEND_PAUSE_US = 100000;
// A descriptor that is none any more cannot come back.
constexpr int LOST_CONNECTION_LIMIT = 3;

// While this file exists, session programs get the chance to end in order.
static const char TERMINAL_CACHE[] = "/mng/tty/.tty_rl_terminal_cache";

static void make_cache_path(char *path)
{
    if (tty_make_path(path, TTY_PATH_SIZE, TERMINAL_CACHE) == nullptr) {
        const int error = errno;
        vc_debug_msg("make file %s fail errno:%d, %s\n", TERMINAL_CACHE, error,
                     strerror(error));
    }
}

static tty_cmsg line_clean_record(const vc_child *child)
{
    tty_cmsg msg = {};

    msg.vc_flag = VC_FLAG_CLIENT_CLEAR;
    msg.ttyno = child->ttyno;
    msg.port = child->reg.listen_port;
    msg.protocol = static_cast<int32_t>(child->reg.protocol);
    msg.pid = vc_child_pid(child);
    return msg;
}

static void close_descriptors(vc_child *child)
{
    if (child->sockfd >= 0) {
        vc_debug_msg("vc: close sock_fd %d\n", child->sockfd);
        // A session program may have the connection too: to close it here alone
        // would not end it.
        shutdown(child->sockfd, SHUT_RDWR);
        close(child->sockfd);
        child->sockfd = -1;
    }
    if (child->master_fd >= 0) {
        vc_debug_msg("vc: close child_fd %d\n", child->master_fd);
        close(child->master_fd);
        child->master_fd = -1;
    }
}

// An empty path, one that could not be built, names no file.
static void signal_process(const vc_child *child, const char *cache_path)
{
    const int pid = vc_child_pid(child);

    if (pid <= 0) {
        return;
    }
    vc_debug_msg("vc: kill pid %d\n", pid);
    // The number of a process that has been reaped may be another's by now.
    if (vc_child_exited(child)) {
        return;
    }
    kill(pid, access(cache_path, F_OK) == 0 ? SIGHUP : SIGKILL);
}

// Whether the number stands for no connection any more. A record from the inetd
// that names a wrong descriptor can have it closed.
static bool connection_lost(int error)
{
    return error == EBADF || error == ENOTCONN;
}

// The inetd must hear of every line that it gave away, or the line is lost:
// only its own end, or a number without a connection, ends the attempts.
static void send_line_clean(int inetd_fd, const tty_cmsg *msg)
{
    int lost = 0;

    vc_debug_msg("vc: send line-clean msg to inetd\n");
    while (vc_msg_send(inetd_fd, msg) < 0) {
        const int error = errno;
        if (error == EPIPE) {
            return;
        }
        vc_debug_msg("vc: resend to qv-tty-admin, error: %s\n",
                     strerror(error));
        if (connection_lost(error) && ++lost == LOST_CONNECTION_LIMIT) {
            return;
        }
        usleep(RESEND_PAUSE_US);
    }
}

void vc_child_kill(vc_child *child)
{
    char cache_path[TTY_PATH_SIZE];

    make_cache_path(cache_path);
    if (child == nullptr) {
        return;
    }
    vc_debug_msg("vc: kill client %d\n", child->ttyno);
    // Before the callback and the end of the descriptors: the record says what
    // the session was.
    const tty_cmsg msg = line_clean_record(child);
    // The session of a record that found no service has no callbacks.
    if (child->reg.kill_func != nullptr) {
        child->reg.kill_func(child->ttyno);
    }
    close_descriptors(child);
    signal_process(child, cache_path);
    vc_debug_msg("vc: free child, TTY[%d]\n", child->ttyno);
    if (child->inetd_fd >= 0) {
        send_line_clean(child->inetd_fd, &msg);
    }
    vc_child_release(child);
}
