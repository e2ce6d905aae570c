// A set: the whole new content is written into a temporary file and renamed
// over the old one, so that a reader never sees half a file. The lock is on a
// companion file, since the information file itself is replaced by every set.
#include "tty/store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "common/io.h"
#include "tty/info_file.h"

// The runtime directory may take one byte more in a set than in a get.
constexpr unsigned int SET_PREFIX_SIZE = TTY_PATH_SIZE + 1;

// What a set works on, for its steps and their messages.
struct set_job {
    unsigned int ttyno;
    const char *name;
    const char *value;
    info_names names;
    int lock_fd;
    int info_fd;
    int temporary_fd;
};

static void log_set_failure(const set_job *job, int line)
{
    tty_debug_msg(0,
                  "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: %d "
                  "member %s save buf %s\n",
                  LINE_IDS("tty_set_member", job->ttyno), "tty_set_member",
                  line, job->name, job->value);
}

static bool name_files_of_set(info_names *names, unsigned int ttyno)
{
    char prefix[SET_PREFIX_SIZE];

    if (tty_make_path(prefix, sizeof prefix, INFO_FILE) == nullptr ||
        !name_files(names, prefix, ttyno)) {
        log_no_path("tty_set_member", ttyno);
        return false;
    }
    return true;
}

// Any other failure counts as being there: the open that follows says what is
// wrong. Asked as the effective user, as that open is.
static bool info_missing(const info_names *names)
{
    return faccessat(AT_FDCWD, names->info, F_OK, AT_EACCESS) != 0 &&
           errno == ENOENT;
}

// An empty value for a line without a file is not worth a file.
static bool nothing_to_store(const set_job *job)
{
    if (job->value[0] != '\0' || !info_missing(&job->names)) {
        return false;
    }
    tty_debug_msg(0,
                  "%s(ttyno %d:pid %d:tid %d): add null member %s to empty "
                  "file %s\n",
                  LINE_IDS("tty_set_member", job->ttyno), job->name,
                  job->names.info);
    return true;
}

static bool lock_for_set(set_job *job)
{
    job->lock_fd = open(job->names.lock, O_RDWR | O_CREAT | O_CLOEXEC, 0777);
    if (job->lock_fd < 0) {
        log_open_failure("tty_set_member", job->ttyno, "open", job->names.lock);
        return false;
    }
    if (tty_flock(job->lock_fd) != 0) {
        log_set_failure(job, __LINE__);
        close(job->lock_fd);
        return false;
    }
    tty_debug_msg(1,
                  "%s(ttyno %d:pid %d:tid %d): flock func: %s, line: %d "
                  "member %s save buf %s\n",
                  LINE_IDS("tty_set_member", job->ttyno), "tty_set_member",
                  __LINE__, job->name, job->value);
    return true;
}

// Opens a file for synchronous writes, empty.
static int open_empty(const char *path)
{
    return open(path, O_RDWR | O_CREAT | O_TRUNC | O_SYNC | O_CLOEXEC, 0777);
}

// Created empty and copied like any other, so that there is one way for a first
// key and for a tenth. Under the lock, or two sets could both find it missing.
static bool create_missing_info(const set_job *job)
{
    if (!info_missing(&job->names)) {
        return true;
    }
    const int fd = open_empty(job->names.info);
    if (fd < 0) {
        log_open_failure("tty_set_member", job->ttyno, "fopen",
                         job->names.info);
        return false;
    }
    close(fd);
    return true;
}

// The two messages name each the other file; programs that watch the log know
// them so.
static bool open_both(set_job *job)
{
    job->info_fd = open_info(job->names.info, O_RDWR);
    if (job->info_fd < 0) {
        log_open_failure("tty_set_member", job->ttyno, "open",
                         job->names.temporary);
        return false;
    }
    job->temporary_fd = open_empty(job->names.temporary);
    if (job->temporary_fd < 0) {
        log_open_failure("tty_set_member", job->ttyno, "fopen",
                         job->names.info);
        close(job->info_fd);
        return false;
    }
    return true;
}

