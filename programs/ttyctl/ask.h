// The command that speaks to a daemon's control socket.
#pragma once

#include "programs/ttyctl/invocation.h"

// Returns the status to exit with.
int run_ask(const invocation &call);
