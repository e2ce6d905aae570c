/*
 * ttyline/vc.h - the session service (libvc)
 *
 * A login daemon registers services and gives one of its threads to
 * vc_service_start(). The service keeps a connection to the line-allocation
 * daemon (the device's "inetd"; ttylined(8) on machines that have none), opens
 * the listeners that it permits, reports accepted connections to it, receives a
 * line number for each, opens a pseudo-terminal and forks the session program
 * on it, calls the daemon's callbacks to move the data, and tears the session
 * down when either side ends.
 *
 *     static const vc_reg login4 = {
 *         .socket_type = AF_INET, .listen_port = 23,
 *         .protocol = VC_PROTOCOL_TCP,
 *         .init_func = init, .read_func = from_peer, .write_func = to_peer,
 *         .kill_func = end, .alloc_func = alloc, .shell_func = shell,
 *     };
 *     if (vc_service_reg(&login4) != 0)
 *         errx(1, "cannot register");
 *     vc_service_start();
 *
 * Functions return 0 on success and -1 on failure unless they say otherwise;
 * the reason stands in the dump log, "/mng/tty/.vc_dump.txt" under the runtime
 * directory (the value of TMPDIR, or "/" when unset, before that name).
 *
 * Signals: the first registration installs handlers for SIGCHLD (not when it
 * is of VC_PROTOCOL_IN_PATH) and SIGHUP, without SA_RESTART, and ignores
 * SIGQUIT, SIGINT and SIGPIPE. The SIGCHLD handler reaps every child of the
 * process, also those that the daemon started for itself. It runs on whatever
 * thread the signal reaches.
 *
 * Threads: a thread that may be cancelled must not be so inside a function of
 * this library, as it may hold the service's lock there.
 */
#ifndef TTYLINE_VC_H
#define TTYLINE_VC_H

#include <stdint.h>
#include <sys/socket.h>

#include <ttyline/tty.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Circular doubly linked list. The link is the first member of an element; an
 * empty list is a head whose two pointers lead to itself.
 */
typedef struct vc_list {
    struct vc_list *next;
    struct vc_list *prev;
} vc_list;

/*
 * Protocols: what kind of service it is. The number decides what its address
 * must be, who moves the data of its sessions, and what their programs and
 * their users are told; vc(7) has the table. No protocol is spoken by the
 * library: a name says what its sessions count as, and what clients send is
 * the daemon's or the session program's to understand.
 */
#define VC_PROTOCOL_ANY 0       /* any address, relayed */
#define VC_PROTOCOL_WEB 1       /* IPv4 or IPv6, relayed: a web terminal */
#define VC_PROTOCOL_WEB_ALT 2   /* another one */
#define VC_PROTOCOL_TIPC 3      /* TIPC, not relayed: a virtual terminal */
#define VC_PROTOCOL_TELNET 4    /* IPv4 or IPv6, not relayed */
#define VC_PROTOCOL_SSH 5       /* IPv4 or IPv6, not relayed */
#define VC_PROTOCOL_TCP 6       /* IPv4 or IPv6, relayed */
#define VC_PROTOCOL_LOCAL 7     /* unix path, relayed */
#define VC_PROTOCOL_TIPC_ALT 8  /* TIPC, not relayed: without a label */
#define VC_PROTOCOL_LOCAL_WEB 9 /* unix path, relayed: TTYTYPE of the web */
#define VC_PROTOCOL_IN_PATH 10  /* unix path, relayed: see vc_inpath_reg() */
#define VC_PROTOCOL_SSH_ALT 11  /* IPv4 or IPv6, not relayed, starts closed */
#define VC_PROTOCOL_MAX 11      /* the last one */

/*
 * Lines: sessions run on those of two ranges only. The first lines of the low
 * range are the virtual terminals, vty0 and so on: they alone are cleared when
 * the inetd asks for it.
 */
#define VC_LINE_VTY_FIRST 258
#define VC_LINE_VTY_LAST 321
#define VC_LINE_LOW_FIRST 258
#define VC_LINE_LOW_LAST 1148
#define VC_LINE_HIGH_FIRST 1421
#define VC_LINE_HIGH_LAST 1585

