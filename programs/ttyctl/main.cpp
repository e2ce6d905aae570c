/*
 * ttyctl - look at terminal lines and steer them
 *
 * This file is the command line: the table of commands, their options and
 * their help.
 */
#include "programs/ttyctl/ttyctl.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <getopt.h>

#include "programs/ttyctl/text.h"

static constexpr unsigned int timeout_max = 3600;
static constexpr unsigned int watch_max = 3600;

enum option_code {
    opt_timeout = 256,
    opt_json,
    opt_watch,
    opt_except,
    opt_code
};

static const option program_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {"timeout", required_argument, nullptr, opt_timeout},
    {nullptr, 0, nullptr, 0},
};

static const option plain_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"timeout", required_argument, nullptr, opt_timeout},
    {nullptr, 0, nullptr, 0},
};

static const option lines_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"timeout", required_argument, nullptr, opt_timeout},
    {"json", no_argument, nullptr, opt_json},
    {"watch", optional_argument, nullptr, opt_watch},
    {nullptr, 0, nullptr, 0},
};

static const option hold_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"timeout", required_argument, nullptr, opt_timeout},
    {"except", required_argument, nullptr, opt_except},
    {nullptr, 0, nullptr, 0},
};

static const option speed_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"timeout", required_argument, nullptr, opt_timeout},
    {"code", no_argument, nullptr, opt_code},
    {nullptr, 0, nullptr, 0},
};

struct command {
    const char *name;
    const char *synopsis;
    std::size_t arguments;
    const option *options;
    int (*run)(const invocation &call);
    const char *summary;
    const char *help;
};

static const command commands[] = {
    {"lines", " [--json] [--watch [SECONDS]]", 0, lines_options, run_lines,
     "show the lines",
     "Shows every line that has an information file, with the values LOGNAME,\n"
     "PEERNAME (without one SOCKADDR), TTYDEV, PROTOCOL and IDLE as they are\n"
     "stored, '-' for none, and its state:\n"
     "\n"
     "  free        it has no TTYDEV, or its TTYPID is -1\n"
     "  login       it has a TTYDEV, and LOGSUCC is not 1\n"
     "  logged in   it has a TTYDEV, and LOGSUCC is 1\n"
     "  locked      another process kept its lock all the time\n"
     "  unreadable  it could not be read for another reason\n"
     "\n"
     "Bytes that are not printable ASCII are shown as \\xHH. All locked lines\n"
     "together are waited for until the time is over.\n"
     "\n"
     "  --json             the same as JSON: an object with the array "
     "\"lines\"\n"
     "  --watch [SECONDS]  again every SECONDS (1 to 3600, 2 if not given),\n"
     "                     until a signal ends it\n"},
    {"get", " LINE KEY", 2, plain_options, run_get, "print a value of a line",
     "Prints the value. On a terminal, bytes that are not printable ASCII are\n"
     "shown as \\xHH. Exits with 1 when the line has no such value.\n"
     "\n"
     "LINE is 0 to 1585, 80000 or 80001. Line 0 is read from the tree of\n"
     "instance 0 beside that of TMPDIR, but written in TMPDIR's own.\n"},
    {"set", " LINE KEY VALUE", 3, plain_options, run_set,
     "store a value of a line",
     "VALUE may be empty. It cannot hold the end of a line, and has room for\n"
     "1020 bytes less the length of KEY.\n"},
    {"reset", " LINE", 1, plain_options, run_reset,
     "return a line to its state without a session",
     "Clears LOGNAME, SOCKADDR, RL_TIMEOUT and PEERNAME, sets TTYPID to -1,\n"
     "and LOGSUCC, MTYPE, SESSIONID and IDLE to 0. When it fails on the way,\n"
     "those before are reset already.\n"},
    {"login-ok", " LINE", 1, plain_options, run_login_ok,
     "record a login that succeeded",
     "Stores LOGSUCC=1 and tells the line administration daemon.\n"},
    {"login-failed", " LINE", 1, plain_options, run_login_failed,
     "record a login that failed",
     "Stores LOGSUCC=0. The line administration daemon is not told.\n"},
    {"cfg", " LINE NAME VALUE", 3, plain_options, run_cfg,
     "tell the daemon of a changed setting",
     "NAME is SPEED, SESSION_TIMEOUT or EXEC_TIMEOUT, VALUE a number. Nothing\n"
     "is stored.\n"},
    {"hold", " [--except LINE] SECONDS", 1, hold_options, run_hold,
     "ask the daemon to assign no line",
     "Until 'release', or for SECONDS (0 to 1800).\n"
     "\n"
     "  --except LINE  but for this one\n"},
    {"release", "", 0, plain_options, run_release,
     "end the hold, whoever asked for it",
     "The request is sent also when nothing is held.\n"},
    {"service", " N", 1, plain_options, run_service,
     "say whether a service is enabled",
     "Prints 'enabled', or 'disabled' and exits with 1. N is 0 to 31.\n"},
    {"speed", " [--code] N", 1, speed_options, run_speed,
     "convert a speed to the terminal's code",
     "Prints the code of the speed N in bits per second.\n"
     "\n"
     "  --code  the other way round: the speed of the code N\n"},
};

