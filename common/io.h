// Whole-buffer writes, and the mode of a descriptor.
#pragma once

#include <sys/ioctl.h>

#include "common/face.h"

inline namespace TTYLINE_FACE
{

// Writes all len bytes to fd, which is left in blocking mode. Returns len, or
// -1 with errno set after a hard error; what was written by then stays
// written. May block for as long as the other end does not read. Any thread.
int tty_write(int fd, const void *data, int len);

// Switches fd between blocking and non-blocking mode; failures are ignored. In
// place, as the session service's loop does it for each descriptor it watches.
inline void vc_set_bk(int fd, bool block)
{
    int non_blocking = block ? 0 : 1;

    ioctl(fd, FIONBIO, &non_blocking);
}

} // namespace TTYLINE_FACE
