// The line-allocation daemon as its operator sees it.
#include <csignal>
#include <cstring>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/system/programs/ttylined_run.h"

class TtylinedCommand : public ::testing::Test
{
  protected:
    ttylined_run run;
    unique_fd control;

    void SetUp() override
    {
        run_options options;
        options.arguments = {"--control", run.control_path()};
        ASSERT_TRUE(run.start(options));
        control = connect_unix(run.control_path());
        ASSERT_GE(control.fd, 0);
    }

    unique_fd client() const
    {
        return connect_unix(run.socket_path());
    }

    std::string ask(const std::string &line) const
    {
        return command(control, control, line);
    }

    std::string ask_standard_input(const std::string &line) const
    {
        return command(run.in, run.out, line);
    }
};

static bool is_error(const std::string &text)
{
    return text.rfind("error: ", 0) == 0;
}

TEST_F(TtylinedCommand, list_shows_sessions_and_their_state)
{
    const unique_fd fd = client();
    tty_cmsg ok = accept_report(6, 7, 1);
    ok.ttyno = take_line(fd, 6, 7, 1);
    ok.pid = 4711;
    EXPECT_EQ(take_line(fd, 1, 8, 2), 259);
    ASSERT_TRUE(send_record(fd, with_flag(ok, 0x020)));
    ASSERT_TRUE(settled(fd));

    const std::string table = ask("list");
    EXPECT_TRUE(contains(table, "line  protocol client client-pid session-pid "
                                "state    peer\n"));
    char expected[128];
    std::snprintf(expected, sizeof expected,
                  "258   6        1      %-10d 4711        running  "
                  "192.0.2.7:40000\n",
                  getpid());
    EXPECT_TRUE(contains(table, expected)) << table;
    std::snprintf(expected, sizeof expected,
                  "259   1        1      %-10d 0           assigned "
                  "192.0.2.7:40000\n",
                  getpid());
    EXPECT_TRUE(contains(table, expected)) << table;
    EXPECT_EQ(ask_standard_input("list"), table);

    ASSERT_TRUE(send_record(fd, line_clean(258, 4711)));
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(column(ask("list"), "line"), cells{"259"});
}

TEST_F(TtylinedCommand, alloc_ok_of_another_daemon_changes_nothing)
{
    const unique_fd fd = client();
    const unique_fd other = client();
    tty_cmsg ok = accept_report(6, 7, 1);
    ok.ttyno = take_line(fd, 6, 7, 1);
    ASSERT_TRUE(send_record(other, with_flag(ok, 0x020)));
    ASSERT_TRUE(settled(other));
    EXPECT_EQ(column(ask("list"), "line"), cells{"258"});
    EXPECT_EQ(column(ask("list"), "state"), cells{"assigned"});
}

TEST_F(TtylinedCommand, services_shows_listen_requests_once)
{
    const unique_fd fd = client();
    for (int i = 0; i < 2; i++) {
        ASSERT_TRUE(send_record(fd, listen_request(2323, 6)));
        ASSERT_TRUE(read_record(fd));
    }
    ASSERT_TRUE(send_record(fd, path_request("/run/a\nb", 7)));
    ASSERT_TRUE(read_record(fd));
    const std::string table = ask("services");
    EXPECT_EQ(column(table, "port"), (cells{"2323", "0"})) << table;
    EXPECT_EQ(column(table, "state"), (cells{"permitted", "permitted"}));
    EXPECT_EQ(column(table, "path"), (cells{"-", "/run/a\\x0ab"}));

    ASSERT_TRUE(send_record(fd, with_flag(listen_request(2323, 6), 0x010)));
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(column(ask("services"), "state"),
              (cells{"failed", "permitted", "permitted"}));
}

TEST_F(TtylinedCommand, services_follows_a_port_change)
{
    const unique_fd fd = client();
    ASSERT_TRUE(send_record(fd, listen_request(2323, 6)));
    ASSERT_TRUE(read_record(fd));
    tty_cmsg change = with_flag(listen_request(2323, 6), 0x400);
    change.peer_port = 2424;
    ASSERT_TRUE(send_record(fd, change));
    ASSERT_TRUE(read_record(fd));
    EXPECT_EQ(column(ask("services"), "port"), cells{"2424"});
}

TEST_F(TtylinedCommand, services_of_a_daemon_leave_with_it)
{
    unique_fd fd = client();
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(column(ask("services"), "client"), cells{"1"});
    fd.reset();
    const unique_fd other = client();
    EXPECT_TRUE(settled(other));
    EXPECT_EQ(column(ask("services"), "client"), cells{"2"});
}

