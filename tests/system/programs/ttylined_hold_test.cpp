// Lines that are held: who waits, who does not, and until when.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ttyline/tty.h>

#include "tests/system/programs/ttylined_admin_run.h"

TEST_F(TtylinedAdmin, a_hold_keeps_a_report_waiting_until_the_release)
{
    start();
    const unique_fd fd = client();
    const unique_fd tool = admin();
    ASSERT_TRUE(send(tool, hold(1586, 0)));
    ASSERT_TRUE(report(fd, 6, 7));
    // What is asked later is answered first.
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(ask("admin").rfind("hold: all lines, until released\n"
                                 "waiting: 1\n",
                                 0),
              0U);
    ASSERT_TRUE(send(tool, release()));
    EXPECT_EQ(assigned(fd, 7), 258);
    EXPECT_EQ(take_line(fd, 6, 8, 2), 259);
    EXPECT_TRUE(contains(ask("admin"), "hold: none\nwaiting: 0\n"));
}

TEST_F(TtylinedAdmin, a_hold_is_obeyed_by_what_comes_after_it)
{
    start();
    run.out.reset();
    // Their records keep the daemon busy between its wait and the last one.
    std::vector<unique_fd> busy;
    for (int i = 0; i < 8; i++) {
        busy.push_back(client());
    }
    const unique_fd fd = client();
    const tty_cmsg junk = with_flag(listen_request(1, 6), 0x4);
    const std::vector<tty_cmsg> much(320, junk);
    for (int i = 1; i <= 50; i++) {
        for (const unique_fd &other : busy) {
            ASSERT_TRUE(
                send_bytes(other.fd, much.data(), much.size() * sizeof junk));
        }
        ASSERT_TRUE(send_record(fd, junk));
        usleep(static_cast<useconds_t>(20 * i));
        // On a connection that nobody has accepted yet.
        ASSERT_TRUE(tell(hold(1586, 0)));
        ASSERT_TRUE(report(fd, 6, i));
        ASSERT_TRUE(settled(fd)) << i;
        ASSERT_TRUE(tell(release()));
        ASSERT_EQ(assigned(fd, i), 258) << i;
        ASSERT_TRUE(send_record(fd, line_clean(258, 0)));
    }
}

TEST_F(TtylinedAdmin, the_excepted_line_is_assigned)
{
    start();
    const unique_fd fd = client();
    ASSERT_TRUE(tell(hold(300, 0)));
    ASSERT_TRUE(report(fd, 6, 7));
    EXPECT_EQ(assigned(fd, 7), 300);
    ASSERT_TRUE(report(fd, 6, 8));
    ASSERT_TRUE(report(fd, 6, 9));
    ASSERT_TRUE(settled(fd));
    // Who waits first gets it when it is free again.
    ASSERT_TRUE(send_record(fd, line_clean(300, 0)));
    EXPECT_EQ(assigned(fd, 8), 300);
    ASSERT_TRUE(settled(fd));
    ASSERT_TRUE(tell(release()));
    EXPECT_EQ(assigned(fd, 9), 258);
}

TEST_F(TtylinedAdmin, the_excepted_line_goes_only_to_its_protocol)
{
    start({"--pool", "6=300-310", "--pool", "7=400-410"});
    const unique_fd fd = client();
    ASSERT_TRUE(tell(hold(400, 0)));
    ASSERT_TRUE(report(fd, 6, 7));
    ASSERT_TRUE(report(fd, 7, 8));
    EXPECT_EQ(assigned(fd, 8), 400);
    ASSERT_TRUE(settled(fd));
    ASSERT_TRUE(tell(release()));
    EXPECT_EQ(assigned(fd, 7), 300);
}

TEST_F(TtylinedAdmin, a_hold_ends_by_itself)
{
    start();
    const unique_fd fd = client();
    const long long begin = now_ms();
    ASSERT_TRUE(tell(hold(1586, 1)));
    ASSERT_TRUE(report(fd, 6, 7));
    EXPECT_EQ(assigned(fd, 7), 258);
    EXPECT_GE(now_ms() - begin, 990);
    EXPECT_TRUE(
        contains(traced("is over"), "note the time of the hold is over\n"));
    EXPECT_TRUE(contains(ask("admin"), "hold: none\n"));
}

TEST_F(TtylinedAdmin, a_later_hold_takes_the_place_of_the_first)
{
    start();
    const unique_fd fd = client();
    const unique_fd first = admin();
    const unique_fd second = admin();
    ASSERT_TRUE(send(first, hold(1586, 1800)));
    ASSERT_TRUE(report(fd, 6, 7));
    ASSERT_TRUE(report(fd, 6, 8));
    ASSERT_TRUE(settled(fd));
    ASSERT_TRUE(send(second, hold(300, 0)));
    EXPECT_EQ(assigned(fd, 7), 300);
    EXPECT_TRUE(
        contains(ask("admin"), "hold: all lines but 300, until released\n"));
    // One release ends it, whoever sends it.
    ASSERT_TRUE(send(first, release()));
    EXPECT_EQ(assigned(fd, 8), 258);
}