/*
 * What the daemon knows about one service. The record is copied by
 * vc_service_reg(), the path too: the caller may free both afterwards.
 *
 * All callbacks run on the thread of vc_service_start(), except shell_func
 * (in the forked child) and exit_func (in a signal handler). Of the functions
 * below they may call:
 *
 *     acl_func, tos_func      vc_service_peer() and vc_debug_msg() only: the
 *                             service's lock is held
 *     shell_func              the same two: another thread of the daemon may
 *                             have held the lock during the fork
 *     exit_func               vc_debug_msg() only
 *     alloc_func, init_func,  all but vc_service_start() and
 *     kill_func               vc_msg_del_listen()
 *     read_func, write_func   all but vc_service_start(); where
 *                             vc_msg_del_listen() ends the callback's own
 *                             session, kill_func has been called and the
 *                             descriptors are closed when it returns, and the
 *                             result of the callback is of no account
 */
typedef struct vc_reg {
    int32_t socket_type;     /* 1 unix, 2 IPv4, 10 IPv6, 30 TIPC */
    int32_t listen_port;     /* 1 to 65535, host order; 0 for a unix path; its
                                last 16 bits count, others are not refused */
    const char *listen_path; /* unix path, or null; what is longer than 63
                                characters is cut, not refused */
    uint32_t protocol;       /* VC_PROTOCOL_... */
    uint8_t addrtype;        /* TIPC address type */
    uint8_t scope;           /* TIPC scope */
    uint32_t nameseq_type;   /* TIPC name sequence */
    uint32_t nameseq_lower;
    uint32_t nameseq_upper;

    /*
     * Required. init_func follows alloc_func before the fork; negative gives
     * the connection up. kill_func is called once per session, before its
     * descriptors are closed, also when alloc_func or init_func failed.
     */
    int (*init_func)(int ttyno);
    /*
     * Required. read_func moves what the connection has to the
     * pseudo-terminal, write_func the other way. Negative ends the session, 0
     * says that nothing is left over, a positive value that data is pending:
     * the step is then called again after 10 ms without waiting for input.
     * Before each wait the service switches both descriptors to blocking
     * mode; a callback that must not stall the daemon switches them itself.
     * The service's signals interrupt calls: EINTR is no failure.
     */
    int (*read_func)(int ttyno);
    int (*write_func)(int ttyno);
    int (*kill_func)(int ttyno);
    /*
     * Required. Tells the descriptors of a new session: the inetd connection,
     * the accepted connection and the pseudo-terminal's master. They belong
     * to the service. Negative gives the connection up.
     */
    int (*alloc_func)(int ttyno, int inetd_fd, int sockfd, int master_fd);
    /*
     * Required. Runs the session program; called in the forked child with the
     * terminal on descriptors 0 to 2. Normally does not return; non-zero is
     * logged, and the child ends with status 1. The child starts with SIGHUP,
     * SIGINT, SIGQUIT and SIGPIPE ignored and, until it executes a program,
     * with every descriptor of the daemon but the listeners. All that the
     * service opens is close-on-exec there, except the session's own
     * connection and master, which an executed program has until it closes
     * them.
     */
    int (*shell_func)(int ttyno, const char *ttydev);

    /*
     * Optional. A session's process was reaped; status as waitpid() gives it.
     * Runs in the SIGCHLD handler: only async-signal-safe work is allowed, so
     * neither syslog(3) nor printf(3).
     */
    void (*exit_func)(int status, int pid);
    /*
     * Optional, IPv4 and IPv6. Anything but true closes the connection. The
     * ports inside both addresses are in host order.
     */
    bool (*acl_func)(const struct sockaddr *local, const struct sockaddr *peer);
    /* Optional. TOS or traffic class for the listener; negative: default. */
    int (*tos_func)(void);
} vc_reg;

