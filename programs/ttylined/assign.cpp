/*
 * Which accept report gets a line, and when.
 *
 * Without a hold each report is answered at once. While lines are held only
 * the excepted line is assigned, and only to a protocol that may have it; the
 * other reports wait in the order in which they came. To the login daemon
 * that is an answer that takes its time: the connection is open and idle, and
 * no session is refused that would have a line a moment later.
 *
 * A hold belongs to nobody. The process that asked for it is often a command
 * line tool that has ended by the time it counts, so its connection may go:
 * the hold stays until its time is over or anybody releases it. There is one
 * hold; a later one takes its place, line and time.
 */
#include "programs/ttylined/server.h"

/* More than there are lines could not be served in the end. */
static constexpr std::size_t waiting_max = TTY_LINES;
static constexpr long long ms_per_second = 1000;

static std::string report_name(const client &cli)
{
    return "client " + std::to_string(cli.number) + ": ";
}

static void send_line(server &srv, client &cli, const tty_cmsg &report,
                      int ttyno)
{
    tty_cmsg answer = report;

    answer.vc_flag = VC_FLAG_CLIENT_ALLOC;
    answer.ttyno = ttyno;
    client_send(srv, cli, answer);
}

/*
 * The protocol has no refusal. A line number out of range makes the daemon
 * close the connection, which is the same to the peer.
 */
static void assign_any(server &srv, client &cli, const tty_cmsg &report)
{
    const int ttyno = pool_take(srv.pool, cli.number, report);

    if (ttyno < 0) {
        trace_note(srv, report_name(cli) + "no line left for protocol " +
                            std::to_string(report.protocol));
    }
    send_line(srv, cli, report, ttyno);
}

/* False when the report has to wait on. */
static bool try_report(server &srv, client &cli, const tty_cmsg &report)
{
    if (!srv.hold.on) {
        assign_any(srv, cli, report);
        return true;
    }
    if (!pool_take_only(srv.pool, cli.number, report, srv.hold.except)) {
        return false;
    }
    send_line(srv, cli, report, srv.hold.except);
    return true;
}

static void hold_expire(server &srv)
{
    if (srv.hold.on && srv.hold.until != 0 &&
        srv.hold.until <= monotonic_ms()) {
        trace_note(srv, "the time of the hold is over");
        hold_end(srv);
    }
}

/* A client that has gone is found here: its number is never used again. */
void assign_waiting(server &srv)
{
    hold_expire(srv);
    for (auto it = srv.waiting.begin(); it != srv.waiting.end();) {
        const auto owner = srv.clients.find(it->client);
        if (owner == srv.clients.end() || owner->second.doomed ||
            try_report(srv, owner->second, it->record)) {
            it = srv.waiting.erase(it);
        } else {
            ++it;
        }
    }
}

/* Those that wait come first: a release may have come since the last turn. */
void assign_report(server &srv, client &cli, const tty_cmsg &report)
{
    assign_waiting(srv);
    if (srv.waiting.size() >= waiting_max) {
        trace_note(srv, report_name(cli) + "too many reports wait");
        send_line(srv, cli, report, -1);
        return;
    }
    if (!try_report(srv, cli, report)) {
        trace_note(srv, report_name(cli) + "waits, lines are held");
        srv.waiting.push_back({cli.number, report});
    }
}

void hold_begin(server &srv, int except, int seconds)
{
    srv.hold.on = true;
    srv.hold.except = except;
    srv.hold.until =
        seconds == 0 ? 0 : monotonic_ms() + seconds * ms_per_second;
}

bool hold_end(server &srv)
{
    const bool was_on = srv.hold.on;

    srv.hold = {};
    return was_on;
}
