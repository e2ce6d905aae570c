#include "programs/ttylined/command.h"

#include <gtest/gtest.h>

#include "tests/support/login_records.h"

// The state of a daemon that nobody has connected to.
class Command : public testing::Test
{
  protected:
    void SetUp() override
    {
        pool_init(srv.lines.pool);
    }

    std::string ask(const std::string &line)
    {
        std::string reply;

        command_run(srv, line, reply);
        return reply;
    }

    server srv;
};

TEST_F(Command, an_empty_line_has_no_answer)
{
    EXPECT_EQ(ask(""), "");
    EXPECT_EQ(ask("   "), "");
}

TEST_F(Command, an_unknown_one_is_shown_as_text_and_not_whole)
{
    EXPECT_EQ(ask("\x1b[2J"),
              "error: unknown command \"\\x1b[2J\", try help\n");
    EXPECT_EQ(ask(std::string(500, 'x')), "error: unknown command \"" +
                                              std::string(40, 'x') +
                                              "\", try help\n");
}

TEST_F(Command, help_names_command_arguments_and_purpose)
{
    EXPECT_NE(
        ask("help").find("list                         lines in use\n"
                         "services                     listen requests\n"
                         "clear LINE                   end a session\n"
                         "stop PROTOCOL                close the listeners\n"),
        std::string::npos);
}

TEST_F(Command, list_has_a_row_for_each_line_in_use)
{
    tty_cmsg report = accept_report(6, 7, 1);
    report.pid = 4711;
    ASSERT_EQ(pool_take(srv.lines.pool, 3, report), 258);
    EXPECT_EQ(ask("list"),
              "line  protocol client client-pid session-pid state    peer\n"
              "258   6        3      4711       0           assigned "
              "192.0.2.7:40000\n");
}

TEST_F(Command, clear_needs_a_line_whose_daemon_is_there)
{
    EXPECT_EQ(ask("clear 258"), "error: line 258 is free\n");
    ASSERT_EQ(pool_take(srv.lines.pool, 3, accept_report(6, 7, 1)), 258);
    EXPECT_EQ(ask("clear 258"),
              "error: the daemon of line 258 is not connected\n");
    EXPECT_EQ(ask("clear 1586"), "error: clear LINE, a line from 0 to 1585\n");
}

TEST_F(Command, hold_and_release_follow_each_other)
{
    EXPECT_EQ(ask("release"), "error: no line is held\n");
    EXPECT_EQ(ask("hold none 1800"), "ok: all lines, 1800 s left\n");
    EXPECT_EQ(ask("hold 300 0"), "ok: all lines but 300, until released\n");
    EXPECT_EQ(srv.lines.hold.except, 300);
    EXPECT_EQ(ask("release"), "ok: released\n");
    EXPECT_EQ(ask("hold 300 1801").rfind("error: hold ", 0), 0U);
}

TEST_F(Command, quit_ends_the_daemon)
{
    EXPECT_EQ(ask("quit"), "ok: ending\n");
    EXPECT_TRUE(srv.ending);
}
