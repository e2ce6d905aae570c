// Descriptors may be shared with other programs, so they stay in the mode in
// which they came. Room is asked for before each write instead, and a write
// is never longer than a pipe takes in one piece: it cannot wait.
#include "programs/ttylined/text_out.h"

#include <cerrno>
#include <climits>

#include <poll.h>
#include <unistd.h>

static bool has_room(int fd)
{
    pollfd ask = {fd, POLLOUT, 0};

    return poll(&ask, 1, 0) == 1;
}

void text_out_flush(text_out &out)
{
    std::size_t done = 0;

    while (done < out.pending.size() && has_room(out.fd)) {
        std::size_t length = out.pending.size() - done;
        if (length > PIPE_BUF) {
            length = PIPE_BUF;
        }
        const ssize_t ret = write(out.fd, out.pending.data() + done, length);
        if (ret > 0) {
            done += static_cast<std::size_t>(ret);
        } else if (ret < 0 && errno == EAGAIN) {
            break;
        } else if (ret == 0 || errno != EINTR) {
            // Nobody reads this any more, or the disk is full.
            done = out.pending.size();
        }
    }
    out.pending.erase(0, done);
}

void text_out_add(text_out &out, const std::string &text)
{
    if (out.fd < 0) {
        return;
    }
    out.pending += text;
    text_out_flush(out);
}
