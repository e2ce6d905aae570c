// Lines given and taken back: assignments and clears.
#include "vc/dispatch.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/dispatch_fixture.h"
#include "vc/pending.h"
#include "vc/session.h"

TEST_F(DispatchTest, an_assignment_starts_a_session_and_is_answered)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const int fd = connection();
    const tty_cmsg msg = assignment(300, fd, 23);
    EXPECT_EQ(deal(msg), 0);
    const vc_child *child = vc_child_at(300);
    ASSERT_NE(child, nullptr);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    tty_cmsg expected = msg;
    expected.vc_flag = 0x020;
    expected.pid = vc_child_pid(child);
    EXPECT_EQ(memcmp(&records[0], &expected, sizeof expected), 0);
    const auto texts = messages();
    EXPECT_EQ(texts[1], "vc: recv from inetd, ttyno=300,sockfd=" + number(fd) +
                            ",socktype=2,port=23,mypid=" + number(getpid()) +
                            "\r\n");
    // The child logs into the same file.
    EXPECT_EQ(std::count(texts.begin(), texts.end(),
                         "vc: client (ttyno=300,pid=" +
                             number(vc_child_pid(child)) + ") alloc\r\n"),
              1);
    EXPECT_EQ(fcntl(inetd_fd_, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(DispatchTest, an_assignment_takes_its_entry_off_the_accept_list)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const int fd = connection();
    const int other = connection();
    wait_for_line(other, 1);
    wait_for_line(fd, 1);
    EXPECT_EQ(deal(assignment(300, fd, 23)), 0);
    EXPECT_EQ(g_vc_accept_fd_num, 1);
    EXPECT_EQ(reinterpret_cast<vc_accept_entry *>(g_vc_accept_list.next)->fd,
              other);
    vc_pending_take(other, 1);
    close(other);
}

TEST_F(DispatchTest, an_assignment_nobody_waits_for_starts_a_session_too)
{
    add(plain(AF_INET, 23, nullptr, 6));
    open_session(300, 23);
}

TEST_F(DispatchTest, 0x001_wins_over_0x002)
{
    add(plain(AF_INET, 23, nullptr, 6));
    tty_cmsg msg = assignment(300, connection(), 23);
    msg.vc_flag = 0x7ff;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_NE(vc_child_at(300), nullptr);
}

TEST_F(DispatchTest, a_line_out_of_range_closes_the_socket_without_answer)
{
    add(plain(AF_INET, 23, nullptr, 6));
    for (const int ttyno : {-1, 1586, 1600}) {
        const int fd = connection();
        wait_for_line(fd, 1);
        EXPECT_EQ(deal(assignment(ttyno, fd, 23)), 0);
        EXPECT_FALSE(is_open(fd));
        EXPECT_TRUE(sent().empty());
        EXPECT_EQ(g_vc_accept_fd_num, 0);
        EXPECT_EQ(messages().size(), 2u);
    }
}

TEST_F(DispatchTest, a_line_out_of_range_on_descriptor_0_closes_it)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const int kept = dup(0);
    EXPECT_EQ(deal(assignment(1600, 0, 23)), 0);
    EXPECT_FALSE(is_open(0));
    dup2(kept, 0);
    close(kept);
}

TEST_F(DispatchTest, a_line_out_of_range_without_socket_closes_nothing)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const int logs = fault::watch("open");
    const int closes = fault::watch("close");
    EXPECT_TRUE(give(assignment(1600, -1, 23)));
    EXPECT_EQ(vc_deal_msg(inetd_fd_), 0);
    // Each line of the log is one open and one close.
    EXPECT_EQ(fault::seen(closes), fault::seen(logs));
    EXPECT_TRUE(sent().empty());
}

TEST_F(DispatchTest, a_failure_before_the_record_gives_the_echo_alone)
{
    add(plain(AF_INET, 23, nullptr, 6));
    for (const int ttyno : {0, 257, 1149, 1420}) {
        const int fd = connection();
        const tty_cmsg msg = assignment(ttyno, fd, 23);
        EXPECT_EQ(deal(msg), 0);
        EXPECT_FALSE(is_open(fd));
        const auto records = sent();
        ASSERT_EQ(records.size(), 1u);
        tty_cmsg expected = msg;
        expected.vc_flag = 0x002;
        EXPECT_EQ(memcmp(&records[0], &expected, sizeof expected), 0);
        const auto texts = messages();
        ASSERT_EQ(texts.size(), 5u);
        EXPECT_EQ(texts[2],
                  "vc: pty numbers " + number(ttyno) + " up to MAX\n");
        EXPECT_EQ(texts[3], "vc: client alloc fail\r\n");
        EXPECT_EQ(
            texts[4].find("vc: vc_deal_msg, sockfd=" + number(fd) + ", line="),
            0u);
    }
}

