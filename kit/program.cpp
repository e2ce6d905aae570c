// A program finds what a login gives it: a terminal of its own with line
// editing, default signals, no descriptor but 0 to 2, the limits, the mask, the
// directory and the environment of its user.
#include "kit/program.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <paths.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "common/search_path.h"
#include "kit/audit.h"
#include "kit/bell.h"
#include "kit/descriptors.h"
#include "kit/go.h"
#include "kit/identity.h"
#include "kit/keeping.h"
#include "kit/member.h"

constexpr int CANNOT_RUN = 127;
constexpr unsigned short USUAL_ROWS = 24;
constexpr unsigned short USUAL_COLUMNS = 80;
constexpr mode_t USUAL_MASK = 022;
constexpr mode_t TERMINAL_MODE = 0620;

// What the session service says of the line, and the language of the machine.
static const char *const KEPT[] = {"TTYNUM", "TTYTYPE", "PROTOCOL", "CONN_TYPE",
                                   "LANG",   "LC_ALL",  "TZ"};
constexpr size_t KEPT_COUNT = sizeof KEPT / sizeof *KEPT;

static struct rlimit g_descriptors;
static bool g_limits_kept;

void kit_program_keep_limits(void)
{
    g_limits_kept = getrlimit(RLIMIT_NOFILE, &g_descriptors) == 0;
}

[[noreturn]] static void give_up(const char *what, const char *reason)
{
    dprintf(STDERR_FILENO, "ttyline: %s: %s\r\n", what, reason);
    _exit(CANNOT_RUN);
}

