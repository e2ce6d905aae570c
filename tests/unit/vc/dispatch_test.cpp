#include "vc/dispatch.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/dispatch_fixture.h"
#include "vc/pending.h"
#include "vc/session.h"

TEST_F(DispatchTest, a_record_of_no_known_kind_is_ignored)
{
    add(plain(AF_INET, 23, nullptr, 6));
    for (const uint32_t flag : {0u, 0x004u, 0x020u, 0x040u, 0x400u}) {
        EXPECT_EQ(deal(record(flag)), 0) << flag;
        EXPECT_EQ(messages(), (std::vector<std::string>{"vc: vc_deal_msg\n"}));
        EXPECT_TRUE(sent().empty());
    }
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
