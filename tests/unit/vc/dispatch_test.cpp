#include "vc/dispatch.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/support/wait.h"
#include "tests/unit/vc/vc_fixture.h"
#include "vc/pending.h"
#include "vc/list.h"
#include "vc/service.h"
#include "vc/session.h"
#include "vc/teardown.h"

class DispatchTest : public VcTest
{
  protected:
    void SetUp() override
    {
        VcTest::SetUp();
        // A refused registration initialises. Children are left to the end of
        // the test: their handler would log at any moment.
        const vc_reg reg = plain(AF_INET, 0, nullptr, 12);
        ASSERT_EQ(vc_service_reg(&reg), -1);
        signal(SIGCHLD, SIG_DFL);
        messages();
    }

    void TearDown() override
    {
        for (int ttyno = 0; ttyno < TTY_LINES; ttyno++) {
            if (vc_child_at(ttyno) != nullptr) {
                vc_child_kill(vc_child_at(ttyno));
            }
        }
        while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
        }
        vc_srv *srv;
        VC_FOR_EACH_SERVICE(srv)
        {
            vc_srv_close_listener(srv);
        }
        VcTest::TearDown();
    }

    int deal(const tty_cmsg &record)
    {
        EXPECT_TRUE(give(record));
        messages();
        return vc_deal_msg(inetd_fd_);
    }

    static tty_cmsg record(uint32_t flag)
    {
        tty_cmsg msg = {};
        msg.vc_flag = flag;
        msg.pid = getpid();
        msg.tos = -1;
        return msg;
    }

    static tty_cmsg permit(int family, int port, int protocol)
    {
        tty_cmsg msg = record(0x008);
        msg.socktype = family;
        msg.port = port;
        msg.protocol = protocol;
        return msg;
    }

    tty_cmsg path_permit(const std::string &name, int protocol)
    {
        tty_cmsg msg = record(0x080);
        msg.socktype = AF_UNIX;
        msg.protocol = protocol;
        strcpy(msg.path, name.c_str());
        return msg;
    }

    tty_cmsg assignment(int ttyno, int sockfd, int port)
    {
        tty_cmsg msg = record(0x001);
        msg.ttyno = ttyno;
        msg.sockfd = sockfd;
        msg.socktype = AF_INET;
        msg.port = port;
        msg.accept_id = 1;
        return msg;
    }

    // One end of a pair, as an accepted connection.
    static int connection()
    {
        int ends[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        close(ends[1]);
        return ends[0];
    }

    // A session on the line, as an assignment makes it.
    void open_session(int ttyno, int port)
    {
        ASSERT_EQ(deal(assignment(ttyno, connection(), port)), 0);
        ASSERT_NE(vc_child_at(ttyno), nullptr);
        sent();
    }

    static bool is_open(int fd)
    {
        return fcntl(fd, F_GETFD) != -1;
    }

    // An assignment while the call fails: the inetd hears so often that the
    // line is clean, the last time for the connection.
    void expect_refusal(const char *call, int error, size_t answers)
    {
        const int fd = connection();
        fault::fail(call, 1, error);
        EXPECT_EQ(deal(assignment(300, fd, 23)), 0);
        fault::reset();
        EXPECT_FALSE(is_open(fd)) << call;
        EXPECT_EQ(vc_child_at(300), nullptr) << call;
        EXPECT_TRUE(logged("vc: client alloc fail\r\n")) << call;
        const auto records = sent();
        ASSERT_EQ(records.size(), answers) << call;
        for (const tty_cmsg &record : records) {
            EXPECT_EQ(record.vc_flag, 0x002u) << call;
        }
        EXPECT_EQ(records.back().sockfd, fd) << call;
    }

    // An entry of the accept list as vc_accept() makes it.
    static void wait_for_line(int fd, int accept_id)
    {
        auto *entry =
            static_cast<vc_accept_entry *>(malloc(sizeof(vc_accept_entry)));
        entry->fd = fd;
        entry->accept_id = accept_id;
        list_add_tail(&entry->link, &g_vc_accept_list);
        g_vc_accept_fd_num++;
    }

    static std::string number(int value)
    {
        return std::to_string(value);
    }

    std::string own_prefix() const
    {
        return "(vc:" + number(getpid()) + "):vc_deal_msg ";
    }
};

