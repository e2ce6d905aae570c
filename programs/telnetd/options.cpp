#include "programs/telnetd/options.h"

static const char HELP[] =
    R"(usage: ttyline-telnetd --port N --allow ADDR|any --no-authentication
                       [options] [--program PROGRAM [argument ...]]
  --port N               offer telnet on TCP port N (1 to 65535)
  --allow ADDR[/BITS]    let these peers in; repeatable
  --allow any            let everybody in
  --no-authentication    give whoever gets in the program, as the user who
                         runs this daemon
  --program PROGRAM      what each session runs, found through PATH, with all
                         that follows as its arguments; without it the user's
                         shell
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
There is no password, and nothing is encrypted: whoever may connect gets a shell
of the user who runs ttyline-telnetd. So --no-authentication has to be typed
out, and root is refused.
)";

void parse_options(int argc, char **argv, daemon_options &chosen)
{
    const char *name = nullptr;

    parse_daemon_options(argc, argv,
                         {"ttyline-telnetd",
                          HELP,
                          {{"program", required_argument, nullptr, 'P'}},
                          [&](int) {
                              name = optarg;
                              return false;
                          }},
                         chosen);
    if (name == nullptr && !chosen.program.empty()) {
        refuse(chosen.program[0], "a program is named by --program");
    }
    if (name != nullptr) {
        chosen.program.insert(chosen.program.begin(), name);
    }
}

std::string objection_to(const daemon_options &chosen, uid_t daemon)
{
    // What strangers send is read by this user's processes.
    if (daemon == 0) {
        return "it has no authentication and reads what the network sends with "
               "all rights of its user: it does not run as root";
    }
    if (chosen.port == 0) {
        return "--port is needed";
    }
    const std::string why = objection_to_port(chosen);
    if (!why.empty()) {
        return why;
    }
    if (!chosen.no_authentication) {
        return "whoever may connect gets a shell of this user: "
               "--no-authentication has to be typed out";
    }
    return "";
}
