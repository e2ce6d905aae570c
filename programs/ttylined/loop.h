// The loop: one wait, then everything that became ready. Nothing else in the
// daemon waits.
#pragma once

#include "programs/ttylined/operators.h"
#include "programs/ttylined/server.h"

// Serves until a signal comes in on signal_fd or an operator ends the daemon;
// false when it cannot go on.
bool loop_run(server &srv, operators &all, int signal_fd);
