// SIGINT is blocked except while a line is waited for, where ppoll() lets it
// in: Ctrl-C at any other moment is kept and takes effect at the next wait,
// so none is lost between the prompt and the read. As it also empties the
// terminal's input, the read after the wait may find nothing: it must not
// block, on a descriptor whose mode no other program shares.
#include "programs/rl-con/terminal.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "programs/rl-con/child.h"

constexpr mode_t USUAL_UMASK = 022;
constexpr int EXEC_FAILED = 127;

static volatile sig_atomic_t g_interrupted;

static void note_interrupt(int number)
{
    (void)number;
    g_interrupted = 1;
}

static sigset_t interrupts()
{
    sigset_t set;

    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGQUIT);
    return set;
}

static void keep_interrupts()
{
    struct sigaction action = {};
    const sigset_t kept = interrupts();

    action.sa_handler = note_interrupt;
    sigemptyset(&action.sa_mask);
    sigprocmask(SIG_BLOCK, &kept, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGQUIT, &action, nullptr);
    // A request to a daemon that has gone is an error, not the end.
    signal(SIGPIPE, SIG_IGN);
}

// Storing a key leaves the mask at 0, in the session child before this program
// was started as well as later in this one. Any other mask is the user's.
static mode_t choose_umask()
{
    const mode_t given = umask(USUAL_UMASK);

    return given == 0 ? USUAL_UMASK : given;
}

// A device that cannot be opened once more is read as it is.
static int open_own()
{
    const char *device = ttyname(STDIN_FILENO);
    const int fd =
        device == nullptr
            ? -1
            : open(device, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);

    return fd < 0 ? STDIN_FILENO : fd;
}

void terminal_begin(terminal &t)
{
    const char *type = getenv("TERM");

    t.type = type != nullptr && *type != '\0' ? type : "vt100";
    t.shell_umask = choose_umask();
    t.held.clear();
    t.taken = 0;
    t.after_return = false;
    prepare_session_child(t.type.c_str());
    keep_interrupts();
    t.has_modes = tcgetattr(STDIN_FILENO, &t.found) == 0;
    if (t.has_modes) {
        make_terminal_sane(STDIN_FILENO);
        t.has_modes = tcgetattr(STDIN_FILENO, &t.usual) == 0;
    }
    t.fd = t.has_modes ? open_own() : STDIN_FILENO;
}

void terminal_end(terminal &t)
{
    if (t.has_modes) {
        tcsetattr(STDIN_FILENO, TCSANOW, &t.found);
    }
    if (t.fd != STDIN_FILENO) {
        close(t.fd);
        t.fd = STDIN_FILENO;
    }
}

// False when the user has interrupted, before or during the wait.
static bool wait_for_input(int fd)
{
    pollfd watched = {fd, POLLIN, 0};
    sigset_t none;

    // No other signal is blocked.
    sigemptyset(&none);
    g_interrupted = 0;
    while (ppoll(&watched, 1, nullptr, &none) < 0 && errno == EINTR) {
        if (g_interrupted != 0) {
            return false;
        }
    }
    return true;
}

// A terminal gives a line at a time, and a line in pieces would mix with the
// next one when Ctrl-C throws the rest of it away. Elsewhere what follows the
// line may be meant for the shell.
static typed read_more(terminal &t)
{
    char bytes[TYPED_LINE_MAX];
    const size_t most = t.has_modes ? sizeof bytes : 1;

    for (;;) {
        if (!wait_for_input(t.fd)) {
            return typed::interrupted;
        }
        const ssize_t got = read(t.fd, bytes, most);
        if (got >= 0) {
            t.held.assign(bytes, static_cast<size_t>(got));
            t.taken = 0;
            return got > 0 ? typed::line : typed::end;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return typed::failure;
        }
    }
}

// typed::line says that there is a byte.
static typed take_byte(terminal &t, char &byte)
{
    if (t.taken == t.held.size()) {
        const typed result = read_more(t);
        if (result != typed::line) {
            return result;
        }
    }
    byte = t.held[t.taken++];
    return typed::line;
}

// What was typed before the terminal had its usual modes ends in carriage
// returns that nobody has translated; the line feed after one is no line.
static bool second_half_of_end(terminal &t, char byte)
{
    const bool after_return = t.after_return;

    t.after_return = byte == '\r';
    return after_return && byte == '\n';
}

typed terminal_read_line(terminal &t, std::string &line)
{
    char byte = 0;

    line.clear();
    for (;;) {
        const typed result = take_byte(t, byte);
        if (result == typed::end && !line.empty()) {
            byte = '\n';
        } else if (result != typed::line) {
            return result;
        }
        if (second_half_of_end(t, byte)) {
            continue;
        }
        if (byte == '\n' || byte == '\r') {
            return line.size() > TYPED_LINE_MAX ? typed::too_long : typed::line;
        }
        if (line.size() <= TYPED_LINE_MAX) {
            line += byte;
        }
    }
}

// Whoever does this from the background would be stopped for it.
static void set_foreground(pid_t group)
{
    sigset_t set;
    sigset_t before;

    sigemptyset(&set);
    sigaddset(&set, SIGTTOU);
    sigprocmask(SIG_BLOCK, &set, &before);
    tcsetpgrp(STDIN_FILENO, group);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

// Parent and child both do it, as either may be the first to need it.
static void put_in_front(pid_t child)
{
    setpgid(child, child);
    set_foreground(child);
}

[[noreturn]] static void become_shell(const terminal &t, bool with_jobs)
{
    if (with_jobs) {
        put_in_front(getpid());
    }
    prepare_session_child(t.type.c_str());
    umask(t.shell_umask);
    const std::string shell = user_shell();
    execlp(shell.c_str(), shell.c_str(), static_cast<char *>(nullptr));
    warn("cannot run %s", shell.c_str());
    _exit(EXEC_FAILED);
}

// There is no command that would continue a stopped shell later, so it is
// continued at once.
static void wait_for_shell(pid_t child, bool with_jobs)
{
    int status = 0;

    for (;;) {
        const pid_t got = waitpid(child, &status, with_jobs ? WUNTRACED : 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 || !WIFSTOPPED(status)) {
            return;
        }
        set_foreground(child);
        kill(-child, SIGCONT);
    }
}

bool terminal_run_shell(const terminal &t)
{
    const pid_t own_group = getpgrp();
    const bool with_jobs = tcgetpgrp(STDIN_FILENO) == own_group;

    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        return false;
    }
    if (child == 0) {
        become_shell(t, with_jobs);
    }
    if (with_jobs) {
        put_in_front(child);
    }
    wait_for_shell(child, with_jobs);
    if (with_jobs) {
        set_foreground(own_group);
    }
    if (t.has_modes) {
        tcsetattr(STDIN_FILENO, TCSANOW, &t.usual);
    }
    return true;
}