TEST_F(DispatchTest, a_record_of_no_known_kind_is_ignored)
{
    add(plain(AF_INET, 23, nullptr, 6));
    for (const uint32_t flag : {0u, 0x004u, 0x020u, 0x040u, 0x400u}) {
        EXPECT_EQ(deal(record(flag)), 0) << flag;
        EXPECT_EQ(messages(), (std::vector<std::string>{"vc: vc_deal_msg\n"}));
        EXPECT_TRUE(sent().empty());
    }
}

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
                         "vc: client (ttyno=300,pid=" + number(vc_child_pid(child)) +
                             ") alloc\r\n"),
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

TEST_F(DispatchTest, a_permit_opens_the_listener)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 11));
    EXPECT_EQ(deal(permit(AF_INET, port, 11)), 0);
    EXPECT_GE(service(0)->listen_fd, 0);
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
    EXPECT_EQ(messages()[1], "vc: port (" + number(port) + ") permit add " +
                                 number(getpid()) + ".\r\n");
    EXPECT_TRUE(sent().empty());
}

TEST_F(DispatchTest, a_permit_of_another_process_is_logged_and_ignored)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 6));
    tty_cmsg msg = permit(AF_INET, port, 6);
    msg.pid = 1;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "vc: vc_deal_msg\n", "vc: port (" + number(port) +
                                                       ") permit add 1.\r\n"}));
}

TEST_F(DispatchTest, a_permit_goes_to_the_service_of_its_port_and_family)
{
    const int port = unused_port(AF_INET6);
    add(plain(AF_INET, port, nullptr, 6));
    add(plain(AF_INET6, port, nullptr, 1));
    add(plain(AF_INET6, port + 1, nullptr, 6));
    service(1)->reg.protocol = 6;
    EXPECT_EQ(deal(permit(AF_INET6, port, 6)), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_GE(service(1)->listen_fd, 0);
    EXPECT_EQ(service(2)->listen_fd, -1);
}

TEST_F(DispatchTest, a_permit_for_no_service_closes_the_new_socket)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 6));
    EXPECT_EQ(deal(permit(AF_INET, port, 1)), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_TRUE(sent().empty());
}

TEST_F(DispatchTest, a_second_listener_is_closed_and_the_first_kept)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 6));
    const int kept = dup(0);
    service(0)->listen_fd = kept;
    EXPECT_EQ(deal(permit(AF_INET, port, 6)), 0);
    EXPECT_EQ(service(0)->listen_fd, kept);
    EXPECT_EQ(service(0)->flags, 0u);
}

TEST_F(DispatchTest, a_plain_permit_opens_a_closed_service)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 6));
    service(0)->flags = SRV_CLOSED;
    EXPECT_EQ(deal(permit(AF_INET, port, 6)), 0);
    EXPECT_GE(service(0)->listen_fd, 0);
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
}

TEST_F(DispatchTest, after_a_port_change_a_closed_service_stays_closed)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 6));
    service(0)->flags = SRV_CLOSED | SRV_ANNOUNCED;
    tty_cmsg msg = permit(AF_INET, port, 6);
    msg.vc_flag |= 0x400;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    // Protocol and port change places in this message.
    EXPECT_EQ(messages()[1], "vc: port (6) protocol (" + number(port) +
                                 "), flags (0x3) server close.\r\n");
}

TEST_F(DispatchTest, after_a_port_change_an_open_service_gets_its_listener)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 6));
    service(0)->flags = SRV_ANNOUNCED;
    tty_cmsg msg = permit(AF_INET, port, 6);
    msg.vc_flag |= 0x400;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_GE(service(0)->listen_fd, 0);
}