static const char program_usage[] =
    "usage: ttyctl [--timeout SECONDS] COMMAND [ARGUMENTS]\n"
    "       ttyctl COMMAND --help\n"
    "       ttyctl --help | --version\n";

static const char program_help[] =
    "\n"
    "Options stand before the arguments of a command:\n"
    "\n"
    "  --timeout SECONDS  wait so long for a line that another process has\n"
    "                     locked, and for the line administration daemon\n"
    "                     (1 to 3600, 2 if not given)\n"
    "  --help             this text, or that of a command\n"
    "  --version          the version\n"
    "\n"
    "Exit status:\n"
    "\n"
    "  0  done\n"
    "  1  failed, or there is no such value, service or speed\n"
    "  2  wrong usage: command, option, line number, key or value\n"
    "  3  the line is locked by another process\n"
    "  4  the line administration daemon does not take the request\n"
    "\n"
    "The files are below mng/tty in $TMPDIR, or in / when TMPDIR is unset.\n"
    "Reasons of failures are logged in .tty_lib_dump.txt there.\n";

time_point deadline_of(const invocation &call)
{
    return std::chrono::steady_clock::now() +
           std::chrono::seconds(call.timeout);
}

int fail(exit_status status, const std::string &message)
{
    (void)std::fprintf(stderr, "ttyctl: %s\n", message.c_str());
    return status;
}

int usage_error(const std::string &message)
{
    return fail(exit_usage, message + "; try --help");
}

int print(const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        return fail(exit_failed,
                    std::string("standard output: ") + std::strerror(errno));
    }
    return exit_done;
}

static int print_program_help()
{
    std::string text = std::string(program_usage) + "\nCommands:\n\n";

    for (const command &known : commands) {
        std::string usage = std::string("  ") + known.name + known.synopsis;
        usage.resize(std::max<std::size_t>(usage.size() + 2, 38), ' ');
        text += usage + known.summary + "\n";
    }
    return print(text + program_help);
}

static int print_command_help(const command &known)
{
    return print(std::string("usage: ttyctl [--timeout SECONDS] ") +
                 known.name + known.synopsis + "\n\n" + known.help);
}

static const command *find_command(const std::string &name)
{
    for (const command &known : commands) {
        if (name == known.name) {
            return &known;
        }
    }
    return nullptr;
}

static bool take_seconds(const char *text, unsigned int limit, int &seconds)
{
    unsigned int value = 0;

    if (!parse_number(text, 1, limit, value)) {
        return false;
    }
    seconds = static_cast<int>(value);
    return true;
}

/* The interval is a word of its own, or not there. */
static const char *take_interval(int argc, char **argv)
{
    if (optarg != nullptr) {
        return optarg;
    }
    const bool follows =
        optind < argc && argv[optind][0] >= '0' && argv[optind][0] <= '9';
    return follows ? argv[optind++] : nullptr;
}

/* False when the option's value is not good. */
static bool take_option(int code, int argc, char **argv, invocation &call)
{
    const char *interval = nullptr;

    switch (code) {
    case opt_timeout:
        return take_seconds(optarg, timeout_max, call.timeout);
    case opt_json:
        call.json = true;
        return true;
    case opt_watch:
        interval = take_interval(argc, argv);
        call.watch = default_watch;
        return interval == nullptr ||
               take_seconds(interval, watch_max, call.watch);
    case opt_except:
        return parse_number(optarg, 0, TTY_LINES - 1, call.except);
    case opt_code:
        call.code = true;
        return true;
    default:
        return false;
    }
}

enum class wanted { command, help, version, nothing };

/*
 * Options end at the first other word, as a value to store may begin with a
 * dash.
 */
static wanted take_options(int argc, char **argv, const option *known,
                           invocation &call)
{
    int code = 0;

    opterr = 0;
    optind = 0;
    while ((code = getopt_long(argc, argv, "+", known, nullptr)) != -1) {
        if (code == 'h') {
            return wanted::help;
        }
        if (code == 'v') {
            return wanted::version;
        }
        if (!take_option(code, argc, argv, call)) {
            usage_error("bad option or value: '" + printable(argv[optind - 1]) +
                        "'");
            return wanted::nothing;
        }
    }
    return wanted::command;
}

static int run_command(const command &known, int argc, char **argv,
                       invocation &call)
{
    switch (take_options(argc, argv, known.options, call)) {
    case wanted::help:
        return print_command_help(known);
    case wanted::command:
        break;
    case wanted::version:
    case wanted::nothing:
        return exit_usage;
    }
    call.arguments.assign(argv + optind, argv + argc);
    if (call.arguments.size() != known.arguments) {
        return fail(exit_usage, std::string("usage: ttyctl ") + known.name +
                                    known.synopsis);
    }
    return known.run(call);
}

int main(int argc, char **argv)
{
    invocation call;

    switch (take_options(argc, argv, program_options, call)) {
    case wanted::help:
        return print_program_help();
    case wanted::version:
        return print("ttyctl " TTYLINE_VERSION "\n");
    case wanted::nothing:
        return exit_usage;
    case wanted::command:
        break;
    }
    if (optind == argc) {
        return usage_error("a command is missing");
    }
    const command *known = find_command(argv[optind]);
    if (known == nullptr) {
        return usage_error("unknown command '" + printable(argv[optind]) + "'");
    }
    return run_command(*known, argc - optind, argv + optind, call);
}
