// A line's file is replaced as a whole: a key at a time, as the line library
// stores them, programs would see half an identity, and each key costs two
// synchronous writes. Its format and its locks are public for this. Nothing is
// synchronous here: an identity does not outlive the machine's next start.
#include "kit/line.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ttyline/kit.h>
#include <ttyline/tty.h>

#include "common/keys.h"
#include "common/runtime_dir.h"
#include "kit/clock.h"
#include "kit/error.h"

// More than all keys at their longest.
constexpr size_t MOST_BYTES = size_t{256} * 1024;
constexpr mode_t FILE_MODE = 0777;
constexpr useconds_t LOCK_PAUSE_US = 5000;
static const char SESSION_KEY[] = "SESSIONID";
static const char DEVICE_KEY[] = "TTYDEV";

// What belongs to the line and not to who is on it.
static const char *const SETTINGS[] = {
    "SPEED",      "PSWD_STR",   "PSWD_ENC", "SECRET_STR", "BANR_LOGIN",
    "BANR_EXEC",  "BANR_TOUT",  "DATA_IN",  "DATA_OUT",   "ESCAPECHAR",
    "DISCONCHAR", "ACL4NAME",   "ACL4ID",   "ACL6NAME",   "ACL4INNAME",
    "ACL4INID",   "ACL6INNAME", "VKD",      "VKD_SWITCH"};

// A line without a session.
static const kit_pair FREE_LINE[] = {{"TTYPID", "-1"},
                                     {"LOGSUCC", "0"},
                                     {"MTYPE", "0"},
                                     {"SESSIONID", "0"},
                                     {"IDLE", "0"}};

struct line_files {
    char info[TTY_PATH_SIZE];
    char temporary[TTY_PATH_SIZE + 8];
    char lock[TTY_PATH_SIZE + 8];
};

// What a replacement works on.
struct rewrite {
    const char *only_id; // null: whosever the line is
    bool keep_device;
    const kit_pair *pairs;
    size_t count;
    line_files files;
    char *content; // of the old file, terminated
    char *result;
    size_t used;
};

static bool name_files(line_files *files, int line)
{
    char prefix[TTY_PATH_SIZE];

    if (tty_make_path(prefix, sizeof prefix, "/mng/tty/.tty_info") == nullptr ||
        snprintf(files->info, sizeof files->info, "%s_%d", prefix, line) >=
            static_cast<int>(sizeof files->info)) {
        kit_fail("the path of line %d's file is too long", line);
        return false;
    }
    (void)snprintf(files->temporary, sizeof files->temporary, "%s.tmp",
                   files->info);
    (void)snprintf(files->lock, sizeof files->lock, "%s.lock", files->info);
    return true;
}

// Neither a link nor a pipe of somebody's is opened.
static int open_plain(const char *path, int flags)
{
    struct stat status;
    const int fd =
        open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, FILE_MODE);

    if (fd < 0) {
        return -1;
    }
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

// Programs under other users share these files, whatever this process's mask.
static int create_plain(const char *path, int flags)
{
    const int fd = open_plain(path, flags | O_CREAT);

    if (fd >= 0) {
        fchmod(fd, FILE_MODE);
    }
    return fd;
}

static bool take_lock(int fd, int patience_ms)
{
    const int64_t deadline = kit_now_ms() + patience_ms;

    while (tty_flock_try(fd) != 0) {
        if ((errno != EAGAIN && errno != EACCES) || kit_now_ms() >= deadline) {
            return false;
        }
        usleep(LOCK_PAUSE_US);
    }
    return true;
}

static bool read_all(int fd, char *content, size_t size)
{
    size_t used = 0;

    while (used + 1 < size) {
        const ssize_t got = read(fd, content + used, size - 1 - used);
        if (got == 0) {
            content[used] = '\0';
            return true;
        }
        if (got < 0 && errno != EINTR) {
            return false;
        }
        used += got > 0 ? static_cast<size_t>(got) : 0;
    }
    // Nobody's key file is so large: nothing of it is kept.
    content[0] = '\0';
    return true;
}

// A file that is missing is empty.
static bool read_content(rewrite *job)
{
    struct stat status;
    const int fd = open_plain(job->files.info, O_RDONLY);

    size_t size = 1;
    if (fd >= 0 && fstat(fd, &status) == 0 && status.st_size > 0 &&
        static_cast<size_t>(status.st_size) < MOST_BYTES) {
        size = static_cast<size_t>(status.st_size) + 2;
    }
    job->content = static_cast<char *>(calloc(1, size));
    const bool read =
        job->content != nullptr && (fd < 0 || read_all(fd, job->content, size));
    if (fd >= 0) {
        close(fd);
    }
    return read;
}

static bool is_key(const char *entry, const char *key)
{
    const size_t length = strlen(key);

    return strncmp(entry, key, length) == 0 && entry[length] == '=';
}

static bool stays(const rewrite *job, const char *entry)
{
    for (const char *key : SETTINGS) {
        if (is_key(entry, key)) {
            return true;
        }
    }
    return job->keep_device && is_key(entry, DEVICE_KEY);
}

static void put(rewrite *job, const char *bytes, size_t length)
{
    memcpy(job->result + job->used, bytes, length);
    job->used += length;
}

