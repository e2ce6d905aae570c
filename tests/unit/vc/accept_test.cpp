#include "vc/accept.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/accept_fixture.h"
#include "vc/list.h"
#include "vc/pending.h"

// Without the lines on the option that not every kernel knows.
static std::vector<std::string> but_keepalive(std::vector<std::string> texts)
{
    texts.erase(std::remove_if(texts.begin(), texts.end(),
                               [](const std::string &text) {
                                   return text.find("setsockopt keepalive") !=
                                          std::string::npos;
                               }),
                texts.end());
    return texts;
}
TEST_F(AcceptTest, an_ipv4_connection_is_reported_with_both_addresses)
{
    listen_on(AF_INET, 6);
    const int peer = client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    ASSERT_FALSE(list_is_empty());
    tty_cmsg expected = {};
    const in_addr_t loopback = htonl(INADDR_LOOPBACK);
    expected.vc_flag = 0x001;
    expected.sockfd = entry(0)->fd;
    expected.socktype = 2;
    expected.port = port_of(peer, true);
    expected.protocol = 6;
    expected.pid = getpid();
    expected.peer_port = port_of(peer, false);
    expected.accept_id = 1;
    const in_addr_t next_to_it = htonl(INADDR_LOOPBACK + 1);
    memcpy(expected.local_addr, &loopback, 4);
    memcpy(expected.peer_addr, &next_to_it, 4);
    EXPECT_EQ(memcmp(&records[0], &expected, sizeof expected), 0);
}

TEST_F(AcceptTest, the_messages_of_an_ipv4_connection)
{
    listen_on(AF_INET, 6);
    const int peer = client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    const std::string fd = std::to_string(entry(0)->fd);
    const auto texts = but_keepalive(messages());
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], "vc: new connect, fd=" + fd +
                            ", type=2, protocol=6, port=2323\n");
    EXPECT_EQ(texts[1],
              "vc: accept a socket [127.0.0.2:" +
                  std::to_string(port_of(peer, false)) + " => 127.0.0.1:" +
                  std::to_string(port_of(peer, true)) + "], proto=6\r\n");
    EXPECT_EQ(texts[2].find("vc: vc_accept, fd=" + fd + ", num=1, line="), 0u);
}

TEST_F(AcceptTest, an_ipv6_connection_is_reported_with_whole_addresses)
{
    listen_on(AF_INET6, 6);
    const int peer = client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].vc_flag, 0x001u);
    EXPECT_EQ(records[0].socktype, 10);
    EXPECT_EQ(memcmp(records[0].local_addr, &in6addr_loopback, 16), 0);
    EXPECT_EQ(memcmp(records[0].peer_addr, &in6addr_loopback, 16), 0);
    EXPECT_EQ(records[0].port, port_of(peer, true));
    EXPECT_EQ(records[0].peer_port, port_of(peer, false));
    EXPECT_TRUE(logged(
        "vc: acceptv6 a socket [::1:" + std::to_string(port_of(peer, false)) +
        " => ::1:" + std::to_string(port_of(peer, true)) + "], proto=6\r\n"));
}

// The loopback has one IPv6 address only: the peer's is left out.
TEST_F(AcceptTest, an_ipv6_peer_is_not_taken_for_the_local_end)
{
    fault_row("vc_accept", "getpeername", "ENOTCONN", "0", "",
              "the report, with a peer address of zeros");
    listen_on(AF_INET6, 6);
    client();
    fault::fail("getpeername", 1, ENOTCONN);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(memcmp(records[0].local_addr, &in6addr_loopback, 16), 0);
    EXPECT_EQ(memcmp(records[0].peer_addr, &in6addr_any, 16), 0);
}

TEST_F(AcceptTest, a_unix_connection_carries_its_path_and_no_keepalive)
{
    listen_on(AF_UNIX, 7);
    client();
    const int options = fault::watch("setsockopt");
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(fault::seen(options), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].socktype, 1);
    EXPECT_EQ(records[0].port, 0);
    EXPECT_EQ(records[0].peer_port, 0);
    EXPECT_STREQ(records[0].path, name_.c_str());
}

