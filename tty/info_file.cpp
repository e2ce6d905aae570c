// Names and contents of the per-line information files.
#include "tty/info_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/tty.h>

// After so many read errors in a row that delivered nothing the file is given
// up: one on a bad disk may fail for ever, and the caller holds the lock with
// all signals blocked.
constexpr int READ_ERROR_LIMIT = 16;

const char INFO_FILE[] = "/mng/tty/.tty_info";
char g_tty_tmpbuf[LINE_LIMIT + 1];

bool name_files(info_names *names, const char *prefix, unsigned int ttyno)
{
    const int length = snprintf(names->info, sizeof names->info, "%s_%d",
                                prefix, static_cast<int>(ttyno));

    // seldom covered: snprintf() fails for lengths above INT_MAX only
    if (length < 0 || static_cast<size_t>(length) >= sizeof names->info) {
        errno = ENAMETOOLONG;
        return false;
    }
    (void)snprintf(names->temporary, sizeof names->temporary, "%s.tmp",
                   names->info);
    (void)snprintf(names->lock, sizeof names->lock, "%s.lock", names->info);
    return true;
}

// 0 for a file, else the error that says why this is none.
static int not_a_file(int fd)
{
    struct stat status;

    if (fstat(fd, &status) != 0) {
        return errno;
    }
    if (S_ISREG(status.st_mode)) {
        return 0;
    }
    return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

// Non-blocking, or the open itself would wait for the other end of a pipe. The
// mode of a file is of no account.
int open_info(const char *path, int flags)
{
    const int fd = open(path, flags | O_NONBLOCK | O_CLOEXEC);

    if (fd < 0) {
        return -1;
    }
    const int error = not_a_file(fd);
    if (error != 0) {
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

static bool read_again(int error)
{
    return error == EAGAIN || error == EINPROGRESS || error == EINTR;
}

// A byte at a time, so that the file's position stays behind the line, whoever
// goes on reading; and a zero byte ends a line, or what follows it would be
// lost in a text.
int tty_read_line(int fd, char *buf, int buflen)
{
    int count = 0;

    if (buf == nullptr || fd < 0 || buflen <= 0) {
        tty_debug_msg(0,
                      "%s(pid %d:tid %d):read line fail, fd %d, buflen %d, "
                      "buf %p\n",
                      "tty_read_line", getpid(), gettid(), fd, buflen,
                      static_cast<void *>(buf));
        return 0;
    }
    // A descriptor that does not wait would make a busy loop of the retries
    // below.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    memset(buf, 0, static_cast<size_t>(buflen));
    while (count < buflen) {
        const ssize_t got = read(fd, buf + count, 1);
        if (got < 0) {
            if (read_again(errno)) {
                continue;
            }
            // An error ends the line like its end does: what came before it is
            // not thrown away, and the caller reads on.
            return count;
        }
        if (got == 0) {
            break;
        }
        const char last = buf[count++];
        if (last == '\n' || last == '\0') {
            return count;
        }
    }
    if (count > 0) {
        return count;
    }
    tty_debug_msg(1, "%s(pid %d:tid %d):read line fail, fd %d\n",
                  "tty_read_line", getpid(), gettid(), fd);
    return -1;
}

bool next_piece(int fd, bool *failed)
{
    int errors = 0;

    for (;;) {
        const int got = tty_read_line(fd, g_tty_tmpbuf, LINE_LIMIT);
        if (got != 0) {
            return got > 0;
        }
        if (++errors == READ_ERROR_LIMIT) {
            *failed = true;
            return false;
        }
    }
}

bool piece_is_of(const char *name)
{
    const size_t length = strlen(name);

    return strncmp(g_tty_tmpbuf, name, length) == 0 &&
           g_tty_tmpbuf[length] == '=';
}

void log_no_path(const char *function, unsigned int ttyno)
{
    tty_debug_msg(0,
                  "%s(ttyno %d:pid %d:tid %d): make file %s fail errno:%d, "
                  "%s\n",
                  LINE_IDS(function, ttyno), INFO_FILE, errno, strerror(errno));
}

void log_open_failure(const char *function, unsigned int ttyno,
                      const char *verb, const char *path)
{
    tty_debug_msg(0,
                  "%s(ttyno %d:pid %d:tid %d): %s file %s fail errno:%d, "
                  "%s\n",
                  LINE_IDS(function, ttyno), verb, path, errno,
                  strerror(errno));
}
