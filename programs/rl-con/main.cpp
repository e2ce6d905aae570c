/*
 * rl-con: the console of one terminal line. The session service starts it for
 * each connection to an in-path service, on the line's pseudo-terminal, with
 * option and value in one argument each: "-n 300" "-t /dev/pts/4" "-i ins".
 * Separate arguments do as well, for use by hand.
 *
 * The service hands over a terminal without line editing, signals ignored and
 * descriptors open; terminal_begin() sees to all of it. SIGHUP gets its
 * default back: a line that is hung up ends the console, and the kernel tells
 * the shell.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <getopt.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "programs/rl-con/command.h"

enum exit_code { left = 0, terminal_failed = 1, bad_usage = 2 };

static const char help[] =
    "usage: rl-con -n LINE [-t DEVICE] [-i PEER]\n"
    "  -n LINE    number of the line, 0 to 1585\n"
    "  -t DEVICE  the line's terminal device, to be shown\n"
    "  -i PEER    who is at the other end, to be shown\n"
    "  --help     print this\n"
    "Option and value may stand in one argument: '-n 300'. The keys of the\n"
    "line are those of the runtime directory that TMPDIR names.\n"
    "Exit codes: 0 after 'exit' or at the end of the input, 1 when the input\n"
    "cannot be read or the output not be written, 2 for a wrong command line.\n"
    "A line that is hung up ends it by SIGHUP.\n";

[[noreturn]] static void refuse(const char *text, const char *reason)
{
    errx(bad_usage, "%s: %s (try --help)", text, reason);
}

/* In "-n 300" the value of the option is " 300". */
static const char *option_value()
{
    return optarg + strspn(optarg, " ");
}

static unsigned parse_line(const char *text)
{
    char *end = nullptr;
    const long line = strtol(text, &end, 10);

    if (*text < '0' || *text > '9' || *end != '\0' || line >= TTY_LINES) {
        refuse(text, "not a line number");
    }
    return static_cast<unsigned>(line);
}

static std::string own_device()
{
    const char *device = ttyname(STDIN_FILENO);

    return device != nullptr ? device : "none";
}

static void parse_option(int letter, console &c, bool &line_given)
{
    switch (letter) {
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
    case 'h':
        fputs(help, stdout);
        exit(left);
    default:
        fputs(help, stderr);
        exit(bad_usage);
    }
}

static console parse_command_line(int argc, char **argv)
{
    static const option known[] = {{"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    console c = {};
    bool line_given = false;
    int letter;

    c.device = own_device();
    c.peer = "unknown";
    while ((letter = getopt_long(argc, argv, "n:t:i:", known, nullptr)) != -1) {
        parse_option(letter, c, line_given);
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
           printable(c.device).c_str(), printable(c.peer).c_str());
}

static void prompt(const console &c)
{
    printf("rl-con %u> ", c.line);
}

/* False when the console has come to its end. */
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
        result = terminal_failed;
        return false;
    }
    return false;
}

static int serve(console &c)
{
    int result = left;

    greet(c);
    do {
        prompt(c);
        if (fflush(stdout) != 0) {
            return terminal_failed;
        }
    } while (serve_line(c, result));
    return fflush(stdout) != 0 ? terminal_failed : result;
}

int main(int argc, char **argv)
{
    console c = parse_command_line(argc, argv);

    terminal_begin(c.term);
    const int result = serve(c);
    terminal_end(c.term);
    return result;
}
