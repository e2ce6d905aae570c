// The process that asked for the password stays, with its rights, as the leader
// of the terminal's session, so that what PAM has opened is closed whatever the
// user does. His program is the foreground process group of that session; the
// kernel sends a hang-up to the leader and to whatever is in the foreground
// then, so the leader passes it on.
#include "programs/login/user.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <grp.h>
#include <paths.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/search_path.h"

constexpr time_t HANGUP_SECONDS = 3;
constexpr mode_t TERMINAL_MODE = 0620;
constexpr int CANNOT_RUN = 127;

bool login_find_user(const char *name, login_user *user)
{
    const passwd *found = getpwnam(name);

    if (found == nullptr) {
        return false;
    }
    *user = {found->pw_name, found->pw_dir,
             found->pw_shell[0] != '\0' ? found->pw_shell : _PATH_BSHELL,
             found->pw_uid, found->pw_gid};
    return true;
}

// Only root can be somebody else, and has checked who that is.
static void become(const login_user &user)
{
    if (geteuid() != 0) {
        return;
    }
    const group *tty = getgrnam("tty");
    if (fchown(STDIN_FILENO, user.uid,
               tty != nullptr ? tty->gr_gid : user.gid) != 0 ||
        fchmod(STDIN_FILENO, TERMINAL_MODE) != 0 || setgid(user.gid) != 0 ||
        setuid(user.uid) != 0) {
        err(CANNOT_RUN, "%s", user.name.c_str());
    }
}

// The directory of the lines is the daemon's, and nothing for a user's
// temporary files.
static void set_environment(const login_user &user, char *const *more)
{
    unsetenv("TMPDIR");
    setenv("USER", user.name.c_str(), 1);
    setenv("LOGNAME", user.name.c_str(), 1);
    setenv("HOME", user.home.c_str(), 1);
    setenv("SHELL", user.shell.c_str(), 1);
    setenv("PATH", user.uid == 0 ? TTY_ROOT_PATH : TTY_USER_PATH, 1);
    for (; more != nullptr && *more != nullptr; more++) {
        putenv(*more);
    }
}

static void go_home(const login_user &user)
{
    if (chdir(user.home.c_str()) == 0) {
        return;
    }
    warn("%s", user.home.c_str());
    if (chdir("/") != 0) {
        warn("/");
    }
}

// A shell is a login shell when its own name begins with a dash.
[[noreturn]] static void execute(const login_user &user,
                                 const char *const *program)
{
    if (program != nullptr) {
        execvp(program[0], const_cast<char *const *>(program));
        err(CANNOT_RUN, "%s", program[0]);
    }
    const std::string name = "-" + user.shell.substr(user.shell.rfind('/') + 1);
    execl(user.shell.c_str(), name.c_str(), nullptr);
    err(CANNOT_RUN, "%s", user.shell.c_str());
}

// Signals that the waiting process takes one by one.
static sigset_t awaited()
{
    sigset_t set;

    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGTERM);
    return set;
}

// In the foreground before it runs: it would be stopped for its first word.
static void take_foreground()
{
    signal(SIGTTOU, SIG_IGN);
    setpgid(0, 0);
    tcsetpgrp(STDIN_FILENO, getpgrp());
    signal(SIGTTOU, SIG_DFL);
}

// What this process does not hear is not ignored by the user's programs.
static void hear_all_signals()
{
    sigset_t none;

    for (const int number : {SIGINT, SIGQUIT, SIGTSTP}) {
        signal(number, SIG_DFL);
    }
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] static void run(const login_user &user, const char *const *program,
                             char *const *environment)
{
    take_foreground();
    hear_all_signals();
    become(user);
    set_environment(user, environment);
    go_home(user);
    execute(user, program);
}

// The program with its group, which it can leave for another one of its
// session: as nobody has waited for it, its number is its own.
static void signal_both(pid_t program, int number)
{
    kill(-program, number);
    if (getpgid(program) != program) {
        kill(program, number);
    }
}

// What is stopped has to go on to be hung up.
static void hang_up(pid_t program)
{
    signal_both(program, SIGHUP);
    signal_both(program, SIGCONT);
}

static int wait_for(pid_t program, const sigset_t *set)
{
    const timespec patience = {HANGUP_SECONDS, 0};
    bool hung_up = false;
    int status = -1;

    while (waitpid(program, &status, WNOHANG) == 0) {
        const int number =
            sigtimedwait(set, nullptr, hung_up ? &patience : nullptr);
        if (number == SIGHUP || number == SIGTERM) {
            hang_up(program);
            hung_up = true;
        } else if (number < 0 && errno == EAGAIN) {
            signal_both(program, SIGKILL);
            hung_up = false;
        }
    }
    return status;
}

int login_run_program(const login_user &user, const char *const *program,
                      char *const *environment)
{
    const sigset_t set = awaited();
    sigset_t before;

    sigprocmask(SIG_BLOCK, &set, &before);
    const pid_t pid = fork();
    if (pid == 0) {
        run(user, program, environment);
    }
    if (pid < 0) {
        warn("fork");
    } else {
        // Both do it: a hang-up may come before the other's turn.
        setpgid(pid, pid);
    }
    const int status = pid > 0 ? wait_for(pid, &set) : -1;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return status;
}