/* Kinds of records exchanged with the inetd, bits of tty_cmsg.vc_flag. */
#define VC_FLAG_CLIENT_ALLOC 0x001u
#define VC_FLAG_CLIENT_CLEAR 0x002u
#define VC_FLAG_PORT_PERMIT 0x008u
#define VC_FLAG_PORT_FAIL 0x010u
#define VC_FLAG_ALLOC_OK 0x020u
#define VC_FLAG_PATH_PERMIT 0x080u
#define VC_FLAG_PATH_FAIL 0x100u
#define VC_FLAG_STOP_LISTEN 0x200u
#define VC_FLAG_PORT_CHANGE 0x400u

/* Size of tty_cmsg.path; 63 characters and a terminator. */
#define VC_PATH_SIZE 64

/*
 * The record exchanged with the inetd, 156 bytes, integers in the machine's
 * own byte order, ports in host order, addresses in network order. The TIPC
 * fields share bytes 44 to 51 with an IPv6 local address; no record carries
 * both.
 */
typedef struct tty_cmsg {
    uint32_t vc_flag;
    int32_t ttyno;
    int32_t sockfd;   /* of the accepted connection, echoed by the inetd */
    int32_t socktype; /* address family of the service */
    int32_t port;     /* listening, local or old port */
    int32_t protocol;
    int32_t pid;
    int32_t peer_port; /* of a connection; the new port in a port change */
    uint32_t reserved0;
    __extension__ union {
        uint8_t local_addr[16]; /* IPv4 in the first 4 bytes, or IPv6 */
        __extension__ struct {
            uint32_t reserved1[2];
            uint32_t tipc_addrtype;
            int32_t tipc_scope;
            uint32_t tipc_type;
            uint32_t tipc_lower;
            uint32_t tipc_upper;
        };
    };
    int32_t tos;       /* negative: leave the default */
    int32_t accept_id; /* pairs an accept report with its answer */
    uint32_t reserved2;
    uint8_t peer_addr[16];
    char path[VC_PATH_SIZE];
} tty_cmsg;

/*
 * The loop's current connection to the inetd, -1 while there is none. Read
 * only, and from another thread only a hint.
 */
extern int32_t g_vc_tty_socket;
/* Accepted connections that wait for a line. The loop's thread only. */
extern vc_list g_vc_accept_list;
/* Sessions of in-path services, see vc_inpath_reg(). The loop's thread only. */
extern vc_list g_vc_inpath_list;

/*
 * Registers a service. Before or after vc_service_start(), from any thread;
 * the first call of the process initialises the session service and must not
 * run beside another call of this library.
 *
 * The protocol decides what the address must be (a unix path goes with port 0)
 * and who moves the data: of a relayed session the loop, through read_func and
 * write_func, of another the session program, which uses the connection
 * itself. VC_PROTOCOL_SSH_ALT starts closed, see vc_deal_service_listen().
 *
 * Returns -1 for a bad protocol, a missing required callback, a family that
 * does not fit, an endpoint that is registered already (same port and family,
 * or same path and family), or memory exhaustion. A service registered while
 * the loop runs is announced at its next turn, within 60 seconds, or at once
 * after vc_deal_service_listen(true, protocol).
 *
 * Does not block beyond the service's lock.
 */
int vc_service_reg(const vc_reg *reg);

/*
 * Removes the first service with this port (0: the first unix path) and
 * closes its listener. Running sessions go on. Returns 0 whether or not there
 * was one, -1 before the first registration. Any thread.
 */
int vc_service_del(int port);

/*
 * The main loop; gives the calling thread to the session service. Returns -1
 * at once when nothing was ever registered, otherwise never. Call it once.
 */
int vc_service_start(void);

/*
 * Opens or stops all services of a protocol. Stopping closes their listeners
 * until they are opened again; sessions go on. Opening wakes the loop, which
 * announces them. Always 0. Any thread.
 */
int vc_deal_service_listen(bool open, int protocol);

/*
 * Closes the listeners of a protocol as a stop record from the inetd does:
 * msg->pid must be the caller's process id, msg->protocol says which. Returns
 * the own process id when msg->pid is another's (nothing is done), else 0.
 * Any thread.
 */
int vc_msg_stop_listen(const tty_cmsg *msg);