TEST_F(DispatchTest, after_a_port_change_only_the_service_of_the_port_counts)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, 1, nullptr, 6));
    add(plain(AF_INET, port, nullptr, 6));
    service(0)->flags = SRV_CLOSED | SRV_ANNOUNCED;
    service(1)->flags = SRV_ANNOUNCED;
    tty_cmsg msg = permit(AF_INET, port, 6);
    msg.vc_flag |= 0x400;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_GE(service(1)->listen_fd, 0);
}

TEST_F(DispatchTest, a_stopped_service_ignores_permits_silently)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port + 1, nullptr, 6));
    add(plain(AF_INET, port, nullptr, 6));
    // Any service of protocol and family decides, whatever its port.
    service(0)->flags = SRV_CLOSED | SRV_STOPPED;
    EXPECT_EQ(deal(permit(AF_INET, port, 6)), 0);
    EXPECT_EQ(service(1)->listen_fd, -1);
    EXPECT_EQ(messages(), (std::vector<std::string>{"vc: vc_deal_msg\n"}));
}

TEST_F(DispatchTest, a_stopped_service_of_another_family_does_not_matter)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET6, port, nullptr, 6));
    add(plain(AF_INET, port, nullptr, 6));
    service(0)->flags = SRV_STOPPED;
    EXPECT_EQ(deal(permit(AF_INET, port, 6)), 0);
    EXPECT_GE(service(1)->listen_fd, 0);
}

TEST_F(DispatchTest, a_service_stopped_during_its_permit_stays_stopped)
{
    const int port = unused_port(AF_INET);
    add(plain(AF_INET, port, nullptr, 6));
    fault::run("listen", 1, [] {
        vc_deal_service_listen(false, 6);
    });
    EXPECT_EQ(deal(permit(AF_INET, port, 6)), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_EQ(service(0)->flags, SRV_CLOSED | SRV_STOPPED);
}

TEST_F(DispatchTest, a_listener_that_fails_is_answered_and_loses_the_inetd)
{
    fault_row("vc_deal_msg", "listen", "EADDRINUSE", "-1", "",
              "the listeners of the protocol closed; the inetd hears 0x010");
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 6));
    add(plain(AF_INET, 25, nullptr, 1));
    const int same_protocol = dup(0);
    const int other_protocol = dup(0);
    service(1)->listen_fd = same_protocol;
    service(2)->listen_fd = other_protocol;
    for (int i = 0; i < 3; i++) {
        service(i)->flags = SRV_ANNOUNCED;
    }
    fault::fail("listen", 1, EADDRINUSE);
    const tty_cmsg msg = permit(AF_INET, unused_port(AF_INET), 6);
    EXPECT_EQ(deal(msg), -1);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    tty_cmsg expected = msg;
    expected.vc_flag = 0x010;
    EXPECT_EQ(memcmp(&records[0], &expected, sizeof expected), 0);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(1)->flags, 0u);
    EXPECT_EQ(service(1)->listen_fd, -1);
    EXPECT_FALSE(is_open(same_protocol));
    EXPECT_EQ(service(2)->flags, SRV_ANNOUNCED);
    EXPECT_TRUE(is_open(other_protocol));
}

TEST_F(DispatchTest, protocols_5_and_11_fail_together)
{
    fault_row("vc_deal_msg", "listen", "EADDRINUSE", "-1", "",
              "the listeners of protocols 5 and 11 closed");
    for (const int failing : {5, 11}) {
        add(plain(AF_INET, 100 + failing, nullptr, 5));
        add(plain(AF_INET, 200 + failing, nullptr, 11));
        const int a = dup(0);
        const int b = dup(0);
        service(0)->listen_fd = a;
        service(1)->listen_fd = b;
        fault::fail("listen", 1, EADDRINUSE);
        EXPECT_EQ(deal(permit(AF_INET, unused_port(AF_INET), failing)), -1);
        fault::reset();
        EXPECT_FALSE(is_open(a));
        EXPECT_FALSE(is_open(b));
        vc_service_del(100 + failing);
        vc_service_del(200 + failing);
    }
}

