// One operation of a library between two calls that nothing else makes, for a
// tracer to count what lies between them: syscalls_driver OPERATION [KEYS]
// KEYS, for a loop: types so many keys, as fast as they are echoed, and prints
// what the turns of the loop have cost.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <ttyline/tty.h>
#include <ttyline/vc.h>

#include "common/keys.h"
#include "vc/accept.h"
#include "vc/dispatch.h"
#include "vc/listen.h"
#include "vc/session.h"
#include "vc/spawn.h"
#include "vc/teardown.h"

constexpr unsigned int LINE = 300;
// Time for the loop to come round, which takes longer while it is traced.
constexpr useconds_t STEP_US = 100000;
constexpr useconds_t STEP_PER_SESSION_US = 1000;

static std::string runtime_path(const char *name)
{
    return std::string(getenv("TMPDIR")) + name;
}

static void mark()
{
    syscall(SYS_getppid);
}

// A function of its own, by which a profiler finds the operation; the empty
// statement keeps its end from being the operation's.
[[gnu::noinline]] static void
run_operation(const std::function<void()> &operation)
{
    operation();
    asm volatile("");
}

static void measure(const std::function<void()> &operation)
{
    mark();
    run_operation(operation);
    mark();
}

[[noreturn]] static void fail(const char *what)
{
    perror(what);
    exit(1);
}

// All keys, each with a value of its own length; prints how many bytes of the
// file a search for the key reads, and how many lines there are.
static void fill_line(const char *wanted)
{
    FILE *file = fopen(runtime_path("/mng/tty/.tty_info_300").c_str(), "w");
    long read = 0;
    bool found = false;

    if (file == nullptr) {
        fail("information file");
    }
    for (int i = 0; i < g_tty_env_size; i++) {
        const int length = fprintf(file, "%s=value\r\n", tty_envs[i]);
        read += found ? 0 : length;
        found = found || strcmp(tty_envs[i], wanted) == 0;
    }
    fclose(file);
    struct stat status;
    stat(runtime_path("/mng/tty/.tty_info_300").c_str(), &status);
    printf("until %ld\nsize %ld\nlines %d\n", read,
           static_cast<long>(status.st_size), g_tty_env_size);
}

static void get(const char *key)
{
    char value[64];

    fill_line(key);
    tty_getenv(LINE, key, value, sizeof value);
    measure([&] {
        tty_getenv(LINE, key, value, sizeof value);
    });
}

static void set(const char *key)
{
    fill_line(key);
    tty_setenv(LINE, key, "value");
    measure([&] {
        tty_setenv(LINE, key, "value");
    });
}

static void log_line()
{
    vc_debug_init();
    vc_debug_msg("first\n");
    measure([] {
        vc_debug_msg("a line of the log\n");
    });
}

static int listen_at(const std::string &path)
{
    sockaddr_un address = {};
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, 8) != 0) {
        fail(path.c_str());
    }
    return fd;
}

static void admin_request()
{
    listen_at(runtime_path("/mng/tty/.tty_rl"));
    tty_release_line();
    measure([] {
        tty_release_line();
    });
}

// The callbacks of the sessions: a byte from one end to the other.
static int ends[TTY_LINES][2];

static int move_byte(int from, int to)
{
    char byte;

    return read(from, &byte, 1) == 1 && write(to, &byte, 1) == 1 ? 0 : -1;
}

static int init_line(int)
{
    return 0;
}

static int alloc_line(int ttyno, int, int sockfd, int master_fd)
{
    ends[ttyno][0] = sockfd;
    ends[ttyno][1] = master_fd;
    return 0;
}

// What the loop's thread has used, in microseconds.
struct loop_time {
    long user;
    long system;
    long wall;
};

static long keys_wanted = 0; // 0: nothing is measured

static loop_time loop_time_now()
{
    const auto microseconds = [](long seconds, long rest) {
        return seconds * 1000000 + rest;
    };
    struct rusage usage;
    struct timespec now;

    getrusage(RUSAGE_THREAD, &usage);
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {microseconds(usage.ru_utime.tv_sec, usage.ru_utime.tv_usec),
            microseconds(usage.ru_stime.tv_sec, usage.ru_stime.tv_usec),
            microseconds(now.tv_sec, now.tv_nsec / 1000)};
}

