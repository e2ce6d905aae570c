// Those who type commands: on standard input, or over a connection of the
// control socket.
#pragma once

#include <list>

#include "programs/ttylined/server.h"
#include "programs/ttylined/text_in.h"
#include "programs/ttylined/text_out.h"
#include "programs/ttylined/unix_listener.h"
#include "programs/ttylined/watch.h"

struct operator_peer {
    int in_fd = -1;
    text_in in;
    text_out *out = nullptr;
    text_out own_out; // for connections of the control socket
    bool at_end = false;
};

struct operators {
    unix_listener control;
    std::list<operator_peer> peers;
    text_out standard_out;
};

// Lets whoever has the standard descriptors of the process type commands.
void operators_begin(operators &all);

void operators_watch(const operators &all, watch_list &list);

// Flushes replies, reads commands and runs them.
void operators_serve(operators &all, server &srv, const ready_events &ready);

// Takes a connection; as daemons_accept(), not before the end of the turn.
void operators_accept(operators &all);
