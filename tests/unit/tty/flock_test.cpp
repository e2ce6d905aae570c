#include "tty/flock.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <ttyline/tty.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/lock_holder.h"

class Flock : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        file = path("/lock");
        fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
    }

    void TearDown() override
    {
        close(fd);
        runtime_test::TearDown();
    }

    int error_elsewhere() const
    {
        return lock_error_elsewhere(file);
    }

    std::string file;
    int fd = -1;
};

TEST_F(Flock, excludes_other_processes_until_it_is_released)
{
    EXPECT_EQ(tty_flock(fd), 0);
    EXPECT_TRUE(held_elsewhere(error_elsewhere()));
    EXPECT_EQ(tty_unflock(fd), 0);
    EXPECT_EQ(error_elsewhere(), 0);
}

TEST_F(Flock, try_takes_the_same_lock)
{
    EXPECT_EQ(tty_flock_try(fd), 0);
    EXPECT_TRUE(held_elsewhere(error_elsewhere()));
    EXPECT_EQ(tty_unflock(fd), 0);
    EXPECT_EQ(error_elsewhere(), 0);
}

TEST_F(Flock, try_fails_at_once_when_another_process_holds_the_lock)
{
    lock_holder other(file);
    EXPECT_EQ(tty_flock_try(fd), -1);
    EXPECT_TRUE(held_elsewhere(errno)) << errno;
    other.let_go();
    EXPECT_EQ(tty_flock_try(fd), 0);
}

TEST_F(Flock, covers_the_whole_file_however_long_it_grows)
{
    ASSERT_EQ(tty_flock(fd), 0);
    ASSERT_EQ(ftruncate(fd, 5000), 0);
    const bool whole =
        support::in_child([&] {
            struct flock found = {};
            found.l_type = F_WRLCK;
            found.l_whence = SEEK_SET;
            found.l_start = 1000000;
            found.l_len = 1;
            return fcntl(fd, F_GETLK, &found) == 0 && found.l_type == F_WRLCK &&
                   found.l_whence == SEEK_SET && found.l_start == 0 &&
                   found.l_len == 0 && found.l_pid == getppid();
        }) == 0;
    EXPECT_TRUE(whole);
}

TEST_F(Flock, counts_from_the_start_and_not_from_the_position)
{
    ASSERT_EQ(ftruncate(fd, 100), 0);
    ASSERT_EQ(lseek(fd, 50, SEEK_SET), 50);
    ASSERT_EQ(tty_flock(fd), 0);
    const bool first_byte =
        support::in_child([&] {
            struct flock found = {};
            found.l_type = F_WRLCK;
            found.l_len = 1;
            return fcntl(fd, F_GETLK, &found) == 0 && found.l_type == F_WRLCK;
        }) == 0;
    EXPECT_TRUE(first_byte);
}

TEST_F(Flock, waits_through_signals_until_the_lock_is_free)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);

    lock_holder other(file);
    const int waits = fault::watch("fcntl", fault::only_what(F_SETLKW));
    std::atomic<int> result{-2};
    std::thread waiter([&] {
        result = tty_flock(fd);
    });
    const auto interrupted = [&] {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        return fault::seen(waits) > 5;
    };
    EXPECT_TRUE(support::wait_until(interrupted));
    EXPECT_EQ(result, -2);
    other.let_go();
    waiter.join();
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(held_elsewhere(error_elsewhere()));
}

TEST_F(Flock, interruptions_are_retried)
{
    fault_row("tty_flock", "fcntl", "EINTR", "0", "", "the lock is held");
    fault_row("tty_flock_try", "fcntl", "EINTR", "0", "", "the lock is held");
    fault::fail("fcntl", 1, EINTR, 5);
    EXPECT_EQ(tty_flock(fd), 0);
    EXPECT_EQ(fault::calls("fcntl"), 6);
    fault::reset();
    fault::fail("fcntl", 1, EINTR, 5);
    EXPECT_EQ(tty_flock_try(fd), 0);
    EXPECT_EQ(fault::calls("fcntl"), 6);
}

TEST_F(Flock, unlock_is_not_retried)
{
    fault_row("tty_unflock", "fcntl", "EINTR", "-1 and the errno", "",
              "asked once only");
    ASSERT_EQ(tty_flock(fd), 0);
    const int unlocks = fault::watch("fcntl");
    fault::fail("fcntl", 1, EINTR);
    errno = 0;
    EXPECT_EQ(tty_unflock(fd), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(fault::seen(unlocks), 1);
}

TEST_F(Flock, other_errors_end_it_with_their_errno)
{
    fault_row("tty_flock", "fcntl", "ENOLCK, EDEADLK, EAGAIN, EACCES, EINVAL",
              "-1 and the errno", "", "asked once only");
    fault_row("tty_flock_try", "fcntl",
              "ENOLCK, EDEADLK, EAGAIN, EACCES, EINVAL", "-1 and the errno", "",
              "asked once only");
    fault_row("tty_unflock", "fcntl", "ENOLCK, EDEADLK, EAGAIN, EACCES, EINVAL",
              "-1 and the errno", "", "asked once only");
    for (const int error : {ENOLCK, EDEADLK, EAGAIN, EACCES, EINVAL}) {
        fault::reset();
        fault::fail("fcntl", 1, error, 3);
        EXPECT_EQ(tty_flock(fd), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(tty_flock_try(fd), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(tty_unflock(fd), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(fault::calls("fcntl"), 3);
    }
}

TEST_F(Flock, descriptor_must_be_open_for_writing)
{
    const int reading = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(tty_flock(reading), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(tty_flock_try(reading), -1);
    EXPECT_EQ(errno, EBADF);
    close(reading);
    EXPECT_EQ(tty_unflock(reading), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Flock, only_the_waiting_form_waits)
{
    const int waiting = fault::watch("fcntl", fault::only_what(F_SETLKW));
    const int others = fault::watch("fcntl", fault::only_what(F_SETLK));
    EXPECT_EQ(tty_flock(fd), 0);
    EXPECT_EQ(fault::seen(waiting), 1);
    EXPECT_EQ(tty_flock_try(fd), 0);
    EXPECT_EQ(tty_unflock(fd), 0);
    EXPECT_EQ(fault::seen(waiting), 1);
    EXPECT_EQ(fault::seen(others), 2);
}

TEST_F(Flock, one_routine_issues_all_three)
{
    EXPECT_EQ(tty_flock_reg(fd, F_SETLK, F_WRLCK), 0);
    EXPECT_TRUE(held_elsewhere(error_elsewhere()));
    EXPECT_EQ(tty_flock_reg(fd, F_SETLK, F_UNLCK), 0);
    EXPECT_EQ(error_elsewhere(), 0);
    EXPECT_EQ(tty_flock_reg(-1, F_SETLK, F_WRLCK), -1);
    EXPECT_EQ(errno, EBADF);
}
