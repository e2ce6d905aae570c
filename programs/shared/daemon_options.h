// What the command lines of the login daemons have in common: the port, who may
// come in on it, for how long, and what runs there.
#pragma once

#include <functional>
#include <getopt.h>
#include <string>
#include <sys/types.h>
#include <vector>

#include <ttyline/kit.h>

struct daemon_options {
    int port = 0;
    const char *control = nullptr;
    uint32_t families = KIT_IPV4 | KIT_IPV6;
    bool no_authentication = false; // said in so many words
    bool any_peer = false;          // likewise
    const char *term = "vt100";
    uint32_t most_sessions = 0;
    uint32_t most_per_peer = 0;
    uint32_t idle_seconds = 0; // 0: no limit
    std::vector<const char *> peers;
    std::vector<const char *> environment;
    std::vector<const char *> program;
    // What choose_program() has found; the list above leads there then.
    std::string shell;
    std::string login_name;
};

// What a daemon has besides: its name, its help text, options of its own, and
// what takes one of them and says whether more may follow.
struct daemon_manual {
    const char *name;
    const char *help;
    std::vector<option> own;
    std::function<bool(int letter)> take;
};

// Ends the process after --help and --version, and for a line that cannot be
// understood.
void parse_daemon_options(int argc, char **argv, const daemon_manual &manual,
                          daemon_options &chosen);

// Why the port cannot be offered as it was asked for; empty when it can.
std::string objection_to_port(const daemon_options &chosen);

// Says so and exits with the status of a wrong command line.
[[noreturn]] void refuse(const char *text, const char *reason);
