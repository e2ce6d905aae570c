#include "tests/machines/memory/driver.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <signal.h>

constexpr unsigned int DEADLINE_S = 100;

void driver_expect(bool holds, const char *what, const char *file, int line)
{
    if (!holds) {
        (void)fprintf(stderr, "%s:%d: %s\n", file, line, what);
        exit(1);
    }
}

void driver_set_deadline(void)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(DEADLINE_S);
}

const char *driver_path(const char *name)
{
    static char path[sizeof(sockaddr_un::sun_path)];
    const char *root = getenv("TMPDIR");

    EXPECT(root != nullptr);
    EXPECT(snprintf(path, sizeof path, "%s%s", root, name) <
           static_cast<int>(sizeof path));
    return path;
}

static struct sockaddr_un address_of(const char *name)
{
    struct sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, driver_path(name), sizeof address.sun_path);
    return address;
}

int driver_listen(const char *name)
{
    const struct sockaddr_un address = address_of(name);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    EXPECT(bind(fd, reinterpret_cast<const struct sockaddr *>(&address),
                sizeof address) == 0);
    EXPECT(listen(fd, 4) == 0);
    return fd;
}

int driver_connect(const char *name)
{
    const struct sockaddr_un address = address_of(name);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    EXPECT(connect(fd, reinterpret_cast<const struct sockaddr *>(&address),
                   sizeof address) == 0);
    return fd;
}