TEST_F(DispatchTest, a_failure_after_the_record_gives_clean_and_echo)
{
    add(plain(AF_INET, 23, nullptr, 6));
    g_calls.alloc_result = -1;
    const int fd = connection();
    const tty_cmsg msg = assignment(300, fd, 23);
    EXPECT_EQ(deal(msg), 0);
    EXPECT_FALSE(is_open(fd));
    const auto records = sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].vc_flag, 0x002u);
    EXPECT_EQ(records[0].ttyno, 300);
    EXPECT_EQ(records[0].port, 23);
    EXPECT_EQ(records[0].protocol, 6);
    EXPECT_EQ(records[0].pid, 0);
    EXPECT_EQ(records[1].vc_flag, 0x002u);
    EXPECT_EQ(records[1].sockfd, fd);
    EXPECT_EQ(records[1].accept_id, 1);
    for (const std::string &text : messages()) {
        EXPECT_EQ(text.find("vc: vc_deal_msg, sockfd="), std::string::npos);
    }
}

// What the inetd hears of a line that could not be used.
TEST_F(DispatchTest, a_session_without_memory_is_refused_and_its_socket_closed)
{
    fault_row("vc_deal_msg", "calloc", "ENOMEM", "0",
              "vc: client alloc fail\r\n",
              "the socket closed; the inetd hears 0x002 once");
    fault_row("vc_deal_msg", "posix_openpt", "ENOSPC", "0",
              "vc: client alloc fail\r\n",
              "the socket closed; the inetd hears 0x002 once");
    add(plain(AF_INET, 23, nullptr, 6));
    expect_refusal("calloc", ENOMEM, 1);
    expect_refusal("posix_openpt", ENOSPC, 1);
}

TEST_F(DispatchTest, a_session_without_process_is_cleaned_and_refused)
{
    fault_row("vc_deal_msg", "fork", "EAGAIN", "0", "vc: client alloc fail\r\n",
              "the socket closed; the inetd hears 0x002 twice");
    fault_row("vc_deal_msg", "socketpair", "ENFILE", "0",
              "vc: client alloc fail\r\n",
              "the socket closed; the inetd hears 0x002 twice");
    add(plain(AF_INET, 23, nullptr, 6));
    expect_refusal("fork", EAGAIN, 2);
    expect_refusal("socketpair", ENFILE, 2);
    // The next one gets its session.
    EXPECT_EQ(deal(assignment(300, connection(), 23)), 0);
    EXPECT_NE(vc_child_at(300), nullptr);
}

TEST_F(DispatchTest, an_answer_that_cannot_be_sent_is_logged_only)
{
    fault_row("vc_deal_msg", "write", "EPIPE", "0",
              "vc:send msg fail, vc_flag: %x, error: %s\r\n",
              "the session; the inetd does not hear of it");
    add(plain(AF_INET, 23, nullptr, 6));
    fault::fail("write", 1, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_EQ(deal(assignment(300, connection(), 23)), 0);
    EXPECT_NE(vc_child_at(300), nullptr);
    EXPECT_TRUE(logged(std::string("vc:send msg fail, vc_flag: 20, error: ") +
                       strerror(EPIPE) + "\r\n"));
    fault::reset();
    fault::fail("write", 1, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_EQ(deal(assignment(257, connection(), 23)), 0);
    EXPECT_TRUE(logged(std::string("vc:send msg fail, vc_flag: 2, error: ") +
                       strerror(EPIPE) + "\r\n"));
}

TEST_F(DispatchTest, a_clear_ends_sessions_of_lines_258_to_321_only)
{
    add(plain(AF_INET, 23, nullptr, 6));
    for (const int ttyno : {258, 300, 321, 322, 1421}) {
        open_session(ttyno, 23);
        tty_cmsg msg = record(0x002);
        msg.ttyno = ttyno;
        EXPECT_EQ(deal(msg), 0);
        EXPECT_EQ(messages()[1],
                  "vc: client (ttyno=" + number(ttyno) + ") clear\r\n");
        const bool cleared = ttyno <= 321;
        EXPECT_EQ(vc_child_at(ttyno) == nullptr, cleared) << ttyno;
        EXPECT_EQ(sent().size(), cleared ? 1u : 0u);
    }
}

TEST_F(DispatchTest, a_clear_of_other_lines_does_nothing)
{
    add(plain(AF_INET, 23, nullptr, 6));
    for (const int ttyno : {-1, 0, 257, 300, 1586, 1 << 30}) {
        tty_cmsg msg = record(0x002);
        msg.ttyno = ttyno;
        EXPECT_EQ(deal(msg), 0);
        EXPECT_TRUE(sent().empty());
        EXPECT_EQ(messages().size(), 2u);
    }
}
