// What a session's process does until its program runs.
#pragma once

#include "vc/session.h"

// In the forked child: makes the slave the controlling terminal and runs the
// service's session program. Never returns.
[[noreturn]] void vc_child_proc(int master_fd, int ttyno, const char *slave,
                                const vc_child *child);

// Puts TTYNUM, TTYTYPE, PROTOCOL and CONN_TYPE into the environment.
void vc_child_setenvs(const vc_child *child);
