// In-path services: a local program reaches a line through a unix path, and
// the line-console program runs on it. The relay is the library's own; the
// record of a session says between which descriptors.
//
// What passes is logged chunk by chunk, so the log holds whatever is typed.
#include "vc/inpath.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/io.h"
#include "vc/list.h"
#include "vc/protocol.h"

constexpr int CHUNK_SIZE = 64;
constexpr int PEER_SIZE = 64;
constexpr int NUMBER_SIZE = 32;

static const char CONSOLE_PROGRAM[] = "rl-con";

struct vc_inpath_session {
    vc_list link;
    int32_t ttyno;
    int32_t sockfd;
    int32_t master_fd;
    int32_t inetd_fd;
};

vc_list g_vc_inpath_list = {&g_vc_inpath_list, &g_vc_inpath_list};

// The link is the record's first member.
static vc_inpath_session *find_session(int ttyno)
{
    for (vc_list *link = g_vc_inpath_list.next; link != &g_vc_inpath_list;
         link = link->next) {
        auto *session = reinterpret_cast<vc_inpath_session *>(link);
        if (session->ttyno == ttyno) {
            return session;
        }
    }
    return nullptr;
}

int vc_inpath_init_func(int ttyno)
{
    return vc_line_valid(ttyno) ? 0 : -1;
}

int vc_inpath_alloc_func(int ttyno, int inetd_fd, int sockfd, int master_fd)
{
    if (!vc_line_valid(ttyno) || inetd_fd < 0 || sockfd < 0 || master_fd < 0) {
        return -1;
    }
    auto *session =
        static_cast<vc_inpath_session *>(calloc(1, sizeof(vc_inpath_session)));
    if (session == nullptr) {
        return -1;
    }
    session->ttyno = ttyno;
    session->sockfd = sockfd;
    session->master_fd = master_fd;
    session->inetd_fd = inetd_fd;
    list_add_tail(&session->link, &g_vc_inpath_list);
    return 0;
}

// Logs why a transfer ends. The relay logs errno once more: a log that cannot
// be opened must not put its own reason there.
static int end_transfer(const char *step, int fd)
{
    const int error = errno;

    vc_debug_msg("vc: %s %s %d fail %s\r\n", "vc_inpath_transfer_msg", step, fd,
                 strerror(error));
    errno = error;
    return -1;
}

// Returns whether there may be more to read.
static bool pass_on(int to, const char *chunk, int length)
{
    if (tty_write(to, chunk, length) < 1) {
        end_transfer("write", to);
        return false;
    }
    vc_debug_msg("vc: %s write %d %.*s \r\n", "vc_inpath_transfer_msg", length,
                 length, chunk);
    return true;
}

int vc_inpath_transfer_msg(int from, int to)
{
    char chunk[CHUNK_SIZE];

    if (from < 0 || to < 0) {
        vc_debug_msg("vc:%s param is wrong, read fd %d write fd %d.\r\n",
                     "vc_inpath_transfer_msg", from, to);
        return -1;
    }
    // Read until nothing is left, and so without waiting; but what was read
    // must be gone before more is, so the writer waits. A client that does not
    // read stops the loop here.
    vc_set_bk(from, false);
    vc_set_bk(to, true);
    for (;;) {
        const ssize_t got = read(from, chunk, sizeof chunk);
        if (got > 0) {
            if (!pass_on(to, chunk, static_cast<int>(got))) {
                return -1;
            }
        } else if (got == 0) {
            return end_transfer("read", from);
        } else if (errno == EAGAIN) {
            return 0;
        } else if (errno != EINTR) {
            return end_transfer("read1", from);
        }
    }
}

// A callback's entry: its name in the log, and whether the line is one.
static bool enter(int ttyno, const char *function)
{
    vc_debug_msg("vc: TTY[%d] %s.\n", ttyno, function);
    if (vc_line_valid(ttyno)) {
        return true;
    }
    vc_debug_msg("vc: TTY[%d] %s failed.\n", ttyno, function);
    return false;
}

// A line without a record is no failure: the session of another service on this
// line, or one that is being torn down, is not ended by this callback.
int vc_inpath_read_func(int ttyno)
{
    if (!enter(ttyno, "vc_inpath_read_func")) {
        return -1;
    }
    const vc_inpath_session *session = find_session(ttyno);
    if (session == nullptr) {
        return 0;
    }
    return vc_inpath_transfer_msg(session->sockfd, session->master_fd);
}

