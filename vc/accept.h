// Accepted connections and the list of those that wait for a line.
#pragma once

#include "vc/service.h"

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

// Takes one connection from a listener that is readable and reports it to the
// inetd. Returns 0, or -1 when nothing was reported. The loop's thread, with
// the read lock held; blocks while the inetd does not read.
int vc_accept(int inetd_fd, vc_srv *srv);

// Unlinks and frees the first entry of this pair, if there is one. The socket
// stays open: it passes to the caller.
void vc_accept_take(int fd, int accept_id);

// Frees an entry; its socket is left as it is.
void vc_accept_drop(vc_accept_entry *entry);

// Frees all entries and closes their sockets: the inetd connection on which
// their answers would have come is given up.
void vc_accept_drop_all(void);
