/*
 * The commands on one line and those to the administration daemon. The
 * library only says that something failed; the reason for the operator is
 * worked out here, before the call where it can be known and after it where
 * it cannot.
 */
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>

#include <sys/stat.h>
#include <unistd.h>

#include "programs/ttyctl/guard.h"
#include "programs/ttyctl/store.h"
#include "programs/ttyctl/text.h"
#include "programs/ttyctl/ttyctl.h"

static constexpr int value_size = 1024;
/* A line of the file holds 1023 bytes with '=', carriage return, line feed. */
static constexpr std::size_t pair_max = 1020;
static constexpr unsigned int hold_max = 1800;
static constexpr unsigned int service_max = 31;
static constexpr char unknown_key[] = "key";

static std::string line_text(unsigned int line)
{
    return "line " + std::to_string(line);
}

static std::string waited_text(const invocation &call)
{
    return "; gave up after " + std::to_string(call.timeout) + " s";
}

static int fail_and_see_log(const std::string &message)
{
    return fail(exit_failed, message + "; see " + library_log());
}

static int fail_locked(const invocation &call, unsigned int line,
                       const call_result &result, const std::string &note)
{
    return fail(exit_locked, line_text(line) + " is locked by " +
                                 holder_text(result.holder) + note +
                                 waited_text(call));
}

static int fail_stuck(unsigned int line, const std::string &info,
                      const std::string &note)
{
    return fail(exit_failed, line_text(line) +
                                 ": the library did not come back from " +
                                 info + note);
}

static int fail_unanswered(const invocation &call, const std::string &stored)
{
    return fail(exit_unanswered,
                "the line administration daemon does not take requests at " +
                    admin_socket() + stored + waited_text(call));
}

static int fail_unsent(const std::string &stored)
{
    const std::string socket = admin_socket();

    if (access(socket.c_str(), F_OK) != 0) {
        return fail_and_see_log("the line administration daemon is absent: no "
                                "socket " +
                                socket + stored);
    }
    return fail_and_see_log("the line administration daemon at " + socket +
                            " did not take the request" + stored);
}

static int take_line(const std::string &text, unsigned int &line)
{
    if (parse_line(text, line)) {
        return exit_done;
    }
    return usage_error("bad line number '" + printable(text) +
                       "': a line is 0 to 1585, 80000 or 80001");
}

/* Only a terminal's own line can log in or be spoken of to the daemon. */
static int take_real_line(const std::string &text, unsigned int &line)
{
    if (parse_number(text, 0, TTY_LINES - 1, line)) {
        return exit_done;
    }
    return usage_error("bad line number '" + printable(text) +
                       "': a line is 0 to 1585 here");
}

static int check_info_path(const std::string &info)
{
    if (info_fits(info)) {
        return exit_done;
    }
    return fail(exit_failed, "TMPDIR is too long: the library takes no path "
                             "like " +
                                 info);
}

/* The library leaves the buffer alone when, and only when, it knows no key. */
static bool key_known(unsigned int line, const char *key)
{
    char value[value_size] = "?";

    return tty_getenv(line, key, value, sizeof value) != nullptr ||
           value[0] != '?';
}

static int unknown_key_error(const std::string &key)
{
    return usage_error("unknown key '" + printable(key) +
                       "'; keys are written in capitals");
}

static bool read_key(unsigned int line, const std::string &key,
                     std::string &text)
{
    char value[value_size] = "?";

    if (tty_getenv(line, key.c_str(), value, sizeof value) != nullptr) {
        text = value;
        return true;
    }
    text = value[0] == '?' ? unknown_key : "";
    return false;
}

/* A terminal must not obey what somebody stored; a program gets the bytes. */
static int print_value(const std::string &value)
{
    return print((isatty(STDOUT_FILENO) == 1 ? printable(value) : value) +
                 "\n");
}

static int report_get(const invocation &call, unsigned int line,
                      const call_result &result)
{
    const std::string &key = call.arguments[1];

    if (result.state == call_state::done) {
        return print_value(result.text);
    }
    if (result.state == call_state::locked) {
        return fail_locked(call, line, result, "");
    }
    if (result.state == call_state::stuck) {
        return fail_stuck(line, info_to_read(line), "");
    }
    if (result.text == unknown_key) {
        return unknown_key_error(key);
    }
    const std::string info = info_to_read(line);
    if (access(info.c_str(), R_OK) != 0) {
        return fail_and_see_log(line_text(line) + " cannot be read: " + info +
                                ": " + std::strerror(errno));
    }
    return fail(exit_failed, line_text(line) + " has no value for " + key);
}

