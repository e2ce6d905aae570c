// A pseudo-terminal comes in steps, each with a number of its own, so that the
// log of a failure says how far it got; errno is that of the step.
#include "vc/pty.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <ttyline/vc.h>

enum pty_error {
    PTY_OPEN = -1,
    PTY_GRANT = -2,
    PTY_UNLOCK = -3,
    PTY_NO_NAME = -4,
    PTY_SLAVE = -5
};

// What has to follow the opening of a master before its slave can be used.
static int prepare_slave(int fd, char *name, size_t size)
{
    char slave[64];

    if (grantpt(fd) != 0) {
        return PTY_GRANT;
    }
    if (unlockpt(fd) != 0) {
        return PTY_UNLOCK;
    }
    const int error = ptsname_r(fd, slave, sizeof slave);
    if (error != 0) {
        errno = error;
        return PTY_NO_NAME;
    }
    // Only now: until everything has succeeded the name is that of the device
    // that could not be opened.
    (void)snprintf(name, size, "%s", slave);
    return 0;
}

int vc_ptym_open(char *name, size_t size)
{
    // The caller's message shows what could not be opened.
    (void)snprintf(name, size, "%s", "/dev/ptmx");
    // Close-on-exec, or the programs of other sessions could type here.
    const int fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return PTY_OPEN;
    }
    const int result = prepare_slave(fd, name, size);
    if (result != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return result;
    }
    return fd;
}

int vc_ptys_open(const char *name)
{
    const int fd = open(name, O_RDWR);

    if (fd < 0) {
        vc_debug_msg("vc: vc ptys open %s error, err:%s.\n", name,
                     strerror(errno));
        return PTY_SLAVE;
    }
    return fd;
}

void vc_set_noecho(int fd)
{
    struct termios settings;

    if (tcgetattr(fd, &settings) != 0) {
        vc_debug_msg("vc: set noecho tcgetattr fail, err:%s.\r\n",
                     strerror(errno));
        return;
    }
    settings.c_lflag &=
        ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL | ICANON);
    settings.c_cflag |= CREAD | CLOCAL;
    // A slow reader stops the writer through the terminal, and any key goes on.
    settings.c_iflag |= IXON | IXANY | IXOFF;
    // seldom covered: the kernel gives pseudo-terminals 8 bits whatever is set
    if ((settings.c_cflag & CSIZE) == CS8) {
        settings.c_iflag &= ~static_cast<tcflag_t>(INPCK | ISTRIP);
    }
    settings.c_iflag &= ~static_cast<tcflag_t>(INLCR | ICRNL);
    settings.c_oflag |= ONLCR;
    if (tcsetattr(fd, TCSANOW, &settings) != 0) {
        vc_debug_msg("vc: set noecho tcsetattr fail, err:%s.\r\n",
                     strerror(errno));
    }
}
