// From a login daemon's command line to what it offers on the kit.
#pragma once

#include <ttyline/kit.h>

#include "programs/shared/daemon_options.h"

// The kit's lists end with a null pointer; one that nobody has given is absent.
const char *const *kit_list(std::vector<const char *> &list);

// Gives the options a shell as their program when they have none: SHELL for
// this process's user, or that of another one. Returns the name that makes it a
// login shell, null for another program. All of it is in the options, which
// have to stay where they are.
const char *choose_program(daemon_options &chosen, const char *user);

// What services have in common. The record of rules is the caller's; both point
// into the options.
kit_admission admission_of(daemon_options &chosen);
kit_service service_of(daemon_options &chosen, const kit_admission *admission);

// Offers it or ends the process.
void offer(const kit_service &service);
