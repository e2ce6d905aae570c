// What a daemon tells the service manager that started it: that it is ready,
// that it is alive, that it ends.
#pragma once

#include <stdint.h>

#include "common/face.h"

inline namespace TTYLINE_FACE
{

// Sends a state such as "READY=1" to the socket that NOTIFY_SOCKET names. Never
// waits; without such a socket nothing happens. Any thread.
void tty_notify(const char *state);

// How often, in milliseconds, this process should say "WATCHDOG=1": twice in
// the time after which the manager ends it. 0: the manager does not ask.
int64_t tty_notify_interval_ms(void);

} // namespace TTYLINE_FACE
