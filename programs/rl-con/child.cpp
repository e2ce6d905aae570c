// A process that becomes the program of a terminal: exec alone would hand on
// signals, descriptors and variables of the one before.
#include "programs/rl-con/child.h"

#include <climits>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

// exec gives caught signals their default back, but ignored ones stay ignored
// and the mask stays as it is: a shell that ignores SIGINT is of little use.
static void reset_signals()
{
    for (int number = 1; number < NSIG; number++) {
        signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// The kernel may be older than close_range(), or a filter may refuse it.
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
    // The listing's own descriptor goes last: closing it ends the walk.
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
        // IXOFF would put stop characters between the bytes for the peer.
        modes.c_iflag &= ~tcflag_t{IXOFF | IXANY | INLCR | IGNCR};
        modes.c_oflag |= OPOST | ONLCR;
        modes.c_lflag |= ICANON | ISIG | IEXTEN | ECHO | ECHOE | ECHOK;
        tcsetattr(fd, TCSANOW, &modes);
    }
    // A terminal that has a size keeps it: a user sits in front of it.
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_row == 0 &&
        size.ws_col == 0) {
        size.ws_row = 24;
        size.ws_col = 80;
        ioctl(fd, TIOCSWINSZ, &size);
    }
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
