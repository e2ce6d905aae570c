// How a keeper begins: it lets go of everything that is not its session's,
// forks the program, and lets that go on when the line says whose it is.
#include "kit/keeping.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kit/audit.h"
#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/descriptors.h"
#include "kit/go.h"
#include "kit/identity.h"
#include "kit/program.h"

static void forget_signals(void)
{
    sigset_t none;

    for (int number = 1; number < NSIG; number++) {
        signal(number, SIG_DFL);
    }
    for (const int number : KIT_IGNORED_SIGNALS) {
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

// Where the codec wants to hear of urgent data that keeps its place among the
// rest. It has none on a unix path, and would be reported over and over.
static bool keep_urgent_in_place(const kit_entry *entry)
{
    const kit_codec *codec = entry->session.service->codec;
    int on = 1;

    return codec != nullptr && codec->urgent != nullptr &&
           entry->family != AF_UNIX &&
           setsockopt(entry->connection, SOL_SOCKET, SO_OOBINLINE, &on,
                      sizeof on) == 0;
}

// The terminal is given up first: it can be the controlling one of one session
// only. That sends a hang-up to this process, which ignores it.
// Returns the end over which it is let go, -1 when there is no program.
static int start_program(keeper *k, const char *device,
                         const struct passwd *user)
{
    int go[2];

    if (!kit_go_open(go)) {
        return -1;
    }
    kit_program_make_terminal_sane();
    ioctl(0, TIOCNOTTY);
    k->program = fork();
    if (k->program == 0) {
        close(go[1]);
        kit_program_run(k->entry, device, go[0], user);
    }
    close(go[0]);
    if (k->program < 0) {
        close(go[1]);
        return -1;
    }
    return go[1];
}

// What nobody lets go ends by itself.
static void let_program_go(keeper *k, int go)
{
    char reason[BELL_TEXT_SIZE];

    k->dismissed = k->dismissed || k->relay.peer_gone;
    if (!k->dismissed && !kit_go_let(go, reason, sizeof reason)) {
        (void)snprintf(k->reason, sizeof k->reason, "no session: %.*s",
                       static_cast<int>(sizeof k->reason - 16), reason);
        k->dismissed = true;
    }
    close(go);
    if (!k->dismissed) {
        kit_bell_say(k->bell, BELL_PROGRAM, 0, "");
    }
}

// What the terminal and the program need is theirs alone now.
static void let_go_of_program(const keeper *k)
{
    char name[16];

    (void)snprintf(name, sizeof name, "keeper %d", k->entry->session.line);
    prctl(PR_SET_NAME, name);
    replace_standard_streams();
    close(k->entry->program_channel);
}

// Known from here on to the keeper and to what it forks.
static void note_terminal(const kit_entry *entry, const char *device,
                          const struct passwd *user)
{
    kit_entry *own = const_cast<kit_entry *>(entry); // this process's copy

    (void)snprintf(own->device, sizeof own->device, "%s", device);
    const bool known =
        user != nullptr && entry->session.service->asks_user == 0;
    (void)snprintf(own->user, sizeof own->user, "%s",
                   known ? user->pw_name : "");
    own->session.keeper_pid = getpid();
}

// Before the first byte of the peer. What cannot be confined serves nobody.
static void confine(keeper *k)
{
    const kit_service *service = k->entry->session.service;

    if (service->confine == nullptr) {
        return;
    }
    if (service->confine(&k->entry->session, service->context) == 0) {
        // A socket without a peer can send to whom it likes.
        kit_audit_close();
    } else {
        kit_audit("not-confined line=%d id=%s", k->entry->session.line,
                  k->entry->id);
        (void)snprintf(k->reason, sizeof k->reason,
                       "no session: it cannot be kept safely");
        k->dismissed = true;
    }
}

static void open_relay(keeper *k)
{
    const kit_entry *entry = k->entry;

    set_connection(entry);
    kit_relay_open(&k->relay, entry->connection, entry->master,
                   entry->session.service->codec, &entry->session);
    k->relay.hears_urgent = keep_urgent_in_place(entry);
    k->still_since = kit_now_ms();
}

void kit_keeping_begin(keeper *k, const kit_entry *entry, const char *device)
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
    // Looked up once a session: the record stays until another one is.
    const struct passwd *user = kit_identity_user(entry->session.service);
    note_terminal(entry, device, user);
    const int go = k->signals < 0 ? -1 : start_program(k, device, user);
    if (go < 0) {
        _exit(1);
    }
    let_go_of_program(k);
    kit_bell_say(k->bell, BELL_TERMINAL, k->program, device);
    kit_bell_say(k->bell, BELL_USER, 0, entry->user);
    open_relay(k);
    confine(k);
    if (!k->dismissed) {
        kit_keeping_await_terminal(k);
    }
    let_program_go(k, go);
}
