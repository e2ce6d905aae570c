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
#include <unistd.h>

#include <ttyline/vc.h>

#include "kit/audit.h"
#include "kit/clock.h"
#include "kit/control.h"
#include "kit/error.h"
#include "kit/line.h"
#include "kit/sweep.h"

// From the end of a killed keeper, which hung its program up, to the end by
// force of what did not care.
constexpr int64_t SWEEP_AFTER_MS = 5000;
// How often a line that another program locks is tried again, and for how long.
constexpr int64_t LOCKED_PAUSE_MS = 1000;
constexpr int MOST_TRIES = 60;
// How long sessions have to end when the daemon does, and how long keepers have
// to clean up when their programs were ended by force.
constexpr int64_t FAREWELL_MS = 2000;
constexpr int64_t FORCED_MS = 1000;

// One session that somebody killed. With the lock held.
// The analyser takes the copy of a whole record for one onto itself.
// NOLINTNEXTLINE(clang-analyzer-alpha.unix.cstring.BufferOverlap)
struct leftover {
    bool used;
    char id[KIT_ID_SIZE];
    pid_t program;
    int64_t clean_at; // 0: done
    int64_t sweep_at; // 0: done
    int tries;
};
static leftover g_leftovers[TTY_LINES]; // a slot per line
static int g_leftover_count;

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
void kit_warden_starting(int64_t deadline_ms)
{
    kit_lock();
    const bool first = g_next_deadline == 0;
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
    kit_lock();
    leftover *left = &g_leftovers[entry->session.line];
    g_leftover_count += left->used ? 0 : 1;
    left->used = true;
    memcpy(left->id, entry->id, sizeof left->id);
    left->program = entry->session.pid;
    left->clean_at = kit_now_ms();
    left->sweep_at = kit_now_ms() + SWEEP_AFTER_MS;
    left->tries = 0;
    kit_unlock();
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

// A keeper that does not speak hangs where only a kill ends it. The service
// kills it when the bell says that it has gone.
static int64_t end_mute_keepers(int64_t now)
{
    int64_t next = 0;

    kit_lock();
    for (int line = kit_table_next(0); line < TTY_LINES;
         line = kit_table_next(line + 1)) {
        const kit_entry *entry = kit_entry_at(line);
        if (entry->deadline_ms == 0) {
            continue;
        }
        if (entry->deadline_ms <= now) {
            shutdown(entry->bell, SHUT_RDWR);
        } else if (next == 0 || entry->deadline_ms < next) {
            next = entry->deadline_ms;
        }
    }
    g_next_deadline = next;
    kit_unlock();
    return next;
}

static void clean_line(int line, leftover *left, int64_t now)
{
    if (left->clean_at == 0 || left->clean_at > now) {
        return;
    }
    // Without waiting: the lock is held only for this one line's moment.
    const bool done = kit_line_end(line, left->id, 0) == 0;
    left->clean_at =
        done || ++left->tries == MOST_TRIES ? 0 : now + LOCKED_PAUSE_MS;
}

static void sweep_session(leftover *left, int64_t now)
{
    if (left->sweep_at != 0 && left->sweep_at <= now) {
        // It was hung up long ago: no further time.
        kit_sweep(left->program, 0);
        left->sweep_at = 0;
    }
}

// Works on a copy: neither a file nor a look at all processes holds the loop
// up. A new session on the line meanwhile has a new entry only when it was
// killed in turn, and then this one is forgotten.
static int64_t tidy_line(int line, int64_t now)
{
    kit_lock();
    leftover left = g_leftovers[line];
    kit_unlock();
    if (!left.used) {
        return 0;
    }
    clean_line(line, &left, now);
    sweep_session(&left, now);
    left.used = left.clean_at != 0 || left.sweep_at != 0;
    kit_lock();
    if (memcmp(g_leftovers[line].id, left.id, sizeof left.id) == 0) {
        g_leftovers[line] = left;
        g_leftover_count -= left.used ? 0 : 1;
    }
    kit_unlock();
    if (!left.used) {
        return 0;
    }
    if (left.clean_at == 0 ||
        (left.sweep_at != 0 && left.sweep_at < left.clean_at)) {
        return left.sweep_at;
    }
    return left.clean_at;
}

static int64_t earlier(int64_t one, int64_t other)
{
    if (one == 0 || other == 0) {
        return one + other;
    }
    return one < other ? one : other;
}

static int64_t tidy_up(int64_t now)
{
    int64_t next = 0;

    kit_lock();
    const bool any = g_leftover_count > 0;
    kit_unlock();
    for (int line = 0; any && line < TTY_LINES; line++) {
        next = earlier(next, tidy_line(line, now));
    }
    return next;
}

static void stop_listening(void)
{
    for (const kit_node *node = kit_first_node(); node != nullptr;
         node = node->next) {
        vc_deal_service_listen(false,
                               static_cast<int>(node->service->protocol));
    }
}

static void unlink_paths(void)
{
    for (const kit_node *node = kit_first_node(); node != nullptr;
         node = node->next) {
        if (node->service->path != nullptr) {
            unlink(node->service->path);
        }
    }
}

static void begin_farewell(void)
{
    kit_lock();
    const bool first = g_farewell == 0;
    if (first) {
        g_farewell = kit_now_ms() + FAREWELL_MS;
    }
    kit_unlock();
    if (!first) {
        return;
    }
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
        const pid_t program = kit_entry_at(line)->session.pid;
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
    unlink_paths();
    kit_control_end();
    kit_audit("daemon-end");
    _exit(0);
}

static int time_until(int64_t when, int64_t now)
{
    if (when == 0) {
        return -1;
    }
    return when <= now ? 0 : static_cast<int>(when - now);
}

static void turn(void)
{
    enum { WAKE, SIGNALS, CONTROL };
    struct pollfd watched[CONTROL + KIT_CONTROL_DESCRIPTORS] = {};
    uint64_t count;
    int64_t now = kit_now_ms();

    int64_t next = earlier(end_mute_keepers(now), tidy_up(now));
    next = earlier(next, g_farewell);
    watched[WAKE] = {g_wake, POLLIN, 0};
    watched[SIGNALS] = {g_signals, POLLIN, 0};
    const size_t used = kit_control_watch(&watched[CONTROL], &next);
    poll(watched, CONTROL + used, time_until(next, now));
    if ((watched[WAKE].revents & POLLIN) != 0) {
        const ssize_t ignored = read(g_wake, &count, sizeof count);
        static_cast<void>(ignored);
    }
    if (watched[SIGNALS].revents != 0) {
        take_signal();
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
    const int error = start_thread();
    if (error != 0) {
        kit_control_end();
        return kit_fail("no thread: %s", strerror(error));
    }
    return 0;
}
