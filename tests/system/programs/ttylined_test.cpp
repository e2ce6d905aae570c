// The line-allocation daemon as its login daemons see it.
#include <cstring>
#include <set>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/system/programs/ttylined_run.h"

static bool same(const tty_cmsg &a, const tty_cmsg &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST_F(Ttylined, permit_echoes_a_port_request)
{
    start();
    const unique_fd fd = client();
    tty_cmsg request = listen_request(2323, 6);
    request.tos = 16;
    request.pid = 12345;
    ASSERT_TRUE(send_record(fd, request));
    const auto permit = read_record(fd);
    ASSERT_TRUE(permit);
    EXPECT_TRUE(same(*permit, request));
}

TEST_F(Ttylined, permit_echoes_a_path_request)
{
    start();
    const unique_fd fd = client();
    for (std::size_t length : {1U, 63U, 64U}) {
        const tty_cmsg request = path_request(std::string(length, 'x'), 7);
        ASSERT_TRUE(send_record(fd, request));
        const auto permit = read_record(fd);
        ASSERT_TRUE(permit);
        EXPECT_TRUE(same(*permit, request)) << length;
    }
}

TEST_F(Ttylined, permit_of_a_tipc_request_is_a_port_permit)
{
    start();
    const unique_fd fd = client();
    tty_cmsg request = listen_request(0, 3);
    request.vc_flag = 0x088;
    request.socktype = AF_TIPC;
    request.tipc_addrtype = 1;
    request.tipc_scope = -2;
    request.tipc_type = 4000000001U;
    request.tipc_lower = 17;
    request.tipc_upper = 18;
    ASSERT_TRUE(send_record(fd, request));
    const auto permit = read_record(fd);
    ASSERT_TRUE(permit);
    EXPECT_TRUE(same(*permit, with_flag(request, 0x008)));
}

TEST_F(Ttylined, assignment_echoes_the_report)
{
    start();
    const unique_fd fd = client();
    tty_cmsg report = accept_report(7, 31, 5);
    std::strcpy(report.path, "/run/console");
    ASSERT_TRUE(send_record(fd, report));
    const auto answer = read_record(fd);
    ASSERT_TRUE(answer);
    report.ttyno = 258;
    EXPECT_TRUE(same(*answer, report));
}

TEST_F(Ttylined, the_lowest_free_line_comes_first)
{
    start();
    const unique_fd fd = client();
    EXPECT_EQ(take_line(fd, 6, 7, 1), 258);
    EXPECT_EQ(take_line(fd, 1, 8, 2), 259);
    EXPECT_EQ(take_line(fd, 6, 9, 3), 260);
    ASSERT_TRUE(send_record(fd, line_clean(259, 0)));
    EXPECT_EQ(take_line(fd, 6, 10, 4), 259);
    EXPECT_EQ(take_line(fd, 6, 11, 5), 261);
}

TEST_F(Ttylined, a_line_is_free_when_its_daemon_is_gone)
{
    start();
    const unique_fd other = client();
    unique_fd fd = client();
    EXPECT_EQ(take_line(fd, 6, 7, 1), 258);
    EXPECT_EQ(take_line(fd, 6, 8, 2), 259);
    tty_cmsg ok = accept_report(6, 7, 1);
    ok.ttyno = 258;
    ASSERT_TRUE(send_record(fd, with_flag(ok, 0x020)));
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(take_line(other, 6, 7, 1), 260);
    fd.reset();
    EXPECT_EQ(take_line(other, 6, 8, 2), 258);
    EXPECT_EQ(take_line(other, 6, 9, 3), 259);
}

TEST_F(Ttylined, only_the_owner_frees_a_line)
{
    start();
    const unique_fd owner = client();
    const unique_fd other = client();
    EXPECT_EQ(take_line(owner, 6, 7, 1), 258);
    ASSERT_TRUE(send_record(other, line_clean(258, 0)));
    for (int ttyno : {-1, 1586, 2147483647}) {
        ASSERT_TRUE(send_record(other, line_clean(ttyno, 0)));
    }
    EXPECT_EQ(take_line(other, 6, 7, 1), 259);
}

TEST_F(Ttylined, pools_are_ranges_by_protocol)
{
    start({"--pool", "6=1585-1585,300-301", "--pool=1=301-302", "--pool",
           "2=400-410", "--pool", "2=500-500"});
    const unique_fd fd = client();
    EXPECT_EQ(take_line(fd, 6, 7, 1), 300);
    EXPECT_EQ(take_line(fd, 6, 7, 2), 301);
    EXPECT_EQ(take_line(fd, 1, 7, 3), 302);
    EXPECT_EQ(take_line(fd, 1, 7, 4), -1);
    EXPECT_EQ(take_line(fd, 6, 7, 5), 1585);
    EXPECT_EQ(take_line(fd, 6, 7, 6), -1);
    EXPECT_EQ(take_line(fd, 2, 7, 7), 500);
    EXPECT_EQ(take_line(fd, 5, 7, 8), 258);
}

TEST_F(Ttylined, all_lines_may_be_in_use_at_once)
{
    start();
    const unique_fd fd = client();
    std::set<int> lines;
    for (int i = 1; i <= 1056; i++) {
        const int ttyno = take_line(fd, i % 12, 100 + i, i);
        EXPECT_TRUE((ttyno >= 258 && ttyno <= 1148) ||
                    (ttyno >= 1421 && ttyno <= 1585))
            << ttyno;
        lines.insert(ttyno);
    }
    EXPECT_EQ(lines.size(), 1056U);
    EXPECT_EQ(take_line(fd, 6, 7, 2000), -1);
    ASSERT_TRUE(send_record(fd, line_clean(1421, 0)));
    EXPECT_EQ(take_line(fd, 6, 7, 2001), 1421);
    EXPECT_EQ(take_line(fd, 6, 7, 2002), -1);
}

TEST_F(Ttylined, a_negative_answer_frees_the_line)
{
    start();
    const unique_fd fd = client();
    tty_cmsg failed = accept_report(6, 7, 1);
    failed.ttyno = take_line(fd, 6, 7, 1);
    ASSERT_TRUE(send_record(fd, with_flag(failed, 0x002)));
    EXPECT_EQ(take_line(fd, 6, 8, 2), 258);
}

TEST_F(Ttylined, the_second_record_of_a_failure_frees_nobody_elses_line)
{
    start();
    const unique_fd fd = client();
    const unique_fd other = client();
    tty_cmsg failed = accept_report(6, 7, 1);
    failed.ttyno = take_line(fd, 6, 7, 1);
    ASSERT_TRUE(send_record(fd, line_clean(258, 0)));
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(take_line(other, 6, 7, 1), 258);
    ASSERT_TRUE(send_record(fd, with_flag(failed, 0x002)));
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(take_line(fd, 6, 8, 1), 259);
}

TEST_F(Ttylined,
       the_second_record_of_a_failure_frees_no_new_line_of_the_same_daemon)
{
    start();
    const unique_fd fd = client();
    tty_cmsg failed = accept_report(6, 7, 1);
    failed.ttyno = take_line(fd, 6, 7, 1);
    ASSERT_TRUE(send_record(fd, line_clean(258, 0)));
    EXPECT_EQ(take_line(fd, 6, 8, 1), 258);
    ASSERT_TRUE(send_record(fd, with_flag(failed, 0x002)));
    EXPECT_EQ(take_line(fd, 6, 9, 2), 259);
    // Its own clean does free it.
    ASSERT_TRUE(send_record(fd, line_clean(258, 0)));
    EXPECT_EQ(take_line(fd, 6, 10, 3), 258);
}

TEST_F(Ttylined, a_repeated_failure_frees_the_line_each_time)
{
    start();
    const unique_fd fd = client();
    tty_cmsg failed = accept_report(6, 7, 1);
    failed.ttyno = 258;
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(take_line(fd, 6, 7, 1), 258);
        ASSERT_TRUE(send_record(fd, line_clean(258, 0)));
        ASSERT_TRUE(send_record(fd, with_flag(failed, 0x002)));
    }
}

