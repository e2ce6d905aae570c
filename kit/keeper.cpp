// The child that the session service forks is never the program. It gives the
// terminal up to a program of its own, moves the data, and ends when the
// program's last output was taken or nothing moves any more. Its end is the
// session's end: whatever ends the keeper hangs the program up, as the kernel
// does when the last master of a terminal is closed.
#include "kit/keeper.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kit/audit.h"
#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/descriptors.h"
#include "kit/identity.h"
#include "kit/keeping.h"
#include "kit/program.h"
#include "kit/text.h"

// The end of input is typed again for a program that was not there yet, or that
// threw it away by a change of modes: after this time, and each time after
// twice as long. What is printed within this time of it may be nothing but its
// echo.
constexpr int64_t END_AGAIN_MS = 100;
constexpr int64_t QUIET_LOOK_MS = 100;

// One a process; not on the stack of whatever thread was forked.
static keeper g_keeper;

static void forget_signals(void)
{
    static const int IGNORED[] = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE};
    sigset_t none;

    for (int number = 1; number < NSIG; number++) {
        signal(number, SIG_DFL);
    }
    for (const int number : IGNORED) {
        signal(number, SIG_IGN);
    }
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

static int open_signals(void)
{
    sigset_t heard;

    sigemptyset(&heard);
    sigaddset(&heard, SIGCHLD);
    sigaddset(&heard, SIGTERM);
    sigprocmask(SIG_SETMASK, &heard, nullptr);
    return signalfd(-1, &heard, SFD_CLOEXEC | SFD_NONBLOCK);
}

// Everything of the daemon's and of other sessions goes. A number that stays
// open here would keep somebody else's connection from ending.
static void keep_own_descriptors(const kit_entry *entry)
{
    const int own[] = {entry->connection, entry->master, entry->keeper_bell,
                       entry->program_channel, kit_audit_descriptor()};

    kit_close_all_but(own, sizeof own / sizeof *own);
}

static void replace_standard_streams(void)
{
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC | O_NOCTTY);

    for (int fd = 0; fd <= 2; fd++) {
        if (null >= 0) {
            dup2(null, fd);
        } else {
            close(fd);
        }
    }
    if (null > 2) {
        close(null);
    }
}

