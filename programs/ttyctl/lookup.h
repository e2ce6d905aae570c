// The commands that only look something up.
#pragma once

#include "programs/ttyctl/invocation.h"

// Each returns the status to exit with.
int run_service(const invocation &call);
int run_speed(const invocation &call);
