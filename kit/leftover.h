// What keepers have left, which the daemon has to tidy up: those that were
// killed, and those that gave up the right to do it themselves.
#pragma once

#include <stdint.h>

#include "kit/table.h"

// Notes a session that its keeper has not cleaned up. The loop's thread.
void kit_leftover_add(const kit_entry *entry);

// On the warden's thread, as all of this may take its time: does what is due,
// and returns when the next thing is, 0 for nothing.
int64_t kit_leftover_tidy(int64_t now);

// The last look, before the daemon ends: its keepers end with it.
void kit_leftover_end(int64_t now);
