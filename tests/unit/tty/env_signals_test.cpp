// What the critical section keeps out while an operation runs.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <ttyline/tty.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/machine.h"
#include "tests/unit/tty/env_fixture.h"

// What a hook inside an operation saw.
static sigset_t mask_inside;
static volatile sig_atomic_t delivered;
static int delivered_inside;

class EnvSignals : public Env
{
  protected:
    void SetUp() override
    {
        Env::SetUp();
        struct sigaction action = {};
        action.sa_handler = [](int number) {
            delivered = number;
        };
        ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
        sigemptyset(&mask_inside);
        sigset_t some;
        sigemptyset(&some);
        sigaddset(&some, SIGUSR2);
        sigaddset(&some, SIGRTMIN);
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &some, nullptr), 0);
    }

    static void note_mask()
    {
        pthread_sigmask(SIG_BLOCK, nullptr, &mask_inside);
    }

    static void raise_one()
    {
        pthread_kill(pthread_self(), SIGUSR1);
        usleep(1000);
        delivered_inside = delivered;
    }

    static bool blocked_inside()
    {
        return sigismember(&mask_inside, SIGUSR1) == 1 &&
               sigismember(&mask_inside, SIGTERM) == 1 &&
               sigismember(&mask_inside, SIGRTMAX) == 1;
    }

    // The mask is that of SetUp again, to the signal.
    static bool restored()
    {
        sigset_t now;
        pthread_sigmask(SIG_BLOCK, nullptr, &now);
        for (int number = 1; number <= SIGRTMAX; number++) {
            const int wanted = number == SIGUSR2 || number == SIGRTMIN ? 1 : 0;
            if (sigismember(&now, number) == 1 - wanted) {
                return false;
            }
        }
        return true;
    }

    // Another thread gets through: the lock is free.
    static bool lock_free()
    {
        int result = -1;
        std::thread other([&] {
            result = tty_setenv(LINE, "PWD", "x");
        });
        other.join();
        return result == 0;
    }
};

TEST_F(EnvSignals, are_blocked_while_the_file_is_locked)
{
    support::not_in_emulator(support::SIGNALS_KEPT);
    fault::run("fcntl", 1, note_mask, 1, fault::only_what(F_SETLKW));
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    EXPECT_TRUE(blocked_inside());
    sigemptyset(&mask_inside);
    fault::run("fcntl", 1, note_mask, 1, fault::only_what(F_SETLK));
    get(LINE, "HOME");
    EXPECT_TRUE(blocked_inside());
}

TEST_F(EnvSignals, are_blocked_while_the_request_is_checked)
{
    support::not_in_emulator(support::SIGNALS_KEPT);
    fault::run("write", 1, note_mask);
    EXPECT_EQ(tty_setenv(LINE, "NONSENSE", "x"), -1);
    EXPECT_TRUE(blocked_inside());
    sigemptyset(&mask_inside);
    fault::run("write", 1, note_mask);
    get(LINE, "NONSENSE");
    EXPECT_TRUE(blocked_inside());
}

TEST_F(EnvSignals, that_arrive_meanwhile_are_delivered_afterwards)
{
    delivered = 0;
    delivered_inside = -1;
    fault::run("rename", 1, raise_one);
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    EXPECT_EQ(delivered_inside, 0);
    EXPECT_EQ(delivered, SIGUSR1);
}

TEST_F(EnvSignals, mask_and_lock_are_as_before_after_every_success)
{
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    EXPECT_TRUE(restored());
    EXPECT_EQ(get(LINE, "HOME"), "x");
    EXPECT_TRUE(restored());
    EXPECT_EQ(get(LINE, "TERM"), "(null)");
    EXPECT_TRUE(restored());
    EXPECT_TRUE(lock_free());
}

TEST_F(EnvSignals, mask_and_lock_are_as_before_after_every_refusal)
{
    tty_setenv(1586, "HOME", "x");
    EXPECT_TRUE(restored());
    tty_setenv(LINE, nullptr, "x");
    EXPECT_TRUE(restored());
    tty_setenv(LINE, "HOME", nullptr);
    EXPECT_TRUE(restored());
    get(LINE, "NONSENSE");
    EXPECT_TRUE(restored());
    EXPECT_TRUE(lock_free());
}

TEST_F(EnvSignals, mask_and_lock_are_as_before_after_every_failure)
{
    const char *const calls[] = {"open", "fcntl", "read", "rename", "write"};
    for (const char *call : calls) {
        fault_row("tty_setenv", call, "EIO", "", "",
                  "signal mask and lock as before, wherever it fails");
    }
    // A get neither writes nor renames.
    for (const char *call : {"open", "fcntl", "read"}) {
        fault_row("tty_getenv", call, "EIO", "", "",
                  "signal mask and lock as before, wherever it fails");
    }
    for (const char *call : calls) {
        for (int nth = 1; nth <= 6; nth++) {
            fault::fail(call, nth, EIO, 1, fault::only_path(".tty_info_"));
            tty_setenv(LINE, "HOME", "x");
            EXPECT_TRUE(restored()) << call << nth;
            fault::reset();
            fault::fail(call, nth, EIO, 1, fault::only_path(".tty_info_"));
            get(LINE, "HOME");
            EXPECT_TRUE(restored()) << call << nth;
            fault::reset();
        }
    }
    EXPECT_TRUE(lock_free());
}

static bool lock_got_early;
static std::thread *lock_asker;
static std::atomic<bool> lock_got;

// The lock comes before the mask and the mask before the file's lock.
TEST_F(EnvSignals, file_is_locked_inside_the_librarys_lock)
{
    lock_got = false;
    fault::run(
        "fcntl", 1,
        [] {
            lock_asker = new std::thread([] {
                tty_lib_lock();
                lock_got = true;
                tty_lib_unlock();
            });
            usleep(50000);
            lock_got_early = lock_got;
        },
        1, fault::only_what(F_SETLKW));
    EXPECT_EQ(tty_setenv(LINE, "HOME", "x"), 0);
    ASSERT_NE(lock_asker, nullptr);
    lock_asker->join();
    delete lock_asker;
    EXPECT_FALSE(lock_got_early);
    EXPECT_TRUE(lock_got);
}
