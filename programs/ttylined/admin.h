// The line library's side: connections of processes on the lines, and the
// requests that come in on them.
#pragma once

#include <list>
#include <string>

#include "programs/ttylined/assign.h"
#include "programs/ttylined/unix_listener.h"

// The connection of one process, or of several that it forked.
struct admin_peer {
    int fd = -1;
    unsigned number = 0;
    std::string held; // the beginning of a request
};

struct admin_side {
    unix_listener listener; // not open: another daemon takes the requests
    std::list<admin_peer> peers;
    unsigned last_number = 0;
};

// Takes what has arrived, also on connections that nobody has accepted yet: a
// request is often the first that its process sends. Asks by itself what is
// ready, as it is called between two waits as well.
void admin_serve(admin_side &admin, assignments &lines);
