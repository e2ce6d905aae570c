// A line's session: from the assigned line to the released child.
//
// Once the record is in its slot every failure takes one way out, through the
// teardown, so that the inetd hears a line-clean for every line that it gave
// and that never got a running session.
#include "vc/spawn.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "common/io.h"
#include "vc/child.h"
#include "vc/protocol.h"
#include "vc/pty.h"
#include "vc/service.h"
#include "vc/teardown.h"

static const char FUNCTION[] = "vc_child_alloc";

// "/dev/pts/" and the number of the slave.
constexpr size_t SLAVE_NAME_SIZE = 20;

constexpr int RELEASE_WAIT_MS = 50;
constexpr useconds_t RELEASE_SEEN_PAUSE_US = 1000;
constexpr useconds_t RELEASE_POLL_US = 100000;
// About 12 seconds.
constexpr int RELEASE_POLL_LIMIT = 120;

// Both ends of the pair over which the parent releases the child.
struct release_pair {
    int child_end;
    int parent_end;
};

// Opens the pseudo-terminal and puts a record for it into the line's slot.
static vc_child *make_session(int ttyno, int sockfd, int inetd_fd, char *slave)
{
    vc_child *child = static_cast<vc_child *>(calloc(1, sizeof *child));

    if (child == nullptr) {
        vc_debug_msg("vc: malloc fail, err:%s.\r\n", strerror(errno));
        return nullptr;
    }
    const int master_fd = vc_ptym_open(slave, SLAVE_NAME_SIZE);
    if (master_fd < 0) {
        vc_debug_msg("vc: can't open master pty: %s, fdm %d, err:%s.\r\n",
                     slave, master_fd, strerror(errno));
        free(child);
        return nullptr;
    }
    vc_set_noecho(master_fd);
    child->ttyno = ttyno;
    child->sockfd = sockfd;
    child->inetd_fd = inetd_fd;
    child->master_fd = master_fd;
    vc_child_install(ttyno, child);
    return child;
}

static void set_master_raw(int master_fd)
{
    struct termios settings;

    if (tcgetattr(master_fd, &settings) != 0) {
        const int error = errno;
        vc_debug_msg("vc: can't get attr %d, error:%s\n", master_fd,
                     strerror(error));
        return;
    }
    settings.c_iflag &= ~static_cast<tcflag_t>(ICRNL);
    settings.c_oflag &= ~static_cast<tcflag_t>(ONLCR);
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(master_fd, TCSANOW, &settings);
}

// Copies the registration of the first service on this port or path; protocol
// and family play no part. The session keeps it when the service goes.
static bool copy_registration(vc_child *child, int port, const char *path)
{
    vc_srv *srv;
    bool found = false;

    vc_rlock();
    VC_FOR_EACH_SERVICE(srv)
    {
        if ((port != 0 && srv->reg.listen_port == port) ||
            (path[0] != '\0' && vc_srv_has_path(srv, path))) {
            child->reg = srv->reg;
            found = true;
            break;
        }
    }
    vc_unlock();
    if (!found) {
        vc_debug_msg("vc: vc_child_alloc proc, sockfd=%d, line=%d\n",
                     child->sockfd, __LINE__);
    }
    return found;
}

// The service's own preparations.
static bool set_up(const vc_child *child)
{
    if (child->reg.alloc_func(child->ttyno, child->inetd_fd, child->sockfd,
                              child->master_fd) < 0) {
        vc_debug_msg("vc: alloc func proc, sockfd=%d, line=%d\n", child->sockfd,
                     __LINE__);
        return false;
    }
    if (child->reg.init_func(child->ttyno) < 0) {
        vc_debug_msg("vc: init func proc, sockfd=%d, line=%d\n", child->sockfd,
                     __LINE__);
        return false;
    }
    return true;
}

static bool make_pair(release_pair *pair)
{
    int ends[2];

    // Close-on-exec, or a program that another thread starts meanwhile would
    // hold the parent's end open and the child would never see its end.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        const int error = errno;
        vc_debug_msg("(vc:%d):%s socketpair failed, err: %s\r\n", getpid(),
                     FUNCTION, strerror(error));
        return false;
    }
    pair->child_end = ends[0];
    pair->parent_end = ends[1];
    return true;
}

// A look in vain costs 100 ms, which is what most of a set-up would be under
// load: the child waits for a moment before it begins to look, and once more
// for the end that follows the byte.
static void wait_for_parent(int child_end)
{
    struct pollfd end = {child_end, POLLIN, 0};

    poll(&end, 1, RELEASE_WAIT_MS);
}

