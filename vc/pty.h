// Pseudo-terminals: both ends opened, and the master's first settings.
#pragma once

#include <stddef.h>

// Opens a pseudo-terminal's master and writes the slave's name into name, or
// "/dev/ptmx" when it does not come that far. Returns the master, or -1
// (open), -2 (grant), -3 (unlock), -4 (no name) with errno set.
int vc_ptym_open(char *name, size_t size);

// Opens the slave. Returns the descriptor, or -5 after logging.
int vc_ptys_open(const char *name);

// Line settings of a new master: no echo, no line editing, flow control.
void vc_set_noecho(int fd);
