// What the service manager hears of a loop that the test plays.
#include "kit/watchdog.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

static void wake_up(int)
{
}

class KitWatchdogLook : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        struct sigaction woken = {};
        woken.sa_handler = wake_up;
        sigaction(SIGHUP, &woken, nullptr);
        manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string name = path("/manager");
        name.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address),
                       sizeof address),
                  0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }

    void TearDown() override
    {
        if (loop.joinable()) {
            over = true;
            pthread_kill(loop.native_handle(), SIGHUP);
            loop.join();
        }
        close(manager);
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        runtime_test::TearDown();
    }

    // A thread that waits as the loop does, and turns when it is woken.
    void start_loop()
    {
        loop = std::thread([this] {
            kit_watchdog_begin();
            begun = true;
            while (!over) {
                timeval minute = {60, 0};
                select(0, nullptr, nullptr, nullptr, &minute);
            }
        });
        ASSERT_TRUE(support::wait_until([this] {
            return begun.load();
        }));
    }

    std::string heard() const
    {
        char text[64];
        const ssize_t got = recv(manager, text, sizeof text, MSG_DONTWAIT);
        return std::string(text, got > 0 ? static_cast<size_t>(got) : 0);
    }

    // Looks, each time when it was asked to at the earliest.
    bool hears(const std::string &word, int times = 2000)
    {
        for (int i = 0; i < times; i++) {
            now = kit_watchdog_look(now) != 0 ? now + 60 : now;
            if (heard() == word) {
                return true;
            }
            usleep(2000);
        }
        return false;
    }

    int manager = -1;
    int64_t now = 1000000;
    std::atomic<bool> begun{false};
    std::atomic<bool> over{false};
    std::thread loop;
};

TEST_F(KitWatchdogLook, ready_is_told_once_without_a_watchdog)
{
    start_loop();
    EXPECT_TRUE(hears("READY=1"));
    EXPECT_EQ(kit_watchdog_look(now), 0);
    EXPECT_EQ(heard(), "");
}

TEST_F(KitWatchdogLook, life_is_told_twice_in_the_watchdogs_time)
{
    setenv("WATCHDOG_USEC", "20000000", 1);
    start_loop();
    EXPECT_TRUE(hears("READY=1"));
    const int64_t next = kit_watchdog_look(now);
    EXPECT_GT(next, now + 9000);
    EXPECT_EQ(kit_watchdog_look(next - 1), next);
    now = next;
    EXPECT_TRUE(hears("WATCHDOG=1"));
}

TEST_F(KitWatchdogLook, nothing_is_looked_at_without_a_manager)
{
    unsetenv("NOTIFY_SOCKET");
    start_loop();
    EXPECT_EQ(kit_watchdog_look(now), 0);
}

// What is not known is not told.
TEST_F(KitWatchdogLook, loop_that_the_kernel_does_not_tell_of_counts_as_stuck)
{
    fault_row("kit_watchdog_look", "open", "EMFILE", "when to look again", "",
              "the manager hears nothing");
    fault_row("kit_watchdog_look", "read", "EIO", "when to look again", "",
              "the manager hears nothing");
    for (const char *call : {"open", "read"}) {
        for (const char *name : {"/status", "/syscall"}) {
            EXPECT_EQ(support::in_child(
                          [&] {
                              start_loop();
                              fault::fail(call, 1, EIO, fault::ALWAYS,
                                          fault::only_path(name));
                              const bool told = hears("READY=1", 30);
                              fault::reset();
                              return !told && hears("READY=1");
                          },
                          20000),
                      0)
                << call << name;
        }
    }
}

TEST_F(KitWatchdogLook, page_without_the_count_tells_nothing)
{
    fault_row("kit_watchdog_look", "read", "short", "when to look again", "",
              "the manager hears nothing");
    start_loop();
    fault::shorten("read", 1, 10, fault::ALWAYS, fault::only_path("/status"));
    EXPECT_FALSE(hears("READY=1", 30));
    fault::reset();
    EXPECT_TRUE(hears("READY=1"));
}