// Waits until the parent has written the child's process id into the record:
// before that the child must neither run nor end, as the SIGCHLD handler would
// not find its session. The parent closing its end is the sign.
static void await_release(int child_end)
{
    int polls = 0;
    char byte;

    wait_for_parent(child_end);
    for (;;) {
        vc_set_bk(child_end, false);
        const ssize_t got = read(child_end, &byte, 1);
        if (got == 0) {
            break;
        }
        if (got > 0) {
            usleep(RELEASE_SEEN_PAUSE_US);
            wait_for_parent(child_end);
            continue;
        }
        usleep(RELEASE_POLL_US);
        if (++polls > RELEASE_POLL_LIMIT) {
            vc_debug_msg("(vc:%d): %s father process don't notify.\r\n",
                         getpid(), FUNCTION);
            close(child_end);
            // The session has never begun: this is no failure of its program,
            // and no session's status either, as none knows this process.
            exit(0);
        }
    }
    vc_debug_msg("(vc:%d):%s close domain socket listen fd(%d) success, err "
                 "%s.\r\n",
                 getpid(), FUNCTION, child_end, strerror(errno));
    close(child_end);
}

// Without the lock: no other thread exists here that could change the list, and
// none was in the middle of it during the fork.
static void close_listeners(void)
{
    vc_srv *srv;

    VC_FOR_EACH_SERVICE(srv)
    {
        vc_srv_close_listener_logged(srv, FUNCTION);
    }
}

// A parent that died before the signal was asked for sends none, and its end of
// the pair looks like a release. A parent of another namespace of processes,
// whose number is 0 here, cannot be asked.
static void die_with_parent(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const pid_t now = getppid();
    // not covered: a process that ends here leaves no counts
    if (now != parent && now != 0) {
        raise(SIGKILL);
    }
}

[[noreturn]] static void run_child(const release_pair *pair, const char *slave,
                                   const vc_child *child, pid_t parent)
{
    vc_debug_msg("vc: tel-sub proc\n");
    signal(SIGHUP, SIG_IGN);
    die_with_parent(parent);
    close(pair->parent_end);
    await_release(pair->child_end);
    close_listeners();
    vc_child_proc(child->master_fd, child->ttyno, slave, child);
}

// Nothing but what is needed may stand between the fork and the release: the
// child waits for it.
static bool release_child(const release_pair *pair, vc_child *child, int pid)
{
    close(pair->child_end);
    vc_set_bk(pair->parent_end, false);
    // Before the write: a child that something else kills right after it must
    // be found too.
    vc_child_set_pid(child, pid);
    const bool gone = write(pair->parent_end, "o", 1) < 0 && errno == EPIPE;
    if (gone) {
        vc_child_set_pid(child, 0);
    }
    close(pair->parent_end);
    if (gone) {
        vc_debug_msg("vc: tel-main proc, sockfd=%d, line=%d\n", child->sockfd,
                     __LINE__);
        return false;
    }
    vc_debug_msg("vc: tel-main proc, notify sub process, sockfd=%d, pid=%d\n",
                 child->sockfd, pid);
    return true;
}

// Under the lock, or the child could get a list that another thread is just
// changing. Both processes give it back.
static pid_t fork_with_whole_list(void)
{
    vc_rlock();
    const pid_t pid = fork();
    const int error = errno;
    vc_unlock();
    errno = error;
    return pid;
}

static bool start_child(vc_child *child, const char *slave)
{
    const pid_t self = getpid();
    release_pair pair;

    if (!make_pair(&pair)) {
        return false;
    }
    const pid_t pid = fork_with_whole_list();
    if (pid < 0) {
        vc_debug_msg("vc: fork error, err:%s.\r\n", strerror(errno));
        close(pair.child_end);
        close(pair.parent_end);
        return false;
    }
    if (pid == 0) {
        run_child(&pair, slave, child, self);
    }
    return release_child(&pair, child, pid);
}

vc_child *vc_child_alloc(int ttyno, int *sockfd, int port, const char *path,
                         int inetd_fd)
{
    char slave[SLAVE_NAME_SIZE];

    if (!vc_line_carries_sessions(ttyno)) {
        vc_debug_msg("vc: pty numbers %d up to MAX\n", ttyno);
        return nullptr;
    }
    if (vc_child_at(ttyno) != nullptr) {
        vc_debug_msg("vc: client %d exist\n", ttyno);
        return nullptr;
    }
    vc_child *child = make_session(ttyno, *sockfd, inetd_fd, slave);
    if (child == nullptr) {
        return nullptr;
    }
    set_master_raw(child->master_fd);
    if (copy_registration(child, port, path) && set_up(child) &&
        start_child(child, slave)) {
        return child;
    }
    vc_debug_msg("vc: kill proc, sockfd=%d, line=%d\n", child->sockfd,
                 __LINE__);
    vc_child_kill(child);
    *sockfd = -1;
    return nullptr;
}
