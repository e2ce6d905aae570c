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

    // What stands before the "ok" of the end; an error as it is.
    std::string ask(const std::string &line)
    {
        std::string reply = command_run(srv, line);
        const std::string end = "ok\n";

        if (reply.rfind("error: ", 0) != 0) {
            EXPECT_EQ(reply.substr(reply.size() - end.size()), end);
            reply.resize(reply.size() - end.size());
        }
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
        ask("help").find("list                            lines in use\n"
                         "services                        listen requests\n"
                         "clear LINE                      end a session\n"
                         "stop PROTOCOL                   close the "
                         "listeners\n"),
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

TEST_F(Command, quit_says_how_many_sessions_it_ends_and_wants_a_yes)
{
    EXPECT_EQ(ask("quit"), "error: this ends 0 sessions; say it with --yes\n");
    ASSERT_EQ(pool_take(srv.lines.pool, 3, accept_report(6, 7, 1)), 258);
    EXPECT_EQ(ask("quit"), "error: this ends 1 session; say it with --yes\n");
    EXPECT_EQ(ask("quit yes").rfind("error: ", 0), 0U);
    EXPECT_FALSE(srv.ending);
    EXPECT_EQ(ask("quit --yes"), "ok: ending\n");
    EXPECT_TRUE(srv.ending);
}

TEST_F(Command, delete_counts_the_sessions_of_the_daemons_that_it_resets)
{
    for (const unsigned number : {3U, 4U}) {
        const tty_cmsg permit =
            listen_request(2320 + static_cast<int>(number), 6);
        srv.daemons.clients[number].number = number;
        srv.daemons.clients[number].services.push_back({permit, "permitted"});
        ASSERT_GE(pool_take(srv.lines.pool, number, accept_report(6, 7, 1)),
                  258);
    }
    ASSERT_GE(pool_take(srv.lines.pool, 3, accept_report(6, 8, 2)), 258);
    EXPECT_EQ(ask("delete-port 6 2323"),
              "error: this ends 2 sessions; say it with --yes\n");
    EXPECT_EQ(ask("delete-port 6 2324"),
              "error: this ends 1 session; say it with --yes\n");
    EXPECT_EQ(ask("delete-port 6 2325 --yes"),
              "error: no client announced such a service\n");
    EXPECT_STREQ(srv.daemons.clients[3].services[0].state, "permitted");
}

TEST_F(Command, the_word_json_at_the_end_asks_for_an_object)
{
    tty_cmsg report = accept_report(6, 7, 1);
    report.pid = 4711;
    ASSERT_EQ(pool_take(srv.lines.pool, 3, report), 258);
    pool_facts(srv.lines.pool, 258)->speed = 9600;
    EXPECT_EQ(command_run(srv, "list --json"),
              "{\"lines\":[{\"line\":258,\"protocol\":6,\"client\":3,"
              "\"client-pid\":4711,\"session-pid\":0,"
              "\"state\":\"assigned\",\"peer\":\"192.0.2.7:40000\"}]}\n");
    EXPECT_EQ(command_run(srv, "admin --json"),
              "{\"hold\":\"none\",\"waiting\":0,\"lines\":[{\"line\":258,"
              "\"login\":\"no\",\"speed\":9600}]}\n");
    EXPECT_EQ(command_run(srv, "services --json"), "{\"services\":[]}\n");
    EXPECT_EQ(command_run(srv, "hold none 0 --json"),
              "{\"ok\":true,\"notes\":[\"all lines, until released\"]}\n");
    EXPECT_EQ(command_run(srv, "frob --json"),
              "{\"error\":\"unknown command \\\"frob\\\", try help\"}\n");
    EXPECT_EQ(command_run(srv, "help --json").rfind("{\"help\":[{\"text\":", 0),
              0U);
    EXPECT_EQ(command_run(srv, "--json"), "{\"ok\":true}\n");
    EXPECT_EQ(command_run(srv, "quit --yes --json"),
              "{\"ok\":true,\"notes\":[\"ending\"]}\n");
}