TEST_F(TtylinedAdmin, the_time_of_the_later_hold_counts)
{
    start();
    const unique_fd fd = client();
    ASSERT_TRUE(tell(hold(1586, 0)));
    ASSERT_TRUE(report(fd, 6, 7));
    ASSERT_TRUE(settled(fd));
    ASSERT_TRUE(tell(hold(1586, 1)));
    EXPECT_EQ(assigned(fd, 7), 258);
}

TEST_F(TtylinedAdmin, a_hold_outlives_its_process)
{
    start();
    const unique_fd fd = client();
    ASSERT_EQ(in_child(run,
                       [] {
                           return tty_hold_line(TTY_LINES, 1800) == 0;
                       }),
              0);
    ASSERT_TRUE(contains(traced("admin 1: disconnected"),
                         "admin 1: hold except=none time=1800\n"));
    ASSERT_TRUE(report(fd, 6, 7));
    ASSERT_TRUE(settled(fd));
    ASSERT_EQ(in_child(run,
                       [] {
                           return tty_release_line() == 0;
                       }),
              0);
    EXPECT_EQ(assigned(fd, 7), 258);
}

TEST_F(TtylinedAdmin, reports_are_served_in_the_order_in_which_they_came)
{
    start();
    const unique_fd first = client();
    const unique_fd second = client();
    ASSERT_TRUE(tell(hold(1586, 0)));
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(report(first, 6, 10 + i));
        ASSERT_TRUE(settled(first));
        ASSERT_TRUE(report(second, 6, 20 + i));
        ASSERT_TRUE(settled(second));
    }
    ASSERT_TRUE(tell(release()));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(assigned(first, 10 + i), 258 + 2 * i);
        EXPECT_EQ(assigned(second, 20 + i), 259 + 2 * i);
    }
}

TEST_F(TtylinedAdmin, a_daemon_may_vanish_while_its_report_waits)
{
    start();
    unique_fd gone = client();
    const unique_fd fd = client();
    ASSERT_TRUE(tell(hold(1586, 0)));
    ASSERT_TRUE(report(gone, 6, 7));
    ASSERT_TRUE(settled(gone));
    ASSERT_TRUE(report(fd, 6, 8));
    ASSERT_TRUE(settled(fd));
    gone.reset();
    ASSERT_TRUE(contains(traced("client 1: disconnected"), "disconnected"));
    ASSERT_TRUE(settled(fd));
    EXPECT_TRUE(contains(ask("admin"), "waiting: 1\n"));
    ASSERT_TRUE(tell(release()));
    EXPECT_EQ(assigned(fd, 8), 258);
    EXPECT_EQ(take_line(fd, 6, 9, 3), 259);
}

TEST_F(TtylinedAdmin, a_daemon_that_vanishes_with_the_release_gets_nothing)
{
    start();
    unique_fd gone = client();
    const unique_fd fd = client();
    ASSERT_TRUE(tell(hold(1586, 0)));
    ASSERT_TRUE(report(gone, 6, 7));
    ASSERT_TRUE(settled(gone));
    gone.reset();
    ASSERT_TRUE(tell(release()));
    ASSERT_TRUE(contains(traced("client 1: disconnected"), "disconnected"));
    EXPECT_EQ(take_line(fd, 6, 8, 2), 258);
}

TEST_F(TtylinedAdmin, no_more_reports_wait_than_there_are_lines)
{
    start();
    const unique_fd fd = client();
    ASSERT_TRUE(tell(hold(1586, 0)));
    for (int i = 1; i <= 1586; i++) {
        ASSERT_TRUE(report(fd, 6, i));
    }
    ASSERT_TRUE(settled(fd));
    ASSERT_TRUE(report(fd, 6, 2000));
    EXPECT_EQ(assigned(fd, 2000), -1);
    ASSERT_TRUE(tell(release()));
    int served = 0;
    for (int i = 1; i <= 1586; i++) {
        const int ttyno = assigned(fd, i);
        ASSERT_GE(ttyno, -1) << i;
        served += ttyno >= 0 ? 1 : 0;
    }
    EXPECT_EQ(served, 1056);
}

TEST_F(TtylinedAdmin, an_operator_holds_and_releases)
{
    start();
    const unique_fd fd = client();
    EXPECT_EQ(ask("release"), "error: no line is held\n");
    EXPECT_EQ(ask("hold none 1800"), "ok: all lines, 1800 s left\n");
    EXPECT_EQ(ask("hold 300 0"), "ok: all lines but 300, until released\n");
    ASSERT_TRUE(report(fd, 6, 7));
    EXPECT_EQ(assigned(fd, 7), 300);
    ASSERT_TRUE(report(fd, 6, 8));
    ASSERT_TRUE(settled(fd));
    EXPECT_EQ(ask("release"), "ok: released\n");
    EXPECT_EQ(assigned(fd, 8), 258);
    for (const char *line : {"hold", "hold 300", "hold none", "hold 1586 0",
                             "hold -1 0", "hold 300 1801", "hold 300 -1",
                             "hold 300 0 0", "hold all 0", "release 300"}) {
        EXPECT_EQ(ask(line).rfind("error: ", 0), 0U) << line;
    }
    EXPECT_TRUE(contains(ask("admin"), "hold: none\n"));
    EXPECT_TRUE(contains(ask("help"), "release  "));
}
