#include "programs/shared/session_child.h"

#include <arpa/inet.h>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <ttyline/vc.h>

/*
 * exec gives caught signals their default back, but ignored ones stay ignored
 * and the mask stays as it is: a shell that ignores SIGINT is of little use.
 */
static void reset_signals()
{
    for (int number = 1; number < NSIG; number++) {
        signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/* The kernel may be older than close_range(), or a filter may refuse it. */
static bool close_range_from(int lowest)
{
#ifdef SYS_close_range
    return syscall(SYS_close_range, static_cast<unsigned>(lowest), UINT_MAX,
                   0u) == 0;
#else
    (void)lowest;
    return false;
#endif
}

void close_listed_descriptors(int lowest)
{
    DIR *listing = opendir("/proc/self/fd");
    if (listing == nullptr) {
        long limit = sysconf(_SC_OPEN_MAX);
        for (int fd = lowest; fd < limit; fd++) {
            close(fd);
        }
        return;
    }
    /* The listing's own descriptor goes last: closing it ends the walk. */
    for (dirent *entry; (entry = readdir(listing)) != nullptr;) {
        int fd = static_cast<int>(strtol(entry->d_name, nullptr, 10));
        if (fd >= lowest && fd != dirfd(listing)) {
            close(fd);
        }
    }
    closedir(listing);
}

void close_descriptors_from(int lowest)
{
    if (!close_range_from(lowest)) {
        close_listed_descriptors(lowest);
    }
}

void clean_environment(const char *term)
{
    static const char *const kept[] = {
        "PATH",   "HOME",   "SHELL",   "USER",     "LOGNAME",  "LANG",
        "TMPDIR", "TTYNUM", "TTYTYPE", "PROTOCOL", "CONN_TYPE"};
    std::vector<std::pair<const char *, std::string>> values;

    for (const char *name : kept) {
        if (const char *value = getenv(name)) {
            values.emplace_back(name, value);
        }
    }
    clearenv();
    setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
    for (const auto &[name, value] : values) {
        setenv(name, value.c_str(), 1);
    }
    setenv("TERM", term, 1);
}

void prepare_session_child(const char *term)
{
    reset_signals();
    umask(022);
    close_descriptors_from(3);
    clean_environment(term);
}

void make_terminal_sane(int fd)
{
    termios modes;
    winsize size = {};

    if (tcgetattr(fd, &modes) == 0) {
        modes.c_iflag |= ICRNL | IXON;
        /* IXOFF would put stop characters between the bytes for the peer. */
        modes.c_iflag &= ~tcflag_t{IXOFF | IXANY | INLCR | IGNCR};
        modes.c_oflag |= OPOST | ONLCR;
        modes.c_lflag |= ICANON | ISIG | IEXTEN | ECHO | ECHOE | ECHOK;
        tcsetattr(fd, TCSANOW, &modes);
    }
    /* A terminal that has a size keeps it: a user sits in front of it. */
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_row == 0 &&
        size.ws_col == 0) {
        size.ws_row = 24;
        size.ws_col = 80;
        ioctl(fd, TIOCSWINSZ, &size);
    }
}

/* IPv4 takes its IPv6-mapped form, so that one comparison serves both. */
static void map_ipv4(const void *ipv4, uint8_t address[16])
{
    memset(address, 0, 10);
    memset(address + 10, 0xff, 2);
    memcpy(address + 12, ipv4, 4);
}

static bool parse_bits(const char *text, unsigned highest, unsigned &bits)
{
    char *end = nullptr;

    if (*text < '0' || *text > '9') {
        return false;
    }
    unsigned long number = strtoul(text, &end, 10);
    bits = static_cast<unsigned>(number);
    return *end == '\0' && number <= highest;
}

bool parse_allow_entry(const char *text, allow_entry &entry)
{
    const char *slash = strchr(text, '/');
    std::string address =
        slash != nullptr ? std::string(text, slash) : std::string(text);
    in_addr ipv4;
    unsigned mapped = 0;

    if (inet_pton(AF_INET, address.c_str(), &ipv4) == 1) {
        map_ipv4(&ipv4, entry.address);
        mapped = 96;
    } else if (inet_pton(AF_INET6, address.c_str(), entry.address) != 1) {
        return false;
    }
    entry.bits = 128 - mapped;
    if (slash != nullptr && !parse_bits(slash + 1, 128 - mapped, entry.bits)) {
        return false;
    }
    entry.bits += mapped;
    return true;
}

static bool covers(const allow_entry &entry, const uint8_t address[16])
{
    unsigned whole = entry.bits / 8;
    unsigned rest = entry.bits % 8;

    if (memcmp(entry.address, address, whole) != 0) {
        return false;
    }
    return rest == 0 ||
           (entry.address[whole] ^ address[whole]) >> (8 - rest) == 0;
}

bool allow_list_permits(const std::vector<allow_entry> &list,
                        const sockaddr *peer)
{
    uint8_t address[16];
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;

    if (list.empty()) {
        return true;
    }
    if (peer->sa_family == AF_INET) {
        memcpy(&ipv4, peer, sizeof ipv4);
        map_ipv4(&ipv4.sin_addr, address);
    } else if (peer->sa_family == AF_INET6) {
        memcpy(&ipv6, peer, sizeof ipv6);
        memcpy(address, &ipv6.sin6_addr, sizeof address);
    } else {
        return false;
    }
    for (const allow_entry &entry : list) {
        if (covers(entry, address)) {
            return true;
        }
    }
    return false;
}

std::string user_shell()
{
    const char *shell = getenv("SHELL");

    if (shell != nullptr && *shell != '\0') {
        return shell;
    }
    const passwd *user = getpwuid(getuid());
    if (user != nullptr && user->pw_shell != nullptr &&
        *user->pw_shell != '\0') {
        return user->pw_shell;
    }
    return "/bin/sh";
}

/*
 * The levels are those of syslog; a number outside their range would select
 * another facility. The kind has no counterpart there.
 */
void printk_syslog_ext(int level, const char *module, const char *tag, int kind,
                       const char *fmt, ...)
{
    char text[2048];
    va_list args;

    (void)kind;
    va_start(args, fmt);
    /* Started one line above; the analyser of clang 14 does not see it. */
    /* NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized) */
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    bool known = level >= LOG_EMERG && level <= LOG_DEBUG;
    syslog(known ? level : LOG_DEBUG, "%s/%s: %s", module, tag, text);
}
