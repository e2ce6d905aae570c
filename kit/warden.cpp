// The thread uses neither stdio nor syslog(3): the loop's thread forks, and a
// lock that is held at that moment stays locked in the child. All signals are
// blocked in it: SIGHUP is aimed at the loop's thread, and a SIGCHLD handled
// here would reap the child but interrupt the wait of this thread instead of
// the loop's.
#include "kit/warden.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "common/notify.h"
#include "kit/audit.h"
#include "kit/clock.h"
#include "kit/control.h"
#include "kit/error.h"
#include "kit/leftover.h"
#include "kit/listening.h"
#include "kit/paths.h"
#include "kit/unrelayed.h"
#include "kit/watchdog.h"

// How long sessions have to end when the daemon does, unless a service says
// otherwise, and how long keepers have to clean up when their programs were
// ended by force.
constexpr int64_t FAREWELL_MS = 2000;
constexpr int64_t FORCED_MS = 1000;

static int g_wake = -1;
static int g_signals = -1;
static int64_t g_farewell;      // when the daemon ends; 0: not asked to
static bool g_forced;           // programs were killed already
static int64_t g_next_deadline; // of a keeper that has to speak; with the lock

static void wake(void)
{
    const uint64_t one = 1;
    const ssize_t ignored = write(g_wake, &one, sizeof one);

    static_cast<void>(ignored);
}

// The thread is woken only by the first of a burst: it looks for the others
// itself.
void kit_warden_deadline(int64_t deadline_ms)
{
    kit_lock();
    const bool first = g_next_deadline == 0 || deadline_ms < g_next_deadline;
    if (first) {
        g_next_deadline = deadline_ms;
    }
    kit_unlock();
    if (first) {
        wake();
    }
}

void kit_warden_clean(const kit_entry *entry)
{
    kit_leftover_add(entry);
    wake();
}

void kit_warden_session_over(void)
{
    kit_lock();
    const bool ending = g_farewell != 0;
    kit_unlock();
    if (ending) {
        wake();
    }
}

