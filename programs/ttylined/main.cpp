/*
 * ttylined - a line-allocation daemon for machines that have none
 *
 * Login daemons built on the session service connect to it. It permits every
 * listener that they ask for and gives each of their connections a line out
 * of a pool. Programs on the lines tell it through the line library who has
 * logged in and which settings have changed, and hold lines back. An operator
 * can look at it and steer it with commands on standard input or on a control
 * socket.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <getopt.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/ttylined/server.h"

static constexpr int exit_usage = 2;
static constexpr int fd_max = 1 << 20;

struct options {
    std::string control;
    std::string trace_path; /* empty: standard output */
    bool admin = true;
    bool trace = false;
    int ready_fd = -1;
};

static const char usage_text[] =
    "usage: ttylined [--pool PROTO=LO-HI[,LO-HI...]]... [--control PATH]\n"
    "                [--no-admin] [--trace[=FILE]] [--ready-fd N]\n"
    "       ttylined --help | --version\n";

static const char help_text[] =
    "\n"
    "Assigns terminal lines to the connections of login daemons, and takes "
    "the\n"
    "requests of programs on the lines: login, settings, hold and release.\n"
    "\n"
    "  --pool PROTO=LO-HI[,LO-HI...]\n"
    "                   lines for protocol PROTO (0 to 11) instead of all of\n"
    "                   258-1148 and 1421-1585; a later one replaces it\n"
    "  --control PATH   take commands on this unix socket\n"
    "  --no-admin       leave the requests of the line library to another\n"
    "                   daemon\n"
    "  --trace[=FILE]   one line per record and request, to standard output "
    "or\n"
    "                   FILE\n"
    "  --ready-fd N     write a line feed to descriptor N when listening\n"
    "  --help           this text\n"
    "  --version        the version\n"
    "\n"
    "The socket is mng/tty/inetd/.qv_inetd below $TMPDIR, or below / when\n"
    "TMPDIR is unset; requests of the line library come in on "
    "mng/tty/.tty_rl.\n"
    "Commands are also read from standard input, 'help' lists them. Each "
    "reply\n"
    "ends with a line that holds a single dot.\n"
    "\n"
    "While lines are held only the excepted one is assigned. Other "
    "connections\n"
    "wait for their line until somebody releases or the time of the hold, in\n"
    "seconds, is over. A time of 0 does not end: until released. The hold "
    "stays\n"
    "when the program that asked for it has ended; a later one replaces it.\n";

static int usage_error(const std::string &why)
{
    std::fprintf(stderr, "ttylined: %s\n%s", why.c_str(), usage_text);
    return exit_usage;
}

