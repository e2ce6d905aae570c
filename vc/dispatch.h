// Records from the inetd.
#pragma once

// Reads one record and acts on it. Returns 0 while the connection is good, or
// -1 when the caller has to close it and connect again. The loop's thread,
// without the lock.
int vc_deal_msg(int inetd_fd);
