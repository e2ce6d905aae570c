// Announcements, and what is forgotten when one fails.
#include "vc/listen.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/listen_fixture.h"
#include "vc/service.h"

static int tos_of_16()
{
    return 16;
}

TEST_F(ListenTest, an_inet_service_is_announced_with_flag_008)
{
    add(plain(AF_INET, 23, nullptr, 6));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    tty_cmsg expected = {};
    expected.vc_flag = 0x008;
    expected.socktype = 2;
    expected.port = 23;
    expected.protocol = 6;
    expected.pid = getpid();
    expected.tos = -1;
    EXPECT_EQ(memcmp(&records[0], &expected, sizeof expected), 0);
    expect_messages({"vc:add port:23, sock_type:2, protocol:6.\n"});
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
}

TEST_F(ListenTest, an_inet6_service_is_announced_with_flag_008)
{
    add(plain(AF_INET6, 23, nullptr, 6));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].vc_flag, 0x008u);
    EXPECT_EQ(records[0].socktype, 10);
    expect_messages({"vc:add port:23, sock_type:10, protocol:6.\n"});
}

TEST_F(ListenTest, a_path_service_is_announced_with_flag_080)
{
    add(plain(AF_UNIX, 0, "/run/x", 7));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].vc_flag, 0x080u);
    EXPECT_EQ(records[0].socktype, 1);
    EXPECT_EQ(records[0].port, 0);
    EXPECT_STREQ(records[0].path, "/run/x");
    expect_messages({"vc:add path:/run/x, sock_type:1, protocol:7.\n"});
}

TEST_F(ListenTest, a_long_path_is_cut_and_logged_as_cut)
{
    const std::string name(80, 'p');
    const std::string cut(63, 'p');
    add(plain(AF_UNIX, 0, name.c_str(), 7));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(std::string(records[0].path), cut);
    expect_messages({"vc:add path:" + cut + ", sock_type:1, protocol:7.\n"});
}

TEST_F(ListenTest, a_tipc_service_is_announced_with_its_name_sequence)
{
    vc_reg reg = plain(30, 5, nullptr, 3);
    reg.addrtype = 0xff;
    reg.scope = 0xfe;
    reg.nameseq_type = 18888;
    reg.nameseq_lower = 17;
    reg.nameseq_upper = 19;
    add(reg);
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].vc_flag, 0x008u);
    EXPECT_EQ(records[0].socktype, 30);
    EXPECT_EQ(records[0].port, 5);
    EXPECT_EQ(records[0].tipc_addrtype, 255u);
    EXPECT_EQ(records[0].tipc_scope, -2);
    EXPECT_EQ(records[0].tipc_type, 18888u);
    EXPECT_EQ(records[0].tipc_lower, 17u);
    EXPECT_EQ(records[0].tipc_upper, 19u);
    expect_messages(
        {"vc: tipc register addrtype(255), scope(-2), nameseq_type(18888), "
         "nameseq_lower(17), nameseq_upper(19)\n",
         "vc:add port:5, sock_type:30, protocol:3.\n"});
}

TEST_F(ListenTest, a_tipc_service_with_port_0_sends_port_0_and_no_path)
{
    add(plain(30, 0, nullptr, 3));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    EXPECT_EQ(sent()[0].port, 0);
    EXPECT_TRUE(logged("vc:add port:0, sock_type:30, protocol:3.\n"));
}

TEST_F(ListenTest, a_tipc_service_after_a_path_carries_both_flags)
{
    add(plain(AF_UNIX, 0, "/run/x", 7));
    add(plain(30, 0, nullptr, 3));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].vc_flag, 0x088u);
    const char nothing[64] = {};
    EXPECT_EQ(memcmp(records[1].path, nothing, sizeof nothing), 0);
}

TEST_F(ListenTest, tipc_fields_stay_in_later_records_of_the_walk)
{
    vc_reg reg = plain(30, 0, nullptr, 3);
    reg.nameseq_type = 18888;
    add(reg);
    add(plain(AF_INET, 23, nullptr, 6));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].tipc_type, 18888u);
    EXPECT_EQ(records[1].vc_flag, 0x008u);
}

TEST_F(ListenTest, a_walk_starts_with_a_cleared_record)
{
    vc_reg reg = plain(30, 0, nullptr, 3);
    reg.nameseq_type = 18888;
    add(reg);
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    add(plain(AF_INET, 23, nullptr, 6));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    EXPECT_EQ(sent()[1].tipc_type, 0u);
}

TEST_F(ListenTest, an_unknown_family_keeps_the_flag_of_the_one_before)
{
    add(plain(5, 0, nullptr, 0));
    add(plain(AF_UNIX, 0, "/run/x", 7));
    add(plain(6, 0, nullptr, 0));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].vc_flag, 0u);
    EXPECT_EQ(records[0].socktype, 5);
    EXPECT_EQ(records[2].vc_flag, 0x080u);
    EXPECT_EQ(records[2].socktype, 6);
    // Without port and path neither field is rewritten.
    EXPECT_STREQ(records[2].path, "/run/x");
}

