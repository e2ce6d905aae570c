#include "tty/lock.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <thread>

#include <ttyline/tty.h>

#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/console_fixture.h"
#include "tests/unit/tty/tty_fixture.h"

class Lock : public tty_test
{
};

// A thread that holds the lock until it is told to end.
class holding_thread
{
  public:
    holding_thread()
        : thread([this] {
              tty_lib_lock();
              holds = true;
              support::wait_until([this] {
                  return end.load();
              });
              tty_lib_unlock();
          })
    {
        EXPECT_TRUE(support::wait_until([this] {
            return holds.load();
        }));
    }

    ~holding_thread()
    {
        end = true;
        thread.join();
    }

  private:
    std::atomic<bool> holds{false};
    std::atomic<bool> end{false};
    std::thread thread;
};

// A thread that takes the lock once and tells when it had it.
class asking_thread
{
  public:
    asking_thread()
        : thread([this] {
              tty_lib_lock();
              had_it = true;
              tty_lib_unlock();
          })
    {
    }

    ~asking_thread()
    {
        thread.join();
    }

    bool gets_it(int milliseconds)
    {
        return support::wait_until(
            [this] {
                return had_it.load();
            },
            milliseconds);
    }

  private:
    std::atomic<bool> had_it{false};
    std::thread thread;
};

TEST_F(Lock, initialises_itself_on_first_use)
{
    const int made = fault::watch("pthread_mutex_init");
    tty_lib_lock();
    tty_lib_unlock();
    EXPECT_EQ(fault::seen(made), 1);
}

TEST_F(Lock, is_initialised_once_per_process)
{
    const int made = fault::watch("pthread_mutex_init");
    tty_lib_lock_init();
    tty_lib_lock_init();
    tty_lib_lock();
    tty_lib_lock_init();
    tty_lib_unlock();
    EXPECT_EQ(fault::seen(made), 1);
}

TEST_F(Lock, second_initialisation_keeps_it_held)
{
    tty_lib_lock();
    tty_lib_lock_init();
    asking_thread other;
    EXPECT_FALSE(other.gets_it(50));
    tty_lib_unlock();
}

TEST_F(Lock, keeps_other_threads_out)
{
    tty_lib_lock();
    asking_thread other;
    EXPECT_FALSE(other.gets_it(50));
    tty_lib_unlock();
    EXPECT_TRUE(other.gets_it(10000));
}

TEST_F(Lock, taken_twice_is_free_after_the_second_unlock)
{
    tty_lib_lock();
    tty_lib_lock();
    asking_thread other;
    tty_lib_unlock();
    EXPECT_FALSE(other.gets_it(50));
    tty_lib_unlock();
    EXPECT_TRUE(other.gets_it(10000));
}

