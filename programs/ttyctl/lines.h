// The table of lines.
#pragma once

#include "programs/ttyctl/invocation.h"

// Returns the status to exit with.
int run_lines(const invocation &call);