TEST_F(DispatchTest, protocols_5_and_11_do_not_fail_with_another)
{
    fault_row("vc_deal_msg", "listen", "EADDRINUSE", "-1", "",
              "the listeners of other protocols");
    add(plain(AF_INET, 23, nullptr, 5));
    const int kept = dup(0);
    service(0)->listen_fd = kept;
    service(0)->flags = SRV_ANNOUNCED;
    fault::fail("listen", 1, EADDRINUSE);
    EXPECT_EQ(deal(permit(AF_INET, unused_port(AF_INET), 6)), -1);
    EXPECT_TRUE(is_open(kept));
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
}

TEST_F(DispatchTest, sessions_survive_a_listener_that_fails)
{
    fault_row("vc_deal_msg", "listen", "EADDRINUSE", "-1", "", "the sessions");
    add(plain(AF_INET, 23, nullptr, 6));
    open_session(300, 23);
    fault::fail("listen", 1, EADDRINUSE);
    EXPECT_EQ(deal(permit(AF_INET, unused_port(AF_INET), 6)), -1);
    EXPECT_NE(vc_child_at(300), nullptr);
}

TEST_F(DispatchTest, a_failure_answer_that_cannot_be_sent_is_logged)
{
    fault_row("vc_deal_msg", "write", "EPIPE", "-1, as a listen had failed",
              "vc:send msg fail, vc_flag: %x, error: %s\r\n", "");
    add(plain(AF_INET, 23, nullptr, 6));
    fault::fail("listen", 1, EADDRINUSE);
    fault::fail("write", 1, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_EQ(deal(permit(AF_INET, unused_port(AF_INET), 6)), -1);
    EXPECT_TRUE(logged(std::string("vc:send msg fail, vc_flag: 10, error: ") +
                       strerror(EPIPE) + "\r\n"));
}

TEST_F(DispatchTest, a_path_permit_opens_the_listener)
{
    const std::string name = path("/s");
    add(plain(AF_UNIX, 0, "/elsewhere", 7));
    add(plain(AF_UNIX, 0, name.c_str(), 7));
    service(1)->flags = SRV_CLOSED;
    EXPECT_EQ(deal(path_permit(name, 7)), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_GE(service(1)->listen_fd, 0);
    EXPECT_EQ(service(1)->flags, SRV_ANNOUNCED);
    EXPECT_EQ(messages()[1], "vc: path(" + name + ") permit add " +
                                 number(getpid()) + ".\r\n");
}

TEST_F(DispatchTest, a_path_permit_of_another_process_is_ignored)
{
    const std::string name = path("/s");
    add(plain(AF_UNIX, 0, name.c_str(), 7));
    tty_cmsg msg = path_permit(name, 7);
    msg.pid = 1;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_EQ(messages()[1], "vc: path(" + name + ") permit add 1.\r\n");
}

TEST_F(DispatchTest, a_stopped_path_service_is_opened_all_the_same)
{
    const std::string name = path("/s");
    add(plain(AF_UNIX, 0, name.c_str(), 7));
    service(0)->flags = SRV_STOPPED | SRV_CLOSED;
    EXPECT_EQ(deal(path_permit(name, 7)), 0);
    EXPECT_GE(service(0)->listen_fd, 0);
    EXPECT_EQ(service(0)->flags, SRV_STOPPED | SRV_ANNOUNCED);
}

TEST_F(DispatchTest, a_second_path_permit_keeps_the_first_listener)
{
    const std::string name = path("/s");
    add(plain(AF_UNIX, 0, name.c_str(), 7));
    EXPECT_EQ(deal(path_permit(name, 7)), 0);
    const int first = service(0)->listen_fd;
    EXPECT_EQ(deal(path_permit(name, 7)), 0);
    EXPECT_EQ(service(0)->listen_fd, first);
    EXPECT_TRUE(is_open(first));
}

TEST_F(DispatchTest, a_path_that_fails_is_answered_and_left_open)
{
    fault_row("vc_deal_msg", "listen", "EADDRINUSE", "-1", "",
              "the old listener stays open; the inetd hears 0x100");
    const std::string name = path("/s");
    add(plain(AF_UNIX, 0, name.c_str(), 7));
    add(plain(AF_UNIX, 0, "/elsewhere", 7));
    const int listener = dup(0);
    service(0)->listen_fd = listener;
    service(0)->flags = SRV_ANNOUNCED;
    service(1)->flags = SRV_ANNOUNCED;
    fault::fail("listen", 1, EADDRINUSE);
    const tty_cmsg msg = path_permit(name, 7);
    EXPECT_EQ(deal(msg), -1);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    tty_cmsg expected = msg;
    expected.vc_flag = 0x100;
    EXPECT_EQ(memcmp(&records[0], &expected, sizeof expected), 0);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(0)->listen_fd, listener);
    EXPECT_TRUE(is_open(listener));
    EXPECT_EQ(service(1)->flags, SRV_ANNOUNCED);
}

TEST_F(DispatchTest, without_a_socket_both_kinds_of_permit_fail)
{
    fault_row("vc_deal_msg", "socket", "EMFILE", "-1",
              "vc: open socket failed, errno=%d %s\r\n",
              "the service unannounced; the inetd hears 0x010 or 0x100");
    const std::string name = path("/s");
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_UNIX, 0, name.c_str(), 7));
    service(0)->flags = SRV_ANNOUNCED;
    service(1)->flags = SRV_ANNOUNCED;
    fault::fail("socket", 1, EMFILE, 2);
    EXPECT_EQ(deal(permit(AF_INET, 23, 6)), -1);
    EXPECT_TRUE(logged("vc: open socket failed, errno=" + number(EMFILE) + " " +
                       strerror(EMFILE) + "\r\n"));
    EXPECT_EQ(deal(path_permit(name, 7)), -1);
    const auto records = sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].vc_flag, 0x010u);
    EXPECT_EQ(records[1].vc_flag, 0x100u);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(1)->flags, 0u);
}

