// What a killed keeper leaves, on a clock of the test's.
#include "kit/leftover.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kit/line.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/runtime.h"
#include "tests/support/wait.h"

static int64_t g_now;

static int told_time(clockid_t, struct timespec *now)
{
    *now = {g_now / 1000, g_now % 1000 * 1000000};
    return 0;
}

class KitLeftover : public support::runtime_test
{
  protected:
    void SetUp() override
    {
        runtime_test::SetUp();
        make_directories();
        g_now = 1000000;
        REPLACE_CALL(clock_gettime, told_time);
        entry = kit_entry_make(LINE);
        const kit_pair identity[] = {{"LOGNAME", "alice"},
                                     {"SESSIONID", entry->id}};
        ASSERT_EQ(kit_line_begin(LINE, identity, 2, 0), 0);
        fault::replacing(true);
    }

    void TearDown() override
    {
        fault::replacing(false);
        kit_entry_free(entry);
        runtime_test::TearDown();
    }

    bool clean() const
    {
        return support::slurp(path("/mng/tty/.tty_info_300"))
                   .find("SESSIONID=0\r\n") != std::string::npos;
    }

    // As the session's program, which does not care for a hang-up.
    void start_program()
    {
        int ready[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        entry->program = fork();
        if (entry->program == 0) {
            setsid();
            signal(SIGHUP, SIG_IGN);
            close(ready[1]);
            for (;;) {
                pause();
            }
        }
        close(ready[1]);
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 0);
        close(ready[0]);
    }

    static constexpr int LINE = 300;
    kit_entry *entry = nullptr;
};

TEST_F(KitLeftover, line_is_cleaned_at_once_and_its_programs_after_five_seconds)
{
    EXPECT_EQ(kit_leftover_tidy(g_now), 0);
    start_program();
    kit_leftover_add(entry);
    EXPECT_EQ(kit_leftover_tidy(g_now), g_now + 5000);
    EXPECT_TRUE(clean());
    EXPECT_EQ(kit_leftover_tidy(g_now + 4999), g_now + 5000);
    EXPECT_EQ(waitpid(entry->program, nullptr, WNOHANG), 0);
    EXPECT_EQ(kit_leftover_tidy(g_now + 5000), 0);
    fault::replacing(false);
    EXPECT_EQ(support::wait_child(entry->program), SIGKILL);
    // There is nothing left to look at.
    EXPECT_EQ(kit_leftover_tidy(g_now + 9000), 0);
}

TEST_F(KitLeftover, locked_line_is_tried_for_a_minute)
{
    fault_row("kit_leftover_tidy", "open", "EMFILE", "when to try again", "",
              "after 60 attempts the line as it was");
    const auto lock = fault::only_path("tty_info_300.lock");
    const int tries = fault::watch("open", lock);
    fault::fail("open", 1, EMFILE, fault::ALWAYS, lock);
    kit_leftover_add(entry);
    EXPECT_EQ(kit_leftover_tidy(g_now), g_now + 1000);
    for (int64_t second = 1; second < 59; second++) {
        // Nothing is tried before its time.
        kit_leftover_tidy(g_now + second * 1000 - 1);
        EXPECT_EQ(kit_leftover_tidy(g_now + second * 1000),
                  g_now + (second + 1) * 1000);
    }
    EXPECT_EQ(kit_leftover_tidy(g_now + 59000), 0);
    EXPECT_EQ(fault::seen(tries), 60);
    EXPECT_EQ(kit_leftover_tidy(g_now + 60000), 0);
    EXPECT_EQ(fault::seen(tries), 60);
    EXPECT_FALSE(clean());
}

TEST_F(KitLeftover, session_that_was_killed_next_takes_the_others_place)
{
    fault_row("kit_leftover_tidy", "open", "EMFILE", "when to try again", "",
              "the line is cleaned at the next attempt");
    fault::fail("open", 1, EMFILE, 1, fault::only_path(".lock"));
    kit_leftover_add(entry);
    EXPECT_EQ(kit_leftover_tidy(g_now), g_now + 1000);
    kit_leftover_add(entry);
    EXPECT_EQ(kit_leftover_tidy(g_now), 0);
    EXPECT_TRUE(clean());
}

// A client that comes and goes on the same line would save them.
TEST_F(KitLeftover,
       programs_end_although_the_next_session_of_the_line_ends_first)
{
    start_program();
    kit_leftover_add(entry);
    EXPECT_EQ(kit_leftover_tidy(g_now), g_now + 5000);
    kit_entry *next = kit_entry_make(LINE);
    next->empty = true;
    kit_leftover_add(next);
    EXPECT_EQ(kit_leftover_tidy(g_now + 1000), g_now + 5000);
    EXPECT_EQ(kit_leftover_tidy(g_now + 5000), 0);
    fault::replacing(false);
    const pid_t program = entry->program;
    EXPECT_EQ(support::wait_child(program, 2000), SIGKILL);
    kit_entry_free(next);
}

static kit_entry *g_next;

// While its line is being cleaned.
TEST_F(KitLeftover, session_that_comes_in_between_is_not_forgotten)
{
    g_next = kit_entry_make(LINE);
    const kit_pair identity[] = {{"SESSIONID", g_next->id}};
    fault::run(
        "open", 1,
        [] {
            kit_leftover_add(g_next);
        },
        1, fault::only_path(".lock"));
    kit_leftover_add(entry);
    kit_leftover_tidy(g_now);
    ASSERT_EQ(kit_line_begin(LINE, identity, 1, 0), 0);
    EXPECT_FALSE(clean());
    EXPECT_EQ(kit_leftover_tidy(g_now), 0);
    EXPECT_TRUE(clean());
    kit_entry_free(g_next);
}

// A number that was given back may be another's.
TEST_F(KitLeftover, session_of_which_nobody_is_left_is_not_looked_for)
{
    start_program();
    entry->empty = true;
    kit_leftover_add(entry);
    EXPECT_EQ(kit_leftover_tidy(g_now), 0);
    EXPECT_TRUE(clean());
    EXPECT_EQ(kill(entry->program, 0), 0);
    fault::replacing(false);
    kill(entry->program, SIGKILL);
    EXPECT_EQ(support::wait_child(entry->program), SIGKILL);
}

TEST_F(KitLeftover, end_of_the_daemon_cleans_the_lines_of_all_sessions)
{
    kit_table_put(entry);
    kit_leftover_end(g_now);
    EXPECT_TRUE(clean());
    kit_table_take(entry);
}
