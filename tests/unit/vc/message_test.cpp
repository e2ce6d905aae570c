#include "vc/message.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>

#include "common/io.h"
#include "tests/support/fault.h"
#include "tests/support/fault_row.h"
#include "tests/unit/vc/vc_fixture.h"

using MessageTest = VcTest;

static bool blocking(int fd)
{
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

TEST_F(MessageTest, the_record_has_156_bytes)
{
    EXPECT_EQ(sizeof(tty_cmsg), 156u);
}

TEST_F(MessageTest, each_field_has_its_offset_and_width)
{
    EXPECT_EQ(offsetof(tty_cmsg, vc_flag), 0u);
    EXPECT_EQ(offsetof(tty_cmsg, ttyno), 4u);
    EXPECT_EQ(offsetof(tty_cmsg, sockfd), 8u);
    EXPECT_EQ(offsetof(tty_cmsg, socktype), 12u);
    EXPECT_EQ(offsetof(tty_cmsg, port), 16u);
    EXPECT_EQ(offsetof(tty_cmsg, protocol), 20u);
    EXPECT_EQ(offsetof(tty_cmsg, pid), 24u);
    EXPECT_EQ(offsetof(tty_cmsg, peer_port), 28u);
    EXPECT_EQ(offsetof(tty_cmsg, local_addr), 36u);
    EXPECT_EQ(offsetof(tty_cmsg, tipc_addrtype), 44u);
    EXPECT_EQ(offsetof(tty_cmsg, tipc_scope), 48u);
    EXPECT_EQ(offsetof(tty_cmsg, tipc_type), 52u);
    EXPECT_EQ(offsetof(tty_cmsg, tipc_lower), 56u);
    EXPECT_EQ(offsetof(tty_cmsg, tipc_upper), 60u);
    EXPECT_EQ(offsetof(tty_cmsg, tos), 64u);
    EXPECT_EQ(offsetof(tty_cmsg, accept_id), 68u);
    EXPECT_EQ(offsetof(tty_cmsg, peer_addr), 76u);
    EXPECT_EQ(offsetof(tty_cmsg, path), 92u);
    EXPECT_EQ(sizeof(tty_cmsg::local_addr), 16u);
    EXPECT_EQ(sizeof(tty_cmsg::peer_addr), 16u);
    EXPECT_EQ(sizeof(tty_cmsg::path), 64u);
}

// The bytes of a record, put together by hand.
struct wire {
    uint8_t bytes[156] = {};

    void put(size_t offset, uint32_t value)
    {
        memcpy(bytes + offset, &value, 4);
    }

    void fill(size_t offset, size_t length, uint8_t first)
    {
        for (size_t i = 0; i < length; i++) {
            bytes[offset + i] = static_cast<uint8_t>(first + i);
        }
    }
};

static bool arrives_as(int from, int to, const tty_cmsg &msg,
                       const wire &expected)
{
    uint8_t bytes[156] = {};

    return vc_msg_send(from, &msg) == 156 &&
           recv(to, bytes, sizeof bytes, MSG_DONTWAIT) == 156 &&
           memcmp(bytes, expected.bytes, sizeof bytes) == 0;
}

TEST_F(MessageTest, the_fields_of_a_report_are_sent_as_their_bytes)
{
    tty_cmsg msg = {};
    wire expected;
    msg.vc_flag = 0x80000401;
    msg.ttyno = 258;
    msg.sockfd = 0x01020304;
    msg.socktype = 10;
    msg.port = 65535;
    msg.protocol = 11;
    msg.pid = 0x7ffffffe;
    msg.peer_port = 0x1234;
    msg.tos = -1;
    msg.accept_id = -2;
    for (uint8_t i = 0; i < 16; i++) {
        msg.local_addr[i] = static_cast<uint8_t>(0xf0 + i);
        msg.peer_addr[i] = static_cast<uint8_t>(0x70 + i);
    }
    memcpy(msg.path, "/\xc3\xbc", 3);
    const uint32_t numbers[] = {0x80000401, 258, 0x01020304, 10,
                                65535,      11,  0x7ffffffe, 0x1234};
    for (size_t i = 0; i < 8; i++) {
        expected.put(4 * i, numbers[i]);
    }
    expected.fill(36, 16, 0xf0);
    expected.put(64, 0xffffffff);
    expected.put(68, 0xfffffffe);
    expected.fill(76, 16, 0x70);
    memcpy(expected.bytes + 92, "/\xc3\xbc", 3);
    EXPECT_TRUE(arrives_as(inetd_fd_, far_end_, msg, expected));
}

TEST_F(MessageTest, the_tipc_fields_are_sent_as_their_bytes)
{
    tty_cmsg msg = {};
    wire expected;
    msg.tipc_addrtype = 0x81020304;
    msg.tipc_scope = -3;
    msg.tipc_type = 0x82020304;
    msg.tipc_lower = 0x83020304;
    msg.tipc_upper = 0x84020304;
    expected.put(44, 0x81020304);
    expected.put(48, 0xfffffffd);
    expected.put(52, 0x82020304);
    expected.put(56, 0x83020304);
    expected.put(60, 0x84020304);
    EXPECT_TRUE(arrives_as(inetd_fd_, far_end_, msg, expected));
}

TEST_F(MessageTest, each_flag_has_its_bit)
{
    EXPECT_EQ(VC_FLAG_CLIENT_ALLOC, 0x001u);
    EXPECT_EQ(VC_FLAG_CLIENT_CLEAR, 0x002u);
    EXPECT_EQ(VC_FLAG_PORT_PERMIT, 0x008u);
    EXPECT_EQ(VC_FLAG_PORT_FAIL, 0x010u);
    EXPECT_EQ(VC_FLAG_ALLOC_OK, 0x020u);
    EXPECT_EQ(VC_FLAG_PATH_PERMIT, 0x080u);
    EXPECT_EQ(VC_FLAG_PATH_FAIL, 0x100u);
    EXPECT_EQ(VC_FLAG_STOP_LISTEN, 0x200u);
    EXPECT_EQ(VC_FLAG_PORT_CHANGE, 0x400u);
}

TEST_F(MessageTest, an_ipv6_local_address_shares_bytes_with_the_tipc_fields)
{
    tty_cmsg msg = {};
    memset(msg.local_addr, 0xff, sizeof msg.local_addr);
    EXPECT_EQ(msg.tipc_addrtype, 0xffffffffu);
    EXPECT_EQ(msg.tipc_scope, -1);
    EXPECT_EQ(msg.tipc_type, 0u);
}

TEST_F(MessageTest, a_record_is_sent_whole_in_blocking_mode)
{
    tty_cmsg msg = {};
    msg.ttyno = 77;
    vc_set_bk(inetd_fd_, false);
    EXPECT_EQ(vc_msg_send(inetd_fd_, &msg), 156);
    EXPECT_TRUE(blocking(inetd_fd_));
    char buf[300];
    EXPECT_EQ(recv(far_end_, buf, sizeof buf, MSG_DONTWAIT), 156);
    EXPECT_EQ(memcmp(buf, &msg, sizeof msg), 0);
}

TEST_F(MessageTest, a_record_written_in_pieces_arrives_whole)
{
    fault_row("vc_msg_send", "write", "short", "156", "",
              "the whole record sent");
    tty_cmsg msg = {};
    msg.ttyno = 77;
    fault::shorten("write", 1, 10, 5, fault::only_fd(inetd_fd_));
    EXPECT_EQ(vc_msg_send(inetd_fd_, &msg), 156);
    ASSERT_EQ(sent().size(), 1u);
}

TEST_F(MessageTest, a_send_that_fails_leaves_the_error)
{
    fault_row("vc_msg_send", "write", "EPIPE", "-1 and the errno", "", "");
    tty_cmsg msg = {};
    fault::fail("write", 1, EPIPE, 1, fault::only_fd(inetd_fd_));
    EXPECT_LT(vc_msg_send(inetd_fd_, &msg), 0);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(MessageTest, an_interrupted_send_is_completed)
{
    fault_row("vc_msg_send", "write", "EINTR, EAGAIN", "156", "",
              "the whole record sent");
    tty_cmsg msg = {};
    for (const int error : {EINTR, EAGAIN}) {
        fault::shorten("write", 1, 100, 1, fault::only_fd(inetd_fd_));
        fault::fail("write", 2, error, 3, fault::only_fd(inetd_fd_));
        EXPECT_EQ(vc_msg_send(inetd_fd_, &msg), 156);
        fault::reset();
        EXPECT_EQ(sent().size(), 1u);
    }
}

TEST_F(MessageTest, a_mode_that_cannot_be_set_is_ignored)
{
    fault_row("vc_set_bk", "ioctl", "ENOTTY", "nothing", "",
              "the record is sent and received all the same");
    tty_cmsg msg = {};
    msg.ttyno = 77;
    fault::fail("ioctl", 1, ENOTTY, 3);
    EXPECT_EQ(vc_msg_send(inetd_fd_, &msg), 156);
    ASSERT_EQ(sent().size(), 1u);
    ASSERT_TRUE(give(msg));
    tty_cmsg received = {};
    EXPECT_EQ(vc_msg_recv(inetd_fd_, &received), 156);
    EXPECT_EQ(received.ttyno, 77);
    EXPECT_EQ(fault::calls("ioctl"), 3);
}

TEST_F(MessageTest, a_record_is_received_without_waiting)
{
    tty_cmsg msg;
    EXPECT_EQ(vc_msg_recv(inetd_fd_, &msg), -1);
    EXPECT_EQ(errno, EAGAIN);
}

static int g_inetd_fd;
static bool g_waits;

// Without waiting, and only for the receive: a port update on another thread
// that meets a full socket would try again without a pause, with the lock held.
TEST_F(MessageTest,
       the_connection_is_nonblocking_only_while_it_is_received_from)
{
    tty_cmsg msg;
    g_inetd_fd = inetd_fd_;
    fault::run(
        "recv", 1,
        [] {
            g_waits = blocking(g_inetd_fd);
        },
        2);
    g_waits = true;
    EXPECT_EQ(vc_msg_recv(inetd_fd_, &msg), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(g_waits);
    EXPECT_TRUE(blocking(inetd_fd_));
    ASSERT_TRUE(give(tty_cmsg{}));
    EXPECT_EQ(vc_msg_recv(inetd_fd_, &msg), 156);
    EXPECT_TRUE(blocking(inetd_fd_));
}

TEST_F(MessageTest, one_record_is_received_at_a_time)
{
    tty_cmsg msg = {};
    for (int i = 1; i <= 2; i++) {
        msg.ttyno = i;
        ASSERT_TRUE(give(msg));
    }
    EXPECT_EQ(vc_msg_recv(inetd_fd_, &msg), 156);
    EXPECT_EQ(msg.ttyno, 1);
    EXPECT_EQ(vc_msg_recv(inetd_fd_, &msg), 156);
    EXPECT_EQ(msg.ttyno, 2);
}

TEST_F(MessageTest, a_short_record_is_reported_by_its_length)
{
    tty_cmsg msg;
    memset(&msg, 0xee, sizeof msg);
    ASSERT_EQ(send(far_end_, "abc", 3, 0), 3);
    EXPECT_EQ(vc_msg_recv(inetd_fd_, &msg), 3);
    EXPECT_EQ(msg.path[63], '\0');
}

TEST_F(MessageTest, a_path_of_63_characters_fills_the_field_but_one)
{
    tty_cmsg msg;
    memset(&msg, 0xee, sizeof msg);
    vc_msg_set_path(&msg, std::string(63, 'p').c_str());
    EXPECT_EQ(std::string(msg.path), std::string(63, 'p'));
    EXPECT_EQ(msg.path[63], '\0');
}

TEST_F(MessageTest, a_longer_path_is_cut_to_63_characters)
{
    tty_cmsg msg;
    memset(&msg, 0xee, sizeof msg);
    vc_msg_set_path(&msg, std::string(80, 'p').c_str());
    EXPECT_EQ(std::string(msg.path), std::string(63, 'p'));
}

TEST_F(MessageTest, a_shorter_path_leaves_nothing_of_an_older_one)
{
    tty_cmsg msg = {};
    vc_msg_set_path(&msg, "/a/long/path");
    vc_msg_set_path(&msg, "/b");
    const char expected[64] = "/b";
    EXPECT_EQ(memcmp(msg.path, expected, sizeof expected), 0);
}

TEST_F(MessageTest, a_path_without_terminator_is_64_characters_long)
{
    tty_cmsg msg = {};
    memset(msg.path, 'x', sizeof msg.path);
    EXPECT_EQ(std::string(vc_msg_path_of(&msg).text), std::string(64, 'x'));
}