TEST_F(DispatchTest, a_path_without_terminator_is_refused)
{
    add(plain(AF_UNIX, 0, "/elsewhere", 7));
    tty_cmsg msg = path_permit("", 7);
    memset(msg.path, 'x', sizeof msg.path);
    EXPECT_EQ(deal(msg), -1);
    EXPECT_TRUE(logged("vc: illegal path\r\n"));
    EXPECT_EQ(sent()[0].vc_flag, 0x100u);
}

TEST_F(DispatchTest, a_stop_record_closes_the_protocol)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 1));
    const Listener listener;
    service(0)->listen_fd = listener.fd;
    service(0)->flags = SRV_ANNOUNCED;
    tty_cmsg msg = record(0x200);
    msg.protocol = 6;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_TRUE(listener.shut_down());
    EXPECT_TRUE(listener.closed());
    EXPECT_EQ(service(0)->flags, SRV_CLOSED);
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_EQ(service(1)->flags, 0u);
    EXPECT_EQ(messages()[1], "vc:vc_msg_stop_listen stop listen proto 6 port "
                             "23 addr type 2, flags 0x2\r\n");
}

TEST_F(DispatchTest, a_stop_record_of_another_process_does_nothing)
{
    add(plain(AF_INET, 23, nullptr, 6));
    tty_cmsg msg = record(0x200);
    msg.protocol = 6;
    msg.pid = 1;
    EXPECT_EQ(deal(msg), 0);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(vc_msg_stop_listen(&msg), getpid());
}

