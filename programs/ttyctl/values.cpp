#include "programs/ttyctl/values.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "programs/shared/escape.h"
#include "programs/shared/keys.h"
#include "programs/ttyctl/line_call.h"
#include "programs/ttyctl/report.h"
#include "programs/ttyctl/store.h"

constexpr int VALUE_SIZE = 1024;

static int take_line(const std::string &text, unsigned int &line)
{
    if (parse_line(text, line)) {
        return EXIT_DONE;
    }
    return usage_error("bad line number '" + escaped(text) +
                       "': a line is 0 to 1585, 80000 or 80001");
}

static int take_key(const std::string &text)
{
    if (key_known(text)) {
        return EXIT_DONE;
    }
    return usage_error("unknown key '" + escaped(text) +
                       "'; keys are written in capitals");
}

static bool read_key(unsigned int line, const std::string &key,
                     std::string &text)
{
    char value[VALUE_SIZE];

    if (tty_getenv(line, key.c_str(), value, sizeof value) == nullptr) {
        return false;
    }
    text = value;
    return true;
}

// A terminal must not obey what somebody stored; a program gets the bytes.
static int print_value(const std::string &value)
{
    return print((isatty(STDOUT_FILENO) == 1 ? escaped(value) : value) + "\n");
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
    const std::string info = info_to_read(line);
    if (access(info.c_str(), R_OK) != 0) {
        return fail_and_see_log(line_text(line) + " cannot be read: " + info +
                                ": " + std::strerror(errno));
    }
    return fail(EXIT_FAILED, line_text(line) + " has no value for " + key);
}

int run_get(const invocation &call)
{
    unsigned int line = 0;

    int status = take_line(call.arguments[0], line);
    if (status == EXIT_DONE) {
        status = take_key(call.arguments[1]);
    }
    if (status != EXIT_DONE) {
        return status;
    }
    const std::string info = info_to_read(line);
    if (info.empty()) {
        return fail(EXIT_FAILED, "line 0 is read from instance 0, and TMPDIR "
                                 "names no directory beside it");
    }
    status = check_info_path(info);
    if (status != EXIT_DONE) {
        return status;
    }
    guarded_call guarded;
    guarded.lock_path = lock_of(info);
    guarded.work = [&](std::string &text) {
        return read_key(line, call.arguments[1], text);
    };
    return report_get(call, line, run_guarded(guarded, deadline_of(call)));
}

// What is stored is one line of a file of lines.
static int check_pair(const std::string &key, const std::string &value)
{
    if (value.find_first_of("\r\n") != std::string::npos) {
        return usage_error("a value cannot hold the end of a line");
    }
    if (key.size() + value.size() > TTY_PAIR_MAX) {
        return usage_error("the value is too long: key and value have room "
                           "for " +
                           std::to_string(TTY_PAIR_MAX) + " bytes");
    }
    return EXIT_DONE;
}

static int take_line_to_write(const std::string &text, unsigned int &line)
{
    const int status = take_line(text, line);

    return status == EXIT_DONE ? check_info_path(info_to_write(line)) : status;
}

int run_set(const invocation &call)
{
    const std::string &key = call.arguments[1];
    const std::string &value = call.arguments[2];
    unsigned int line = 0;

    int status = take_line_to_write(call.arguments[0], line);
    if (status == EXIT_DONE) {
        status = take_key(key);
    }
    if (status == EXIT_DONE) {
        status = check_pair(key, value);
    }
    if (status != EXIT_DONE) {
        return status;
    }
    const auto work = [&](std::string &) {
        return tty_setenv(line, key.c_str(), value.c_str()) == 0;
    };
    line_values before;
    read_info(info_to_write(line), before);
    status = report_write(call, line, write_line(call, line, false, work), "");
    return status == EXIT_DONE ? check_stored(line, before, {{key, value}})
                               : status;
}

int run_reset(const invocation &call)
{
    unsigned int line = 0;

    int status = take_line_to_write(call.arguments[0], line);
    if (status != EXIT_DONE) {
        return status;
    }
    const auto work = [&](std::string &) {
        return tty_reset_info(line) == 0;
    };
    line_values before;
    read_info(info_to_write(line), before);
    status = report_write(call, line, write_line(call, line, false, work),
                          "; some of its keys may be reset");
    return status == EXIT_DONE ? check_stored(line, before,
                                              {{"LOGNAME", ""},
                                               {"TTYPID", "-1"},
                                               {"LOGSUCC", "0"},
                                               {"SESSIONID", "0"},
                                               {"IDLE", "0"}})
                               : status;
}
