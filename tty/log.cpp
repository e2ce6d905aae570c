// The line library's dump log, with the serial console as its last resort.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "common/dump_file.h"
#include "common/runtime_dir.h"
#include "common/timestamp.h"
#include "tty/console.h"

constexpr size_t LINE_SIZE = 1024;
constexpr int TRACE_LEVEL = 1;

static const char TRACE_SWITCH[] = "/data/.tty_lib_debug";
static const char CONSOLE_SWITCH[] = "/mng/tty/.tty_lib_debug";
static const char DUMP_FILE[] = "/mng/tty/.tty_lib_dump.txt";

// The path is made afresh each time: TMPDIR may change while a program runs.
static bool dump(const char *line)
{
    char path[TTY_PATH_SIZE];

    return tty_make_path(path, sizeof path, DUMP_FILE) != nullptr &&
           dump_file_append(path, line) == 0;
}

// Asked for each line that the log did not take: whoever looks into a device
// turns it on while it runs.
static bool console_wanted(void)
{
    char path[TTY_PATH_SIZE];

    return tty_make_path(path, sizeof path, CONSOLE_SWITCH) != nullptr &&
           faccessat(AT_FDCWD, path, F_OK, AT_EACCESS) == 0;
}

// Asked before the line is made: nearly every trace is dropped.
static bool dropped(int level)
{
    return level == TRACE_LEVEL && access(TRACE_SWITCH, F_OK) != 0;
}

static void write_line(const char *line)
{
    if (!dump(line) && console_wanted()) {
        tty_log_msg("%s", line);
    }
}

void tty_debug_msg(int level, const char *fmt, ...)
{
    // Callers log a failure and go on to look at its errno.
    const int saved_errno = errno;

    if (!dropped(level)) {
        char line[LINE_SIZE] = {};
        va_list args;
        const time_t now = time(nullptr);
        const size_t stamp = strlen(tty_ctime_r(&now, line));
        va_start(args, fmt);
        (void)vsnprintf(line + stamp, sizeof line - stamp, fmt, args);
        va_end(args);
        write_line(line);
    }
    errno = saved_errno;
}
