#include "tty/lock.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <ttyline/tty.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/tty/console_fixture.h"
#include "tests/unit/tty/lock_threads.h"
#include "tests/unit/tty/tty_fixture.h"

class Lock : public tty_test
{
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
