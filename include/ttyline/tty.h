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
 *  - Every tty_setenv() that is not refused sets the process's file-creation
 *    mask to 0 and leaves it so.
 *  - Calls wait for other threads (a mutex) and other processes (a record
 *    lock on the line's ".lock" file) without a time limit. All signals that
 *    can be blocked are blocked in the calling thread meanwhile, and a thread
 *    that is cancelled ends after the call and not in it.
 *  - None of the functions is async-signal-safe. After fork() the child may
 *    call all of them, whatever the threads of the parent were doing.
 */
#ifndef TTYLINE_TTY_H
#define TTYLINE_TTY_H

#ifndef __cplusplus
#include <stdbool.h>
#endif

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

/* The most characters that key and value of a line may have together. */
#define TTY_PAIR_MAX 1020

/*
 * Stores a value of a line.
 *
 * ttyno  line number: 0 to 1585, 80000 or 80001
 * name   one of the 94 known keys (upper case, see tty(7)); anything else is
 *        refused
 * value  text to store; may be empty; null is refused. It is stored as it
 *        is: a line feed in it splits its line of the file. Key and value
 *        together longer than TTY_PAIR_MAX are cut and lose their line end,
 *        so that the next key of the file runs into them.
 *
 * Returns 0, or -1 when the request is refused or the file could not be
 * replaced; the old content is then still in place. 0 says that the file was
 * replaced, not that it is whole: on a full disk it has lost the lines that
 * could not be written, which the log tells. The file is written synchronously
 * and replaced by rename, so a reader sees the old or the new content and
 * nothing between.
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
 * buf, len     the caller's buffer, not null, and its size in bytes, at least
 *              1. At most len - 1 bytes are copied, the two of the line end
 *              among them, which are then taken off; the result is always
 *              terminated. With less than three bytes more than the value the
 *              carriage return stays, or the value is cut, unseen.
 *
 * Returns buf, or a null pointer when the request is refused, the key is
 * absent, its value is empty, or what was copied, with its line end, is exactly
 * "null": a value that a buffer of 5 bytes has cut to it, or a last line that
 * somebody else has left without an end. When the line number or the name is
 * refused buf is left untouched; otherwise it is cleared first.
 *
 * Line 0 is read from the tree of instance 0 beside the caller's own: with
 * TMPDIR set to /tmp/inst/3 from /tmp/inst/0/mng/tty.
 *
 * Blocks like tty_setenv(), but does not write.
 */
char *tty_getenv(unsigned int ttyno, const char *name, char *buf, int len);

/*
 * Returns a line to its state without a session: clears LOGNAME, SOCKADDR,
 * RL_TIMEOUT and PEERNAME, sets TTYPID to "-1" and LOGSUCC, MTYPE, SESSIONID
 * and IDLE to "0", in this order, each with a tty_setenv() of its own. Another
 * program may see some of them reset and others not yet.
 *
 * ttyno  as for tty_setenv()
 *
 * Returns 0, or -1 at the first key that could not be stored; those before it
 * are reset then, those after it untouched. Blocks like tty_setenv().
 */
int tty_reset_info(unsigned int ttyno);

/*
 * Converts a speed in bits per second (50 to 230400) to the terminal
 * interface's code (B50 to B230400 of <termios.h>), and back. 0 when there is
 * no such speed or code. Never blocks.
 *
 *     cfsetospeed(&settings, (speed_t)tty_speed2code(9600));
 */
int tty_speed2code(int speed);
int tty_code2speed(int code);

/*
 * Requests to the line administration daemon, over one connection per process
 * to the unix-domain socket "/mng/tty/.tty_rl" under the runtime directory.
 * The first request connects; a failed connect is tried again by the next
 * one. The connection is kept for the life of the process and shared with
 * forked children; it is not close-on-exec, so a program that the process
 * executes has it unless it is closed before. Once the daemon has gone, every
 * further request of the process fails: only a new process connects again.
 *
 * Nothing is answered: 0 says that the request was sent, not that it was
 * obeyed. All block on the library lock, and without a limit while the daemon
 * does not read. Signals are held back meanwhile. A process that does not
 * ignore SIGPIPE is ended by it, after the call's work is done, when the
 * daemon has gone.
 *
 * On the wire a request is the line's item and one more, and a release its own
 * item alone; an item is 8 bytes in the machine's byte order: 16 bits of type,
 * 16 bits that hold the length of the value, always 4, and 32 bits of value.
 */
#define TTYLIB_TLV_LOGSUCC 0x0001         /* 1: the user has logged in */
#define TTYLIB_TLV_TTYNO 0x0020           /* a line; in a hold, to except */
#define TTYLIB_TLV_SPEED 0x0040           /* the new speed */
#define TTYLIB_TLV_SESSION_TIMEOUT 0x0080 /* the new time-out */
#define TTYLIB_TLV_EXEC_TIMEOUT 0x0100    /* the new time-out */
#define TTYLIB_TLV_HOLD_TIME 0x0800       /* 0 to TTY_HOLD_MAX */
#define TTYLIB_TLV_RELEASE 0x1000         /* 0 */

/* The longest hold, in seconds. */
#define TTY_HOLD_MAX 1800

/*
 * Records how a login on a line ended in its key LOGSUCC ("1" or "0") and
 * tells the daemon of a successful one.
 *
 * ttyno  line number, 0 to 1585
 *
 * Returns 0, or -1 for a bad line number, when the key could not be stored or
 * the request not be sent; the key is stored all the same in the last case.
 */
int tty_login_info_audit(unsigned int ttyno, bool success);

/*
 * Tells the daemon that a setting of a line has changed. It stores nothing.
 *
 * ttyno  line number, passed on unchecked
 * name   "SPEED", "SESSION_TIMEOUT" or "EXEC_TIMEOUT"; must not be null
 * value  the new value
 *
 * Returns 0, or -1 for another name, which connects but sends nothing, or when
 * the request could not be sent.
 */
int tty_cfg_update(unsigned int ttyno, const char *name, unsigned int value);

/*
 * Asks the daemon to assign no line until tty_release_line(), or until the
 * time is over.
 *
 * except_ttyno  the line to except, 0 to 1585; 1586: none
 * hold_time     0 to TTY_HOLD_MAX
 *
 * Returns 0, or -1 for a value out of range, while an earlier hold of this
 * process has not been released, or when the request could not be sent. A hold
 * that could not be sent counts as sent: release it before the next one.
 */
int tty_hold_line(unsigned int except_ttyno, unsigned int hold_time);

/*
 * Ends the hold, also one of another process. Returns 0, or -1 when the request
 * could not be sent; unless the daemon could not be reached at all, this
 * process may hold again.
 */
int tty_release_line(void);

/*
 * Whether a service is enabled, by the bit mask in the file
 * "/mng/tty/.service_cur.txt" under the runtime directory.
 *
 * service  number of the service, 0 to 31; of others the last five bits count
 *
 * Returns 1 when it is enabled, else 0. Without the file only service 4 is.
 * Takes no lock; blocks on the disk at most.
 */
int tty_get_service(unsigned int service);

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