int vc_inpath_write_func(int ttyno)
{
    if (!enter(ttyno, "vc_inpath_write_func")) {
        return -1;
    }
    const vc_inpath_session *session = find_session(ttyno);
    if (session == nullptr) {
        return 0;
    }
    return vc_inpath_transfer_msg(session->master_fd, session->sockfd);
}

// The descriptors are the teardown's to close.
int vc_inpath_kill_func(int ttyno)
{
    if (!enter(ttyno, "vc_inpath_kill_func")) {
        return -1;
    }
    vc_inpath_session *session = find_session(ttyno);
    if (session != nullptr) {
        list_del_init(&session->link);
    }
    vc_debug_msg("vc: TTY[%d] %s success %d.\n", ttyno, "vc_inpath_kill_func",
                 session != nullptr ? 1 : 0);
    free(session);
    return 0;
}

static void close_unless_none(int fd)
{
    if (fd != -1) {
        close(fd);
    }
}

void vc_inpath_clean_resource(int ttyno)
{
    const vc_inpath_session *session = find_session(ttyno);

    if (session == nullptr) {
        return;
    }
    close_unless_none(session->inetd_fd);
    close_unless_none(session->master_fd);
    close_unless_none(session->sockfd);
}

// An option and its value in one argument, as the line console takes them.
static char *make_argument(const char *option, const char *value)
{
    const size_t size = strlen(option) + strlen(value) + 2;
    char *argument = static_cast<char *>(malloc(size));

    if (argument != nullptr) {
        (void)snprintf(argument, size, "%s %s", option, value);
    }
    return argument;
}

// Returns only when the program cannot be executed.
static void execute_console(char **argv, int ttyno, const char *ttydev)
{
    char peer[PEER_SIZE] = {};

    if (vc_service_peer(ttyno, peer, sizeof peer) != nullptr) {
        argv[3] = make_argument("-i", peer);
        if (argv[3] == nullptr) {
            exit(0);
        }
    }
    vc_debug_msg("vc:ttyno: %d, ttydev: %s, ttytype: %s\n", ttyno, ttydev,
                 peer);
    execvp(CONSOLE_PROGRAM, argv);
    vc_debug_msg("vc: can't execute program, %s not found, err: %s\n",
                 CONSOLE_PROGRAM, strerror(errno));
}

static void run_console(int ttyno, const char *ttydev)
{
    char *argv[] = {nullptr, nullptr, nullptr, nullptr, nullptr};
    char number[NUMBER_SIZE];

    (void)snprintf(number, sizeof number, "%d", ttyno);
    argv[0] = strdup(CONSOLE_PROGRAM);
    argv[1] = make_argument("-n", number);
    argv[2] = make_argument("-t", ttydev);
    if (argv[0] != nullptr && argv[1] != nullptr && argv[2] != nullptr) {
        execute_console(argv, ttyno, ttydev);
    }
    for (char *argument : argv) {
        free(argument);
    }
}

int vc_inpath_shell_func(int ttyno, const char *ttydev)
{
    if (!vc_line_valid(ttyno)) {
        vc_debug_msg("vc: invalid ttyno(%d)\n", ttyno);
        exit(0);
    }
    // The daemon's connections must not live on in the console: the client
    // would wait for an end that does not come.
    vc_inpath_clean_resource(ttyno);
    run_console(ttyno, ttydev);
    vc_debug_msg("vc:tel_shell_func over\n");
    // Not a return, after which the child would end with 1, the status of a
    // service whose program has failed.
    exit(0);
}

static vc_reg describe_service(const char *path)
{
    vc_reg reg = {};

    reg.socket_type = AF_UNIX;
    reg.listen_path = path;
    reg.protocol = VC_PROTOCOL_IN_PATH;
    reg.init_func = vc_inpath_init_func;
    reg.read_func = vc_inpath_read_func;
    reg.write_func = vc_inpath_write_func;
    reg.kill_func = vc_inpath_kill_func;
    reg.alloc_func = vc_inpath_alloc_func;
    reg.shell_func = vc_inpath_shell_func;
    return reg;
}

int vc_inpath_reg(const char *path)
{
    if (path == nullptr) {
        vc_debug_msg("vc: inpath path is NULL!\n");
        return -1;
    }
    const vc_reg reg = describe_service(path);
    if (vc_service_reg(&reg) != 0) {
        vc_debug_msg("vc: inpath %s register fail!\n", path);
        return -1;
    }
    return 0;
}
