// Sessions brought to life on pseudo-terminals.
#pragma once

#include "vc/session.h"

// Makes the session of a line: pseudo-terminal, record, the service's set-up
// and the forked child. Returns the record, or null. A failure after the
// record exists tears the session down, which closes the socket and sets
// *sockfd to -1; after an earlier one the socket still belongs to the caller.
// The loop's thread, without the lock.
vc_child *vc_child_alloc(int ttyno, int *sockfd, int port, const char *path,
                         int inetd_fd);