/*
 * Closes the listeners of msg->protocol on msg->port or msg->path and ends
 * the sessions that came in there, when msg->pid is the caller's process id.
 * A port of 0 matches every service of the protocol that has none. The
 * services are announced again. The loop's thread only, as it walks the
 * sessions: that is, from read_func and write_func. It may end the session
 * whose callback that is.
 */
void vc_msg_del_listen(const tty_cmsg *msg);

/*
 * Moves the services of a protocol from one port to another: tells the inetd
 * when it is connected, closes the listener and waits for the inetd's permit.
 * Returns -1 for a protocol above VC_PROTOCOL_MAX, a negative port, before the
 * first registration, or when the inetd could not be told. Any thread; may
 * block while the inetd does not read.
 */
int vc_service_update_port(int protocol, int old_port, int new_port);

/*
 * Sets TOS (family 2) or traffic class (family 10) on the listener of the
 * first service with this protocol and family; negative counts as 0. Returns
 * the result of setsockopt(), or -1 when there is no such service or the
 * family is another. Any thread.
 */
int vc_tos_set(int protocol, int family, int tos);

/*
 * Registers an in-path service (VC_PROTOCOL_IN_PATH): local programs connect
 * to a unix path, and each connection gets a line on which the line-console
 * program "rl-con" runs, found through PATH and started with the arguments
 * "-n LINE", "-t DEVICE" and "-i PEER", option and value in one argument each.
 * The service's callbacks are the library's own.
 *
 * path  unix path, at most 63 characters; copied
 *
 * Returns 0, or -1 for a null path or when vc_service_reg() refuses it. When
 * it is the process's first registration no SIGCHLD handler is installed.
 * Threads as for vc_service_reg().
 *
 * Everything that passes between the client and its line, passwords included,
 * is written to the dump log as it is. Whoever may read the runtime directory
 * may read it: let no other user into that directory (mode 0700).
 *
 *     vc_inpath_reg("/var/run/inpath");
 *     vc_service_start();
 */
int vc_inpath_reg(const char *path);

/*
 * Says in a few words who is at the other end of a line's session: "web",
 * "vty" and the line's number counted from VC_LINE_VTY_FIRST, or "ins",
 * followed by the address in parentheses where there is one, such as
 * "vty2(10.0.0.5)".
 *
 * ttyno      line number, 0 to 1585
 * buf, size  the caller's buffer and its size in bytes; what does not fit is
 *            cut, and with a size of 0 or less nothing is written
 *
 * Returns buf, or a null pointer when the line has no session, is no line, has
 * VC_PROTOCOL_TIPC_ALT, or buf is null. For a protocol without a label, see
 * vc(7), buf is returned as it was. The loop's thread (callbacks) or the forked
 * child (shell_func). Does not block.
 */
char *vc_service_peer(int ttyno, char *buf, int size);

/*
 * Computes the path of the dump log from TMPDIR; the first registration calls
 * it. Messages before go to "/tmp/vkd/0/mng/tty/.vc_dump.txt", where somebody
 * else may have put a link: a program that logs earlier calls this first.
 */
void vc_debug_init(void);

/*
 * Appends one line to the session service's dump log, opened with a UTC time
 * stamp and the process id. The text brings its own line end. When the log
 * cannot be opened for another reason than a missing directory, the line goes
 * to printk_syslog_ext(), if the process provides it. errno is not kept. Any
 * thread.
 */
void vc_debug_msg(const char *fmt, ...) TTYLINE_PRINTF(1, 2);

/*
 * The device's system-log hook, imported by the library: a program may
 * provide it. It is called wherever vc_debug_msg() is: on any thread, with the
 * service's lock held or not, in the forked child, in a callback, and in the
 * SIGCHLD handler on whatever thread that runs, so on several threads at once.
 * Clients can bring that about by using up the descriptors. SIGCHLD is blocked
 * in the calling thread meanwhile. The hook must be async-signal-safe: it takes
 * no lock, as syslog(3) does, allocates nothing, does not wait, and calls no
 * function of this library. vc_debug_msg(3) has one.
 */
void printk_syslog_ext(int level, const char *module, const char *tag, int kind,
                       const char *fmt, ...) TTYLINE_PRINTF(5, 6);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
