// Messages to the serial console.
#include "tty/console.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "common/io.h"

constexpr size_t CONSOLE_MESSAGE_SIZE = 2048;
constexpr size_t COMMAND_LINE_SIZE = 1024;
// "ttyS" and one digit: devices of this kind have no second digit.
constexpr int CONSOLE_NAME_LENGTH = 5;

static const char CONSOLE_ARGUMENT[] = "console=ttyS";

static char __ttydev_path[64];
// Worked out once, also when that fails.
static pthread_once_t __ttydev_inited = PTHREAD_ONCE_INIT;

// Takes the console's name out of the kernel's arguments, if one is there.
static void find_console(const char *arguments)
{
    const char *found = strstr(arguments, CONSOLE_ARGUMENT);

    if (found == nullptr) {
        return;
    }
    const char *digit = found + strlen(CONSOLE_ARGUMENT);
    // Other consoles of the kernel are not serial lines: their names are not
    // looked at.
    if (*digit < '0' || *digit > '9') {
        return;
    }
    (void)snprintf(__ttydev_path, sizeof __ttydev_path, "/dev/%.*s",
                   CONSOLE_NAME_LENGTH, found + strlen("console="));
}

static void read_command_line(char *buf)
{
    FILE *file = fopen("/proc/cmdline", "re");

    if (file == nullptr) {
        return;
    }
    if (fgets(buf, COMMAND_LINE_SIZE - 1, file) != nullptr) {
        find_console(buf);
    }
    fclose(file);
}

static void name_console(void)
{
    (void)snprintf(__ttydev_path, sizeof __ttydev_path, "/dev/ttyS0");
    char *buf = static_cast<char *>(calloc(1, COMMAND_LINE_SIZE));
    if (buf != nullptr) {
        read_command_line(buf);
        free(buf);
    }
}

// Also called while the lock of this library is being made: it must not need
// it.
const char *tty_getconsolename(void)
{
    pthread_once(&__ttydev_inited, name_console);
    return __ttydev_path;
}

void tty_log_msg(const char *fmt, ...)
{
    char text[CONSOLE_MESSAGE_SIZE] = {};
    va_list args;

    va_start(args, fmt);
    (void)vsnprintf(text, sizeof text, fmt, args);
    va_end(args);

    // Opened for each message: few processes ever have one to write.
    const int fd = open(tty_getconsolename(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0) {
        tty_write(fd, text, static_cast<int>(strlen(text)));
        close(fd);
    }
}
