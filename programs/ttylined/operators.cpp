#include "programs/ttylined/operators.h"

#include <unistd.h>

#include "programs/ttylined/accept.h"
#include "programs/ttylined/command.h"

// A reply that is not read keeps its sender's next commands waiting.
constexpr std::size_t REPLY_PENDING_MAX = std::size_t{64} * 1024;

void operators_begin(operators &all)
{
    operator_peer &peer = all.peers.emplace_back();

    all.standard_out.fd = STDOUT_FILENO;
    peer.in_fd = STDIN_FILENO;
    peer.out = &all.standard_out;
}

static bool may_read(const operator_peer &peer)
{
    return !peer.at_end && peer.out->pending.size() < REPLY_PENDING_MAX;
}

void operators_watch(const operators &all, watch_list &list)
{
    watch(list, all.standard_out.fd, false, !all.standard_out.pending.empty());
    for (const operator_peer &peer : all.peers) {
        watch(list, peer.in_fd, may_read(peer), false);
        watch(list, peer.own_out.fd, false, !peer.own_out.pending.empty());
    }
}

void operators_accept(operators &all)
{
    const int fd = accept_or_pause(all.control.fd);

    if (fd >= 0) {
        operator_peer &peer = all.peers.emplace_back();
        peer.in_fd = fd;
        peer.own_out.fd = fd;
        peer.out = &peer.own_out;
    }
}

static void run_commands(operator_peer &peer, server &srv)
{
    std::string line;

    while (peer.out->pending.size() < REPLY_PENDING_MAX && !srv.ending) {
        std::string reply;
        switch (text_in_next(peer.in, peer.at_end, line)) {
        case text_result::none:
            return;
        case text_result::too_long:
            reply = "error: line too long\n";
            break;
        case text_result::line:
            reply = command_run(srv, line);
            break;
        }
        text_out_add(*peer.out, reply);
    }
}

static bool has_left(const operator_peer &peer)
{
    return peer.at_end && peer.in.held.empty() && peer.own_out.pending.empty();
}

void operators_serve(operators &all, server &srv, const ready_events &ready)
{
    for (auto it = all.peers.begin(); it != all.peers.end();) {
        operator_peer &peer = *it;

        if (events_of(ready, peer.in_fd) != 0 && may_read(peer) &&
            !text_in_read(peer.in, peer.in_fd)) {
            peer.at_end = true;
        }
        text_out_flush(*peer.out);
        run_commands(peer, srv);
        if (!has_left(peer)) {
            ++it;
            continue;
        }
        if (peer.own_out.fd >= 0) {
            close(peer.own_out.fd);
            accept_resume();
        }
        it = all.peers.erase(it);
    }
}
