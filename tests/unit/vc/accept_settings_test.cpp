// What is asked of and set on an accepted connection: the access check, TOS and
// keep-alive.
#include "vc/accept.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/accept_fixture.h"
#include "vc/list.h"
#include "vc/pending.h"

static int g_acl_calls;
static sockaddr_storage g_acl_local;
static sockaddr_storage g_acl_peer;
static bool g_acl_answer;

static bool check_access(const sockaddr *local, const sockaddr *peer)
{
    const size_t length = local->sa_family == AF_INET ? sizeof(sockaddr_in)
                                                      : sizeof(sockaddr_in6);
    g_acl_calls++;
    memcpy(&g_acl_local, local, length);
    memcpy(&g_acl_peer, peer, length);
    return g_acl_answer;
}

static int g_tos_answer;

static int answer_tos()
{
    return g_tos_answer;
}

TEST_F(AcceptTest, keepalive_times_are_set_on_inet_connections)
{
    for (const int family : {AF_INET, AF_INET6}) {
        listen_on(family, 6);
        client();
        EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
        const int fd = entry(0)->fd;
        EXPECT_EQ(int_option(fd, IPPROTO_TCP, TCP_KEEPIDLE), 600);
        EXPECT_EQ(int_option(fd, IPPROTO_TCP, TCP_KEEPINTVL), 10);
        EXPECT_EQ(int_option(fd, IPPROTO_TCP, TCP_KEEPCNT), 3);
        EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_KEEPALIVE), 0);
        close(fd);
        vc_pending_drop(entry(0));
    }
}

TEST_F(AcceptTest, settings_that_fail_are_logged_in_order_and_ignored)
{
    fault_row("vc_accept", "setsockopt", "EPERM", "0",
              "%s setsockopt %s fail, err:%s.\r\n",
              "the report; four lines, one for each setting");
    listen_on(AF_INET, 6);
    client();
    fault::fail("setsockopt", 1, EPERM, fault::ALWAYS);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    fault::reset();
    std::vector<std::string> texts;
    for (const std::string &text : messages()) {
        if (text.find("vc_accept setsockopt") == 0) {
            texts.push_back(text);
        }
    }
    const std::string end =
        std::string(" fail, err:") + strerror(EPERM) + ".\r\n";
    EXPECT_EQ(texts,
              (std::vector<std::string>{"vc_accept setsockopt keepalive" + end,
                                        "vc_accept setsockopt keepidle" + end,
                                        "vc_accept setsockopt keepintvl" + end,
                                        "vc_accept setsockopt keepcnt" + end}));
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(AcceptTest, the_access_check_sees_both_addresses_in_host_order)
{
    for (const int family : {AF_INET, AF_INET6}) {
        listen_on(family, 6);
        srv_.reg.acl_func = check_access;
        g_acl_answer = true;
        const int peer = client();
        EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
        EXPECT_EQ(g_acl_local.ss_family, family);
        EXPECT_EQ(reinterpret_cast<sockaddr_in *>(&g_acl_local)->sin_port,
                  port_of(peer, true));
        EXPECT_EQ(reinterpret_cast<sockaddr_in *>(&g_acl_peer)->sin_port,
                  port_of(peer, false));
        close(entry(0)->fd);
        vc_pending_drop(entry(0));
    }
}

TEST_F(AcceptTest, a_refused_connection_is_closed_and_not_reported)
{
    for (const int family : {AF_INET, AF_INET6}) {
        listen_on(family, 6);
        srv_.reg.acl_func = check_access;
        g_acl_answer = false;
        const int peer = client();
        messages();
        EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
        EXPECT_TRUE(sent().empty());
        EXPECT_TRUE(list_is_empty());
        char byte;
        EXPECT_EQ(recv(peer, &byte, 1, 0), 0);
        const auto texts = messages();
        ASSERT_EQ(texts.size(), 2u);
        EXPECT_EQ(texts[1].find("vc: acl func proc, sockfd="), 0u);
        EXPECT_NE(texts[1].find(", line="), std::string::npos);
    }
}

TEST_F(AcceptTest, a_unix_connection_is_not_checked)
{
    listen_on(AF_UNIX, 7);
    srv_.reg.acl_func = check_access;
    g_acl_answer = false;
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(g_acl_calls, 0);
}

TEST_F(AcceptTest, tos_is_set_on_the_listener_not_on_the_connection)
{
    listen_on(AF_INET, 6);
    srv_.reg.tos_func = answer_tos;
    g_tos_answer = 0x10;
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(int_option(srv_.listen_fd, IPPROTO_IP, IP_TOS), 0x10);
    EXPECT_EQ(int_option(entry(0)->fd, IPPROTO_IP, IP_TOS), 0);
}

TEST_F(AcceptTest, traffic_class_is_set_on_an_ipv6_listener)
{
    listen_on(AF_INET6, 6);
    srv_.reg.tos_func = answer_tos;
    g_tos_answer = 0x20;
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(int_option(srv_.listen_fd, IPPROTO_IPV6, IPV6_TCLASS), 0x20);
}

TEST_F(AcceptTest, a_negative_tos_counts_as_0)
{
    listen_on(AF_INET, 6);
    srv_.reg.tos_func = answer_tos;
    g_tos_answer = -5;
    int old = 0x10;
    setsockopt(srv_.listen_fd, IPPROTO_IP, IP_TOS, &old, sizeof old);
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(int_option(srv_.listen_fd, IPPROTO_IP, IP_TOS), 0);
}

TEST_F(AcceptTest, without_a_callback_the_tos_is_left_alone)
{
    listen_on(AF_INET, 6);
    int old = 0x10;
    setsockopt(srv_.listen_fd, IPPROTO_IP, IP_TOS, &old, sizeof old);
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(int_option(srv_.listen_fd, IPPROTO_IP, IP_TOS), 0x10);
}

TEST_F(AcceptTest, a_tos_that_cannot_be_set_is_logged_and_ignored)
{
    fault_row("vc_accept", "setsockopt", "EPERM", "0",
              "%s set tos fail, err:%s.\r\n", "the connection is taken");
    for (const int family : {AF_INET, AF_INET6}) {
        listen_on(family, 6);
        srv_.reg.tos_func = answer_tos;
        client();
        fault::fail("setsockopt", 1, EPERM);
        EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
        fault::reset();
        EXPECT_TRUE(logged(std::string("vc_accept set tos fail, err:") +
                           strerror(EPERM) + ".\r\n"));
        close(entry(0)->fd);
        vc_pending_drop(entry(0));
    }
}
