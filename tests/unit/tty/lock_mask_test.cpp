// The signal mask of the critical section, and the section itself.
#include "tty/lock.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/machine.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/lock_threads.h"
#include "tests/unit/tty/tty_fixture.h"

class SignalMask : public tty_test
{
  protected:
    void SetUp() override
    {
        tty_test::SetUp();
        delivered = 0;
        struct sigaction action = {};
        action.sa_handler = [](int number) {
            delivered = number;
        };
        ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    }

    // The numbers of the blocked signals, 1 to 64.
    static std::vector<int> blocked()
    {
        std::vector<int> numbers;
        sigset_t set;
        sigemptyset(&set);
        pthread_sigmask(SIG_BLOCK, nullptr, &set);
        for (int number = 1; number <= 64; number++) {
            if (sigismember(&set, number) == 1) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

    // Every signal but those that cannot be blocked and the two that the C
    // library keeps for itself.
    static std::vector<int> all()
    {
        std::vector<int> numbers;
        for (int number = 1; number <= 64; number++) {
            if (number != SIGKILL && number != SIGSTOP && number != 32 &&
                number != 33) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

    static void block(std::initializer_list<int> numbers)
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : numbers) {
            sigaddset(&set, number);
        }
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &set, nullptr), 0);
    }

    // A message of one of the four failures.
    static std::string failed(const char *function, const char *what, int error)
    {
        return std::string(function) + "(line N:pid " +
               std::to_string(getpid()) + ":tid " + std::to_string(gettid()) +
               "): " + what + " fail errno:" + std::to_string(error) + ", " +
               strerror(error) + "\n";
    }

    static volatile sig_atomic_t delivered;
};

volatile sig_atomic_t SignalMask::delivered = 0;

TEST_F(SignalMask, everything_that_can_be_blocked_is)
{
    support::not_in_emulator(support::SIGNALS_KEPT);
    ttylib_set_sigproc();
    EXPECT_EQ(blocked(), all());
    ttylib_unset_sigproc();
    EXPECT_EQ(blocked(), std::vector<int>());
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(SignalMask, that_was_there_before_comes_back_exactly)
{
    support::not_in_emulator(support::SIGNALS_KEPT);
    block({SIGUSR2, SIGINT, SIGRTMIN + 3});
    const std::vector<int> before = blocked();
    ttylib_set_sigproc();
    EXPECT_EQ(blocked(), all());
    ttylib_unset_sigproc();
    EXPECT_EQ(blocked(), before);
    EXPECT_EQ(before.size(), 3u);
}

TEST_F(SignalMask, of_a_thread_that_blocks_everything_stays_so)
{
    support::not_in_emulator(support::SIGNALS_KEPT);
    sigset_t full;
    sigfillset(&full);
    pthread_sigmask(SIG_SETMASK, &full, nullptr);
    ttylib_set_sigproc();
    ttylib_unset_sigproc();
    EXPECT_EQ(blocked(), all());
}

TEST_F(SignalMask, signal_stays_pending_until_it_is_restored)
{
    ttylib_set_sigproc();
    ASSERT_EQ(pthread_kill(pthread_self(), SIGUSR1), 0);
    usleep(1000);
    EXPECT_EQ(delivered, 0);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGUSR1), 1);
    ttylib_unset_sigproc();
    EXPECT_EQ(delivered, SIGUSR1);
}

TEST_F(SignalMask, is_that_of_the_calling_thread_only)
{
    std::atomic<int> step{0};
    std::vector<int> elsewhere = {-1};
    std::thread other([&] {
        support::wait_until([&] {
            return step.load() == 1;
        });
        elsewhere = blocked();
        step = 2;
    });
    ttylib_set_sigproc();
    step = 1;
    EXPECT_TRUE(support::wait_until([&] {
        return step.load() == 2;
    }));
    ttylib_unset_sigproc();
    other.join();
    EXPECT_EQ(elsewhere, std::vector<int>());
}

TEST_F(SignalMask, that_cannot_be_read_is_reported_and_nothing_is_blocked)
{
    fault_row("ttylib_set_sigproc", "pthread_sigmask", "EINVAL", "nothing",
              "%s(line %d:pid %d:tid %d): %s fail errno:%d, %s\n",
              "no signal blocked");
    const int fills = fault::watch("sigfillset");
    const int changes = fault::watch("pthread_sigmask");
    fault::fail("pthread_sigmask", 1, EINVAL);
    ttylib_set_sigproc();
    EXPECT_EQ(log(),
              messages({failed("ttylib_set_sigproc", "sigprocmask", EINVAL)}));
    EXPECT_EQ(fault::seen(fills), 0);
    EXPECT_EQ(fault::seen(changes), 1);
    EXPECT_EQ(blocked(), std::vector<int>());
}

