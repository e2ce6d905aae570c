// The connection to the line-allocation daemon.
#pragma once

// Connects to the inetd's socket in the runtime directory. Returns the
// descriptor, or -1 with the errno of the step that failed. Blocks while the
// inetd does not accept.
int vc_connect(void);
