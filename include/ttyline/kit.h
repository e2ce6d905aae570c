/*
 * ttyline/kit.h - the kit for login daemons (libttykit)
 *
 * A login daemon describes the services that it offers, and the kit does what
 * every such daemon needs: it puts each connection on a terminal line of its
 * own, runs a program or a function of the daemon's on it, moves the data,
 * says who is on the line, keeps out who may not come in, and cleans up.
 *
 *     static int session(const kit_session *s, void *context)
 *     {
 *         printf("this is line %d\n", s->line);
 *         return 0;
 *     }
 *
 *     static const kit_service service = {
 *         .size = sizeof service, .protocol = 7, .path = "console",
 *         .function = session,
 *     };
 *     static const kit_daemon daemon = {.size = sizeof daemon};
 *
 *     int main(void)
 *     {
 *         if (kit_offer(&service) == 0) {
 *             kit_run(&daemon);
 *         }
 *         fprintf(stderr, "%s\n", kit_error());
 *         return 1;
 *     }
 *
 * Three processes are at work:
 *
 *   the daemon    one for all lines. Its loop, the thread of kit_run(), turns
 *                 when a session begins or ends and never waits for a client.
 *                 A second thread answers the control socket.
 *   the keeper    one a session. It alone has the connection and the master
 *                 of the pseudo-terminal, and moves the data between them.
 *   the program   one a session, on the terminal: what the service runs.
 *
 * The kit stands on ttyline/vc.h and ttyline/tty.h; a daemon that uses it calls
 * neither vc_service_reg() nor vc_service_start(). Its session service is
 * libvc's: one a process.
 *
 * Records begin with their size: set it with sizeof, and leave what you do not
 * need zero. Members may be added at their end. Strings, lists and records that
 * a record points to stay the caller's and must stay valid for as long as the
 * process runs.
 *
 * Functions that return int give 0 on success and -1 on failure, unless they
 * say otherwise; kit_error() has the reason. While the SONAME is 0 a record of
 * another size is refused: rebuild a program with each new version.
 */
#ifndef TTYLINE_KIT_H
#define TTYLINE_KIT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <ttyline/tty.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Part one: describe a service ------------------------------------- */

/* Families of a port. */
#define KIT_IPV4 0x1u
#define KIT_IPV6 0x2u

/* A user or group that is not known. */
#define KIT_NO_ID 0xffffffffu

/*
 * One session. The members do not change while it runs, but for those marked:
 * they are filled in when it is known.
 */
typedef struct kit_session {
    size_t size;
    const struct kit_service *service; /* the one it came in by */
    int32_t line;
    const char *id;    /* 16 hexadecimal digits, unique; the first eight are
                          the time of its begin, seconds since 1970 */
    const char *peer;  /* address of the other end, or "uid 1000" */
    const char *label; /* the same in the words of vc_service_peer() */
    uint32_t peer_uid; /* of a unix path's peer, else KIT_NO_ID */
    uint32_t peer_gid;
    int64_t begin;      /* seconds since 1970 */
    const char *device; /* its terminal; later */
    const char *user;   /* whose it is: see kit_login(); later */
    int32_t logged_in;  /* 1 after kit_login() said so; later */
    int32_t keeper_pid; /* later */
    int32_t pid;        /* of its program; later */
} kit_session;

/*
 * Who may come in. Whoever fails is refused: with a line of text where the
 * service's clients can read it, always with a line in the system log. An
 * absent list lets everybody in, an empty one nobody.
 */
typedef struct kit_admission {
    size_t size;
    /* Addresses "10.0.0.0/8", "::1" of peers, up to a null pointer; for ports.
       An IPv4 address also covers its IPv6-mapped form. */
    const char *const *peers;
    /* The same for the address that the peer has connected to. A service
       listens on all addresses of the machine: this narrows it. */
    const char *const *locals;
    /* Users and groups of peers, by name or number, up to a null pointer; for
       unix paths. One that is on either list may come in. */
    const char *const *users;
    const char *const *groups;
    /* Most sessions at a time; 0: no limit. One peer is an IPv4 address, an
       IPv6 network of 64 bits, a link-local IPv6 address, or the user of a
       unix path's peer. */
    uint32_t most_sessions;
    uint32_t most_per_peer;
} kit_admission;

/*
 * What a codec works on: it takes bytes from in, puts bytes to out, and answers
 * to the side that they came from through back. It advances the pointers and
 * lowers the counts of what it has used, and returns when in is empty or out or
 * back has too little room for the next step. There is always room for 16 bytes
 * in both when it is called.
 */
typedef struct kit_flow {
    const uint8_t *in;
    size_t in_left;
    uint8_t *out;
    size_t out_room;
    uint8_t *back;
    size_t back_room;
} kit_flow;

/*
 * Translates between the connection and the terminal. All calls are made in
 * the keeper of the session. A negative result ends the session as a broken
 * connection does.
 */