int run_get(const invocation &call)
{
    unsigned int line = 0;

    int status = take_line(call.arguments[0], line);
    if (status != exit_done) {
        return status;
    }
    const std::string info = info_to_read(line);
    if (info.empty()) {
        return fail(exit_failed, "line 0 is read from instance 0, and TMPDIR "
                                 "names no directory beside it");
    }
    status = check_info_path(info);
    if (status != exit_done) {
        return status;
    }
    guarded_call guarded;
    guarded.lock_path = lock_of(info);
    guarded.work = [&](std::string &text) {
        return read_key(line, call.arguments[1], text);
    };
    return report_get(call, line, run_guarded(guarded, deadline_of(call)));
}

/* What is stored is one line of a file of lines. */
static int check_pair(const std::string &key, const std::string &value)
{
    if (value.find_first_of("\r\n") != std::string::npos) {
        return usage_error("a value cannot hold the end of a line");
    }
    if (key.size() + value.size() > pair_max) {
        return usage_error("the value is too long: key and value have room "
                           "for " +
                           std::to_string(pair_max) + " bytes");
    }
    return exit_done;
}

/* Makes a call that writes the line's file. */
static call_result write_line(const invocation &call, unsigned int line,
                              bool sends,
                              const std::function<bool(std::string &)> &work)
{
    guarded_call guarded;

    guarded.lock_path = lock_of(info_to_write(line));
    guarded.sends = sends;
    guarded.work = work;
    return run_guarded(guarded, deadline_of(call));
}

/* The note says what the call may have done before it was given up. */
static int report_write(const invocation &call, unsigned int line,
                        const call_result &result, const std::string &note)
{
    const std::string info = info_to_write(line);

    switch (result.state) {
    case call_state::done:
        return exit_done;
    case call_state::locked:
        return fail_locked(call, line, result, result.begun ? note : "");
    case call_state::stuck:
        return fail_stuck(line, info, note);
    case call_state::failed:
    case call_state::unanswered:
        break;
    }
    return fail_and_see_log(line_text(line) + " cannot be stored in " + info +
                            note);
}

static int take_line_to_write(const std::string &text, unsigned int &line)
{
    const int status = take_line(text, line);

    return status == exit_done ? check_info_path(info_to_write(line)) : status;
}

int run_set(const invocation &call)
{
    const std::string &key = call.arguments[1];
    const std::string &value = call.arguments[2];
    unsigned int line = 0;

    int status = take_line_to_write(call.arguments[0], line);
    if (status == exit_done) {
        status = check_pair(key, value);
    }
    if (status != exit_done) {
        return status;
    }
    const auto work = [&](std::string &text) {
        if (tty_setenv(line, key.c_str(), value.c_str()) == 0) {
            return true;
        }
        text = key_known(line, key.c_str()) ? "" : unknown_key;
        return false;
    };
    const call_result result = write_line(call, line, false, work);
    if (result.state == call_state::failed && result.text == unknown_key) {
        return unknown_key_error(key);
    }
    return report_write(call, line, result, "");
}

int run_reset(const invocation &call)
{
    unsigned int line = 0;

    const int status = take_line_to_write(call.arguments[0], line);
    if (status != exit_done) {
        return status;
    }
    const auto work = [&](std::string &) {
        return tty_reset_info(line) == 0;
    };
    return report_write(call, line, write_line(call, line, false, work),
                        "; some of its keys may be reset");
}

