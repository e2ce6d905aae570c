// The loop says nothing of its turns, and without sessions it waits for a
// minute. So it is woken, and then the kernel is asked about its thread: when
// it has gone to sleep since, and sleeps where the loop waits, it has turned.
// A callback that waits for something sleeps elsewhere, and one that computes
// does not sleep.
#include "kit/watchdog.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/notify.h"

constexpr int64_t LOOK_AGAIN_MS = 50;

// Where the loop waits: for events, and before it tries once more.
static const long WAITS[] = {
#ifdef SYS_select
    SYS_select,
#endif
#ifdef SYS__newselect
    SYS__newselect,
#endif
#ifdef SYS_pselect6_time64
    SYS_pselect6_time64, SYS_clock_nanosleep_time64,
#endif
    SYS_pselect6,        SYS_clock_nanosleep,        SYS_nanosleep};

// Both before the thread that uses them is made.
static pthread_t g_loop;
static pid_t g_loop_id; // 0: there is no manager to tell

static int64_t g_interval; // 0: it asks only whether the daemon is ready
static int64_t g_next;     // when to wake the loop
static bool g_told_ready;
static bool g_woken;
static long g_sleeps; // of the loop's thread, before it was woken

void kit_watchdog_begin(void)
{
    if (getenv("NOTIFY_SOCKET") != nullptr) {
        g_loop = pthread_self();
        g_loop_id = static_cast<pid_t>(syscall(SYS_gettid));
        g_interval = tty_notify_interval_ms();
    }
}

static bool ask_kernel(const char *name, char *text, size_t size)
{
    char path[64];

    (void)snprintf(path, sizeof path, "/proc/self/task/%d/%s", g_loop_id, name);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const ssize_t got = read(fd, text, size - 1);
    close(fd);
    text[got > 0 ? got : 0] = '\0';
    return got > 0;
}

static long count_sleeps(void)
{
    static const char FIELD[] = "\nvoluntary_ctxt_switches:";
    char text[4096];
    const char *found =
        ask_kernel("status", text, sizeof text) ? strstr(text, FIELD) : nullptr;

    return found != nullptr ? strtol(found + sizeof FIELD - 1, nullptr, 10)
                            : -1;
}

// A thread that runs has no number there.
static bool loop_waits(void)
{
    char text[256];
    char *end = nullptr;

    if (!ask_kernel("syscall", text, sizeof text)) {
        return false;
    }
    const long number = strtol(text, &end, 10);
    for (const long wait : WAITS) {
        if (end != text && number == wait) {
            return true;
        }
    }
    return false;
}

static bool loop_has_turned(void)
{
    return count_sleeps() != g_sleeps && loop_waits();
}

static void wake_loop(void)
{
    g_sleeps = count_sleeps();
    g_woken = pthread_kill(g_loop, SIGHUP) == 0;
}

static void tell(int64_t now)
{
    tty_notify(g_told_ready ? "WATCHDOG=1" : "READY=1");
    g_told_ready = true;
    g_woken = false;
    g_next = now + g_interval;
    if (g_interval == 0) {
        g_loop_id = 0;
    }
}

int64_t kit_watchdog_look(int64_t now)
{
    if (g_loop_id == 0) {
        return 0;
    }
    if (!g_woken && now >= g_next) {
        wake_loop();
        return now + LOOK_AGAIN_MS;
    }
    if (g_woken && loop_has_turned()) {
        tell(now);
    }
    if (g_woken) {
        return now + LOOK_AGAIN_MS;
    }
    return g_loop_id != 0 ? g_next : 0;
}
