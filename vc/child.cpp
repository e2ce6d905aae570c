// In the forked child: the terminal, the environment, the session program.
// Whatever fails ends the child alone: the daemon notices by its SIGCHLD.
#include "vc/child.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "common/runtime_dir.h"
#include "vc/protocol.h"
#include "vc/pty.h"

static const char FUNCTION[] = "vc_child_proc";
static const char MONITOR_DIRECTORY[] = "/mng/tty/monitor";

constexpr int MONITOR_VALUE_SIZE = 2048;

[[noreturn]] static void give_up(int master_fd)
{
    close(master_fd);
    exit(1);
}

// The master's settings with line editing and echo off are what the session
// program starts with.
static void copy_settings(int master_fd, int slave_fd)
{
    struct termios settings;

    if (tcgetattr(master_fd, &settings) != 0) {
        const int error = errno;
        vc_debug_msg("vc: can't get attr %d, error:%s\n", master_fd,
                     strerror(error));
        return;
    }
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    // seldom covered: the kernel gives pseudo-terminals 8 bits whatever is set
    if ((settings.c_cflag & CSIZE) == CS8) {
        settings.c_iflag &= ~static_cast<tcflag_t>(INPCK | ISTRIP);
    }
    settings.c_iflag &= ~static_cast<tcflag_t>(INLCR | ICRNL);
    settings.c_oflag |= ONLCR;
    if (tcsetattr(slave_fd, TCSANOW, &settings) != 0) {
        vc_debug_msg("vc: child proc set tcsetattr fail, error:%s\n",
                     strerror(errno));
    }
}

// A slave that was opened as 0, 1 or 2, because the daemon runs without a
// standard stream, must not be closed before it has been duplicated.
static void replace_standard_streams(int slave_fd)
{
    static const char *const stream_names[] = {"stdin", "stdout", "stderr"};

    for (int fd = 0; fd <= 2; fd++) {
        if (fd != slave_fd) {
            close(fd);
        }
    }
    for (int fd = 0; fd <= 2; fd++) {
        if (dup2(slave_fd, fd) < 0) {
            vc_debug_msg("vc: dup2 error in %s, err:%s.\n", stream_names[fd],
                         strerror(errno));
            exit(1);
        }
    }
    if (slave_fd > 2) {
        vc_debug_msg("vc:fds %d\r\n", slave_fd);
        close(slave_fd);
    }
}

// Makes the slave the child's controlling terminal and standard streams.
static void take_terminal(int master_fd, const char *slave)
{
    // Only the leader of a session that has no terminal yet can take one.
    if (setsid() < 0) {
        vc_debug_msg("vc: setid error, err:%s.\n", strerror(errno));
        give_up(master_fd);
    }
    // Opened here and not before the fork: the daemon must not hold the slave,
    // or it would never see the end of the terminal.
    const int slave_fd = vc_ptys_open(slave);
    if (slave_fd < 0) {
        vc_debug_msg("vc: can't open slave pty: %s, error %d\n", slave,
                     slave_fd);
        give_up(master_fd);
    }
    copy_settings(master_fd, slave_fd);
    if (ioctl(slave_fd, TIOCSCTTY, 0) < 0) {
        vc_debug_msg("vc: TIOCSCTTY error\n");
        give_up(master_fd);
    }
    replace_standard_streams(slave_fd);
}

static void set_number(const char *name, int number)
{
    char value[16];

    (void)snprintf(value, sizeof value, "%d", number);
    if (setenv(name, value, 1) != 0) {
        // What is printed as a number is the name's address: the message has
        // always been so and its readers look at the value only.
        vc_debug_msg("vc: setenvs(%d)=%s fail\n",
                     static_cast<int>(reinterpret_cast<uintptr_t>(name)),
                     value);
    }
}

void vc_child_setenvs(const vc_child *child)
{
    set_number("TTYNUM", child->ttyno);
    set_number("TTYTYPE", vc_protocol_of(child->reg.protocol)->terminal_type);
    set_number("PROTOCOL", static_cast<int>(child->reg.protocol));
    set_number("CONN_TYPE", child->reg.socket_type);
}

static bool monitored(int ttyno)
{
    char value[MONITOR_VALUE_SIZE];

    if (tty_getenv(static_cast<unsigned int>(ttyno), "MONITOR", value,
                   sizeof value) == nullptr) {
        return false;
    }
    // Nothing but blanks; other text that is no number counts as 0 silently.
    if (value[strspn(value, " \t\n\v\f\r")] == '\0') {
        vc_debug_msg("vc:%s sscanf return fail, errno[%d]:%s\n", FUNCTION,
                     errno, strerror(errno));
    }
    return static_cast<int>(strtoll(value, nullptr, 10)) != 0;
}

// A link by the line's number, for programs that watch the terminal.
static void link_monitor(int ttyno, const char *slave)
{
    char directory[TTY_PATH_SIZE];
    char link[TTY_PATH_SIZE + 16];

    if (tty_make_path(directory, sizeof directory, MONITOR_DIRECTORY) ==
        nullptr) {
        vc_debug_msg("vc:%s make path %s fail\r\n", FUNCTION,
                     MONITOR_DIRECTORY);
        return;
    }
    (void)snprintf(link, sizeof link, "%s/%d", directory, ttyno);
    // A link from an earlier session of this line would lead to another
    // terminal.
    unlink(link);
    const int ignored = symlink(slave, link);
    static_cast<void>(ignored);
}

// A program that is executed may use its session's own connection and terminal.
// Only here and for these two: what the daemon has of other sessions is closed
// by the same exec.
static void pass_own_descriptors(const vc_child *child)
{
    fcntl(child->sockfd, F_SETFD, 0);
    fcntl(child->master_fd, F_SETFD, 0);
}

static void run_shell(int ttyno, const char *slave, const vc_child *child)
{
    if (child->reg.shell_func == nullptr) {
        vc_debug_msg("vc:shell fun is NULL\n");
        return;
    }
    // In this process, after the fork: the daemon's own environment stays, and
    // so does its lock of the line library, which a fork leaves behind in any
    // state.
    vc_child_setenvs(child);
    if (tty_setenv(static_cast<unsigned int>(ttyno), "TTYDEV", slave) == -1) {
        vc_debug_msg("vc: %s set dev %s fail\n", FUNCTION, slave);
    }
    if (monitored(ttyno)) {
        link_monitor(ttyno, slave);
    }
    pass_own_descriptors(child);
    if (child->reg.shell_func(ttyno, slave) != 0) {
        vc_debug_msg("vc:shell fun fail, tty:%d pts_name:%s\n", ttyno, slave);
    }
}

void vc_child_proc(int master_fd, int ttyno, const char *slave,
                   const vc_child *child)
{
    take_terminal(master_fd, slave);
    run_shell(ttyno, slave, child);
    exit(1);
}