typedef struct kit_codec {
    size_t size;
    size_t state_size; /* bytes of zeroed memory for each session */
    /* Before the first byte; may put what the service says first to out of
       flow, which goes to the peer. Optional. */
    int (*open)(void *state, kit_flow *flow, const kit_session *session);
    int (*decode)(void *state, kit_flow *flow); /* peer to terminal */
    int (*encode)(void *state, kit_flow *flow); /* terminal to peer */
    /* Whether the program may start: non-zero when the peer has told what it
       should find. Asked from turn to turn, for ready_ms at most (0: 500).
       Optional: without it the program starts at once. */
    int (*ready)(const void *state);
    uint32_t ready_ms;
    /* The peer has sent urgent data over TCP, which stays in its place among
       the rest. Called before what was received with it is decoded, perhaps
       more than once. What was typed before and the program has not read is
       thrown away. Optional. */
    void (*urgent)(void *state);
    int32_t plain_text; /* 1: a peer can read a line of text that was not
                           encoded, as that why it is refused */
} kit_codec;

/*
 * In the calls of a codec: the terminal of its session.
 *
 * kit_terminal_size       sets its size, both from 1 to 65535; the line's
 *                         COLUMNS and LINES have the one that the program
 *                         starts with
 * kit_terminal_type       TERM of the program and of the line, 1 to 63 bytes;
 *                         without effect once the program has started
 * kit_terminal_character  one of its special characters, by an index of
 *                         <termios.h> such as VINTR; 0 when it has none
 */
int kit_terminal_size(unsigned int columns, unsigned int rows);
int kit_terminal_type(const char *type);
unsigned char kit_terminal_character(int index);

typedef struct kit_service {
    size_t size;
    const char *name; /* for people; null: "protocol-" and its number */

    /* Where it is reached: a port, or a unix path of at most 63 characters. */
    uint32_t protocol; /* see vc(7); what it is to other programs */
    int32_t port;      /* 1 to 65535, or 0 with a path */
    uint32_t families; /* KIT_IPV4 | KIT_IPV6 for a port; 0: both */
    const char *path;

    /*
     * What a session runs: a program, found through PATH, with its arguments
     * up to a null pointer; or a function, in a process of its own, on the
     * terminal (descriptors 0 to 2, line editing on). Its result is the
     * process's exit status. It may call exec itself.
     */
    const char *const *program;
    int (*function)(const kit_session *session, void *context);
    const char *argv0;              /* what the program is told it is called;
                                       null: its own name */
    const char *user;               /* whom it runs as; null: the daemon's */
    const char *directory;          /* where; null: the user's home */
    const char *term;               /* terminal type; null: "vt100" */
    const char *const *environment; /* further "NAME=value", up to a null */

    const kit_admission *admission; /* null: everybody */
    const kit_codec *codec;         /* null: bytes pass as they are */

    /* Limits in milliseconds; 0: what stands here. */
    uint32_t drain_ms;      /* 10000: how long the program's last output may
                               stand still before it is given up */
    uint32_t half_close_ms; /* 2000: how long a session whose peer sends no
                               more may stand still */
    uint32_t hangup_ms;     /* 5000: from the hang-up to the end by force */

    void *context; /* passed to the callbacks and to function */

    /*
     * Callbacks in the daemon, on the loop's thread: they must not wait, nor
     * call kit_offer(), kit_admit() or functions of ttyline/vc.h that change
     * listeners. All are optional. The session is valid during the call. A
     * service of a protocol that is not relayed, see ttyline/vc.h, cannot have
     * began and received.
     *
     * admit     a last word after the admission rules; 0 lets the session in,
     *           anything else refuses it, with the reason that it wrote
     * began     its keeper runs
     * received  what its function has sent with kit_send()
     * ended     it is over; status of its program as waitpid() gives it, -1
     *           when that is not known. Not called for a refused session, and
     *           for one that never ran without began before it
     */
    int (*admit)(const kit_session *session, char *reason, size_t size,
                 void *context);
    void (*began)(const kit_session *session, void *context);
    void (*received)(const kit_session *session, const void *data,
                     size_t length, void *context);
    void (*ended)(const kit_session *session, int status, void *context);

    uint32_t idle_ms; /* 0: no limit; how long nothing may move either way
                         before a session is ended, which its user is told */

    /*
     * In the keeper, before it reads the first byte of the connection: gives up
     * the rights of the daemon that moving bytes does not need, such as its
     * user, its files and system calls. Anything but 0 ends the session. What a
     * keeper then can no longer do at its end, clean the line and end by force
     * what the program has left, the daemon does. The program has been forked
     * before: it keeps its rights. Optional.
     */
    int (*confine)(const kit_session *session, void *context);

    int32_t asks_user; /* 1: the function asks who the user is; until
                          kit_login() says so the session is nobody's */
} kit_service;

