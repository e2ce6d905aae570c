// The commands on the values of one line.
#pragma once

#include "programs/ttyctl/invocation.h"

// Each returns the status to exit with.
int run_get(const invocation &call);
int run_set(const invocation &call);
int run_reset(const invocation &call);
