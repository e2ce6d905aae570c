#include "programs/consoled/options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>
#include <getopt.h>
#include <pwd.h>

#include <ttyline/vc.h>

constexpr int EXIT_USAGE = 2;
constexpr long MOST_SESSIONS = TTY_LINES;
constexpr long MOST_PORT = 65535;
constexpr long MOST_IDLE_S = 86400;
// Of one that has not said who it is: enough for a person, and for a network
// behind one address, and no more than a small part of the lines.
constexpr uint32_t USUAL_PER_PEER = 16;

static const char HELP[] =
    R"(usage: consoled [options] [program [argument ...]]
  --port N               offer TCP port N (1 to 65535)
  --path PATH            offer a unix path, at most 63 characters
  --inpath PATH          offer the line console on a unix path, at most 63
                         characters; runs rl-con, found through PATH
  --control PATH         take commands on a unix path that only this user
                         can open; send it 'help'
  --login                have login(1) ask each user for name and password
  --user NAME            run the program as this user
  --no-authentication    as root, give whoever gets in the program as root
  --allow ADDR[/BITS]    let these peers in on the port; repeatable
  --allow any            let everybody in on the port
  --allow-user USER      let only these users in on the paths; repeatable
  --allow-group GROUP    and the members of these groups; repeatable
  --sessions N           at most so many sessions on each
  --sessions-per-peer N  at most so many of one address or user (16)
  --idle SECONDS         end a session in which nothing moves for so long
  --no-ipv4              offer the port over IPv6 only
  --no-ipv6              offer the port over IPv4 only
  --setenv NAME=VALUE    put this into the sessions' environment; repeatable
  --term TERM            terminal type of the sessions (vt100)
  --version              print the version
  --help                 print this
At least one of --port, --path and --inpath is needed, and --allow with --port.
Without a program each session is a login shell. Without --login there is no
password: whoever gets in is the user who runs consoled, or that of --user. So
root has to say one of --login, --user and --no-authentication.
)";

void refuse(const char *text, const char *reason)
{
    errx(EXIT_USAGE, "%s: %s (try --help)", text, reason);
}

static long parse_number(const char *text, long highest, const char *what)
{
    char *end = nullptr;
    const long number = strtol(text, &end, 10);

    if (end == text || *end != '\0' || number < 1 || number > highest) {
        refuse(text, what);
    }
    return number;
}

static uint32_t parse_sessions(const char *text)
{
    return static_cast<uint32_t>(
        parse_number(text, MOST_SESSIONS, "not a number of sessions"));
}

static const char *parse_path(const char *text)
{
    if (*text == '\0' || strlen(text) >= VC_PATH_SIZE) {
        refuse(text, "not a path of 1 to 63 characters");
    }
    return text;
}

static const char *parse_variable(const char *text)
{
    const char *equals = strchr(text, '=');

    if (equals == nullptr || equals == text) {
        refuse(text, "not NAME=VALUE");
    }
    return text;
}

static void parse_peer(const char *text, options &chosen)
{
    if (strcmp(text, "any") == 0) {
        chosen.any_peer = true;
    } else {
        chosen.peers.push_back(text);
    }
}

// Where sessions come in.
static void parse_offer(int letter, options &chosen)
{
    switch (letter) {
    case 'p':
        chosen.port =
            static_cast<int>(parse_number(optarg, MOST_PORT, "not a port"));
        break;
    case 'u':
        chosen.path = parse_path(optarg);
        break;
    case 'i':
        if (chosen.inpath != nullptr) {
            refuse(optarg, "only one --inpath can be offered");
        }
        chosen.inpath = parse_path(optarg);
        break;
    case 'c':
        chosen.control = optarg;
        break;
    case '4':
        chosen.families &= ~KIT_IPV4;
        break;
    case '6':
        chosen.families &= ~KIT_IPV6;
        break;
    default:
        fputs(HELP, stderr);
        exit(EXIT_USAGE);
    }
}

// Who may come in.
static void parse_admission(int letter, options &chosen)
{
    switch (letter) {
    case 'a':
        parse_peer(optarg, chosen);
        break;
    case 'U':
        chosen.users.push_back(optarg);
        break;
    case 'G':
        chosen.groups.push_back(optarg);
        break;
    case 's':
        chosen.most_sessions = parse_sessions(optarg);
        break;
    case 'S':
        chosen.most_per_peer = parse_sessions(optarg);
        break;
    default:
        parse_offer(letter, chosen);
    }
}

