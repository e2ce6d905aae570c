/*
 * ttyline/tty.h - the line library (libtty)
 *
 * One text file of NAME=value pairs per terminal line, shared by every
 * program of the device. The files lie under the runtime directory: the value
 * of the environment variable TMPDIR ("/" when unset) followed by "/mng/tty".
 *
 * All functions may be called from any thread of any process. Functions that
 * return int give 0 on success and -1 on failure unless they say otherwise;
 * the reason of a failure stands in the dump log, "/mng/tty/.tty_lib_dump.txt"
 * under the runtime directory.
 *
 * Three things a program should know before it links:
 *  - The first tty_setenv() sets the process's file-creation mask to 0 and
 *    leaves it so.
 *  - Calls wait for other threads (a mutex) and other processes (a record
 *    lock on the line's ".lock" file) without a time limit. All signals that
 *    can be blocked are blocked in the calling thread meanwhile.
 *  - None of the functions is async-signal-safe. After fork() the child may
 *    call all of them, whatever the threads of the parent were doing.
 */
#ifndef TTYLINE_TTY_H
#define TTYLINE_TTY_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#if defined(__GNUC__)
#define TTYLINE_PRINTF(fmt_arg, first_arg)                                     \
    __attribute__((format(printf, fmt_arg, first_arg)))
#else
#define TTYLINE_PRINTF(fmt_arg, first_arg)
#endif

/* Lines are numbered 0 to TTY_LINES - 1. */
#define TTY_LINES 1586

/* Two reserved line numbers that the store accepts besides 0 to 1585. */
#define TTY_LINE_RESERVED0 80000
#define TTY_LINE_RESERVED1 80001

/*
 * Stores a value of a line.
 *
 * ttyno  line number: 0 to 1585, 80000 or 80001
 * name   one of the 94 known keys (upper case, see tty(7)); anything else is
 *        refused
 * value  text to store; may be empty, must not be null. It is stored as it
 *        is: a line feed in it splits its line of the file. Key and value
 *        together longer than 1021 characters are cut.
 *
 * Returns 0, or -1 when the request is refused or the file could not be
 * replaced; the old content is then still in place. The file is written
 * synchronously and replaced by rename, so a reader sees the old or the new
 * content and nothing between.
 *
 * Line 0 is written in the caller's own runtime directory but read from that
 * of instance 0, see tty_getenv().
 *
 * Blocks: on the process's library lock, the line's file lock, and the disk.
 *
 *     if (tty_setenv(300, "LOGNAME", "alice") != 0)
 *         warnx("line 300: cannot store the user name");
 */
int tty_setenv(unsigned int ttyno, const char *name, const char *value);

/*
 * Reads a value of a line.
 *
 * ttyno, name  as for tty_setenv()
 * buf, len     the caller's buffer and its size in bytes, at least 1. At most
 *              len - 1 bytes are copied; the result is always terminated.
 *
 * Returns buf, or a null pointer when the request is refused, the key is
 * absent, its value is empty, or the copied text is exactly "null". When the
 * line number or the name is refused buf is left untouched; otherwise it is
 * cleared first.
 *
 * Line 0 is read from the tree of instance 0 beside the caller's own: with
 * TMPDIR set to /tmp/inst/3 from /tmp/inst/0/mng/tty.
 *
 * Blocks like tty_setenv(), but does not write.
 */
char *tty_getenv(unsigned int ttyno, const char *name, char *buf, int len);

/*
 * Exclusive record lock on the whole of an open file, the one that guards a
 * line's ".lock" file. The descriptor must be open for writing. A process
 * holds a record lock once, whatever its threads do, and loses it when it
 * closes any descriptor of the file.
 *
 * tty_flock      waits without limit; a signal does not end the wait
 * tty_flock_try  fails at once with errno EAGAIN or EACCES when another
 *                process holds the lock
 * tty_unflock    releases it
 *
 * Return 0, or -1 with errno set.
 */
int tty_flock(int fd);
int tty_flock_try(int fd);
int tty_unflock(int fd);

/*
 * The library's own lock: one recursive mutex per process. A program takes it
 * to keep the library's operations of its other threads out, for instance
 * around fork(). Operations of the library may be called while it is held.
 * A forked child starts with the lock free.
 */
void tty_lib_lock(void);
void tty_lib_unlock(void);

/*
 * Appends one line to the line library's dump log, opened with a UTC time
 * stamp. The text brings its own line end; a line holds at most 1023 bytes.
 *
 * level  0: always written; 1: only while the file "/data/.tty_lib_debug"
 *        exists
 *
 * errno is the same afterwards as before. When the log cannot be opened and
 * "/mng/tty/.tty_lib_debug" exists under the runtime directory, the line goes
 * to the serial console instead. A log of more than 1 MiB is emptied first.
 */
void tty_debug_msg(int level, const char *fmt, ...) TTYLINE_PRINTF(2, 3);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