// Protocol 0 takes a unix service without a path.
TEST_F(AcceptTest, a_unix_service_without_a_path_reports_none)
{
    listen_on(AF_UNIX, 0);
    srv_.reg.listen_path = nullptr;
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_STREQ(records[0].path, "");
}

TEST_F(AcceptTest, a_long_registered_path_is_cut_in_the_report)
{
    listen_on(AF_UNIX, 7);
    client();
    const std::string long_name(80, 'p');
    srv_.reg.listen_path = long_name.c_str();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(std::string(sent()[0].path), std::string(63, 'p'));
}

TEST_F(AcceptTest, one_call_takes_one_connection)
{
    listen_on(AF_INET, 6);
    client();
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(sent().size(), 1u);
}

// From the start: another thread may start a program at any moment.
TEST_F(AcceptTest, a_connection_is_accepted_close_on_exec)
{
    const int accepts = fault::watch("accept4", fault::only_what(SOCK_CLOEXEC));
    listen_on(AF_INET, 6);
    client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(fault::seen(accepts), 1);
    EXPECT_EQ(fcntl(entry(0)->fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(AcceptTest, an_accept_that_fails_is_logged)
{
    fault_row("vc_accept", "accept4", "EMFILE", "-1",
              "vc: accept fail, errno=%d, %s\n", "");
    listen_on(AF_INET, 6);
    client();
    fault::fail("accept4", 1, EMFILE);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{
                  "vc: accept fail, errno=" + std::to_string(EMFILE) + ", " +
                  strerror(EMFILE) + "\n"}));
}

// The client may have gone, or descriptors may be short for a while: the
// client that waits then is taken by a later call.
TEST_F(AcceptTest, after_any_failure_of_accept_the_next_call_takes_the_client)
{
    fault_row("vc_accept", "accept4",
              "ECONNABORTED, EINTR, EAGAIN, EMFILE, ENFILE, ENOMEM, EPERM",
              "-1", "vc: accept fail, errno=%d, %s\n",
              "the client is taken by the next call; the inetd hears of it "
              "then");
    for (const int error :
         {ECONNABORTED, EINTR, EAGAIN, EMFILE, ENFILE, ENOMEM, EPERM}) {
        listen_on(AF_INET, 6);
        client();
        fault::fail("accept4", 1, error);
        EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
        fault::reset();
        EXPECT_EQ(messages(),
                  (std::vector<std::string>{
                      "vc: accept fail, errno=" + std::to_string(error) + ", " +
                      strerror(error) + "\n"}));
        EXPECT_TRUE(sent().empty());
        EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
        EXPECT_EQ(sent().size(), 1u);
        messages();
        close(entry(0)->fd);
        vc_pending_drop(entry(0));
    }
}

TEST_F(AcceptTest, a_listener_that_cannot_be_asked_is_left_for_later)
{
    fault_row("vc_accept", "poll", "EINTR, ENOMEM", "-1", "",
              "the client is taken by the next call");
    listen_on(AF_INET, 6);
    client();
    const int accepts = fault::watch("accept4");
    fault::fail("poll", 1, EINTR);
    fault::fail("poll", 2, ENOMEM);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
    EXPECT_EQ(fault::seen(accepts), 0);
    EXPECT_TRUE(messages().empty());
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    EXPECT_EQ(sent().size(), 1u);
    close(entry(0)->fd);
    vc_pending_drop(entry(0));
}

TEST_F(AcceptTest, a_listener_without_a_client_is_not_waited_for)
{
    listen_on(AF_INET, 6);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
    EXPECT_TRUE(messages().empty());
}

TEST_F(AcceptTest, addresses_that_cannot_be_read_are_zero)
{
    fault_row("vc_accept", "getsockname", "ENOBUFS", "0", "",
              "the report, with addresses and ports of zeros");
    fault_row("vc_accept", "getpeername", "ENOTCONN", "0", "",
              "the report, with addresses and ports of zeros");
    listen_on(AF_INET, 6);
    client();
    fault::fail("getsockname", 1, ENOBUFS);
    fault::fail("getpeername", 1, ENOTCONN);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].port, 0);
    EXPECT_EQ(records[0].peer_port, 0);
    EXPECT_TRUE(
        logged("vc: accept a socket [0.0.0.0:0 => 0.0.0.0:0], proto=6\r\n"));
}