TEST_F(SignalMask, set_that_cannot_be_filled_is_reported_and_nothing_is_blocked)
{
    fault_row("ttylib_set_sigproc", "sigfillset", "EFAULT", "nothing",
              "%s(line %d:pid %d:tid %d): %s fail errno:%d, %s\n",
              "no signal blocked");
    const int changes = fault::watch("pthread_sigmask");
    fault::fail("sigfillset", 1, EFAULT);
    ttylib_set_sigproc();
    EXPECT_EQ(log(),
              messages({failed("ttylib_set_sigproc", "sigfillset", EFAULT)}));
    EXPECT_EQ(fault::seen(changes), 1);
    EXPECT_EQ(blocked(), std::vector<int>());
}

TEST_F(SignalMask, that_cannot_be_changed_is_reported)
{
    fault_row("ttylib_set_sigproc", "pthread_sigmask", "EPERM", "nothing",
              "%s(line %d:pid %d:tid %d): %s fail errno:%d, %s\n",
              "no signal blocked");
    fault::fail("pthread_sigmask", 2, EPERM);
    ttylib_set_sigproc();
    EXPECT_EQ(log(),
              messages({failed("ttylib_set_sigproc", "sigprocmask1", EPERM)}));
    EXPECT_EQ(blocked(), std::vector<int>());
}

TEST_F(SignalMask, that_cannot_be_restored_is_reported_and_stays)
{
    support::not_in_emulator(support::SIGNALS_KEPT);
    fault_row("ttylib_unset_sigproc", "pthread_sigmask", "EINVAL", "nothing",
              "%s(line %d:pid %d:tid %d): %s fail errno:%d, %s\n",
              "all signals stay blocked");
    ttylib_set_sigproc();
    fault::fail("pthread_sigmask", 1, EINVAL, 1, fault::only_what(SIG_SETMASK));
    ttylib_unset_sigproc();
    EXPECT_EQ(log(),
              messages({failed("ttylib_unset_sigproc", "sig unset", EINVAL)}));
    EXPECT_EQ(blocked(), all());
}

TEST_F(SignalMask, reading_it_asks_for_no_change)
{
    const int queries =
        fault::watch("pthread_sigmask", fault::only_what(SIG_BLOCK));
    const int settings =
        fault::watch("pthread_sigmask", fault::only_what(SIG_SETMASK));
    ttylib_set_sigproc();
    EXPECT_EQ(fault::seen(queries), 2);
    ttylib_unset_sigproc();
    EXPECT_EQ(fault::seen(settings), 1);
}

// The mask is changed only while the lock is held: another thread that asks
// for the lock at that moment waits.
class CriticalSection : public SignalMask
{
  protected:
    static void ask()
    {
        asking_thread *other = new asking_thread;
        early = early || other->gets_it(50);
        asking.push_back(other);
    }

    static bool early;
    static std::vector<asking_thread *> asking;
};

bool CriticalSection::early = false;
std::vector<asking_thread *> CriticalSection::asking;

TEST_F(CriticalSection,
       takes_the_lock_before_the_mask_and_releases_it_afterwards)
{
    support::not_in_emulator(support::SIGNALS_KEPT);
    fault::run("pthread_sigmask", 1, ask);
    fault::run("pthread_sigmask", 1, ask, 1, fault::only_what(SIG_SETMASK));
    ttylib_enter();
    EXPECT_EQ(blocked(), all());
    ttylib_leave();
    EXPECT_EQ(asking.size(), 2u);
    EXPECT_FALSE(early);
    for (asking_thread *other : asking) {
        EXPECT_TRUE(other->gets_it(10000));
        delete other;
    }
    EXPECT_EQ(blocked(), std::vector<int>());
}

TEST_F(CriticalSection, goes_on_when_the_mask_cannot_be_changed)
{
    fault_row("ttylib_leave", "pthread_sigmask", "EINVAL", "nothing",
              "%s(line %d:pid %d:tid %d): %s fail errno:%d, %s\n",
              "the lock released");
    fault::fail("pthread_sigmask", 1, EINVAL, fault::ALWAYS);
    ttylib_enter();
    ttylib_leave();
    EXPECT_EQ(log(),
              messages({failed("ttylib_set_sigproc", "sigprocmask", EINVAL),
                        failed("ttylib_unset_sigproc", "sig unset", EINVAL)}));
    asking_thread other;
    EXPECT_TRUE(other.gets_it(10000));
}