/*
 * Offers a service: before kit_run(), or later from any thread but the loop's.
 * The line-allocation daemon permits it, which may take a moment. What could
 * not be offered may be offered again.
 *
 * service  must stay valid and unchanged while the process runs
 *
 * Returns -1 when the record is not acceptable, or another program serves
 * there; kit_run() says so of services that were offered before it. Beside a
 * running loop it waits for a place that is in use, three seconds at most.
 */
int kit_offer(const kit_service *service);

/*
 * Replaces the admission rules of an offered service, as a daemon does on a
 * reload. Sessions that run go on. Any thread.
 */
int kit_admit(const kit_service *service, const kit_admission *admission);

/* ---- Part two: run it -------------------------------------------------- */

typedef struct kit_daemon {
    size_t size;
    const char *name;    /* in the system log; null: the program's own */
    const char *version; /* what "status" tells; may be null */
    const char *control; /* path of the control socket; null: none */
    uint32_t path_mode;  /* permissions of unix paths; 0: 0600. Whom they keep
                            out is refused, whatever the path has */
    /* "reload" on the control socket; 0, or another result with the reason
       written. On the thread of the control socket, which it holds up. */
    int (*reload)(char *reason, size_t size, void *context);
    void *context;
} kit_daemon;

/*
 * Checks the runtime directory, opens the control socket, registers what has
 * been offered, and gives the calling thread to the loop. Returns only on
 * failure, with -1. Call it once.
 *
 * The descriptor limit is raised for the daemon and put back for sessions. The
 * file-creation mask becomes what path_mode asks for. SIGTERM ends the daemon:
 * sessions are hung up, socket files removed. SIGCHLD and SIGHUP are the
 * session service's.
 *
 * A service manager that has set NOTIFY_SOCKET is told "READY=1", "STOPPING=1",
 * and with WATCHDOG_USEC "WATCHDOG=1" twice in that time: the first and the
 * last each time only when the loop was seen to turn.
 */
int kit_run(const kit_daemon *daemon);

/*
 * The reason of the calling thread's last failure, one line without its end.
 * Valid until the thread's next call.
 */
const char *kit_error(void);

/*
 * Whether the runtime directory is one to trust: every component of its path
 * belongs to root or to this process's user and can be changed by nobody else,
 * and the last two, "mng/tty", which are made when they are missing, belong to
 * this user. Every program should ask before it opens anything there.
 */
int kit_runtime_check(void);

/*
 * For a line-allocation daemon, when a login daemon was killed with its
 * keepers: takes off a line what the session of this id, the line's SESSIONID,
 * has left there. A line that is another session's by now stays as it is.
 *
 * patience_ms  how long to wait for the line's lock
 *
 * Waits for the disk too: not on a thread that others wait for.
 */
int kit_line_clean(int32_t line, const char *id, int32_t patience_ms);

/*
 * The session service's system-log hook, see ttyline/vc.h: the kit provides it,
 * as a datagram that never waits and takes no lock. A device that has a hook of
 * its own defines it in the program, which then wins.
 */
void printk_syslog_ext(int level, const char *module, const char *tag, int kind,
                       const char *fmt, ...) TTYLINE_PRINTF(5, 6);

/* ---- Part three: about a session --------------------------------------- */

/*
 * In the session's function: what lines share goes through the daemon.
 *
 * kit_send     gives a message of 1 to 4096 bytes to the received callback
 *              of the daemon; waits while many are under way
 * kit_receive  takes the next message that kit_post() sent to this session;
 *              waits for it. Returns its length, 0 when the session is over,
 *              -1 on failure. What does not fit into size is cut.
 * kit_descriptor  the descriptor that is readable when kit_receive() would not
 *              wait, for poll()
 */
int kit_send(const kit_session *session, const void *data, size_t length);
ssize_t kit_receive(const kit_session *session, void *buffer, size_t size);
int kit_descriptor(const kit_session *session);

/*
 * In the session's function: says who the user is and whether he may be. The
 * line's keys LOGNAME and LOGSUCC, the administration daemon, the system log
 * and the daemon learn it. May be called again. Waits for the line's lock.
 */
int kit_login(const kit_session *session, const char *user, int success);

/*
 * In the daemon's callbacks: sends a message of 1 to 4096 bytes to the
 * function of the session on this line. -1 when there is none, or when it has
 * not taken what it was sent before (errno EAGAIN): nothing here waits for a
 * session.
 */
int kit_post(int32_t line, const void *data, size_t length);

/*
 * In the daemon's callbacks: visits every session that runs, in the order of
 * lines.
 */
void kit_each_session(void (*visit)(const kit_session *session, void *argument),
                      void *argument);

/*
 * Ends a session: its user is told the reason, its terminal hung up. A keeper
 * that does not begin with it within three seconds, as one that was stopped, is
 * killed. -1 when there is none on this line. Any thread; does not wait for the
 * end.
 */
int kit_end(int32_t line, const char *reason);

/*
 * The known keys of a line, see tty(7): the name at this place, counted from 0,
 * null behind the last one. Never blocks.
 */
const char *kit_key(unsigned int index);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
