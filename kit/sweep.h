// What is left of a session when its program has ended.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// Ends the processes of a session: hung up first, and by force those that are
// still there after the time. Returns when none is left, or a moment after the
// force. The session's number cannot be another's while one of them is there.
void kit_sweep(pid_t session, int64_t limit_ms);

// Hangs the processes of a session up; false when there are none.
bool kit_sweep_hang_up(pid_t session);
