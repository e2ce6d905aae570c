// Taking connections.
#pragma once

#include "vc/service.h"

// Takes one connection from a listener that is readable and reports it to the
// inetd. Returns 0, or -1 when nothing was reported. The loop's thread, with
// the read lock held; blocks while the inetd does not read.
int vc_accept(int inetd_fd, vc_srv *srv);

// Whether the last call found no descriptor or no memory for the connection:
// it still waits, and its listener stays readable.
bool vc_accept_starved(void);
