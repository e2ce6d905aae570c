// What the command line of consoled asks for, and whether it may be had.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "programs/shared/daemon_options.h"

struct options : daemon_options {
    const char *path = nullptr;
    const char *inpath = nullptr;
    bool login = false; // login(1) asks who it is
    const char *user = nullptr;
    std::vector<const char *> users;
    std::vector<const char *> groups;
};

// Ends the process after --help and --version, and for a line that cannot be
// understood.
void parse_options(int argc, char **argv, options &chosen);

// Why a daemon of this user must not offer what was asked for; empty when it
// may. What the session program is called is not looked at: whoever can run
// one program as somebody can often run any.
std::string objection_to(const options &chosen, uid_t daemon);
