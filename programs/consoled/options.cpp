#include "programs/consoled/options.h"

#include <cstring>
#include <pwd.h>

#include <ttyline/vc.h>

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

static const char *parse_path(const char *text)
{
    if (*text == '\0' || strlen(text) >= VC_PATH_SIZE) {
        refuse(text, "not a path of 1 to 63 characters");
    }
    return text;
}

static void take(int letter, options &chosen)
{
    switch (letter) {
    case 'u':
        chosen.path = parse_path(optarg);
        break;
    case 'i':
        if (chosen.inpath != nullptr) {
            refuse(optarg, "only one --inpath can be offered");
        }
        chosen.inpath = parse_path(optarg);
        break;
    case 'l':
        chosen.login = true;
        break;
    case 'r':
        chosen.user = optarg;
        break;
    case 'U':
        chosen.users.push_back(optarg);
        break;
    default:
        chosen.groups.push_back(optarg);
    }
}

void parse_options(int argc, char **argv, options &chosen)
{
    const std::vector<option> own = {
        {"path", required_argument, nullptr, 'u'},
        {"inpath", required_argument, nullptr, 'i'},
        {"login", no_argument, nullptr, 'l'},
        {"user", required_argument, nullptr, 'r'},
        {"allow-user", required_argument, nullptr, 'U'},
        {"allow-group", required_argument, nullptr, 'G'}};

    parse_daemon_options(argc, argv,
                         {"consoled", HELP, own,
                          [&](int letter) {
                              take(letter, chosen);
                              return true;
                          }},
                         chosen);
}

static std::string objection_to_offer(const options &chosen)
{
    if (chosen.port == 0 && chosen.path == nullptr &&
        chosen.inpath == nullptr) {
        return "none of --port, --path and --inpath given";
    }
    return chosen.port != 0 ? objection_to_port(chosen) : "";
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
