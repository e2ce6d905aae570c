// What a keeper knows of its session, for its work and for its end.
#pragma once

#include <signal.h>

#include "kit/bell.h"
#include "kit/relay.h"
#include "kit/table.h"

// All others have their defaults in a keeper; its program gets these back too.
constexpr int KIT_IGNORED_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE};

constexpr uint32_t KIT_DRAIN_MS = 10000;
constexpr uint32_t KIT_HALF_CLOSE_MS = 2000;
constexpr uint32_t KIT_HANGUP_MS = 5000;

struct keeper {
    const kit_entry *entry;
    kit_relay relay;
    int bell;
    int signals;
    pid_t program;
    bool program_ended;
    int status;
    bool dismissed;              // by the daemon or a signal
    char reason[BELL_TEXT_SIZE]; // told to the user
    int64_t start_at;            // the program, at the latest; 0: it has
    int64_t still_since;
    int64_t end_typed; // when, 0: not yet
    int64_t end_again; // when next
    int64_t end_pause; // from one time to the next
};

// A limit of a service, which may have left it to the kit.
inline uint32_t kit_keeping_limit(uint32_t wanted, uint32_t usual)
{
    return wanted != 0 ? wanted : usual;
}

// Begins the session: its program is started, but for what it waits for.
void kit_keeping_begin(keeper *k, const kit_entry *entry, const char *device);

// Moves data until the peer has told what its terminal is, or its time for that
// is over.
void kit_keeping_await_terminal(keeper *k);

// What has happened to the program, and what the daemon wants; neither waits.
void kit_keeping_take_signals(keeper *k);
void kit_keeping_take_bell(keeper *k);

// Ends the session, and then this process.
[[noreturn]] void kit_keeping_finish(keeper *k);