TEST_F(Lock, counts_of_many_threads_are_not_lost)
{
    int count = 0;
    {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; i++) {
            threads.emplace_back([&count] {
                for (int n = 0; n < 2000; n++) {
                    tty_lib_lock();
                    count++;
                    tty_lib_unlock();
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(count, 16000);
}

TEST_F(Lock, first_uses_of_many_threads_initialise_it_once)
{
    // Slow, so that all of them arrive before it is made.
    fault::run(
        "pthread_mutex_init", 1,
        [] {
            usleep(20000);
        },
        fault::ALWAYS);
    const int made = fault::watch("pthread_mutex_init");
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&go] {
            while (!go.load()) {
            }
            tty_lib_lock();
            tty_lib_unlock();
        });
    }
    go = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(fault::seen(made), 1);
}

TEST_F(Lock, is_initialised_again_in_a_forked_child)
{
    tty_lib_lock();
    tty_lib_unlock();
    const int status = support::in_child([] {
        fault::reset();
        tty_lib_lock_init();
        tty_lib_lock_init();
        return fault::calls("pthread_mutex_init") == 1;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Lock, is_free_in_a_forked_child_though_a_thread_of_the_parent_holds_it)
{
    holding_thread holder;
    const int status = support::in_child([] {
        tty_lib_lock();
        tty_lib_lock();
        tty_lib_unlock();
        tty_lib_unlock();
        return true;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Lock, is_free_in_a_forked_child_though_its_own_thread_held_it)
{
    tty_lib_lock();
    const int status = support::in_child([] {
        tty_lib_lock();
        tty_lib_unlock();
        return true;
    });
    tty_lib_unlock();
    EXPECT_EQ(status, 0);
}

TEST_F(Lock, is_free_in_the_child_of_a_child)
{
    holding_thread holder;
    const int status = support::in_child([] {
        tty_lib_lock();
        return support::in_child([] {
                   tty_lib_lock();
                   tty_lib_unlock();
                   return true;
               }) == 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Lock, child_forked_while_it_is_being_made_makes_its_own)
{
    static int status;
    status = -1;
    fault::run("pthread_mutex_init", 1, [] {
        status = support::in_child([] {
            tty_lib_lock();
            tty_lib_unlock();
            return true;
        });
    });
    tty_lib_lock();
    tty_lib_unlock();
    EXPECT_EQ(status, 0);
}

class LockFailure : public console_test
{
  protected:
    std::string message(int error) const
    {
        return "tty_lib_lock_init(line N:pid " + std::to_string(getpid()) +
               ":tid:" + std::to_string(gettid()) +
               "): lock init err:" + strerror(error) + "\r\n";
    }
};

TEST_F(LockFailure, of_each_step_is_told_on_the_console_and_tried_again)
{
    fault_row("tty_lib_lock_init", "pthread_mutexattr_init", "ENOMEM",
              "nothing: it is tried again",
              "%s(line %d:pid %d:tid:%d): lock init err:%s\r\n",
              "a lock that can be taken; the line is on the console only");
    fault_row("tty_lib_lock_init", "pthread_mutexattr_settype", "ENOMEM",
              "nothing: it is tried again",
              "%s(line %d:pid %d:tid:%d): lock init err:%s\r\n",
              "a lock that can be taken; the line is on the console only");
    fault_row("tty_lib_lock_init", "pthread_mutex_init", "ENOMEM",
              "nothing: it is tried again",
              "%s(line %d:pid %d:tid:%d): lock init err:%s\r\n",
              "a lock that can be taken; the line is on the console only");
    make_console();
    for (const char *step :
         {"pthread_mutexattr_init", "pthread_mutexattr_settype",
          "pthread_mutex_init"}) {
        const int status = support::in_child([&] {
            fault::reset();
            fault::fail(step, 1, ENOMEM);
            errno = EAGAIN;
            tty_lib_lock_init();
            tty_lib_lock();
            tty_lib_unlock();
            return fault::calls(step) == 2 &&
                   support::unlined(console()) == message(EAGAIN);
        });
        EXPECT_EQ(status, 0) << step;
    }
    EXPECT_FALSE(support::exists("/mng/tty/.tty_lib_dump.txt"));
}

TEST_F(LockFailure, message_carries_the_text_of_errno)
{
    fault_row("tty_lib_lock_init", "pthread_mutex_init", "ENOMEM",
              "nothing: it is tried again",
              "%s(line %d:pid %d:tid:%d): lock init err:%s\r\n",
              "the line has the text of errno, not of the result");
    make_console();
    fault::fail("pthread_mutex_init", 1, ENOMEM);
    errno = EAGAIN;
    tty_lib_lock_init();
    EXPECT_EQ(support::unlined(console()), message(EAGAIN));
}

TEST_F(LockFailure, of_the_attributes_skips_what_is_behind_them)
{
    fault_row("tty_lib_lock_init", "pthread_mutexattr_init", "ENOMEM",
              "nothing: it is tried again", "", "the mutex is made once");
    const int begun = fault::watch("pthread_mutexattr_init");
    const int typed = fault::watch("pthread_mutexattr_settype");
    const int made = fault::watch("pthread_mutex_init");
    fault::fail("pthread_mutexattr_init", 1, ENOMEM, 3);
    tty_lib_lock_init();
    EXPECT_EQ(fault::seen(begun), 4);
    EXPECT_EQ(fault::seen(typed), 1);
    EXPECT_EQ(fault::seen(made), 1);
}

TEST_F(LockFailure, of_the_type_skips_the_mutex_and_starts_afresh)
{
    fault_row("tty_lib_lock_init", "pthread_mutexattr_settype", "ENOMEM",
              "nothing: it is tried again", "", "the mutex is made once");
    const int begun = fault::watch("pthread_mutexattr_init");
    const int typed = fault::watch("pthread_mutexattr_settype");
    const int made = fault::watch("pthread_mutex_init");
    fault::fail("pthread_mutexattr_settype", 1, ENOMEM, 3);
    tty_lib_lock_init();
    EXPECT_EQ(fault::seen(begun), 4);
    EXPECT_EQ(fault::seen(typed), 4);
    EXPECT_EQ(fault::seen(made), 1);
}

TEST_F(LockFailure, is_repeated_without_limit_and_without_pause)
{
    fault_row("tty_lib_lock_init", "pthread_mutex_init", "EAGAIN",
              "nothing, after 1000 attempts without a pause",
              "%s(line %d:pid %d:tid:%d): lock init err:%s\r\n",
              "one line for each attempt, on the console");
    make_console();
    const int failed = fault::watch("pthread_mutex_init");
    const int sleeps = fault::watch("usleep");
    fault::fail("pthread_mutex_init", 1, EAGAIN, 1000);
    errno = EAGAIN;
    std::thread reading([this] {
        size_t lines = 0;
        const auto all = [&] {
            for (const char c : console()) {
                lines += c == '\n';
            }
            return lines == 1000;
        };
        EXPECT_TRUE(support::wait_until(all));
    });
    tty_lib_lock_init();
    reading.join();
    EXPECT_EQ(fault::seen(failed), 1001);
    EXPECT_EQ(fault::seen(sleeps), 0);
}

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
    ttylib_set_sigproc();
    EXPECT_EQ(blocked(), all());
    ttylib_unset_sigproc();
    EXPECT_EQ(blocked(), std::vector<int>());
    EXPECT_EQ(tty_log(), messages());
}

TEST_F(SignalMask, that_was_there_before_comes_back_exactly)
{
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
