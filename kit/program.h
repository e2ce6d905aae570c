// What a session runs, on its terminal.
#pragma once

#include <pwd.h>

#include "kit/table.h"

// In the keeper's child: takes the terminal, waits on its end of go, as nothing
// may run before the line says whose it is, and becomes the service's program
// or calls its function, as this user; null when there is no such. Does not
// return.
[[noreturn]] void kit_program_run(const kit_entry *entry, const char *device,
                                  int go, const struct passwd *user);

// Line editing and the usual translations on the terminal of descriptor 0, and
// a size where it has none. Before the first byte of the peer: what is typed
// ahead counts too.
void kit_program_make_terminal_sane(void);

// Kept before the daemon raises it: a program gets the limit that the daemon
// was started with.
void kit_program_keep_limits(void);
