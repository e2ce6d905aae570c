// New connections, and the time without descriptors for them.
#pragma once

#include <cstdint>

// Raises the process's limit on descriptors as far as it goes: each session may
// keep a connection for its requests, all of them at once. What is not to be
// had shows when connections come.
void accept_make_room();

// Takes a connection, close-on-exec and non-blocking; -1 when there is none.
// When the process has no descriptor left, all accepting pauses for a while:
// the connection stays in its queue, and the listener readable, which would
// keep the loop spinning.
int accept_or_pause(int listener);

// The end of the pause on the monotonic clock, 0 when there is none. A pause
// whose time is over ends when it is asked for.
int64_t accept_paused_until();

// A descriptor has come free.
void accept_resume();
