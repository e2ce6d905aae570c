#include "programs/shared/daemon_options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <err.h>

#include <ttyline/tty.h>

#include "programs/shared/parse.h"

constexpr int EXIT_USAGE = 2;
constexpr unsigned int MOST_SESSIONS = TTY_LINES;
constexpr unsigned int MOST_PORT = 65535;
constexpr unsigned int MOST_IDLE_S = 86400;
// Of one that has not said who it is: enough for a person, and for a network
// behind one address, and no more than a small part of the lines.
constexpr uint32_t USUAL_PER_PEER = 16;

static const option COMMON[] = {
    {"port", required_argument, nullptr, 'p'},
    {"control", required_argument, nullptr, 'c'},
    {"no-authentication", no_argument, nullptr, 'n'},
    {"allow", required_argument, nullptr, 'a'},
    {"sessions", required_argument, nullptr, 's'},
    {"sessions-per-peer", required_argument, nullptr, 'S'},
    {"idle", required_argument, nullptr, 'I'},
    {"no-ipv4", no_argument, nullptr, '4'},
    {"no-ipv6", no_argument, nullptr, '6'},
    {"setenv", required_argument, nullptr, 'e'},
    {"term", required_argument, nullptr, 't'},
    {"version", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'}};

void refuse(const char *text, const char *reason)
{
    errx(EXIT_USAGE, "%s: %s (try --help)", text, reason);
}

static unsigned int parse_count(const char *text, unsigned int highest,
                                const char *what)
{
    unsigned int count = 0;

    if (!parse_number(text, 1U, highest, count)) {
        refuse(text, what);
    }
    return count;
}

static uint32_t parse_sessions(const char *text)
{
    return parse_count(text, MOST_SESSIONS, "not a number of sessions");
}

static const char *parse_variable(const char *text)
{
    const char *equals = strchr(text, '=');

    if (equals == nullptr || equals == text) {
        refuse(text, "not NAME=VALUE");
    }
    return text;
}

static void parse_peer(const char *text, daemon_options &chosen)
{
    if (strcmp(text, "any") == 0) {
        chosen.any_peer = true;
    } else {
        chosen.peers.push_back(text);
    }
}

// Where sessions come in, and whose.
static bool take_offer(int letter, daemon_options &chosen)
{
    switch (letter) {
    case 'p':
        chosen.port =
            static_cast<int>(parse_count(optarg, MOST_PORT, "not a port"));
        return true;
    case 'c':
        chosen.control = optarg;
        return true;
    case '4':
        chosen.families &= ~KIT_IPV4;
        return true;
    case '6':
        chosen.families &= ~KIT_IPV6;
        return true;
    case 'a':
        parse_peer(optarg, chosen);
        return true;
    case 's':
        chosen.most_sessions = parse_sessions(optarg);
        return true;
    case 'S':
        chosen.most_per_peer = parse_sessions(optarg);
        return true;
    default:
        return false;
    }
}

// What a session is.
static bool take_session(int letter, daemon_options &chosen)
{
    switch (letter) {
    case 'n':
        chosen.no_authentication = true;
        return true;
    case 'e':
        chosen.environment.push_back(parse_variable(optarg));
        return true;
    case 'I':
        chosen.idle_seconds =
            parse_count(optarg, MOST_IDLE_S, "not 1 to 86400 seconds");
        return true;
    case 't':
        chosen.term = optarg;
        return true;
    default:
        return false;
    }
}

static bool take(int letter, const daemon_manual &manual,
                 daemon_options &chosen)
{
    switch (letter) {
    case 'h':
        fputs(manual.help, stdout);
        exit(0);
    case 'v':
        printf("%s (ttyline) %s\n", manual.name, TTYLINE_VERSION);
        exit(0);
    case '?':
        fputs(manual.help, stderr);
        exit(EXIT_USAGE);
    default:
        return take_offer(letter, chosen) || take_session(letter, chosen) ||
               manual.take(letter);
    }
}

void parse_daemon_options(int argc, char **argv, const daemon_manual &manual,
                          daemon_options &chosen)
{
    std::vector<option> known(std::begin(COMMON), std::end(COMMON));
    int letter;

    known.insert(known.end(), manual.own.begin(), manual.own.end());
    known.push_back({nullptr, 0, nullptr, 0});
    chosen.most_per_peer = USUAL_PER_PEER;
    bool more = true;
    // The plus: what follows the program's name are its own options.
    while (more && (letter = getopt_long(argc, argv, "+", known.data(),
                                         nullptr)) != -1) {
        more = take(letter, manual, chosen);
    }
    chosen.program.assign(argv + optind, argv + argc);
}

std::string objection_to_port(const daemon_options &chosen)
{
    if (chosen.families == 0) {
        return "--no-ipv4 and --no-ipv6 leave --port nothing";
    }
    // Neither everybody nor nobody is what all would expect.
    if (chosen.peers.empty() && !chosen.any_peer) {
        return "--port needs --allow ADDR for those who may come in, "
               "or --allow any";
    }
    return "";
}