TEST_F(ListenTest, tos_comes_from_the_callback_or_is_minus_one)
{
    vc_reg reg = plain(AF_INET, 23, nullptr, 6);
    reg.tos_func = tos_of_16;
    add(reg);
    add(plain(AF_INET, 24, nullptr, 6));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].tos, 16);
    EXPECT_EQ(records[1].tos, -1);
}

TEST_F(ListenTest, announced_and_closed_services_are_silent)
{
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 11));
    service(0)->flags = SRV_ANNOUNCED;
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(service(1)->flags, SRV_CLOSED);
}

TEST_F(ListenTest, services_are_announced_in_order_of_registration)
{
    add(plain(AF_INET, 25, nullptr, 6));
    add(plain(AF_INET, 23, nullptr, 6));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].port, 25);
    EXPECT_EQ(records[1].port, 23);
}

TEST_F(ListenTest, a_failed_announcement_resets_every_listener)
{
    fault_row(
        "vc_open_listen", "write", "EPIPE", "-1",
        "vc:%s write vc_fd %d fail, err:%s.\n",
        "every listener closed, every service unannounced, the lock free");
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 6));
    add(plain(AF_INET, 25, nullptr, 6));
    const int listener = dup(0);
    service(0)->flags = SRV_ANNOUNCED;
    service(0)->listen_fd = listener;
    fault::fail("write", 1, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_LT(vc_open_listen(inetd_fd_), 0);
    fault::reset();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(service(i)->flags & SRV_ANNOUNCED, 0u);
        EXPECT_EQ(service(i)->listen_fd, -1);
    }
    EXPECT_EQ(fcntl(listener, F_GETFD), -1);
    const auto texts = messages();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], "vc:add port:24, sock_type:2, protocol:6.\n");
    EXPECT_EQ(texts[1], "vc:vc_open_listen write vc_fd " +
                            std::to_string(inetd_fd_) +
                            " fail, err:" + strerror(EPIPE) + ".\n");
    EXPECT_EQ(texts[2].find("(vc:" + std::to_string(getpid()) +
                            "):vc_open_listen close listen fd(" +
                            std::to_string(listener) + ") success, err "),
              0u);
    EXPECT_EQ(texts[2].substr(texts[2].size() - 3), ".\r\n");
    // The lock is free.
    vc_wlock();
    vc_unlock();
}

TEST_F(ListenTest, a_listener_that_cannot_be_closed_is_kept)
{
    fault_row("vc_open_listen", "close", "EIO",
              "-1, as the announcement had failed",
              "(vc:%d):%s close listen fd(%d) failed, err %s.\r\n",
              "the listener's number is kept");
    add(plain(AF_INET, 23, nullptr, 6));
    const int listener = dup(0);
    service(0)->listen_fd = listener;
    fault::fail("write", 1, EPIPE, 1, fault::only_fd(inetd_fd_));
    fault::fail("close", 1, EIO, 1, fault::only_fd(listener));
    EXPECT_LT(vc_open_listen(inetd_fd_), 0);
    fault::reset();
    EXPECT_EQ(service(0)->listen_fd, listener);
    EXPECT_EQ(messages().back(), "(vc:" + std::to_string(getpid()) +
                                     "):vc_open_listen close listen fd(" +
                                     std::to_string(listener) +
                                     ") failed, err " + strerror(EIO) +
                                     ".\r\n");
    close(listener);
}

TEST_F(ListenTest, services_announced_before_the_failure_are_forgotten_too)
{
    fault_row("vc_open_listen", "write", "EPIPE", "-1", "",
              "services announced before it are unannounced too");
    add(plain(AF_INET, 23, nullptr, 6));
    add(plain(AF_INET, 24, nullptr, 6));
    fault::fail("write", 2, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_LT(vc_open_listen(inetd_fd_), 0);
    EXPECT_EQ(service(0)->flags, 0u);
    EXPECT_EQ(service(1)->flags, 0u);
}

TEST_F(ListenTest, a_short_or_interrupted_announcement_is_completed)
{
    fault_row("vc_open_listen", "write", "short, EINTR", "0", "",
              "the inetd hears of the service once");
    add(plain(AF_INET, 23, nullptr, 6));
    fault::shorten("write", 1, 1, 1, fault::only_fd(inetd_fd_));
    fault::fail("write", 2, EINTR, 1, fault::only_fd(inetd_fd_));
    EXPECT_EQ(vc_open_listen(inetd_fd_), 0);
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(service(0)->flags, SRV_ANNOUNCED);
}
