// The child that the session service forks is never the program. It gives the
// terminal up to a program of its own, moves the data, and ends when the
// program's last output was taken or nothing moves any more. Its end is the
// session's end: whatever ends the keeper hangs the program up, as the kernel
// does when the last master of a terminal is closed.
#include "kit/keeper.h"

#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/keeping.h"

// The end of input is typed again for a program that was not there yet, or that
// threw it away by a change of modes: after this time, and each time after
// twice as long. What is printed within this time of it may be nothing but its
// echo.
constexpr int64_t END_AGAIN_MS = 100;
constexpr int64_t QUIET_LOOK_MS = 100;
// After so long without any data a session counts as idle.
constexpr int64_t REST_MS = 1000;
// For what the peer says of its terminal.
constexpr uint32_t READY_MS = 500;

// One a process; not on the stack of whatever thread was forked.
static keeper g_keeper;

// Other children are what the program has left. Its own number must not become
// another's before its session is over, as they are found by it: it is reaped
// last. Being the eldest, it hides them then.
static void reap(keeper *k)
{
    for (;;) {
        siginfo_t child = {};
        if (waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            child.si_pid == 0) {
            return;
        }
        if (child.si_pid == k->program) {
            k->program_ended = true;
            return;
        }
        waitpid(child.si_pid, nullptr, 0);
    }
}

static void dismiss(keeper *k, const char *reason)
{
    k->dismissed = true;
    (void)snprintf(k->reason, sizeof k->reason, "%s", reason);
}

void kit_keeping_take_signals(keeper *k)
{
    struct signalfd_siginfo signal;

    while (read(k->signals, &signal, sizeof signal) ==
           static_cast<ssize_t>(sizeof signal)) {
        if (signal.ssi_signo == SIGTERM) {
            dismiss(k, "this session was ended");
        }
    }
    reap(k);
}

void kit_keeping_take_bell(keeper *k)
{
    bell_message message;
    int heard;

    while ((heard = kit_bell_hear(k->bell, &message)) > 0) {
        if (message.kind == BELL_END) {
            dismiss(k, message.text);
        }
    }
    if (heard < 0 && !k->dismissed) {
        dismiss(k, "");
    }
}

static void sooner(int64_t *timeout, int64_t candidate)
{
    if (candidate < 0) {
        candidate = 0;
    }
    if (*timeout < 0 || candidate < *timeout) {
        *timeout = candidate;
    }
}

// How long the session may go on standing still; -1: for ever.
static int64_t patience(const keeper *k)
{
    const kit_service *service = k->entry->session.service;

    if (k->program_ended) {
        return kit_keeping_limit(service->drain_ms, KIT_DRAIN_MS);
    }
    if (k->relay.peer_ended || k->relay.peer_ending) {
        return kit_keeping_limit(service->half_close_ms, KIT_HALF_CLOSE_MS);
    }
    return service->idle_ms > 0 ? int64_t{service->idle_ms} : -1;
}

static int time_to_wait(const keeper *k)
{
    const int64_t limit = patience(k);
    const int64_t now = kit_now_ms();
    int64_t timeout = -1;

    if (limit >= 0) {
        sooner(&timeout, k->still_since + limit - now);
    }
    if (k->relay.peer_ended && !k->program_ended) {
        sooner(&timeout, k->end_again - now);
    }
    if (k->relay.terminal_quiet && !k->program_ended) {
        sooner(&timeout, QUIET_LOOK_MS);
    }
    if (kit_relay_large(&k->relay)) {
        sooner(&timeout, k->still_since + REST_MS - now);
    }
    if (k->start_at != 0) {
        sooner(&timeout, k->start_at - now);
    }
    return static_cast<int>(timeout < INT_MAX ? timeout : INT_MAX);
}

// The end of input counts as typed anew while nothing moves: whoever reads the
// terminal next has to see it.
static void pass_on_end_of_input(keeper *k)
{
    const int64_t now = kit_now_ms();

    if (!k->relay.peer_ended || k->program_ended || now < k->end_again) {
        return;
    }
    if (kit_relay_type_end(&k->relay)) {
        k->end_pause = k->end_typed != 0 ? 2 * k->end_pause : END_AGAIN_MS;
        k->end_typed = now;
        k->end_again = now + k->end_pause;
    } else {
        k->end_again = now + END_AGAIN_MS;
    }
}

// A program that only echoes what is typed for its peer stands still.
static void note_movement(keeper *k)
{
    const int64_t now = kit_now_ms();
    const bool echo = k->end_typed != 0 && !k->program_ended &&
                      now - k->end_typed < END_AGAIN_MS;

    if (k->relay.moved && !echo) {
        k->still_since = now;
    }
}

static void turn(keeper *k)
{
    enum { CONNECTION, MASTER, BELL, SIGNALS, COUNT };
    struct pollfd watched[COUNT] = {};

    kit_relay_want(&k->relay, &watched[CONNECTION], &watched[MASTER]);
    watched[BELL] = {k->bell, POLLIN, 0};
    watched[SIGNALS] = {k->signals, POLLIN, 0};
    if (k->program_ended) {
        watched[MASTER].fd = -1;
    }
    if (poll(watched, COUNT, time_to_wait(k)) < 0) {
        return;
    }
    k->relay.moved = false;
    kit_relay_move(&k->relay, &watched[CONNECTION], &watched[MASTER]);
    if (watched[BELL].revents != 0) {
        kit_keeping_take_bell(k);
    }
    if (watched[SIGNALS].revents != 0) {
        kit_keeping_take_signals(k);
    }
    if (k->program_ended) {
        kit_relay_finish_terminal(&k->relay);
    }
    note_movement(k);
    if (kit_now_ms() - k->still_since >= REST_MS) {
        kit_relay_rest(&k->relay);
    }
    pass_on_end_of_input(k);
}

static bool in_full_swing(const keeper *k)
{
    return !k->program_ended && !k->relay.peer_ended && !k->relay.peer_ending;
}

static bool over(keeper *k)
{
    if (k->dismissed || k->relay.peer_gone) {
        return true;
    }
    if (k->program_ended && k->relay.terminal_ended &&
        kit_relay_delivered(&k->relay)) {
        return true;
    }
    const int64_t limit = patience(k);
    if (limit < 0 || kit_now_ms() - k->still_since < limit) {
        return false;
    }
    if (in_full_swing(k)) {
        dismiss(k, "nothing has moved for too long");
    }
    return true;
}

// A program finds the peer's window and type on its terminal, if the peer tells
// them in time: it asks for them once, when it starts.
void kit_keeping_await_terminal(keeper *k)
{
    const kit_codec *codec = k->entry->session.service->codec;

    if (codec == nullptr || codec->ready == nullptr) {
        return;
    }
    k->start_at = kit_now_ms() + kit_keeping_limit(codec->ready_ms, READY_MS);
    while (!over(k) && kit_now_ms() < k->start_at &&
           codec->ready(k->relay.state) == 0) {
        turn(k);
    }
    k->start_at = 0;
}

int kit_keep(const kit_entry *entry, const char *device)
{
    keeper *k = &g_keeper;

    kit_keeping_begin(k, entry, device);
    while (!over(k)) {
        turn(k);
    }
    kit_keeping_finish(k);
}
