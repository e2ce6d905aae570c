// Ending what is left of a session.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kit/sweep.h"
#include "tests/support/wait.h"

// A process in a session of its own, which ignores hang-ups or not.
static pid_t start(bool stubborn, const char *name)
{
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        prctl(PR_SET_NAME, name);
        signal(SIGHUP, stubborn ? SIG_IGN : SIG_DFL);
        const ssize_t ignored = write(ready[1], "r", 1);
        static_cast<void>(ignored);
        for (;;) {
            pause();
        }
    }
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    return pid;
}

static int signal_that_ended(pid_t pid)
{
    const int status = support::wait_child(pid);
    return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
}

// Its parent has not reaped it: a process that has ended does not count.
TEST(KitSweep, process_that_takes_a_hang_up_is_not_killed)
{
    const pid_t pid = start(false, "plain");
    kit_sweep(pid, 5000);
    EXPECT_EQ(signal_that_ended(pid), SIGHUP);
}

TEST(KitSweep, process_that_ignores_it_is_killed_after_the_time)
{
    const pid_t pid = start(true, "stubborn");
    kit_sweep(pid, 50);
    EXPECT_EQ(signal_that_ended(pid), SIGKILL);
}

TEST(KitSweep, stopped_process_is_ended_too)
{
    const pid_t pid = start(false, "stopped");
    kill(pid, SIGSTOP);
    kit_sweep(pid, 5000);
    EXPECT_EQ(signal_that_ended(pid), SIGHUP);
}

// Fields of its state are found behind the last parenthesis.
TEST(KitSweep, name_of_a_process_does_not_confuse_it)
{
    const pid_t pid = start(false, "a) R 1 2 3 (");
    kit_sweep(pid, 5000);
    EXPECT_EQ(signal_that_ended(pid), SIGHUP);
}

TEST(KitSweep, other_sessions_are_left_alone)
{
    const pid_t other = start(false, "other");
    const pid_t pid = start(false, "mine");
    kit_sweep(pid, 5000);
    EXPECT_EQ(signal_that_ended(pid), SIGHUP);
    EXPECT_EQ(kill(other, 0), 0);
    EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0);
    kill(other, SIGKILL);
    EXPECT_EQ(signal_that_ended(other), SIGKILL);
    kit_sweep(0, 5000);
    kit_sweep(-1, 5000);
}
