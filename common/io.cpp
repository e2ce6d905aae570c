// Whole-buffer writes to files, sockets and pseudo-terminals.
#include "common/io.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

inline namespace TTYLINE_FACE
{

static bool write_again(int error)
{
    return error == EAGAIN || error == EINPROGRESS || error == EINTR;
}

int tty_write(int fd, const void *data, int len)
{
    const char *from = static_cast<const char *>(data);
    int left = len;

    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    while (left > 0) {
        const ssize_t written = write(fd, from, static_cast<size_t>(left));
        if (written >= 0) {
            from += written;
            left -= static_cast<int>(written);
        } else if (!write_again(errno)) {
            return -1;
        }
    }
    return len;
}

} // namespace TTYLINE_FACE