TEST_F(DispatchTest, a_delete_resets_everything)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 1));
    open_session(300, 23);
    open_session(301, 24);
    const int waiting = connection();
    wait_for_line(waiting, 1);
    const int listener = dup(0);
    service(1)->listen_fd = listener;
    for (const uint32_t flag : {0x010u, 0x100u}) {
        tty_cmsg msg = record(flag);
        msg.protocol = 6;
        msg.port = 23;
        EXPECT_EQ(deal(msg), -1);
        EXPECT_EQ(messages()[1], flag == 0x010
                                     ? "vc: del port/path (tc_flag: 10)\r\n"
                                     : "vc: del port/path (tc_flag: 100)\r\n");
        EXPECT_EQ(vc_child_at(300), nullptr);
        EXPECT_EQ(vc_child_at(301), nullptr);
        EXPECT_EQ(service(1)->listen_fd, -1);
        EXPECT_FALSE(is_open(listener));
        EXPECT_FALSE(is_open(waiting));
        EXPECT_EQ(g_vc_accept_fd_num, 0);
    }
    EXPECT_EQ(sent().size(), 2u);
}

TEST_F(DispatchTest, a_delete_of_another_process_resets_all_the_same)
{
    add(plain(AF_INET, 23, nullptr, 6));
    open_session(300, 23);
    tty_cmsg msg = record(0x010);
    msg.pid = 1;
    EXPECT_EQ(deal(msg), -1);
    EXPECT_EQ(vc_child_at(300), nullptr);
}

TEST_F(DispatchTest, a_short_record_resets_everything)
{
    fault_row("vc_deal_msg", "recv", "short", "-1",
              "vc: recv fail ret %d, err[%d]:%s\n", "no session");
    add(plain(AF_INET, 23, nullptr, 6));
    open_session(300, 23);
    messages();
    char bytes[155] = {};
    ASSERT_EQ(send(far_end_, bytes, sizeof bytes, 0), 155);
    shutdown(far_end_, SHUT_WR);
    EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
    EXPECT_EQ(vc_child_at(300), nullptr);
    const auto texts = messages();
    bool found = false;
    for (const std::string &text : texts) {
        found = found || text.find("vc: recv fail ret 155, err[") == 0;
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(texts.back().find(own_prefix() + "before return err, err "), 0u);
}

TEST_F(DispatchTest, the_reset_ends_sessions_then_listeners_then_accepts)
{
    add(plain(AF_INET, 23, nullptr, 6));
    open_session(300, 23);
    service(0)->listen_fd = dup(0);
    wait_for_line(connection(), 1);
    messages();
    shutdown(far_end_, SHUT_WR);
    EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
    std::string order;
    for (const std::string &text : messages()) {
        if (text == "vc: kill client 300\n") {
            order += "session ";
        } else if (text.find("close listen fd(") != std::string::npos) {
            order += "listener ";
        } else if (text.find("close all socket fd") != std::string::npos) {
            order += "accept";
        }
    }
    EXPECT_EQ(order, "session listener accept");
}

TEST_F(DispatchTest, the_end_of_the_stream_is_a_lost_connection)
{
    fault_row("vc_deal_msg", "recv", "end of file", "-1",
              "vc: recv fail ret %d, err[%d]:%s\n", "");
    add(plain(AF_INET, 23, nullptr, 6));
    shutdown(far_end_, SHUT_WR);
    EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
    EXPECT_EQ(messages()[1].find("vc: recv fail ret 0, err["), 0u);
}

TEST_F(DispatchTest, a_receive_error_is_a_lost_connection)
{
    fault_row("vc_deal_msg", "recv", "ECONNRESET", "-1",
              "vc: recv fail ret %d, err[%d]:%s\n", "");
    add(plain(AF_INET, 23, nullptr, 6));
    fault::fail("recv", 1, ECONNRESET);
    EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
    EXPECT_EQ(messages()[1], "vc: recv fail ret -1, err[" + number(ECONNRESET) +
                                 "]:" + strerror(ECONNRESET) + "\n");
}

// Nothing is received a second time: what interrupts or delays the call loses
// the connection, too.
TEST_F(DispatchTest, an_interrupted_receive_is_a_lost_connection_too)
{
    fault_row("vc_deal_msg", "recv", "EINTR, EAGAIN", "-1",
              "vc: recv fail ret %d, err[%d]:%s\n",
              "every listener closed, every service unannounced");
    for (const int error : {EINTR, EAGAIN}) {
        add(plain(AF_INET, 23, nullptr, 6));
        const int listener = dup(0);
        service(0)->listen_fd = listener;
        service(0)->flags = SRV_ANNOUNCED;
        messages();
        fault::fail("recv", 1, error);
        EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
        fault::reset();
        EXPECT_EQ(messages()[1], "vc: recv fail ret -1, err[" + number(error) +
                                     "]:" + strerror(error) + "\n");
        EXPECT_FALSE(is_open(listener));
        EXPECT_EQ(service(0)->flags, 0u);
        vc_service_del(23);
    }
}

TEST_F(DispatchTest, the_reset_clears_flags_but_keeps_protocol_11_closed)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 11));
    service(0)->flags = SRV_ANNOUNCED | SRV_CLOSED | SRV_STOPPED;
    service(1)->flags = SRV_ANNOUNCED | SRV_CLOSED | SRV_STOPPED;
    shutdown(far_end_, SHUT_WR);
    EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
    EXPECT_EQ(service(0)->flags, SRV_STOPPED);
    EXPECT_EQ(service(1)->flags, SRV_CLOSED | SRV_STOPPED);
}