// A keeper that hangs, or that somebody has stopped, is ended by nothing but a
// kill. Its number is its own for as long as its bell has no end: a process
// that is held and then seen to have one is the keeper. With the lock held.
static void kill_keeper(const kit_entry *entry)
{
    const int keeper =
        static_cast<int>(syscall(SYS_pidfd_open, entry->session.keeper_pid, 0));
    char byte;

    if (keeper >= 0) {
        if (recv(entry->bell, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0) {
            syscall(SYS_pidfd_send_signal, keeper, SIGKILL, nullptr, 0);
        }
        close(keeper);
    }
}

// For one that has not even said who it is the bell's end is made: the service
// kills it then.
static void end_keeper(const kit_entry *entry)
{
    if (entry->session.keeper_pid > 0) {
        kill_keeper(entry);
    }
    shutdown(entry->bell, SHUT_RDWR);
}

static int64_t end_mute_keepers(int64_t now)
{
    int64_t next = 0;

    kit_lock();
    for (int line = kit_table_next(0); line < TTY_LINES;
         line = kit_table_next(line + 1)) {
        const kit_entry *entry = kit_entry_at(line);
        const int64_t deadline =
            kit_earlier(entry->deadline_ms, entry->end_by_ms);
        if (deadline != 0 && deadline <= now) {
            end_keeper(entry);
        } else {
            next = kit_earlier(next, deadline);
        }
    }
    g_next_deadline = next;
    kit_unlock();
    return next;
}

// Without the lock, as the service's own comes before it elsewhere.
static void stop_listening(void)
{
    for (int protocol = 0; protocol <= VC_PROTOCOL_MAX; protocol++) {
        vc_deal_service_listen(false, protocol);
    }
}

static void unlink_paths(void)
{
    const kit_node *node = nullptr;

    while ((node = kit_node_after(node)) != nullptr) {
        if (node->service->path != nullptr) {
            unlink(node->service->path);
        }
    }
}

// A service whose programs need longer to end has said so.
static int64_t farewell_ms(void)
{
    const kit_node *node = nullptr;
    int64_t longest = FAREWELL_MS;

    while ((node = kit_node_after(node)) != nullptr) {
        if (int64_t{node->service->hangup_ms} > longest) {
            longest = node->service->hangup_ms;
        }
    }
    return longest;
}

static void begin_farewell(void)
{
    const int64_t patience = farewell_ms();

    kit_lock();
    const bool first = g_farewell == 0;
    if (first) {
        g_farewell = kit_now_ms() + patience;
    }
    kit_unlock();
    if (!first) {
        return;
    }
    tty_notify("STOPPING=1");
    stop_listening();
    for (int line = 0; line < TTY_LINES; line++) {
        kit_end(line, "the service is shutting down");
    }
}

static void take_signal(void)
{
    struct signalfd_siginfo signal;

    while (read(g_signals, &signal, sizeof signal) ==
           static_cast<ssize_t>(sizeof signal)) {
        begin_farewell();
    }
}

static bool table_empty(void)
{
    kit_lock();
    const bool empty = kit_table_next(0) == TTY_LINES;
    kit_unlock();
    return empty;
}

// When the daemon ends its keepers are killed, and whoever does not care for a
// hang-up would stay for good.
static void force_programs(int64_t now)
{
    kit_lock();
    for (int line = kit_table_next(0); line < TTY_LINES;
         line = kit_table_next(line + 1)) {
        const pid_t program = kit_entry_at(line)->program;
        if (program > 0) {
            kill(-program, SIGKILL);
        }
    }
    g_farewell = now + FORCED_MS;
    kit_unlock();
    g_forced = true;
}

static void end_when_over(int64_t now)
{
    if (g_farewell == 0 || (now < g_farewell && !table_empty())) {
        return;
    }
    if (!g_forced && !table_empty()) {
        force_programs(now);
        return;
    }
    kit_leftover_end(now);
    unlink_paths();
    kit_control_end();
    kit_audit("daemon-end");
    _exit(0);
}

// There always is such a time: the next look at the listeners, or the end.
static int time_until(int64_t when, int64_t now)
{
    return when <= now ? 0 : static_cast<int>(when - now);
}

static void turn(void)
{
    enum { WAKE, SIGNALS, PATHS, SESSIONS, CONTROL };
    struct pollfd watched[CONTROL + KIT_CONTROL_DESCRIPTORS] = {};
    uint64_t count;
    int64_t now = kit_now_ms();

    int64_t next = kit_earlier(end_mute_keepers(now), kit_leftover_tidy(now));
    next = kit_earlier(next, g_farewell);
    next = kit_earlier(next, kit_watchdog_look(now));
    if (g_farewell == 0) {
        next = kit_earlier(next, kit_listening_look(now));
    }
    watched[WAKE] = {g_wake, POLLIN, 0};
    watched[SIGNALS] = {g_signals, POLLIN, 0};
    watched[PATHS] = {kit_paths_descriptor(), POLLIN, 0};
    watched[SESSIONS] = {kit_unrelayed_descriptor(), POLLIN, 0};
    const size_t used = kit_control_watch(&watched[CONTROL], &next);
    poll(watched, CONTROL + used, time_until(next, now));
    if ((watched[WAKE].revents & POLLIN) != 0) {
        const ssize_t ignored = read(g_wake, &count, sizeof count);
        static_cast<void>(ignored);
    }
    if (watched[SIGNALS].revents != 0) {
        take_signal();
    }
    if (watched[PATHS].revents != 0) {
        kit_paths_mend();
    }
    if (watched[SESSIONS].revents != 0) {
        kit_unrelayed_hear();
    }
    kit_control_serve(&watched[CONTROL], used);
    end_when_over(kit_now_ms());
}

static void *run(void *unused)
{
    (void)unused;
    for (;;) {
        turn();
    }
}

// A thread that is created inherits the mask.
static int start_thread(void)
{
    pthread_t thread;
    sigset_t all;
    sigset_t before;

    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&thread, nullptr, run, nullptr);
    sigaddset(&before, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0) {
        pthread_detach(thread);
    }
    return error;
}

int kit_warden_start(const kit_daemon *daemon)
{
    sigset_t ending;

    if (kit_control_open(daemon) != 0) {
        return -1;
    }
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    g_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    g_signals = signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
    if (g_wake < 0 || g_signals < 0) {
        kit_control_end();
        return kit_fail("no descriptor: %s", strerror(errno));
    }
    kit_watchdog_begin();
    const int error = start_thread();
    if (error != 0) {
        kit_control_end();
        return kit_fail("no thread: %s", strerror(error));
    }
    return 0;
}
