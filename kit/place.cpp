// The session service takes a unix path away from whoever has it, and where a
// port is taken it would try again and again, ten times a second, with all its
// services closed meanwhile. So it is looked at before.
#include "kit/place.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "kit/clock.h"
#include "kit/error.h"
#include "kit/service.h"

constexpr int64_t PATIENCE_MS = 3000;
constexpr long PAUSE_NS = 50000000;

// By a datagram socket: where the one behind the path is of another type the
// kernel says so, where it is not they are connected, and its owner hears
// nothing of either. Nobody has a path that refuses the connection; who has one
// that must not be written to is not known.
bool kit_place_path_taken(const char *path)
{
    struct sockaddr_un address = {};
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);

    if (fd < 0) {
        return false;
    }
    address.sun_family = AF_UNIX;
    (void)strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const bool taken =
        connect(fd, reinterpret_cast<struct sockaddr *>(&address),
                sizeof address) == 0 ||
        errno == EPROTOTYPE || errno == EACCES;
    close(fd);
    return taken;
}

static bool try_to_bind(int fd, int family, uint16_t port)
{
    struct sockaddr_in inet = {};
    struct sockaddr_in6 inet6 = {};
    int on = 1;

    // What is left of connections that have ended does not count.
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (family == AF_INET) {
        inet.sin_family = AF_INET;
        inet.sin_port = htons(port);
        return bind(fd, reinterpret_cast<struct sockaddr *>(&inet),
                    sizeof inet) == 0;
    }
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    inet6.sin6_family = AF_INET6;
    inet6.sin6_port = htons(port);
    return bind(fd, reinterpret_cast<struct sockaddr *>(&inet6),
                sizeof inet6) == 0;
}

static bool port_taken(int family, int port)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);

    if (fd < 0) {
        return false;
    }
    const bool taken = !try_to_bind(fd, family, static_cast<uint16_t>(port)) &&
                       errno == EADDRINUSE;
    close(fd);
    return taken;
}

static bool in_use(const kit_service *service)
{
    const uint32_t families = kit_families(service);

    if (service->path != nullptr) {
        return kit_place_path_taken(service->path);
    }
    return ((families & KIT_IPV4) != 0 && port_taken(AF_INET, service->port)) ||
           ((families & KIT_IPV6) != 0 && port_taken(AF_INET6, service->port));
}

int kit_place_free(const kit_service *service)
{
    const struct timespec pause = {0, PAUSE_NS};
    const int64_t give_up_at = kit_now_ms() + PATIENCE_MS;

    while (in_use(service)) {
        if (kit_now_ms() >= give_up_at) {
            return service->path != nullptr
                       ? kit_fail("%s is in use", service->path)
                       : kit_fail("port %d is in use", service->port);
        }
        nanosleep(&pause, nullptr);
    }
    return 0;
}
