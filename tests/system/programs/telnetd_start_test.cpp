// What the telnet daemon starts with, and whom it lets in.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/programs/telnetd_run.h"
#include "tests/system/support/unprivileged.h"

TEST_F(Telnetd, tells_its_version_and_what_it_takes)
{
    int code = -1;
    EXPECT_EQ(output_of(TTYLINE_TELNETD_PATH, {"--version"}, "", &code),
              "ttyline-telnetd (ttyline) " TTYLINE_VERSION "\n");
    EXPECT_EQ(code, 0);
    const std::string help =
        output_of(TTYLINE_TELNETD_PATH, {"--help"}, "", &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(help.find("Nothing is\nencrypted"), std::string::npos) << help;
}

TEST_F(Telnetd, gives_nobody_the_rights_of_root)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root has them";
    }
    int code = -1;
    const std::string text = output_of(
        TTYLINE_TELNETD_PATH,
        {"--port", "2323", "--allow", "127.0.0.1", "--no-authentication"}, "",
        &code);
    EXPECT_EQ(code, 2);
    EXPECT_NE(text.find("whoever may connect would be root"), std::string::npos)
        << text;
}

// What a user who is not root is told.
static void expect_refusal(const std::vector<std::string> &arguments,
                           const std::string &part)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Program daemon(TTYLINE_TELNETD_PATH, arguments, [&] {
        become_user();
        dup2(ends[1], STDERR_FILENO);
    });
    EXPECT_EQ(daemon.exit_code(), 2);
    close(ends[1]);
    Peer told(ends[0]);
    const std::string text = told.text_to_end();
    EXPECT_NE(text.find(part), std::string::npos) << text;
}

TEST_F(Telnetd, wants_to_know_who_may_come_in)
{
    expect_refusal({"--port", "2323", "--no-authentication"},
                   "--port needs --allow");
}

TEST_F(Telnetd, takes_no_program_but_by_its_option)
{
    expect_refusal({"--port", "2323", "--allow", "any", "/bin/cat"},
                   "a program is named by --program");
}

TEST_F(Telnetd, ends_on_sigterm)
{
    start("echo ready; read x");
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until("ready\r\n");
    kill(daemon->pid(), SIGTERM);
    EXPECT_EQ(daemon->exit_code(), 0);
    daemon.reset();
    EXPECT_NE(peer->text_to_end().find("the service is shutting down"),
              std::string::npos);
}

TEST_F(Telnetd, tells_who_is_refused_in_plain_text)
{
    start("echo ready; read x", {"--sessions", "1"});
    const auto first = connect();
    ASSERT_TRUE(first->refuse());
    first->text_until("ready\r\n");
    const auto second = connect();
    EXPECT_EQ(second->text_to_end(),
              "ttyline: all sessions of this service are in use\r\n");
    EXPECT_EQ(second->commands(), "");
}

TEST_F(Telnetd, lists_its_sessions_and_ends_one)
{
    start("echo ready; read x");
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    peer->text_until("ready\r\n");
    EXPECT_TRUE(eventually([&] {
        const std::string row = ask("sessions");
        return row.find("line=258 ") != std::string::npos &&
               row.find(" service=telnet ") != std::string::npos &&
               row.find(" peer=127.0.0.1 ") != std::string::npos &&
               row.find(" device=/dev/pts/") != std::string::npos;
    })) << ask("sessions");
    EXPECT_EQ(ask("kick 258 enough for today"), "ok\n");
    EXPECT_NE(peer->text_to_end().find("enough for today"), std::string::npos);
}

TEST_F(Telnetd, ends_a_session_that_is_idle)
{
    start("echo ready; read x", {"--idle", "1"});
    const auto peer = connect();
    ASSERT_TRUE(peer->refuse());
    EXPECT_NE(peer->text_to_end().find("nothing has moved for too long"),
              std::string::npos);
}