TEST_F(AcceptTest, without_memory_the_socket_stays_open_and_unreported)
{
    fault_row("vc_accept", "malloc", "ENOMEM", "-1",
              "vc: malloc accpet_fd fail at %s, line:%d\n",
              "the socket stays open, the inetd hears nothing");
    listen_on(AF_UNIX, 7);
    client();
    const int next = dup(0);
    close(next);
    fault::fail("malloc", 1, ENOMEM);
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
    fault::reset();
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(g_vc_accept_fd_num, 0);
    EXPECT_NE(fcntl(next, F_GETFD), -1);
    close(next);
    EXPECT_EQ(
        messages().back().find("vc: malloc accpet_fd fail at vc_accept, line:"),
        0u);
}

TEST_F(AcceptTest, a_report_that_cannot_be_sent_is_rolled_back)
{
    fault_row("vc_accept", "write", "EPIPE", "-1",
              "vc: send daemon fail, socket dup rollback\n",
              "the socket closed, nothing on the accept list");
    listen_on(AF_INET, 6);
    const int peer = client();
    fault::fail("write", 1, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
    fault::reset();
    EXPECT_TRUE(list_is_empty());
    EXPECT_EQ(g_vc_accept_fd_num, 0);
    EXPECT_EQ(messages().back(), "vc: send daemon fail, socket dup rollback\n");
    char byte;
    EXPECT_EQ(recv(peer, &byte, 1, 0), 0);
}

// The kernel may lack TIPC: the addresses are left as the kernel left them.
TEST_F(AcceptTest, tipc_connections_are_reported_by_fixed_ports)
{
    fault_row("vc_accept", "getsockname", "ENOBUFS", "0",
              "vc:accept a tipc socket, %s: addrtype(%d), scope(%d), "
              "nameseq_type(%d), nameseq_lower(%d), nameseq_upper(%d)\n",
              "the report; addresses of zeros in the log");
    fault_row("vc_accept", "getpeername", "ENOBUFS", "0",
              "vc:accept a tipc socket, %s: addrtype(%d), scope(%d), "
              "nameseq_type(%d), nameseq_lower(%d), nameseq_upper(%d)\n",
              "the report; addresses of zeros in the log");
    const struct {
        uint32_t protocol;
        int port;
    } cases[] = {{3, 4627}, {8, 2013}};
    for (const auto &one : cases) {
        listen_on(AF_UNIX, 7);
        srv_.reg = plain(30, 0, nullptr, one.protocol);
        client();
        const int options = fault::watch("setsockopt");
        fault::fail("getsockname", 1, ENOBUFS);
        fault::fail("getpeername", 1, ENOBUFS);
        messages();
        EXPECT_EQ(vc_accept(inetd_fd_, &srv_), 0);
        EXPECT_EQ(fault::seen(options), 0);
        fault::reset();
        const auto records = sent();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].socktype, 30);
        EXPECT_EQ(records[0].port, one.port);
        EXPECT_EQ(records[0].peer_port, 0);
        const auto texts = messages();
        const std::string zero = ": addrtype(0), scope(0), nameseq_type(0), "
                                 "nameseq_lower(0), nameseq_upper(0)\n";
        ASSERT_EQ(texts.size(), 4u);
        EXPECT_EQ(texts[1], "vc:accept a tipc socket, server" + zero);
        EXPECT_EQ(texts[2], "vc:accept a tipc socket, client" + zero);
    }
}

TEST_F(AcceptTest, a_tipc_connection_of_another_protocol_is_closed)
{
    listen_on(AF_UNIX, 7);
    srv_.reg = plain(30, 0, nullptr, 0);
    const int peer = client();
    EXPECT_EQ(vc_accept(inetd_fd_, &srv_), -1);
    EXPECT_EQ(messages().back(), "vc: wrong protocol\n");
    EXPECT_TRUE(sent().empty());
    char byte;
    EXPECT_EQ(recv(peer, &byte, 1, 0), 0);
}
