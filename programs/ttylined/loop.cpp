#include "programs/ttylined/loop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include <sys/signalfd.h>
#include <unistd.h>

#include "common/notify.h"
#include "programs/ttylined/accept.h"
#include "programs/ttylined/clock.h"
#include "programs/ttylined/trace.h"

static watch_list watch_all(const server &srv, const operators &all,
                            int signal_fd, bool accepts)
{
    const text_out &file = trace_file();
    watch_list list;

    watch(list, signal_fd, true, false);
    watch(list, srv.daemons.listener.fd, accepts, false);
    watch(list, srv.admin.listener.fd, accepts, false);
    watch(list, all.control.fd, accepts, false);
    watch(list, file.fd, false, !file.pending.empty());
    daemons_watch(srv.daemons, list);
    for (const admin_peer &peer : srv.admin.peers) {
        watch(list, peer.fd, true, false);
    }
    operators_watch(all, list);
    return list;
}

// Of two times, where 0 is never.
static int64_t earlier(int64_t a, int64_t b)
{
    return a == 0 || (b != 0 && b < a) ? b : a;
}

static int timeout_ms(const server &srv, int64_t paused_until, int64_t ping)
{
    int64_t next = earlier(earlier(paused_until, ping), srv.lines.hold.until);

    for (const parked_lines &parked : srv.daemons.parked) {
        next = earlier(next, parked.until);
    }
    if (next == 0) {
        return -1;
    }
    const int64_t left = next - monotonic_ms();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

static void take_signal(server &srv, int signal_fd)
{
    signalfd_siginfo info = {};

    if (read(signal_fd, &info, sizeof info) ==
        static_cast<ssize_t>(sizeof info)) {
        trace_note("signal " + std::to_string(info.ssi_signo));
        if (info.ssi_signo == SIGHUP) {
            trace_reopen();
        } else {
            srv.ending = true;
        }
    }
}

// New connections come last: their descriptors may carry the number of one
// that was closed in this turn and still stands in the poll set. Only those
// of the line library do not, as nobody asks this poll set about them.
static void serve(server &srv, operators &all, int signal_fd,
                  const ready_events &ready)
{
    if (events_of(ready, signal_fd) != 0) {
        take_signal(srv, signal_fd);
    }
    text_out_flush(all.standard_out);
    text_out_flush(trace_file());
    admin_serve(srv.admin, srv.lines);
    daemons_serve(srv.daemons, srv.lines, srv.admin, ready);
    operators_serve(all, srv, ready);
    daemons_reap(srv.daemons, srv.lines.pool);
    parked_expire(srv.daemons, srv.lines.pool);
    assign_waiting(srv.lines, srv.daemons.clients);
    daemons_reap(srv.daemons, srv.lines.pool);
    if (events_of(ready, srv.daemons.listener.fd) != 0) {
        daemons_accept(srv.daemons, srv.lines.pool);
    }
    if (events_of(ready, all.control.fd) != 0) {
        operators_accept(all);
    }
}

// A turn of the loop is what the service manager wants to hear of. When the
// next one has to be, 0 for never.
static int64_t tell_manager(int64_t due)
{
    const int64_t now = monotonic_ms();

    if (due == 0 || due > now) {
        return due;
    }
    tty_notify("WATCHDOG=1");
    return now + tty_notify_interval_ms();
}

bool loop_run(server &srv, operators &all, int signal_fd)
{
    int64_t ping = tty_notify_interval_ms() > 0 ? monotonic_ms() : 0;

    tty_notify("READY=1");
    while (!srv.ending) {
        // Asked once: a pause that ended in between would leave the
        // listeners out and the wait without an end.
        const int64_t paused = accept_paused_until();
        ping = tell_manager(ping);
        watch_list list = watch_all(srv, all, signal_fd, paused == 0);
        const int count =
            poll(list.data(), list.size(), timeout_ms(srv, paused, ping));
        if (count < 0 && errno != EINTR) {
            trace_note(std::string("poll: ") + std::strerror(errno));
            return false;
        }
        if (count >= 0) {
            serve(srv, all, signal_fd, watch_result(list));
        }
    }
    tty_notify("STOPPING=1");
    return true;
}