// A keystroke must not wait for the answer to the one before.
static void set_connection(const kit_entry *entry)
{
    int on = 1;

    if (entry->family == AF_UNIX) {
        return;
    }
    setsockopt(entry->connection, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(entry->connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// The terminal is given up first: it can be the controlling one of one session
// only. That sends a hang-up to this process, which ignores it.
// Returns the pipe over which it is let go, -1 when there is no program.
static int start_program(keeper *k, const char *device)
{
    int go[2];

    if (pipe2(go, O_CLOEXEC) != 0) {
        return -1;
    }
    kit_program_make_terminal_sane();
    ioctl(0, TIOCNOTTY);
    k->program = fork();
    if (k->program == 0) {
        close(go[1]);
        kit_program_run(k->entry, device, go[0]);
    }
    close(go[0]);
    if (k->program < 0) {
        close(go[1]);
        return -1;
    }
    return go[1];
}

// Whoever is to free a full disk, or mend a broken one, has to come in first.
static bool go_without_identity(const kit_entry *entry, int error)
{
    char reason[3 * BELL_TEXT_SIZE];

    if (error != ENOSPC && error != EDQUOT && error != EROFS && error != EIO) {
        return false;
    }
    kit_audit("no-identity line=%d id=%s reason=%s", entry->session.line,
              entry->id, kit_word(reason, sizeof reason, kit_error()));
    return true;
}

// What nobody lets go ends by itself.
static void let_program_go(keeper *k, int go)
{
    if (kit_identity_store(k->entry, k->program) != 0 &&
        !go_without_identity(k->entry, errno)) {
        (void)snprintf(k->reason, sizeof k->reason, "no session: %s",
                       kit_error());
        k->dismissed = true;
    } else if (write(go, "g", 1) != 1) {
        k->dismissed = true;
    }
    close(go);
}

static void note_program(keeper *k, const char *device)
{
    char name[16];

    (void)snprintf(name, sizeof name, "keeper %d", k->entry->session.line);
    prctl(PR_SET_NAME, name);
    replace_standard_streams();
    close(k->entry->program_channel);
    if (!k->dismissed) {
        kit_bell_say(k->bell, BELL_USER, 0, k->entry->user);
        kit_bell_say(k->bell, BELL_PROGRAM, k->program, device);
    }
}

// Known from here on to the keeper and to what it forks.
static void note_terminal(const kit_entry *entry, const char *device)
{
    kit_entry *own = const_cast<kit_entry *>(entry); // this process's copy
    const struct passwd *user = kit_identity_user(entry->session.service);

    (void)snprintf(own->device, sizeof own->device, "%s", device);
    (void)snprintf(own->user, sizeof own->user, "%s",
                   user != nullptr ? user->pw_name : "");
    own->session.keeper_pid = getpid();
}

static void begin(keeper *k, const kit_entry *entry, const char *device)
{
    k->entry = entry;
    k->bell = entry->keeper_bell;
    k->status = -1;
    forget_signals();
    keep_own_descriptors(entry);
    // Of what the program leaves behind nothing may escape: see finish().
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    k->signals = open_signals();
    kit_bell_say(k->bell, BELL_RUNS, getpid(), "");
    note_terminal(entry, device);
    const int go = k->signals < 0 ? -1 : start_program(k, device);
    if (go < 0) {
        _exit(1);
    }
    let_program_go(k, go);
    note_program(k, device);
    set_connection(entry);
    kit_relay_open(&k->relay, entry->connection, entry->master,
                   entry->session.service->codec, &entry->session);
    k->still_since = kit_now_ms();
}

// Other children are what the program has left. Its own number must not become
// another's before its session is over, as they are found by it: it is reaped
// last. Being the eldest, it hides them then.
static void reap(keeper *k)
{
    for (;;) {
        siginfo_t child = {};
        if (waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            child.si_pid == 0) {
            return;
        }
        if (child.si_pid == k->program) {
            k->program_ended = true;
            return;
        }
        waitpid(child.si_pid, nullptr, 0);
    }
}

static void dismiss(keeper *k, const char *reason)
{
    k->dismissed = true;
    (void)snprintf(k->reason, sizeof k->reason, "%s", reason);
}

void kit_keeping_take_signals(keeper *k)
{
    struct signalfd_siginfo signal;

    while (read(k->signals, &signal, sizeof signal) ==
           static_cast<ssize_t>(sizeof signal)) {
        if (signal.ssi_signo == SIGTERM) {
            dismiss(k, "this session was ended");
        }
    }
    reap(k);
}

void kit_keeping_take_bell(keeper *k)
{
    bell_message message;
    int heard;

    while ((heard = kit_bell_hear(k->bell, &message)) > 0) {
        if (message.kind == BELL_END) {
            dismiss(k, message.text);
        }
    }
    if (heard < 0 && !k->dismissed) {
        dismiss(k, "");
    }
}

static void sooner(int64_t *timeout, int64_t candidate)
{
    if (candidate < 0) {
        candidate = 0;
    }
    if (*timeout < 0 || candidate < *timeout) {
        *timeout = candidate;
    }
}

// How long the session may go on standing still; -1: for ever.
static int64_t patience(const keeper *k)
{
    const kit_service *service = k->entry->session.service;

    if (k->program_ended) {
        return kit_keeping_limit(service->drain_ms, KIT_DRAIN_MS);
    }
    if (k->relay.peer_ended || k->relay.peer_ending) {
        return kit_keeping_limit(service->half_close_ms, KIT_HALF_CLOSE_MS);
    }
    return service->idle_ms > 0 ? int64_t{service->idle_ms} : -1;
}

static int time_to_wait(const keeper *k)
{
    const int64_t limit = patience(k);
    const int64_t now = kit_now_ms();
    int64_t timeout = -1;

    if (limit >= 0) {
        sooner(&timeout, k->still_since + limit - now);
    }
    if (k->relay.peer_ended && !k->program_ended) {
        sooner(&timeout, k->end_again - now);
    }
    if (k->relay.terminal_quiet && !k->program_ended) {
        sooner(&timeout, QUIET_LOOK_MS);
    }
    return static_cast<int>(timeout < INT_MAX ? timeout : INT_MAX);
}

// The end of input counts as typed anew while nothing moves: whoever reads the
// terminal next has to see it.
static void pass_on_end_of_input(keeper *k)
{
    const int64_t now = kit_now_ms();

    if (!k->relay.peer_ended || k->program_ended || now < k->end_again) {
        return;
    }
    if (kit_relay_type_end(&k->relay)) {
        k->end_pause = k->end_typed != 0 ? 2 * k->end_pause : END_AGAIN_MS;
        k->end_typed = now;
        k->end_again = now + k->end_pause;
    } else {
        k->end_again = now + END_AGAIN_MS;
    }
}

// A program that only echoes what is typed for its peer stands still.
static void note_movement(keeper *k)
{
    const int64_t now = kit_now_ms();
    const bool echo = k->end_typed != 0 && !k->program_ended &&
                      now - k->end_typed < END_AGAIN_MS;

    if (k->relay.moved && !echo) {
        k->still_since = now;
    }
}

static void turn(keeper *k)
{
    enum { CONNECTION, MASTER, BELL, SIGNALS, COUNT };
    struct pollfd watched[COUNT] = {};

    kit_relay_want(&k->relay, &watched[CONNECTION], &watched[MASTER]);
    watched[BELL] = {k->bell, POLLIN, 0};
    watched[SIGNALS] = {k->signals, POLLIN, 0};
    if (k->program_ended) {
        watched[MASTER].fd = -1;
    }
    if (poll(watched, COUNT, time_to_wait(k)) < 0) {
        return;
    }
    k->relay.moved = false;
    kit_relay_move(&k->relay, &watched[CONNECTION], &watched[MASTER]);
    if (watched[BELL].revents != 0) {
        kit_keeping_take_bell(k);
    }
    if (watched[SIGNALS].revents != 0) {
        kit_keeping_take_signals(k);
    }
    if (k->program_ended) {
        kit_relay_finish_terminal(&k->relay);
    }
    note_movement(k);
    pass_on_end_of_input(k);
}

static bool in_full_swing(const keeper *k)
{
    return !k->program_ended && !k->relay.peer_ended && !k->relay.peer_ending;
}

static bool over(keeper *k)
{
    if (k->dismissed || k->relay.peer_gone) {
        return true;
    }
    if (k->program_ended && k->relay.terminal_ended &&
        kit_relay_delivered(&k->relay)) {
        return true;
    }
    const int64_t limit = patience(k);
    if (limit < 0 || kit_now_ms() - k->still_since < limit) {
        return false;
    }
    if (in_full_swing(k)) {
        dismiss(k, "nothing has moved for too long");
    }
    return true;
}

int kit_keep(const kit_entry *entry, const char *device)
{
    keeper *k = &g_keeper;

    begin(k, entry, device);
    while (!over(k)) {
        turn(k);
    }
    kit_keeping_finish(k);
}