// Copies the entries that stay. The last one may lack its end.
static void keep_settings(rewrite *job)
{
    for (const char *entry = job->content; *entry != '\0';) {
        const size_t length = strcspn(entry, "\n");
        const bool ended = entry[length] == '\n';
        if (stays(job, entry)) {
            put(job, entry, ended ? length + 1 : length);
            if (!ended) {
                put(job, "\r\n", 2);
            }
        }
        entry += ended ? length + 1 : length;
    }
}

// A value is one line, whatever somebody calls himself.
static void put_pair(rewrite *job, const kit_pair *pair)
{
    put(job, pair->key, strlen(pair->key));
    put(job, "=", 1);
    put(job, pair->value, strcspn(pair->value, "\r\n"));
    put(job, "\r\n", 2);
}

static bool compose(rewrite *job)
{
    size_t size = strlen(job->content) + 4;

    for (size_t i = 0; i < job->count; i++) {
        size += strlen(job->pairs[i].key) + strlen(job->pairs[i].value) + 4;
    }
    job->result = static_cast<char *>(malloc(size));
    if (job->result == nullptr) {
        return false;
    }
    keep_settings(job);
    for (size_t i = 0; i < job->count; i++) {
        put_pair(job, &job->pairs[i]);
    }
    return true;
}

static bool write_result(const rewrite *job, int fd)
{
    size_t written = 0;

    while (written < job->used) {
        const ssize_t count =
            write(fd, job->result + written, job->used - written);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        written += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return true;
}

static bool write_temporary(const rewrite *job)
{
    const int fd = create_plain(job->files.temporary, O_WRONLY | O_TRUNC);

    if (fd < 0) {
        return false;
    }
    const bool written = write_result(job, fd);
    const int error = errno;
    close(fd);
    errno = error;
    return written;
}

// On a full disk a file can be changed that does not grow beyond its last
// block. One that has to is emptied: a line says nothing rather than that it is
// somebody's who has gone.
static bool overwrite(const rewrite *job)
{
    const int fd = open_plain(job->files.info, O_WRONLY);

    if (fd < 0) {
        return false;
    }
    const bool written = write_result(job, fd);
    const int error = errno;
    const bool cut =
        ftruncate(fd, written ? static_cast<off_t>(job->used) : 0) == 0;
    close(fd);
    errno = error;
    return written && cut;
}

// Never moves a copy into place that is not whole.
static bool replace_file(const rewrite *job)
{
    if (write_temporary(job) &&
        rename(job->files.temporary, job->files.info) == 0) {
        return true;
    }
    const int error = errno;
    unlink(job->files.temporary);
    if (error == ENOSPC && overwrite(job)) {
        return true;
    }
    errno = error;
    return false;
}

// Whether the file says that the line is this session's.
static bool belongs(const rewrite *job)
{
    const size_t key_length = strlen(SESSION_KEY);
    const char *entry = job->content;

    if (job->only_id == nullptr) {
        return true;
    }
    while (entry != nullptr && !is_key(entry, SESSION_KEY)) {
        entry = strchr(entry, '\n');
        entry = entry != nullptr ? entry + 1 : nullptr;
    }
    if (entry == nullptr) {
        return false;
    }
    const char *value = entry + key_length + 1;
    const size_t length = strlen(job->only_id);
    return strncmp(value, job->only_id, length) == 0 &&
           strcspn(value, "\r\n") == length;
}

static int rewrite_locked(rewrite *job, int line)
{
    int result = -1;

    if (!read_content(job)) {
        kit_fail("line %d cannot be read: %s", line, strerror(errno));
    } else if (belongs(job) && (!compose(job) || !replace_file(job))) {
        kit_fail("line %d cannot be stored: %s", line, strerror(errno));
    } else {
        result = 0;
    }
    const int error = errno;
    free(job->content);
    free(job->result);
    errno = error;
    return result;
}

// The library's own lock keeps its calls on other threads out: the record lock
// is the process's, and closing the file here would take theirs away.
static int rewrite_line(rewrite *job, int line, int patience_ms)
{
    int result = -1;

    if (!name_files(&job->files, line)) {
        return -1;
    }
    tty_lib_lock();
    const int fd = create_plain(job->files.lock, O_RDWR);
    if (fd < 0) {
        kit_fail("%s: %s", job->files.lock, strerror(errno));
    } else if (!take_lock(fd, patience_ms)) {
        kit_fail("line %d is locked by another program", line);
    } else {
        result = rewrite_locked(job, line);
    }
    const int error = errno;
    if (fd >= 0) {
        tty_unflock(fd);
        close(fd);
    }
    tty_lib_unlock();
    errno = error;
    return result;
}

int kit_line_begin(int line, const kit_pair *pairs, size_t count,
                   int patience_ms)
{
    rewrite job = {};

    job.keep_device = true;
    job.pairs = pairs;
    job.count = count;
    return rewrite_line(&job, line, patience_ms);
}

int kit_line_end(int line, const char *id, int patience_ms)
{
    rewrite job = {};

    job.only_id = id;
    job.pairs = FREE_LINE;
    job.count = sizeof FREE_LINE / sizeof *FREE_LINE;
    return rewrite_line(&job, line, patience_ms);
}

int kit_line_clean(int32_t line, const char *id, int32_t patience_ms)
{
    if (line < 0 || line >= TTY_LINES) {
        return kit_fail("%d is no line", line);
    }
    return kit_line_end(line, id, patience_ms);
}
