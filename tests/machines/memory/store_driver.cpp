// The line library from the first call to the last: the store, its locks, the
// requests to the administration daemon and the log.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "tests/machines/memory/driver.h"

constexpr unsigned int LINE = 300;
constexpr size_t ITEM_SIZE = 8;

static bool holds(unsigned int ttyno, const char *name, const char *wanted)
{
    char value[2048];

    return tty_getenv(ttyno, name, value, sizeof value) == value &&
           strcmp(value, wanted) == 0;
}

static bool absent(unsigned int ttyno, const char *name)
{
    char value[64];

    return tty_getenv(ttyno, name, value, sizeof value) == nullptr;
}

static void store_and_read(void)
{
    char longest[2000];
    char value[2048];

    EXPECT(absent(LINE, "LOGNAME"));
    EXPECT(tty_setenv(LINE, "LOGNAME", "") == 0);
    EXPECT(tty_setenv(LINE, "LOGNAME", "alice") == 0);
    EXPECT(tty_setenv(LINE, "PEERNAME", "10.0.0.7") == 0);
    EXPECT(tty_setenv(LINE, "LOGNAME", "bob") == 0);
    EXPECT(holds(LINE, "LOGNAME", "bob"));
    EXPECT(holds(LINE, "PEERNAME", "10.0.0.7"));
    EXPECT(tty_getenv(LINE, "PEERNAME", value, 3) == value);
    EXPECT(strcmp(value, "10") == 0);

    memset(longest, 'x', sizeof longest);
    longest[sizeof longest - 1] = '\0';
    EXPECT(tty_setenv(TTY_LINE_RESERVED1, "PEERNAME", longest) == 0);
    EXPECT(tty_getenv(TTY_LINE_RESERVED1, "PEERNAME", value, sizeof value) !=
           nullptr);

    EXPECT(tty_setenv(0, "LOGNAME", "console") == 0);
    EXPECT(tty_setenv(LINE, "NOSUCHKEY", "1") == -1);
    EXPECT(tty_setenv(TTY_LINES, "LOGNAME", "1") == -1);
    EXPECT(absent(TTY_LINES, "LOGNAME"));

    EXPECT(tty_reset_info(LINE) == 0);
    EXPECT(absent(LINE, "LOGNAME"));
    EXPECT(holds(LINE, "TTYPID", "-1"));
}

// A child starts with the library's lock free and finds what was stored.
static void read_in_child(void)
{
    int status = -1;

    tty_lib_lock();
    const pid_t pid = fork();
    if (pid == 0) {
        driver_set_deadline();
        exit(holds(LINE, "TTYPID", "-1") ? 0 : 1);
    }
    tty_lib_unlock();
    EXPECT(waitpid(pid, &status, 0) == pid);
    EXPECT(status == 0);
}

static void lock_files(void)
{
    const int fd =
        open(driver_path("/lock"), O_RDWR | O_CREAT | O_CLOEXEC, 0600);

    EXPECT(tty_flock(fd) == 0);
    EXPECT(tty_unflock(fd) == 0);
    EXPECT(tty_flock_try(fd) == 0);
    EXPECT(tty_unflock(fd) == 0);
    close(fd);
    EXPECT(tty_flock(fd) == -1);
}

static void expect_items(int daemon, size_t items)
{
    char bytes[16 * ITEM_SIZE];

    EXPECT(recv(daemon, bytes, sizeof bytes, 0) ==
           static_cast<ssize_t>(items * ITEM_SIZE));
}

static void send_requests(void)
{
    EXPECT(tty_release_line() == -1);

    const int listener = driver_listen("/mng/tty/.tty_rl");
    // The connection is for the life of the process. It gets the number that
    // is free now.
    const int connection = dup(listener);
    close(connection);
    EXPECT(tty_hold_line(TTY_LINES, 60) == 0);
    const int daemon = accept(listener, nullptr, nullptr);
    expect_items(daemon, 2);
    EXPECT(tty_hold_line(TTY_LINES, 60) == -1);
    EXPECT(tty_release_line() == 0);
    expect_items(daemon, 1);
    EXPECT(tty_cfg_update(LINE, "SPEED", 9600) == 0);
    expect_items(daemon, 2);
    EXPECT(tty_cfg_update(LINE, "COLOUR", 1) == -1);
    EXPECT(tty_login_info_audit(LINE, true) == 0);
    expect_items(daemon, 2);
    EXPECT(tty_login_info_audit(LINE, false) == 0);
    EXPECT(holds(LINE, "LOGSUCC", "0"));
    EXPECT(tty_login_info_audit(TTY_LINES, true) == -1);
    close(connection);
    close(daemon);
    close(listener);
}

static void look_at_services(void)
{
    EXPECT(tty_get_service(4) == 1);
    EXPECT(tty_get_service(3) == 0);
    FILE *file = fopen(driver_path("/mng/tty/.service_cur.txt"), "we");
    EXPECT(file != nullptr);
    EXPECT(fputs("8\n", file) >= 0);
    EXPECT(fclose(file) == 0);
    EXPECT(tty_get_service(4) == 0);
    EXPECT(tty_get_service(3) == 1);
}

int main()
{
    driver_set_deadline();
    store_and_read();
    read_in_child();
    lock_files();
    send_requests();
    look_at_services();
    EXPECT(tty_code2speed(tty_speed2code(9600)) == 9600);
    EXPECT(tty_speed2code(1) == 0);
    tty_debug_msg(0, "%s\n", "the end");
    tty_debug_msg(1, "%s\n", "traced only");
    return 0;
}