TEST_F(DispatchTest, the_reset_logs_each_listener_it_closes)
{
    fault_row("vc_deal_msg", "close", "EIO", "-1, as at any reset",
              "(vc:%d):%s close listen fd(%d) failed, err %s.\r\n",
              "the listener's number is kept");
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 6));
    const int good = dup(0);
    const int bad = dup(0);
    service(0)->listen_fd = good;
    service(1)->listen_fd = bad;
    shutdown(far_end_, SHUT_WR);
    fault::fail("close", 1, EIO, 1, fault::only_fd(bad));
    EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
    fault::reset();
    EXPECT_EQ(service(0)->listen_fd, -1);
    EXPECT_EQ(service(1)->listen_fd, bad);
    const auto texts = messages();
    ASSERT_EQ(texts.size(), 5u);
    EXPECT_EQ(texts[2].find(own_prefix() + "close listen fd(" + number(good) +
                            ") success, err "),
              0u);
    EXPECT_EQ(texts[3], own_prefix() + "close listen fd(" + number(bad) +
                            ") failed, err " + strerror(EIO) + ".\r\n");
}

TEST_F(DispatchTest, the_reset_drops_pending_accepts_but_never_closes_0)
{
    add(plain(AF_INET, 23, nullptr, 6));
    const int fd = connection();
    wait_for_line(0, 1);
    wait_for_line(fd, 2);
    shutdown(far_end_, SHUT_WR);
    EXPECT_EQ(vc_deal_msg(inetd_fd_), -1);
    EXPECT_TRUE(is_open(0));
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(g_vc_accept_fd_num, 0);
    const auto texts = messages();
    ASSERT_EQ(texts.size(), 5u);
    for (const int i : {2, 3}) {
        EXPECT_EQ(texts[static_cast<size_t>(i)].find(
                      own_prefix() + "close all socket fd, err "),
                  0u);
    }
}

TEST_F(DispatchTest, one_record_is_handled_per_call)
{
    add(plain(AF_INET, 23, nullptr, 6));
    ASSERT_TRUE(give(record(0x004)));
    ASSERT_TRUE(give(record(0x004)));
    EXPECT_EQ(vc_deal_msg(inetd_fd_), 0);
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_EQ(vc_deal_msg(inetd_fd_), 0);
}