TEST_F(Ttylined, a_port_change_is_permitted_on_the_new_port)
{
    start();
    const unique_fd fd = client();
    tty_cmsg change = listen_request(23, 5);
    change.vc_flag = 0x400;
    change.peer_port = 2300;
    change.socktype = AF_INET6;
    change.tos = 0;
    ASSERT_TRUE(send_record(fd, change));
    const auto permit = read_record(fd);
    ASSERT_TRUE(permit);
    tty_cmsg expected = listen_request(2300, 5);
    expected.vc_flag = 0x408;
    expected.socktype = AF_INET6;
    EXPECT_TRUE(same(*permit, expected));
}

TEST_F(Ttylined, unknown_flags_are_ignored)
{
    start();
    const unique_fd fd = client();
    for (uint32_t flag : {0x0U, 0x4U, 0x40U, 0x200U, 0x800U, 0x80000000U}) {
        ASSERT_TRUE(send_record(fd, with_flag(listen_request(1, 6), flag)));
    }
    EXPECT_TRUE(settled(fd));
}

TEST_F(Ttylined, a_record_in_pieces_is_put_together)
{
    start();
    const unique_fd fd = client();
    const unique_fd other = client();
    const tty_cmsg request = listen_request(23, 6);
    const auto *bytes = reinterpret_cast<const char *>(&request);
    for (std::size_t i = 0; i < sizeof request; i += 52) {
        ASSERT_TRUE(send_bytes(fd.fd, bytes + i, 52));
        ASSERT_TRUE(settled(other));
    }
    const auto permit = read_record(fd);
    ASSERT_TRUE(permit);
    EXPECT_TRUE(same(*permit, request));
}