TEST_F(TtylinedCommand, clear_tells_the_owner)
{
    const unique_fd first = client();
    const unique_fd second = client();
    EXPECT_EQ(take_line(first, 6, 7, 1), 258);
    EXPECT_EQ(take_line(second, 6, 7, 1), 259);
    EXPECT_EQ(ask("clear 259"), "ok: sent to client 2\n");
    const auto record = read_record(second);
    ASSERT_TRUE(record);
    tty_cmsg expected = {};
    expected.vc_flag = 0x002;
    expected.ttyno = 259;
    EXPECT_EQ(std::memcmp(&*record, &expected, sizeof expected), 0);
    // Nothing went to the other one, and the line is taken until cleaned.
    EXPECT_TRUE(settled(first));
    EXPECT_EQ(column(ask("list"), "line"), (cells{"258", "259"}));
}

TEST_F(TtylinedCommand, clear_says_when_it_will_not_be_honoured)
{
    const unique_fd fd = client();
    for (int i = 1; i <= 65; i++) {
        ASSERT_EQ(take_line(fd, 6, 7, i), 257 + i);
    }
    EXPECT_FALSE(contains(ask("clear 321"), "note:"));
    EXPECT_TRUE(contains(ask("clear 322"),
                         "note: the daemon only honours lines "
                         "258 to 321\n"));
    ASSERT_TRUE(read_record(fd));
    const auto record = read_record(fd);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->ttyno, 322);
}

TEST_F(TtylinedCommand, stop_goes_to_every_daemon_of_the_protocol)
{
    const unique_fd first = client();
    const unique_fd second = client();
    const unique_fd third = client();
    tty_cmsg request = listen_request(23, 5);
    request.pid = 101;
    ASSERT_TRUE(send_record(first, request));
    ASSERT_TRUE(read_record(first));
    request = path_request("/x", 5);
    request.pid = 102;
    ASSERT_TRUE(send_record(second, request));
    ASSERT_TRUE(read_record(second));
    ASSERT_TRUE(send_record(third, listen_request(23, 4)));
    ASSERT_TRUE(read_record(third));

    EXPECT_EQ(ask("stop 5"), "ok: sent to client 1\nok: sent to client 2\n");
    tty_cmsg expected = {};
    expected.vc_flag = 0x200;
    expected.protocol = 5;
    expected.pid = 101;
    auto record = read_record(first);
    ASSERT_TRUE(record);
    EXPECT_EQ(std::memcmp(&*record, &expected, sizeof expected), 0);
    expected.pid = 102;
    record = read_record(second);
    ASSERT_TRUE(record);
    EXPECT_EQ(std::memcmp(&*record, &expected, sizeof expected), 0);
    EXPECT_TRUE(settled(third));
    const std::string table = ask("services");
    EXPECT_EQ(column(table, "client"), (cells{"1", "2", "3", "3"})) << table;
    EXPECT_EQ(column(table, "state"),
              (cells{"stopped", "stopped", "permitted", "permitted"}));
}

TEST_F(TtylinedCommand, delete_port_goes_to_the_daemon_of_the_port)
{
    const unique_fd fd = client();
    const unique_fd other = client();
    ASSERT_TRUE(send_record(fd, listen_request(23, 5)));
    ASSERT_TRUE(read_record(fd));
    ASSERT_TRUE(send_record(other, listen_request(24, 5)));
    ASSERT_TRUE(read_record(other));
    EXPECT_EQ(take_line(fd, 5, 7, 1), 258);
    EXPECT_EQ(ask("delete-port 5 23"),
              "error: this ends 1 session; say it with --yes\n");
    EXPECT_EQ(ask("delete-port 5 23 --yes"), "ok: sent to client 1\n");
    const auto record = read_record(fd);
    ASSERT_TRUE(record);
    tty_cmsg expected = {};
    expected.vc_flag = 0x010;
    expected.protocol = 5;
    expected.port = 23;
    expected.pid = getpid();
    EXPECT_EQ(std::memcmp(&*record, &expected, sizeof expected), 0);
    EXPECT_TRUE(settled(other));
}

TEST_F(TtylinedCommand, delete_path_goes_to_the_daemon_of_the_path)
{
    const unique_fd fd = client();
    const unique_fd other = client();
    ASSERT_TRUE(send_record(fd, path_request("/run/with blank", 7)));
    ASSERT_TRUE(read_record(fd));
    ASSERT_TRUE(send_record(other, path_request("/run/with", 7)));
    ASSERT_TRUE(read_record(other));
    EXPECT_EQ(ask("delete-path 7 /run/with blank"),
              "error: this ends 0 sessions; say it with --yes\n");
    EXPECT_EQ(ask("delete-path 7 /run/with blank --yes"),
              "ok: sent to client 1\n");
    const auto record = read_record(fd);
    ASSERT_TRUE(record);
    tty_cmsg expected = path_request("/run/with blank", 7);
    expected.vc_flag = 0x100;
    expected.socktype = 0;
    expected.tos = 0;
    EXPECT_EQ(std::memcmp(&*record, &expected, sizeof expected), 0);
    EXPECT_TRUE(settled(other));
}

