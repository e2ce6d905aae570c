// Without a hold each report is answered at once. While lines are held only
// the excepted line is assigned, and only to a protocol that may have it; the
// other reports wait in the order in which they came. To the login daemon
// that is an answer that takes its time: the connection is open and idle, and
// no session is refused that would have a line a moment later.
//
// A hold belongs to nobody. The process that asked for it is often a command
// line tool that has ended by the time it counts, so its connection may go:
// the hold stays until its time is over or anybody releases it. There is one
// hold; a later one takes its place, line and time.
#include "programs/ttylined/assign.h"

#include "programs/ttylined/clock.h"
#include "programs/ttylined/trace.h"

// More than there are lines could not be served in the end.
constexpr std::size_t WAITING_MAX = TTY_LINES;
constexpr int64_t MS_PER_SECOND = 1000;

static void send_line(client &cli, const tty_cmsg &report, int ttyno)
{
    tty_cmsg answer = report;

    answer.vc_flag = VC_FLAG_CLIENT_ALLOC;
    answer.ttyno = ttyno;
    client_send(cli, answer);
}

// The protocol has no refusal. A line number out of range makes the daemon
// close the connection, which is the same to the peer.
static void assign_any(line_pool &pool, client &cli, const tty_cmsg &report)
{
    const int ttyno = pool_take(pool, cli.number, report);

    if (ttyno < 0) {
        client_note(cli.number, "no line left for protocol " +
                                    std::to_string(report.protocol));
    }
    send_line(cli, report, ttyno);
}

// False when the report has to wait on.
static bool try_report(assignments &lines, client &cli, const tty_cmsg &report)
{
    if (!lines.hold.on) {
        assign_any(lines.pool, cli, report);
        return true;
    }
    if (!pool_take_only(lines.pool, cli.number, report, lines.hold.except)) {
        return false;
    }
    send_line(cli, report, lines.hold.except);
    return true;
}

static void hold_expire(line_hold &hold)
{
    if (hold.on && hold.until != 0 && hold.until <= monotonic_ms()) {
        trace_note("the time of the hold is over");
        hold_end(hold);
    }
}

// A client that has gone is found here: its number is never used again.
void assign_waiting(assignments &lines, client_table &clients)
{
    hold_expire(lines.hold);
    for (auto it = lines.waiting.begin(); it != lines.waiting.end();) {
        const auto owner = clients.find(it->client);
        if (owner == clients.end() || owner->second.doomed ||
            try_report(lines, owner->second, it->record)) {
            it = lines.waiting.erase(it);
        } else {
            ++it;
        }
    }
}

// Those that wait come first: a release may have come since the last turn.
void assign_report(assignments &lines, client_table &clients, client &cli,
                   const tty_cmsg &report)
{
    assign_waiting(lines, clients);
    if (lines.waiting.size() >= WAITING_MAX) {
        client_note(cli.number, "too many reports wait");
        send_line(cli, report, -1);
        return;
    }
    if (!try_report(lines, cli, report)) {
        client_note(cli.number, "waits, lines are held");
        lines.waiting.push_back({cli.number, report});
    }
}

void hold_begin(line_hold &hold, int except, int seconds)
{
    hold.on = true;
    hold.except = except;
    hold.until = seconds == 0 ? 0 : monotonic_ms() + seconds * MS_PER_SECOND;
}

bool hold_end(line_hold &hold)
{
    const bool was_on = hold.on;

    hold = {};
    return was_on;
}
