// The connection to the line-allocation daemon.
#pragma once

// Connects to the inetd's socket in the runtime directory. Returns the
// descriptor, or -1 with the errno of the step that failed. Blocks while the
// inetd does not accept.
int vc_connect(void);

// The connection in use is known by its number: sessions send their end there,
// and port updates of other threads their changes. So the number is never free
// for another file from the first connection on. Both take the write lock.

// Ends the connection. Who writes to its number from now on gets EPIPE, as does
// who waits for the inetd in a write. Also for a number that is not open.
void vc_disconnect(int fd);

// Puts a new connection under the number of the one before, which has been
// ended; -1 when there was none. Returns its number from now on: the new one
// when it could not be moved.
int vc_move_connection(int fd, int number);
