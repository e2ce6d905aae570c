/*
 * The loop: one wait, then everything that became ready. Nothing else in the
 * daemon waits.
 */
#include <cerrno>
#include <cstring>
#include <ctime>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "programs/ttylined/server.h"

/* A reply that is not read keeps its sender's next commands waiting. */
static constexpr std::size_t reply_pending_max = std::size_t{64} * 1024;
static constexpr long long accept_pause_ms = 200;

long long monotonic_ms()
{
    timespec now = {};

    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void trace_note(server &srv, const std::string &text)
{
    if (srv.trace != nullptr) {
        text_out_add_line(*srv.trace, time_stamp() + " note " + text);
    }
}

static bool may_read(const operator_peer &peer)
{
    return !peer.at_end && peer.out->pending.size() < reply_pending_max;
}

/* Entries with nothing to wait for are left out: a hang-up would spin. */
static void watch(std::vector<pollfd> &fds, int fd, bool in, bool out)
{
    const int events = (in ? POLLIN : 0) | (out ? POLLOUT : 0);

    if (fd >= 0 && events != 0) {
        fds.push_back({fd, static_cast<short>(events), 0});
    }
}

static std::vector<pollfd> watch_all(const server &srv)
{
    const bool accepts = srv.accept_again == 0;
    std::vector<pollfd> fds;

    watch(fds, srv.signal_fd, true, false);
    watch(fds, srv.daemons.fd, accepts, false);
    watch(fds, srv.admin.fd, accepts, false);
    watch(fds, srv.control.fd, accepts, false);
    watch(fds, srv.standard_out.fd, false, !srv.standard_out.pending.empty());
    watch(fds, srv.trace_file.fd, false, !srv.trace_file.pending.empty());
    for (const auto &[number, cli] : srv.clients) {
        watch(fds, cli.fd, true, !cli.out.empty());
    }
    for (const admin_peer &peer : srv.admins) {
        watch(fds, peer.fd, true, false);
    }
    for (const operator_peer &peer : srv.operators) {
        watch(fds, peer.in_fd, may_read(peer), false);
        watch(fds, peer.own_out.fd, false, !peer.own_out.pending.empty());
    }
    return fds;
}

/* What poll() said, by descriptor. */
using ready_events = std::map<int, int>;

static ready_events collect(const std::vector<pollfd> &fds)
{
    ready_events ready;

    for (const pollfd &entry : fds) {
        if (entry.revents != 0) {
            ready[entry.fd] |= entry.revents;
        }
    }
    return ready;
}

static int events_of(const ready_events &ready, int fd)
{
    const auto found = ready.find(fd);

    return found == ready.end() ? 0 : found->second;
}

/* Of two times, where 0 is never. */
static long long earlier(long long a, long long b)
{
    return a == 0 || (b != 0 && b < a) ? b : a;
}

static int timeout_ms(const server &srv)
{
    long long next = earlier(srv.accept_again, srv.hold.until);

    for (const parked_lines &parked : srv.parked) {
        next = earlier(next, parked.until);
    }
    if (next == 0) {
        return -1;
    }
    const long long left = next - monotonic_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

static void take_signal(server &srv)
{
    signalfd_siginfo info = {};

    if (read(srv.signal_fd, &info, sizeof info) ==
        static_cast<ssize_t>(sizeof info)) {
        trace_note(srv, "signal " + std::to_string(info.ssi_signo));
        srv.ending = true;
    }
}

/*
 * Without a free descriptor the connection stays in the queue and the
 * listener stays readable: all listeners are left alone for a while.
 */
int accept_or_pause(server &srv, int listener)
{
    const int fd =
        accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);

    if (fd < 0 && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
        trace_note(srv, std::string("accept: ") + std::strerror(errno));
        srv.accept_again = monotonic_ms() + accept_pause_ms;
    }
    return fd;
}

static void control_accept(server &srv)
{
    const int fd = accept_or_pause(srv, srv.control.fd);

    if (fd >= 0) {
        operator_peer &peer = srv.operators.emplace_back();
        peer.in_fd = fd;
        peer.own_out.fd = fd;
        peer.out = &peer.own_out;
    }
}

static void run_commands(server &srv, operator_peer &peer)
{
    std::string line;

    while (peer.out->pending.size() < reply_pending_max && !srv.ending) {
        std::string reply;
        switch (text_in_next(peer.in, peer.at_end, line)) {
        case text_result::none:
            return;
        case text_result::too_long:
            reply = "error: line too long\n";
            break;
        case text_result::line:
            command_run(srv, line, reply);
            break;
        }
        text_out_add(*peer.out, reply + ".\n");
    }
}

static void serve_operators(server &srv, const ready_events &ready)
{
    for (auto it = srv.operators.begin(); it != srv.operators.end();) {
        operator_peer &peer = *it;
        const bool own = peer.out == &peer.own_out;

        if (events_of(ready, peer.in_fd) != 0 && may_read(peer) &&
            !text_in_read(peer.in, peer.in_fd)) {
            peer.at_end = true;
        }
        text_out_flush(*peer.out);
        run_commands(srv, peer);
        if (peer.at_end && peer.in.held.empty() &&
            (!own || peer.own_out.pending.empty())) {
            if (own) {
                close(peer.in_fd);
                srv.accept_again = 0;
            }
            it = srv.operators.erase(it);
        } else {
            ++it;
        }
    }
}

/*
 * Clients that hung up are settled before the others ask: their lines are
 * free then. What they left behind is bounded, as nothing can follow it. From
 * the others one read is taken, so that one that floods delays nobody.
 */
static void serve_clients(server &srv, const ready_events &ready)
{
    for (auto &[number, cli] : srv.clients) {
        if ((events_of(ready, cli.fd) & POLLHUP) != 0) {
            while (!cli.doomed && client_read(srv, cli)) {
            }
        }
    }
    client_reap(srv);
    for (auto &[number, cli] : srv.clients) {
        const int events = events_of(ready, cli.fd);
        if ((events & ~POLLOUT) != 0) {
            client_read(srv, cli);
        }
        if ((events & POLLOUT) != 0 && !cli.doomed) {
            client_flush(cli);
        }
    }
    client_reap(srv);
}

/*
 * New connections come last: their descriptors may carry the number of one
 * that was closed in this turn and still stands in the poll set. Only those
 * of the line library do not, as nobody asks this poll set about them.
 */
static void serve(server &srv, const ready_events &ready)
{
    if (events_of(ready, srv.signal_fd) != 0) {
        take_signal(srv);
    }
    text_out_flush(srv.standard_out);
    text_out_flush(srv.trace_file);
    admin_serve(srv);
    serve_clients(srv, ready);
    serve_operators(srv, ready);
    client_reap(srv);
    parked_expire(srv);
    assign_waiting(srv);
    client_reap(srv);
    if (srv.accept_again != 0 && srv.accept_again <= monotonic_ms()) {
        srv.accept_again = 0;
    }
    if (events_of(ready, srv.daemons.fd) != 0) {
        client_accept(srv);
    }
    if (events_of(ready, srv.control.fd) != 0) {
        control_accept(srv);
    }
}

int server_run(server &srv)
{
    while (!srv.ending) {
        std::vector<pollfd> fds = watch_all(srv);
        const int count = poll(fds.data(), fds.size(), timeout_ms(srv));
        if (count < 0 && errno != EINTR) {
            trace_note(srv, std::string("poll: ") + std::strerror(errno));
            return 1;
        }
        if (count >= 0) {
            serve(srv, collect(fds));
        }
    }
    return 0;
}
