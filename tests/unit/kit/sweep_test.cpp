// Ending what is left of a session.
#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kit/sweep.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
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

// The program's own process group, which a shell's background jobs are not in.
TEST(KitSweep, without_a_list_of_processes_the_group_is_ended)
{
    fault_row("kit_sweep", "opendir", "EMFILE", "nothing", "",
              "the session's processes outside of its leader's group");
    fault_row("kit_sweep", "access", "ENOENT", "nothing", "",
              "the session's processes outside of its leader's group");
    for (const char *call : {"opendir", "access"}) {
        const pid_t pid = start(true, "group");
        fault::reset();
        fault::fail(call, 1, EMFILE, fault::ALWAYS);
        // Its leader is not reaped yet, so that the group still is.
        kit_sweep(pid, 50);
        EXPECT_EQ(signal_that_ended(pid), SIGKILL) << call;
        fault::reset();
    }
}

TEST(KitSweep, process_that_cannot_be_looked_at_is_nobodys)
{
    fault_row("kit_sweep", "open", "EMFILE", "nothing", "",
              "the processes that could not be looked at");
    fault_row("kit_sweep", "read", "EIO", "nothing", "",
              "the processes that could not be looked at");
    fault_row("kit_sweep", "read", "short", "nothing", "",
              "the processes that could not be looked at");
    const pid_t pid = start(false, "hidden");
    const auto stat_only = fault::only_path("/stat");
    fault::reset();
    fault::fail("open", 1, EMFILE, fault::ALWAYS, stat_only);
    kit_sweep(pid, 50);
    fault::reset();
    fault::fail("read", 1, EIO, fault::ALWAYS, stat_only);
    kit_sweep(pid, 50);
    // To within the name, and to the state behind it.
    const std::string state = std::to_string(pid) + " (hidden) S";
    for (const size_t bytes : {state.size() - 5, state.size()}) {
        fault::reset();
        fault::shorten("read", 1, bytes, fault::ALWAYS, stat_only);
        kit_sweep(pid, 50);
    }
    fault::reset();
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);
    kit_sweep(pid, 5000);
    EXPECT_EQ(signal_that_ended(pid), SIGHUP);
}
