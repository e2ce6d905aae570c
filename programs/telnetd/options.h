// What the command line of ttyline-telnetd asks for, and whether it may be had.
#pragma once

#include "programs/shared/daemon_options.h"

struct telnetd_options : daemon_options {
    const char *network_user = "ttyline-net"; // whom keepers run as
    bool records = false;                     // keep utmp and wtmp
};

// Ends the process after --help and --version, and for a line that cannot be
// understood.
void parse_options(int argc, char **argv, telnetd_options &chosen);

// Why a daemon of this user must not offer what was asked for; empty when it
// may.
std::string objection_to(const telnetd_options &chosen, uid_t daemon);
