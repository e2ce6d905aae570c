// The commands of the line console.
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "tests/support/line_peers.h"
#include "tests/system/programs/rl_con_run.h"

TEST_F(RlCon, takes_option_and_value_in_one_argument)
{
    const std::string greeting = start();
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer ins;"), 0u)
        << greeting;
}

TEST_F(RlCon, takes_an_unknown_peer)
{
    const std::string greeting = start({"-n 300", "-t /dev/pts/4"});
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer unknown;"), 0u)
        << greeting;
}

TEST_F(RlCon, takes_separate_arguments)
{
    const std::string greeting =
        start({"-n", "300", "-t", "/dev/pts/4", "-i", "vty2(10.0.0.5)"});
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer vty2(10.0.0.5);"), 0u)
        << greeting;
}

TEST_F(RlCon, takes_values_without_a_blank)
{
    const std::string greeting = start({"-n300", "-t/dev/pts/4", "-iins"});
    EXPECT_EQ(greeting.find("line 300 on /dev/pts/4, peer ins;"), 0u)
        << greeting;
}

TEST_F(RlCon, shows_its_own_terminal_when_no_device_is_given)
{
    const std::string greeting = start({"-n 300"});
    EXPECT_EQ(greeting.find("line 300 on " + terminal.device() + ","), 0u)
        << greeting;
}

TEST_F(RlCon, refuses_a_bad_command_line)
{
    const std::vector<std::vector<std::string>> bad = {
        {},        {"-n", "1586"},  {"-n", ""}, {"-n", "x"}, {"-n", "3x"},
        {"-n -1"}, {"-n 300", "x"}, {"-x"},     {"-n"}};
    for (const auto &arguments : bad) {
        int code = -1;
        const std::string text = output_of(RL_CON_PATH, arguments, "", &code);
        EXPECT_EQ(code, 2) << text;
        EXPECT_FALSE(text.empty());
    }
}

TEST_F(RlCon, documents_its_exit_codes)
{
    int code = -1;
    const std::string text = output_of(RL_CON_PATH, {"--help"}, "", &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("Exit codes: 0 "), std::string::npos) << text;
}

TEST_F(RlCon, version_is_that_of_the_project)
{
    int code = -1;
    EXPECT_EQ(output_of(RL_CON_PATH, {"--version"}, "", &code),
              "rl-con " TTYLINE_VERSION "\n");
    EXPECT_EQ(code, 0);
}

TEST_F(RlCon, shows_the_line_and_its_stored_keys)
{
    ASSERT_EQ(tty_setenv(300, "LOGNAME", "alice"), 0);
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    ASSERT_EQ(tty_setenv(301, "PEERNAME", "other"), 0);
    start();
    EXPECT_EQ(answer("show"), "line    300\r\n"
                              "device  /dev/pts/4\r\n"
                              "peer    ins\r\n"
                              "LOGNAME=alice\r\n"
                              "EXECNUM=7\r\n");
}

TEST_F(RlCon, shows_a_line_that_has_no_keys)
{
    start();
    EXPECT_EQ(answer("show"), "line    300\r\n"
                              "device  /dev/pts/4\r\n"
                              "peer    ins\r\n"
                              "no stored keys\r\n");
}

TEST_F(RlCon, stores_a_value_with_its_blanks)
{
    start();
    EXPECT_EQ(answer("  set LOGNAME  bob  smith "), "stored\r\n");
    EXPECT_TRUE(stored("LOGNAME=bob  smith\r\n")) << info_file();
    EXPECT_EQ(answer("get LOGNAME"), "bob  smith\r\n");
}

TEST_F(RlCon, says_when_a_key_is_not_stored)
{
    start();
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
}

TEST_F(RlCon, refuses_unknown_keys)
{
    start();
    EXPECT_EQ(answer("get logname"), "no such key: logname\r\n");
    EXPECT_EQ(answer("set LOGNAMES x"), "no such key: LOGNAMES\r\n");
    EXPECT_EQ(info_file(), "");
}

