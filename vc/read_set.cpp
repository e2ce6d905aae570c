// The two steps of a read set that call the kernel.
#include "vc/read_set.h"

#include <errno.h>
#include <sys/select.h>

#include "common/io.h"

// The kernel reads a set as an array of words of this size.
static_assert(sizeof(fd_mask) == sizeof(unsigned long), "word of a set");

bool read_set_watch(read_set *set, int fd)
{
    const int saved_errno = errno;

    errno = 0;
    vc_set_bk(fd, true);
    const bool is_open = errno != EBADF;
    if (is_open) {
        read_set_add(set, fd);
    }
    // A time-out looks at what the calls before it have left.
    errno = saved_errno;
    return is_open;
}

int read_set_wait(read_set *set, long seconds, long microseconds)
{
    struct timeval time_out = {seconds, microseconds};

    return select(set->highest + 1, reinterpret_cast<fd_set *>(set->bits),
                  nullptr, nullptr, &time_out);
}
