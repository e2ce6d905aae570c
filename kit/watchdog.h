// Tells the service manager that the daemon is ready, and then that it is
// alive: each time only when the loop was seen to turn.
#pragma once

#include <stdint.h>

// On the loop's thread, before the warden starts.
void kit_watchdog_begin(void);

// On the warden's thread: looks, and returns when to look again, 0 for never.
int64_t kit_watchdog_look(int64_t now);
