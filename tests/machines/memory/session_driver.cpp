// A login daemon from its first registration to its end. Its far side, a
// child, is the inetd and all the clients: it has a session on a port and one
// on an in-path line, and closes the inetd connection.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <ttyline/vc.h>

#include "tests/machines/memory/driver.h"

constexpr uint32_t PROTOCOL = 6;
constexpr int PROTOCOL_INPATH = 10;
constexpr int SESSION_LINE = 300;
constexpr int INPATH_LINE = 1500;

static const char INETD_NAME[] = "/mng/tty/inetd/.qv_inetd";
static const char INPATH_NAME[] = "/inpath";
static const char CONSOLE_NAME[] = "/rl-con";
static const char CONSOLE_PROGRAM[] = "#!/bin/sh\n"
                                      "echo console\n"
                                      "read -r answer\n";

static int g_port;
// Readable once the far side is done: "k", or its end when it failed.
static int g_outcome;

static struct sockaddr_in loopback(int port)
{
    struct sockaddr_in address = {};

    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

static int unused_port(void)
{
    struct sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);

    EXPECT(bind(fd, reinterpret_cast<struct sockaddr *>(&address),
                sizeof address) == 0);
    EXPECT(getsockname(fd, reinterpret_cast<struct sockaddr *>(&address),
                       &length) == 0);
    close(fd);
    return ntohs(address.sin_port);
}

// The daemon's callbacks. It has one session at a time that is its own.

static int g_client;
static int g_master;
static char g_peer[64];

static int keep_descriptors(int ttyno, int, int sockfd, int master_fd)
{
    EXPECT(ttyno == SESSION_LINE);
    g_client = sockfd;
    g_master = master_fd;
    return 0;
}

static int name_peer(int ttyno)
{
    EXPECT(vc_service_peer(ttyno, g_peer, sizeof g_peer) == g_peer);
    return 0;
}

// Only called when there is something to read, so it does not stall the loop.
static int move(int from, int to)
{
    char bytes[512];
    const ssize_t got = read(from, bytes, sizeof bytes);

    if (got < 0 && errno == EINTR) {
        return 0;
    }
    return got > 0 && write(to, bytes, static_cast<size_t>(got)) == got ? 0
                                                                        : -1;
}

static int from_client(int)
{
    return move(g_client, g_master);
}

static int to_client(int)
{
    return move(g_master, g_client);
}

// The program's last words may still be in the terminal.
static int end_session(int)
{
    fcntl(g_master, F_SETFL, O_NONBLOCK);
    while (move(g_master, g_client) == 0) {
    }
    return 0;
}

static int answer_once(int ttyno, const char *ttydev)
{
    char bytes[64];
    char device[64];

    EXPECT(tty_getenv(static_cast<unsigned int>(ttyno), "TTYDEV", device,
                      sizeof device) == device);
    EXPECT(strcmp(device, ttydev) == 0);
    (void)printf("ready\n");
    (void)fflush(stdout);
    const ssize_t got = read(STDIN_FILENO, bytes, sizeof bytes);
    (void)printf("got %d\n", static_cast<int>(got));
    return 0;
}

static void count_exit(int, int)
{
}

static bool everybody(const struct sockaddr *local, const struct sockaddr *)
{
    return local->sa_family == AF_INET;
}

static int default_tos(void)
{
    return -1;
}

// The far side.

static bool receive(int inetd, tty_cmsg *record)
{
    return recv(inetd, record, sizeof *record, MSG_WAITALL) ==
           static_cast<ssize_t>(sizeof *record);
}

static void permit_next(int inetd)
{
    tty_cmsg record;

    EXPECT(receive(inetd, &record));
    EXPECT(send(inetd, &record, sizeof record, 0) == sizeof record);
}

static void assign_next(int inetd, int ttyno)
{
    tty_cmsg record;

    EXPECT(receive(inetd, &record));
    EXPECT(record.vc_flag == VC_FLAG_CLIENT_ALLOC);
    record.ttyno = ttyno;
    EXPECT(send(inetd, &record, sizeof record, 0) == sizeof record);
}

static void expect_clean(int inetd, int ttyno)
{
    tty_cmsg record;

    do {
        EXPECT(receive(inetd, &record));
    } while (record.vc_flag != VC_FLAG_CLIENT_CLEAR);
    EXPECT(record.ttyno == ttyno);
}

static void read_until(int fd, char last)
{
    char byte = '\0';

    while (byte != last) {
        EXPECT(read(fd, &byte, 1) == 1);
    }
}

static void pause_briefly(void)
{
    const struct timespec pause = {0, 10000000};

    nanosleep(&pause, nullptr);
}

