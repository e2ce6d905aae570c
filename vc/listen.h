// Announcing services to the inetd, and opening the listeners it permits.
#pragma once

#include <ttyline/vc.h>

// Announces every service that is neither announced nor closed. Returns a
// negative value when the inetd connection failed: every listener is then
// closed and every service unannounced, so that the next connection starts
// from nothing. Otherwise 0. The loop's thread; takes the lock.
int vc_open_listen(int inetd_fd);

// Opens the listener that a permit describes; path is null but for a unix
// path. Returns the descriptor or -1. Touches no shared state.
int vc_listen(const tty_cmsg *msg, const char *path);
