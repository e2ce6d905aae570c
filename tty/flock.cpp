// The lock that keeps processes from one another's line files.
#include "tty/flock.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <ttyline/tty.h>

int tty_flock_reg(int fd, int command, int type)
{
    struct flock lock = {};

    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    return fcntl(fd, command, &lock);
}

// A signal that has a handler ends the wait of a thread that has not blocked
// it, as a program may call these functions by itself.
static int take_lock(int fd, int command)
{
    int result;

    do {
        result = tty_flock_reg(fd, command, F_WRLCK);
    } while (result == -1 && errno == EINTR);
    return result == -1 ? -1 : 0;
}

int tty_flock(int fd)
{
    return take_lock(fd, F_SETLKW);
}

int tty_flock_try(int fd)
{
    return take_lock(fd, F_SETLK);
}

int tty_unflock(int fd)
{
    return tty_flock_reg(fd, F_SETLK, F_UNLCK) == -1 ? -1 : 0;
}
