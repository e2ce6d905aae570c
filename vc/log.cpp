// The session service's dump log, with the device's system log as its last
// resort. Called in the SIGCHLD handler too: it takes no lock, allocates
// nothing and reads no time zone.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "common/dump_file.h"
#include "common/runtime_dir.h"
#include "common/timestamp.h"

// Provided by the device's logger, or by nobody.
#pragma weak printk_syslog_ext

constexpr size_t MESSAGE_SIZE = 1024;
// The message may be full length behind stamp and process id.
constexpr size_t LINE_SIZE = MESSAGE_SIZE + TTY_STAMP_SIZE + 16;

constexpr int SYSLOG_LEVEL = 7;
constexpr int SYSLOG_KIND = 2;
static const char SYSLOG_MODULE[] = "UNKNOW_MODULE";
static const char SYSLOG_TAG[] = "DEBUG";

static const char EARLY_PATH[] = "/tmp/vkd/0/mng/tty/.vc_dump.txt";

static char g_vc_debug_path[TTY_PATH_SIZE];

void vc_debug_init(void)
{
    tty_make_path(g_vc_debug_path, sizeof g_vc_debug_path,
                  "/mng/tty/.vc_dump.txt");
}

// The handler for SIGCHLD logs too: without the block it could come in while
// the hook holds a lock of its own and call the hook again on this thread. It
// may run on another thread all the same, so the hook must not need a lock.
static void to_system_log(const char *path, int error, const char *line)
{
    sigset_t child_ends;
    sigset_t before;

    if (printk_syslog_ext == nullptr) {
        return;
    }
    sigemptyset(&child_ends);
    sigaddset(&child_ends, SIGCHLD);
    const bool blocked = pthread_sigmask(SIG_BLOCK, &child_ends, &before) == 0;
    printk_syslog_ext(SYSLOG_LEVEL, SYSLOG_MODULE, SYSLOG_TAG, SYSLOG_KIND,
                      "VC: %d %s open file %s fail, err:%d.\r\n", getpid(),
                      "vc_debug_msg", path, error);
    printk_syslog_ext(SYSLOG_LEVEL, SYSLOG_MODULE, SYSLOG_TAG, SYSLOG_KIND,
                      "VC: %d %s.\r\n", getpid(), line);
    if (blocked) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
}

void vc_debug_msg(const char *fmt, ...)
{
    // On the stack, as a handler may interrupt a thread that is in here.
    char line[LINE_SIZE] = {};
    const time_t now = time(nullptr);
    va_list args;

    size_t length = strlen(tty_ctime_r(&now, line));
    (void)snprintf(line + length, sizeof line - length, " %d:", getpid());
    length = strlen(line);
    va_start(args, fmt);
    (void)vsnprintf(line + length, MESSAGE_SIZE, fmt, args);
    va_end(args);

    const char *path =
        g_vc_debug_path[0] != '\0' ? g_vc_debug_path : EARLY_PATH;
    if (dump_file_append(path, line) == 0) {
        return;
    }
    // A missing directory means that nobody wants the log.
    if (errno != ENOENT) {
        to_system_log(path, errno, line);
    }
}
