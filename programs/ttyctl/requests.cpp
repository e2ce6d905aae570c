#include "programs/ttyctl/requests.h"

#include <climits>

#include <sys/stat.h>

#include "programs/shared/escape.h"
#include "programs/shared/parse.h"
#include "programs/ttyctl/line_call.h"
#include "programs/ttyctl/report.h"
#include "programs/ttyctl/store.h"

// Only a terminal's own line can log in or be spoken of to the daemon.
static int take_real_line(const std::string &text, unsigned int &line)
{
    if (parse_number(text, 0, TTY_LINES - 1, line)) {
        return EXIT_DONE;
    }
    return usage_error("bad line number '" + escaped(text) +
                       "': a line is 0 to 1585 here");
}

// Each set puts a new file in the place of the old one.
static void take_file_number(const std::string &path, ino_t &number)
{
    struct stat status;

    number = stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// The call stores first and sends then: what failed decides the message.
static int audit_login(const invocation &call, bool success)
{
    unsigned int line = 0;

    int status = take_real_line(call.arguments[0], line);
    if (status == EXIT_DONE) {
        status = check_info_path(info_to_write(line));
    }
    if (status != EXIT_DONE) {
        return status;
    }
    const std::string info = info_to_write(line);
    ino_t before = 0;
    ino_t after = 0;
    line_values values;
    read_info(info, values);
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
    status = report_write(call, line, result, note);
    return status == EXIT_DONE
               ? check_stored(line, values, {{"LOGSUCC", success ? "1" : "0"}})
               : status;
}

int run_login_ok(const invocation &call)
{
    return audit_login(call, true);
}

int run_login_failed(const invocation &call)
{
    return audit_login(call, false);
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
    if (status != EXIT_DONE) {
        return status;
    }
    if (!setting_known(name)) {
        return usage_error("unknown setting '" + escaped(name) +
                           "': SPEED, SESSION_TIMEOUT or EXEC_TIMEOUT");
    }
    if (!parse_number(call.arguments[2], 0, UINT_MAX, value)) {
        return usage_error("bad value '" + escaped(call.arguments[2]) +
                           "': a number from 0 to " + std::to_string(UINT_MAX));
    }
    return send_request(call, [&](std::string &) {
        return tty_cfg_update(line, name.c_str(), value) == 0;
    });
}

int run_hold(const invocation &call)
{
    unsigned int seconds = 0;

    if (!parse_number(call.arguments[0], 0, TTY_HOLD_MAX, seconds)) {
        return usage_error("bad time '" + escaped(call.arguments[0]) +
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
