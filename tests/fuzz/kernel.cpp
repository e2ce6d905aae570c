#include "tests/fuzz/kernel.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

#include "tests/fuzz/fuzz.h"
#include "tests/support/fault.h"

namespace kernel
{

// The dump log, whose lines nobody reads here.
constexpr int LOG = 1000;

state now;

void reset()
{
    turn(false);
    now = {};
    std::fill(now.table, now.table + 3, kind::stream);
    now.table[3] = kind::inetd;
    now.next_process = FIRST_PROCESS;
}

int inetd()
{
    return 3;
}

int open_descriptor(kind what)
{
    for (int fd = 0; fd < DESCRIPTORS; fd++) {
        if (now.table[fd] == kind::none) {
            now.table[fd] = what;
            return fd;
        }
    }
    errno = EMFILE;
    return -1;
}

kind kind_of(int fd)
{
    return fd >= 0 && fd < DESCRIPTORS ? now.table[fd] : kind::none;
}

void close_descriptor(int fd)
{
    now.table[fd] = kind::none;
}

std::vector<tty_cmsg> take_sent()
{
    FUZZ_CHECK(now.sent.size() % sizeof(tty_cmsg) == 0);
    std::vector<tty_cmsg> records(now.sent.size() / sizeof(tty_cmsg));

    if (!records.empty()) {
        memcpy(records.data(), now.sent.data(), now.sent.size());
    }
    now.sent.clear();
    return records;
}

static bool fails(uint32_t what)
{
    return (now.failing & what) != 0;
}

static int failed(int error)
{
    errno = error;
    return -1;
}

static int result(uint32_t what, int error)
{
    return fails(what) ? failed(error) : 0;
}

static int checked(int fd)
{
    return kind_of(fd) != kind::none ? 0 : failed(EBADF);
}

static int open_failing(uint32_t what, int error, kind made)
{
    return fails(what) ? failed(error) : open_descriptor(made);
}

static ssize_t send(const void *bytes, size_t size)
{
    if (fails(FAIL_SEND)) {
        return failed(EPIPE);
    }
    if (fails(FAIL_SEND_FD)) {
        return failed(EBADF);
    }
    const uint8_t *from = static_cast<const uint8_t *>(bytes);
    const size_t taken = fails(SHORT_SEND) ? (size + 1) / 2 : size;
    now.sent.insert(now.sent.end(), from, from + taken);
    return static_cast<ssize_t>(taken);
}

static ssize_t write_to(int fd, const void *bytes, size_t size)
{
    switch (kind_of(fd)) {
    case kind::inetd:
        return send(bytes, size);
    case kind::pair:
        return fails(FAIL_RELEASE) ? failed(EPIPE) : 1;
    case kind::none:
        return fd == LOG ? static_cast<ssize_t>(size) : failed(EBADF);
    default:
        return failed(ENOTCONN);
    }
}

// Only processes that the service has started and not seen end, and only with
// the two signals that end a session.
static int signal_process(pid_t pid, int signo)
{
    FUZZ_CHECK(pid >= FIRST_PROCESS && pid < now.next_process);
    FUZZ_CHECK(now.gone.insert(pid).second);
    FUZZ_CHECK(signo == SIGKILL || signo == SIGHUP);
    return 0;
}

static int close_number(int fd)
{
    if (fd == LOG) {
        return 0;
    }
    if (kind_of(fd) == kind::none) {
        now.bad_closes += fd >= 0 && fd < DESCRIPTORS ? 1 : 0;
        return failed(EBADF);
    }
    close_descriptor(fd);
    return 0;
}

static int open_socket(int family, int, int)
{
    const bool known = family == AF_UNIX || family == AF_INET ||
                       family == AF_INET6 || family == AF_TIPC;

    if (now.on_socket != nullptr) {
        now.on_socket();
    }
    return known ? open_failing(FAIL_SOCKET, EMFILE, kind::socket)
                 : failed(EAFNOSUPPORT);
}

static int open_pair(int, int, int, int *ends)
{
    if (fails(FAIL_PAIR)) {
        return failed(EMFILE);
    }
    ends[0] = open_descriptor(kind::pair);
    ends[1] = open_descriptor(kind::pair);
    // An input has no room for as many sessions as would fill the table.
    FUZZ_CHECK(ends[1] >= 0);
    return 0;
}

static ssize_t receive(int, void *bytes, size_t size, int)
{
    if (now.incoming == nullptr) {
        return failed(ECONNRESET);
    }
    const size_t got = std::min(size, now.incoming_size);
    memcpy(bytes, now.incoming, got);
    return static_cast<ssize_t>(got);
}

static int set_option(int fd, int, int, const void *, socklen_t)
{
    return checked(fd) != 0 ? -1 : result(FAIL_OPTION, ENOPROTOOPT);
}

static int bind_socket(int fd, const struct sockaddr *, socklen_t)
{
    return checked(fd) != 0 ? -1 : result(FAIL_BIND, EADDRINUSE);
}

static int listen_on(int fd, int)
{
    return checked(fd) != 0 ? -1 : result(FAIL_LISTEN, EADDRINUSE);
}

static int shut_down(int fd, int)
{
    return checked(fd);
}

static int control(int, int command, ...)
{
    return command == F_SETFD ? result(FAIL_CLOEXEC, EINVAL) : 0;
}

static int control_device(int, unsigned long, ...)
{
    return 0;
}

// The dump log is the only file.
static int open_file(const char *, int, ...)
{
    return LOG;
}

static int look_at(const char *, struct stat *status)
{
    status->st_size = 0;
    return 0;
}

static int cut(int, off_t)
{
    return 0;
}

static int make_directory(const char *, mode_t)
{
    return 0;
}

static int ask(const char *, int)
{
    return result(FAIL_OPTION, ENOENT);
}

static int remove_name(const char *)
{
    return 0;
}

static pid_t start_process()
{
    return fails(FAIL_FORK) ? failed(EAGAIN) : now.next_process++;
}

static int open_master(int)
{
    return open_failing(FAIL_MASTER, ENOSPC, kind::pty);
}

static int unlock_slave(int fd)
{
    return checked(fd) != 0 ? -1 : result(FAIL_SLAVE, EINVAL);
}

static int name_of_slave(int fd, char *name, size_t size)
{
    (void)snprintf(name, size, "/dev/pts/%d", fd);
    return 0;
}

static int give_settings(int, struct termios *settings)
{
    *settings = {};
    return 0;
}

static int take_settings(int, int, const struct termios *)
{
    return 0;
}

static int pause(useconds_t)
{
    return 0;
}

void install()
{
    REPLACE_CALL(socket, open_socket);
    REPLACE_CALL(setsockopt, set_option);
    REPLACE_CALL(bind, bind_socket);
    REPLACE_CALL(listen, listen_on);
    REPLACE_CALL(recv, receive);
    REPLACE_CALL(write, write_to);
    REPLACE_CALL(close, close_number);
    REPLACE_CALL(shutdown, shut_down);
    REPLACE_CALL(fcntl, control);
    REPLACE_CALL(ioctl, control_device);
    REPLACE_CALL(open, open_file);
    REPLACE_CALL(stat, look_at);
    REPLACE_CALL(ftruncate, cut);
    REPLACE_CALL(mkdir, make_directory);
    REPLACE_CALL(access, ask);
    REPLACE_CALL(unlink, remove_name);
    REPLACE_CALL(fork, start_process);
    REPLACE_CALL(socketpair, open_pair);
    REPLACE_CALL(posix_openpt, open_master);
    REPLACE_CALL(grantpt, checked);
    REPLACE_CALL(unlockpt, unlock_slave);
    REPLACE_CALL(ptsname_r, name_of_slave);
    REPLACE_CALL(tcgetattr, give_settings);
    REPLACE_CALL(tcsetattr, take_settings);
    REPLACE_CALL(kill, signal_process);
    REPLACE_CALL(usleep, pause);
}

void turn(bool on)
{
    fault::reset();
    if (on && fails(FAIL_MEMORY)) {
        fault::fail("calloc", 1, ENOMEM, fault::ALWAYS);
    }
    fault::replacing(on);
}

} // namespace kernel