static void default_signals(void)
{
    sigset_t none;

    for (const int number : KIT_IGNORED_SIGNALS) {
        signal(number, SIG_DFL);
    }
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

static void take_terminal(const char *device)
{
    setsid();
    const int fd = open(device, O_RDWR | O_NOCTTY);
    if (fd < 0 || ioctl(fd, TIOCSCTTY, 0) < 0) {
        give_up(device, strerror(errno));
    }
    for (int stream = 0; stream <= 2; stream++) {
        dup2(fd, stream);
    }
    if (fd > 2) {
        close(fd);
    }
}

// As a user expects it who has just sat down. IXOFF would put stop characters
// between the bytes for the peer.
void kit_program_make_terminal_sane(void)
{
    struct termios modes;
    struct winsize size = {};

    if (tcgetattr(0, &modes) == 0) {
        modes.c_iflag &= ~tcflag_t{IXOFF | IXANY | INLCR | IGNCR | ISTRIP};
        modes.c_iflag |= ICRNL | IXON;
        modes.c_oflag |= OPOST | ONLCR;
        modes.c_lflag |=
            ICANON | ISIG | IEXTEN | ECHO | ECHOE | ECHOK | ECHOCTL | ECHOKE;
        tcsetattr(0, TCSANOW, &modes);
    }
    if (ioctl(0, TIOCGWINSZ, &size) == 0 && size.ws_row == 0 &&
        size.ws_col == 0) {
        size.ws_row = USUAL_ROWS;
        size.ws_col = USUAL_COLUMNS;
        ioctl(0, TIOCSWINSZ, &size);
    }
}

// The terminal becomes the user's, as a login makes it.
static void become(const struct passwd *user)
{
    const struct group *tty = getgrnam("tty");

    if (fchown(0, user->pw_uid, tty != nullptr ? tty->gr_gid : user->pw_gid) !=
            0 ||
        fchmod(0, TERMINAL_MODE) != 0 ||
        initgroups(user->pw_name, user->pw_gid) != 0 ||
        setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0) {
        give_up(user->pw_name, strerror(errno));
    }
}

static void put_environment(const char *const *entries)
{
    for (; entries != nullptr && *entries != nullptr; entries++) {
        // The list is the caller's and stays: the environment may point to it.
        putenv(const_cast<char *>(*entries));
    }
}

// A function keeps the runtime directory, by which it reaches the line; a
// program would put its temporary files there.
static void set_environment(const kit_entry *entry, const struct passwd *user)
{
    const kit_service *service = entry->session.service;
    const char *directory =
        service->function != nullptr ? getenv("TMPDIR") : nullptr;
    const char *values[KEPT_COUNT];
    char family[12];

    for (size_t i = 0; i < KEPT_COUNT; i++) {
        values[i] = getenv(KEPT[i]);
    }
    clearenv();
    for (size_t i = 0; i < KEPT_COUNT; i++) {
        if (values[i] != nullptr) {
            setenv(KEPT[i], values[i], 1);
        }
    }
    // The service looks at the port alone and may have met the other family.
    (void)snprintf(family, sizeof family, "%d", entry->family);
    setenv("CONN_TYPE", family, 1);
    setenv("TERM", kit_identity_term(service), 1);
    setenv("PATH", geteuid() == 0 ? TTY_ROOT_PATH : TTY_USER_PATH, 1);
    if (user != nullptr) {
        setenv("USER", user->pw_name, 1);
        setenv("LOGNAME", user->pw_name, 1);
        setenv("HOME", user->pw_dir, 1);
        setenv("SHELL",
               user->pw_shell[0] != '\0' ? user->pw_shell : _PATH_BSHELL, 1);
    }
    if (directory != nullptr) {
        setenv("TMPDIR", directory, 1);
    }
    put_environment(service->environment);
}

static void enter_directory(const kit_service *service,
                            const struct passwd *user)
{
    const char *wanted = service->directory;

    if (wanted == nullptr && user != nullptr) {
        wanted = user->pw_dir;
    }
    if (wanted == nullptr || chdir(wanted) != 0) {
        const int ignored = chdir("/");
        static_cast<void>(ignored);
    }
}

[[noreturn]] static void run_program(const kit_service *service)
{
    const char *file = service->program[0];
    const char *first = service->argv0 != nullptr ? service->argv0 : file;
    size_t count = 1;

    while (service->program[count] != nullptr) {
        count++;
    }
    char **arguments =
        static_cast<char **>(calloc(count + 1, sizeof *arguments));
    if (arguments == nullptr) {
        give_up(file, "out of memory");
    }
    arguments[0] = const_cast<char *>(first);
    for (size_t i = 1; i < count; i++) {
        arguments[i] = const_cast<char *>(service->program[i]);
    }
    execvp(file, arguments);
    give_up(file, strerror(errno));
}

// What the daemon had printed and not yet written is not the session's.
[[noreturn]] static void run_function(const kit_entry *entry)
{
    const kit_service *service = entry->session.service;

    __fpurge(stdout);
    __fpurge(stdin);
    kit_member_open(entry->program_channel);
    const int result = service->function(&entry->session, service->context);
    (void)fflush(stdout);
    _exit(result);
}

void kit_program_run(const kit_entry *entry, const char *device, int go,
                     const struct passwd *user)
{
    const kit_service *service = entry->session.service;
    const int channel =
        service->function != nullptr ? entry->program_channel : -1;
    const int own[] = {channel, go, kit_audit_descriptor()};
    kit_entry *copy = const_cast<kit_entry *>(entry); // this process's

    take_terminal(device);
    default_signals();
    kit_close_all_but(own, sizeof own / sizeof *own);
    if (!kit_go_await(go, entry)) {
        _exit(CANNOT_RUN);
    }
    close(go);
    kit_audit_close();
    copy->session.pid = getpid();
    if (service->user != nullptr && user == nullptr) {
        give_up(service->user, "no such user");
    }
    if (g_limits_kept) {
        setrlimit(RLIMIT_NOFILE, &g_descriptors);
    }
    umask(USUAL_MASK);
    if (service->user != nullptr) {
        become(user);
    }
    set_environment(entry, user);
    enter_directory(service, user);
    if (service->function != nullptr) {
        run_function(entry);
    }
    run_program(service);
}
