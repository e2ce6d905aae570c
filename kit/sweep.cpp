#include "kit/sweep.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kit/clock.h"

constexpr useconds_t PAUSE_US = 20000;
constexpr int64_t FORCE_MS = 500;

// The session that a process belongs to, -1 for one that has ended: the state
// and the session are the third and the sixth field, behind the name, which may
// hold anything.
static pid_t session_of(const char *process)
{
    char path[64];
    char text[512];
    char state;
    int session;

    (void)snprintf(path, sizeof path, "/proc/%.20s/stat", process);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    const ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    text[got > 0 ? got : 0] = '\0';
    const char *behind = strrchr(text, ')');
    if (behind == nullptr ||
        // The kernel writes numbers that fit.
        // NOLINTNEXTLINE(cert-err34-c)
        sscanf(behind + 1, " %c %*d %*d %d", &state, &session) != 2) {
        return -1;
    }
    return state == 'Z' || state == 'X' ? -1 : session;
}

// Sends a signal to every process of the session, 0 for none; whether there
// was any. Without /proc the process group of its leader is all that is known.
static bool signal_all(pid_t session, int number)
{
    DIR *processes = opendir("/proc");
    const struct dirent *entry;
    bool any = false;

    if (processes == nullptr || access("/proc/self", F_OK) != 0) {
        if (processes != nullptr) {
            closedir(processes);
        }
        return kill(-session, number) == 0;
    }
    while ((entry = readdir(processes)) != nullptr) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9' ||
            session_of(entry->d_name) != session) {
            continue;
        }
        any = true;
        if (number != 0) {
            kill(static_cast<pid_t>(strtol(entry->d_name, nullptr, 10)),
                 number);
        }
    }
    closedir(processes);
    return any;
}

static bool gone_by(pid_t session, int64_t deadline)
{
    while (signal_all(session, 0)) {
        if (kit_now_ms() >= deadline) {
            return false;
        }
        usleep(PAUSE_US);
    }
    return true;
}

// A stopped process is told to go on, or it would take its signal never.
bool kit_sweep_hang_up(pid_t session)
{
    if (session <= 0 || !signal_all(session, SIGHUP)) {
        return false;
    }
    signal_all(session, SIGCONT);
    return true;
}

void kit_sweep(pid_t session, int64_t limit_ms)
{
    if (!kit_sweep_hang_up(session)) {
        return;
    }
    if (gone_by(session, kit_now_ms() + limit_ms)) {
        return;
    }
    signal_all(session, SIGKILL);
    gone_by(session, kit_now_ms() + FORCE_MS);
}
