// The login room: what stands between a session's begin and its user's program,
// on every road that asks users who they are.
#pragma once

#include <ttyline/kit.h>

// How a session ends whose user did not log in.
constexpr int LOGIN_REFUSED = 1;

// The tries and the time that a user has, and the pause after a failure.
constexpr int LOGIN_TRIES = 6;
constexpr unsigned LOGIN_SECONDS = 120;
constexpr unsigned LOGIN_DELAY_US = 2000000;

// Tests take less time.
struct login_room {
    const char *pam_service;    // "ttyline"
    const char *const *program; // run for the user; null: his login shell
    bool records;               // keep utmp and wtmp
    int tries;
    unsigned seconds;
    unsigned delay_us;
};

// A session's function for kit_service, with a login_room as its context: asks
// for name and password, runs the user's program as him on the terminal, ends
// with it, and with a hang-up. Returns the program's exit status, 128 and the
// number of the signal that ended it, or LOGIN_REFUSED.
//
// As root it lets in whom PAM lets in; otherwise only the daemon's own user,
// and says so.
int login_session(const kit_session *session, void *context);