TEST_F(Ttylined, a_short_record_ends_only_its_sender)
{
    start();
    const unique_fd other = client();
    unique_fd fd = client();
    EXPECT_EQ(take_line(fd, 6, 7, 1), 258);
    const tty_cmsg request = listen_request(23, 6);
    ASSERT_TRUE(send_bytes(fd.fd, &request, 155));
    shutdown(fd.fd, SHUT_WR);
    EXPECT_TRUE(waits_for_end(fd));
    EXPECT_EQ(take_line(other, 6, 7, 1), 258);
}

TEST_F(Ttylined, a_daemon_that_does_not_read_is_dropped)
{
    start();
    const unique_fd other = client();
    const unique_fd fd = client();
    EXPECT_EQ(take_line(fd, 6, 7, 1), 258);
    // Sends until the connection is closed; 64 MiB would be without a bound.
    const tty_cmsg request = listen_request(23, 6);
    int sent = 0;
    while (sent < 400000 && send_record(fd, request)) {
        sent++;
        if (sent % 1000 == 0) {
            ASSERT_TRUE(settled(other));
        }
    }
    EXPECT_GT(sent, 1000);
    EXPECT_LT(sent, 400000);
    EXPECT_EQ(take_line(other, 6, 7, 1), 258);
}

TEST_F(Ttylined, many_answers_arrive_as_whole_records)
{
    start();
    const unique_fd fd = client();
    const tty_cmsg request = listen_request(23, 6);
    // More than the socket holds, less than the daemon's queue.
    const std::vector<tty_cmsg> requests(1500, request);
    ASSERT_TRUE(
        send_bytes(fd.fd, requests.data(), requests.size() * sizeof request));
    for (std::size_t i = 0; i < requests.size(); i++) {
        const auto permit = read_record(fd);
        ASSERT_TRUE(permit) << i;
        ASSERT_TRUE(same(*permit, request)) << i;
    }
}

TEST_F(Ttylined, a_failed_listener_is_no_end)
{
    start();
    const unique_fd fd = client();
    ASSERT_TRUE(send_record(fd, listen_request(23, 6)));
    ASSERT_TRUE(read_record(fd));
    ASSERT_TRUE(send_record(fd, with_flag(listen_request(23, 6), 0x010)));
    ASSERT_TRUE(send_record(fd, with_flag(path_request("/x", 7), 0x100)));
    EXPECT_TRUE(settled(fd));
}

TEST_F(Ttylined, a_daemon_that_renews_its_connection_keeps_its_sessions)
{
    start();
    unique_fd fd = client();
    tty_cmsg ok = accept_report(6, 7, 1);
    ok.ttyno = take_line(fd, 6, 7, 1);
    ok.pid = 4711;
    EXPECT_EQ(take_line(fd, 6, 8, 2), 259);
    ASSERT_TRUE(send_record(fd, with_flag(ok, 0x020)));
    ASSERT_TRUE(send_record(fd, with_flag(listen_request(23, 6), 0x010)));
    fd.reset();

    // The session runs on 258; the assignment of 259 was never answered.
    fd = client();
    EXPECT_EQ(take_line(fd, 6, 9, 1), 259);
    ASSERT_TRUE(send_record(fd, line_clean(258, 4711)));
    EXPECT_EQ(take_line(fd, 6, 10, 2), 258);
}

TEST_F(Ttylined, a_daemon_that_does_not_come_back_loses_its_lines)
{
    start({"--trace"});
    unique_fd fd = client();
    tty_cmsg ok = accept_report(6, 7, 1);
    ok.ttyno = take_line(fd, 6, 7, 1);
    ASSERT_TRUE(send_record(fd, with_flag(ok, 0x020)));
    ASSERT_TRUE(send_record(fd, with_flag(listen_request(23, 6), 0x010)));
    fd.reset();
    EXPECT_NE(read_until(run.out, "did not come back")
                  .find("note client 1: did not come back"),
              std::string::npos);
    fd = client();
    EXPECT_EQ(take_line(fd, 6, 7, 1), 258);
}

TEST_F(Ttylined, a_daemon_that_floods_delays_nobody)
{
    start();
    const unique_fd flood = client();
    const unique_fd other = client();
    // Records without an answer, kept coming while another is served.
    const std::vector<tty_cmsg> junk(64, with_flag(listen_request(1, 6), 0x4));
    for (int i = 0; i < 200; i++) {
        ASSERT_TRUE(send_bytes(flood.fd, junk.data(),
                               junk.size() * sizeof junk.front()));
        ASSERT_TRUE(settled(other));
    }
    EXPECT_TRUE(settled(flood));
}
