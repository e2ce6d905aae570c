// ttylined - a line-allocation daemon for machines that have none
//
// Login daemons built on the session service connect to it. It permits every
// listener that they ask for and gives each of their connections a line out
// of a pool. Programs on the lines tell it through the line library who has
// logged in and which settings have changed, and hold lines back. An operator
// can look at it and steer it with commands on standard input or on a control
// socket.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <getopt.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/shared/parse.h"
#include "programs/ttylined/accept.h"
#include "programs/ttylined/loop.h"
#include "programs/ttylined/runtime.h"
#include "programs/ttylined/trace.h"
#include "programs/ttylined/unix_listener.h"

constexpr int EXIT_USAGE = 2;
constexpr int FD_MAX = 1 << 20;

struct options {
    std::string control;
    std::string trace_path; // empty: standard output
    bool admin = true;
    bool trace = false;
    int ready_fd = -1;
};

static const char USAGE_TEXT[] =
    R"(usage: ttylined [--pool PROTO=LO-HI[,LO-HI...]]... [--control PATH]
                [--no-admin] [--trace[=FILE]] [--ready-fd N]
       ttylined --help | --version
)";

static const char HELP_TEXT[] = R"(
Assigns terminal lines to the connections of login daemons, and takes the
requests of programs on the lines: login, settings, hold and release.

  --pool PROTO=LO-HI[,LO-HI...]
                   lines for protocol PROTO (0 to 11) instead of all of
                   258-1148 and 1421-1585; a later one replaces it
  --control PATH   take commands on this unix socket
  --no-admin       leave the requests of the line library to another
                   daemon
  --trace[=FILE]   one line per record and request, to standard output or
                   FILE, which becomes FILE.1 at 8 MiB; SIGHUP opens it anew
  --ready-fd N     write a line feed to descriptor N when listening
  --help           this text
  --version        the version

The socket is mng/tty/inetd/.qv_inetd below $TMPDIR, or below / when
TMPDIR is unset; requests of the line library come in on mng/tty/.tty_rl.
Commands are also read from standard input, 'help' lists them. Each reply
ends with a line that is "ok" or begins with "error:".

While lines are held only the excepted one is assigned. Other connections
wait for their line until somebody releases or the time of the hold, in
seconds, is over. A time of 0 does not end: until released. The hold stays
when the program that asked for it has ended; a later one replaces it.
)";

static int usage_error(const std::string &why)
{
    std::fprintf(stderr, "ttylined: %s\n%s", why.c_str(), USAGE_TEXT);
    return EXIT_USAGE;
}

