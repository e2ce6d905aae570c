/*
 * What the parts of ttyctl share: the exit statuses, what the command line
 * said, and the functions behind the commands.
 */
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <ttyline/tty.h>

enum exit_status {
    exit_done = 0,
    exit_failed = 1,
    exit_usage = 2,
    exit_locked = 3,
    exit_unanswered = 4,
};

constexpr int default_timeout = 2;
constexpr int default_watch = 2;

struct invocation {
    std::vector<std::string> arguments;
    int timeout = default_timeout; /* seconds */
    int watch = 0;                 /* seconds between two tables, 0: once */
    unsigned int except = TTY_LINES;
    bool json = false;
    bool code = false;
};

using time_point = std::chrono::steady_clock::time_point;

/* When to give up what starts now. */
time_point deadline_of(const invocation &call);

/* One message on standard error; both return the status to exit with. */
int fail(exit_status status, const std::string &message);
int usage_error(const std::string &message);

/* Writes to standard output; exit_failed when that is full or gone. */
int print(const std::string &text);

/* The commands. Each returns the status to exit with. */
int run_lines(const invocation &call);
int run_get(const invocation &call);
int run_set(const invocation &call);
int run_reset(const invocation &call);
int run_login_ok(const invocation &call);
int run_login_failed(const invocation &call);
int run_cfg(const invocation &call);
int run_hold(const invocation &call);
int run_release(const invocation &call);
int run_service(const invocation &call);
int run_speed(const invocation &call);