// On the loop's thread, once a key: from the first one to the last one that is
// wanted each has taken two turns, in and out.
static void count_key()
{
    static long seen = 0;
    static loop_time start;

    if (keys_wanted == 0) {
        return;
    }
    if (seen == 0) {
        start = loop_time_now();
    }
    if (seen++ < keys_wanted) {
        return;
    }
    const loop_time end = loop_time_now();
    printf("turns %ld\nuser_us %ld\nsystem_us %ld\nwall_us %ld\n",
           2 * keys_wanted, end.user - start.user, end.system - start.system,
           end.wall - start.wall);
    fflush(stdout);
    _exit(0);
}

static int to_terminal(int ttyno)
{
    count_key();
    return move_byte(ends[ttyno][0], ends[ttyno][1]);
}

static int to_peer(int ttyno)
{
    return move_byte(ends[ttyno][1], ends[ttyno][0]);
}

static int wait_for_the_end(int, const char *)
{
    for (;;) {
        pause();
    }
}

static vc_reg describe(int port)
{
    vc_reg reg = {};

    reg.socket_type = AF_INET;
    reg.listen_port = port;
    reg.protocol = 6;
    reg.init_func = init_line;
    reg.alloc_func = alloc_line;
    reg.read_func = to_terminal;
    reg.write_func = to_peer;
    reg.kill_func = init_line;
    reg.shell_func = wait_for_the_end;
    return reg;
}

// An inetd connection whose other end this process has too.
struct inetd_pair {
    int ours;
    int theirs;
};

static inetd_pair make_inetd()
{
    int pair[2];

    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        fail("socketpair");
    }
    return {pair[0], pair[1]};
}

static void announcement()
{
    const inetd_pair inetd = make_inetd();
    const vc_reg reg = describe(23);

    vc_service_reg(&reg);
    measure([&] {
        vc_open_listen(inetd.ours);
    });
}

// A listener on a port of the kernel's choice, for the service.
static int open_listener(vc_srv *srv)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;

    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    srv->listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(srv->listen_fd, reinterpret_cast<sockaddr *>(&address), length) !=
            0 ||
        listen(srv->listen_fd, 8) != 0) {
        fail("listener");
    }
    getsockname(srv->listen_fd, reinterpret_cast<sockaddr *>(&address),
                &length);
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(client, reinterpret_cast<sockaddr *>(&address), length) != 0) {
        fail("connect");
    }
    return client;
}

enum class stage { accept, set_up, tear_down };

// A connection, its line, and its end; one of the three is measured.
static void session(stage measured)
{
    const inetd_pair inetd = make_inetd();
    const vc_reg reg = describe(23);

    vc_service_reg(&reg);
    signal(SIGCHLD, SIG_DFL);
    auto *srv = reinterpret_cast<vc_srv *>(g_vc_service_lists.next);
    open_listener(srv);
    const auto step = [&](stage which, const std::function<void()> &operation) {
        which == measured ? measure(operation) : operation();
    };
    step(stage::accept, [&] {
        vc_accept(inetd.ours, srv);
    });
    tty_cmsg record;
    if (recv(inetd.theirs, &record, sizeof record, 0) != sizeof record) {
        fail("report");
    }
    record.ttyno = LINE;
    record.port = 23;
    if (send(inetd.theirs, &record, sizeof record, 0) != sizeof record) {
        fail("assignment");
    }
    step(stage::set_up, [&] {
        vc_deal_msg(inetd.ours);
    });
    vc_child *child = vc_child_at(LINE);
    if (child == nullptr) {
        fail("session");
    }
    step(stage::tear_down, [&] {
        vc_child_kill(child);
    });
}

// Sessions without a process: what the loop does with their descriptors does
// not depend on one. Returns the far ends of the last one.
struct far_ends {
    int client;
    int terminal;
};

