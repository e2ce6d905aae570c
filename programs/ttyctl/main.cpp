// ttyctl - look at terminal lines and steer them
//
// This file is the command line: the table of commands, their options and
// their help.
#include <algorithm>
#include <string>
#include <vector>

#include <getopt.h>

#include "programs/shared/escape.h"
#include "programs/shared/parse.h"
#include "programs/shared/runtime_path.h"
#include "programs/ttyctl/ask.h"
#include "programs/ttyctl/invocation.h"
#include "programs/ttyctl/lines.h"
#include "programs/ttyctl/lookup.h"
#include "programs/ttyctl/report.h"
#include "programs/ttyctl/requests.h"
#include "programs/ttyctl/values.h"

constexpr unsigned int TIMEOUT_MAX = 3600;
constexpr unsigned int WATCH_MAX = 3600;
constexpr std::size_t MANY = 64;

// Above all letters, as none of them has a short form.
enum option_number {
    OPT_HELP = 256,
    OPT_VERSION,
    OPT_TIMEOUT,
    OPT_JSON,
    OPT_WATCH,
    OPT_EXCEPT,
    OPT_CODE,
};

static const option program_options[] = {
    {"help", no_argument, nullptr, OPT_HELP},
    {"version", no_argument, nullptr, OPT_VERSION},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {nullptr, 0, nullptr, 0},
};

static const option plain_options[] = {
    {"help", no_argument, nullptr, OPT_HELP},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {nullptr, 0, nullptr, 0},
};

static const option lines_options[] = {
    {"help", no_argument, nullptr, OPT_HELP},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"json", no_argument, nullptr, OPT_JSON},
    {"watch", optional_argument, nullptr, OPT_WATCH},
    {nullptr, 0, nullptr, 0},
};

static const option ask_options[] = {
    {"help", no_argument, nullptr, OPT_HELP},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"json", no_argument, nullptr, OPT_JSON},
    {nullptr, 0, nullptr, 0},
};

static const option hold_options[] = {
    {"help", no_argument, nullptr, OPT_HELP},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"except", required_argument, nullptr, OPT_EXCEPT},
    {nullptr, 0, nullptr, 0},
};

static const option speed_options[] = {
    {"help", no_argument, nullptr, OPT_HELP},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"code", no_argument, nullptr, OPT_CODE},
    {nullptr, 0, nullptr, 0},
};

struct command {
    const char *name;
    const char *synopsis;
    std::size_t arguments;
    std::size_t most_arguments;
    const option *options;
    bool uses_store;
    int (*run)(const invocation &call);
    const char *summary;
    const char *help;
};

static const command commands[] = {
    {"lines", " [--json] [--watch [SECONDS]]", 0, 0, lines_options, true,
     run_lines, "show the lines",
     R"(Shows every line that has an information file, with the values LOGNAME,
PEERNAME (without one SOCKADDR), TTYDEV, PROTOCOL and IDLE as they are
stored, '-' for none, and its state:

  free        it has no TTYDEV, or its TTYPID is -1
  login       it has a TTYDEV, and LOGSUCC is not 1
  logged in   it has a TTYDEV, and LOGSUCC is 1
  locked      another process kept its lock all the time
  unreadable  its file is no plain file, or cannot be read

Bytes that are not printable ASCII are shown as \xHH. All locked lines
together are waited for until the time is over, and nothing else is.

  --json             the same as JSON: an object with the array "lines"
  --watch [SECONDS]  again every SECONDS (1 to 3600, 2 if not given),
                     until a signal ends it
)"},
    {"get", " LINE KEY", 2, 2, plain_options, true, run_get,
     "print a value of a line",
     R"(Prints the value. On a terminal, bytes that are not printable ASCII are
shown as \xHH, and a backslash as \\. Exits with 1 when the line has no
such value.

LINE is 0 to 1585, 80000 or 80001. Line 0 is read from the tree of
instance 0 beside that of TMPDIR, but written in TMPDIR's own.
)"},
    {"set", " LINE KEY VALUE", 3, 3, plain_options, true, run_set,
     "store a value of a line",
     R"(VALUE may be empty. It cannot hold the end of a line, and has room for
1020 bytes less the length of KEY.
)"},
    {"reset", " LINE", 1, 1, plain_options, true, run_reset,
     "return a line to its state without a session",
     R"(Clears LOGNAME, SOCKADDR, RL_TIMEOUT and PEERNAME, sets TTYPID to -1,
and LOGSUCC, MTYPE, SESSIONID and IDLE to 0. When it fails on the way,
those before are reset already.
)"},
    {"login-ok", " LINE", 1, 1, plain_options, true, run_login_ok,
     "record a login that succeeded",
     "Stores LOGSUCC=1 and tells the line administration daemon.\n"},
    {"login-failed", " LINE", 1, 1, plain_options, true, run_login_failed,
     "record a login that failed",
     "Stores LOGSUCC=0. The line administration daemon is not told.\n"},
    {"cfg", " LINE NAME VALUE", 3, 3, plain_options, true, run_cfg,
     "tell the daemon of a changed setting",
     R"(NAME is SPEED, SESSION_TIMEOUT or EXEC_TIMEOUT, VALUE a number. Nothing
is stored.
)"},
    {"hold", " [--except LINE] SECONDS", 1, 1, hold_options, true, run_hold,
     "ask the daemon to assign no line",
     R"(Until 'release', or for SECONDS (0 to 1800).

  --except LINE  but for this one
)"},
    {"release", "", 0, 0, plain_options, true, run_release,
     "end the hold, whoever asked for it",
     "The request is sent also when nothing is held.\n"},
    {"service", " N", 1, 1, plain_options, true, run_service,
     "say whether a service is enabled",
     "Prints 'enabled', or 'disabled' and exits with 1. N is 0 to 31.\n"},
    {"speed", " [--code] N", 1, 1, speed_options, false, run_speed,
     "convert a speed to the terminal's code",
     R"(Prints the code of the speed N in bits per second.

  --code  the other way round: the speed of the code N
)"},
    {"ask", " [--json] PATH COMMAND [WORD...]", 2, MANY, ask_options, false,
     run_ask, "have a daemon do or tell something",
     R"(Sends a command to the control socket of a daemon, such as consoled
--control PATH or ttylined --control PATH, and prints its rows. 'help' lists
what it knows, a login daemon status, sessions, services, kick, open, stop,
port, tos, reload.

  --json  the answer as JSON
)"},
};

