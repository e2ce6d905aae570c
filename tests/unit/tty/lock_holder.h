// Other processes that want or hold a file's lock.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <ttyline/tty.h>

#include "tests/support/wait.h"

// 0 when another process gets the lock at once, else its errno.
inline int lock_error_elsewhere(const std::string &file)
{
    const pid_t pid = fork();

    if (pid == 0) {
        const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        _exit(tty_flock_try(fd) == 0 ? 0 : errno);
    }
    return WEXITSTATUS(support::wait_child(pid));
}

inline bool held_elsewhere(int error)
{
    return error == EAGAIN || error == EACCES;
}

// A process that holds the lock until it is told to end.
class lock_holder
{
  public:
    explicit lock_holder(const std::string &file)
    {
        int taken[2];
        EXPECT_EQ(pipe2(taken, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(end, O_CLOEXEC), 0);
        pid = fork();
        if (pid == 0) {
            char byte = 0;
            close(end[1]);
            const int own =
                open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            const ssize_t told =
                tty_flock(own) == 0 ? write(taken[1], "t", 1) : 0;
            _exit(told == 1 && read(end[0], &byte, 1) == 0 ? 0 : 1);
        }
        char byte = 0;
        close(taken[1]);
        EXPECT_EQ(read(taken[0], &byte, 1), 1);
        close(taken[0]);
        close(end[0]);
    }

    void let_go()
    {
        close(end[1]);
        EXPECT_EQ(support::wait_child(pid), 0);
    }

  private:
    pid_t pid = -1;
    int end[2] = {-1, -1};
};