TEST_F(RlCon, refuses_commands_with_too_few_or_too_many_words)
{
    start();
    EXPECT_EQ(answer("get"), "usage: get KEY\r\n");
    EXPECT_EQ(answer("get LOGNAME x"), "usage: get KEY\r\n");
    EXPECT_EQ(answer("set LOGNAME"), "usage: set KEY VALUE...\r\n");
    EXPECT_EQ(answer("login"), "usage: login NAME\r\n");
    EXPECT_EQ(answer("login a b"), "usage: login NAME\r\n");
    EXPECT_EQ(answer("show x"), "usage: show\r\n");
    EXPECT_EQ(answer("exit now"), "usage: exit\r\n");
    EXPECT_EQ(info_file(), "");
}

TEST_F(RlCon, refuses_unknown_commands_and_passes_over_empty_lines)
{
    start();
    EXPECT_EQ(answer(""), "");
    EXPECT_EQ(answer("  \t "), "");
    EXPECT_EQ(answer("frob 1"), "unknown command: frob (try help)\r\n");
    EXPECT_NE(answer("help").find("set   KEY VALUE..."), std::string::npos);
}

TEST_F(RlCon, stores_no_more_than_can_be_read_back)
{
    const std::string most(1020 - strlen("LOGNAME"), 'x');
    start();
    EXPECT_EQ(answer("set LOGNAME " + most), "stored\r\n");
    EXPECT_EQ(answer("get LOGNAME"), most + "\r\n");
    EXPECT_EQ(answer("set LOGNAME y" + most),
              "too long: name and value have room for 1020 bytes\r\n");
    EXPECT_TRUE(stored("LOGNAME=xxx"));
}

TEST_F(RlCon, escapes_control_characters_of_values)
{
    ASSERT_EQ(tty_setenv(300, "PEERNAME", "a\x1b[2J\\b\xc3\xa4\x7f"), 0);
    start();
    EXPECT_EQ(answer("get PEERNAME"), "a\\x1b[2J\\\\b\\xc3\\xa4\\x7f\r\n");
    EXPECT_NE(answer("show").find("PEERNAME=a\\x1b[2J"), std::string::npos);
}

TEST_F(RlCon, escapes_control_characters_of_its_arguments)
{
    const std::string greeting = start({"-n 300", "-t a\x1b", "-i b\x9b"});
    EXPECT_EQ(greeting.find("line 300 on a\\x1b, peer b\\x9b;"), 0u)
        << greeting;
}

TEST_F(RlCon, resets_the_keys_of_a_session)
{
    ASSERT_EQ(tty_setenv(300, "LOGNAME", "alice"), 0);
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    start();
    EXPECT_EQ(answer("reset"), "reset\r\n");
    EXPECT_EQ(answer("get LOGNAME"), "LOGNAME is not stored\r\n");
    EXPECT_TRUE(stored("TTYPID=-1\r\n")) << info_file();
    EXPECT_TRUE(stored("EXECNUM=7\r\n")) << info_file();
}

TEST_F(RlCon, says_when_nothing_can_be_stored)
{
    prevent_storing();
    start();
    EXPECT_EQ(answer("set LOGNAME bob"), "cannot store LOGNAME\r\n");
    EXPECT_EQ(answer("login bob"), "cannot store LOGNAME\r\n");
    EXPECT_EQ(answer("reset"), "cannot reset all keys\r\n");
}

// Whether the console says something on the connection to the daemon.
static bool told(int connection)
{
    struct pollfd one = {connection, POLLIN, 0};
    char bytes[256];

    return connection >= 0 && poll(&one, 1, DEADLINE_MS) > 0 &&
           read(connection, bytes, sizeof bytes) > 0;
}