// The permit is answered by nothing: the listener is there when it is there.
static int connect_port(void)
{
    const struct sockaddr_in address = loopback(g_port);

    for (;;) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<const struct sockaddr *>(&address),
                    sizeof address) == 0) {
            return fd;
        }
        close(fd);
        pause_briefly();
    }
}

static int connect_inpath(void)
{
    while (access(driver_path(INPATH_NAME), F_OK) != 0) {
        pause_briefly();
    }
    pause_briefly();
    return driver_connect(INPATH_NAME);
}

static void have_session(int inetd)
{
    char rest[64];

    const int client = connect_port();
    assign_next(inetd, SESSION_LINE);
    read_until(client, '\n');
    EXPECT(write(client, "hello", 5) == 5);
    // The program's last words, then its end.
    read_until(client, 't');
    while (read(client, rest, sizeof rest) > 0) {
    }
    close(client);
    expect_clean(inetd, SESSION_LINE);
}

static void have_inpath_session(int inetd)
{
    const int client = connect_inpath();

    assign_next(inetd, INPATH_LINE);
    read_until(client, '\n');
    close(client);
    expect_clean(inetd, INPATH_LINE);
}

static void far_side(int listener, int outcome)
{
    const int inetd = accept(listener, nullptr, nullptr);

    permit_next(inetd);
    permit_next(inetd);
    have_session(inetd);
    have_inpath_session(inetd);
    EXPECT(write(outcome, "k", 1) == 1);
    close(listener);
    close(inetd);
    close(outcome);
    exit(0);
}

// Gives back all that the daemon holds and ends it.
static void end_daemon(void)
{
    char outcome = '\0';

    EXPECT(read(g_outcome, &outcome, 1) == 1);
    EXPECT(outcome == 'k');
    close(g_outcome);
    vc_deal_service_listen(false, PROTOCOL_INPATH);
    EXPECT(vc_service_del(g_port) == 0);
    EXPECT(g_vc_tty_socket == -1);
    EXPECT(g_vc_accept_list.next == &g_vc_accept_list);
    EXPECT(g_vc_inpath_list.next == &g_vc_inpath_list);
    exit(0);
}

// Takes the place of the C library's. The loop never returns, but it pauses
// when the inetd connection is lost: nothing is locked or half-done then.
extern "C" int usleep(useconds_t microseconds) // NOLINT(readability-*)
{
    const struct timespec pause = {0, static_cast<long>(microseconds) * 1000L};
    struct pollfd done = {g_outcome, POLLIN, 0};

    if (g_vc_tty_socket == -1 && poll(&done, 1, 0) > 0) {
        end_daemon();
    }
    return nanosleep(&pause, nullptr);
}

static void write_console_program(void)
{
    const int fd =
        open(driver_path(CONSOLE_NAME), O_WRONLY | O_CREAT | O_CLOEXEC, 0700);

    EXPECT(write(fd, CONSOLE_PROGRAM, strlen(CONSOLE_PROGRAM)) ==
           static_cast<ssize_t>(strlen(CONSOLE_PROGRAM)));
    EXPECT(close(fd) == 0);
    EXPECT(setenv("PATH", driver_path(""), 1) == 0);
}

static void start_far_side(void)
{
    int outcome[2];

    EXPECT(mkdir(driver_path("/mng"), 0700) == 0);
    EXPECT(mkdir(driver_path("/mng/tty"), 0700) == 0);
    EXPECT(mkdir(driver_path("/mng/tty/inetd"), 0700) == 0);
    EXPECT(pipe2(outcome, O_CLOEXEC) == 0);
    const int listener = driver_listen(INETD_NAME);
    const pid_t pid = fork();
    EXPECT(pid >= 0);
    if (pid == 0) {
        driver_set_deadline();
        close(outcome[0]);
        far_side(listener, outcome[1]);
    }
    close(listener);
    close(outcome[1]);
    g_outcome = outcome[0];
}

int main()
{
    vc_reg service = {};

    driver_set_deadline();
    g_port = unused_port();
    start_far_side();
    write_console_program();
    service.socket_type = AF_INET;
    service.listen_port = g_port;
    service.protocol = PROTOCOL;
    service.init_func = name_peer;
    service.read_func = from_client;
    service.write_func = to_client;
    service.kill_func = end_session;
    service.alloc_func = keep_descriptors;
    service.shell_func = answer_once;
    service.exit_func = count_exit;
    service.acl_func = everybody;
    service.tos_func = default_tos;
    EXPECT(vc_service_reg(&service) == 0);
    EXPECT(vc_service_reg(&service) == -1);
    EXPECT(vc_inpath_reg(driver_path(INPATH_NAME)) == 0);
    return vc_service_start();
}
