// The daemon's second thread: what must not hold up the loop, and what must not
// wait for its next turn.
#pragma once

#include <stdint.h>

#include "kit/table.h"

// Starts it, with the control socket if the daemon has one. Returns -1 with the
// reason for kit_error(). All signals are blocked in it, and SIGTERM in the
// calling thread too: it takes SIGTERM as the order to end the daemon.
int kit_warden_start(const kit_daemon *daemon);

// A session's keeper must have got on by then, as its entry says. Any thread.
void kit_warden_deadline(int64_t deadline_ms);

// A session that its keeper has not cleaned up: its line is to be cleaned, and
// what still runs of it to be ended.
void kit_warden_clean(const kit_entry *entry);

// A session has left the table.
void kit_warden_session_over(void);
