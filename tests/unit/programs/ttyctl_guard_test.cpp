// Calls that are late for a reason which appears after the look at the lock:
// the work that the guard runs makes it appear.
#include "programs/ttyctl/guard.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "tests/support/line_peers.h"

using std::chrono::steady_clock;

// A runtime directory, and two pipes between the work and the test.
class TtyctlGuard : public testing::Test
{
  protected:
    void SetUp() override
    {
        char name[] = "/tmp/ttyctl_guard_test.XXXXXX";

        ASSERT_NE(mkdtemp(name), nullptr);
        root = name;
        setenv("TMPDIR", name, 1);
        std::filesystem::create_directories(root + "/mng/tty");
        ASSERT_EQ(pipe2(to_test, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(to_work, O_CLOEXEC), 0);
    }

    void TearDown() override
    {
        for (const int fd : {to_test[0], to_test[1], to_work[0], to_work[1]}) {
            close(fd);
        }
        // Whatever the guard started has been waited for.
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        std::filesystem::remove_all(root);
    }

    std::string path(const std::string &name) const
    {
        return root + "/mng/tty/" + name;
    }

    std::string info(unsigned line) const
    {
        return path(".tty_info_" + std::to_string(line));
    }

    // In the work: lets the test act and waits until it has.
    bool let_test_act()
    {
        char byte = 0;

        return write(to_test[1], "?", 1) == 1 &&
               read(to_work[0], &byte, 1) == 1;
    }

    // In the test: acts when the work asks for it.
    std::thread act(const std::function<void()> &action)
    {
        return std::thread([this, action] {
            char byte = 0;
            EXPECT_EQ(read(to_test[0], &byte, 1), 1);
            action();
            EXPECT_EQ(write(to_work[1], "!", 1), 1);
        });
    }

    std::string root;
    int to_test[2] = {-1, -1};
    int to_work[2] = {-1, -1};
};

static time_point in_milliseconds(int count)
{
    return steady_clock::now() + std::chrono::milliseconds(count);
}

TEST_F(TtyctlGuard, names_a_holder_that_appears_after_the_look)
{
    const std::string lock = info(5) + ".lock";
    const pid_t parent = getpid();
    const pid_t late = fork();
    if (late == 0) {
        char byte = 0;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent && read(to_test[0], &byte, 1) == 1 &&
            take_lock(lock) && write(to_work[1], "!", 1) == 1) {
            pause();
        }
        _exit(1);
    }
    guarded_call call;
    call.lock_path = lock;
    call.work = [&](std::string &) {
        return let_test_act() && tty_setenv(5, "LOGNAME", "alice") == 0;
    };

    const call_result result = run_guarded(call, in_milliseconds(1000));
    EXPECT_EQ(result.state, call_state::locked);
    EXPECT_EQ(result.holder, late);
    EXPECT_TRUE(result.begun);
    EXPECT_NE(access(info(5).c_str(), F_OK), 0);
    kill(late, SIGKILL);
    waitpid(late, nullptr, 0);
}

TEST_F(TtyctlGuard, names_a_holder_without_a_call_when_it_is_there_first)
{
    const std::string lock = info(5) + ".lock";
    holder first(lock);
    guarded_call call;
    call.lock_path = lock;
    call.work = [&](std::string &) {
        return mkdir((root + "/called").c_str(), 0700) == 0;
    };

    const call_result result = run_guarded(call, in_milliseconds(50));
    EXPECT_EQ(result.state, call_state::locked);
    EXPECT_EQ(result.holder, first.pid());
    EXPECT_FALSE(result.begun);
    EXPECT_NE(access((root + "/called").c_str(), F_OK), 0);
    first.let_go();
}

TEST_F(TtyctlGuard, waits_for_its_own_child_beyond_the_time)
{
    guarded_call call;
    call.lock_path = info(5) + ".lock";
    call.work = [&](std::string &text) {
        const int fd = open(call.lock_path.c_str(), O_RDWR | O_CREAT, 0600);
        tty_flock(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        text = "late";
        return true;
    };

    const call_result result = run_guarded(call, in_milliseconds(0));
    EXPECT_EQ(result.state, call_state::done);
    EXPECT_EQ(result.text, "late");
}

TEST_F(TtyctlGuard, gives_up_what_never_ends)
{
    guarded_call call;
    call.work = [](std::string &) {
        for (;;) {
            pause();
        }
        return true;
    };

    EXPECT_EQ(run_guarded(call, in_milliseconds(0)).state, call_state::stuck);
}

TEST_F(TtyctlGuard, a_call_that_dies_has_failed)
{
    guarded_call call;
    call.work = [](std::string &) {
        return raise(SIGKILL) == 0;
    };

    EXPECT_EQ(run_guarded(call, in_milliseconds(0)).state, call_state::failed);
}

TEST_F(TtyctlGuard, a_daemon_that_vanishes_fails_the_request)
{
    listener daemon(path(".tty_rl"));
    guarded_call call;
    call.sends = true;
    call.work = [&](std::string &text) {
        // This process's copy would keep the socket alive.
        daemon.stop();
        const bool held = tty_hold_line(1586, 5) == 0;
        const bool told = let_test_act();
        const bool released = tty_release_line() == 0;
        text = std::string(held ? "held" : "not held") +
               (told && released ? ", released" : ", not released");
        return released;
    };

    std::thread actor = act([&] {
        daemon.stop();
    });
    const call_result result = run_guarded(call, in_milliseconds(PATIENCE_MS));
    actor.join();
    EXPECT_EQ(result.state, call_state::failed);
    EXPECT_EQ(result.text, "held, not released");
}

TEST_F(TtyctlGuard, no_holder_where_there_is_no_lock_file)
{
    EXPECT_EQ(lock_holder(info(5) + ".lock"), 0);
    EXPECT_NE(access((info(5) + ".lock").c_str(), F_OK), 0);
}

TEST_F(TtyctlGuard, a_holder_without_a_number_is_still_one)
{
    const std::string file = info(5) + ".lock";
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &lock), 0);

    EXPECT_EQ(lock_holder(file), -1);
    EXPECT_EQ(holder_text(-1), "a process that has no number here");
    close(fd);
    EXPECT_EQ(lock_holder(file), 0);
}
