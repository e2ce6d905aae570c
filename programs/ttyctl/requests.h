// The commands that send a request to the line administration daemon.
#pragma once

#include "programs/ttyctl/invocation.h"

// Each returns the status to exit with.
int run_login_ok(const invocation &call);
int run_login_failed(const invocation &call);
int run_cfg(const invocation &call);
int run_hold(const invocation &call);
int run_release(const invocation &call);
