#include "kit/member.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <ttyline/kit.h>
#include <ttyline/tty.h>

#include "kit/bell.h"
#include "kit/error.h"
#include "kit/table.h"
#include "kit/text.h"

// More than a session's function has opened when somebody logs in.
constexpr int MOST_NUMBERS = 1024;

static int g_channel = -1;

void kit_member_open(int channel)
{
    g_channel = channel;
}

int kit_descriptor(const kit_session *session)
{
    (void)session;
    return g_channel;
}

int kit_send(const kit_session *session, const void *data, size_t length)
{
    (void)session;
    if (length == 0 || length > CHANNEL_MOST) {
        return kit_fail("a message has 1 to %zu bytes", CHANNEL_MOST);
    }
    if (!kit_channel_put(g_channel, CHANNEL_DATA, data, length, true)) {
        return kit_fail("the daemon cannot be told: %s", strerror(errno));
    }
    return 0;
}

ssize_t kit_receive(const kit_session *session, void *buffer, size_t size)
{
    uint8_t kind;

    (void)session;
    for (;;) {
        struct pollfd watched = {g_channel, POLLIN, 0};
        const ssize_t got = kit_channel_take(g_channel, &kind, buffer, size);
        if (got >= 0) {
            return got;
        }
        if (got == -2) {
            return errno == EBADF ? kit_fail("this is no session") : 0;
        }
        poll(&watched, 1, -1);
    }
}

// A program that the function runs next is the user's: it must not speak to the
// administration daemon over the connection of the login daemon's user. The
// library keeps its number to itself.
static void keep_administration_from_programs(void)
{
    static const char END[] = "/mng/tty/.tty_rl";

    for (int fd = STDERR_FILENO + 1; fd < MOST_NUMBERS; fd++) {
        // Longer than a path, which need not have an end of its own.
        struct sockaddr_storage peer = {};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&peer),
                        &length) == 0 &&
            peer.ss_family == AF_UNIX &&
            strstr(reinterpret_cast<struct sockaddr_un *>(&peer)->sun_path,
                   END) != nullptr) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
}

// The library ends a process that does not ignore SIGPIPE when the
// administration daemon has gone: a session survives that.
static int audit_login(unsigned int line, bool success)
{
    struct sigaction ignore = {};
    struct sigaction before;

    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    const int result = tty_login_info_audit(line, success);
    sigaction(SIGPIPE, &before, nullptr);
    keep_administration_from_programs();
    return result;
}

int kit_login(const kit_session *session, const char *user, int success)
{
    const unsigned int line = static_cast<unsigned int>(session->line);
    const uint8_t kind = success != 0 ? CHANNEL_LOGIN : CHANNEL_REFUSED;
    char name[KIT_USER_SIZE];

    // What somebody calls himself is one line of a file and of a log.
    kit_plain(name, sizeof name, user);
    if (!kit_channel_put(g_channel, kind, name, strlen(name), true)) {
        return kit_fail("the daemon cannot be told: %s", strerror(errno));
    }
    if (tty_setenv(line, "LOGNAME", name) != 0) {
        return kit_fail("the name cannot be stored on line %u", line);
    }
    // Without an administration daemon the line knows it all the same.
    (void)audit_login(line, success != 0);
    return 0;
}
