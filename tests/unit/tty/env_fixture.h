// Reading what was set.
#pragma once

#include <string.h>

#include <ttyline/tty.h>

#include "tests/unit/tty/tty_fixture.h"

constexpr unsigned int LINE = 300;

class Env : public tty_test
{
  protected:
    std::string get(unsigned int ttyno, const char *name, int len = 64)
    {
        memset(buf, 0x5a, sizeof buf);
        const char *value = tty_getenv(ttyno, name, buf, len);
        EXPECT_TRUE(value == nullptr || value == buf);
        return value == nullptr ? "(null)" : value;
    }

    bool untouched() const
    {
        return std::string(buf, sizeof buf) == std::string(sizeof buf, 0x5a);
    }

    char buf[2048];
};
