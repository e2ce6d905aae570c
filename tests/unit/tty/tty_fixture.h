// What the tests of the line library share.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/fault.h"
#include "tests/support/runtime.h"

static const char TRACE_SWITCH_FILE[] = "/data/.tty_lib_debug";

// How the messages of an operation on a line begin.
inline std::string ids(const char *function, unsigned int ttyno)
{
    return std::string(function) + "(ttyno " +
           std::to_string(static_cast<int>(ttyno)) + ":pid " +
           std::to_string(getpid()) + ":tid " + std::to_string(gettid()) +
           "): ";
}

inline std::vector<std::string> unlined(std::vector<std::string> messages)
{
    for (std::string &message : messages) {
        message = support::unlined(message);
    }
    return messages;
}

using messages = std::vector<std::string>;

// A test of the line library whose traces are off, whatever the machine's
// own switch file says.
class tty_test : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        support::runtime_test::SetUp();
        make_directories();
        fault::fail("access", 1, ENOENT, fault::ALWAYS,
                    fault::only_path(TRACE_SWITCH_FILE));
    }

    // Also drops all fault rules, so it comes first.
    static void trace_on()
    {
        fault::reset();
        fault::result("access", 1, 0, fault::ALWAYS,
                      fault::only_path(TRACE_SWITCH_FILE));
    }

    messages log() const
    {
        return unlined(tty_log());
    }

    std::string info(unsigned int ttyno) const
    {
        return path("/mng/tty/.tty_info_" + std::to_string(ttyno));
    }
};