static int print_and_end(const char *text, const char *more)
{
    std::printf("%s%s", text, more);
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* Only a descriptor that the caller opened for this; 0 to 2 have their use. */
static bool parse_ready_fd(const std::string &text, int &fd)
{
    return parse_number(text, STDERR_FILENO + 1, fd_max, fd) &&
           fcntl(fd, F_GETFD) >= 0;
}

enum option_code {
    opt_pool = 256,
    opt_control,
    opt_no_admin,
    opt_trace,
    opt_ready_fd
};

/* Returns -1 to go on, otherwise the exit status. */
static int take_option(int code, const char *value, options &opts,
                       line_pool &pool)
{
    std::string error;

    switch (code) {
    case opt_pool:
        return pool_set_ranges(pool, value, error)
                   ? -1
                   : usage_error("--pool: " + error);
    case opt_control:
        opts.control = value;
        return opts.control.empty() ? usage_error("--control: empty path") : -1;
    case opt_no_admin:
        opts.admin = false;
        return -1;
    case opt_trace:
        opts.trace = true;
        opts.trace_path = value == nullptr ? "" : value;
        return -1;
    case opt_ready_fd:
        return parse_ready_fd(value, opts.ready_fd)
                   ? -1
                   : usage_error("--ready-fd: no open descriptor above 2");
    case 'h':
        return print_and_end(usage_text, help_text);
    case 'v':
        return print_and_end("ttylined " TTYLINE_VERSION, "\n");
    default:
        std::fputs(usage_text, stderr);
        return exit_usage;
    }
}

static int take_options(int argc, char **argv, options &opts, line_pool &pool)
{
    static const option known[] = {
        {"pool", required_argument, nullptr, opt_pool},
        {"control", required_argument, nullptr, opt_control},
        {"no-admin", no_argument, nullptr, opt_no_admin},
        {"trace", optional_argument, nullptr, opt_trace},
        {"ready-fd", required_argument, nullptr, opt_ready_fd},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    int code = 0;

    while ((code = getopt_long(argc, argv, "", known, nullptr)) != -1) {
        const int status = take_option(code, optarg, opts, pool);
        if (status >= 0) {
            return status;
        }
    }
    if (optind < argc) {
        return usage_error(std::string("unexpected '") + argv[optind] + "'");
    }
    return -1;
}

/* A socket that became descriptor 0, 1 or 2 would be read and written as such.
 */
static void fill_standard_fds()
{
    int fd = open("/dev/null", O_RDWR);

    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

/* Each session may keep a connection for its requests, all of them at once. */
static void raise_descriptor_limit()
{
    rlimit files = {};

    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

/*
 * A process in the background that reads the terminal is stopped unless it
 * ignores SIGTTIN; then the read fails and standard input counts as ended.
 */
static int open_signals()
{
    struct sigaction hangup = {};
    sigset_t ends;

    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGTTIN, SIG_IGN);
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 &&
        hangup.sa_handler != SIG_IGN) {
        sigaddset(&ends, SIGHUP);
    }
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    return signalfd(-1, &ends, SFD_NONBLOCK | SFD_CLOEXEC);
}

static bool open_trace(server &srv, const options &opts, std::string &error)
{
    if (!opts.trace) {
        return true;
    }
    if (opts.trace_path.empty()) {
        srv.trace = &srv.standard_out;
        return true;
    }
    srv.trace_file.fd =
        open(opts.trace_path.c_str(),
             O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_NONBLOCK | O_CLOEXEC,
             0600);
    srv.trace = &srv.trace_file;
    if (srv.trace_file.fd < 0) {
        error = opts.trace_path + ": " + std::strerror(errno);
    }
    return srv.trace_file.fd >= 0;
}

static bool open_sockets(server &srv, const options &opts, std::string &error)
{
    std::string path;

    if (!runtime_socket_path(path, error) ||
        !unix_listen(path, srv.daemons, error)) {
        return false;
    }
    if (opts.admin && !unix_listen(admin_socket_path(), srv.admin, error)) {
        return false;
    }
    return opts.control.empty() ||
           unix_listen(opts.control, srv.control, error);
}

static bool start(server &srv, const options &opts)
{
    std::string error;

    srv.signal_fd = open_signals();
    srv.standard_out.fd = STDOUT_FILENO;
    if (srv.signal_fd < 0) {
        error = std::string("signalfd: ") + std::strerror(errno);
    } else if (open_trace(srv, opts, error) && open_sockets(srv, opts, error)) {
        operator_peer &peer = srv.operators.emplace_back();
        peer.in_fd = STDIN_FILENO;
        peer.out = &srv.standard_out;
        trace_note(srv, "listening on " + srv.daemons.path);
        if (opts.admin) {
            trace_note(srv, "listening on " + srv.admin.path);
        }
        return true;
    }
    std::fprintf(stderr, "ttylined: %s\n", error.c_str());
    return false;
}

static void tell_ready(int fd)
{
    if (fd >= 0 && write(fd, "\n", 1) != 1) {
        std::fprintf(stderr, "ttylined: --ready-fd: %s\n",
                     std::strerror(errno));
    }
    if (fd >= 0) {
        close(fd);
    }
}

int main(int argc, char **argv)
{
    static server srv;
    options opts;

    fill_standard_fds();
    raise_descriptor_limit();
    umask(077);
    pool_init(srv.pool);
    int status = take_options(argc, argv, opts, srv.pool);
    if (status >= 0) {
        return status;
    }
    status = EXIT_FAILURE;
    if (start(srv, opts)) {
        tell_ready(opts.ready_fd);
        status = server_run(srv);
        trace_note(srv, "end");
    }
    unix_listener_end(srv.control);
    unix_listener_end(srv.admin);
    unix_listener_end(srv.daemons);
    return status;
}
