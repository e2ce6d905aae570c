#include "common/notify.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

constexpr uint64_t US_PER_MS = 1000;

// A name that begins with "@" is one of no file.
static socklen_t make_address(const char *name, struct sockaddr_un *address)
{
    const size_t length = name != nullptr ? strlen(name) : 0;

    *address = {};
    address->sun_family = AF_UNIX;
    if (length < 2 || length >= sizeof address->sun_path ||
        (name[0] != '/' && name[0] != '@')) {
        return 0;
    }
    memcpy(address->sun_path, name, length);
    if (name[0] == '@') {
        address->sun_path[0] = '\0';
    }
    return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) +
                                  length);
}

inline namespace TTYLINE_FACE
{

void tty_notify(const char *state)
{
    struct sockaddr_un address;
    const int saved_errno = errno;
    const socklen_t length = make_address(getenv("NOTIFY_SOCKET"), &address);

    if (length == 0) {
        return;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        sendto(fd, state, strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const struct sockaddr *>(&address), length);
        close(fd);
    }
    errno = saved_errno;
}

int64_t tty_notify_interval_ms(void)
{
    const char *limit = getenv("WATCHDOG_USEC");
    const char *process = getenv("WATCHDOG_PID");

    if (limit == nullptr ||
        (process != nullptr && strtol(process, nullptr, 10) != getpid())) {
        return 0;
    }
    return static_cast<int64_t>(strtoull(limit, nullptr, 10) / US_PER_MS / 2);
}

} // namespace TTYLINE_FACE
