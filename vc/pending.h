// The connections that have been reported to the inetd and wait for a line.
// The loop's thread only.
#pragma once

#include <ttyline/vc.h>

// A connection reported to the inetd and not yet answered. The entry owns the
// socket until the line assignment comes.
struct vc_accept_entry {
    vc_list link;
    int32_t fd;
    int32_t accept_id;
};

// Number of entries, and the source of their ids: an id comes again once the
// list has shrunk, so an answer is matched by descriptor and id together.
extern int32_t g_vc_accept_fd_num;

// Appends an entry for a new connection. Returns null after logging when there
// is no memory; the socket is left as it is.
vc_accept_entry *vc_pending_add(int fd);

// Unlinks and frees the first entry of this pair, if there is one. The socket
// stays open: it passes to the caller.
void vc_pending_take(int fd, int accept_id);

// Frees an entry; its socket is left as it is.
void vc_pending_drop(vc_accept_entry *entry);

// Frees all entries and closes their sockets: the inetd connection on which
// their answers would have come is given up.
void vc_pending_drop_all(void);