// What a session is.
static void parse_session(int letter, options &chosen)
{
    switch (letter) {
    case 'l':
        chosen.login = true;
        break;
    case 'n':
        chosen.no_authentication = true;
        break;
    case 'r':
        chosen.user = optarg;
        break;
    case 'e':
        chosen.environment.push_back(parse_variable(optarg));
        break;
    case 'I':
        chosen.idle_seconds = static_cast<uint32_t>(
            parse_number(optarg, MOST_IDLE_S, "not 1 to 86400 seconds"));
        break;
    case 't':
        chosen.term = optarg;
        break;
    default:
        parse_admission(letter, chosen);
    }
}

void parse_options(int argc, char **argv, options &chosen)
{
    static const option KNOWN[] = {
        {"port", required_argument, nullptr, 'p'},
        {"path", required_argument, nullptr, 'u'},
        {"inpath", required_argument, nullptr, 'i'},
        {"control", required_argument, nullptr, 'c'},
        {"login", no_argument, nullptr, 'l'},
        {"user", required_argument, nullptr, 'r'},
        {"no-authentication", no_argument, nullptr, 'n'},
        {"allow", required_argument, nullptr, 'a'},
        {"allow-user", required_argument, nullptr, 'U'},
        {"allow-group", required_argument, nullptr, 'G'},
        {"sessions", required_argument, nullptr, 's'},
        {"sessions-per-peer", required_argument, nullptr, 'S'},
        {"idle", required_argument, nullptr, 'I'},
        {"no-ipv4", no_argument, nullptr, '4'},
        {"no-ipv6", no_argument, nullptr, '6'},
        {"setenv", required_argument, nullptr, 'e'},
        {"term", required_argument, nullptr, 't'},
        {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};
    int letter;

    chosen.most_per_peer = USUAL_PER_PEER;
    // The plus: what follows the program's name are its own options.
    while ((letter = getopt_long(argc, argv, "+", KNOWN, nullptr)) != -1) {
        if (letter == 'h') {
            fputs(HELP, stdout);
            exit(0);
        }
        if (letter == 'v') {
            printf("consoled (ttyline) %s\n", TTYLINE_VERSION);
            exit(0);
        }
        parse_session(letter, chosen);
    }
    chosen.program.assign(argv + optind, argv + argc);
}

static std::string objection_to_offer(const options &chosen)
{
    if (chosen.port == 0 && chosen.path == nullptr &&
        chosen.inpath == nullptr) {
        return "none of --port, --path and --inpath given";
    }
    if (chosen.port != 0 && chosen.families == 0) {
        return "--no-ipv4 and --no-ipv6 leave --port nothing";
    }
    // Neither everybody nor nobody is what all would expect.
    if (chosen.port != 0 && chosen.peers.empty() && !chosen.any_peer) {
        return "--port needs --allow ADDR for those who may come in, "
               "or --allow any";
    }
    return "";
}

static std::string objection_to_session(const options &chosen, uid_t daemon)
{
    if (chosen.login && (chosen.user != nullptr || !chosen.program.empty())) {
        return "--login goes neither with --user nor with a program";
    }
    if (chosen.login && daemon != 0) {
        return "--login needs root, as login(1) does";
    }
    if (chosen.user != nullptr && getpwnam(chosen.user) == nullptr) {
        return std::string("no such user: ") + chosen.user;
    }
    return "";
}

// Whether a session begins as somebody whom nobody has asked for a password.
static bool sessions_are_root(const options &chosen)
{
    const passwd *user =
        chosen.user != nullptr ? getpwnam(chosen.user) : nullptr;

    return !chosen.login && (user == nullptr || user->pw_uid == 0);
}

// The line console runs as the daemon and has a shell. Its path is closed to
// others until a list says who they are.
static bool console_is_shared(const options &chosen)
{
    return chosen.inpath != nullptr &&
           (!chosen.users.empty() || !chosen.groups.empty());
}

std::string objection_to(const options &chosen, uid_t daemon)
{
    std::string why = objection_to_offer(chosen);

    if (why.empty()) {
        why = objection_to_session(chosen, daemon);
    }
    if (!why.empty() || daemon != 0 || chosen.no_authentication) {
        return why;
    }
    if ((chosen.port != 0 || chosen.path != nullptr) &&
        sessions_are_root(chosen)) {
        return "whoever gets in would be root: --login, --user NAME or "
               "--no-authentication is needed";
    }
    if (console_is_shared(chosen)) {
        return "the line console has a shell of root's, which --allow-user "
               "and --allow-group would give away: --no-authentication is "
               "needed";
    }
    return "";
}
