#include "programs/telnetd/options.h"

static const char HELP[] =
    R"(usage: ttyline-telnetd --port N --allow ADDR|any [options]
                       [--program PROGRAM [argument ...]]
  --port N               offer telnet on TCP port N (1 to 65535)
  --allow ADDR[/BITS]    let these peers in; repeatable
  --allow any            let everybody in
  --program PROGRAM      what each session runs, found through PATH, with all
                         that follows as its arguments; without it the user's
                         shell
  --records              keep utmp and wtmp
  --network-user USER    as root, read the network as this user
                         (ttyline-net)
  --no-authentication    ask for no password: whoever gets in is the user who
                         runs this daemon, who must not be root
  --control PATH         take commands on a unix path that only this user
                         can open; send it 'help'
  --sessions N           at most so many sessions
  --sessions-per-peer N  at most so many of one address (16)
  --idle SECONDS         end a session in which nothing moves for so long
  --no-ipv4              offer the port over IPv6 only
  --no-ipv6              offer the port over IPv4 only
  --setenv NAME=VALUE    put this into the sessions' environment; repeatable
  --term TERM            terminal type of peers that tell none that is known
                         here (vt100)
  --version              print the version
  --help                 print this
Users are asked for name and password, by PAM's service "ttyline". Nothing is
encrypted: whoever is on the way reads both. Without root only the daemon's own
user can log in.
)";

static void take_own(int letter, telnetd_options &chosen, const char *&program)
{
    if (letter == 'N') {
        chosen.network_user = optarg;
    } else if (letter == 'R') {
        chosen.records = true;
    } else {
        program = optarg;
    }
}

void parse_options(int argc, char **argv, telnetd_options &chosen)
{
    const char *name = nullptr;

    parse_daemon_options(argc, argv,
                         {"ttyline-telnetd",
                          HELP,
                          {{"program", required_argument, nullptr, 'P'},
                           {"network-user", required_argument, nullptr, 'N'},
                           {"records", no_argument, nullptr, 'R'}},
                          [&](int letter) {
                              take_own(letter, chosen, name);
                              // What follows the program's name are its own
                              // options.
                              return letter != 'P';
                          }},
                         chosen);
    if (name == nullptr && !chosen.program.empty()) {
        refuse(chosen.program[0], "a program is named by --program");
    }
    if (name != nullptr) {
        chosen.program.insert(chosen.program.begin(), name);
    }
}

std::string objection_to(const telnetd_options &chosen, uid_t daemon)
{
    if (chosen.port == 0) {
        return "--port is needed";
    }
    std::string why = objection_to_port(chosen);
    if (!why.empty()) {
        return why;
    }
    if (daemon == 0 && chosen.no_authentication) {
        return "whoever may connect would be root: --no-authentication is not "
               "for root";
    }
    return "";
}
