// Calls that meet others: holders of a line's lock, and the line administration
// daemon.
#include "tests/system/programs/ttyctl_run.h"

#include <filesystem>

TEST_F(TtyctlTest, the_holder_of_a_line_is_named)
{
    store(5, "LOGNAME=alice\r\nLOGSUCC=7\r\n");
    const holder other(info(5) + ".lock", "log\x1b[in");
    const std::string named = "line 5 is locked by process " +
                              std::to_string(other.pid()) +
                              " (log\\x1b[in); gave up after 1 s";

    for (const words &arguments :
         std::vector<words>{{"get", "5", "LOGNAME"},
                            {"set", "5", "LOGNAME", "bob"},
                            {"reset", "5"},
                            {"login-ok", "5"},
                            {"login-failed", "5"}}) {
        expect_message(run(with_timeout("1", arguments)), 3, named);
    }
    EXPECT_EQ(read_file(info(5)), "LOGNAME=alice\r\nLOGSUCC=7\r\n");
}

TEST_F(TtyctlTest, another_line_is_not_locked)
{
    store(5, "LOGNAME=alice\r\n");
    const holder other(info(6) + ".lock");

    EXPECT_EQ(run({"get", "5", "LOGNAME"}).out, "alice\n");
}

TEST_F(TtyctlTest, line0_is_locked_where_it_is_read)
{
    std::filesystem::create_directories(root + "/inst/0/mng/tty");
    std::filesystem::create_directories(root + "/inst/3/mng/tty");
    runtime = root + "/inst/3";
    const std::string first = root + "/inst/0/mng/tty/.tty_info_0";
    write_file(first, "LOGNAME=zero\r\n");
    const holder other(first + ".lock");

    expect_message(run({"get", "--timeout", "1", "0", "LOGNAME"}), 3,
                   "line 0 is locked");
    expect_done(run({"set", "0", "LOGNAME", "own"}));
}

TEST_F(TtyctlTest, a_holder_that_lets_go_is_waited_for)
{
    store(5, "LOGNAME=alice\r\n");
    holder other(info(5) + ".lock");
    const opening look(info(5) + ".lock");
    const pid_t pid = start({"--timeout", "60", "set", "5", "LOGNAME", "bob"});

    ASSERT_TRUE(look.seen());
    EXPECT_EQ(read_file(info(5)), "LOGNAME=alice\r\n");
    other.let_go();
    expect_done(finish(pid));
    EXPECT_EQ(read_file(info(5)), "LOGNAME=bob\r\n");
}

TEST_F(TtyctlTest, each_request_is_sent_as_its_bytes)
{
    const listener daemon(path(".tty_rl"));
    const std::vector<std::pair<words, std::string>> requests = {
        {{"cfg", "5", "SPEED", "9600"}, "20000400050000004000040080250000"},
        {{"cfg", "5", "SESSION_TIMEOUT", "1"},
         "20000400050000008000040001000000"},
        {{"cfg", "5", "EXEC_TIMEOUT", "4294967295"},
         "200004000500000000010400ffffffff"},
        {{"hold", "1800"}, "20000400320600000008040008070000"},
        {{"hold", "--except", "5", "0"}, "20000400050000000008040000000000"},
        {{"release"}, "0010040000000000"},
        {{"login-ok", "5"}, "20000400050000000100040001000000"},
    };

    for (const auto &[arguments, bytes] : requests) {
        expect_done(run(with_timeout("60", arguments)));
        EXPECT_EQ(daemon.request(), bytes) << arguments[0];
    }
    EXPECT_EQ(run({"get", "5", "LOGSUCC"}).out, "1\n");
}

static const std::vector<words> plain_requests = {
    {"cfg", "5", "SPEED", "9600"}, {"hold", "5"}, {"release"}};

TEST_F(TtyctlTest, an_absent_daemon_is_said_with_its_socket)
{
    for (const words &arguments : plain_requests) {
        const outcome result = run(with_timeout("60", arguments));
        expect_message(result, 1, "no socket " + path(".tty_rl"));
        EXPECT_TRUE(contains(result.err, path(".tty_lib_dump.txt")));
    }
    const outcome login = run({"--timeout", "60", "login-ok", "5"});
    expect_message(login, 1, "no socket " + path(".tty_rl"));
    EXPECT_TRUE(contains(login.err, "LOGSUCC of line 5 is stored"));
    EXPECT_EQ(run({"get", "5", "LOGSUCC"}).out, "1\n");
}

TEST_F(TtyctlTest, a_socket_with_nobody_behind_it_is_said)
{
    listener daemon(path(".tty_rl"));
    daemon.stop();

    for (const words &arguments : plain_requests) {
        expect_message(run(with_timeout("60", arguments)), 1,
                       "daemon at " + path(".tty_rl") +
                           " did not take the request");
    }
}

TEST_F(TtyctlTest, a_daemon_that_takes_nothing_is_given_up)
{
    listener daemon(path(".tty_rl"), 0);
    daemon.fill();

    for (const words &arguments : plain_requests) {
        const outcome result = run(with_timeout("1", arguments));
        expect_message(result, 4,
                       "does not take requests at " + path(".tty_rl"));
        EXPECT_TRUE(contains(result.err, "gave up after 1 s"));
    }
    const outcome login = run({"--timeout", "3", "login-ok", "5"});
    expect_message(login, 4, "LOGSUCC of line 5 is stored");
    EXPECT_EQ(run({"get", "5", "LOGSUCC"}).out, "1\n");
}

TEST_F(TtyctlTest, a_failed_login_needs_no_daemon)
{
    expect_done(run({"login-failed", "5"}));
    EXPECT_EQ(read_file(info(5)), "LOGSUCC=0\r\n");
}
