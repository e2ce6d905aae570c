// The login daemons: what they ask for, what they are answered, and what
// becomes of their lines when they leave.
#pragma once

#include <cstdint>
#include <list>

#include <sys/types.h>

#include "programs/ttylined/admin.h"
#include "programs/ttylined/assign.h"
#include "programs/ttylined/client.h"
#include "programs/ttylined/unix_listener.h"
#include "programs/ttylined/watch.h"

// Running sessions of a daemon that is about to connect again.
struct parked_lines {
    unsigned client;
    pid_t peer_pid;
    int64_t until; // of the monotonic clock
};

struct login_daemons {
    unix_listener listener;
    client_table clients;
    unsigned last_number = 0;
    std::list<parked_lines> parked;
};

void daemons_watch(const login_daemons &daemons, watch_list &list);

// Reads and answers what has come, and sends what had to wait.
void daemons_serve(login_daemons &daemons, assignments &lines,
                   admin_side &admin, const ready_events &ready);

// Takes a connection. Its descriptor may carry the number of one that this
// turn has closed: not before all that was ready has been served.
void daemons_accept(login_daemons &daemons, line_pool &pool);

// Drops the clients that are doomed.
void daemons_reap(login_daemons &daemons, line_pool &pool);

// Frees the lines of those that did not come back in time.
void parked_expire(login_daemons &daemons, line_pool &pool);
