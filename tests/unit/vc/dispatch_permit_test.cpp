// Permits, and what becomes of a listener that cannot be opened.
#include "vc/dispatch.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/dispatch_fixture.h"
#include "vc/session.h"

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
