#include "programs/ttylined/accept.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/resource.h>
#include <sys/socket.h>

#include "programs/ttylined/clock.h"
#include "programs/ttylined/trace.h"

constexpr int64_t PAUSE_MS = 200;

// The limit on descriptors is the process's, so is the pause.
static int64_t g_paused_until;

void accept_make_room()
{
    rlimit files = {};

    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

int accept_or_pause(int listener)
{
    const int fd =
        accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);

    if (fd < 0 && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
        trace_note(std::string("accept: ") + std::strerror(errno));
        g_paused_until = monotonic_ms() + PAUSE_MS;
    }
    return fd;
}

int64_t accept_paused_until()
{
    if (g_paused_until != 0 && g_paused_until <= monotonic_ms()) {
        g_paused_until = 0;
    }
    return g_paused_until;
}

void accept_resume()
{
    g_paused_until = 0;
}