TEST_F(RlCon, reports_a_login)
{
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    listener administration(path("/mng/tty/.tty_rl"));
    start();
    EXPECT_EQ(answer("login alice"),
              "recorded as logged in; no password was asked for\r\n");
    const int connection = administration.take();
    EXPECT_TRUE(told(connection));
    close(connection);
    EXPECT_TRUE(stored("LOGNAME=alice\r\n")) << info_file();
    EXPECT_TRUE(stored("LOGSUCC=1\r\n")) << info_file();
}

TEST_F(RlCon, survives_a_line_administration_that_has_gone)
{
    ASSERT_EQ(tty_setenv(300, "EXECNUM", "7"), 0);
    listener administration(path("/mng/tty/.tty_rl"));
    start();
    EXPECT_EQ(answer("login alice"),
              "recorded as logged in; no password was asked for\r\n");
    const int connection = administration.take();
    EXPECT_TRUE(told(connection));
    close(connection);
    administration.stop();
    const std::string not_told =
        "LOGNAME is stored, the login could not be reported\r\n";
    EXPECT_EQ(answer("login bob"), not_told);
    EXPECT_EQ(answer("get LOGNAME"), "bob\r\n");
}

TEST_F(RlCon, says_when_nobody_is_there_to_hear_of_a_login)
{
    start();
    EXPECT_EQ(answer("login alice"),
              "LOGNAME is stored, the login could not be reported\r\n");
    EXPECT_TRUE(stored("LOGNAME=alice\r\n")) << info_file();
}

TEST_F(RlCon, works_without_a_terminal)
{
    int code = -1;
    const std::string text = output_of(RL_CON_PATH, AS_STARTED,
                                       "set LOGNAME bob\nget LOGNAME\nshell\n"
                                       "echo shell-$((40+2))\nexit\n",
                                       &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("stored\n"), std::string::npos) << text;
    EXPECT_NE(text.find("rl-con 300> bob\n"), std::string::npos) << text;
    EXPECT_NE(text.find("shell-42\n"), std::string::npos) << text;
}

TEST_F(RlCon, takes_a_last_line_without_its_end)
{
    int code = -1;
    const std::string text =
        output_of(RL_CON_PATH, AS_STARTED, "get LOGNAME", &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("LOGNAME is not stored\n"), std::string::npos) << text;
}

TEST_F(RlCon, refuses_a_line_that_is_too_long_and_goes_on)
{
    int code = -1;
    const std::string text = output_of(
        RL_CON_PATH, AS_STARTED,
        "set LOGNAME " + std::string(20000, 'x') + "\nget LOGNAME\n", &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("line too long\n"), std::string::npos) << text;
    EXPECT_NE(text.find("LOGNAME is not stored\n"), std::string::npos) << text;
}

TEST_F(RlCon, refuses_zero_bytes)
{
    using namespace std::string_literals;
    int code = -1;
    const std::string text =
        output_of(RL_CON_PATH, AS_STARTED,
                  "set LOGNAME a\0b\nget LOGNAME\0\nsho\0w\n"s, &code);
    EXPECT_EQ(code, 0);
    EXPECT_NE(text.find("a value cannot hold a zero byte\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("no such key: LOGNAME\\x00\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("unknown command: sho\\x00w "), std::string::npos)
        << text;
    EXPECT_EQ(info_file(), "");
}

TEST_F(RlCon, ends_when_its_output_cannot_be_written)
{
    Program program(RL_CON_PATH, AS_STARTED, [] {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(open("/dev/full", O_WRONLY), 1);
    });
    EXPECT_EQ(program.exit_code(), 1);
}

TEST_F(RlCon, ends_when_its_input_cannot_be_read)
{
    Program program(RL_CON_PATH, AS_STARTED, [] {
        dup2(open("/", O_RDONLY), 0);
        dup2(open("/dev/null", O_WRONLY), 1);
        dup2(1, 2);
    });
    EXPECT_EQ(program.exit_code(), 1);
}
