// A get of one line, and its buffer.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "tests/unit/tty/lock_holder.h"
#include "tests/unit/tty/tty_fixture.h"
#include "tty/store.h"

class Get : public tty_test
{
  protected:
    static constexpr unsigned int LINE = 5;

    void SetUp() override
    {
        tty_test::SetUp();
        shared_lock = lock_file();
    }

    std::string lock_file() const
    {
        return info(LINE) + ".lock";
    }

    void store(const std::string &content) const
    {
        support::spill(info(LINE), content);
    }

    // The value, or "(null)" for a null pointer.
    std::string get(const char *name, unsigned int len = 64)
    {
        memset(buf, 0x5a, sizeof buf);
        const char *value = tty_get_member(LINE, name, buf, len);
        EXPECT_TRUE(value == nullptr || value == buf);
        return value == nullptr ? "(null)" : value;
    }

    // Whether the first bytes of the buffer are zero.
    bool cleared(size_t count) const
    {
        return std::string(buf, count) == std::string(count, '\0');
    }

    std::string own(const std::string &rest) const
    {
        return ids("tty_get_member", LINE) + rest;
    }

    std::string open_failure(const std::string &file, int error) const
    {
        return own("open file " + file + " fail errno:" +
                   std::to_string(error) + ", " + strerror(error) + "\n");
    }

    static void note_lock()
    {
        lock_error = lock_error_elsewhere(shared_lock);
    }

    char buf[4096];
    static inline std::string shared_lock;
    static inline int lock_error = -1;
};
