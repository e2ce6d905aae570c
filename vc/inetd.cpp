// The connection to the inetd, made and given up. Each step of a connect that
// fails closes the socket before it logs, and leaves errno as the failure set
// it: the loop prints it too.
#include "vc/inetd.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "common/io.h"
#include "common/runtime_dir.h"
#include "vc/service.h"

// Small: an inetd that has stopped reading shows after a few records, and not
// after many that nobody will act on.
constexpr int SEND_BUFFER_SIZE = 4096;

static const char INETD_SOCKET[] = "/mng/tty/inetd/.qv_inetd";

static int close_failed(int fd)
{
    const int error = errno;

    close(fd);
    return error;
}

static int open_socket(void)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    if (fd < 0) {
        const int error = errno;
        vc_debug_msg("vc: sock create fail, err %s\n", strerror(error));
        errno = error;
    }
    return fd;
}

static bool set_send_buffer(int fd)
{
    const int size = SEND_BUFFER_SIZE;

    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) == 0) {
        return true;
    }
    const int error = close_failed(fd);
    vc_debug_msg("vc:set sndbuf %d error: %s.\n", size, strerror(error));
    errno = error;
    return false;
}

static bool make_address(int fd, struct sockaddr_un *address)
{
    char path[TTY_PATH_SIZE];

    if (tty_make_path(path, sizeof path, INETD_SOCKET) != nullptr) {
        address->sun_family = AF_UNIX;
        // A path that fills the field stands there without a terminator.
        memcpy(address->sun_path, path,
               strnlen(path, sizeof address->sun_path));
        return true;
    }
    const int error = close_failed(fd);
    vc_debug_msg("vc:%s make path %s fail\r\n", "vc_connect", INETD_SOCKET);
    errno = error;
    return false;
}

static bool connect_to(int fd, const struct sockaddr_un *address)
{
    if (connect(fd, reinterpret_cast<const struct sockaddr *>(address),
                sizeof *address) == 0) {
        return true;
    }
    const int error = close_failed(fd);
    vc_debug_msg("vc: sock fail, err %s\n", strerror(error));
    errno = error;
    return false;
}

int vc_connect(void)
{
    struct sockaddr_un address = {};

    const int fd = open_socket();
    if (fd < 0 || !set_send_buffer(fd)) {
        return -1;
    }
    vc_set_bk(fd, true);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (!make_address(fd, &address) || !connect_to(fd, &address)) {
        return -1;
    }
    return fd;
}

// Under the lock: a port update has read the number and is about to write.
static bool lay_over(int fd, int number)
{
    vc_wlock();
    const bool laid = dup3(fd, number, O_CLOEXEC) == number;
    vc_unlock();
    return laid;
}

void vc_disconnect(int fd)
{
    int ends[2];

    // To close it alone would not end it, if a session's process has it too.
    // Before the lock, which a port update holds while the inetd does not read.
    shutdown(fd, SHUT_RDWR);
    // One end of a pair whose other end is closed. Without it the old
    // connection keeps its number; shut down, it answers in the same way.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return;
    }
    close(ends[1]);
    if (ends[0] != fd) {
        lay_over(ends[0], fd);
        close(ends[0]);
    }
}

int vc_move_connection(int fd, int number)
{
    if (number < 0 || !lay_over(fd, number)) {
        return fd;
    }
    close(fd);
    return number;
}
