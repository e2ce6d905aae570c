// A call of the line library that cannot keep ttyctl waiting.
//
// The library waits for a line's lock, and for the administration daemon,
// without a limit and with all signals blocked. So ttyctl looks at the lock
// first, and then makes the call in a child, which it kills when the time is
// over: a holder may arrive between the look and the call. The look opens and
// closes the lock file, which would drop the lock of a process that holds it;
// ttyctl itself never does, only its children.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <sys/types.h>

using time_point = std::chrono::steady_clock::time_point;

enum class call_state {
    done,
    failed,
    locked,     // another process holds the line's lock
    unanswered, // the administration daemon does not take the request
    stuck,      // something else, such as a disk that does not answer
};

struct call_result {
    call_state state = call_state::failed;
    pid_t holder = 0;   // when locked; -1: it has no number here
    bool begun = false; // the call had been made when it was given up
    std::string text;   // what the work filled in
};

struct guarded_call {
    std::string lock_path; // empty: it takes no lock
    bool sends = false;    // a request to the daemon is part of it
    // Runs in the child. At most a few thousand bytes of text.
    std::function<bool(std::string &text)> work;
};

// The process that holds the lock, -1 when it has no number here, or 0.
pid_t lock_holder(const std::string &lock_path);

// The same, but waits for the lock to come free until the deadline.
pid_t wait_unlocked(const std::string &lock_path, time_point deadline);

call_result run_guarded(const guarded_call &call, time_point deadline);

// "process 4711 (name)", with the name as /proc has it.
std::string holder_text(pid_t holder);
