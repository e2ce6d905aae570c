// One connection per process to the line administration daemon, made by the
// first request that needs it and never given up: after the daemon has gone,
// every request fails until the process ends. A silent reconnection would
// hide from a long-lived program that its hold was forgotten.
#include "tty/admin_channel.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "common/io.h"
#include "common/runtime_dir.h"
#include "tty/lock.h"

constexpr int SEND_BUFFER_SIZE = 8192;
constexpr unsigned int ADMIN_PATH_SIZE = 100;

static const char ADMIN_SOCKET[] = "/mng/tty/.tty_rl";

// What stands on the wire. Both ends run on the same machine.
struct admin_item {
    uint16_t type;
    uint16_t length;
    uint32_t value;
};
static_assert(sizeof(admin_item) == 8, "items are 8 bytes");
static_assert(offsetof(admin_item, type) == 0, "type");
static_assert(offsetof(admin_item, length) == 2, "length");
static_assert(offsetof(admin_item, value) == 4, "value");

// Guarded by the library lock.
static int32_t g_tty_update_fd = -1;

// Inherited like any descriptor, through an exec as well: the daemon sees the
// end of a process's connection when that and its programs have ended.
static int open_socket(void)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);

    if (fd < 0) {
        tty_debug_msg(0, "ttylib(%d): sock create fail, err[%d]:%s\n", getpid(),
                      errno, strerror(errno));
        return -1;
    }
    const int size = SEND_BUFFER_SIZE;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0) {
        tty_debug_msg(0,
                      "ttylib(%d):%s setsockopt sndbuf fail, err[%d]:%s.\r\n",
                      getpid(), "ttylib_connect", errno, strerror(errno));
    }
    return fd;
}

static bool make_address(struct sockaddr_un *address)
{
    char path[ADMIN_PATH_SIZE];

    static_assert(sizeof path <= sizeof address->sun_path, "a path fits");
    if (tty_make_path(path, sizeof path, ADMIN_SOCKET) == nullptr) {
        return false;
    }
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path, path, sizeof path);
    return true;
}

int ttylib_connect(void)
{
    struct sockaddr_un address = {};

    const int fd = open_socket();
    if (fd < 0) {
        return -1;
    }
    if (!make_address(&address)) {
        close(fd);
        tty_debug_msg(0, "ttylib:%s make path fail\r\n", "ttylib_connect");
        return -1;
    }
    if (connect(fd, reinterpret_cast<const struct sockaddr *>(&address),
                sizeof address) != 0) {
        tty_debug_msg(0, "ttylib: sock connect fail, err[%d]:%s\n", errno,
                      strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

bool admin_enter(void)
{
    ttylib_enter();
    if (g_tty_update_fd < 0) {
        g_tty_update_fd = ttylib_connect();
    }
    if (g_tty_update_fd < 0) {
        ttylib_leave();
        return false;
    }
    return true;
}

void admin_append(admin_request *request, uint16_t type, uint32_t value)
{
    const admin_item item = {type, sizeof item.value, value};

    // No request has so many; one that had would lose its last items, not its
    // frame.
    if (sizeof request->bytes - request->used < sizeof item) {
        return;
    }
    memcpy(request->bytes + request->used, &item, sizeof item);
    request->used += static_cast<uint32_t>(sizeof item);
}

int admin_send(const admin_request *request)
{
    // The connection is kept also when it is broken, see above: every later
    // request fails here, too.
    if (tty_write(g_tty_update_fd, request->bytes,
                  static_cast<int>(request->used)) != -1) {
        return 0;
    }
    tty_debug_msg(0, "ttylib: msg send fail, err[%d]:%s\n", errno,
                  strerror(errno));
    return -1;
}