static int print_and_end(const char *text, const char *more)
{
    std::printf("%s%s", text, more);
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

// Only a descriptor that the caller opened for this; 0 to 2 have their use.
static bool parse_ready_fd(const std::string &text, int &fd)
{
    return parse_number(text, STDERR_FILENO + 1, FD_MAX, fd) &&
           fcntl(fd, F_GETFD) >= 0;
}

// Above all letters, as none of them has a short form.
enum option_code {
    OPT_POOL = 256,
    OPT_CONTROL,
    OPT_NO_ADMIN,
    OPT_TRACE,
    OPT_READY_FD,
    OPT_HELP,
    OPT_VERSION,
};

// Returns -1 to go on, otherwise the exit status.
static int take_option(int code, const char *value, options &opts,
                       line_pool &pool)
{
    std::string error;

    switch (code) {
    case OPT_POOL:
        return pool_set_ranges(pool, value, error)
                   ? -1
                   : usage_error("--pool: " + error);
    case OPT_CONTROL:
        opts.control = value;
        return opts.control.empty() ? usage_error("--control: empty path") : -1;
    case OPT_NO_ADMIN:
        opts.admin = false;
        return -1;
    case OPT_TRACE:
        opts.trace = true;
        opts.trace_path = value == nullptr ? "" : value;
        return -1;
    case OPT_READY_FD:
        return parse_ready_fd(value, opts.ready_fd)
                   ? -1
                   : usage_error("--ready-fd: no open descriptor above 2");
    case OPT_HELP:
        return print_and_end(USAGE_TEXT, HELP_TEXT);
    case OPT_VERSION:
        return print_and_end("ttylined " TTYLINE_VERSION, "\n");
    default:
        std::fputs(USAGE_TEXT, stderr);
        return EXIT_USAGE;
    }
}

static int take_options(int argc, char **argv, options &opts, line_pool &pool)
{
    static const option known[] = {
        {"pool", required_argument, nullptr, OPT_POOL},
        {"control", required_argument, nullptr, OPT_CONTROL},
        {"no-admin", no_argument, nullptr, OPT_NO_ADMIN},
        {"trace", optional_argument, nullptr, OPT_TRACE},
        {"ready-fd", required_argument, nullptr, OPT_READY_FD},
        {"help", no_argument, nullptr, OPT_HELP},
        {"version", no_argument, nullptr, OPT_VERSION},
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

// A socket that became descriptor 0, 1 or 2 would be read and written as such.
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

// A process in the background that reads the terminal is stopped unless it
// ignores SIGTTIN; then the read fails and standard input counts as ended.
// SIGHUP is what rotates logs send, and must end nothing: all sessions would.
static int open_signals()
{
    sigset_t heard;

    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGTTIN, SIG_IGN);
    // Helpers that have cleaned lines leave nothing to be reaped.
    std::signal(SIGCHLD, SIG_IGN);
    sigemptyset(&heard);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&heard, number);
    }
    sigprocmask(SIG_BLOCK, &heard, nullptr);
    return signalfd(-1, &heard, SFD_NONBLOCK | SFD_CLOEXEC);
}

static bool open_trace(const options &opts, operators &all, std::string &error)
{
    if (opts.trace && opts.trace_path.empty()) {
        trace_to(all.standard_out);
        return true;
    }
    return !opts.trace || trace_open(opts.trace_path, error);
}

static bool open_sockets(const options &opts, server &srv, operators &all,
                         std::string &error)
{
    std::string path;

    if (!runtime_take(path, error) ||
        !unix_listen(path, srv.daemons.listener, error)) {
        return false;
    }
    if (opts.admin &&
        !unix_listen(runtime_admin_path(), srv.admin.listener, error)) {
        return false;
    }
    return opts.control.empty() ||
           unix_listen(opts.control, all.control, error);
}

static bool start(const options &opts, server &srv, operators &all)
{
    std::string error;

    if (!open_trace(opts, all, error) || !open_sockets(opts, srv, all, error)) {
        std::fprintf(stderr, "ttylined: %s\n", error.c_str());
        return false;
    }
    operators_begin(all);
    trace_note("listening on " + srv.daemons.listener.path);
    if (opts.admin) {
        trace_note("listening on " + srv.admin.listener.path);
    }
    return true;
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

// From the start to the end; the exit status.
static int serve(const options &opts, server &srv, operators &all)
{
    int status = EXIT_FAILURE;
    const int signal_fd = open_signals();

    if (signal_fd < 0) {
        std::fprintf(stderr, "ttylined: signalfd: %s\n", std::strerror(errno));
        return status;
    }
    if (start(opts, srv, all)) {
        tell_ready(opts.ready_fd);
        if (loop_run(srv, all, signal_fd)) {
            status = EXIT_SUCCESS;
        }
        trace_note("end");
    }
    unix_listener_end(all.control);
    unix_listener_end(srv.admin.listener);
    unix_listener_end(srv.daemons.listener);
    return status;
}

int main(int argc, char **argv)
{
    static server srv;
    static operators all;
    options opts;

    fill_standard_fds();
    accept_make_room();
    umask(077);
    pool_init(srv.lines.pool);
    const int status = take_options(argc, argv, opts, srv.lines.pool);
    return status >= 0 ? status : serve(opts, srv, all);
}