/* Each set puts a new file in the place of the old one. */
static void take_file_number(const std::string &path, ino_t &number)
{
    struct stat status;

    number = stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/* The call stores first and sends then: what failed decides the message. */
static int audit_login(const invocation &call, bool success)
{
    unsigned int line = 0;

    int status = take_real_line(call.arguments[0], line);
    if (status == exit_done) {
        status = check_info_path(info_to_write(line));
    }
    if (status != exit_done) {
        return status;
    }
    const std::string info = info_to_write(line);
    ino_t before = 0;
    ino_t after = 0;
    take_file_number(info, before);
    const auto work = [&](std::string &) {
        return tty_login_info_audit(line, success) == 0;
    };
    const call_result result = write_line(call, line, success, work);
    take_file_number(info, after);
    const bool stored = after != before;
    const std::string note =
        stored ? "; LOGSUCC of " + line_text(line) + " is stored" : "";
    if (result.state == call_state::unanswered) {
        return fail_unanswered(call, note);
    }
    if (result.state == call_state::failed && stored) {
        return fail_unsent(note);
    }
    return report_write(call, line, result, note);
}

int run_login_ok(const invocation &call)
{
    return audit_login(call, true);
}

int run_login_failed(const invocation &call)
{
    return audit_login(call, false);
}

/* Makes a call that does nothing but send a request. */
static int send_request(const invocation &call,
                        const std::function<bool(std::string &)> &work)
{
    guarded_call guarded;

    if (!socket_fits(admin_socket())) {
        return fail(exit_failed, "TMPDIR is too long: the library takes no "
                                 "path like " +
                                     admin_socket());
    }
    guarded.sends = true;
    guarded.work = work;
    const call_result result = run_guarded(guarded, deadline_of(call));
    if (result.state == call_state::done) {
        return exit_done;
    }
    return result.state == call_state::unanswered ? fail_unanswered(call, "")
                                                  : fail_unsent("");
}

static bool setting_known(const std::string &name)
{
    return name == "SPEED" || name == "SESSION_TIMEOUT" ||
           name == "EXEC_TIMEOUT";
}

int run_cfg(const invocation &call)
{
    const std::string &name = call.arguments[1];
    unsigned int line = 0;
    unsigned int value = 0;

    const int status = take_real_line(call.arguments[0], line);
    if (status != exit_done) {
        return status;
    }
    if (!setting_known(name)) {
        return usage_error("unknown setting '" + printable(name) +
                           "': SPEED, SESSION_TIMEOUT or EXEC_TIMEOUT");
    }
    if (!parse_number(call.arguments[2], 0, UINT_MAX, value)) {
        return usage_error("bad value '" + printable(call.arguments[2]) +
                           "': a number from 0 to " + std::to_string(UINT_MAX));
    }
    return send_request(call, [&](std::string &) {
        return tty_cfg_update(line, name.c_str(), value) == 0;
    });
}

int run_hold(const invocation &call)
{
    unsigned int seconds = 0;

    if (!parse_number(call.arguments[0], 0, hold_max, seconds)) {
        return usage_error("bad time '" + printable(call.arguments[0]) +
                           "': 0 to 1800 seconds");
    }
    return send_request(call, [&](std::string &) {
        return tty_hold_line(call.except, seconds) == 0;
    });
}

int run_release(const invocation &call)
{
    return send_request(call, [](std::string &) {
        return tty_release_line() == 0;
    });
}

int run_service(const invocation &call)
{
    unsigned int service = 0;

    if (!parse_number(call.arguments[0], 0, service_max, service)) {
        return usage_error("bad service '" + printable(call.arguments[0]) +
                           "': 0 to 31");
    }
    guarded_call guarded;
    guarded.work = [&](std::string &text) {
        text = tty_get_service(service) == 1 ? "enabled\n" : "disabled\n";
        return true;
    };
    const call_result result = run_guarded(guarded, deadline_of(call));
    if (result.state != call_state::done) {
        return fail_and_see_log("the list of services cannot be read");
    }
    const int status = print(result.text);
    return status == exit_done && result.text == "disabled\n" ? exit_failed
                                                              : status;
}

int run_speed(const invocation &call)
{
    unsigned int from = 0;

    if (!parse_number(call.arguments[0], 0, INT_MAX, from)) {
        return usage_error("bad number '" + printable(call.arguments[0]) + "'");
    }
    const int number = static_cast<int>(from);
    const int to = call.code ? tty_code2speed(number) : tty_speed2code(number);
    if (to == 0) {
        return fail(exit_failed, std::string("there is no such ") +
                                     (call.code ? "code: " : "speed: ") +
                                     std::to_string(number));
    }
    return print(std::to_string(to) + "\n");
}
