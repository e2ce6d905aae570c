// The daemon's second thread, and what it cannot begin without. Where it runs,
// it does so in a process of its own: it never ends.
#include "kit/warden.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "kit/bell.h"
#include "kit/clock.h"
#include "kit/service.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

class KitWarden : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        control = path("/control");
        daemon.size = sizeof daemon;
        daemon.control = control.c_str();
    }

    // A session whose keeper is this process, or nobody's number yet.
    static kit_entry *session_of(pid_t keeper)
    {
        static kit_node node;
        kit_entry *entry = kit_entry_make(258);
        int ends[2];
        kit_pair_open(ends);
        entry->node = &node;
        entry->bell = ends[0];
        entry->keeper_bell = ends[1];
        entry->session.keeper_pid = keeper;
        kit_table_put(entry);
        return entry;
    }

    // Starts the warden in a process of its own, which then does this.
    int in_daemon(const std::function<bool()> &work)
    {
        return support::in_child(
            [&] {
                return kit_warden_start(&daemon) == 0 && work();
            },
            PATIENCE_MS);
    }

    // Whether the daemon has ended the bell of a session.
    static bool ends_bell(const kit_entry *entry)
    {
        char byte;
        return support::wait_until(
            [&] {
                return recv(entry->keeper_bell, &byte, 1, MSG_DONTWAIT) == 0;
            },
            PATIENCE_MS);
    }

    static pid_t start_bystander()
    {
        const pid_t pid = fork();
        if (pid == 0) {
            for (;;) {
                pause();
            }
        }
        return pid;
    }

    static bool runs(pid_t pid)
    {
        return waitpid(pid, nullptr, WNOHANG) == 0;
    }

    static constexpr int PATIENCE_MS = 20000;
    std::string control;
    kit_daemon daemon = {};
};

TEST_F(KitWarden, daemon_without_what_it_needs_does_not_begin)
{
    fault_row("kit_warden_start", "eventfd", "EMFILE", "-1", "",
              "no control socket");
    fault_row("kit_warden_start", "signalfd", "EMFILE", "-1", "",
              "no control socket");
    fault_row("kit_warden_start", "pthread_create", "EAGAIN", "-1", "",
              "no control socket");
    const struct {
        const char *call;
        int error;
        const char *reason;
    } cases[] = {
        {"eventfd", EMFILE, "no descriptor: Too many open files"},
        {"signalfd", EMFILE, "no descriptor: Too many open files"},
        {"pthread_create", EAGAIN,
         "no thread: Resource temporarily unavailable"},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(support::in_child([&] {
                      fault::fail(one.call, 1, one.error);
                      return kit_warden_start(&daemon) == -1 &&
                             std::string(kit_error()) == one.reason &&
                             !support::exists(control);
                  }),
                  0)
            << one.call;
    }
}

TEST_F(KitWarden, keeper_that_does_not_speak_is_killed_and_its_bell_ended)
{
    const pid_t keeper = start_bystander();
    EXPECT_EQ(in_daemon([&] {
                  const kit_entry *entry = session_of(keeper);
                  const_cast<kit_entry *>(entry)->deadline_ms = kit_now_ms();
                  kit_warden_deadline(entry->deadline_ms);
                  return ends_bell(entry);
              }),
              0);
    EXPECT_EQ(support::wait_child(keeper), SIGKILL);
}

// Its number may be somebody else's when it cannot be held.
TEST_F(KitWarden, keeper_that_cannot_be_held_is_not_killed)
{
    fault_row("kit_warden_deadline", "syscall", "EMFILE", "nothing", "",
              "the keeper, with the end of its bell");
    const pid_t bystander = start_bystander();
    EXPECT_EQ(in_daemon([&] {
                  fault::fail("syscall", 1, EMFILE, fault::ALWAYS,
                              fault::only_what(SYS_pidfd_open));
                  kit_entry *entry = session_of(bystander);
                  entry->deadline_ms = kit_now_ms();
                  kit_warden_deadline(entry->deadline_ms);
                  return ends_bell(entry);
              }),
              0);
    EXPECT_TRUE(runs(bystander));
    kill(bystander, SIGKILL);
    EXPECT_EQ(support::wait_child(bystander), SIGKILL);
}

// It has gone, and its number was given to another.
TEST_F(KitWarden, keeper_whose_bell_has_ended_is_not_killed)
{
    const pid_t bystander = start_bystander();
    EXPECT_EQ(in_daemon([&] {
                  kit_entry *entry = session_of(bystander);
                  kit_close(&entry->keeper_bell);
                  const int held =
                      fault::watch("shutdown", fault::only_fd(entry->bell));
                  entry->deadline_ms = kit_now_ms();
                  kit_warden_deadline(entry->deadline_ms);
                  return support::wait_until(
                      [held] {
                          return fault::seen(held) > 0;
                      },
                      PATIENCE_MS);
              }),
              0);
    EXPECT_TRUE(runs(bystander));
    kill(bystander, SIGKILL);
    EXPECT_EQ(support::wait_child(bystander), SIGKILL);
}

TEST_F(KitWarden, wait_that_is_interrupted_is_begun_again)
{
    fault_row("kit_warden_start", "poll", "EINTR", "nothing", "",
              "the thread goes on");
    EXPECT_EQ(in_daemon([&] {
                  fault::fail("poll", 1, EINTR, 5);
                  kit_entry *entry = session_of(0);
                  entry->deadline_ms = kit_now_ms() + 50;
                  kit_warden_deadline(entry->deadline_ms);
                  return ends_bell(entry);
              }),
              0);
}

// Asked twice, it has no more time for it, nor less; a session whose program
// is not known yet has none to end by force.
TEST_F(KitWarden, end_of_the_daemon_is_asked_for_once)
{
    const int64_t before = kit_now_ms();
    EXPECT_EQ(in_daemon([&] {
                  session_of(0);
                  for (int i = 0; i < 2; i++) {
                      kill(getpid(), SIGTERM);
                      usleep(300000);
                  }
                  for (;;) {
                      pause();
                  }
                  return false;
              }),
              0);
    const int64_t took = kit_now_ms() - before;
    EXPECT_GE(took, 3000) << "two seconds to end, one after the force";
    EXPECT_FALSE(support::exists(control));
}