TEST_F(TtylinedCommand, bad_commands_are_errors)
{
    for (const char *line : {"nonsense",
                             "LIST",
                             "clear",
                             "clear x",
                             "clear 258",
                             "clear -1",
                             "clear 1586",
                             "clear 258 259",
                             "stop",
                             "stop 12",
                             "stop 5",
                             "stop 5 5",
                             "delete-port",
                             "delete-port 5",
                             "delete-port 5 65536",
                             "delete-port 5 23",
                             "delete-port 5 23 1",
                             "delete-path",
                             "delete-path 7",
                             "delete-path 7 /x",
                             "\x01\xff\x1b[2J"}) {
        EXPECT_TRUE(is_error(ask(line))) << line;
        EXPECT_TRUE(is_error(ask_standard_input(line))) << line;
    }
    EXPECT_TRUE(is_error(ask("delete-path 7 /" + std::string(63, 'x'))));
    EXPECT_EQ(ask(""), "");
    EXPECT_EQ(ask("  \r"), "");
    EXPECT_TRUE(contains(ask("help"), "clear LINE"));
    EXPECT_TRUE(settled(client()));
}

TEST_F(TtylinedCommand, an_error_shows_no_control_characters)
{
    EXPECT_EQ(ask("\x1b[2J"),
              "error: unknown command \"\\x1b[2J\", try help\n");
}

TEST_F(TtylinedCommand, a_too_long_line_is_dropped)
{
    const std::string longest(512, 'x');
    EXPECT_TRUE(contains(ask(longest), "unknown command"));
    EXPECT_EQ(ask(longest + "x"), "error: line too long\n");
    // The tail of a long line is no command of its own.
    EXPECT_EQ(ask(std::string(100000, 'x') + " quit"),
              "error: line too long\n");
    EXPECT_TRUE(contains(ask("help"), "list"));
}

TEST_F(TtylinedCommand, several_operators_are_served)
{
    const unique_fd second = connect_unix(run.control_path());
    ASSERT_TRUE(send_bytes(control.fd, "he", 2));
    EXPECT_TRUE(contains(command(second, second, "help"), "clear"));
    EXPECT_TRUE(contains(ask("lp"), "clear"));
}

TEST_F(TtylinedCommand, the_last_line_needs_no_line_feed)
{
    ASSERT_TRUE(send_bytes(control.fd, "help\nlist", 9));
    shutdown(control.fd, SHUT_WR);
    EXPECT_TRUE(contains(read_until(control, "ok\n"), "help"));
    EXPECT_TRUE(contains(read_until(control, "ok\n"), "session-pid"));
    EXPECT_TRUE(waits_for_end(control));
}

TEST_F(TtylinedCommand, an_operator_who_does_not_read_delays_nobody)
{
    const unique_fd fd = client();
    for (int i = 1; i <= 200; i++) {
        ASSERT_GE(take_line(fd, 6, 7, i), 258);
    }
    // Some 10 KiB each: far more than all buffers hold.
    std::string lines;
    for (int i = 0; i < 500; i++) {
        lines += "list\n";
    }
    ASSERT_TRUE(send_bytes(control.fd, lines.data(), lines.size()));
    EXPECT_TRUE(settled(fd));
    const unique_fd second = connect_unix(run.control_path());
    EXPECT_TRUE(contains(command(second, second, "help"), "clear"));

    // Nothing was lost for the one who reads after all.
    shutdown(control.fd, SHUT_WR);
    std::string all;
    char bytes[65536];
    ssize_t ret = 0;
    while ((ret = recv(control.fd, bytes, sizeof bytes, 0)) > 0) {
        all.append(bytes, static_cast<std::size_t>(ret));
    }
    EXPECT_EQ(ret, 0);
    int replies = 0;
    for (std::size_t at = all.find("\nok\n"); at != std::string::npos;
         at = all.find("\nok\n", at + 1)) {
        replies++;
    }
    EXPECT_EQ(replies, 500);
}

TEST_F(TtylinedCommand, an_operator_who_leaves_unread_is_forgotten)
{
    std::string lines;
    for (int i = 0; i < 200; i++) {
        lines += "help\n";
    }
    ASSERT_TRUE(send_bytes(control.fd, lines.data(), lines.size()));
    control.reset();
    control = connect_unix(run.control_path());
    EXPECT_TRUE(contains(ask("help"), "clear"));
}

TEST_F(TtylinedCommand, the_end_of_standard_input_is_no_end)
{
    EXPECT_TRUE(contains(ask_standard_input("help"), "clear"));
    run.in.reset();
    EXPECT_TRUE(contains(ask("help"), "clear"));
    EXPECT_TRUE(settled(client()));
}

TEST_F(TtylinedCommand, quit_ends_in_order)
{
    EXPECT_TRUE(is_error(ask("quit")));
    EXPECT_EQ(ask("quit --yes"), "ok: ending\n");
    EXPECT_EQ(run.exit_status(), 0);
    EXPECT_NE(access(run.socket_path().c_str(), F_OK), 0);
    EXPECT_NE(access(run.control_path().c_str(), F_OK), 0);
}