// Writes "KEY=value" with its line end, cut at LINE_LIMIT - 1 characters,
// through the line buffer. Returns what the write returned.
static int write_pair(const set_job *job)
{
    memset(g_tty_tmpbuf, 0, sizeof g_tty_tmpbuf);
    (void)snprintf(g_tty_tmpbuf, LINE_LIMIT, "%s=%s\r\n", job->name,
                   job->value);
    const int length = static_cast<int>(strlen(g_tty_tmpbuf));
    const int written = tty_write(job->temporary_fd, g_tty_tmpbuf, length);
    if (written != length) {
        tty_debug_msg(0,
                      "%s(ttyno %d:pid %d:tid %d): write %s=%s fail ret %d "
                      "err:%s.\r\n",
                      LINE_IDS("tty_set_member", job->ttyno), job->name,
                      job->value, written, strerror(errno));
    }
    return written;
}

static void replace_piece(const set_job *job)
{
    const int written = write_pair(job);

    tty_debug_msg(1,
                  "%s(ttyno %d:pid %d:tid %d): change value %d %s=%s from %s",
                  LINE_IDS("tty_set_member", job->ttyno), written, job->name,
                  job->value, g_tty_tmpbuf);
}

// By the length of the text, not by what was read: a zero byte in a file is
// dropped by its next set.
static void copy_piece(const set_job *job)
{
    const int length = static_cast<int>(strlen(g_tty_tmpbuf));
    const int written = tty_write(job->temporary_fd, g_tty_tmpbuf, length);

    if (written != length) {
        tty_debug_msg(0,
                      "%s(ttyno %d:pid %d:tid %d): write fail ret %d err:%s, "
                      "%s.\r\n",
                      LINE_IDS("tty_set_member", job->ttyno), written,
                      strerror(errno), g_tty_tmpbuf);
    }
}

static void append_pair(const set_job *job)
{
    const int written = write_pair(job);

    tty_debug_msg(1, "%s(ttyno %d:pid %d:tid %d): new create %d %s=%s \r\n",
                  LINE_IDS("tty_set_member", job->ttyno), written, job->name,
                  job->value);
}

// Copies the information file with every line of the key replaced, and
// appends the key when there was none. A short write is logged and does not
// stop the copy. Returns false when the old file could not be read to its
// end.
static bool copy_with_replacement(const set_job *job)
{
    bool found = false;
    bool failed = false;

    while (next_piece(job->info_fd, &failed)) {
        if (piece_is_of(job->name)) {
            found = true;
            replace_piece(job);
        } else {
            copy_piece(job);
        }
    }
    if (failed) {
        return false;
    }
    if (!found) {
        append_pair(job);
    }
    return true;
}

static bool move_into_place(const set_job *job)
{
    if (rename(job->names.temporary, job->names.info) == 0) {
        return true;
    }
    tty_debug_msg(0,
                  "%s(ttyno %d:pid %d:tid %d): rename(%s,%s) err[%d]:%s "
                  "fail\n",
                  LINE_IDS("tty_set_member", job->ttyno), job->names.temporary,
                  job->names.info, errno, strerror(errno));
    return false;
}

// Copies into the temporary file and moves it over the old one. Returns false
// when the old content is still in place.
static bool replace_info(const set_job *job)
{
    const bool complete = copy_with_replacement(job);

    close(job->info_fd);
    close(job->temporary_fd);
    if (!complete) {
        // What could not be read to its end must not replace it.
        unlink(job->names.temporary);
        log_set_failure(job, __LINE__);
        return false;
    }
    return move_into_place(job);
}

// The part of a set that runs under the file lock, which it releases. Which
// failures of the release are reported, and how, depends on how far it got.
static int set_locked(set_job *job)
{
    if (!create_missing_info(job) || !open_both(job)) {
        if (tty_unflock(job->lock_fd) != 0) {
            log_set_failure(job, __LINE__);
        }
        return -1;
    }
    if (!replace_info(job)) {
        tty_unflock(job->lock_fd);
        return -1;
    }
    if (tty_unflock(job->lock_fd) != 0) {
        tty_debug_msg(0,
                      "%s(ttyno %d:pid %d:tid %d): failed in func: %s, line: "
                      "%d\n",
                      LINE_IDS("tty_set_member", job->ttyno), "tty_set_member",
                      __LINE__);
    }
    return 0;
}

int tty_set_member(unsigned int ttyno, const char *name, const char *value)
{
    set_job job = {ttyno, name, value, {}, -1, -1, -1};

    if (!name_files_of_set(&job.names, ttyno)) {
        return -1;
    }
    // Programs under other users share these files: nothing may be masked.
    umask(0);
    if (nothing_to_store(&job)) {
        return 0;
    }
    if (!lock_for_set(&job)) {
        return -1;
    }
    const int result = set_locked(&job);
    close(job.lock_fd);
    return result;
}
