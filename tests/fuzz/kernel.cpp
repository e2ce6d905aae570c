#include "tests/fuzz/kernel.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

#include "tests/fuzz/fuzz.h"

namespace kernel
{

// The dump log, whose lines nobody reads here.
constexpr int LOG = 1000;

state now;

void reset()
{
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

static ssize_t receive(void *bytes, size_t size)
{
    if (now.incoming == nullptr) {
        return failed(ECONNRESET);
    }
    const size_t got = std::min(size, now.incoming_size);
    memcpy(bytes, now.incoming, got);
    return static_cast<ssize_t>(got);
}

// Only processes that the service has started and not seen end, and only with
// the two signals that end a session.
static int signal_process(int pid, int signo)
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

static int open_socket(int family)
{
    const bool known = family == AF_UNIX || family == AF_INET ||
                       family == AF_INET6 || family == AF_TIPC;

    if (now.on_socket != nullptr) {
        now.on_socket();
    }
    return known ? open_failing(FAIL_SOCKET, EMFILE, kind::socket)
                 : failed(EAFNOSUPPORT);
}

static int open_pair(int *ends)
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

} // namespace kernel

using namespace kernel;

// KERNEL_WRAP(type, name, (parameters), (arguments), what it gives here)
#define KERNEL_WRAP(type, name, parameters, arguments, ...)                    \
    extern "C" type __real_##name parameters;                                  \
    extern "C" type __wrap_##name parameters;                                  \
    type __wrap_##name parameters                                              \
    {                                                                          \
        return now.on ? (__VA_ARGS__) : __real_##name arguments;               \
    }

// clang-format off
KERNEL_WRAP(int, socket, (int family, int type, int protocol),
            (family, type, protocol), open_socket(family))
KERNEL_WRAP(int, setsockopt,
            (int fd, int level, int option, const void *value,
             socklen_t length),
            (fd, level, option, value, length),
            checked(fd) != 0 ? -1 : result(FAIL_OPTION, ENOPROTOOPT))
KERNEL_WRAP(int, bind, (int fd, const struct sockaddr *address,
                        socklen_t length),
            (fd, address, length),
            checked(fd) != 0 ? -1 : result(FAIL_BIND, EADDRINUSE))
KERNEL_WRAP(int, listen, (int fd, int backlog), (fd, backlog),
            checked(fd) != 0 ? -1 : result(FAIL_LISTEN, EADDRINUSE))
KERNEL_WRAP(ssize_t, recv, (int fd, void *bytes, size_t size, int flags),
            (fd, bytes, size, flags), receive(bytes, size))
KERNEL_WRAP(ssize_t, write, (int fd, const void *bytes, size_t size),
            (fd, bytes, size), write_to(fd, bytes, size))
KERNEL_WRAP(int, close, (int fd), (fd), close_number(fd))
KERNEL_WRAP(int, shutdown, (int fd, int how), (fd, how), checked(fd))
KERNEL_WRAP(int, stat, (const char *path, struct stat *status),
            (path, status), (status->st_size = 0, 0))
KERNEL_WRAP(int, ftruncate, (int fd, off_t size), (fd, size), 0)
KERNEL_WRAP(int, mkdir, (const char *path, mode_t mode), (path, mode), 0)
KERNEL_WRAP(int, access, (const char *path, int mode), (path, mode),
            result(FAIL_OPTION, ENOENT))
KERNEL_WRAP(int, unlink, (const char *path), (path), 0)
KERNEL_WRAP(pid_t, fork, (void), (),
            fails(FAIL_FORK) ? failed(EAGAIN) : now.next_process++)
KERNEL_WRAP(int, socketpair, (int family, int type, int protocol, int *ends),
            (family, type, protocol, ends), open_pair(ends))
KERNEL_WRAP(int, posix_openpt, (int flags), (flags),
            open_failing(FAIL_MASTER, ENOSPC, kind::pty))
KERNEL_WRAP(int, grantpt, (int fd), (fd), checked(fd))
KERNEL_WRAP(int, unlockpt, (int fd), (fd),
            checked(fd) != 0 ? -1 : result(FAIL_SLAVE, EINVAL))
KERNEL_WRAP(int, ptsname_r, (int fd, char *name, size_t size),
            (fd, name, size), (snprintf(name, size, "/dev/pts/%d", fd), 0))
KERNEL_WRAP(int, tcgetattr, (int fd, struct termios *settings),
            (fd, settings), (memset(settings, 0, sizeof *settings), 0))
KERNEL_WRAP(int, tcsetattr,
            (int fd, int when, const struct termios *settings),
            (fd, when, settings), 0)
KERNEL_WRAP(int, kill, (pid_t pid, int signo), (pid, signo),
            signal_process(pid, signo))
KERNEL_WRAP(int, usleep, (useconds_t time), (time), 0)
KERNEL_WRAP(void *, calloc, (size_t count, size_t size), (count, size),
            fails(FAIL_MEMORY) ? (errno = ENOMEM, nullptr)
                               : __real_calloc(count, size))
// clang-format on

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
}

// The dump log is the only file.
int __wrap_open(const char *path, int flags, ...)
{
    va_list list;

    va_start(list, flags);
    const mode_t mode = va_arg(list, mode_t);
    va_end(list);
    return now.on ? LOG : __real_open(path, flags, mode);
}

int __wrap_fcntl(int fd, int command, ...)
{
    va_list list;

    va_start(list, command);
    const long value = va_arg(list, long);
    va_end(list);
    if (!now.on) {
        return __real_fcntl(fd, command, value);
    }
    return command == F_SETFD ? result(FAIL_CLOEXEC, EINVAL) : 0;
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list list;

    va_start(list, request);
    void *value = va_arg(list, void *);
    va_end(list);
    return now.on ? 0 : __real_ioctl(fd, request, value);
}