static const char PROGRAM_USAGE[] =
    R"(usage: ttyctl [--timeout SECONDS] COMMAND [ARGUMENTS]
       ttyctl COMMAND --help
       ttyctl --help | --version
)";

static const char PROGRAM_HELP[] =
    R"(
Options stand before the arguments of a command:

  --timeout SECONDS  wait so long for a line that another process has
                     locked, and for the line administration daemon
                     (1 to 3600, 2 if not given)
  --help             this text, or that of a command
  --version          the version

Exit status:

  0  done
  1  failed; there is no line store, or others could change it; there is
     no such value, service or speed
  2  wrong usage: command, option, line number, key or value
  3  the line is locked by another process
  4  the daemon does not take the request

The files are below mng/tty in $TMPDIR, or in / when TMPDIR is unset.
Reasons of failures are logged in .tty_lib_dump.txt there.
)";

static int print_program_help()
{
    std::string text = std::string(PROGRAM_USAGE) + "\nCommands:\n\n";

    for (const command &known : commands) {
        std::string usage = std::string("  ") + known.name + known.synopsis;
        usage.resize(std::max<std::size_t>(usage.size() + 2, 38), ' ');
        text += usage + known.summary + "\n";
    }
    return print(text + PROGRAM_HELP);
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

// The interval is a word of its own, or not there.
static const char *take_interval(int argc, char **argv)
{
    if (optarg != nullptr) {
        return optarg;
    }
    const bool follows =
        optind < argc && argv[optind][0] >= '0' && argv[optind][0] <= '9';
    return follows ? argv[optind++] : nullptr;
}

// False when the option's value is not good.
static bool take_option(int code, int argc, char **argv, invocation &call)
{
    const char *interval = nullptr;

    switch (code) {
    case OPT_TIMEOUT:
        return take_seconds(optarg, TIMEOUT_MAX, call.timeout);
    case OPT_JSON:
        call.json = true;
        return true;
    case OPT_WATCH:
        interval = take_interval(argc, argv);
        call.watch = DEFAULT_WATCH;
        return interval == nullptr ||
               take_seconds(interval, WATCH_MAX, call.watch);
    case OPT_EXCEPT:
        return parse_number(optarg, 0, TTY_LINES - 1, call.except);
    case OPT_CODE:
        call.code = true;
        return true;
    default:
        return false;
    }
}

enum class wanted { command, help, version, nothing };

// Options end at the first other word, as a value to store may begin with a
// dash.
static wanted take_options(int argc, char **argv, const option *known,
                           invocation &call)
{
    int code = 0;

    opterr = 0;
    optind = 0;
    while ((code = getopt_long(argc, argv, "+", known, nullptr)) != -1) {
        if (code == OPT_HELP) {
            return wanted::help;
        }
        if (code == OPT_VERSION) {
            return wanted::version;
        }
        if (!take_option(code, argc, argv, call)) {
            usage_error("bad option or value: '" + escaped(argv[optind - 1]) +
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
        return EXIT_USAGE;
    }
    call.arguments.assign(argv + optind, argv + argc);
    if (call.arguments.size() < known.arguments ||
        call.arguments.size() > known.most_arguments) {
        return fail(EXIT_USAGE, std::string("usage: ttyctl ") + known.name +
                                    known.synopsis);
    }
    std::string why;
    if (known.uses_store && !store_trusted(why)) {
        return fail(EXIT_FAILED, escaped(why));
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
        return EXIT_USAGE;
    case wanted::command:
        break;
    }
    if (optind == argc) {
        return usage_error("a command is missing");
    }
    const command *known = find_command(argv[optind]);
    if (known == nullptr) {
        return usage_error("unknown command '" + escaped(argv[optind]) + "'");
    }
    return run_command(*known, argc - optind, argv + optind, call);
}
