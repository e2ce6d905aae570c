// Lines are datagrams on a socket that is opened beforehand. syslog(3) would
// not do: it takes a lock, which another thread may hold when a session's
// process is forked, and the session service calls its hook from a signal
// handler too. They carry no time: to say it needs the time zone and its lock,
// and whoever receives them stamps them.
#include "kit/audit.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <ttyline/vc.h>

constexpr size_t LINE_SIZE = 1024;
constexpr size_t NAME_SIZE = 32;

static int g_socket = -1;
static char g_name[NAME_SIZE] = "ttyline";

static const struct sockaddr_un LOG_ADDRESS = {AF_UNIX, "/dev/log"};

void kit_audit_open(const char *daemon)
{
    (void)snprintf(g_name, sizeof g_name, "%s", daemon);
    if (g_socket < 0) {
        g_socket =
            socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    }
}

int kit_audit_descriptor(void)
{
    return g_socket;
}

void kit_audit_close(void)
{
    close(g_socket);
    g_socket = -1;
}

// Named with each line, and never connected: the log may be started anew.
__attribute__((format(printf, 3, 0))) static void
send_line(int priority, const char *module, const char *fmt, va_list args)
{
    const int saved_errno = errno;
    char line[LINE_SIZE];

    int length = snprintf(line, sizeof line, "<%d>%s[%d]: %s", priority, g_name,
                          getpid(), module);
    length += vsnprintf(line + length,
                        sizeof line - static_cast<size_t>(length), fmt, args);
    size_t size = static_cast<size_t>(length) < sizeof line
                      ? static_cast<size_t>(length)
                      : sizeof line - 1;
    // The session service's lines bring their own ends.
    while (line[size - 1] == '\n' || line[size - 1] == '\r') {
        size--;
    }
    sendto(g_socket, line, size, MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const struct sockaddr *>(&LOG_ADDRESS),
           sizeof LOG_ADDRESS);
    errno = saved_errno;
}

void kit_audit(const char *fmt, ...)
{
    va_list args;

    va_start(args, fmt);
    send_line(LOG_AUTH | LOG_INFO, "", fmt, args);
    va_end(args);
}

// The session service's last resort when its dump log cannot be opened, which
// it may also ask for inside its SIGCHLD handler: nothing here locks or
// allocates. Weak, as a device may bring a hook of its own.
__attribute__((weak)) void printk_syslog_ext(int level, const char *module,
                                             const char *tag, int kind,
                                             const char *fmt, ...)
{
    char name[2 * NAME_SIZE];
    va_list args;

    (void)kind;
    (void)snprintf(name, sizeof name, "%s/%s: ", module, tag);
    const bool known = level >= LOG_EMERG && level <= LOG_DEBUG;
    va_start(args, fmt);
    send_line(LOG_DAEMON | (known ? level : LOG_DEBUG), name, fmt, args);
    va_end(args);
}