static far_ends make_sessions(int count)
{
    far_ends far = {-1, -1};

    for (int ttyno = 0; ttyno < count; ttyno++) {
        int peer[2];
        int terminal[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, peer) != 0 ||
            socketpair(AF_UNIX, SOCK_STREAM, 0, terminal) != 0) {
            fail("session's sockets");
        }
        auto *child = static_cast<vc_child *>(calloc(1, sizeof(vc_child)));
        child->ttyno = ttyno;
        child->sockfd = peer[0];
        child->master_fd = terminal[0];
        child->inetd_fd = -1;
        child->reg = describe(23);
        alloc_line(ttyno, -1, peer[0], terminal[0]);
        vc_child_install(ttyno, child);
        far = {peer[1], terminal[1]};
    }
    return far;
}

// A key through the loop to the terminal.
static bool type_key(const far_ends &far)
{
    char byte = 'k';

    return write(far.client, &byte, 1) == 1 &&
           read(far.terminal, &byte, 1) == 1;
}

// And its echo back: another turn, however late the loop is.
static bool echo_key(const far_ends &far)
{
    char byte = 'k';

    return type_key(far) && write(far.terminal, &byte, 1) == 1 &&
           read(far.client, &byte, 1) == 1;
}

// The loop then has its connection and is in its first turn.
static void await_announcement(int inetd)
{
    const int connection = accept(inetd, nullptr, nullptr);
    tty_cmsg record;

    if (recv(connection, &record, sizeof record, MSG_WAITALL) !=
        sizeof record) {
        fail("announcement");
    }
}

// Wakes the loop a few times, types one key and answers it, and ends it: with
// the next key, which says that the turn of the echo has come to its end.
[[noreturn]] static void stimulate(pid_t loop, int inetd, int sessions,
                                   const far_ends &far)
{
    const auto step =
        STEP_US + STEP_PER_SESSION_US * static_cast<useconds_t>(sessions);

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    await_announcement(inetd);
    for (int i = 0; i < 2; i++) {
        usleep(step);
        kill(loop, SIGHUP);
    }
    usleep(step);
    static_cast<void>(sessions > 0 && echo_key(far) && type_key(far));
    kill(loop, SIGKILL);
    _exit(0);
}

// Types the next key when the last one has come back, until the loop ends; a
// loop without a session is ended.
[[noreturn]] static void type_keys(pid_t loop, const far_ends &far)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (echo_key(far)) {
    }
    kill(loop, SIGKILL);
    _exit(0);
}

static void run_loop(int sessions)
{
    struct rlimit limit;

    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    mkdir(runtime_path("/mng/tty/inetd").c_str(), 0700);
    const int inetd = listen_at(runtime_path("/mng/tty/inetd/.qv_inetd"));
    const vc_reg reg = describe(23);
    vc_service_reg(&reg);
    const far_ends far = make_sessions(sessions);
    const pid_t loop = getpid();
    if (fork() == 0) {
        if (keys_wanted > 0) {
            type_keys(loop, far);
        }
        stimulate(loop, inetd, sessions, far);
    }
    vc_service_start();
}

int main(int argc, char **argv)
{
    const std::string operation = argc > 1 ? argv[1] : "";
    const struct {
        const char *name;
        std::function<void()> run;
    } operations[] = {
        {"get_first",
         [] {
             get(tty_envs[0]);
         }},
        {"get_last",
         [] {
             get(tty_envs[g_tty_env_size - 1]);
         }},
        {"set_first",
         [] {
             set(tty_envs[0]);
         }},
        {"set_last",
         [] {
             set(tty_envs[g_tty_env_size - 1]);
         }},
        {"log_line", log_line},
        {"admin_request", admin_request},
        {"announcement", announcement},
        {"accept",
         [] {
             session(stage::accept);
         }},
        {"set_up",
         [] {
             session(stage::set_up);
         }},
        {"tear_down",
         [] {
             session(stage::tear_down);
         }},
        {"loop_0",
         [] {
             run_loop(0);
         }},
        {"loop_100",
         [] {
             run_loop(100);
         }},
        {"loop_1056",
         [] {
             run_loop(1056);
         }},
    };
    keys_wanted = argc > 2 ? atol(argv[2]) : 0;
    for (const auto &one : operations) {
        if (operation == one.name) {
            one.run();
            return 0;
        }
    }
    fprintf(stderr, "syscalls_driver: no such operation: %s\n",
            operation.c_str());
    return 2;
}
