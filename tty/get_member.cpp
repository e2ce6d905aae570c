// A get: the first line of the key, read under the exclusive lock that sets
// take too, as a set replaces the file.
#include "tty/store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "tty/info_file.h"

// Line 0 is read from the tree of instance 0 beside the caller's own:
// .../inst/3 becomes .../inst/0. Says nothing when there is no such place.
static bool instance0_prefix(char *prefix)
{
    const char *directory = getenv("TMPDIR");

    if (directory == nullptr) {
        return false;
    }
    (void)snprintf(prefix, TTY_PATH_SIZE, "%.*s",
                   static_cast<int>(TTY_PATH_SIZE - 1), directory);
    char *slash = strrchr(prefix, '/');
    if (slash == nullptr) {
        return false;
    }
    const size_t room = TTY_PATH_SIZE - static_cast<size_t>(slash + 1 - prefix);
    const int length = snprintf(slash + 1, room, "0%s", INFO_FILE);
    // seldom covered: snprintf() fails for lengths above INT_MAX only
    return length >= 0 && static_cast<size_t>(length) < room;
}

static bool name_files_of_get(info_names *names, unsigned int ttyno)
{
    char prefix[TTY_PATH_SIZE] = {};

    if (ttyno == 0) {
        return instance0_prefix(prefix) && name_files(names, prefix, ttyno);
    }
    if (tty_make_path(prefix, sizeof prefix, INFO_FILE) == nullptr ||
        !name_files(names, prefix, ttyno)) {
        log_no_path("tty_get_member", ttyno);
        return false;
    }
    return true;
}

// The lock file is opened for writing, although a get writes nothing: an
// exclusive record lock asks for that.
// Opens and locks the lock file of a get. Returns its descriptor or -1.
static int lock_for_get(const info_names *names, unsigned int ttyno,
                        const char *name)
{
    const int fd = open(names->lock, O_RDWR | O_CREAT | O_CLOEXEC, 0777);

    if (fd < 0) {
        log_open_failure("tty_get_member", ttyno, "open", names->lock);
        return -1;
    }
    if (tty_flock(fd) != 0) {
        tty_debug_msg(0,
                      "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: "
                      "%d\n",
                      LINE_IDS("tty_get_member", ttyno), "tty_get_member",
                      __LINE__);
        close(fd);
        return -1;
    }
    tty_debug_msg(1,
                  "%s(ttyno %d:pid %d:tid %d): flock func: %s, line: %d "
                  "member %s\n",
                  LINE_IDS("tty_get_member", ttyno), "tty_get_member", __LINE__,
                  name);
    return fd;
}

// Copies what follows the '=' of the first matching line, at most len - 1
// bytes of it, into the cleared value.
static void find_value(int info_fd, const char *name, char *value,
                       unsigned int len)
{
    bool failed = false;

    while (next_piece(info_fd, &failed)) {
        // The first line counts and the rest is not read. A set replaces every
        // line of its key, so a second one can only come from outside.
        if (piece_is_of(name)) {
            strncpy(value, g_tty_tmpbuf + strlen(name) + 1, len - 1);
            return;
        }
    }
}

// The comparison with "null" comes before the line end is removed, so that
// only a value cut to these four characters, or a last line without a line
// end, counts as absent.
static bool value_absent(const char *value)
{
    return value[0] == '\0' || strcmp(value, "\r\n") == 0 ||
           strcmp(value, "null") == 0;
}

// A value that was cut has no line end, or half of one; a bare line feed was
// not written by a set and stays.
static void strip_line_end(char *value)
{
    const size_t length = strlen(value);

    if (length >= 2 && value[length - 2] == '\r') {
        value[length - 2] = '\0';
    }
}

// The part of a get that runs under the file lock.
static char *get_locked(const info_names *names, unsigned int ttyno,
                        const char *name, char *value, unsigned int len)
{
    const int info_fd = open_info(names->info, O_RDONLY);

    if (info_fd < 0) {
        log_open_failure("tty_get_member", ttyno, "open", names->info);
        return nullptr;
    }
    find_value(info_fd, name, value, len);
    char *result = nullptr;
    if (value_absent(value)) {
        tty_debug_msg(1,
                      "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: "
                      "%d\n",
                      LINE_IDS("tty_get_member", ttyno), "tty_get_member",
                      __LINE__);
    } else {
        strip_line_end(value);
        tty_debug_msg(1, "%s(ttyno %d:pid %d:tid %d): %s get %s result %s.\n",
                      LINE_IDS("tty_get_member", ttyno), "tty_get_member", name,
                      value);
        result = value;
    }
    close(info_fd);
    return result;
}

char *tty_get_member(unsigned int ttyno, const char *name, char *value,
                     unsigned int len)
{
    info_names names = {};

    memset(value, 0, len);
    if (!name_files_of_get(&names, ttyno)) {
        return nullptr;
    }
    const int lock_fd = lock_for_get(&names, ttyno, name);
    if (lock_fd < 0) {
        return nullptr;
    }
    char *result = get_locked(&names, ttyno, name, value, len);
    tty_unflock(lock_fd);
    close(lock_fd);
    return result;
}
