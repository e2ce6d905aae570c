// A serial console that the test reads.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/privroot.h"

// Private root with a pipe as its console /dev/ttyS0: nothing that is written
// to it overwrites anything.
class console_test : public support::private_root_test
{
  protected:
    void SetUp() override
    {
        private_root_test::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        support::put_over("/proc/cmdline", "quiet\n");
    }

    void TearDown() override
    {
        if (reader >= 0) {
            close(reader);
        }
        private_root_test::TearDown();
    }

    void make_console(const char *name = "/dev/ttyS0")
    {
        ASSERT_EQ(mkfifo(name, 0600), 0);
        reader = open(name, O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(reader, 0);
    }

    // What came since the last call.
    std::string console() const
    {
        std::string text;
        char bytes[4096];
        for (;;) {
            const ssize_t got = read(reader, bytes, sizeof bytes);
            if (got <= 0) {
                return text;
            }
            text.append(bytes, static_cast<size_t>(got));
        }
    }

    int reader = -1;
};
