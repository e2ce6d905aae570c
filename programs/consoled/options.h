// What the command line of consoled asks for, and whether it may be had.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include <ttyline/kit.h>

struct options {
    int port = 0;
    const char *path = nullptr;
    const char *inpath = nullptr;
    const char *control = nullptr;
    uint32_t families = KIT_IPV4 | KIT_IPV6;
    bool login = false;             // login(1) asks who it is
    bool no_authentication = false; // said in so many words
    bool any_peer = false;          // likewise
    const char *user = nullptr;
    const char *term = "vt100";
    uint32_t most_sessions = 0;
    uint32_t most_per_peer = 0;
    uint32_t idle_seconds = 0; // 0: no limit
    std::vector<const char *> peers;
    std::vector<const char *> users;
    std::vector<const char *> groups;
    std::vector<const char *> environment;
    std::vector<const char *> program;
};

// Ends the process after --help and --version, and for a line that cannot be
// understood.
void parse_options(int argc, char **argv, options &chosen);

// Why a daemon of this user must not offer what was asked for; empty when it
// may. What the session program is called is not looked at: whoever can run
// one program as somebody can often run any.
std::string objection_to(const options &chosen, uid_t daemon);

// Says so and exits with the status of a wrong command line.
[[noreturn]] void refuse(const char *text, const char *reason);
