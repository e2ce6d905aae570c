// The end of a session, in its keeper: what was printed is delivered, what ran
// is ended, the line is cleaned. The daemon is heard until the connection is
// closed; what comes then has limits of its own.
#include <errno.h>
#include <linux/sockios.h>
#include <signal.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/keeping.h"
#include "kit/line.h"
#include "kit/sweep.h"
#include "kit/text.h"

constexpr int SEND_LOOK_MS = 10;
// A line that another program locks is left to the next session's begin.
constexpr int CLEAN_PATIENCE_MS = 1000;

static void tell_reason(keeper *k)
{
    if (k->reason[0] != '\0') {
        char shown[BELL_TEXT_SIZE];
        char line[BELL_TEXT_SIZE + 32];
        (void)snprintf(line, sizeof line, "\r\nttyline: %s\r\n",
                       kit_plain(shown, sizeof shown, k->reason));
        kit_relay_say(&k->relay, line);
    }
}

static int bytes_on_their_way(int connection)
{
    int count = 0;

    return ioctl(connection, SIOCOUTQ, &count) == 0 ? count : 0;
}

// Closing a TCP connection with unread input resets it, and a reset takes away
// what the peer has not read yet.
static void discard_input(const keeper *k)
{
    char scrap[4096];

    for (int i = 0; i < 16; i++) {
        if (recv(k->relay.connection, scrap, sizeof scrap, MSG_DONTWAIT) <= 0) {
            return;
        }
    }
}

// Returns false when the peer has ended too. The daemon may still want the end.
static bool wait_for_peer(keeper *k)
{
    enum { CONNECTION, BELL, SIGNALS, COUNT };
    struct pollfd watched[COUNT] = {};

    watched[CONNECTION] = {k->relay.connection, 0, 0};
    watched[BELL] = {k->bell, POLLIN, 0};
    watched[SIGNALS] = {k->signals, POLLIN, 0};
    if (poll(watched, COUNT, SEND_LOOK_MS) < 0) {
        return true;
    }
    if (watched[BELL].revents != 0) {
        kit_keeping_take_bell(k);
    }
    if (watched[SIGNALS].revents != 0) {
        kit_keeping_take_signals(k);
    }
    return watched[CONNECTION].revents == 0;
}

// What the peer's system has not taken yet is still this one's to lose.
static void await_delivery(keeper *k)
{
    const int64_t limit =
        kit_keeping_limit(k->entry->session.service->drain_ms, KIT_DRAIN_MS);
    int64_t since = kit_now_ms();
    int before = -1;

    shutdown(k->relay.connection, SHUT_WR);
    do {
        const int left = bytes_on_their_way(k->relay.connection);
        discard_input(k);
        if (left != before) {
            since = kit_now_ms();
            before = left;
        }
        if (left == 0 || kit_now_ms() - since >= limit) {
            return;
        }
    } while (wait_for_peer(k) && !k->dismissed);
}

static void finish_connection(keeper *k)
{
    if (!k->relay.peer_gone && !k->dismissed && k->entry->family != AF_UNIX) {
        await_delivery(k);
    }
    discard_input(k);
    close(k->relay.connection);
}

static bool wait_for_program(keeper *k, int64_t limit)
{
    const int64_t deadline = kit_now_ms() + limit;

    kit_keeping_take_signals(k);
    while (!k->program_ended) {
        struct pollfd watched = {k->signals, POLLIN, 0};
        const int64_t left = deadline - kit_now_ms();
        if (left <= 0) {
            return false;
        }
        poll(&watched, 1, static_cast<int>(left));
        kit_keeping_take_signals(k);
    }
    return true;
}

// Once the program has ended. Whoever it has left has become a child of this
// process: the usual case needs no look at all the processes of the machine.
static bool somebody_left(keeper *k)
{
    pid_t pid;

    waitpid(k->program, &k->status, WNOHANG);
    do {
        pid = waitpid(-1, nullptr, WNOHANG);
    } while (pid > 0);
    return pid == 0 || errno != ECHILD;
}

// A confined keeper can neither look at other processes nor end them, nor write
// to the line: the daemon does what it leaves.
static bool confined(const keeper *k)
{
    return k->entry->session.service->confine != nullptr;
}

// Hung up, not killed: a shell writes its history, an editor what it has. Only
// what does not end by then is ended by force. The daemon hears of it when it
// takes time: each message costs the loop a turn over all sessions. False when
// somebody may still be there.
static bool finish_program(keeper *k)
{
    const int64_t limit =
        kit_keeping_limit(k->entry->session.service->hangup_ms, KIT_HANGUP_MS);

    close(k->relay.master);
    kit_keeping_take_signals(k);
    if (k->program_ended && !somebody_left(k)) {
        return true;
    }
    kit_bell_say(k->bell, BELL_ENDING, 0, "");
    const bool ended = wait_for_program(k, limit);
    if (confined(k)) {
        return ended && !somebody_left(k);
    }
    if (!ended) {
        kill(-k->program, SIGKILL);
        wait_for_program(k, limit);
    }
    if (somebody_left(k)) {
        kit_sweep(k->program, limit);
    }
    return true;
}

void kit_keeping_finish(keeper *k)
{
    const char *left = "";

    tell_reason(k);
    finish_connection(k);
    if (finish_program(k)) {
        left =
            !confined(k) && kit_line_end(k->entry->session.line, k->entry->id,
                                         CLEAN_PATIENCE_MS) == 0
                ? BELL_CLEAN
                : BELL_EMPTY;
    }
    kit_bell_say(k->bell, BELL_ENDED, k->status, left);
    _exit(0);
}
