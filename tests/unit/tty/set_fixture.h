// A set of one line, and the files that it leaves.
#pragma once

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "tests/unit/tty/lock_holder.h"
#include "tests/unit/tty/tty_fixture.h"
#include "tty/store.h"

class Set : public tty_test
{
  protected:
    static constexpr unsigned int LINE = 5;

    void SetUp() override
    {
        tty_test::SetUp();
        shared_info = info(LINE);
    }

    std::string lock_file() const
    {
        return info(LINE) + ".lock";
    }

    std::string temporary() const
    {
        return info(LINE) + ".tmp";
    }

    void store(const std::string &content) const
    {
        support::spill(info(LINE), content);
    }

    std::string content() const
    {
        return support::slurp(info(LINE));
    }

    static int set(const char *name, const std::string &value)
    {
        return tty_set_member(LINE, name, value.c_str());
    }

    std::string own(const std::string &rest) const
    {
        return ids("tty_set_member", LINE) + rest;
    }

    std::string open_failure(const char *verb, const std::string &file,
                             int error) const
    {
        return own(verb + (" file " + file) + " fail errno:" +
                   std::to_string(error) + ", " + strerror(error) + "\n");
    }

    // The message of a failure that names the request.
    std::string failure(const std::string &request) const
    {
        return own("failed in func: tty_set_member, line: N " + request + "\n");
    }

    static mode_t mode_of(const std::string &name)
    {
        struct stat status = {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_mode & 07777;
    }

    static ino_t inode_of(const std::string &name)
    {
        struct stat status = {};
        EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
        return status.st_ino;
    }

    bool unlocked() const
    {
        return lock_error_elsewhere(lock_file()) == 0;
    }

    static inline std::string shared_info;
};
