// Sessions brought to life on pseudo-terminals.
#pragma once

#include <stddef.h>

#include "vc/session.h"

// Makes the session of a line: pseudo-terminal, record, the service's set-up
// and the forked child. Returns the record, or null. A failure after the
// record exists tears the session down, which closes the socket and sets
// *sockfd to -1; after an earlier one the socket still belongs to the caller.
// The loop's thread, without the lock.
vc_child *vc_child_alloc(int ttyno, int *sockfd, int port, const char *path,
                         int inetd_fd);

// Opens a pseudo-terminal's master and writes the slave's name into name, or
// "/dev/ptmx" when it does not come that far. Returns the master, or -1
// (open), -2 (grant), -3 (unlock), -4 (no name) with errno set.
int vc_ptym_open(char *name, size_t size);

// Opens the slave. Returns the descriptor, or -5 after logging.
int vc_ptys_open(const char *name);

// Line settings of a new master: no echo, no line editing, flow control.
void vc_set_noecho(int fd);

// In the forked child: makes the slave the controlling terminal and runs the
// service's session program. Never returns.
[[noreturn]] void vc_child_proc(int master_fd, int ttyno, const char *slave,
                                const vc_child *child);

// Puts TTYNUM, TTYTYPE, PROTOCOL and CONN_TYPE into the environment.
void vc_child_setenvs(const vc_child *child);
