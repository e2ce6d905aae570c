// rl-con: the console of one terminal line. The session service starts it for
// each connection to an in-path service, on the line's pseudo-terminal, with
// option and value in one argument each: "-n 300" "-t /dev/pts/4" "-i ins".
// Separate arguments do as well, for use by hand.
//
// The service hands over a terminal without line editing, signals ignored and
// descriptors open; terminal_begin() sees to all of it. SIGHUP gets its
// default back: a line that is hung up ends the console, and the kernel tells
// the shell.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <getopt.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "programs/rl-con/command.h"
#include "programs/shared/escape.h"
#include "programs/shared/parse.h"
#include "programs/shared/runtime_path.h"

enum exit_code { EXIT_LEFT = 0, EXIT_TERMINAL = 1, EXIT_USAGE = 2 };

// Beyond all letters: these two have no short form.
enum option_code { OPT_HELP = 256, OPT_VERSION };

static const char HELP[] =
    R"(usage: rl-con -n LINE [-t DEVICE] [-i PEER]
       rl-con --help | --version
  -n LINE    number of the line, 0 to 1585
  -t DEVICE  the line's terminal device, to be shown
  -i PEER    who is at the other end, to be shown
  --help     print this
  --version  print the version
Option and value may stand in one argument: '-n 300'. The keys of the
line are those of the runtime directory that TMPDIR names.
Exit codes: 0 after 'exit' or at the end of the input, 1 when the input
cannot be read, the output not be written, or the runtime directory is
missing or not to be trusted, 2 for a wrong command line.
A line that is hung up ends it by SIGHUP.
)";

[[noreturn]] static void refuse(const char *text, const char *reason)
{
    errx(EXIT_USAGE, "%s: %s (try --help)", text, reason);
}

// In "-n 300" the value of the option is " 300".
static const char *option_value()
{
    return optarg + strspn(optarg, " ");
}

static unsigned parse_line(const char *text)
{
    unsigned line = 0;

    if (!parse_number(text, 0, TTY_LINES - 1, line)) {
        refuse(text, "not a line number");
    }
    return line;
}

static std::string own_device()
{
    const char *device = ttyname(STDIN_FILENO);

    return device != nullptr ? device : "none";
}

static void parse_option(int code, console &c, bool &line_given)
{
    switch (code) {
    case 'n':
        c.line = parse_line(option_value());
        line_given = true;
        break;
    case 't':
        c.device = option_value();
        break;
    case 'i':
        c.peer = option_value();
        break;
    case OPT_HELP:
        fputs(HELP, stdout);
        exit(EXIT_LEFT);
    case OPT_VERSION:
        puts("rl-con " TTYLINE_VERSION);
        exit(EXIT_LEFT);
    default:
        fputs(HELP, stderr);
        exit(EXIT_USAGE);
    }
}

static console parse_command_line(int argc, char **argv)
{
    static const option known[] = {
        {"help", no_argument, nullptr, OPT_HELP},
        {"version", no_argument, nullptr, OPT_VERSION},
        {nullptr, 0, nullptr, 0}};
    console c = {};
    bool line_given = false;
    int code;

    c.device = own_device();
    c.peer = "unknown";
    while ((code = getopt_long(argc, argv, "n:t:i:", known, nullptr)) != -1) {
        parse_option(code, c, line_given);
    }
    if (optind < argc) {
        refuse(argv[optind], "not an option");
    }
    if (!line_given) {
        refuse(argv[0], "no line given");
    }
    return c;
}

static void greet(const console &c)
{
    printf("line %u on %s, peer %s; 'help' lists the commands\n", c.line,
           escaped(c.device).c_str(), escaped(c.peer).c_str());
}

static void prompt(const console &c)
{
    printf("rl-con %u> ", c.line);
}

// False when the console has come to its end.
static bool serve_line(console &c, int &result)
{
    std::string line;

    switch (terminal_read_line(c.term, line)) {
    case typed::line:
        return run_command(c, line);
    case typed::too_long:
        printf("line too long\n");
        return true;
    case typed::interrupted:
        printf("\n");
        return true;
    case typed::end:
        printf("\n");
        return false;
    case typed::failure:
        warn("cannot read");
        result = EXIT_TERMINAL;
        return false;
    }
    return false;
}

static int serve(console &c)
{
    int result = EXIT_LEFT;

    greet(c);
    do {
        prompt(c);
        if (fflush(stdout) != 0) {
            return EXIT_TERMINAL;
        }
    } while (serve_line(c, result));
    return fflush(stdout) != 0 ? EXIT_TERMINAL : result;
}

int main(int argc, char **argv)
{
    console c = parse_command_line(argc, argv);
    std::string why;

    if (!store_trusted(why)) {
        errx(EXIT_TERMINAL, "%s", why.c_str());
    }
    terminal_begin(c.term);
    const int result = serve(c);
    terminal_end(c.term);
    return result;
}
